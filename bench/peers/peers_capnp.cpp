#include <capnp/message.h>
#include <capnp/serialize.h>

#include <memory>

#include "peers_catalogue.capnp.h"
#include "peers_forms.hpp"

namespace bench {

namespace {

// The segments of a message, as written to a file.
class CapnMessage {
 public:
  explicit CapnMessage(const Graph &graph)
      : builder_(std::make_unique<capnp::MallocMessageBuilder>(8192)) {
    auto packages =
        builder_->initRoot<cp::Catalogue>().initPackages(static_cast<unsigned>(graph.count()));
    forEach(graph.root(),
            [&packages](const PackageRecord &record) { fill(packages[record.Number], record); });
  }

  std::size_t size() const {
    std::size_t bytes = 0;
    for (const auto &segment : builder_->getSegmentsForOutput()) {
      bytes += segment.asBytes().size();
    }
    return bytes;
  }
  Bytes joined() const {
    const auto words = capnp::messageToFlatArray(*builder_);
    return Bytes(words.begin(), words.asBytes().size());
  }

 private:
  static void fill(cp::Package::Builder package, const PackageRecord &record) {
    package.setNumber(record.Number);
    package.setName(record.pName);
    package.setVersion(record.pVersion);
    package.setSummary(record.pSummary);
    auto dependencies = package.initDependencies(record.DependencyCount);
    unsigned at = 0;
    forEach(record.pFirstDependency, [&dependencies, &at](const DependencyRecord &from) {
      auto dependency = dependencies[at++];
      dependency.setFlags(from.Flags);
      dependency.setTarget(from.pPackage->Number);
      if (from.pConstraint != nullptr) dependency.setConstraint(from.pConstraint);
    });
  }

  std::unique_ptr<capnp::MallocMessageBuilder> builder_;
};

// Cap'n Proto checks data while it reads them.
class CapnForm {
 public:
  static CapnMessage encode(const Graph &graph) { return CapnMessage(graph); }
  static InputBytes load(const CapnMessage &message) { return InputBytes(message.joined()); }

  template <class Visitor>
  static void decode(InputBytes &input, Visitor &visitor) {
    capnp::ReaderOptions options;
    options.traversalLimitInWords = UINT64_MAX;  // the default is for 64 MB
    const auto *words = reinterpret_cast<const capnp::word *>(input.bytes().data());
    capnp::FlatArrayMessageReader reader(
        kj::arrayPtr(words, input.bytes().size() / sizeof(capnp::word)), options);
    const auto packages = reader.getRoot<cp::Catalogue>().getPackages();
    for (const auto package : packages) {
      visitor.package(package.getNumber(), package.getName().cStr(), package.getVersion().cStr(),
                      package.getSummary().cStr());
      for (const auto dependency : package.getDependencies()) {
        visitor.dependency(dependency.getFlags(), dependency.getConstraint().cStr(),
                           packages[dependency.getTarget()].getNumber());
      }
    }
  }
};

}  // namespace

void addCapnProto() {
  addPeerForm<CapnForm>("graph", "Cap'n Proto");
}

}  // namespace bench
