#include "packed_chain.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "tool_text.hpp"

namespace memtool {
namespace {

// Code page 037: each byte's character, all of them Latin-1.
constexpr std::array<std::uint8_t, 256> kCodePage037 = {
    0x00, 0x01, 0x02, 0x03, 0x9C, 0x09, 0x86, 0x7F, 0x97, 0x8D, 0x8E, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F,
    0x10, 0x11, 0x12, 0x13, 0x9D, 0x85, 0x08, 0x87, 0x18, 0x19, 0x92, 0x8F, 0x1C, 0x1D, 0x1E, 0x1F,
    0x80, 0x81, 0x82, 0x83, 0x84, 0x0A, 0x17, 0x1B, 0x88, 0x89, 0x8A, 0x8B, 0x8C, 0x05, 0x06, 0x07,
    0x90, 0x91, 0x16, 0x93, 0x94, 0x95, 0x96, 0x04, 0x98, 0x99, 0x9A, 0x9B, 0x14, 0x15, 0x9E, 0x1A,
    0x20, 0xA0, 0xE2, 0xE4, 0xE0, 0xE1, 0xE3, 0xE5, 0xE7, 0xF1, 0xA2, 0x2E, 0x3C, 0x28, 0x2B, 0x7C,
    0x26, 0xE9, 0xEA, 0xEB, 0xE8, 0xED, 0xEE, 0xEF, 0xEC, 0xDF, 0x21, 0x24, 0x2A, 0x29, 0x3B, 0xAC,
    0x2D, 0x2F, 0xC2, 0xC4, 0xC0, 0xC1, 0xC3, 0xC5, 0xC7, 0xD1, 0xA6, 0x2C, 0x25, 0x5F, 0x3E, 0x3F,
    0xF8, 0xC9, 0xCA, 0xCB, 0xC8, 0xCD, 0xCE, 0xCF, 0xCC, 0x60, 0x3A, 0x23, 0x40, 0x27, 0x3D, 0x22,
    0xD8, 0x61, 0x62, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0xAB, 0xBB, 0xF0, 0xFD, 0xFE, 0xB1,
    0xB0, 0x6A, 0x6B, 0x6C, 0x6D, 0x6E, 0x6F, 0x70, 0x71, 0x72, 0xAA, 0xBA, 0xE6, 0xB8, 0xC6, 0xA4,
    0xB5, 0x7E, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7A, 0xA1, 0xBF, 0xD0, 0xDD, 0xDE, 0xAE,
    0x5E, 0xA3, 0xA5, 0xB7, 0xA9, 0xA7, 0xB6, 0xBC, 0xBD, 0xBE, 0x5B, 0x5D, 0xAF, 0xA8, 0xB4, 0xD7,
    0x7B, 0x41, 0x42, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49, 0xAD, 0xF4, 0xF6, 0xF2, 0xF3, 0xF5,
    0x7D, 0x4A, 0x4B, 0x4C, 0x4D, 0x4E, 0x4F, 0x50, 0x51, 0x52, 0xB9, 0xFB, 0xFC, 0xF9, 0xFA, 0xFF,
    0x5C, 0xF7, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5A, 0xB2, 0xD4, 0xD6, 0xD2, 0xD3, 0xD5,
    0x30, 0x31, 0x32, 0x33, 0x34, 0x35, 0x36, 0x37, 0x38, 0x39, 0xB3, 0xDB, 0xDC, 0xD9, 0xDA, 0x9F,
};

}  // namespace

std::uint8_t latin1FromEbcdic(std::uint8_t byte) {
  return kCodePage037[byte];
}

namespace {

std::string utf8FromEbcdic(std::string_view text) {
  std::string utf8;
  for (const char byte : text) appendUtf8(utf8, latin1FromEbcdic(static_cast<std::uint8_t>(byte)));
  return utf8;
}

bool isAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return (c & 0x80) == 0; });
}

}  // namespace

std::uint16_t nativeType(const Kind &kind) {
  switch (kind.form) {
    case Form::Fixed:
      return MEM_PACK_FIXED;
    case Form::Counted:
      return MEM_PACK_COUNTED;
    case Form::NarrowText:
      return MEM_PACK_STRING;
    case Form::WideText:
      return MEM_PACK_WIDE_STRING;
    default:
      return kind.typeCode;
  }
}

std::string textOf(Place place) {
  return fmt::format("{}:{}", place.block, place.offset);
}

std::string targetText(const Pointer &pointer) {
  return fmt::format("{}:{}", static_cast<std::int32_t>(pointer.target.block),
                     static_cast<std::int32_t>(pointer.target.offset));
}

const char *nameOf(Field field) {
  switch (field) {
    case Field::Child:
      return "child";
    case Field::Sibling:
      return "sibling";
    case Field::Reference:
      break;
  }
  return "reference";
}

std::vector<std::int32_t> Kind::pointerOffsets() const {
  std::vector<std::int32_t> offsets;
  if (hasSibling()) offsets.push_back(siblingOff);
  for (const MemPackChild &child : children) offsets.push_back(child.Offset);
  for (const std::int16_t reference : references) offsets.push_back(reference);
  std::sort(offsets.begin(), offsets.end());
  return offsets;
}

std::int32_t Kind::pointersEnd(std::uint32_t pointerWidth) const {
  std::int32_t last = -1;
  bool hasPointers = hasSibling();
  if (hasPointers) last = siblingOff;
  for (const MemPackChild &child : children) last = std::max<std::int32_t>(last, child.Offset);
  for (const std::int16_t reference : references) last = std::max<std::int32_t>(last, reference);
  hasPointers = hasPointers || !children.empty() || !references.empty();
  return hasPointers ? last + static_cast<std::int32_t>(pointerWidth) : 0;
}

std::string Fault::text() const {
  return fmt::format("block {}, offset {} (file offset {}): {}{}{}", place.block, place.offset,
                     fileOffset, what, remark.empty() ? "" : "; ", remark);
}

std::uint16_t PackedChain::number(std::size_t at) const {
  const auto first = static_cast<std::uint8_t>(bytes[at]);
  const auto second = static_cast<std::uint8_t>(bytes[at + 1]);
  return static_cast<std::uint16_t>(version->isBigEndian ? first * 256U + second
                                                         : second * 256U + first);
}

std::string PackedChain::utf8Of(const Text &text) const {
  if (!text.isWide) {
    const std::string_view narrow = bytesAt(text.place, text.length - 1);
    return version->isEbcdic && !isAscii(narrow) ? utf8FromEbcdic(narrow) : validUtf8(narrow);
  }
  const std::size_t start = fileOffset(text.place);
  const std::size_t end = start + text.length - version->wideSize;
  if (version->wideSize == 2) {
    std::u16string units;
    for (std::size_t at = start; at < end; at += 2) units += static_cast<char16_t>(number(at));
    return utf8FromUtf16(units);
  }
  std::string utf8;
  for (std::size_t at = start; at < end; at += 4) {
    const std::uint32_t first = number(at);
    const std::uint32_t second = number(at + 2);
    appendUtf8(utf8, version->isBigEndian ? first << 16 | second : second << 16 | first);
  }
  return utf8;
}

std::vector<std::uint32_t> PackedChain::unusedBlocks() const {
  std::vector<bool> isUsed(blocks.size());
  for (const Segment &segment : segments) isUsed[segment.place.block] = true;
  for (const Text &text : texts) isUsed[text.place.block] = true;
  std::vector<std::uint32_t> unused;
  for (std::uint32_t block = 1; block < blocks.size(); ++block) {
    if (!isUsed[block]) unused.push_back(block);
  }
  return unused;
}

std::vector<PackedChain::Run> PackedChain::dataRuns(const Segment &segment) const {
  std::vector<Run> runs;
  const auto add = [&](std::uint32_t from, std::uint32_t to) {
    if (from >= to) return;
    runs.push_back({from, bytesAt({segment.place.block, segment.place.offset + from}, to - from)});
  };
  std::uint32_t from = 0;
  std::vector<std::uint32_t> offsets;
  for (std::size_t i = 0; i < segment.pointerCount; ++i) {
    offsets.push_back(static_cast<std::uint32_t>(pointers[segment.firstPointer + i].offset));
  }
  std::sort(offsets.begin(), offsets.end());
  for (const std::uint32_t offset : offsets) {
    add(from, offset);
    from = offset + pointerWidth;
  }
  add(from, segment.length);
  return runs;
}

}  // namespace memtool
