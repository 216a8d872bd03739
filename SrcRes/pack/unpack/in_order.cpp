// The fast way of unpacking in place. What it brings is written down in bench/TRIED.md: unpacking
// in the writer's order.
#include <algorithm>
#include <bit>

#include "pack/unpack/chain_text.h"
#include "pack/unpack/pointer_fields.h"
#include "pack/unpack/unpack_ways.h"

namespace memlib {

namespace {

// How a kind of segment tells its length. Chains with kinds of no form are not unpacked here.
enum class Form : std::uint8_t { none, fixed, byWord, narrowText, wideText };

// What is known of a kind before the walk.
struct KindRule {
  std::uint16_t reach;  // bytes that a segment has at least: fixed length, length word, fields
  Form form;
  bool hasFields;
  std::uint8_t leadingTexts;  // children before the first that is not narrow text
};

Form formOf(const ChainReader &chain, const MemPackDescriptor &descriptor) noexcept {
  constexpr std::uint8_t kNativeWideSize = 2;
  switch (descriptor.Type) {
    case MEM_PACK_FIXED:
      return Form::fixed;
    case MEM_PACK_STRING:
      return Form::narrowText;
    case MEM_PACK_WIDE_STRING:
      // Narrowing may fail, and what is behind the text must not have been changed then.
      return chain.wideSize() == kNativeWideSize ? Form::wideText : Form::none;
    default:
      // Kinds of EBCDIC writers whose length is in another field are measured in this way, too. A
      // wrong length is safe: what does not fit is left to the exact walk.
      return Form::byWord;
  }
}

std::uint8_t leadingTextsOf(const PackControlBlock &controlBlock,
                            const MemPackDescriptor &descriptor) noexcept {
  const auto all = children(descriptor);
  const auto other = std::ranges::find_if(all, [&](const MemPackChild &child) {
    return controlBlock.descriptor(child.Descriptor).Type != MEM_PACK_STRING;
  });
  return static_cast<std::uint8_t>(other - all.begin());
}

KindRule ruleOf(const ChainReader &chain, const MemPackDescriptor &descriptor) noexcept {
  const Form form = formOf(chain, descriptor);
  if (form == Form::narrowText || form == Form::wideText) return {0, form, false, 0};
  const bool isUsable = chain.controlBlock().hasValidCounts(descriptor) &&
                        pointersLieWithin(descriptor, UINT16_MAX) && fieldsLieApart(descriptor);
  if (!isUsable) return {0, Form::none, false, 0};
  const std::int32_t head = form == Form::fixed ? descriptor.FixedLen : kLengthWordLen;
  const std::int64_t fieldsEnd = lastFieldEnd(descriptor, sizeof(void *));
  return {static_cast<std::uint16_t>(std::max<std::int64_t>(head, fieldsEnd)), form, fieldsEnd != 0,
          leadingTextsOf(chain.controlBlock(), descriptor)};
}

// Content places in the order of the chain: block, then offset.
using PlaceKey = std::uint64_t;
constexpr std::int32_t kOffsetBits = 48;

constexpr PlaceKey keyOf(std::uint32_t block, std::uint64_t offset) noexcept {
  return PlaceKey{block} << kOffsetBits | offset;
}

// A relative pointer in native byte order: the block's number, then the offset. What the field
// holds beside them counts as part of the offset, which is too large for every block then.
struct RelativePointer {
  std::uint64_t value;

  bool isNull() const noexcept { return value == 0; }
  std::uint32_t block() const noexcept { return static_cast<std::uint16_t>(value); }
  std::uint64_t offset() const noexcept { return value >> 16; }
  PlaceKey key() const noexcept { return value << kOffsetBits | value >> 16; }
};

template <bool isSwapped>
RelativePointer readRelative(const std::byte *pField) noexcept {
  // Block and offset are one number of 32 bits here, in which either may be the upper half.
  constexpr bool isBlockUpper = isSwapped == (std::endian::native == std::endian::little);
  const auto stored = loadAs<std::uint32_t>(pField);
  const std::uint32_t numbers = isSwapped ? byteSwapped(stored) : stored;
  const std::uint64_t rest = loadAs<std::uint32_t>(pField + 4);
  return {rest << 32 | (isBlockUpper ? std::rotl(numbers, 16) : numbers)};
}

// The segments with pointer fields, in the order of the walk. 16 bytes of content have room for
// one: chains of shorter segments are not unpacked here.
class SegmentList {
 public:
  explicit SegmentList(std::span<std::byte> storage) noexcept
      : pFirst_(reinterpret_cast<Entry *>(storage.data())),
        pEnd_(pFirst_),
        pRoomEnd_(pFirst_ + storage.size() / sizeof(Entry)) {}

  // False when the list is full.
  bool add(std::uint16_t kind, PlaceKey blockKey, std::uint64_t offset) noexcept {
    if (pRoomEnd_ - pEnd_ < 2) return false;
    if (blockKey != blockKey_) {
      blockKey_ = blockKey;
      *pEnd_++ = {kBlock, static_cast<std::uint16_t>(blockKey >> kOffsetBits)};
    }
    *pEnd_++ = {kind, static_cast<std::uint16_t>(offset)};
    return true;
  }

  // Calls use(kind, pSegment) for each.
  template <class Use>
  void forEach(void *const *pBlocks, Use use) const noexcept {
    std::byte *pContent = nullptr;
    for (const Entry *pEntry = pFirst_; pEntry != pEnd_; ++pEntry) {
      if (pEntry->kind == kBlock) {
        pContent = bytesAt(pBlocks[pEntry->number], 8);
      } else {
        use(pEntry->kind, pContent + pEntry->number);
      }
    }
  }

 private:
  // A segment, or the number of the block in which the next ones are.
  struct Entry {
    std::uint16_t kind;
    std::uint16_t number;  // offset of the segment, or the block
  };
  static constexpr std::uint16_t kBlock = 0xFFFF;  // no kind: counts are signed

  Entry *pFirst_;
  Entry *pEnd_;
  Entry *pRoomEnd_;
  PlaceKey blockKey_ = UINT64_MAX;
};

// Where a pointer leads to.
struct Target {
  const std::byte *pBytes;
  PlaceKey key;
};

enum class Found : std::uint8_t { nothing, target, disorder };

// A segment with what is left to do there.
struct OpenSegment {
  const std::byte *pBytes;
  PlaceKey gapStart;
  PlaceKey gapEnd;
  std::uint16_t kind;
  std::uint16_t nextChild;
};

// Out of line, since few texts are looked at.
MEM_NOINLINE std::uint32_t lengthOf(const std::byte *pText, std::uint32_t room,
                                    std::uint32_t unitLen) noexcept {
  return textLength(pText, room, unitLen);
}

// Walks as ChainWalk does and changes nothing. All that was reached is below `end_`, and nothing of
// it is in the gap of an open segment: the part between a segment's own texts and its first child
// that is a segment, where the texts are that the walk reaches after that child. So nothing
// overlaps as long as each item is beyond the end or in the gap of its segment.
//
// Where a text ends is seldom looked for: writers place the next item right behind its terminator,
// and a zero there shows that the text ends before that item. Until one is reached the text is
// open, and `end_` is behind its first byte.
//
// Each address depends on what was read at the one before. So that little has to be waited for in
// between, the segment and the block at hand are kept apart from their tables.
template <bool isSwapped>
class OrderCheck {
 public:
  // `pAbove` has room for all levels of a walk.
  OrderCheck(const ChainReader &chain, const KindRule *pRules, OpenSegment *pAbove,
             const SegmentList &segments) noexcept
      : pBlocks_(chain.blocks()),
        pExtents_(chain.extents()),
        blockCount_(static_cast<std::uint32_t>(chain.blockCount())),
        pRules_(pRules),
        pKinds_(&chain.controlBlock().descriptor(0)),
        segments_(segments),
        pAbove_(pAbove) {}

  // True when all that is reached from `root` is in order and nothing is wrong with it.
  bool run(const ContentPlace &root) noexcept {
    useBlock(static_cast<std::uint32_t>(root.block));
    std::uint16_t kind = 0;
    Target target = targetAt(blockKey_ + root.offset);
    Found found = Found::target;
    while (found != Found::disorder) {
      if (found == Found::target) {
        if (!takeSegment(kind, target)) return false;
      } else {
        if (depth_ == 0) return openMask_ == 0 || closeText();
        segment_ = pAbove_[--depth_];
      }
      found = takeChildren(kind, target);
      if (found == Found::target) {
        if (!goDown()) return false;
      } else if (found == Found::nothing) {
        kind = segment_.kind;
        found = followSibling(target);
      }
    }
    return false;
  }

  // What was taken of the segments, once the walk has been run.
  const SegmentList &segments() const noexcept { return segments_; }

 private:
  // A segment: its own bytes and its references. The walk goes on with its children.
  bool takeSegment(std::uint16_t kind, const Target &target) noexcept {
    const KindRule &rule = pRules_[kind];
    if (!takeBytes(kind, rule, target) || !checkReferences(pKinds_[kind], target.pBytes))
      return false;
    const MemPackChild *const pChildren = pKinds_[kind].Children;
    std::uint16_t taken = 0;
    while (taken < rule.leadingTexts && takeNextText(target.pBytes + pChildren[taken].Offset))
      ++taken;
    segment_ = {target.pBytes, 0, 0, kind, taken};
    return !rule.hasFields || segments_.add(kind, blockKey_, target.key - blockKey_);
  }

  bool takeBytes(std::uint16_t kind, const KindRule &rule, const Target &target) noexcept {
    PlaceKey end = target.key + rule.reach;
    if (end > usedEnd_) return false;
    if (rule.form != Form::fixed) {
      if (rule.form != Form::byWord) return false;
      const auto word = loadAs<std::uint16_t>(target.pBytes);
      const std::int32_t told = lengthByWord(pKinds_[kind], isSwapped ? byteSwapped(word) : word);
      if (told < kLengthWordLen || static_cast<std::uint32_t>(told) > roomAt(target.key))
        return false;
      end = std::max(end, target.key + static_cast<std::uint32_t>(told));
    }
    if (!isBehindAll(target)) return false;
    end_ = end;
    openMask_ = 0;
    return true;
  }

  bool checkReferences(const MemPackDescriptor &descriptor,
                       const std::byte *pSegment) const noexcept {
    for (std::int32_t i = 0; i < descriptor.ReferenceCount; ++i) {
      const RelativePointer stored = readRelative<isSwapped>(pSegment + descriptor.References[i]);
      if (stored.isNull()) continue;
      if (stored.block() >= blockCount_) return false;
      if (stored.offset() >= pExtents_[stored.block()].reachable) return false;
    }
    return true;
  }

  // Children up to the next one that is a segment.
  Found takeChildren(std::uint16_t &kind, Target &target) noexcept {
    const MemPackDescriptor &descriptor = pKinds_[segment_.kind];
    while (segment_.nextChild != descriptor.ChildCount) {
      const MemPackChild &child = descriptor.Children[segment_.nextChild++];
      const std::byte *const pField = segment_.pBytes + child.Offset;
      const Form form = pRules_[child.Descriptor].form;
      if (form == Form::narrowText && takeNextText(pField)) continue;
      const Found found = follow(pField, target);
      if (found == Found::nothing) continue;
      if (found == Found::disorder) return found;
      if (form != Form::narrowText && form != Form::wideText) {
        kind = child.Descriptor;
        const bool isLast = segment_.nextChild == descriptor.ChildCount;
        return isLast || openGap(target) ? Found::target : Found::disorder;
      }
      if (!takeText(form, target)) return Found::disorder;
    }
    return Found::nothing;
  }

  // Before the first child that is a segment; later ones find the gap there.
  bool openGap(const Target &target) noexcept {
    if (segment_.gapStart != segment_.gapEnd) return true;
    if (openMask_ != 0 && !closeText()) return false;
    segment_.gapStart = end_;
    segment_.gapEnd = target.key;
    return true;
  }

  bool goDown() noexcept {
    if (depth_ == MEM_PACK_MAX_LEVELS - 1) return false;
    pAbove_[depth_++] = segment_;
    return true;
  }

  // Takes null, or a narrow text behind all that was reached, without a branch between the two:
  // which one it is depends on the data, and a mispredicted branch costs more than taking a text.
  // Null is a text of no bytes at the end. False for all other text, which is not taken.
  bool takeNextText(const std::byte *pField) noexcept {
    const RelativePointer stored = readRelative<isSwapped>(pField);
    const std::uint64_t count = stored.isNull() ? 0 : 1;
    const std::uint64_t mask = 0 - count;  // all bits, or none
    const PlaceKey key = end_ ^ ((stored.key() ^ end_) & mask);
    if (!isReachable(key) || !isClearlyBehindAll(targetAt(key))) [[unlikely]]
      return false;
    end_ = key + count;
    openMask_ |= static_cast<std::uint32_t>(mask);
    return true;
  }

  bool takeText(Form form, const Target &target) noexcept {
    const std::uint32_t room = roomAt(target.key);
    const std::uint32_t length = lengthOf(target.pBytes, room, form == Form::narrowText ? 1 : 2);
    if (length == 0) return false;
    const PlaceKey end = target.key + length;
    if (target.key >= end_) {
      if (!isBehindAll(target)) return false;
      end_ = end;
      openMask_ = 0;
      return true;
    }
    if (target.key < segment_.gapStart || end > segment_.gapEnd) return false;
    segment_.gapStart = end;
    return true;
  }

  Found followSibling(Target &target) noexcept {
    const std::int16_t offset = pKinds_[segment_.kind].SiblingOff;
    if (offset == MEM_PACK_NO_SIBLING) return Found::nothing;
    return follow(segment_.pBytes + offset, target);
  }

  Found follow(const std::byte *pField, Target &target) noexcept {
    const RelativePointer stored = readRelative<isSwapped>(pField);
    if (stored.isNull()) return Found::nothing;
    if (!isReachable(stored.key())) [[unlikely]] {
      if (!goToBlock(stored.block()) || !isReachable(stored.key())) return Found::disorder;
    }
    target = targetAt(stored.key());
    return Found::target;
  }

  bool isBehindAll(const Target &target) noexcept {
    if (isClearlyBehindAll(target)) [[likely]]
      return true;
    return target.key >= end_ && closeText() && target.key >= end_;
  }

  // A zero before the target ends an open text, wherever that text's own terminator is. Before
  // offset 0 it is the last byte of the block's link, read without effect.
  bool isClearlyBehindAll(const Target &target) const noexcept {
    const auto last = std::to_integer<std::uint32_t>(target.pBytes[-1]);
    return target.key >= end_ && (last & openMask_) == 0;
  }

  // Finds the end of the open text.
  bool closeText() noexcept {
    const PlaceKey start = end_ - 1;
    const auto length = lengthOf(targetAt(start).pBytes, roomAt(start), 1);
    openMask_ = 0;
    end_ = start + length;
    return length != 0;
  }

  bool goToBlock(std::uint32_t block) noexcept {
    if (block >= blockCount_ || (openMask_ != 0 && !closeText())) return false;
    useBlock(block);
    return true;
  }

  void useBlock(std::uint32_t block) noexcept {
    blockKey_ = keyOf(block, 0);
    pContent_ = bytesAt(pBlocks_[block], 8);
    usedEnd_ = blockKey_ + pExtents_[block].used;
    reachable_ = pExtents_[block].reachable;
  }

  // In the block at hand:
  bool isReachable(PlaceKey key) const noexcept { return key - blockKey_ < reachable_; }
  Target targetAt(PlaceKey key) const noexcept { return {pContent_ + (key - blockKey_), key}; }
  std::uint32_t roomAt(PlaceKey key) const noexcept {
    return static_cast<std::uint32_t>(usedEnd_ - key);
  }

  void *const *const pBlocks_;
  const BlockExtent *const pExtents_;
  const std::uint32_t blockCount_;
  const KindRule *const pRules_;
  const MemPackDescriptor *const pKinds_;
  SegmentList segments_;

  OpenSegment segment_{};
  OpenSegment *const pAbove_;  // those above it
  std::uint32_t depth_ = 0;

  // The block at hand, in which the last child or sibling was reached.
  PlaceKey blockKey_ = 0;                // of its offset 0
  const std::byte *pContent_ = nullptr;  // from block offset 8 on
  PlaceKey usedEnd_ = 0;
  std::uint64_t reachable_ = 0;  // the end of the offsets that pointers can name

  PlaceKey end_ = 0;
  // All bits while a text is open, else none. It begins at end_ - 1 in the block at hand.
  std::uint32_t openMask_ = 0;
};

// Makes the changes, which nothing can stop: each pointer field and each wide text is its own. Only
// where a caller's blocks overlap may a field no longer be what was checked; then it is not
// trusted.
template <bool isSwapped>
class Linker {
 public:
  Linker(const ChainReader &chain, const KindRule *pRules) noexcept
      : pBlocks_(chain.blocks()),
        pExtents_(chain.extents()),
        lastBlock_(static_cast<std::uint32_t>(chain.blockCount()) - 1),
        pRules_(pRules),
        pKinds_(&chain.controlBlock().descriptor(0)) {}

  void linkSegment(std::uint16_t kind, std::byte *pSegment) noexcept {
    const MemPackDescriptor &descriptor = pKinds_[kind];
    if (descriptor.SiblingOff != MEM_PACK_NO_SIBLING) linkField(pSegment + descriptor.SiblingOff);
    for (std::int32_t i = 0; i < descriptor.ChildCount; ++i) {
      const MemPackChild &child = descriptor.Children[i];
      std::byte *const pField = pSegment + child.Offset;
      if (isSwapped && pRules_[child.Descriptor].form == Form::wideText) swapText(pField);
      linkField(pField);
    }
    for (std::int32_t i = 0; i < descriptor.ReferenceCount; ++i) {
      linkField(pSegment + descriptor.References[i]);
    }
  }

 private:
  // Null stays null, without a branch.
  void linkField(std::byte *pField) const noexcept {
    const RelativePointer stored = readRelative<isSwapped>(pField);
    void *const pBlock = pBlocks_[std::min(stored.block(), lastBlock_)];
    const std::uintptr_t mask = 0 - std::uintptr_t{!stored.isNull()};  // all bits, or none
    storeAs(pField, reinterpret_cast<std::uintptr_t>(bytesAt(pBlock, 8 + stored.offset())) & mask);
  }

  // Up to the zero unit, or the end of the block.
  void swapText(const std::byte *pField) const noexcept {
    const RelativePointer stored = readRelative<isSwapped>(pField);
    if (stored.isNull() || stored.block() > lastBlock_) return;
    const std::uint64_t used = pExtents_[stored.block()].used;
    std::byte *const pContent = bytesAt(pBlocks_[stored.block()], 8);
    for (std::uint64_t at = stored.offset(); at + sizeof(char16_t) <= used;
         at += sizeof(char16_t)) {
      const auto unit = loadAs<std::uint16_t>(pContent + at);
      if (unit == 0) return;
      storeAs(pContent + at, byteSwapped(unit));
    }
  }

  void *const *const pBlocks_;
  const BlockExtent *const pExtents_;
  const std::uint32_t lastBlock_;
  const KindRule *const pRules_;
  const MemPackDescriptor *const pKinds_;
};

// The walk is in this function as a whole, so that its state can stay in registers.
template <bool isSwapped>
bool checkAndLink(const ChainReader &chain, const KindRule *pRules, const SegmentList &empty,
                  const ContentPlace &root) noexcept {
  OpenSegment above[MEM_PACK_MAX_LEVELS];
  OrderCheck<isSwapped> check(chain, pRules, above, empty);
  if (!check.run(root)) return false;
  Linker<isSwapped> linker(chain, pRules);
  check.segments().forEach(chain.blocks(), [&linker](std::uint16_t kind, std::byte *pSegment) {
    linker.linkSegment(kind, pSegment);
  });
  return true;
}

}  // namespace

bool unpackInOrder(const ChainReader &chain, const ContentPlace &root) noexcept {
  const std::span<std::byte> scratch = chain.scratch();
  const auto count = static_cast<std::size_t>(chain.controlBlock().present());
  // Descriptors are content, and a quarter of their length is scratch.
  static_assert(sizeof(KindRule) <= kOldLayout.length / 4);
  auto *const pRules = reinterpret_cast<KindRule *>(scratch.data());
  for (std::size_t i = 0; i < count; ++i) {
    pRules[i] = ruleOf(chain, chain.controlBlock().descriptor(static_cast<std::int32_t>(i)));
  }
  const SegmentList empty(scratch.subspan(count * sizeof(KindRule)));
  return chain.isSwapped() ? checkAndLink<true>(chain, pRules, empty, root)
                           : checkAndLink<false>(chain, pRules, empty, root);
}

}  // namespace memlib
