// The chains that are kept under tests/fixtures/chains: one of every writer, of the sample tree.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "chainwriter.hpp"

namespace chainwriter {

struct Fixture {
  std::string name;  // of the file, without its extension
  Tree tree;
  Chain chain;
};
inline void PrintTo(const Fixture &fixture, std::ostream *out) {
  *out << fixture.name;
}

// Chains of writers with 8-byte pointers have their root in block 0, the others in block 1.
inline std::vector<Fixture> allFixtures() {
  constexpr std::size_t kRoomForRoot = 130;
  std::vector<Fixture> fixtures;
  for (const Writer &writer : allWriters()) {
    const Tree tree = sampleTree();
    const std::size_t room = writer.pointerWidth == 8 ? kRoomForRoot : 0;
    const std::size_t blockLen = smallestBlockLen(tree, writer) + room;
    fixtures.push_back({writer.name(), tree, write(tree, writer, blockLen)});
  }
  return fixtures;
}

}  // namespace chainwriter
