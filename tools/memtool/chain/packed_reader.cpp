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
// Room of the library's work area for a text of 4-byte characters that it turns into UTF-16.
constexpr std::uint32_t kMostUtf16 = 32768;

bool isCharacter(std::uint32_t unit) {
  return unit <= 0x10FFFF && (unit < 0xD800 || unit > 0xDFFF);
}

// Follows the pointers of a chain whose head is read, from the root on.
class Walk {
 public:
  Walk(PackedChain &chain, Console &console)
      : chain_(chain),
        claims_(chain),
        kindChecked_(chain.kinds.size(), false),
        progress_(console, "reading", chain.bytes.size()) {}

  // Throws FaultFound.
  void run();

 private:
  struct Level {
    std::uint16_t kind;
    std::size_t segment;
    std::size_t nextChild;  // entry to follow next
  };

  Place findRoot() const;
  void visit(std::uint16_t kind, Place place, Place from);
  void visitSegment(std::uint16_t kind, Place place, Place from);
  std::uint32_t measure(std::uint16_t kind, Place place) const;
  void checkKind(std::uint16_t kind, Place place, std::uint32_t length);
  void addPointer(const Segment &segment, Field field, std::int16_t offset, std::uint16_t kind);
  void readTarget(Place field, Pointer &pointer) const;
  std::size_t takeText(std::uint16_t kind, Place place, Place from);
  void takeWide(Place place, Place from, std::uint32_t &length);
  bool advance();
  void checkReferences() const;
  void refuseOwner(Owner owner, Place place, Place from) const;

  Place fieldPlace(const Segment &segment, std::int16_t offset) const {
    return {segment.place.block, segment.place.offset + static_cast<std::uint32_t>(offset)};
  }

  PackedChain &chain_;
  Claims claims_;
  std::vector<bool> kindChecked_;
  std::vector<Level> levels_;
  std::unordered_map<std::uint64_t, std::size_t> textAt_;  // index of the text at a place
  Progress progress_;
};

std::uint64_t keyOf(Place place) {
  return std::uint64_t{place.block} << 32 | place.offset;
}

Place Walk::findRoot() const {
  if (const std::optional<Place> root = rootPlace(chain_)) return *root;
  if (chain_.blocks.size() < 2) {
    refuse(chain_, {0, 0}, "the chain ends behind its control block, without a root");
  }
  refuse(chain_, {1, 0}, "the block where the root should be is empty");
}

void Walk::run() {
  const Place root = findRoot();
  visit(0, root, root);
  chain_.root = root;
  while (!levels_.empty() && advance()) progress_.update(claims_.taken());
  checkReferences();
}

// `from` is the pointer field that leads here, or the root itself, which alone may be text.
void Walk::visit(std::uint16_t kind, Place place, Place from) {
  if (isText(chain_.kinds[kind].form)) {
    if (chain_.kinds[kind].form == Form::WideText && chain_.pointerWidth != 8) {
      refuse(chain_, place, "the root is wide text, of which no new chain can be made");
    }
    takeText(kind, place, from);
    return;
  }
  visitSegment(kind, place, from);
  levels_.push_back({kind, chain_.segments.size() - 1, 0});
}

void Walk::refuseOwner(Owner owner, Place place, Place from) const {
  switch (owner) {
    case Owner::None:
      return;
    case Owner::Head:
      refuse(chain_, from,
             fmt::format("a pointer leads to {}, into the block's head", textOf(place)));
    case Owner::SegmentStart:
    case Owner::Segment:
    case Owner::Wide:
    case Owner::Narrow:
      refuse(chain_, from,
             fmt::format("a pointer leads to {}, which lies over what another pointer leads to",
                         textOf(place)));
  }
}

void Walk::visitSegment(std::uint16_t kind, Place place, Place from) {
  const Kind &descriptor = chain_.kinds[kind];
  if (!descriptor.isDescribed) {
    refuse(chain_, from, fmt::format("a segment is of kind {}, which is not described", kind));
  }
  Segment segment;
  segment.place = place;
  segment.kind = kind;
  segment.level = static_cast<std::uint32_t>(levels_.size());
  segment.length = measure(kind, place);
  checkKind(kind, place, segment.length);
  refuseOwner(claims_.take(place, segment.length, Owner::SegmentStart), place, from);
  segment.firstPointer = chain_.pointers.size();
  if (descriptor.hasSibling()) addPointer(segment, Field::Sibling, descriptor.siblingOff, kind);
  for (const MemPackChild &child : descriptor.children) {
    addPointer(segment, Field::Child, child.Offset, child.Descriptor);
  }
  for (const std::int16_t reference : descriptor.references) {
    addPointer(segment, Field::Reference, reference, 0);
  }
  segment.pointerCount = chain_.pointers.size() - segment.firstPointer;
  chain_.segments.push_back(segment);
}

std::uint32_t Walk::measure(std::uint16_t kind, Place place) const {
  const Kind &descriptor = chain_.kinds[kind];
  const std::uint32_t room = chain_.blocks[place.block].used - place.offset;
  const auto refuseLength = [&](std::int32_t length) {
    refuse(chain_, place,
           fmt::format("a segment of kind {} and {} bytes begins here, but the block's used part "
                       "ends {} bytes on",
                       kind, length, room));
  };
  std::int32_t length = descriptor.fixedLen;
  if (descriptor.form == Form::Unknown) {
    const std::vector<std::int32_t> offsets = descriptor.pointerOffsets();
    length = offsets.empty()
                 ? 1
                 : std::max(offsets.back() + static_cast<std::int32_t>(chain_.pointerWidth), 1);
  } else if (descriptor.form != Form::Fixed) {
    if (room < kLengthWord) refuseLength(static_cast<std::int32_t>(kLengthWord));
    const std::size_t at = chain_.fileOffset(place);
    length = descriptor.form == Form::Counted ? chain_.signedNumber(at) + 2 : chain_.number(at);
    if (length < static_cast<std::int32_t>(kLengthWord)) {
      refuse(chain_, place, fmt::format("a segment of kind {} tells a length of {}", kind, length));
    }
  }
  if (static_cast<std::uint32_t>(length) > room) refuseLength(length);
  return static_cast<std::uint32_t>(length);
}

// Every pointer field must lie in its segment, apart from the others and from the length word.
void Walk::checkKind(std::uint16_t kind, Place place, std::uint32_t length) {
  const Kind &descriptor = chain_.kinds[kind];
  const std::vector<std::int32_t> offsets = descriptor.pointerOffsets();
  if (offsets.empty()) return;
  const auto width = static_cast<std::int32_t>(chain_.pointerWidth);
  if (offsets.back() + width > static_cast<std::int32_t>(length)) {
    refuse(chain_, place,
           fmt::format("a segment of kind {} and {} bytes begins here, too short for its pointer "
                       "at {}",
                       kind, length, offsets.back()));
  }
  if (offsets.front() < 0) {
    refuse(chain_, place,
           fmt::format("a segment of kind {} begins here, whose pointer at {} would lie before it",
                       kind, offsets.front()));
  }
  if (kindChecked_[kind]) return;
  kindChecked_[kind] = true;
  const bool tellsLength =
      descriptor.form == Form::Counted || descriptor.form == Form::SelfDescribing;
  const std::int32_t least = tellsLength ? static_cast<std::int32_t>(kLengthWord) : 0;
  bool liesApart = offsets.front() >= least;
  for (std::size_t i = 1; i < offsets.size(); ++i) {
    liesApart = liesApart && offsets[i] - offsets[i - 1] >= width;
  }
  if (!liesApart) {
    refuse(chain_, place,
           fmt::format("a segment of kind {} begins here, whose pointer fields of {} bytes overlap",
                       kind, width));
  }
}

void Walk::addPointer(const Segment &segment, Field field, std::int16_t offset,
                      std::uint16_t kind) {
  Pointer pointer;
  pointer.field = field;
  pointer.offset = offset;
  pointer.kind = kind;
  readTarget(fieldPlace(segment, offset), pointer);
  chain_.pointers.push_back(pointer);
}

void Walk::readTarget(Place field, Pointer &pointer) const {
  const std::string_view bytes = chain_.bytesAt(field, chain_.pointerWidth);
  const auto isZero = [](char byte) { return byte == 0; };
  pointer.isNull = std::all_of(bytes.begin(), bytes.end(), isZero);
  if (pointer.isNull) return;
  const std::size_t at = chain_.fileOffset(field);
  const std::int16_t block = chain_.signedNumber(at);
  const std::int16_t offset = chain_.signedNumber(at + 2);
  if (block < 0 || static_cast<std::size_t>(block) >= chain_.blocks.size()) {
    refuse(chain_, field,
           fmt::format("a {} pointer leads to block {}, but the chain has {} block{}",
                       nameOf(pointer.field), block, chain_.blocks.size(),
                       chain_.blocks.size() == 1 ? "" : "s"));
  }
  pointer.target = {static_cast<std::uint32_t>(block), static_cast<std::uint32_t>(offset)};
  const std::uint32_t used = chain_.blocks[pointer.target.block].used;
  if (offset < 0 || pointer.target.offset >= used) {
    refuse(chain_, field,
           fmt::format("a {} pointer leads to offset {} of block {}, which has {} bytes",
                       nameOf(pointer.field), offset, block, used));
  }
  if (!std::all_of(bytes.begin() + 4, bytes.end(), isZero)) {
    refuse(chain_, field, "the bytes behind a relative pointer are not zero");
  }
}

// Index of the text at `place`; it may be one that is known.
std::size_t Walk::takeText(std::uint16_t kind, Place place, Place from) {
  const bool isWide = chain_.kinds[kind].form == Form::WideText;
  Text text{place, 0, isWide};
  if (isWide) {
    takeWide(place, from, text.length);
  } else {
    // Texts keep their places with 8-byte pointers; for others a new chain gets each by itself.
    const bool mayShareEnd = chain_.pointerWidth == 8;
    refuseOwner(claims_.takeNarrow(place, mayShareEnd, text.length), place, from);
    if (text.length == 0) {
      refuse(chain_, place, "a narrow text begins here and has no end in its block");
    }
    const auto [known, isNew] = textAt_.emplace(keyOf(place), chain_.texts.size());
    if (!isNew) return known->second;
  }
  chain_.texts.push_back(text);
  return chain_.texts.size() - 1;
}

void Walk::takeWide(Place place, Place from, std::uint32_t &length) {
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
        refuse(chain_, {place.block, place.offset + length},
               isCharacter(unit)
                   ? "a wide text is too long to be turned into UTF-16"
                   : fmt::format("a wide text holds 0x{:X}, which is no character", unit));
      }
    }
    isEnded = unit == 0;
  }
  if (!isEnded) {
    refuse(chain_, place, "a wide text begins here and has no end in its block");
  }
  if (place.offset % kWideAlignment != 0) {
    refuse(chain_, from,
           fmt::format("a wide text stands at {}, not at a multiple of {}", textOf(place),
                       kWideAlignment));
  }
  // Writers with 2-byte characters reserve twice the length, for readers with 4-byte ones.
  const std::uint32_t reserved = wideSize == 2 ? 2 * length : length;
  if (reserved > used - place.offset) {
    refuse(chain_, place, "a wide text begins here without the room to be widened");
  }
  refuseOwner(claims_.take(place, reserved, Owner::Wide), place, from);
}

// One step: into the next child, else on to the sibling, else up. False at the end.
bool Walk::advance() {
  Level &level = levels_.back();
  const Segment segment = chain_.segments[level.segment];
  const Kind &descriptor = chain_.kinds[level.kind];
  const std::size_t firstChild = segment.firstPointer + (descriptor.hasSibling() ? 1U : 0U);
  while (level.nextChild < descriptor.children.size()) {
    Pointer &pointer = chain_.pointers[firstChild + level.nextChild++];
    if (pointer.isNull) continue;
    const Place from = fieldPlace(segment, pointer.offset);
    if (isText(chain_.kinds[pointer.kind].form)) {
      pointer.text = takeText(pointer.kind, pointer.target, from);
      continue;
    }
    if (levels_.size() == MEM_PACK_MAX_LEVELS) {
      refuse(chain_, from,
             fmt::format("the structure is deeper than {} levels", MEM_PACK_MAX_LEVELS));
    }
    visit(pointer.kind, pointer.target, from);
    return true;
  }
  levels_.pop_back();
  const Pointer *sibling =
      descriptor.hasSibling() ? &chain_.pointers[segment.firstPointer] : nullptr;
  if (sibling != nullptr && !sibling->isNull) {
    visit(segment.kind, sibling->target, fieldPlace(segment, sibling->offset));
  }
  return true;
}

// What a reference names must be reached by an owning pointer.
void Walk::checkReferences() const {
  std::vector<Place> places;
  places.reserve(chain_.segments.size());
  for (const Segment &segment : chain_.segments) places.push_back(segment.place);
  std::sort(places.begin(), places.end());
  for (const Segment &segment : chain_.segments) {
    for (std::size_t i = 0; i < segment.pointerCount; ++i) {
      const Pointer &pointer = chain_.pointers[segment.firstPointer + i];
      if (pointer.field != Field::Reference || pointer.isNull) continue;
      if (std::binary_search(places.begin(), places.end(), pointer.target)) continue;
      refuse(
          chain_, fieldPlace(segment, pointer.offset),
          fmt::format("a reference leads to {}, where no segment begins", textOf(pointer.target)));
    }
  }
}

void readBody(PackedChain &chain, Console &console) {
  try {
    Walk(chain, console).run();
  } catch (const FaultFound &found) {
    chain.fault = found.fault;
  }
}

PackedChain readWith(const PackedChain &head, PointerWidth width, Console &console) {
  PackedChain chain = head;
  chain.pointerWidth = width.bytes;
  chain.isWidthGuessed = width.isGuess;
  readBody(chain, console);
  return chain;
}

// A fault may be none under the other width, which only the user can know then.
void remarkOnWidth(const PackedChain &head, PackedChain &chain, Console &console) {
  const std::uint32_t other = chain.pointerWidth == 8 ? 4 : 8;
  if (readWith(head, {other, true}, console).fault) return;
  chain.fault->remark = fmt::format(
      "with pointers of {} bytes the file would be valid (--pointers {})", other, other);
}

}  // namespace

PackedChain readChain(std::string bytes, std::uint32_t pointerWidth, Console &console) {
  PackedChain head;
  head.bytes = std::move(bytes);
  try {
    readHead(head);
  } catch (const FaultFound &found) {
    head.fault = found.fault;
    return head;
  }
  if (pointerWidth != 0) return readWith(head, {pointerWidth, false}, console);
  PackedChain chain = readWith(head, findPointerWidth(head), console);
  if (chain.fault) remarkOnWidth(head, chain, console);
  return chain;
}

}  // namespace memtool
