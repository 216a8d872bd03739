#include "packed_head.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace memtool {
namespace {

constexpr std::size_t kVersionOff = 2;  // in the file
constexpr std::size_t kLeastFile = kHeadLen;
constexpr std::uint16_t kEbcdicC = 0xC3;
constexpr std::uint16_t kEbcdicF = 0xC6;
constexpr std::uint16_t kEbcdicS = 0xE2;
constexpr std::uint16_t kEbcdicW = 0xE6;
constexpr std::uint16_t kEbcdicV = 0xE5;
constexpr std::uint16_t kEbcdicX = 0xE7;

constexpr DescriptorLayout kCurrentLayout{122, 10, 106, MEM_PACK_MAX_CHILDREN};
constexpr DescriptorLayout kOldLayout{58, 10, 42, 8};

struct KnownVersion {
  std::string_view text;
  bool isEbcdic;
};
constexpr KnownVersion kVersions[] = {{"0100", false}, {"0101", false}, {"0200", false},
                                      {"0201", false}, {"0220", false}, {"0221", false},
                                      {"0240", false}, {"0241", false}, {"0100", true},
                                      {"0200", true},  {"0300", true}};

bool isDigit(std::uint8_t byte, bool isEbcdic) {
  const std::uint8_t zero = isEbcdic ? 0xF0 : 0x30;
  return byte >= zero && byte <= zero + 9;
}

// A fault in front of the first block's content, where there is no block yet.
[[noreturn]] void refuseFile(std::size_t fileOffset, std::string what) {
  throw FaultFound{{{0, static_cast<std::uint32_t>(fileOffset)}, fileOffset, std::move(what), {}}};
}

Version readVersion(const std::string &bytes) {
  std::string text;
  const bool isEbcdic = isDigit(static_cast<std::uint8_t>(bytes[kVersionOff]), true);
  for (std::size_t i = 0; i < 4; ++i) {
    const auto byte = static_cast<std::uint8_t>(bytes[kVersionOff + i]);
    if (!isDigit(byte, isEbcdic)) {
      refuseFile(kVersionOff, "no version stands here, so this is no packed chain");
    }
    text += static_cast<char>('0' + (byte & 0x0F));
  }
  const auto isIt = [&](const KnownVersion &known) {
    return known.text == text && known.isEbcdic == isEbcdic;
  };
  if (std::none_of(std::begin(kVersions), std::end(kVersions), isIt)) {
    refuseFile(kVersionOff,
               fmt::format("there is no version {}{}", text, isEbcdic ? " in EBCDIC" : ""));
  }
  return {text, isEbcdic, text[1] == '1', isEbcdic || text[3] == '1', text[2] == '4' ? 4U : 2U};
}

void readBlocks(PackedChain &chain) {
  for (std::size_t at = 0; at < chain.bytes.size();) {
    const auto number = static_cast<std::uint32_t>(chain.blocks.size());
    const std::size_t left = chain.bytes.size() - at;
    const auto refuseBlock = [&](std::string what) {
      throw FaultFound{{{number, 0}, at, std::move(what), {}}};
    };
    if (number == MEM_PACK_MAX_BLOCKS) {
      refuseBlock(fmt::format("the chain has more than {} blocks", MEM_PACK_MAX_BLOCKS));
    }
    if (left < kFirstContent) refuseBlock("the file ends within a used length");
    const std::uint32_t used = chain.number(at);
    const std::uint32_t least = number == 0 ? kHeadLen : kFirstContent;
    if (used < least) refuseBlock(fmt::format("a used length of {} is too short", used));
    if (used > left) {
      refuseBlock(fmt::format("the used length is {}, but the file ends {} bytes on", used, left));
    }
    chain.blocks.push_back({at, used});
    at += used;
  }
}

Form formOfEbcdic(std::uint16_t typeCode) {
  switch (typeCode) {
    case kEbcdicF:
      return Form::Fixed;
    case kEbcdicC:
      return Form::Counted;
    case kEbcdicS:
      return Form::NarrowText;
    case kEbcdicW:
      return Form::WideText;
    case kEbcdicV:
    case kEbcdicX:
      return Form::Unknown;
    default:
      return Form::SelfDescribing;
  }
}

// EBCDIC letters are those of big-endian writers, whatever their version is written in.
Form formOf(std::uint16_t typeCode, bool isBigEndian) {
  switch (typeCode) {
    case MEM_PACK_FIXED:
      return Form::Fixed;
    case MEM_PACK_COUNTED:
      return Form::Counted;
    case MEM_PACK_STRING:
      return Form::NarrowText;
    case MEM_PACK_WIDE_STRING:
      return Form::WideText;
    default:
      return isBigEndian ? formOfEbcdic(typeCode) : Form::SelfDescribing;
  }
}

// The number of a descriptor's entries, checked. Text has none, whatever its descriptor holds.
std::size_t entryCount(const PackedChain &chain, const Kind &kind, Place place, std::int16_t most,
                       const char *what) {
  if (isText(kind.form)) return 0;
  const std::int16_t count = chain.signedNumber(chain.fileOffset(place));
  if (count < 0 || count > most) {
    refuse(chain, place, fmt::format("a kind of segment has {} {}, which cannot be", count, what));
  }
  return static_cast<std::size_t>(count);
}

Kind readKind(const PackedChain &chain, std::uint32_t offset) {
  const DescriptorLayout &layout = descriptorLayout(chain.version->isOldLayout);
  const auto at = [&](std::size_t field) { return chain.fileOffset({0, offset}) + field; };
  Kind kind;
  kind.typeCode = chain.number(at(0));
  kind.form = formOf(kind.typeCode, chain.version->isBigEndian);
  if (kind.form == Form::SelfDescribing && chain.version->isEbcdic && kind.typeCode <= 0xFF) {
    kind.typeCode = latin1FromEbcdic(static_cast<std::uint8_t>(kind.typeCode));
  }
  kind.fixedLen = chain.number(at(2));
  kind.siblingOff = chain.signedNumber(at(4));
  const std::size_t children =
      entryCount(chain, kind, {0, offset + 6}, layout.maxChildren, "children");
  for (std::size_t i = 0; i < children; ++i) {
    const std::size_t entry = at(layout.childrenOff + i * 4);
    kind.children.push_back({chain.number(entry), chain.signedNumber(entry + 2)});
  }
  const std::size_t references =
      entryCount(chain, kind, {0, offset + 8}, MEM_PACK_MAX_REFERENCES, "references");
  for (std::size_t i = 0; i < references; ++i) {
    kind.references.push_back(chain.signedNumber(at(layout.referencesOff + i * 2)));
  }
  return kind;
}

// Throws unless each child is of a kind that there is room for.
void checkChildKinds(const PackedChain &chain, const Kind &kind, std::uint32_t offset,
                     std::uint32_t present) {
  const std::uint32_t childrenOff = descriptorLayout(chain.version->isOldLayout).childrenOff;
  for (std::uint32_t k = 0; k < kind.children.size(); ++k) {
    const std::uint16_t child = kind.children[k].Descriptor;
    if (child < present) continue;
    refuse(chain, {0, offset + childrenOff + k * 4},
           fmt::format("a child is of kind {}, but there are {} kinds", child, present));
  }
}

Kind readCheckedKind(const PackedChain &chain, std::uint32_t offset, std::uint32_t present) {
  Kind kind = readKind(chain, offset);
  checkChildKinds(chain, kind, offset, present);
  return kind;
}

// What lies beyond the count means nothing, unless a child is of such a kind.
Kind readUncountedKind(const PackedChain &chain, std::uint32_t offset, std::uint32_t present) {
  try {
    return readCheckedKind(chain, offset, present);
  } catch (const FaultFound &) {
    Kind none;
    none.isDescribed = false;
    return none;
  }
}

void readControlBlock(PackedChain &chain) {
  const std::uint32_t used = chain.blocks[0].used;
  const Place place{0, kHeadLen};
  if (used < kHeadLen + 2) refuse(chain, place, "there is no control block");
  const std::int16_t count = chain.signedNumber(chain.fileOffset(place));
  if (count < 1) {
    refuse(chain, place, fmt::format("the control block counts {} kinds of segments", count));
  }
  const std::uint32_t length = controlBlockLength(count, chain.version->isOldLayout);
  if (length > used - kHeadLen) {
    refuse(chain, place,
           fmt::format("a control block of {} kinds takes {} bytes, but the block ends {} bytes on",
                       count, length, used - kHeadLen));
  }
  chain.controlBlockLen = length;
  chain.kindCount = static_cast<std::uint16_t>(count);
  const std::uint32_t present = std::max<std::uint32_t>(chain.kindCount, MEM_PACK_MIN_DESCRIPTORS);
  const std::uint32_t kindLen = descriptorLayout(chain.version->isOldLayout).length;
  for (std::uint32_t i = 0; i < present; ++i) {
    const std::uint32_t offset = kHeadLen + kFirstContent + i * kindLen;
    chain.kinds.push_back(i < chain.kindCount ? readCheckedKind(chain, offset, present)
                                              : readUncountedKind(chain, offset, present));
  }
}

}  // namespace

void refuse(const PackedChain &chain, Place place, std::string what) {
  throw FaultFound{{place, chain.fileOffset(place), std::move(what), {}}};
}

const DescriptorLayout &descriptorLayout(bool isOldLayout) {
  return isOldLayout ? kOldLayout : kCurrentLayout;
}

std::uint32_t controlBlockLength(std::int32_t kindCount, bool isOldLayout) {
  const std::int32_t present = std::max<std::int32_t>(kindCount, MEM_PACK_MIN_DESCRIPTORS);
  return 2 + static_cast<std::uint32_t>(present) * descriptorLayout(isOldLayout).length;
}

std::optional<Place> rootPlace(const PackedChain &chain) {
  const std::uint32_t behindControlBlock = kHeadLen + chain.controlBlockLen;
  if (behindControlBlock < chain.blocks[0].used) return Place{0, behindControlBlock};
  if (chain.blocks.size() < 2 || chain.blocks[1].used <= kFirstContent) return {};
  return Place{1, kFirstContent};
}

void readHead(PackedChain &chain) {
  if (chain.bytes.size() < kLeastFile) {
    refuseFile(
        0, fmt::format("the file has {} bytes, too few for a packed chain", chain.bytes.size()));
  }
  chain.version = readVersion(chain.bytes);
  readBlocks(chain);
  readControlBlock(chain);
}

}  // namespace memtool
