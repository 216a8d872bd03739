// What docs/packed-chain.md says, tried out: its worked example must have these bytes, what packs
// but cannot be read back is answered as its table says, and the checks that it shows do their
// work.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <span>
#include <string>
#include <vector>

#include "conveniencetest.hpp"
#include "packtest.hpp"

namespace {

constexpr std::int32_t kBlockLength = 1064;
constexpr std::size_t kLineLength = 16;

// `value` in `width` upper-case hexadecimal digits.
std::string hexadecimal(std::size_t value, int width) {
  std::string digits;
  for (int shift = 4 * (width - 1); shift >= 0; shift -= 4) {
    digits.push_back("0123456789ABCDEF"[value >> shift & 0xF]);
  }
  return digits;
}

std::string dumpLine(std::size_t offset, const std::string &bytes) {
  std::string line = hexadecimal(offset, 4) + " ";
  for (const char byte : bytes) line += " " + hexadecimal(static_cast<std::uint8_t>(byte), 2);
  return line + "\n";
}

// Lines of 16 bytes; lines of zeros between others are left out for a "*".
std::string dump(const std::string &bytes) {
  const std::string zeros(kLineLength, '\0');
  std::string text;
  bool isLeavingOut = false;
  for (std::size_t offset = 0; offset < bytes.size(); offset += kLineLength) {
    const std::string line = bytes.substr(offset, kLineLength);
    if (line != zeros) {
      text += dumpLine(offset, line);
    } else if (!isLeavingOut) {
      text += "*\n";
    }
    isLeavingOut = line == zeros;
  }
  return text;
}

std::string manual() {
  std::ifstream file(PACKED_CHAIN_MANUAL, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  std::erase(text, '\r');
  return text;
}

class PackedChainManual : public memtest::StartedTest {};

TEST_F(PackedChainManual, ShowsTheBytesOfItsExample) {
  memtest::Item first{nullptr, "ab", u"Zug", nullptr};
  memtest::Item second{nullptr, "c", u"\u00E9", &first};
  first.pNext = &second;
  const mem::Context context = mem::contextOf(host);
  const mem::PackedChain chain =
      memtest::taken(mem::PackedChain::pack(context, memtest::kItems, first, kBlockLength));
  std::string expected = "```\n";
  int number = 0;
  for (const std::span<const std::byte> used : chain) {
    expected += "block " + std::to_string(number++) + "\n" +
                dump(std::string(reinterpret_cast<const char *>(used.data()), used.size()));
  }
  expected += "```\n";
  EXPECT_NE(manual().find(expected), std::string::npos) << expected;
}

// ---- What packs and cannot be read back.

using memtest::ControlBlock;
using memtest::fixedKind;
using memtest::kSelfDescribing;
using memtest::putNumber;
using memtest::putPointer;
using memtest::stringKind;

class ChainsThatCannotBeReadBack : public memtest::PackTest {
 protected:
  static constexpr int kBehindControlBlock = 984;  // offset of the root

  ~ChainsThatCannotBeReadBack() override { host.sysEnv().PlatformFlags = 0; }

  void expectPacked(const ControlBlock &controlBlock, const void *from) {
    ASSERT_EQ(pack(controlBlock, from, 2000), 0) << nameText();
  }
  std::int16_t unpack(const ControlBlock &controlBlock) {
    return mem.MEM_Unpack(&first, &root, controlBlock.get());
  }
  void expectRefused(const ControlBlock &controlBlock, const void *from, std::int16_t code,
                     const std::string &text) {
    ASSERT_NO_FATAL_FAILURE(expectPacked(controlBlock, from));
    EXPECT_EQ(unpack(controlBlock), code);
    EXPECT_EQ(nameText(), text);
  }
  static std::string offsetText(int offset) {
    return "Invalid Relative Offset=" + std::to_string(offset);
  }
  // Storage whose address ends with these 16 bits.
  std::uint8_t *makeAt(std::uint16_t ending) {
    std::uint8_t *const area = items.make(0x20000);
    const auto low = static_cast<std::uint16_t>(reinterpret_cast<std::uintptr_t>(area));
    return area + static_cast<std::uint16_t>(ending - low);
  }

  void *root = nullptr;
};

TEST_F(ChainsThatCannotBeReadBack, LengthsBelowTwo) {
  const ControlBlock asRoot{{.type = kSelfDescribing}};
  const ControlBlock asChild{{.fixedLen = 8, .children = {{1, 0}}}, {.type = kSelfDescribing}};
  for (std::uint16_t told = 0; told < 2; ++told) {
    SCOPED_TRACE(told);
    std::uint8_t *const segment = items.make(2);
    putNumber(segment, told);
    std::uint8_t *const from = items.make(8);
    putPointer(from, 0, segment);
    expectRefused(asChild, from, MEMERR_PACKROFF, offsetText(kBehindControlBlock + 8));
    if (told == 0) {
      expectRefused(asRoot, segment, MEMERR_PACKRBLK, "Invalid Relative Blk=1");
    } else {
      expectRefused(asRoot, segment, MEMERR_PACKROFF, offsetText(kBehindControlBlock));
    }
  }
}

TEST_F(ChainsThatCannotBeReadBack, EmptySegmentAtTheEndOfABlock) {
  expectRefused({fixedKind(0)}, items.make(1), MEMERR_PACKRBLK, "Invalid Relative Blk=1");
  const ControlBlock withSibling{{.fixedLen = 16, .siblingOff = 0, .children = {{1, 8}}},
                                 fixedKind(0)};
  std::uint8_t *const from = items.make(16);
  putPointer(from, 8, items.make(1));
  expectRefused(withSibling, from, MEMERR_PACKROFF, offsetText(kBehindControlBlock + 16));
  // With anything after it, it can be read.
  putPointer(from, 0, items.make(16));
  expectPacked(withSibling, from);
  EXPECT_EQ(unpack(withSibling), 0) << nameText();
}

TEST_F(ChainsThatCannotBeReadBack, OverlappingPointerFields) {
  const std::string recursive = "RecursiveStructure";
  const ControlBlock byFour{{.fixedLen = 16, .children = {{1, 0}, {1, 4}}}, stringKind()};
  expectRefused(byFour, items.make(16), MEMERR_PACKCYCL, recursive);
  const ControlBlock twice{{.fixedLen = 8, .children = {{1, 0}, {1, 0}}}, stringKind()};
  std::uint8_t *const from = items.make(8);
  expectRefused(twice, from, MEMERR_PACKCYCL, recursive);
  putPointer(from, 0, items.text("named twice"));
  expectRefused(twice, from, MEMERR_PACKCYCL, recursive);
}

TEST_F(ChainsThatCannotBeReadBack, PointerFieldOverALengthWord) {
  const ControlBlock controlBlock{{.type = kSelfDescribing, .children = {{1, 0}}}, stringKind()};
  std::uint8_t *const from = items.make(32);
  putPointer(from, 0, makeAt(32));
  expectRefused(controlBlock, from, MEMERR_PACKROFF, offsetText(kBehindControlBlock));
}

// On a host with the platform flag these types are letters of EBCDIC writers: here, of text.
TEST_F(ChainsThatCannotBeReadBack, EbcdicLettersOfBigEndianHosts) {
  const ControlBlock controlBlock{{.type = 0xE2, .children = {{1, 8}}}, stringKind()};
  std::uint8_t *const from = items.make(16);
  putNumber(from, std::uint16_t{16});
  putPointer(from, 8, items.text("text"));
  host.sysEnv().PlatformFlags = MEM_PLATFORM_BIG_ENDIAN;
  expectPacked(controlBlock, from);
  EXPECT_EQ(unpack(controlBlock), 0) << nameText();
  const std::vector<std::uint8_t> field =
      memtest::bytesOf(static_cast<std::uint8_t *>(root) + 8, 8);
  EXPECT_EQ(field, (std::vector<std::uint8_t>{0, 0, 0xE8, 0x03, 0, 0, 0, 0}));  // still relative
}

// ---- The checks that the page shows.

// clang-format off
#define MANUAL_CODE(...) \
  __VA_ARGS__            \
  constexpr char kManualCode[] = #__VA_ARGS__;

MANUAL_CODE(
struct Entry {
  struct Entry *next;
  int32_t value;
};
struct List {
  struct Entry *entries;
  struct Entry *current;
  int32_t count;
};

static int describesOurs(const MemPackBlock *chain, const MemPackCB *kinds) {
  const size_t length = (size_t)MEM_PACK_CB_LEN(kinds->Count);
  const char *content = (const char *)&chain->UsedLen;
  return chain->UsedLen >= 6 + length && memcmp(content + 2, "0220", 4) == 0 &&
         memcmp(content + 6, kinds, length) == 0;
}

static int isWhole(const struct List *list) {
  struct Entry entry;
  int32_t count = 0;
  int knowsCurrent = list->current == NULL;
  for (const struct Entry *at = list->entries; at != NULL; at = entry.next) {
    memcpy(&entry, at, sizeof entry);
    if (at == list->current) knowsCurrent = 1;
    ++count;
  }
  return count == list->count && knowsCurrent;
}
)
// clang-format on

// Code without spaces and comments.
std::string bareCode(std::string text) {
  for (std::size_t from = text.find("/*"); from != std::string::npos; from = text.find("/*")) {
    const std::size_t end = text.find("*/", from);
    text.erase(from, end == std::string::npos ? end : end + 2 - from);
  }
  std::erase_if(text, [](char c) { return c == ' ' || c == '\n'; });
  return text;
}

TEST_F(PackedChainManual, ShowsChecksThatCompile) {
  EXPECT_NE(bareCode(manual()).find(bareCode(kManualCode)), std::string::npos);
}

class ManualChecks : public memtest::StartedTest {
 protected:
  ManualChecks() {
    kinds.Count = 2;
    kinds.Descriptors[0].Type = kinds.Descriptors[1].Type = MEM_PACK_FIXED;
    kinds.Descriptors[0].FixedLen = sizeof(List);
    kinds.Descriptors[0].SiblingOff = MEM_PACK_NO_SIBLING;
    kinds.Descriptors[0].ChildCount = 1;
    kinds.Descriptors[0].Children[0] = {1, offsetof(List, entries)};
    kinds.Descriptors[0].ReferenceCount = 1;
    kinds.Descriptors[0].References[0] = offsetof(List, current);
    kinds.Descriptors[1].FixedLen = sizeof(Entry);
    kinds.Descriptors[1].SiblingOff = offsetof(Entry, next);
    entries[0].next = &entries[1];
  }
  ~ManualChecks() override { mem.MEM_Free(chain, kBlockLength, 0); }

  // Packs the list; its chain is one block.
  void pack() {
    if (chain != nullptr) mem.MEM_Free(chain, kBlockLength, 0);
    chain = nullptr;
    ASSERT_EQ(mem.MEM_Pack(&kinds, &list, kBlockLength, &chain), 0) << nameText();
    ASSERT_EQ(chain->pNext, nullptr);
  }
  bool isWholeAfterUnpack() {
    void *root = nullptr;
    EXPECT_EQ(mem.MEM_Unpack(&chain, &root, &kinds), 0) << nameText();
    List copy{};
    if (root != nullptr) std::memcpy(&copy, root, sizeof copy);
    return isWhole(&copy) != 0;
  }
  std::uint8_t *content() { return reinterpret_cast<std::uint8_t *>(&chain->UsedLen); }

  MemPackCB kinds{};
  Entry entries[2] = {{nullptr, 1}, {nullptr, 2}};
  List list{entries, &entries[1], 2};
  MemPackBlock *chain = nullptr;
};

TEST_F(ManualChecks, TakeASoundChain) {
  pack();
  EXPECT_TRUE(describesOurs(chain, &kinds));
  EXPECT_TRUE(isWholeAfterUnpack());
  list.current = nullptr;
  pack();
  EXPECT_TRUE(isWholeAfterUnpack());
}

TEST_F(ManualChecks, RefuseAnotherControlBlockOrVersion) {
  pack();
  for (const std::size_t at : {std::size_t{5}, std::size_t{8}, std::size_t{983}}) {
    content()[at] ^= 1;
    EXPECT_FALSE(describesOurs(chain, &kinds)) << at;
    content()[at] ^= 1;
  }
  chain->UsedLen = 983;
  EXPECT_FALSE(describesOurs(chain, &kinds));
}

TEST_F(ManualChecks, RefuseCountsAndReferencesThatUnpackingTakes) {
  list.count = 3;
  pack();
  EXPECT_FALSE(isWholeAfterUnpack());
  list.count = 2;
  pack();
  content()[984 + offsetof(List, current) + 2] += 1;  // into an entry
  EXPECT_FALSE(isWholeAfterUnpack());
}

}  // namespace
