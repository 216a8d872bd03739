// Packed chains whose writer is not trusted: what unpack() takes can be read as the table's types
// say, every pointer of it followed, and it takes nothing else.
#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "chainmutants.hpp"
#include "chainwriter.hpp"
#include "conveniencetest.hpp"
#include "randomrun.hpp"

namespace memtest {
namespace {

using chainwriter::Chain;
using chainwriter::kNone;
using chainwriter::Place;
using chainwriter::Tree;
using chainwriter::Writer;

// --- The structures ----------------------------------------------------------------------------

struct Package;
struct Note {
  std::int16_t count;  // of the bytes after it
  std::uint8_t bytes[6];
  const char *pText;
};
struct Dependency {
  Dependency *pNext;
  const char *pName;
  const Package *pPackage;  // references
  const Note *pNote;
};
struct Package {
  Package *pNext;
  const char *pName;
  const char16_t *pTitle;
  Dependency *pFirst;
  Note *pNote;
  const Package *pBest;  // a reference
  std::uint8_t data[40];
};

constexpr auto kPackages = mem::packTable(
    mem::segment<Package>(
        mem::sibling(MEM_FIELD(Package, pNext)), mem::child(MEM_FIELD(Package, pName)),
        mem::child(MEM_FIELD(Package, pTitle)), mem::child(MEM_FIELD(Package, pFirst)),
        mem::child(MEM_FIELD(Package, pNote)), mem::reference(MEM_FIELD(Package, pBest))),
    mem::segment<Dependency>(mem::sibling(MEM_FIELD(Dependency, pNext)),
                             mem::child(MEM_FIELD(Dependency, pName)),
                             mem::reference(MEM_FIELD(Dependency, pPackage)),
                             mem::reference(MEM_FIELD(Dependency, pNote))),
    mem::countedSegment(MEM_FIELD(Note, count), mem::child(MEM_FIELD(Note, pText))));
static_assert(kPackages.targetCount() == 2);

// The same for an emulated writer, and a small tree of them.
enum Node : std::size_t {
  kFirst,
  kName,
  kTitle,
  kDependency,
  kDependencyName,
  kOtherDependency,
  kNote,
  kNoteText,
  kSecond,
  kNodes
};

Tree packageTree() {
  using chainwriter::child;
  using chainwriter::data;
  using chainwriter::Form;
  using chainwriter::reference;
  using chainwriter::sibling;
  Tree tree;
  tree.kinds = {
      {Form::Fixed, {sibling(), child(3), child(4), child(1), child(2), reference(), data(40)}},
      {Form::Fixed, {sibling(), child(3), reference(), reference()}},
      {Form::Counted, {data(6), child(3)}},
      {Form::Narrow},
      {Form::Wide}};
  tree.nodes.resize(kNodes);
  for (const Node package : {kFirst, kSecond}) tree.nodes[package].data.assign(40, 0xDA);
  tree.nodes[kFirst].targets = {kSecond, kName, kTitle, kDependency, kNote, kSecond};
  tree.nodes[kName] = {.kind = 3, .narrow = "first"};
  tree.nodes[kTitle] = {.kind = 4, .wide = U"title"};
  tree.nodes[kDependency] = {.kind = 1,
                             .targets = {kOtherDependency, kDependencyName, kSecond, kNote}};
  tree.nodes[kDependencyName] = {.kind = 3, .narrow = "dependency"};
  tree.nodes[kOtherDependency] = {.kind = 1, .targets = {kNone, kNone, kFirst, kNone}};
  tree.nodes[kNote] = {.kind = 2, .data = {1, 2, 3, 4, 5, 6}, .targets = {kNoteText}};
  tree.nodes[kNoteText] = {.kind = 3, .narrow = "note"};
  tree.nodes[kSecond].targets = {kNone, kNone, kNone, kNone, kNone, kFirst};
  return tree;
}

// Parts of the segments that are references.
constexpr std::size_t kBestPart = 5;
constexpr std::size_t kPackagePart = 2;
constexpr std::size_t kNotePart = 3;

// --- What is taken -----------------------------------------------------------------------------

// Goes through an unpacked chain as a program does that believes its types.
class TypedWalk {
 public:
  explicit TypedWalk(const mem::PackedChain &chain) {
    for (const MemPackBlock *block = chain.handle().pFirst; block != nullptr;
         block = block->pNext) {
      blocks_[reinterpret_cast<const char *>(block) + 8] = chain.handle().blockLen - 8;
    }
  }

  std::string faultOf(const Package *root) {
    addPackages(root);
    for (const auto &[pTarget, kind] : references_) {
      const auto found = segments_.find(pTarget);
      expect(found != segments_.end(), "a reference leads to no segment");
      expect(found == segments_.end() || found->second == kind, "a reference of another kind");
    }
    return fault_;
  }

 private:
  void addPackages(const Package *next) {
    while (next != nullptr && isThere(next, sizeof *next, 'P')) {
      const Package package = mem::readRecord(next);
      addText(package.pName);
      addWideText(package.pTitle);
      addDependencies(package.pFirst);
      addNote(package.pNote);
      refer(package.pBest, 'P');
      next = package.pNext;
    }
  }
  void addDependencies(const Dependency *next) {
    while (next != nullptr && isThere(next, sizeof *next, 'D')) {
      const Dependency dependency = mem::readRecord(next);
      addText(dependency.pName);
      refer(dependency.pPackage, 'P');
      refer(dependency.pNote, 'N');
      next = dependency.pNext;
    }
  }
  void addNote(const Note *pNote) {
    if (pNote != nullptr && isThere(pNote, 2, 'N') && room(pNote) >= sizeof *pNote) {
      addText(mem::readRecord(pNote).pText);
    }
  }
  void addText(const char *pText) {
    expect(pText == nullptr || std::memchr(pText, 0, room(pText)) != nullptr,
           "text without an end");
  }
  void addWideText(const char16_t *pText) {
    if (pText == nullptr) return;
    const std::size_t units = room(pText) / sizeof(char16_t);
    for (std::size_t i = 0; i < units; ++i) {
      char16_t unit = 0;
      std::memcpy(&unit, reinterpret_cast<const char *>(pText) + 2 * i, sizeof unit);
      if (unit == 0) return;
    }
    expect(false, "wide text without an end");
  }
  void refer(const void *pTarget, char kind) {
    if (pTarget != nullptr) references_.push_back({pTarget, kind});
  }

  bool isThere(const void *pSegment, std::size_t length, char kind) {
    expect(room(pSegment) >= length, "a segment is not in its block");
    expect(segments_.insert({pSegment, kind}).second, "a segment is reached twice");
    return fault_.empty();
  }
  // Bytes from there to the end of the block.
  std::size_t room(const void *pByte) const {
    const auto *const at = static_cast<const char *>(pByte);
    const auto behind = blocks_.upper_bound(at);
    if (behind == blocks_.begin()) return 0;
    const auto &[start, length] = *std::prev(behind);
    return at < start + length ? static_cast<std::size_t>(start + length - at) : 0;
  }
  void expect(bool isGood, const char *what) {
    if (!isGood && fault_.empty()) fault_ = what;
  }

  std::map<const char *, std::size_t> blocks_;
  std::map<const void *, char> segments_;
  std::vector<std::pair<const void *, char>> references_;
  std::string fault_;
};

class UntrustedChainTest : public ConvenienceTest {
 protected:
  static constexpr std::size_t kBlockLen = 1400;

  mem::PackedChain load(const chainwriter::Bytes &file) {
    return taken(mem::PackedChain::load(context, std::as_bytes(std::span(file))));
  }
  // "" for a chain that is taken, else how it is refused. What is taken is looked through.
  std::string unpack(const chainwriter::Bytes &file) {
    auto loaded = mem::PackedChain::load(context, std::as_bytes(std::span(file)));
    if (!loaded.isOk()) return "not loaded";
    mem::PackedChain chain = std::move(loaded).value();
    const mem::Result<Package *> root = chain.unpack(kPackages);
    if (!root.isOk()) {
      return root.error().isRefusal() ? root.error().nameText()
                                      : std::to_string(root.error().code());
    }
    EXPECT_EQ(TypedWalk(chain).faultOf(root.value()), "");
    return "";
  }
  bool isUnpackedUnchecked(const chainwriter::Bytes &file) {
    mem::PackedChain chain = load(file);
    return chain.unpackUnchecked(kPackages).isOk();
  }

  const Tree tree = packageTree();
};

constexpr char kNoSegment[] = "a reference leads to no segment of its kind";
constexpr char kOtherTable[] = "the chain describes other structures";

TEST_F(UntrustedChainTest, GoodChainsOfAllWritersAreTaken) {
  for (const Writer &writer : chainwriter::allWriters()) {
    for (const std::size_t blockLen : {kBlockLen, std::size_t{2000}}) {
      EXPECT_EQ(unpack(chainwriter::write(tree, writer, blockLen).file()), "") << writer.name();
    }
  }
}

// A reference of one segment that leads to a place.
struct Misled {
  const char *what;
  Node from;
  std::size_t part;
  Node to;
  std::size_t behind;  // so many bytes
};
constexpr Misled kMisled[] = {
    {"into the middle of a segment", kFirst, kBestPart, kSecond, 8},
    {"to the last byte of a segment", kFirst, kBestPart, kSecond, 40},
    {"into itself", kFirst, kBestPart, kFirst, 1},
    {"to a segment of another kind", kFirst, kBestPart, kDependency, 0},
    {"to a segment of another kind", kDependency, kPackagePart, kOtherDependency, 0},
    {"to a counted segment", kDependency, kPackagePart, kNote, 0},
    {"from a counted segment's to a fixed one", kDependency, kNotePart, kFirst, 0},
    {"to text", kDependency, kPackagePart, kName, 0},
    {"to wide text", kOtherDependency, kPackagePart, kTitle, 0},
    {"into text", kDependency, kNotePart, kNoteText, 1},
};

TEST_F(UntrustedChainTest, MisledReferencesAreRefused) {
  for (const Writer &writer : chainwriter::allWriters()) {
    for (const Misled &misled : kMisled) {
      SCOPED_TRACE(writer.name() + ": " + misled.what);
      Chain chain = chainwriter::write(tree, writer, kBlockLen);
      Place target = chain.places[misled.to];
      target.offset += misled.behind;
      chain.setPointer(chain.partPlace(tree, misled.from, misled.part), target);
      const std::string refusal = unpack(chain.file());
      if (writer.pointerWidth == 8) {
        EXPECT_EQ(refusal, kNoSegment);
        EXPECT_TRUE(isUnpackedUnchecked(chain.file())) << "no failure of the service";
      } else {
        EXPECT_NE(refusal, "");  // the service looks at some of it for a new chain
      }
    }
  }
}

TEST_F(UntrustedChainTest, UnreachedSegmentsAreNoTargets) {
  for (const Writer &writer : chainwriter::allWriters()) {
    SCOPED_TRACE(writer.name());
    Chain chain = chainwriter::write(tree, writer, kBlockLen);
    const Place sibling = chain.partPlace(tree, kFirst, 0);
    chain.setNumber(sibling, 0);
    chain.setNumber({sibling.block, sibling.offset + 2}, 0);
    EXPECT_NE(unpack(chain.file()), "");
    if (writer.pointerWidth == 8) {
      EXPECT_TRUE(isUnpackedUnchecked(chain.file())) << "no failure of the service";
    }
  }
}

// The control block, the heads of blocks and the end of the content are no segments either.
TEST_F(UntrustedChainTest, ReferencesToWhatIsNoContentAreRefused) {
  const Chain sound = chainwriter::write(tree, chainwriter::writerOf("0220"), kBlockLen);
  for (const Place place : {Place{0, 1}, Place{0, 2}, Place{0, 6}, Place{0, 500},
                            Place{0, sound.blocks[0].size() - 1}}) {
    Chain chain = sound;
    chain.setPointer(chain.partPlace(tree, kDependency, kPackagePart), place);
    EXPECT_NE(unpack(chain.file()), "") << place.offset;
  }
}

// A segment in the bytes of another one: both can be read, and both may be led to.
TEST_F(UntrustedChainTest, OverlappingSegmentsAreReadOrRefused) {
  for (const char *version : {"0220", "0221"}) {
    const Chain sound = chainwriter::write(tree, chainwriter::writerOf(version), kBlockLen);
    Place inside = sound.partPlace(tree, kSecond, 6);  // its data
    const auto withNoteAt = [&](const Place &place) {
      Chain chain = sound;
      chain.setNumber(place, 14);
      for (std::size_t i = 8; i < 16; i += 2) chain.setNumber({place.block, place.offset + i}, 0);
      chain.setPointer(chain.partPlace(tree, kFirst, 4), place);
      chain.setPointer(chain.partPlace(tree, kDependency, kNotePart), place);
      return chain.file();
    };
    EXPECT_EQ(unpack(withNoteAt(inside)), "") << version;
    inside.offset -= 8;  // over its pointers
    EXPECT_NE(unpack(withNoteAt(inside)), "") << version;
  }
}

// A wide text over the control block, whose units are turned while the chain is unpacked: what is
// read there afterwards is not what was unpacked.
TEST_F(UntrustedChainTest, ADisguisedControlBlockIsRefused) {
  struct Record {
    Record *pNext;
    const char16_t *pTitle;
    std::uint8_t data[240];
  };
  static_assert(sizeof(Record) == 0x0100);
  constexpr auto kRecords = mem::packTable(mem::segment<Record>(
      mem::sibling(MEM_FIELD(Record, pNext)), mem::child(MEM_FIELD(Record, pTitle))));
  Tree records;
  records.kinds = {{chainwriter::Form::Fixed,
                    {chainwriter::sibling(), chainwriter::child(1), chainwriter::data(240)}},
                   {chainwriter::Form::Wide}};
  records.nodes.resize(1);
  records.nodes[0] = {.data = chainwriter::Bytes(240), .targets = {kNone, kNone}};
  Chain chain = chainwriter::write(records, chainwriter::writerOf("0221"), 2000);
  const Place lengthPlace{0, chain.descriptorPlace(0).offset + 2};
  ASSERT_EQ(chain.number(lengthPlace), 0x0100);
  chain.setNumber(lengthPlace, 0x0001);
  chain.setPointer(chain.partPlace(records, 0, 1), lengthPlace);
  const std::size_t used = chain.places[0].offset + 16;  // no more than the pointers
  chain.blocks[0].resize(used);
  chain.setUsedLen(0, static_cast<std::uint16_t>(used));

  mem::PackedChain loaded = load(chain.file());
  EXPECT_EQ(failure(loaded.unpack(kRecords)),
            std::string("PackedChain::unpack failed: ") + kOtherTable);
}

// A chain that ends before its control block does is read no further.
TEST_F(UntrustedChainTest, ShortChainsAreRefused) {
  const chainwriter::Bytes whole =
      chainwriter::write(tree, chainwriter::writerOf("0220"), 2000).file();
  for (const std::size_t length : {6U, 7U, 8U, 20U, 500U, 983U, 984U}) {
    chainwriter::Bytes file(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
    file[0] = static_cast<std::uint8_t>(length & 0xFF);
    file[1] = static_cast<std::uint8_t>(length >> 8);
    EXPECT_NE(unpack(file), "") << length;
  }
}

// More kinds that references lead to need wider marks.
template <int kNumber>
struct Kind {
  Kind<kNumber + 1> *pNext;
  const Kind<kNumber> *pSelf;  // references
  const Kind<kNumber + 1> *pOther;
};
template <>
struct Kind<150> {
  std::uint32_t number;
};
template <int... kNumbers>
constexpr auto tableOfKinds(std::integer_sequence<int, kNumbers...>) {
  constexpr int kFrom = 150 - static_cast<int>(sizeof...(kNumbers));
  return mem::packTable(mem::segment<Kind<kFrom + kNumbers>>(
                            mem::child(MEM_FIELD(Kind<kFrom + kNumbers>, pNext)),
                            mem::reference(MEM_FIELD(Kind<kFrom + kNumbers>, pSelf)),
                            mem::reference(MEM_FIELD(Kind<kFrom + kNumbers>, pOther)))...,
                        mem::segment<Kind<150>>());
}

template <int kFrom>
constexpr auto tableFrom() {
  return tableOfKinds(std::make_integer_sequence<int, 150 - kFrom>());
}

class ManyKindsTest : public UntrustedChainTest {
 protected:
  // The first three of the kinds from one on, and a reference that leads to the next kind's
  // segment.
  template <int kFrom>
  void expectToldApart() {
    SCOPED_TRACE(kFrom);
    static constexpr auto kTable = tableFrom<kFrom>();
    static_assert(kTable.targetCount() == 151 - kFrom);
    Kind<kFrom + 2> third{};
    Kind<kFrom + 1> second{&third, &second, &third};
    const Kind<kFrom> first{&second, &first, &second};
    chainwriter::Bytes file;
    for (const std::span<const std::byte> used :
         taken(mem::PackedChain::pack(context, kTable, first))) {
      for (const std::byte byte : used) file.push_back(std::to_integer<std::uint8_t>(byte));
    }
    mem::PackedChain good = load(file);
    const Kind<kFrom> *const root = taken(good.unpack(kTable));
    EXPECT_EQ(mem::readRecord(root).pSelf, root);
    const std::size_t at = 6 + MEM_PACK_CB_LEN(kTable.count());
    std::copy_n(&file[at + offsetof(Kind<kFrom>, pOther)], 8,
                &file[at + offsetof(Kind<kFrom>, pSelf)]);
    mem::PackedChain bad = load(file);
    EXPECT_EQ(failure(bad.unpack(kTable)),
              std::string("PackedChain::unpack failed: ") + kNoSegment);
  }
};

TEST_F(ManyKindsTest, AreToldApart) {
  expectToldApart<148>();
  expectToldApart<146>();
  expectToldApart<130>();
  expectToldApart<10>();
}

// --- Storage -----------------------------------------------------------------------------------

TEST_F(UntrustedChainTest, LackOfStorageForTheLookIsToldAndLeavesNothing) {
  for (const std::size_t width : {std::size_t{8}, std::size_t{4}}) {
    const chainwriter::Bytes file =
        chainwriter::write(tree, chainwriter::writerOf("0220", width), kBlockLen).file();
    const std::uint64_t before = host.account().liveCount;
    int told = 0;
    sweepFaults(host, faultOf(refhost::Service::GetStorage), [&](std::uint64_t) {
      {
        auto chain = mem::PackedChain::load(context, std::as_bytes(std::span(file)));
        if (chain.isOk()) {
          const auto root = chain.value().unpack(kPackages);
          if (!root.isOk() && !root.error().isRefusal() && root.error().code() == 0) {
            EXPECT_EQ(failure(root),
                      "PackedChain::unpack failed: result -1 without a code "
                      "(no storage to check references)");
            ++told;
          }
        }
      }
      EXPECT_EQ(host.account().liveCount, before);
    });
    EXPECT_EQ(told, 2) << "once in each sweep";
  }
}

// --- Damaged chains ----------------------------------------------------------------------------

TEST_F(UntrustedChainTest, WhateverIsTakenIsAsItsTypesSay) {
  constexpr std::uint64_t kMutants = 500;
  std::map<std::string, int> outcomes;
  const std::vector<Writer> &writers = chainwriter::allWriters();
  const std::uint64_t begin = firstSeed(7400000);
  for (std::uint64_t seed = begin; seed < begin + writers.size(); ++seed) {
    const Writer &writer = writers[seed % writers.size()];
    SCOPED_TRACE(writer.name() + ", " + seedNote(seed));
    Random random(seed);
    const Chain chain = chainwriter::write(tree, writer, random.oneIn(2) ? kBlockLen : 1700);
    ChainMutator mutator(random, tree, chain);
    for (std::uint64_t i = 0; i < kMutants; ++i) {
      ++outcomes[unpack(mutator.next().file())];
      if (HasFailure()) return;
    }
  }
  // Mutants that all end the same way would prove little.
  for (const char *outcome : {"", "4070", "4071", "4072", kNoSegment, kOtherTable}) {
    EXPECT_GT(outcomes[outcome], 20) << outcome;
  }
}

}  // namespace
}  // namespace memtest
