#include "packed_head.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "tool_text.hpp"

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

// A fault found before the blocks are known.
void noteFileFault(PackedChain &chain, std::size_t fileOffset, std::string what) {
  chain.faults.push_back(
      {{0, static_cast<std::uint32_t>(fileOffset)}, fileOffset, std::move(what), {}});
}

// A block in memory begins with the address of the next one, which is no part of a file.
std::string noVersion(std::string_view bytes) {
  constexpr std::size_t kNextAddress = 8;
  const bool isDump = bytes.size() > kNextAddress && hasVersion(bytes.substr(kNextAddress));
  return isDump ? "no version is here, but 8 bytes later: the blocks were written with their "
                  "addresses; write of each the used bytes from offset 8 on"
                : "no version is here, so the file is not a packed chain";
}

void readVersion(PackedChain &chain) {
  std::string text;
  const bool isEbcdic = isDigit(static_cast<std::uint8_t>(chain.bytes[kVersionOff]), true);
  for (std::size_t i = 0; i < 4; ++i) {
    const auto byte = static_cast<std::uint8_t>(chain.bytes[kVersionOff + i]);
    if (!isDigit(byte, isEbcdic)) {
      noteFileFault(chain, kVersionOff, noVersion(chain.bytes));
      return;
    }
    text += static_cast<char>('0' + (byte & 0x0F));
  }
  const auto isIt = [&](const KnownVersion &known) {
    return known.text == text && known.isEbcdic == isEbcdic;
  };
  if (std::none_of(std::begin(kVersions), std::end(kVersions), isIt)) {
    noteFileFault(chain, kVersionOff,
                  fmt::format("the version {}{} is unknown", text, isEbcdic ? " in EBCDIC" : ""));
    return;
  }
  chain.version = {text, isEbcdic, text[1] == '1', isEbcdic || text[3] == '1',
                   text[2] == '4' ? 4U : 2U};
}

// A block begins where the previous one ends. After an invalid used length the rest of the file is
// taken as the last block, as in a file that was cut.
void readBlocks(PackedChain &chain) {
  for (std::size_t at = 0; at < chain.bytes.size();) {
    const auto number = static_cast<std::uint32_t>(chain.blocks.size());
    const std::size_t left = chain.bytes.size() - at;
    const auto note = [&](std::string what) {
      chain.faults.push_back({{number, 0}, at, std::move(what), {}});
    };
    if (number == MEM_PACK_MAX_BLOCKS) {
      note(fmt::format("the chain has more than {} blocks", MEM_PACK_MAX_BLOCKS));
      return;
    }
    if (left < kFirstContent) return note("the file ends within a used length");
    const std::uint32_t told = chain.number(at);
    const std::uint32_t least = number == 0 ? kHeadLen : kFirstContent;
    if (told >= least && told <= left) {
      chain.blocks.push_back({at, told, told});
      at += told;
      continue;
    }
    note(told < least
             ? fmt::format("the used length {} is too short; at least {} is needed", told, least)
             : fmt::format("the used length is {}, but only {} bytes are left in the file", told,
                           left));
    chain.blocks.push_back(
        {at, static_cast<std::uint32_t>(std::min<std::size_t>(left, 0xFFFF)), told});
    return;
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

// Where the parts of a descriptor are in the file.
struct DescriptorPlace {
  const DescriptorLayout &layout;
  std::uint32_t offset;  // in block 0
};

// The number of a descriptor's entries; 0 with a fault when it is invalid. Text has none, whatever
// its descriptor contains.
std::size_t entryCount(PackedChain &chain, const Kind &kind, Place place, std::int16_t most,
                       const char *what) {
  if (isText(kind.form)) return 0;
  const std::int16_t count = chain.signedNumber(chain.fileOffset(place));
  if (count >= 0 && count <= most) return static_cast<std::size_t>(count);
  noteFault(chain, place,
            fmt::format("a kind of segment has {} {}; 0 to {} are possible", count, what, most));
  return 0;
}

// Each child must be of a kind that the control block has room for; others are left out with a
// fault.
void readChildren(PackedChain &chain, const DescriptorPlace &place, std::uint32_t present,
                  Kind &kind) {
  const std::size_t count =
      entryCount(chain, kind, {0, place.offset + 6}, place.layout.maxChildren, "children");
  for (std::uint32_t i = 0; i < count; ++i) {
    const Place entry{0, place.offset + place.layout.childrenOff + i * 4};
    const std::size_t at = chain.fileOffset(entry);
    const std::uint16_t child = chain.number(at);
    if (child < present) {
      kind.children.push_back({child, chain.signedNumber(at + 2)});
      continue;
    }
    noteFault(chain, entry,
              fmt::format("a child is of kind {}, but there are {} kinds", child, present));
  }
}

Kind readKind(PackedChain &chain, const DescriptorPlace &place, std::uint32_t present) {
  const auto at = [&](std::size_t field) { return chain.fileOffset({0, place.offset}) + field; };
  Kind kind;
  kind.typeCode = chain.number(at(0));
  kind.form = formOf(kind.typeCode, chain.version->isBigEndian);
  if (kind.form == Form::SelfDescribing && chain.version->isEbcdic && kind.typeCode <= 0xFF) {
    kind.typeCode = latin1FromEbcdic(static_cast<std::uint8_t>(kind.typeCode));
  }
  kind.fixedLen = chain.number(at(2));
  kind.siblingOff = chain.signedNumber(at(4));
  readChildren(chain, place, present, kind);
  const std::size_t references =
      entryCount(chain, kind, {0, place.offset + 8}, MEM_PACK_MAX_REFERENCES, "references");
  for (std::size_t i = 0; i < references; ++i) {
    kind.references.push_back(chain.signedNumber(at(place.layout.referencesOff + i * 2)));
  }
  return kind;
}

// Descriptors beyond the count matter only when a child is of such a kind.
Kind readUncountedKind(PackedChain &chain, const DescriptorPlace &place, std::uint32_t present) {
  const std::size_t before = chain.faults.size();
  Kind kind = readKind(chain, place, present);
  if (chain.faults.size() == before) return kind;
  chain.faults.resize(before);
  Kind none;
  none.isDescribed = false;
  return none;
}

// False when no root can follow it, because it is cut or invalid.
bool readControlBlock(PackedChain &chain) {
  const std::uint32_t used = chain.blocks[0].used;
  const Place place{0, kHeadLen};
  if (used < kHeadLen + 2) {
    noteFault(chain, place, "there is no control block");
    return false;
  }
  const std::int16_t count = chain.signedNumber(chain.fileOffset(place));
  if (count < 1) {
    noteFault(
        chain, place,
        fmt::format("the control block counts {} kinds of segments; at least 1 is needed", count));
    return false;
  }
  const std::uint32_t length = controlBlockLength(count, chain.version->isOldLayout);
  const bool isWhole = length <= used - kHeadLen;
  if (!isWhole) {
    noteFault(
        chain, place,
        fmt::format("a control block of {} kinds takes {} bytes, but the block has only {} left",
                    count, length, used - kHeadLen));
  }
  chain.controlBlockLen = length;
  chain.kindCount = static_cast<std::uint16_t>(count);
  const std::uint32_t present = std::max<std::uint32_t>(chain.kindCount, MEM_PACK_MIN_DESCRIPTORS);
  const DescriptorLayout &layout = descriptorLayout(chain.version->isOldLayout);
  for (std::uint32_t i = 0; i < present; ++i) {
    const DescriptorPlace kind{layout, kHeadLen + kFirstContent + i * layout.length};
    if (kind.offset + layout.length > used) break;
    chain.kinds.push_back(i < chain.kindCount ? readKind(chain, kind, present)
                                              : readUncountedKind(chain, kind, present));
  }
  return isWhole;
}

}  // namespace

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

void noteFault(PackedChain &chain, Place place, std::string what) {
  chain.faults.push_back({place, chain.fileOffset(place), std::move(what), {}});
}

const DescriptorLayout &descriptorLayout(bool isOldLayout) {
  return isOldLayout ? kOldLayout : kCurrentLayout;
}

std::uint32_t controlBlockLength(std::int32_t kindCount, bool isOldLayout) {
  const std::int32_t present = std::max<std::int32_t>(kindCount, MEM_PACK_MIN_DESCRIPTORS);
  return 2 + static_cast<std::uint32_t>(present) * descriptorLayout(isOldLayout).length;
}

std::optional<Place> rootPlace(const PackedChain &chain) {
  const std::uint32_t afterControlBlock = kHeadLen + chain.controlBlockLen;
  if (afterControlBlock < chain.blocks[0].used) return Place{0, afterControlBlock};
  if (chain.blocks.size() < 2 || chain.blocks[1].used <= kFirstContent) return {};
  return Place{1, kFirstContent};
}

bool hasVersion(std::string_view bytes) {
  if (bytes.size() < kLeastFile) return false;
  PackedChain head;
  head.bytes = bytes.substr(0, kHeadLen);
  readVersion(head);
  return head.version.has_value();
}

bool readHead(PackedChain &chain) {
  if (chain.bytes.size() < kLeastFile) {
    noteFileFault(chain, 0,
                  fmt::format("the file has {}, too few for a packed chain",
                              countOf(chain.bytes.size(), "byte")));
    return false;
  }
  readVersion(chain);
  if (!chain.version) return false;
  readBlocks(chain);
  return readControlBlock(chain);
}

}  // namespace memtool
