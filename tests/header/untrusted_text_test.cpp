// Port strings whose writer is not trusted: whatever readPortString takes can be read as its types
// say, every pointer of it followed, and what it refuses it refuses by name.
#include <array>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "conveniencetest.hpp"
#include "portmutants.hpp"

namespace memtest {
namespace {

// --- The structures ----------------------------------------------------------------------------

struct Leaf {
  std::uint32_t id;
  Leaf *pNext;
};
struct Part {
  const char *pName;
  Leaf *pLeaf;
};
struct Counted {
  std::uint16_t count;
  Part parts[1];
};
struct Sized {
  std::int32_t length;
  Leaf *pLeaves[1];
};
struct Tree {
  std::int64_t big;  // the last field; what comes again overlaps pLeft
  Tree *pLeft;
  Leaf *pLeaf;
  Leaf leaf;
  Counted counted;
  Counted *pCounted;
  Sized *pSized;
  char name[8];
  char16_t *pTitle;
  std::uint8_t bytes[4];
};

inline constexpr mem::PortTable kTrees{
    mem::structure<Tree, 1>(
        mem::field<1>(MEM_FIELD(Tree, pLeft)), mem::field<2>(MEM_FIELD(Tree, pLeaf)),
        mem::field<3>(MEM_FIELD(Tree, leaf)), mem::field<4>(MEM_FIELD(Tree, pCounted)),
        mem::field<5>(MEM_FIELD(Tree, pSized)), mem::field<6>(MEM_FIELD(Tree, name)),
        mem::field<7>(MEM_FIELD(Tree, pTitle)), mem::field<8>(MEM_FIELD(Tree, counted)),
        mem::field<9>(MEM_FIELD(Tree, bytes)), mem::field<10>(MEM_FIELD(Tree, big))),
    mem::structure<Leaf, 2>(mem::field<1>(MEM_FIELD(Leaf, id)),
                            mem::field<2>(MEM_FIELD(Leaf, pNext)).required().notPorted()),
    mem::structure<Part, 3>(mem::field<1>(MEM_FIELD(Part, pName)),
                            mem::field<2>(MEM_FIELD(Part, pLeaf))),
    mem::structure<Counted, 4>(mem::field<1>(MEM_FIELD(Counted, count)),
                               mem::repeatedField<2, 1>(MEM_FIELD(Counted, parts))),
    mem::structure<Sized, 5>(mem::field<1>(MEM_FIELD(Sized, length)),
                             mem::repeatedFieldByLength<2, 1>(MEM_FIELD(Sized, pLeaves)))};

// Entries of exactly the length asked for, of which the address sanitizer sees each, in place of
// all heaps' entries. What they hold at first leads nowhere.
class SingleEntries {
 public:
  explicit SingleEntries(MEMFunctionVector &mem) { serve(mem); }
  void serve(MEMFunctionVector &mem) {
    current_ = this;
    mem.MEM_HeapAllocEntryLong = [](HMEMHEAP, std::int32_t length, void **ppEntry) {
      return current_->allocate(length, ppEntry);
    };
  }
  void clear() {
    entries_.clear();
    taken_ = 0;
  }
  // Bytes of the entry that begins there, 0 when none does.
  std::size_t lengthAt(const void *pEntry) const {
    const auto found = entries_.find(pEntry);
    return found == entries_.end() ? 0 : found->second.length;
  }

 private:
  struct Entry {
    std::unique_ptr<std::uint8_t[]> storage;
    std::size_t length;
  };

  std::int16_t allocate(std::int32_t length, void **ppEntry) {
    constexpr std::int64_t kLimit = 1 << 20;
    if (length < 1 || length > kLimit - taken_) return kFailed;
    taken_ += length;
    const auto bytes = static_cast<std::size_t>(length);
    auto storage = std::make_unique<std::uint8_t[]>(bytes);
    std::memset(storage.get(), 0xA5, bytes);
    *ppEntry = storage.get();
    entries_[*ppEntry] = {std::move(storage), bytes};
    return 0;
  }

  inline static SingleEntries *current_ = nullptr;
  std::map<const void *, Entry> entries_;
  std::int64_t taken_ = 0;
};

// Goes through all that a tree leads to, as a program does that believes its types. Each structure
// has to be an entry of its own kind.
class TypedWalk {
 public:
  explicit TypedWalk(const SingleEntries &entries) : entries_(entries) {}

  std::string faultOf(const Tree *root) {
    add(root);
    while (!open_.empty() && fault_.empty()) {
      const auto [kind, pRecord] = open_.front();
      open_.pop_front();
      switch (kind) {
        case 'T':
          look(*static_cast<const Tree *>(pRecord));
          break;
        case 'L':
          look(*static_cast<const Leaf *>(pRecord));
          break;
        case 'C':
          look(*static_cast<const Counted *>(pRecord), entries_.lengthAt(pRecord));
          break;
        default:
          look(*static_cast<const Sized *>(pRecord), entries_.lengthAt(pRecord));
      }
    }
    return fault_;
  }

 private:
  void add(const Tree *p) { add('T', p, sizeof *p); }
  void add(const Leaf *p) { add('L', p, sizeof *p); }
  void add(const Counted *p) { add('C', p, offsetof(Counted, parts)); }
  void add(const Sized *p) { add('S', p, offsetof(Sized, pLeaves)); }
  void add(char kind, const void *pRecord, std::size_t least) {
    if (pRecord == nullptr) return;
    const auto [place, isNew] = kinds_.insert({pRecord, kind});
    if (!isNew) return expect(place->second == kind, "two kinds at one place");
    const std::size_t length = entries_.lengthAt(pRecord);
    const bool isExact = kind == 'T' || kind == 'L';
    expect(isExact ? length == least : length >= least, "no entry of its kind");
    if (fault_.empty()) open_.push_back({kind, pRecord});
  }

  void look(const Tree &tree) {
    add(tree.pLeft);
    add(tree.pLeaf);
    look(tree.leaf);
    look(tree.counted, offsetof(Counted, parts) + sizeof(Part));
    add(tree.pCounted);
    add(tree.pSized);
    expect(std::memchr(tree.name, 0, sizeof tree.name) != nullptr, "text without an end");
    if (tree.pTitle == nullptr) return;
    const std::size_t units = entries_.lengthAt(tree.pTitle) / sizeof(char16_t);
    expect(std::u16string_view(tree.pTitle, units).find(u'\0') < units, "wide text without an end");
  }
  void look(const Leaf &leaf) { add(leaf.pNext); }
  void look(const Part &part) {
    add(part.pLeaf);
    if (part.pName == nullptr) return;
    const std::size_t length = entries_.lengthAt(part.pName);
    expect(length > 0 && std::memchr(part.pName, 0, length) != nullptr, "text without an end");
  }
  void look(const Counted &counted, std::size_t length) {
    const std::size_t all = offsetof(Counted, parts) + counted.count * sizeof(Part);
    expect(all <= length, "fewer elements than counted");
    for (std::size_t i = 0; i < counted.count && fault_.empty(); ++i) {
      look(*(static_cast<const Part *>(counted.parts) + i));
    }
  }
  void look(const Sized &sized, std::size_t length) {
    const std::int64_t bytes = sized.length - static_cast<std::int64_t>(offsetof(Sized, pLeaves));
    expect(sized.length <= static_cast<std::int64_t>(length), "shorter than it says");
    for (std::int64_t i = 0; i < bytes / 8 && fault_.empty(); ++i) {
      add(*(static_cast<Leaf *const *>(sized.pLeaves) + i));
    }
  }

  void expect(bool isGood, const char *what) {
    if (!isGood && fault_.empty()) fault_ = what;
  }

  const SingleEntries &entries_;
  std::deque<std::pair<char, const void *>> open_;
  std::map<const void *, char> kinds_;
  std::string fault_;
};

class UntrustedTextTest : public ConvenienceTest {
 protected:
  ~UntrustedTextTest() override { host.restoreSlots(); }

  static std::string textOf(std::size_t count, std::string_view body) {
    const auto number = [](std::size_t value) {
      const std::string digits = std::to_string(value);
      return std::string(10 - digits.size(), '0') + digits;
    };
    return '(' + number(MEM_PORT_HEADER_LEN + body.size()) + ',' + number(count) + ')' +
           std::string(body);
  }

  // "" for a text that is taken, else how it is refused. What is taken is looked through.
  std::string read(const std::string &text) {
    entries.clear();
    const auto root = mem::readPortString<Tree>(context, heap, kTrees, text);
    if (!root.isOk()) {
      return root.error().isRefusal() ? root.error().nameText() : "the reader fails";
    }
    EXPECT_EQ(TypedWalk(entries).faultOf(root.value()), "") << text;
    return "";
  }
  bool isReadUnchecked(const std::string &text) {
    entries.clear();
    return mem::readPortStringUnchecked<Tree>(context, heap, kTrees, text).isOk();
  }

  mem::Heap heap = taken(mem::Heap::open(context));
  SingleEntries entries{mem};
};

// --- Texts that say something else than the table ----------------------------------------------

constexpr char kOtherKind[] = "a pointer leads to a structure of another kind";
constexpr char kOtherEmbedded[] = "an embedded structure is of another kind";
constexpr char kOtherCount[] = "the elements are not as many as counted";
constexpr char kManyEmbedded[] = "an embedded structure has other than one element";
constexpr char kLastAgain[] = "the last field comes more than once";

struct Lie {
  std::size_t count;
  const char *body;
  const char *refusal;
};
constexpr Lie kLies[] = {
    {2, "(1<1S2>)(2<1N5>)", kOtherKind},         // a tree that is a leaf
    {2, "(1<2S2>)(1<01N5>)", kOtherKind},        // a leaf that is a tree
    {1, "(1<2S1>)", kOtherKind},                 // itself, as a leaf
    {2, "(1<1S2/2S2>)(1<01N>)", kOtherKind},     // both at once
    {3, "(1<2S2>)(2<1N>)(1<1S2>)", kOtherKind},  // backwards
    {2, "(1<4S2>)(4,1<1N1/2E(3<2S1>)>)", kOtherKind},
    {2, "(1<5S2>)(5,1<1N61/2S1>)", kOtherKind},
    {1, "(1<3E(1<01N1>)>)", kOtherEmbedded},
    {2, "(1<4S2>)(4,1<1N1/2E(2<1N1>)>)", kOtherEmbedded},
    {1, "(1<8E(5,1<1N61/2S>)>)", kOtherEmbedded},
    {2, "(1<4S2>)(4,3<1N3/2E(3<1X>)/2E(3<1X>)>)", kOtherCount},  // one is missing
    {2, "(1<4S2>)(4,3<1N3>)", kOtherCount},                      // all are
    {2, "(1<4S2>)(4,1<1N3/2E(3<1X>)>)", kOtherCount},
    {2, "(1<4S2>)(4,1<2E(3<1X>)/1N3>)", kOtherCount},
    {2, "(1<4S2>)(4,1<1N1/2E(3<1X>)/1N3>)", kOtherCount},  // the later one stays
    {2, "(1<4S2>)(4,1<1N73556/2E(3<1X>)/1N>)", kOtherCount},
    {2, "(1<4S2>)(4,<1N3>)", kOtherCount},
    {2, "(1<4S2>)(4,1<1N1/9N>)", kOtherCount},  // dropped as newer
    {2, "(1<5S2>)(5,1<1N42/2S>)", kOtherCount},
    {2, "(1<5S2>)(5,1<1N71/2S>)", kOtherCount},  // one byte more than there is
    {2, "(1<5S2>)(5,<1N61>)", kOtherCount},
    {1, "(1<8E(4,2<1N2/2E(3<1X>)/2E(3<1X>)>)>)", kManyEmbedded},
    {1, "(1<01N1/01N1>)", kLastAgain},
    {2, "(1<2S2>)(2<1N1/2S/2S>)", kLastAgain},
    {1, "(1<3E(2<2S/2S>)>)", kLastAgain},
};

TEST_F(UntrustedTextTest, LiesAreRefusedByName) {
  for (const Lie &lie : kLies) {
    const std::string text = textOf(lie.count, lie.body);
    EXPECT_EQ(read(text), lie.refusal) << text;
  }
}

// Nothing of this is new to readers, and nothing of it is read in the end.
TEST_F(UntrustedTextTest, RefusedTextsMakeNoStructures) {
  for (const Lie &lie : kLies) {
    const std::string text = textOf(lie.count, lie.body);
    read(text);
    host.resetCalls();
    const std::uint64_t before = host.account().liveCount;
    EXPECT_FALSE(mem::readPortString<Tree>(context, heap, kTrees, text).isOk());
    EXPECT_EQ(host.account().liveCount, before);
  }
  int readable = 0;
  for (const Lie &lie : kLies) readable += isReadUnchecked(textOf(lie.count, lie.body)) ? 1 : 0;
  EXPECT_GE(readable, 22) << "most of them are no failures of the reader";
}

// An element count asks for storage; the text has to be as long.
TEST_F(UntrustedTextTest, PromisedElementsTakeNoStorage) {
  EXPECT_EQ(read(textOf(2, "(1<4S2>)(4,99999999<1N")), kOtherCount);
  EXPECT_EQ(read(textOf(2, "(1<4S2>)(4,99999999<1N99999999/2E(3<1X>)>)")), kOtherCount);
}

TEST_F(UntrustedTextTest, WhatReadersRefuseTheyTell) {
  for (const char *body :
       {"(1<", "(1<1S9>)", "(1<1S2", "(1<0N>)", "(1<9H1>)", "(1<9Hgg>)", "(1<6\"a", "(1<7x1;'a>)",
        "(1<7y>)", "(1,1<1S>)", "(1<1S>]", "(1<3E(9<>)>)", "(1<1S>", "(1<8B00000002>)"}) {
    EXPECT_EQ(read(textOf(1, body)), "the reader fails") << body;
  }
  EXPECT_EQ(read("(0000000031,          )(1<1S>)"), "the reader fails");
  EXPECT_EQ(read("(0000000031,-000000001)(1<1S>)"), "the reader fails");
  EXPECT_EQ(read("(0000000031,9999999999)(1<1S>)"), "the reader fails");
  EXPECT_EQ(read("(0000000031,0000000002)(1<1S>)"), "the reader fails");
}

// What a reader tolerates stays tolerated.
TEST_F(UntrustedTextTest, WhatIsNoLieIsTaken) {
  for (const Lie &good :
       {Lie{1, "(1<01N1>)", ""},
        Lie{1, "(1<1S1>)", ""},
        Lie{1, "(1<01N1/1S1/1S>)", ""},
        Lie{1, "(1<1S;2S~6\"a/\"//\">)", ""},            // any separator
        Lie{1, "(1<1S1/21N>)", ""},                      // newer
        Lie{1, "(1<1S1/21x\"a>\"<E(9<<>>)>/1S9>)", ""},  // newer, with all after it
        Lie{1, "(1<1S1/21x\"/x/\"//\">)", ""},
        Lie{1, "(1<7X2\"a/\"\">)", ""},  // narrow text for wide
        Lie{1, "(1<7x2;1'/4?_~a/'//'>)", ""},
        Lie{2, "(1<1S2>)(1<2S>)after!", ""},
        Lie{2, "(1<200S2>)(200<100N>)", ""},
        Lie{2, "(1<4S2>)(4,<1N>)", ""},
        Lie{2, "(1<4S2>)(4,2<2E(3<1X>)/2E(3<1X1\"a\">)/1N2>)", ""},
        Lie{2, "(1<4S2>)(4,1<2E(3<1X>)>)", ""},          // the count is left out
        Lie{2, "(1<4S2>)(4<1N1/2E(3<1X>)>)", ""},        // the number after the comma, too
        Lie{2, "(1<4S2>)(4,1<1N73556/2E(3<1X>)>)", ""},  // 65537 in 16 bits
        Lie{2, "(1<5S2>)(5,2<1N42/2S/2S>)", ""},
        Lie{2, "(1<5S2>)(5,<1N-5>)", ""},
        Lie{2, "(1<5S2>)(5,<1N8>)", ""},
        Lie{3, "(1<5S2>)(5,2<1N42/2S3/2S3>)(2<1N5>)", ""},
        Lie{1, "(1<8E(4,1<1N1/2E(3<1X1\"a\">)>)>)", ""}}) {
    EXPECT_EQ(read(textOf(good.count, good.body)), "") << good.body;
  }
  EXPECT_EQ(read("(0000000031,\t       +1)(1<1S>)"), "");
}

// Pointers and texts that do not come are null and empty, whatever the storage held.
TEST_F(UntrustedTextTest, AbsentPointersAreNull) {
  entries.clear();
  const std::string text = textOf(1, "(1<01N1>)");
  for (const Tree *tree :
       {taken(mem::readPortString<Tree>(context, heap, kTrees, text)),
        taken(mem::readPortStringUnchecked<Tree>(context, heap, kTrees, text))}) {
    EXPECT_EQ(tree->pLeft, nullptr);
    EXPECT_EQ(tree->pLeaf, nullptr);
    EXPECT_EQ(tree->leaf.pNext, nullptr);
    EXPECT_EQ(tree->counted.parts[0].pName, nullptr);
    EXPECT_STREQ(tree->name, "");
    EXPECT_EQ(tree->pTitle, nullptr);
  }
  const Tree *const tree =
      taken(mem::readPortString<Tree>(context, heap, kTrees, textOf(2, "(1<2S2>)(2<1N5>)")));
  EXPECT_EQ(tree->pLeaf->pNext, nullptr) << "not ported";
}

TEST_F(UntrustedTextTest, LackOfStorageForTheLookIsTold) {
  const std::string text = textOf(1, "(1<01N1>)");
  host.arm(faultOf(refhost::Service::GetStorage));
  const auto root = mem::readPortString<Tree>(context, heap, kTrees, text);
  EXPECT_EQ(failure(root),
            "MEM_Port1StrToStruct failed: result -1 without a code (no storage to check the text)");
}

// A string in chunks may have been written by another table.
TEST_F(UntrustedTextTest, StringsOfOtherTablesAreRefused) {
  static constexpr mem::PortTable kOthers{
      mem::structure<Tree, 1>(mem::field<1>(mem::Member<Tree, Leaf *, 8>{})),
      mem::structure<Leaf, 2>(mem::field<1>(MEM_FIELD(Leaf, id)))};
  Leaf leaf{5, nullptr};
  Tree tree{};
  tree.pLeft = reinterpret_cast<Tree *>(&leaf);
  host.restoreSlots();
  const mem::PortString string =
      taken(mem::PortString::write(context, kOthers, tree, {.areaKb = 1}, 23));
  const auto root = mem::readPortString<Tree>(context, heap, kTrees, string);
  ASSERT_FALSE(root.isOk());
  EXPECT_STREQ(root.error().nameText(), kOtherKind);
  EXPECT_TRUE(mem::readPortStringUnchecked<Tree>(context, heap, kTrees, string).isOk());
}

// --- Damaged texts -----------------------------------------------------------------------------

// Trees with leaves, lists of parts and lists of leaves, linked at random.
class RandomTrees {
 public:
  explicit RandomTrees(Random &random) : random_(random) {
    trees_.resize(random.between(1, 5));
    leaves_.resize(random.between(1, 4));
    for (std::size_t i = random.between(1, 3); i > 0; --i) {
      const std::size_t count = random.below(4);
      lists_.emplace_back(1 + 2 * (count + 1));
      auto &counted = *reinterpret_cast<Counted *>(lists_.back().data());
      counted.count = static_cast<std::uint16_t>(count);
      for (std::size_t k = 0; k < count; ++k) fill(*(static_cast<Part *>(counted.parts) + k));
      leafLists_.emplace_back(1 + count + 1);
      auto &sized = *reinterpret_cast<Sized *>(leafLists_.back().data());
      sized.length = static_cast<std::int32_t>(8 + 8 * count);
      for (std::size_t k = 0; k < count; ++k) {
        *(static_cast<Leaf **>(sized.pLeaves) + k) = pick(leaves_);
      }
    }
    for (Tree &tree : trees_) fill(tree);
  }
  const Tree &root() const { return trees_[0]; }

 private:
  void fill(Part &part) { part = {random_.oneIn(3) ? nullptr : "part/\"1<2>", pick(leaves_)}; }
  void fill(Tree &tree) {
    static char16_t title[] = u"\u00E9'/9\xFFFF";
    tree = {};
    tree.pLeft = pick(trees_);
    tree.pLeaf = pick(leaves_);
    tree.leaf.id = static_cast<std::uint32_t>(random_.bits());
    tree.counted.count = 1;
    fill(tree.counted.parts[0]);
    tree.pCounted = reinterpret_cast<Counted *>(lists_[random_.below(lists_.size())].data());
    tree.pSized = reinterpret_cast<Sized *>(leafLists_[random_.below(leafLists_.size())].data());
    if (random_.oneIn(2)) tree.pTitle = title;
    std::memcpy(tree.name, "S2/\"", 5);
  }
  template <class Record>
  Record *pick(std::vector<Record> &records) {
    return random_.oneIn(4) ? nullptr : &records[random_.below(records.size())];
  }

  Random &random_;
  std::vector<Tree> trees_;
  std::vector<Leaf> leaves_;
  std::vector<std::vector<std::uint64_t>> lists_;
  std::vector<std::vector<std::uint64_t>> leafLists_;
};

// Lets a pointer, an identifier or a count after one of these characters be another number.
std::string withOtherNumber(const std::string &text, Random &random) {
  std::string made = text;
  const std::size_t from = MEM_PORT_HEADER_LEN + random.below(text.size() - MEM_PORT_HEADER_LEN);
  const std::size_t at = made.find_first_of(random.oneIn(2) ? "S" : "S(,N", from);
  if (at == std::string::npos) return made;
  std::size_t end = at + 1;
  while (end < made.size() && made[end] >= '0' && made[end] <= '9') ++end;
  return made.replace(at + 1, end - at - 1, 1, static_cast<char>(random.between('1', '9')));
}

// The same text in chunks, some of them empty.
class Chunks {
 public:
  Chunks(std::string_view text, Random &random) : length_(text.size()) {
    while (!text.empty()) {
      const std::size_t used = random.oneIn(5) ? 0 : random.between(1, 30);
      const std::string_view piece = text.substr(0, used);
      storage_.emplace_back(MEM_PORT_CHUNK_OVERHEAD + piece.size());
      auto *const chunk = reinterpret_cast<MEMPortChunk *>(storage_.back().data());
      chunk->pNext = nullptr;
      chunk->Used = static_cast<std::int32_t>(piece.size());
      std::memcpy(chunk->Text, piece.data(), piece.size());
      if (last_ != nullptr) last_->pNext = chunk;
      last_ = chunk;
      text.remove_prefix(piece.size());
    }
  }
  mem::detail::PortCharacters characters() const {
    return {reinterpret_cast<const MEMPortChunk *>(storage_.front().data()), length_};
  }

 private:
  std::size_t length_;
  std::deque<std::vector<std::uint8_t>> storage_;
  MEMPortChunk *last_ = nullptr;
};

class DamagedTextTest : public UntrustedTextTest {
 protected:
  std::string written(Random &random) {
    host.restoreSlots();
    std::string text;
    for (const std::string_view piece :
         mem::PortString::write(context, kTrees, RandomTrees(random).root()).value()) {
      text += piece;
    }
    entries.serve(mem);
    return text;
  }

  // The look goes the same way through chunks.
  void expectSameInChunks(const std::string &text, Random &random) {
    if (text.empty()) return;
    const Chunks chunks(text, random);
    const auto whole = mem::detail::isAsDefined(context, "S", kTrees.table(), 1,
                                                mem::detail::PortCharacters(text));
    const auto pieces =
        mem::detail::isAsDefined(context, "S", kTrees.table(), 1, chunks.characters());
    EXPECT_EQ(failure(whole), failure(pieces)) << text;
    EXPECT_EQ(whole.isOk() && whole.value(), pieces.isOk() && pieces.value()) << text;
  }
};

TEST_F(DamagedTextTest, WhateverIsTakenIsAsItsTypesSay) {
  constexpr std::uint64_t kMutants = 20000;
  std::vector<std::string> texts;
  for (std::uint64_t seed = 0; seed < 40; ++seed) {
    Random random(seed);
    texts.push_back(written(random));
    ASSERT_EQ(read(texts.back()), "") << texts.back();
  }
  std::map<std::string, int> outcomes;
  const std::uint64_t begin = firstSeed(7300000);
  for (std::uint64_t seed = begin; seed < begin + kMutants; ++seed) {
    SCOPED_TRACE(seedNote(seed));
    Random random(seed);
    std::string text = texts[random.below(texts.size())];
    if (random.oneIn(3)) text = mutant(text, texts[random.below(texts.size())], random);
    while (text.size() > 30 && random.oneIn(2)) text = withOtherNumber(text, random);
    ++outcomes[read(text)];
    expectSameInChunks(text, random);
    if (HasFailure()) return;
  }
  // Mutants that all end the same way would prove little. The look and the readers never disagree.
  for (const char *outcome :
       {"", "the reader fails", kOtherKind, kOtherEmbedded, kOtherCount, kManyEmbedded}) {
    EXPECT_GT(outcomes[outcome], 50) << outcome;
  }
  EXPECT_EQ(outcomes["the text is not what the definitions say"], 0);
}

}  // namespace
}  // namespace memtest
