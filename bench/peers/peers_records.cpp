#include "peers_records.hpp"

#include <cstddef>
#include <map>
#include <memory>
#include <random>
#include <string_view>

#include "benchlib.hpp"

namespace bench {

namespace {

constexpr std::uint32_t kDependencyStruct = 2;

constexpr MEMFieldDef kPackageFields[] = {
    portField(1, MEM_PORT_PNT, 8, offsetof(PackageRecord, pNext), kPackageStruct),
    portField(2, MEM_PORT_PSTR, 8, offsetof(PackageRecord, pName)),
    portField(3, MEM_PORT_PSTR, 8, offsetof(PackageRecord, pVersion)),
    portField(4, MEM_PORT_PSTR, 8, offsetof(PackageRecord, pSummary)),
    portField(5, MEM_PORT_PNT, 8, offsetof(PackageRecord, pFirstDependency), kDependencyStruct),
    portField(6, MEM_PORT_ULONG, 4, offsetof(PackageRecord, Number)),
    portField(7, MEM_PORT_ULONG, 4, offsetof(PackageRecord, DependencyCount))};

constexpr MEMFieldDef kDependencyFields[] = {
    portField(1, MEM_PORT_PNT, 8, offsetof(DependencyRecord, pNext), kDependencyStruct),
    portField(2, MEM_PORT_PSTR, 8, offsetof(DependencyRecord, pConstraint)),
    portField(3, MEM_PORT_PNT, 8, offsetof(DependencyRecord, pPackage), kPackageStruct),
    portField(4, MEM_PORT_ULONG, 4, offsetof(DependencyRecord, Flags))};

constexpr MEMStructDef kDefinitions[] = {
    portStruct(kPackageStruct, sizeof(PackageRecord), kPackageFields),
    portStruct(kDependencyStruct, sizeof(DependencyRecord), kDependencyFields),
    MEMStructDef{},  // the end
};

constexpr std::string_view kWords[] = {"shared",  "library", "common", "files",   "for",
                                       "runtime", "tools",   "data",   "network", "system"};

// Texts of a package are made from its number and words.
class TextMaker {
 public:
  TextMaker(std::vector<char> &texts, std::mt19937 &random) : texts_(texts), random_(random) {}

  // Texts may move until all are made, so offsets are kept instead of addresses.
  std::size_t keep(const std::string &text) {
    const std::size_t at = texts_.size();
    texts_.insert(texts_.end(), text.c_str(), text.c_str() + text.size() + 1);
    return at;
  }
  std::string word() { return std::string(kWords[random_() % std::size(kWords)]); }
  std::string name(std::size_t number) {
    return "lib" + word() + "-" + word() + std::to_string(number);
  }
  std::string version() {
    return std::to_string(random_() % 10) + "." + std::to_string(random_() % 100) + "-" +
           std::to_string(random_() % 10);
  }
  std::string summary() {
    std::string made = word();
    for (auto i = 3 + random_() % 6; i > 0; --i) made += " " + word();
    return made;
  }

 private:
  std::vector<char> &texts_;
  std::mt19937 &random_;
};

const char *textAt(const std::vector<char> &texts, std::size_t at) {
  return texts.data() + at;
}

}  // namespace

Graph::Graph(std::size_t count) : packages_(count) {
  std::mt19937 random(42);
  TextMaker maker(texts_, random);
  constexpr std::size_t kNoText = SIZE_MAX;
  std::vector<std::size_t> places;  // of the texts, in the order of the records

  for (std::size_t i = 0; i < count; ++i) {
    places.push_back(maker.keep(maker.name(i)));
    places.push_back(maker.keep(maker.version()));
    places.push_back(maker.keep(maker.summary()));
    PackageRecord &package = packages_[i];
    package.Number = static_cast<std::uint32_t>(i);
    package.DependencyCount = static_cast<std::uint32_t>(random() % 8);
    for (std::uint32_t k = 0; k < package.DependencyCount; ++k) {
      const bool hasConstraint = random() % 2 != 0;
      places.push_back(hasConstraint ? maker.keep(">= " + maker.version()) : kNoText);
      DependencyRecord dependency{};
      dependency.pPackage = &packages_[random() % count];
      dependency.Flags = static_cast<std::uint32_t>(random() % 4);
      dependencies_.push_back(dependency);
    }
  }

  auto place = places.begin();
  auto *dependency = dependencies_.data();
  for (PackageRecord &package : packages_) {
    package.pNext = package.Number + 1 < count ? &package + 1 : nullptr;
    package.pName = textAt(texts_, *place++);
    package.pVersion = textAt(texts_, *place++);
    package.pSummary = textAt(texts_, *place++);
    package.pFirstDependency = package.DependencyCount == 0 ? nullptr : dependency;
    for (std::uint32_t k = package.DependencyCount; k > 0; --k, ++dependency, ++place) {
      dependency->pNext = k > 1 ? dependency + 1 : nullptr;
      dependency->pConstraint = *place == kNoText ? nullptr : textAt(texts_, *place);
    }
  }
}

const Graph &Graph::ofPackages(std::size_t count) {
  static std::map<std::size_t, std::unique_ptr<const Graph>> graphs;
  std::unique_ptr<const Graph> &graph = graphs[count];
  if (graph == nullptr) graph.reset(new Graph(count));
  return *graph;
}

MemPackCB packDescription() {
  enum Kind : std::uint16_t { kPackage, kDependency, kText, kKinds };
  MemPackCB cb{};
  cb.Count = kKinds;
  MemPackDescriptor &package = cb.Descriptors[kPackage];
  package.Type = MEM_PACK_FIXED;
  package.FixedLen = sizeof(PackageRecord);
  package.SiblingOff = offsetof(PackageRecord, pNext);
  package.ChildCount = 4;
  package.Children[0] = {kText, offsetof(PackageRecord, pName)};
  package.Children[1] = {kText, offsetof(PackageRecord, pVersion)};
  package.Children[2] = {kText, offsetof(PackageRecord, pSummary)};
  package.Children[3] = {kDependency, offsetof(PackageRecord, pFirstDependency)};
  MemPackDescriptor &dependency = cb.Descriptors[kDependency];
  dependency.Type = MEM_PACK_FIXED;
  dependency.FixedLen = sizeof(DependencyRecord);
  dependency.SiblingOff = offsetof(DependencyRecord, pNext);
  dependency.ChildCount = 1;
  dependency.Children[0] = {kText, offsetof(DependencyRecord, pConstraint)};
  dependency.ReferenceCount = 1;
  dependency.References[0] = offsetof(DependencyRecord, pPackage);
  MemPackDescriptor &text = cb.Descriptors[kText];
  text.Type = MEM_PACK_STRING;
  text.SiblingOff = MEM_PACK_NO_SIBLING;
  return cb;
}

const MEMStructDef *portDescription() {
  return kDefinitions;
}

}  // namespace bench
