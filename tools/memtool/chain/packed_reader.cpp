#include "packed_reader.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <unordered_map>
#include <utility>

#include "packed_claims.hpp"
#include "packed_head.hpp"
#include "packed_width.hpp"
#include "tool_progress.hpp"

namespace memtool {
namespace {

constexpr std::uint32_t kLengthWord = 2;
constexpr std::uint32_t kWideAlignment = 4;
// Bytes of the library's work area for a text of 4-byte characters that it converts to UTF-16.
constexpr std::uint32_t kMostUtf16 = 32768;

bool isCharacter(std::uint32_t unit) {
  return unit <= 0x10FFFF && (unit < 0xD800 || unit > 0xDFFF);
}

// Follows the pointers of a chain whose head has been read, from the root on. Faulty pointers are
// not followed; the rest is read.
class Walk {
 public:
  Walk(PackedChain &chain, Console &console)
      : chain_(chain),
        claims_(chain),
        layouts_(chain.kinds.size(), Layout::Unknown),
        progress_(console, "reading", chain.bytes.size()) {}

  void run();

 private:
  enum class Layout : std::uint8_t { Unknown, Good, Bad };

  struct Level {
    std::size_t segment;
    std::size_t nextPointer;  // of the segment, to follow next
  };

  std::optional<Place> findRoot();
  bool visit(std::uint16_t kind, Place place, Place from);
  bool visitSegment(std::uint16_t kind, Place place, Place from);
  void measure(Segment &segment);
  std::optional<std::int32_t> statedLength(const Segment &segment, std::uint32_t room);
  bool hasGoodLayout(std::uint16_t kind, Place place);
  std::string layoutFault(const Kind &kind) const;
  void addPointers(Segment &segment);
  void addPointer(const Segment &segment, Field field, std::int16_t offset, std::uint16_t kind);
  bool readTarget(Place field, Pointer &pointer);
  std::uint32_t takeText(std::uint16_t kind, Place place, Place from);
  bool takeWide(Place place, Place from, std::uint32_t &length);
  bool measureWide(Place place, std::uint32_t &length);
  void advance();
  void follow(std::size_t pointer, const Segment &segment);
  void checkReferences();
  bool isFree(Owner owner, Place place, Place from);

  void note(Place place, std::string what) { noteFault(chain_, place, std::move(what)); }
  Place fieldPlace(const Segment &segment, std::int16_t offset) const {
    return {segment.place.block, segment.place.offset + static_cast<std::uint32_t>(offset)};
  }

  PackedChain &chain_;
  Claims claims_;
  std::vector<Layout> layouts_;  // of the pointer fields of each kind
  std::vector<Level> levels_;
  std::unordered_map<std::uint64_t, std::uint32_t> textAt_;  // index of the text at a place
  Progress progress_;
};

std::uint64_t keyOf(Place place) {
  return std::uint64_t{place.block} << 32 | place.offset;
}

std::optional<Place> Walk::findRoot() {
  if (const std::optional<Place> root = rootPlace(chain_)) return root;
  if (chain_.blocks.size() < 2) {
    note({0, 0}, "the chain ends after its control block, without a root");
  } else {
    note({1, 0}, "the block where the root should be is empty");
  }
  return {};
}

void Walk::run() {
  const std::optional<Place> root = findRoot();
  if (!root) return;
  if (visit(0, *root, *root)) chain_.root = root;
  while (!levels_.empty()) {
    advance();
    progress_.update(claims_.taken());
    if (claims_.triesLeft() == 0) {
      note(*root, "there are too many faults to continue");
      break;
    }
  }
  checkReferences();
}

// `from` is the pointer field that leads here, or the root itself. Here only the root may be text.
// False with a fault when the item is invalid.
bool Walk::visit(std::uint16_t kind, Place place, Place from) {
  const Form form = chain_.kinds[kind].form;
  if (form == Form::WideText && chain_.pointerWidth != 8) {
    note(place, "the root is wide text, of which the library makes no new chain");
    return false;
  }
  if (isText(form)) return takeText(kind, place, from) != kNoText;
  if (!visitSegment(kind, place, from)) return false;
  levels_.push_back({chain_.segments.size() - 1, 0});
  return true;
}

bool Walk::isFree(Owner owner, Place place, Place from) {
  switch (owner) {
    case Owner::None:
      return true;
    case Owner::Head:
      note(from, fmt::format("a pointer leads to {}, into the block's head", textOf(place)));
      break;
    case Owner::SegmentStart:
    case Owner::Segment:
    case Owner::Wide:
    case Owner::Narrow:
      note(from, fmt::format("a pointer leads to {}, which overlaps what another pointer leads to",
                             textOf(place)));
      break;
  }
  return false;
}

bool Walk::visitSegment(std::uint16_t kind, Place place, Place from) {
  if (!chain_.kinds[kind].isDescribed) {
    note(from,
         fmt::format("a segment is of kind {}, which the control block does not describe", kind));
    return false;
  }
  // Of an overlapping segment only the overlap is reported, not its length.
  if (!isFree(claims_.ownerOf(place), place, from)) return false;
  Segment segment;
  segment.place = place;
  segment.kind = kind;
  segment.level = static_cast<std::uint32_t>(levels_.size());
  measure(segment);
  const bool hasPointers = hasGoodLayout(kind, place);
  if (!isFree(claims_.take(place, segment.length, Owner::SegmentStart), place, from)) return false;
  segment.firstPointer = chain_.pointers.size();
  if (hasPointers) addPointers(segment);
  chain_.segments.push_back(segment);
  return true;
}

// The length by the kind or in the segment; none with a fault when it is invalid.
std::optional<std::int32_t> Walk::statedLength(const Segment &segment, std::uint32_t room) {
  const Kind &kind = chain_.kinds[segment.kind];
  if (kind.form == Form::Unknown) {
    return std::max(kind.pointersEnd(chain_.pointerWidth), 1);
  }
  if (kind.form == Form::Fixed) return kind.fixedLen;
  if (room < kLengthWord) return static_cast<std::int32_t>(kLengthWord);
  const std::size_t at = chain_.fileOffset(segment.place);
  const std::int32_t length =
      kind.form == Form::Counted ? chain_.signedNumber(at) + 2 : chain_.number(at);
  if (length >= static_cast<std::int32_t>(kLengthWord)) return length;
  note(segment.place,
       fmt::format("a segment of kind {} has the invalid length {}", segment.kind, length));
  return {};
}

// A segment of invalid length is taken up to its last pointer field or the end of the block: its
// pointers are then followed, and the bytes after them stay free for other items.
void Walk::measure(Segment &segment) {
  const std::int32_t end = chain_.kinds[segment.kind].pointersEnd(chain_.pointerWidth);
  const std::uint32_t room = chain_.blocks[segment.place.block].used - segment.place.offset;
  const std::optional<std::int32_t> length = statedLength(segment, room);
  const bool fits = length && static_cast<std::uint32_t>(*length) <= room;
  if (length && !fits) {
    note(segment.place,
         fmt::format("a segment of kind {} and {} bytes begins here, but only {} bytes are left "
                     "in the block's used part",
                     segment.kind, *length, room));
  } else if (length && end > *length) {
    note(segment.place,
         fmt::format("a segment of kind {} and {} bytes begins here, too short for its pointer "
                     "at {}",
                     segment.kind, *length, end - static_cast<std::int32_t>(chain_.pointerWidth)));
  }
  segment.isCut = !fits || end > *length;
  segment.length = segment.isCut ? std::min(room, static_cast<std::uint32_t>(std::max(end, 1)))
                                 : static_cast<std::uint32_t>(*length);
}

// The fault of a kind is reported at its first segment.
bool Walk::hasGoodLayout(std::uint16_t kind, Place place) {
  Layout &layout = layouts_[kind];
  if (layout == Layout::Unknown) {
    const std::string fault = layoutFault(chain_.kinds[kind]);
    layout = fault.empty() ? Layout::Good : Layout::Bad;
    if (!fault.empty()) {
      note(place, fmt::format("a segment of kind {} begins here, whose {}", kind, fault));
    }
  }
  return layout == Layout::Good;
}

// Pointer fields must be in their segment and must not overlap each other or the length word.
std::string Walk::layoutFault(const Kind &kind) const {
  const std::vector<std::int32_t> offsets = kind.pointerOffsets();
  if (offsets.empty()) return "";
  if (offsets.front() < 0) {
    return fmt::format("pointer at {} would be before it", offsets.front());
  }
  const auto width = static_cast<std::int32_t>(chain_.pointerWidth);
  const bool tellsLength = kind.form == Form::Counted || kind.form == Form::SelfDescribing;
  bool isApart = offsets.front() >= (tellsLength ? static_cast<std::int32_t>(kLengthWord) : 0);
  for (std::size_t i = 1; i < offsets.size(); ++i) {
    isApart = isApart && offsets[i] - offsets[i - 1] >= width;
  }
  return isApart ? "" : fmt::format("pointer fields of {} bytes overlap", width);
}

// Adds the pointers that the file contains: a segment may be cut.
void Walk::addPointers(Segment &segment) {
  const Kind &kind = chain_.kinds[segment.kind];
  if (kind.hasSibling()) addPointer(segment, Field::Sibling, kind.siblingOff, segment.kind);
  for (const MemPackChild &child : kind.children) {
    addPointer(segment, Field::Child, child.Offset, child.Descriptor);
  }
  for (const std::int16_t reference : kind.references) {
    addPointer(segment, Field::Reference, reference, 0);
  }
  segment.pointerCount = chain_.pointers.size() - segment.firstPointer;
}

void Walk::addPointer(const Segment &segment, Field field, std::int16_t offset,
                      std::uint16_t kind) {
  if (static_cast<std::uint32_t>(offset) + chain_.pointerWidth > segment.length) return;
  Pointer pointer;
  pointer.field = field;
  pointer.offset = offset;
  pointer.kind = kind;
  pointer.isFaulty = !readTarget(fieldPlace(segment, offset), pointer);
  chain_.pointers.push_back(pointer);
}

// False with a fault when the pointer cannot be followed.
bool Walk::readTarget(Place field, Pointer &pointer) {
  const std::string_view bytes = chain_.bytesAt(field, chain_.pointerWidth);
  const auto isZero = [](char byte) { return byte == 0; };
  pointer.isNull = std::all_of(bytes.begin(), bytes.end(), isZero);
  if (pointer.isNull) return true;
  const std::size_t at = chain_.fileOffset(field);
  const std::int16_t block = chain_.signedNumber(at);
  const std::int16_t offset = chain_.signedNumber(at + 2);
  pointer.target = {static_cast<std::uint32_t>(block), static_cast<std::uint32_t>(offset)};
  if (block < 0 || static_cast<std::size_t>(block) >= chain_.blocks.size()) {
    note(field, fmt::format("a {} pointer leads to block {}, but the chain has {} block{}",
                            nameOf(pointer.field), block, chain_.blocks.size(),
                            chain_.blocks.size() == 1 ? "" : "s"));
    return false;
  }
  const std::uint32_t used = chain_.blocks[pointer.target.block].used;
  if (offset < 0 || pointer.target.offset >= used) {
    note(field, fmt::format("a {} pointer leads to offset {} of block {}, which has {} bytes",
                            nameOf(pointer.field), offset, block, used));
    return false;
  }
  if (std::all_of(bytes.begin() + 4, bytes.end(), isZero)) return true;
  note(field, "the bytes after a relative pointer are not zero");
  return false;
}

// Index of the text at `place`, which may have been read before; kNoText with a fault when there is
// none.
std::uint32_t Walk::takeText(std::uint16_t kind, Place place, Place from) {
  const bool isWide = chain_.kinds[kind].form == Form::WideText;
  Text text{place, 0, isWide};
  if (isWide) {
    if (!takeWide(place, from, text.length)) return kNoText;
  } else {
    // With 8-byte pointers the library leaves texts in their places; else it copies each by itself.
    const bool mayShareEnd = chain_.pointerWidth == 8;
    const Owner owner = claims_.takeNarrow(place, mayShareEnd, text.length);
    if (!isFree(owner, place, from)) return kNoText;
    if (text.length == 0) {
      note(place, "a narrow text begins here and does not end in its block");
      return kNoText;
    }
    const auto [known, isNew] =
        textAt_.emplace(keyOf(place), static_cast<std::uint32_t>(chain_.texts.size()));
    if (!isNew) return known->second;
  }
  chain_.texts.push_back(text);
  return static_cast<std::uint32_t>(chain_.texts.size() - 1);
}

// The length in bytes with the terminator. False with a fault when the text is invalid.
bool Walk::measureWide(Place place, std::uint32_t &length) {
  const std::uint32_t used = chain_.blocks[place.block].used;
  const std::uint32_t wideSize = chain_.version->wideSize;
  const std::size_t start = chain_.fileOffset(place);
  std::uint32_t utf16Len = 0;
  bool isEnded = false;
  for (length = 0; !isEnded && wideSize <= used - place.offset - length; length += wideSize) {
    const std::uint32_t first = chain_.number(start + length);
    std::uint32_t unit = first;
    if (wideSize == 4) {
      const std::uint32_t second = chain_.number(start + length + 2);
      unit = chain_.version->isBigEndian ? first << 16 | second : second << 16 | first;
      utf16Len += unit >= 0x10000 ? 4 : 2;
      if (!isCharacter(unit) || utf16Len > kMostUtf16) {
        note({place.block, place.offset + length},
             isCharacter(unit)
                 ? "a wide text is too long to be converted to UTF-16"
                 : fmt::format("a wide text contains 0x{:X}, which is not a character", unit));
        return false;
      }
    }
    isEnded = unit == 0;
  }
  if (!isEnded) note(place, "a wide text begins here and does not end in its block");
  return isEnded;
}

bool Walk::takeWide(Place place, Place from, std::uint32_t &length) {
  if (!measureWide(place, length)) {
    claims_.spend(length);
    return false;
  }
  if (place.offset % kWideAlignment != 0) {
    note(from, fmt::format("a wide text begins at {}, not at a multiple of {}", textOf(place),
                           kWideAlignment));
    claims_.spend(length);
    return false;
  }
  // Writers with 2-byte characters reserve twice the length, for readers with 4-byte ones.
  const std::uint32_t reserved = chain_.version->wideSize == 2 ? 2 * length : length;
  if (reserved > chain_.blocks[place.block].used - place.offset) {
    note(place, "a wide text begins here without the room for 4-byte characters");
    claims_.spend(length);
    return false;
  }
  return isFree(claims_.take(place, reserved, Owner::Wide), place, from);
}

// One step: into the next child, else to the sibling, else up.
void Walk::advance() {
  Level &level = levels_.back();
  const Segment segment = chain_.segments[level.segment];
  while (level.nextPointer < segment.pointerCount) {
    const std::size_t index = segment.firstPointer + level.nextPointer++;
    const std::size_t depth = levels_.size();
    if (chain_.pointers[index].field == Field::Child) follow(index, segment);
    if (levels_.size() != depth) return;
  }
  levels_.pop_back();
  const std::size_t first = segment.firstPointer;
  if (segment.pointerCount > 0 && chain_.pointers[first].field == Field::Sibling) {
    follow(first, segment);
  }
}

// Follows a pointer to a child, or to a sibling after the level of its segment was left.
void Walk::follow(std::size_t index, const Segment &segment) {
  const Pointer pointer = chain_.pointers[index];
  if (pointer.isNull || pointer.isFaulty) return;
  const Place from = fieldPlace(segment, pointer.offset);
  bool isFollowed = false;
  if (isText(chain_.kinds[pointer.kind].form)) {
    const std::uint32_t text = takeText(pointer.kind, pointer.target, from);
    chain_.pointers[index].text = text;
    isFollowed = text != kNoText;
  } else if (levels_.size() == MEM_PACK_MAX_LEVELS) {
    note(from, fmt::format("the structure is deeper than {} levels", MEM_PACK_MAX_LEVELS));
  } else {
    isFollowed = visit(pointer.kind, pointer.target, from);
  }
  chain_.pointers[index].isFaulty = !isFollowed;
}

// The target of a reference must be reached by a child or sibling pointer.
void Walk::checkReferences() {
  std::vector<Place> places;
  places.reserve(chain_.segments.size());
  for (const Segment &segment : chain_.segments) places.push_back(segment.place);
  std::sort(places.begin(), places.end());
  for (const Segment &segment : chain_.segments) {
    for (std::size_t i = 0; i < segment.pointerCount; ++i) {
      Pointer &pointer = chain_.pointers[segment.firstPointer + i];
      if (pointer.field != Field::Reference || pointer.isNull || pointer.isFaulty) continue;
      if (std::binary_search(places.begin(), places.end(), pointer.target)) continue;
      pointer.isFaulty = true;
      note(fieldPlace(segment, pointer.offset),
           fmt::format("a reference leads to {}, where no segment begins", textOf(pointer.target)));
    }
  }
}

// Reads with pointers of one width; the bytes are moved, not copied.
PackedChain readWith(PackedChain chain, PointerWidth width, Console &console) {
  chain.pointerWidth = width.bytes;
  chain.isWidthGuessed = width.isGuess;
  Walk(chain, console).run();
  return chain;
}

// If the file would be valid with the other width, only the user can know which one holds.
void remarkOnWidth(PackedChain &chain, Console &console) {
  const std::uint32_t other = chain.pointerWidth == 8 ? 4 : 8;
  if (!chain.isHeadSound) return;
  PackedChain head;
  head.bytes = std::move(chain.bytes);
  readHead(head);
  PackedChain again = readWith(std::move(head), {other, true}, console);
  chain.bytes = std::move(again.bytes);
  if (!again.isSound()) return;
  chain.faults.front().remark = fmt::format(
      "with pointers of {} bytes the file would be valid (--pointers {})", other, other);
}

}  // namespace

PackedChain readChain(std::string bytes, std::uint32_t pointerWidth, Console &console) {
  PackedChain head;
  head.bytes = std::move(bytes);
  const bool mayFollow = readHead(head);
  head.isHeadSound = head.isSound();
  if (!mayFollow) return head;
  if (pointerWidth != 0) return readWith(std::move(head), {pointerWidth, false}, console);
  const PointerWidth found = findPointerWidth(head);
  PackedChain chain = readWith(std::move(head), found, console);
  if (!chain.isSound()) remarkOnWidth(chain, console);
  return chain;
}

}  // namespace memtool
