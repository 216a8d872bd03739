#include "peers_forms.hpp"

#include "peers_tables.hpp"

namespace bench {

void addGraphs() {
  addPackedChain();
  addFlatBuffers();
  addCapnProto();
  addProtobuf();
  addBoostSerialization();
}

void addTexts() {
  addPortString();
  addTextFormat();
  addRapidJson();
}

}  // namespace bench
