#include "peers_catalogue_generated.h"
#include "peers_forms.hpp"

namespace bench {

namespace {

// The finished buffer.
class FlatBuffer {
 public:
  explicit FlatBuffer(flatbuffers::DetachedBuffer buffer) : buffer_(std::move(buffer)) {}
  const std::uint8_t *data() const { return buffer_.data(); }
  std::size_t size() const { return buffer_.size(); }

 private:
  flatbuffers::DetachedBuffer buffer_;
};

// Readers that trust the file do not call the verifier.
enum class Source { trusted, untrusted };

template <Source kSource>
class FlatForm {
 public:
  FlatBuffer encode(const Graph &graph) {
    flatbuffers::FlatBufferBuilder builder(64 * 1024);
    packages_.clear();
    forEach(graph.root(),
            [&](const PackageRecord &record) { packages_.push_back(addPackage(builder, record)); });
    builder.Finish(fb::CreateCatalogue(builder, builder.CreateVector(packages_)));
    return FlatBuffer(builder.Release());
  }
  static InputBytes load(const FlatBuffer &buffer) {
    return InputBytes(Bytes(buffer.data(), buffer.size()));
  }

  template <class Visitor>
  void decode(InputBytes &input, Visitor &visitor) {
    if constexpr (kSource == Source::untrusted) verify(input.bytes());
    const auto &packages = *fb::GetCatalogue(input.bytes().data())->packages();
    for (const fb::Package *package : packages) {
      visitor.package(package->number(), package->name()->c_str(), package->version()->c_str(),
                      package->summary()->c_str());
      for (const fb::Dependency *dependency : *package->dependencies()) {
        const flatbuffers::String *constraint = dependency->constraint();
        visitor.dependency(dependency->flags(),
                           constraint == nullptr ? nullptr : constraint->c_str(),
                           packages[dependency->target()]->number());
      }
    }
  }

 private:
  flatbuffers::Offset<fb::Package> addPackage(flatbuffers::FlatBufferBuilder &builder,
                                              const PackageRecord &record) {
    dependencies_.clear();
    forEach(record.pFirstDependency, [&](const DependencyRecord &dependency) {
      const auto constraint = dependency.pConstraint == nullptr
                                  ? flatbuffers::Offset<flatbuffers::String>()
                                  : builder.CreateString(dependency.pConstraint);
      dependencies_.push_back(
          fb::CreateDependency(builder, dependency.Flags, dependency.pPackage->Number, constraint));
    });
    const auto name = builder.CreateString(record.pName);
    const auto version = builder.CreateString(record.pVersion);
    const auto summary = builder.CreateString(record.pSummary);
    const auto dependencies = builder.CreateVector(dependencies_);
    return fb::CreatePackage(builder, record.Number, name, version, summary, dependencies);
  }

  static void verify(const Bytes &bytes) {
    constexpr flatbuffers::uoffset_t kMaxDepth = 64;
    constexpr flatbuffers::uoffset_t kMaxTables = 100000000;
    flatbuffers::Verifier verifier(bytes.data(), bytes.size(), kMaxDepth, kMaxTables);
    demand(fb::VerifyCatalogueBuffer(verifier), "the buffer is not valid");
  }

  std::vector<flatbuffers::Offset<fb::Package>> packages_;
  std::vector<flatbuffers::Offset<fb::Dependency>> dependencies_;
};

}  // namespace

void addFlatBuffers() {
  addPeerForm<FlatForm<Source::trusted>>("graph", "FlatBuffers");
  for (const std::size_t count : kGraphSizes) {
    addPeer("graph-decode/FlatBuffers, verified/" + std::to_string(count),
            [count] { return Decode<FlatForm<Source::untrusted>>(count); });
  }
}

}  // namespace bench
