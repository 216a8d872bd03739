// The worked example of docs/packed-chain.md, packed for real: the manual must show these bytes.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>

#include "memtest.hpp"

namespace {

struct Item {
  Item *pNext;
  const char *pName;
  const char16_t *pTitle;
  Item *pOther;
};
MEM_CHECK_SIZE(Item, 32);

enum Kind : std::uint16_t { kItem, kName, kTitle, kKinds };

constexpr std::int32_t kBlockLength = 1064;
constexpr std::size_t kLineLength = 16;

MemPackCB describeItems() {
  MemPackCB packCB{};
  packCB.Count = kKinds;
  MemPackDescriptor &item = packCB.Descriptors[kItem];
  item.Type = MEM_PACK_FIXED;
  item.FixedLen = sizeof(Item);
  item.SiblingOff = offsetof(Item, pNext);
  item.ChildCount = 2;
  item.Children[0] = {kName, offsetof(Item, pName)};
  item.Children[1] = {kTitle, offsetof(Item, pTitle)};
  item.ReferenceCount = 1;
  item.References[0] = offsetof(Item, pOther);
  packCB.Descriptors[kName].Type = MEM_PACK_STRING;
  packCB.Descriptors[kName].SiblingOff = MEM_PACK_NO_SIBLING;
  packCB.Descriptors[kTitle].Type = MEM_PACK_WIDE_STRING;
  packCB.Descriptors[kTitle].SiblingOff = MEM_PACK_NO_SIBLING;
  return packCB;
}

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
  Item first{nullptr, "ab", u"Zug", nullptr};
  Item second{nullptr, "c", u"\u00E9", &first};
  first.pNext = &second;
  const MemPackCB packCB = describeItems();
  MemPackBlock *block = nullptr;
  ASSERT_EQ(mem.MEM_Pack(&packCB, &first, kBlockLength, &block), 0);

  std::string expected = "```\n";
  for (int number = 0; block != nullptr; ++number) {
    const char *const used = reinterpret_cast<const char *>(&block->UsedLen);
    expected += "block " + std::to_string(number) + "\n" + dump(std::string(used, block->UsedLen));
    MemPackBlock *const next = block->pNext;
    mem.MEM_Free(block, kBlockLength, 0);
    block = next;
  }
  expected += "```\n";
  EXPECT_NE(manual().find(expected), std::string::npos) << expected;
}

}  // namespace
