#include <google/protobuf/arena.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/text_format.h>

#include "peers_catalogue.pb.h"
#include "peers_forms.hpp"

namespace bench {

namespace {

using google::protobuf::Arena;
using google::protobuf::TextFormat;

void fill(pb::Package &package, const PackageRecord &record) {
  package.set_number(record.Number);
  package.set_name(record.pName);
  package.set_version(record.pVersion);
  package.set_summary(record.pSummary);
  package.mutable_dependencies()->Reserve(static_cast<int>(record.DependencyCount));
  forEach(record.pFirstDependency, [&package](const DependencyRecord &from) {
    pb::Dependency &dependency = *package.add_dependencies();
    dependency.set_flags(from.Flags);
    dependency.set_target(from.pPackage->Number);
    if (from.pConstraint != nullptr) dependency.set_constraint(from.pConstraint);
  });
}

void fill(pb::Catalogue &catalogue, const Graph &graph) {
  catalogue.mutable_packages()->Reserve(static_cast<int>(graph.count()));
  forEach(graph.root(),
          [&catalogue](const PackageRecord &record) { fill(*catalogue.add_packages(), record); });
}

template <class Visitor>
void visit(const pb::Catalogue &catalogue, Visitor &visitor) {
  for (const pb::Package &package : catalogue.packages()) {
    visitor.package(package.number(), package.name().c_str(), package.version().c_str(),
                    package.summary().c_str());
    for (const pb::Dependency &dependency : package.dependencies()) {
      visitor.dependency(dependency.flags(), dependency.constraint().c_str(),
                         catalogue.packages(static_cast<int>(dependency.target())).number());
    }
  }
}

struct Binary {
  static std::string print(const pb::Catalogue &catalogue) { return catalogue.SerializeAsString(); }
  static bool parse(const Bytes &bytes, pb::Catalogue &catalogue) {
    return catalogue.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
  }
};

struct Text {
  static std::string print(const pb::Catalogue &catalogue) {
    std::string text;
    TextFormat::PrintToString(catalogue, &text);
    return text;
  }
  static bool parse(const Bytes &bytes, pb::Catalogue &catalogue) {
    google::protobuf::io::ArrayInputStream text(bytes.data(), static_cast<int>(bytes.size()));
    return TextFormat::Parse(&text, &catalogue);
  }
};

// Messages are in an arena, as protobuf's manual recommends for speed.
template <class Syntax>
class ProtoForm {
 public:
  static std::string encode(const Graph &graph) {
    Arena arena;
    auto *catalogue = Arena::CreateMessage<pb::Catalogue>(&arena);
    fill(*catalogue, graph);
    return Syntax::print(*catalogue);
  }
  static InputBytes load(const std::string &encoded) {
    return InputBytes(Bytes(encoded.data(), encoded.size()));
  }

  template <class Visitor>
  static void decode(InputBytes &input, Visitor &visitor) {
    Arena arena;
    auto *catalogue = Arena::CreateMessage<pb::Catalogue>(&arena);
    demand(Syntax::parse(input.bytes(), *catalogue), "the message cannot be parsed");
    visit(*catalogue, visitor);
  }
};

}  // namespace

void addProtobuf() {
  addPeerForm<ProtoForm<Binary>>("graph", "protobuf");
}

void addTextFormat() {
  addPeerForm<ProtoForm<Text>>("text", "protobuf TextFormat");
}

}  // namespace bench
