// What MEM_Pack makes of random structures, MEM_Unpack makes equal structures again.

#include <deque>
#include <map>

#include "packgraph.hpp"
#include "unpacktest.hpp"

namespace memtest {
namespace {

// Compares two structures under one control block. They are equal when every segment has the same
// bytes outside of its pointers and the pointers lead to equal things in the same way.
class GraphComparison {
 public:
  explicit GraphComparison(const MemPackCB *controlBlock) : controlBlock_(controlBlock) {}

  std::string run(const void *expected, const void *actual) {
    pair(expected, actual, 0);
    while (!waiting_.empty() && difference_.empty()) {
      const Pair next = waiting_.front();
      waiting_.pop_front();
      compare(next);
    }
    for (const auto &[expectedTarget, actualTarget] : references_) {
      const auto found = pairs_.find(expectedTarget);
      if (found == pairs_.end() || found->second != actualTarget) differ("reference");
    }
    return difference_;
  }

 private:
  struct Pair {
    const std::uint8_t *expected;
    const std::uint8_t *actual;
    const MemPackDescriptor *kind;
  };

  const MemPackDescriptor &kindOf(std::size_t index) const {
    return reinterpret_cast<const MemPackDescriptor *>(
        reinterpret_cast<const std::uint8_t *>(controlBlock_) + 2)[index];
  }

  void differ(const char *what) {
    if (difference_.empty()) difference_ = what;
  }

  void pair(const void *expected, const void *actual, std::size_t kindIndex) {
    const auto *from = static_cast<const std::uint8_t *>(expected);
    const auto *to = static_cast<const std::uint8_t *>(actual);
    const MemPackDescriptor &kind = kindOf(kindIndex);
    if (kind.Type == MEM_PACK_WIDE_STRING) return compareWide(from, to);
    if (kind.Type == MEM_PACK_STRING) {
      if (std::strcmp(static_cast<const char *>(expected), static_cast<const char *>(actual)) !=
          0) {
        differ("narrow text");
      }
      pairs_[from] = to;  // a segment when it is the root
      return;
    }
    pairs_[from] = to;
    waiting_.push_back({from, to, &kind});
  }

  void compareWide(const std::uint8_t *from, const std::uint8_t *to) {
    for (std::size_t at = 0;; at += 2) {
      if (std::memcmp(from + at, to + at, 2) != 0) return differ("wide text");
      if (from[at] == 0 && from[at + 1] == 0) return;
    }
  }

  static std::size_t lengthOf(const MemPackDescriptor &kind, const std::uint8_t *segment) {
    if (kind.Type == MEM_PACK_FIXED) return kind.FixedLen;
    const auto told = numberAt<std::uint16_t>(segment);
    return kind.Type == MEM_PACK_COUNTED ? std::size_t{told} + 2 : told;
  }

  // Empty when null-ness differs or both are null.
  bool bothLead(const Pair &segments, std::int16_t offset, const std::uint8_t *&expected,
                const std::uint8_t *&actual) {
    expected = getPointer(segments.expected, static_cast<std::size_t>(offset));
    actual = getPointer(segments.actual, static_cast<std::size_t>(offset));
    if ((expected == nullptr) != (actual == nullptr)) differ("null pointer");
    return expected != nullptr && actual != nullptr;
  }

  void compare(const Pair &segments) {
    const MemPackDescriptor &kind = *segments.kind;
    const std::size_t length = lengthOf(kind, segments.expected);
    Bytes expectedBytes = bytesOf(segments.expected, length);
    Bytes actualBytes = bytesOf(segments.actual, length);
    const auto forget = [&](std::int16_t offset) {
      std::memset(expectedBytes.data() + offset, 0, 8);
      std::memset(actualBytes.data() + offset, 0, 8);
    };
    const std::uint8_t *expected = nullptr;
    const std::uint8_t *actual = nullptr;
    if (kind.SiblingOff != MEM_PACK_NO_SIBLING) {
      forget(kind.SiblingOff);
      if (bothLead(segments, kind.SiblingOff, expected, actual)) {
        pairs_[expected] = actual;
        waiting_.push_back({expected, actual, &kind});
      }
    }
    for (std::int16_t i = 0; i < kind.ChildCount; ++i) {
      forget(kind.Children[i].Offset);
      if (bothLead(segments, kind.Children[i].Offset, expected, actual)) {
        pair(expected, actual, kind.Children[i].Descriptor);
      }
    }
    for (std::int16_t i = 0; i < kind.ReferenceCount; ++i) {
      forget(kind.References[i]);
      if (bothLead(segments, kind.References[i], expected, actual)) {
        references_.emplace_back(expected, actual);
      }
    }
    if (expectedBytes != actualBytes) differ("bytes of a segment");
  }

  const MemPackCB *controlBlock_;
  std::deque<Pair> waiting_;
  std::map<const std::uint8_t *, const std::uint8_t *> pairs_;
  std::vector<std::pair<const std::uint8_t *, const std::uint8_t *>> references_;
  std::string difference_;
};

class UnpackRoundTripTest : public StartedTest {
 protected:
  UnpackRoundTripTest() : StartedTest(withDirtyStorage()) {}

  void setWriter(const packmodel::Settings &settings) {
    MEMProcOptions options{};
    options.Set = 1;
    options.OldPackCB = settings.oldControlBlock ? 1 : 0;
    ASSERT_EQ(mem.MEMSetProcOptions(&options), 0);
    host.sysEnv().PlatformFlags = settings.bigEndian ? MEM_PLATFORM_BIG_ENDIAN : 0;
  }

  void returnChain(MemPackBlock *first, std::int32_t blockLen) {
    while (first != nullptr) {
      MemPackBlock *const next = first->pNext;
      mem.MEM_Free(first, static_cast<std::uint32_t>(blockLen), 0);
      first = next;
    }
  }

  // Packed structures that were compared, and those that nobody can read back.
  int compared = 0;
  int unreadable = 0;
};

// A segment without a byte that ends its block is at the used length, where nothing may be.
bool hasEmptyKind(const MemPackCB *controlBlock) {
  const auto *kinds = reinterpret_cast<const MemPackDescriptor *>(
      reinterpret_cast<const std::uint8_t *>(controlBlock) + 2);
  for (std::int16_t i = 0; i < std::max<std::int16_t>(controlBlock->Count, 8); ++i) {
    if (kinds[i].Type == MEM_PACK_FIXED && kinds[i].FixedLen == 0) return true;
  }
  return false;
}

TEST_F(UnpackRoundTripTest, RandomStructuresComeBackEqual) {
  constexpr std::uint64_t kStructures = 3000;
  const std::uint64_t begin = firstSeed(20250312);
  for (std::uint64_t seed = begin; seed < begin + kStructures; ++seed) {
    SCOPED_TRACE(seedNote(seed));
    const RandomStructure structure(seed);
    // The old version says little-endian whatever the flag says, so such a host cannot read it.
    if (structure.settings().oldControlBlock && structure.settings().bigEndian) continue;
    setWriter(structure.settings());
    MemPackBlock *first = nullptr;
    const std::int16_t packed =
        mem.MEM_Pack(structure.controlBlock(), structure.root(), structure.blockLen(), &first);
    if (packed == 0) {
      MemPackBlock *const before = first;
      void *root = nullptr;
      const std::uint64_t live = host.account().liveCount;
      const std::int16_t result = mem.MEM_Unpack(&first, &root, structure.controlBlock());
      EXPECT_EQ(host.account().liveCount, live);
      EXPECT_EQ(first, before);
      if (result != 0 && hasEmptyKind(structure.controlBlock())) {
        EXPECT_TRUE(result == MEMERR_PACKROFF || result == MEMERR_PACKRBLK) << nameText();
        ++unreadable;
      } else {
        EXPECT_EQ(result, 0) << nameText();
        if (result == 0) {
          EXPECT_EQ(GraphComparison(structure.controlBlock()).run(structure.root(), root), "");
        }
        ++compared;
      }
    }
    returnChain(first, structure.blockLen());
    if (HasFailure()) return;
  }
  EXPECT_GT(compared, 2000);
  EXPECT_LT(unreadable, 20);
}

// Small structures that this library packs itself.
class UnpackOwnChainTest : public UnpackRoundTripTest {
 protected:
  static constexpr std::int32_t kBlockLen = 2000;

  void packRoot(const ControlBlock &controlBlock, const std::uint8_t *from) {
    ASSERT_EQ(mem.MEM_Pack(controlBlock.get(), from, kBlockLen, &first), 0) << nameText();
  }
  // Leaves the root in `root`.
  void unpackRoot(const ControlBlock &controlBlock) {
    MemPackBlock *const before = first;
    void *made = nullptr;
    ASSERT_EQ(mem.MEM_Unpack(&first, &made, controlBlock.get()), 0) << nameText();
    EXPECT_EQ(first, before);
    root = static_cast<const std::uint8_t *>(made);
  }
  // The target of a pointer field, null when it is outside the blocks.
  const std::uint8_t *follow(const std::uint8_t *segment, std::size_t offset) const {
    const std::uint8_t *const target = segment == nullptr ? nullptr : getPointer(segment, offset);
    for (const MemPackBlock *block = first; block != nullptr; block = block->pNext) {
      const auto *const begin = reinterpret_cast<const std::uint8_t *>(block);
      if (target > begin && target < begin + kBlockLen) return target;
    }
    return nullptr;
  }
  std::string textAt(const std::uint8_t *segment, std::size_t offset) const {
    const std::uint8_t *const text = follow(segment, offset);
    return text == nullptr ? "a pointer out of the blocks" : reinterpret_cast<const char *>(text);
  }
  ~UnpackOwnChainTest() override { returnChain(first, kBlockLen); }

  Items items;
  MemPackBlock *first = nullptr;
  const std::uint8_t *root = nullptr;
};

TEST_F(UnpackOwnChainTest, OldLayoutKeepsKindsBeyondTheCount) {
  setWriter({.oldControlBlock = true, .bigEndian = false});
  ControlBlock controlBlock(1);
  controlBlock.set(0, {.fixedLen = 16, .children = {{1, 0}, {4, 8}}});
  controlBlock.set(1, stringKind());
  controlBlock.set(4, {.fixedLen = 16, .children = {{7, 8}}});
  controlBlock.set(7, {.fixedLen = 8, .children = {{1, 0}}});
  std::uint8_t *const from = items.make(16);
  std::uint8_t *const below = items.make(16);
  std::uint8_t *const deepest = items.make(8);
  putPointer(from, 0, items.text("beyond"));
  putPointer(from, 8, below);
  putPointer(below, 8, deepest);
  putPointer(deepest, 0, items.text("far beyond"));
  packRoot(controlBlock, from);
  unpackRoot(controlBlock);
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(textAt(root, 0), "beyond");
  EXPECT_EQ(textAt(follow(follow(root, 8), 8), 0), "far beyond");
}

// What is no letter to the packer is none to a reader of its chains.
TEST_F(UnpackOwnChainTest, EbcdicLettersAreNumbersHere) {
  for (const int type : {0xC3, 0xC6, 0xE2, 0xE5, 0xE6, 0xE7}) {
    SCOPED_TRACE(type);
    ControlBlock controlBlock{
        {.type = static_cast<std::uint16_t>(type), .children = {{1, 2}, {0, 10}}}, stringKind()};
    std::uint8_t *const from = items.make(20);
    std::uint8_t *const below = items.make(18);
    putNumber(from, std::uint16_t{20});
    putNumber(below, std::uint16_t{18});
    putPointer(from, 10, below);
    putPointer(below, 2, items.text("below"));
    packRoot(controlBlock, from);
    unpackRoot(controlBlock);
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(textAt(follow(root, 10), 2), "below");
    returnChain(first, kBlockLen);
    first = nullptr;
  }
}

}  // namespace
}  // namespace memtest
