#include "packmodel.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>

namespace packmodel {
namespace {

using memtest::getPointer;
using memtest::numberAt;
using memtest::putNumber;

constexpr std::int64_t kMaxStart = 32767;  // start of an item: a signed 16-bit offset
constexpr std::int64_t kMaxUsed = 65535;   // the used length: an unsigned 16-bit number
constexpr std::size_t kMaxBlocks = 32767;  // block numbers are signed 16-bit numbers
constexpr std::size_t kMaxLevels = 64;     // root included
constexpr std::int64_t kSegmentStart = 2;  // first item of a fresh block
constexpr std::int64_t kStringStart = 4;   // the same for a string
constexpr std::size_t kOldChildren = 8;
constexpr std::size_t kHeadLen = 10;  // bytes of a descriptor that both layouts share

struct Refusal {
  std::int16_t result;
  std::uint32_t code;
  std::string name;
};

[[noreturn]] void refuse(std::uint32_t code, const std::string &name) {
  throw Refusal{static_cast<std::int16_t>(code), code, name};
}

std::string asShort(std::int64_t value) {
  return std::to_string(static_cast<std::int16_t>(value));
}

std::string asAddress(const void *address) {
  char text[17];
  std::snprintf(text, sizeof text, "%016llX",
                static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(address)));
  return text;
}

std::size_t textLength(const std::uint8_t *text) {
  return std::strlen(reinterpret_cast<const char *>(text));
}

std::size_t wideLength(const std::uint8_t *text) {
  std::size_t units = 0;
  while (numberAt<std::uint16_t>(text + 2 * units) != 0) ++units;
  return units;
}

// A descriptor with its address, which the texts of failures show. Counts are as stored.
class Descriptor {
 public:
  const std::uint8_t *address;

  std::uint16_t type() const { return numberAt<std::uint16_t>(address); }
  std::uint16_t fixedLen() const { return numberAt<std::uint16_t>(address + 2); }
  std::int16_t siblingOff() const { return numberAt<std::int16_t>(address + 4); }
  std::int16_t childCount() const { return numberAt<std::int16_t>(address + 6); }
  std::int16_t referenceCount() const { return numberAt<std::int16_t>(address + 8); }
  std::uint16_t childKind(std::size_t i) const {
    return numberAt<std::uint16_t>(address + 10 + 4 * i);
  }
  std::int16_t childOff(std::size_t i) const {
    return numberAt<std::int16_t>(address + 12 + 4 * i);
  }
  std::int16_t referenceOff(std::size_t i) const {
    return numberAt<std::int16_t>(address + 106 + 2 * i);
  }

  bool isText() const { return type() == 'S' || type() == 'W'; }
  // Pointer fields; the packed text of a string has none, whatever its descriptor holds.
  std::size_t children() const { return isText() ? 0 : static_cast<std::size_t>(childCount()); }
  std::size_t references() const {
    return isText() ? 0 : static_cast<std::size_t>(referenceCount());
  }
  bool hasSibling() const { return !isText() && siblingOff() != -1; }

  // Entries that a conversion takes along, of texts as well.
  std::size_t usedChildren() const { return inRange(childCount(), 24); }
  std::size_t usedReferences() const { return inRange(referenceCount(), 8); }

 private:
  static std::size_t inRange(std::int16_t count, std::int16_t most) {
    return count < 0 || count > most ? 0 : static_cast<std::size_t>(count);
  }
};

[[noreturn]] void refuseKind(const Descriptor &kind) {
  refuse(4074, "MemPackCBstructIDInvalid=" + asAddress(kind.address));
}

class Kinds {
 public:
  explicit Kinds(const MemPackCB *controlBlock)
      : base_(reinterpret_cast<const std::uint8_t *>(controlBlock)) {}

  std::int16_t count() const { return numberAt<std::int16_t>(base_); }
  std::size_t room() const { return std::max<std::size_t>(8, static_cast<std::size_t>(count())); }
  Descriptor at(std::size_t i) const { return {base_ + 2 + 122 * i}; }

  void check(std::size_t i) const {
    const Descriptor kind = at(i);
    if (kind.isText()) return;
    if (kind.childCount() < 0 || kind.childCount() > 24) refuseKind(kind);
    if (kind.referenceCount() < 0 || kind.referenceCount() > 8) refuseKind(kind);
    for (std::size_t c = 0; c < kind.children(); ++c) {
      if (kind.childKind(c) >= room()) refuseKind(kind);
    }
  }

  Bytes current() const { return Bytes(base_, base_ + 2 + 122 * room()); }

  Bytes old() const {
    Bytes bytes(2 + 58 * room());
    std::copy_n(base_, 2, bytes.begin());
    std::set<std::size_t> converted;
    for (std::size_t i = 0; i < static_cast<std::size_t>(count()); ++i) need(i, converted);
    for (const std::size_t i : converted) convert(at(i), bytes.data() + 2 + 58 * i);
    return bytes;
  }

 private:
  // A kind with all those that it names as children, directly or not.
  void need(std::size_t i, std::set<std::size_t> &converted) const {
    if (i >= room() || !converted.insert(i).second) return;
    for (std::size_t c = 0; c < at(i).usedChildren(); ++c) need(at(i).childKind(c), converted);
  }

  static void convert(const Descriptor &kind, std::uint8_t *to) {
    if (kind.usedChildren() > kOldChildren) throw Refusal{-1, 0, ""};
    std::memcpy(to, kind.address, kHeadLen);
    std::memcpy(to + 10, kind.address + 10, 4 * kind.usedChildren());
    std::memcpy(to + 42, kind.address + 106, 2 * kind.usedReferences());
  }

  const std::uint8_t *base_;
};

struct Place {
  std::size_t block;
  std::size_t offset;
};

// The growing chain.
class Chain {
 public:
  explicit Chain(std::int64_t blockLen) : blockLen_(blockLen) { begin(kSegmentStart); }

  bool holds(std::int64_t length, std::int64_t freshStart) const {
    return length <= blockLen_ - 15 && freshStart + length <= kMaxUsed;
  }

  // Reserves room after what is used. REQUIRES: holds(length, freshStart).
  Place reserve(std::int64_t length, std::int64_t freshStart, std::int64_t alignment = 1) {
    std::int64_t start = (used_ + alignment - 1) / alignment * alignment;
    const std::int64_t end = std::min(blockLen_ - 8, kMaxUsed);
    if (start > kMaxStart || start + length > end) {
      begin(freshStart);
      start = freshStart;
    }
    setUsed(start + length);
    return {blocks_.size() - 1, static_cast<std::size_t>(start)};
  }

  std::uint8_t *at(Place place) { return blocks_[place.block].data() + place.offset; }

  std::vector<Bytes> take() { return std::move(blocks_); }

 private:
  void begin(std::int64_t used) {
    if (blocks_.size() == kMaxBlocks) {
      refuse(4067, "MaxBlocksValueBad=" + asShort(static_cast<std::int64_t>(kMaxBlocks) + 1));
    }
    blocks_.emplace_back(static_cast<std::size_t>(blockLen_ - 8));
    setUsed(used);
  }

  void setUsed(std::int64_t used) {
    used_ = used;
    putNumber(blocks_.back().data(), static_cast<std::uint16_t>(used));
  }

  const std::int64_t blockLen_;
  std::int64_t used_ = 0;
  std::vector<Bytes> blocks_;
};

void putPlace(std::uint8_t *field, Place place) {
  std::memset(field, 0, 8);
  putNumber(field, static_cast<std::int16_t>(place.block));
  putNumber(field + 2, static_cast<std::int16_t>(place.offset));
}

struct Segment {
  Descriptor kind;
  Place place;
};

class Packer {
 public:
  Packer(const MemPackCB *controlBlock, std::int64_t blockLen, Settings settings)
      : kinds_(controlBlock), settings_(settings), blockLen_(blockLen), chain_(blockLen) {}

  std::vector<Bytes> run(const std::uint8_t *root) {
    for (std::int16_t i = 0; i < kinds_.count(); ++i) kinds_.check(static_cast<std::size_t>(i));
    putHead();
    walk(0, root, 1);
    for (std::size_t i = order_.size(); i > 0; --i) fixPointers(order_[i - 1]);
    return chain_.take();
  }

 private:
  void putHead() {
    const Bytes current = kinds_.current();
    const auto length = static_cast<std::int64_t>(current.size());
    if (!chain_.holds(length + 4, kSegmentStart)) {
      refuse(4066, "BlockTooSmallforMemPackCB=" + std::to_string(blockLen_));
    }
    const Bytes block = settings_.oldControlBlock ? kinds_.old() : current;
    const char *version = settings_.oldControlBlock ? "0100"
                          : settings_.bigEndian     ? "0221"
                                                    : "0220";
    put(version, 4);
    put(block.data(), block.size());
  }

  void put(const void *from, std::size_t length) {
    const Place place = chain_.reserve(static_cast<std::int64_t>(length), kSegmentStart);
    std::memcpy(chain_.at(place), from, length);
  }

  // A segment, all that it owns, then its siblings.
  void walk(std::size_t kindIndex, const std::uint8_t *segment, std::size_t level) {
    if (level > kMaxLevels) refuse(4073, "TraversalStackOverflow");
    const Descriptor kind = kinds_.at(kindIndex);
    while (segment != nullptr) {
      copy(kindIndex, segment);
      for (std::size_t c = 0; c < kind.children(); ++c) {
        if (kinds_.at(kind.childKind(c)).isText()) continue;
        const std::uint8_t *child = pointerIn(segment, kind.childOff(c));
        if (child != nullptr) walk(kind.childKind(c), child, level + 1);
      }
      segment = kind.hasSibling() ? pointerIn(segment, kind.siblingOff()) : nullptr;
    }
  }

  static const std::uint8_t *pointerIn(const std::uint8_t *segment, std::int16_t offset) {
    return getPointer(segment, static_cast<std::size_t>(offset));
  }

  std::int64_t lengthOf(const Descriptor &kind, const std::uint8_t *segment) const {
    std::int64_t length = 0;
    switch (kind.type()) {
      case 'F':
        length = kind.fixedLen();
        break;
      case 'C':
        length = numberAt<std::int16_t>(segment) + 2;
        if (length < 2) refuse(4066, "SegmentLengthTooLarge=" + asShort(length));
        break;
      case 'S':
        length = static_cast<std::int64_t>(textLength(segment)) + 1;
        break;
      case 'W':
        throw Refusal{-1, 0, "WideStringOutOfPlace"};
      default:
        length = numberAt<std::uint16_t>(segment);
    }
    if (!chain_.holds(length, kSegmentStart)) {
      refuse(4066, "SegmentLengthTooLarge=" + asShort(length));
    }
    return length;
  }

  void checkOffset(const Descriptor &kind, std::int16_t offset, std::int64_t length) const {
    if (offset < 0 || offset + 8 > length) refuseKind(kind);
  }

  void checkOffsets(const Descriptor &kind, std::int64_t length) const {
    if (kind.hasSibling()) checkOffset(kind, kind.siblingOff(), length);
    for (std::size_t i = 0; i < kind.children(); ++i) checkOffset(kind, kind.childOff(i), length);
    for (std::size_t i = 0; i < kind.references(); ++i) {
      checkOffset(kind, kind.referenceOff(i), length);
    }
  }

  void copy(std::size_t kindIndex, const std::uint8_t *segment) {
    kinds_.check(kindIndex);
    const Descriptor kind = kinds_.at(kindIndex);
    const std::int64_t length = lengthOf(kind, segment);
    checkOffsets(kind, length);
    const Place place = chain_.reserve(length, kSegmentStart);
    std::memcpy(chain_.at(place), segment, static_cast<std::size_t>(length));
    for (std::size_t c = 0; c < kind.children(); ++c) copyText(kind, c, segment, place);
    if (!packed_.emplace(segment, Segment{kind, place}).second) refuse(4072, "RecursiveStructure");
    order_.push_back({kind, place});
  }

  // The string that a child pointer leads to, if it leads to one.
  void copyText(const Descriptor &kind, std::size_t c, const std::uint8_t *segment, Place owner) {
    const Descriptor textKind = kinds_.at(kind.childKind(c));
    const std::uint8_t *text = pointerIn(segment, kind.childOff(c));
    if (!textKind.isText() || text == nullptr) return;
    const bool isWide = textKind.type() == 'W';
    const std::size_t length = isWide ? 2 * wideLength(text) + 2 : textLength(text) + 1;
    const auto room = static_cast<std::int64_t>(isWide ? 2 * length : length);
    if (!chain_.holds(room, kStringStart)) {
      refuse(4066, "StringLengthTooLarge=" + std::to_string(length));
    }
    const Place place = chain_.reserve(room, kStringStart, isWide ? 4 : 1);
    std::memcpy(chain_.at(place), text, length);
    putPlace(fieldAt(owner, kind.childOff(c)), place);
  }

  std::uint8_t *fieldAt(Place segment, std::int16_t offset) { return chain_.at(segment) + offset; }

  void fixPointers(const Segment &segment) {
    const Descriptor &kind = segment.kind;
    if (kind.hasSibling()) fixPointer(fieldAt(segment.place, kind.siblingOff()));
    for (std::size_t c = 0; c < kind.children(); ++c) {
      if (kinds_.at(kind.childKind(c)).isText()) continue;
      fixPointer(fieldAt(segment.place, kind.childOff(c)));
    }
    for (std::size_t r = 0; r < kind.references(); ++r) {
      fixPointer(fieldAt(segment.place, kind.referenceOff(r)));
    }
  }

  void fixPointer(std::uint8_t *field) const {
    const std::uint8_t *target = getPointer(field, 0);
    if (target == nullptr) return;
    const auto found = packed_.find(target);
    if (found == packed_.end()) refuse(4069, "Invalid Segment Ptr=" + asAddress(target));
    putPlace(field, found->second.place);
  }

  const Kinds kinds_;
  const Settings settings_;
  const std::int64_t blockLen_;
  Chain chain_;
  std::map<const std::uint8_t *, Segment> packed_;
  std::vector<Segment> order_;
};

}  // namespace

Outcome pack(const MemPackCB *controlBlock, const void *root, std::int32_t blockLen,
             Settings settings) {
  Outcome outcome;
  try {
    if (blockLen < 10) {  // not even a block's head
      refuse(4066, "BlockTooSmallforMemPackCB=" + std::to_string(blockLen));
    }
    Packer packer(controlBlock, blockLen, settings);
    outcome.blocks = packer.run(static_cast<const std::uint8_t *>(root));
  } catch (const Refusal &refusal) {
    outcome.result = refusal.result;
    outcome.code = refusal.code;
    outcome.name = refusal.name;
  }
  return outcome;
}

}  // namespace packmodel
