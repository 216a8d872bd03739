// A packed chain as memtool reads it: everything that the file contains, read without trusting any
// of its bytes. docs/packed-chain.md describes the format.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qj7mem00/memerr.h"
#include "qj7mem00/mempack.h"
#include "tool_text.hpp"

namespace memtool {

// A content byte: block number, and offset from block offset 8, as in relative pointers.
struct Place {
  std::uint32_t block = 0;
  std::uint32_t offset = 0;

  bool operator==(const Place &) const = default;
  auto operator<=>(const Place &) const = default;
};

// "1:34".
std::string textOf(Place place);

// What the four characters of a version say about the writer.
struct Version {
  std::string text;  // in ASCII, whatever the writer's code
  bool isEbcdic = false;
  bool isOldLayout = false;
  bool isBigEndian = false;
  std::uint32_t wideSize = 2;  // bytes of a wide character
};

struct Block {
  std::size_t fileOffset = 0;
  std::uint32_t used = 0;  // bytes from block offset 8 on that the file holds
  std::uint32_t told =
      0;  // the used length that the block contains; differs in damaged chains only

  bool isCut() const { return used != told; }
};

// The character of a byte of code page 037.
std::uint8_t latin1FromEbcdic(std::uint8_t byte);

enum class Form { Fixed, Counted, SelfDescribing, NarrowText, WideText, Unknown };

constexpr bool isText(Form form) {
  return form == Form::NarrowText || form == Form::WideText;
}

// A kind of segment: one descriptor of the control block, in numbers of this machine.
struct Kind {
  bool isDescribed = true;     // false: beyond the count, with an invalid descriptor
  std::uint16_t typeCode = 0;  // as in the file, but the letter of a SelfDescribing kind is ASCII
  Form form = Form::Fixed;
  std::uint16_t fixedLen = 0;
  std::int16_t siblingOff = MEM_PACK_NO_SIBLING;
  std::vector<MemPackChild> children;
  std::vector<std::int16_t> references;

  bool hasSibling() const { return !isText(form) && siblingOff != MEM_PACK_NO_SIBLING; }
  // Offsets of all pointer fields, in ascending order.
  std::vector<std::int32_t> pointerOffsets() const;
  // Offset after the last pointer field, 0 when there is none.
  std::int32_t pointersEnd(std::uint32_t pointerWidth) const;
};

// The type by which this platform describes the kind.
std::uint16_t nativeType(const Kind &kind);

enum class Field : std::uint8_t { Child, Sibling, Reference };
const char *nameOf(Field field);

inline constexpr std::uint32_t kNoText = std::numeric_limits<std::uint32_t>::max();

// A pointer field of a segment. There are many, so the members are in an order without padding.
struct Pointer {
  std::int16_t offset = 0;  // of the field in its segment
  std::uint16_t kind = 0;   // of a child
  Field field = Field::Child;
  bool isNull = true;
  bool isFaulty = false;         // it leads nowhere, or not to what it should
  Place target;                  // of a faulty one: the values of the field, sign-extended
  std::uint32_t text = kNoText;  // index of the text that the target is
};

// Where it leads, as text; faulty ones may contain negative numbers.
std::string targetText(const Pointer &pointer);

struct Segment {
  Place place;
  std::uint16_t kind = 0;
  std::uint32_t level = 0;   // in the tree; the root has 0
  std::uint32_t length = 0;  // of an unknown form: up to its last pointer field
  bool isCut = false;        // its length is invalid; `length` reaches up to its last pointer field
  std::size_t firstPointer = 0;
  std::size_t pointerCount = 0;
};

struct Text {
  Place place;
  std::uint32_t length = 0;  // in bytes, with the terminator
  bool isWide = false;
};

// Something invalid in the file.
struct Fault {
  Place place;
  std::size_t fileOffset = 0;
  std::string what;
  std::string remark = {};  // further information, empty for most faults

  // "block 1, offset 34 (file offset 1070): …; …".
  std::string text() const;
};

// All of a chain except what only a faulty pointer leads to.
class PackedChain {
 public:
  std::string bytes;  // of the file
  std::optional<Version> version;
  std::vector<Block> blocks;
  std::uint32_t controlBlockLen = 0;
  std::uint16_t kindCount = 0;  // the count in the file
  std::vector<Kind> kinds;      // at least 8, also beyond the count; fewer when the block is cut
  std::uint32_t pointerWidth = 0;
  bool isWidthGuessed = false;  // neither given nor evident from the control block
  std::optional<Place> root;
  std::vector<Segment> segments;  // depth first: a segment, its children, its sibling
  std::vector<Pointer> pointers;  // of the segments in turn
  std::vector<Text> texts;
  std::vector<Fault> faults;  // in the order found: those of the head, then from the root on

  bool isHeadSound = false;  // blocks and control block have no fault

  bool isSound() const { return faults.empty(); }

  // The bytes of a block from block offset 8 on.
  std::string_view content(std::size_t block) const {
    return std::string_view(bytes).substr(blocks[block].fileOffset, blocks[block].used);
  }
  std::string_view bytesAt(Place place, std::size_t length) const {
    return content(place.block).substr(place.offset, length);
  }
  // A 16-bit number in the writer's order. REQUIRES: version, two bytes at the file offset.
  std::uint16_t number(std::size_t fileOffset) const;
  std::int16_t signedNumber(std::size_t fileOffset) const {
    return static_cast<std::int16_t>(number(fileOffset));
  }
  std::size_t fileOffset(Place place) const {
    return blocks[place.block].fileOffset + place.offset;
  }

  // Kinds within the count that the file contains.
  std::size_t readKindCount() const { return std::min<std::size_t>(kindCount, kinds.size()); }

  // The text as UTF-8. Narrow text of EBCDIC writers is decoded as code page 037, unless it is
  // ASCII.
  std::string utf8Of(const Text &text) const;

  // Blocks after the first in which no segment and no text is. The library takes them, but a packer
  // makes none. REQUIRES: no fault.
  std::vector<std::uint32_t> unusedBlocks() const;

  // The bytes of a segment outside of its pointer fields, as contiguous runs.
  struct Run {
    std::uint32_t offset;  // in the segment
    std::string_view bytes;
  };
  std::vector<Run> dataRuns(const Segment &segment) const;
};

}  // namespace memtool
