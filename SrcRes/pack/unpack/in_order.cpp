// The fast way to unpack in place. The gain is in bench/TRIED.md: unpacking in the writer's order.
#include <algorithm>
#include <bit>

#include "pack/unpack/chain_text.h"
#include "pack/unpack/chain_walk.h"
#include "pack/unpack/pointer_fields.h"
#include "pack/unpack/unpack_ways.h"

namespace memlib {

namespace {

// Where a kind of segment has its length. Chains that reach a kind of form `none` are not unpacked
// here.
enum class Form : std::uint8_t { none, fixed, byWord, narrowText, wideText };

// What is known of a kind before the walk.
struct KindRule {
  std::uint16_t reach;  // least bytes of a segment: fixed length, length word, fields
  Form form;
  std::uint8_t leadingTexts;  // children before the first that is not narrow text
  bool isFlat;                // a segment without other children
};

Form formOf(const ChainReader &chain, const MemPackDescriptor &descriptor) noexcept {
  constexpr std::uint8_t kNativeWideSize = 2;
  switch (descriptor.Type) {
    case MEM_PACK_FIXED:
      return Form::fixed;
    case MEM_PACK_STRING:
      return Form::narrowText;
    case MEM_PACK_WIDE_STRING:
      // Narrowing changes the length of the text, so it could not be undone.
      return chain.wideSize() == kNativeWideSize ? Form::wideText : Form::none;
    default:
      // Also for kinds of EBCDIC writers whose length is in another field. A wrong length is safe:
      // if the segment does not fit, the exact walk unpacks the chain.
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
  if (form == Form::narrowText || form == Form::wideText) return {0, form, 0, false};
  const bool isUsable = chain.controlBlock().hasValidCounts(descriptor) &&
                        pointersLieWithin(descriptor, UINT16_MAX) && fieldsLieApart(descriptor);
  if (!isUsable) return {0, Form::none, 0, false};
  const std::int32_t head = form == Form::fixed ? descriptor.FixedLen : kLengthWordLen;
  const std::int64_t fieldsEnd = lastFieldEnd(descriptor, sizeof(void *));
  const std::uint8_t leadingTexts = leadingTextsOf(chain.controlBlock(), descriptor);
  return {static_cast<std::uint16_t>(std::max<std::int64_t>(head, fieldsEnd)), form, leadingTexts,
          leadingTexts == descriptor.ChildCount};
}

// Content places in the order of the chain: block, then offset.
using PlaceKey = std::uint64_t;
constexpr std::int32_t kOffsetBits = 48;

constexpr PlaceKey keyOf(std::uint32_t block, std::uint64_t offset) noexcept {
  return PlaceKey{block} << kOffsetBits | offset;
}
constexpr std::uint32_t blockOf(PlaceKey key) noexcept {
  return static_cast<std::uint32_t>(key >> kOffsetBits);
}

// A relative pointer in native byte order: the block's number, then the offset. The field's other
// bytes count as part of the offset; if they are not zero, the offset is too large for every block.
struct RelativePointer {
  std::uint64_t value;

  bool isNull() const noexcept { return value == 0; }
  std::uint32_t block() const noexcept { return static_cast<std::uint16_t>(value); }
  std::uint64_t offset() const noexcept { return value >> 16; }
  PlaceKey key() const noexcept { return value << kOffsetBits | value >> 16; }
};

template <bool isSwapped>
RelativePointer readRelative(const std::byte *pField) noexcept {
  // Reads block and offset as one 32-bit number, in which either may be the upper half.
  constexpr bool isBlockUpper = isSwapped == (std::endian::native == std::endian::little);
  const auto stored = loadAs<std::uint32_t>(pField);
  const std::uint32_t numbers = isSwapped ? byteSwapped(stored) : stored;
  const std::uint64_t rest = loadAs<std::uint32_t>(pField + 4);
  return {rest << 32 | (isBlockUpper ? std::rotl(numbers, 16) : numbers)};
}

// The reverse of readRelative(). The field's other bytes were zero, or the field would not be
// linked.
void storeRelative(const ChainReader &chain, std::byte *pField,
                   const ContentPlace &target) noexcept {
  const auto inOrder = [&chain](std::uint32_t value) {
    const auto half = static_cast<std::int16_t>(value);
    return chain.isSwapped() ? byteSwapped(half) : half;
  };
  storeAs(pField, MemPackRelPtr{inOrder(static_cast<std::uint32_t>(target.block)),
                                inOrder(target.offset), 0});
}

// The target of a pointer.
struct Target {
  std::byte *pBytes;
  PlaceKey key;
};

enum class Found : std::uint8_t { nothing, target, disorder };

struct Kind {
  const MemPackDescriptor *pDescriptor;
  const KindRule *pRule;
};

// A segment with unprocessed pointer fields.
struct OpenSegment {
  Kind kind;
  const MemPackChild *pNextChild;
  std::byte *pBytes;
  PlaceKey gapStart;
  PlaceKey gapEnd;
};

// Ends the walk above the root: no child, no sibling.
constexpr MemPackDescriptor kNothingLeft = [] {
  MemPackDescriptor descriptor{};
  descriptor.SiblingOff = MEM_PACK_NO_SIBLING;
  return descriptor;
}();

// Out of line, because few narrow texts are measured.
MEM_NOINLINE std::uint32_t narrowLength(const std::byte *pText, std::uint32_t room) noexcept {
  return textLength<1>(pText, room);
}

// Walks in the order of ChainWalk and links the pointers. All items reached so far are below
// `end_`, and none of them is in the gap of an open segment. The gap is the part between a
// segment's leading texts and its first child that is a segment; it holds the texts that the walk
// reaches after that child. So nothing overlaps as long as each item is at or after the end, or in
// the gap of its segment.
//
// The end of a text is rarely searched for: writers place the next item directly after the
// terminator, and a zero there proves that the text ends before that item. Until the next item is
// reached, the text is open: `end_` is after its first byte, and nothing after that is changed.
//
// Each address depends on a load from the previous one. To keep this dependency chain short, the
// current segment and the current block are copied out of their tables.
template <bool isSwapped>
class InOrderWalk {
 public:
  // `pAbove` has room for all levels of a walk.
  InOrderWalk(const ChainReader &chain, const KindRule *pRules, OpenSegment *pAbove,
              TextConverter &text) noexcept
      : pBlocks_(chain.blocks()),
        pExtents_(chain.extents()),
        blockCount_(static_cast<std::uint32_t>(chain.blockCount())),
        pRules_(pRules),
        pKinds_(&chain.controlBlock().descriptor(0)),
        text_(text),
        pAbove_(pAbove) {}

  // True when all items reached from `root` were in order and are linked.
  MEM_INLINE bool run(const ContentPlace &root) noexcept {
    useBlock(static_cast<std::uint32_t>(root.block));
    kind_ = kindOf(0);
    Target target = targetAt(blockKey_ + root.offset);
    Found found = Found::target;
    while (found != Found::disorder) {
      if (found == Found::target) {
        if (!takeSegments(target)) return false;
      } else if (!goUp()) {
        return openMask_ == 0 || closeText();
      }
      found = takeRest(target);
    }
    return false;
  }

  // Number of pointer fields processed, null or linked, plus wide texts converted.
  std::uint64_t steps() const noexcept { return steps_; }

 private:
  // Takes the current segment and, if it is flat, its siblings.
  bool takeSegments(Target &target) noexcept {
    while (takeSegment(target)) {
      if (!kind_.pRule->isFlat) {
        openSegment(target);
        return true;
      }
      const Found next = linkSibling(kind_, target.pBytes, target);
      if (next != Found::target) return next == Found::nothing;
    }
    return false;
  }

  // Takes a segment: its bytes, its references, and the narrow texts at the begin of its children.
  bool takeSegment(const Target &target) noexcept {
    return takeBytes(target) && takeReferences(target.pBytes) && takeLeadingTexts(target.pBytes);
  }

  bool takeBytes(const Target &target) noexcept {
    const KindRule &rule = *kind_.pRule;
    PlaceKey end = target.key + rule.reach;
    if (end > usedEnd_) return false;
    if (rule.form != Form::fixed) {
      if (rule.form != Form::byWord) return false;
      const auto word = loadAs<std::uint16_t>(target.pBytes);
      const std::int32_t told =
          lengthByWord(*kind_.pDescriptor, isSwapped ? byteSwapped(word) : word);
      if (told < kLengthWordLen || static_cast<std::uint32_t>(told) > roomAt(target.key))
        return false;
      end = std::max(end, target.key + static_cast<std::uint32_t>(told));
    }
    if (!isBehindAll(target)) return false;
    end_ = end;
    openMask_ = 0;
    return true;
  }

  bool takeReferences(std::byte *pSegment) noexcept {
    const MemPackDescriptor &descriptor = *kind_.pDescriptor;
    const std::uint32_t count = static_cast<std::uint16_t>(descriptor.ReferenceCount);
    std::uint32_t taken = 0;
    while (taken < count && linkReference(pSegment + descriptor.References[taken])) ++taken;
    steps_ += taken;
    return taken == count;
  }

  // Takes the narrow texts that come before all other children.
  bool takeLeadingTexts(std::byte *pSegment) noexcept {
    const MemPackChild *const pFirst = kind_.pDescriptor->Children;
    const MemPackChild *const pEnd = pFirst + kind_.pRule->leadingTexts;
    const MemPackChild *pChild = pFirst;
    while (pChild != pEnd && takeLeadingText(pSegment + pChild->Offset)) ++pChild;
    steps_ += static_cast<std::uint64_t>(pChild - pFirst);
    return pChild == pEnd;
  }

  // Takes a text or null without a branch between the two: which one it is depends on the data, and
  // a mispredicted branch costs more than taking a text. Null is treated as an empty text at the
  // end, and null is stored again.
  bool takeLeadingText(std::byte *pField) noexcept {
    const RelativePointer stored = readRelative<isSwapped>(pField);
    const std::uint64_t count = stored.isNull() ? 0 : 1;
    const std::uint64_t mask = 0 - count;  // all bits, or none
    const PlaceKey key = end_ ^ ((stored.key() ^ end_) & mask);
    if (!isReachable(key)) [[unlikely]] {
      if (count == 0) return true;
      if (!goToBlock(blockOf(key)) || !isReachable(key)) return false;
    }
    const Target target = targetAt(key);
    if (!isClearlyBehindAll(target)) [[unlikely]] {
      if (count == 0) return true;
      if (!isBehindAll(target)) return false;
    }
    storeAs(pField, reinterpret_cast<std::uintptr_t>(target.pBytes) & mask);
    end_ = key + count;
    openMask_ |= static_cast<std::uint32_t>(mask);
    return true;
  }

  void openSegment(const Target &target) noexcept {
    segment_.kind = kind_;
    segment_.pNextChild = kind_.pDescriptor->Children + kind_.pRule->leadingTexts;
    segment_.pBytes = target.pBytes;
    segment_.gapStart = segment_.gapEnd = 0;
  }

  // Takes the rest of the open segment, up to the next segment: its children, then its sibling.
  Found takeRest(Target &target) noexcept {
    const Found found = takeChildren(target);
    if (found != Found::nothing) return found;
    kind_ = segment_.kind;
    return linkSibling(kind_, segment_.pBytes, target);
  }

  Found takeChildren(Target &target) noexcept {
    const MemPackDescriptor &descriptor = *segment_.kind.pDescriptor;
    const MemPackChild *const pEnd = descriptor.Children + descriptor.ChildCount;
    while (segment_.pNextChild != pEnd) {
      const MemPackChild &child = *segment_.pNextChild++;
      const Found found = link(segment_.pBytes + child.Offset, target);
      if (found == Found::nothing) continue;
      if (found == Found::disorder) return found;
      kind_ = kindOf(child.Descriptor);
      const Form form = kind_.pRule->form;
      if (form != Form::narrowText && form != Form::wideText) {
        const bool isLast = segment_.pNextChild == pEnd;
        return (isLast || openGap(target)) && goDown() ? Found::target : Found::disorder;
      }
      if (!takeText(form, target)) return Found::disorder;
    }
    return Found::nothing;
  }

  // Opens the gap before the first child that is a segment. Later children use the same gap.
  bool openGap(const Target &target) noexcept {
    if (segment_.gapStart != segment_.gapEnd) return true;
    if (openMask_ != 0 && !closeText()) return false;
    segment_.gapStart = end_;
    segment_.gapEnd = target.key;
    return true;
  }

  // Flat segments need no level: they are complete before their siblings are taken.
  bool goDown() noexcept {
    if (depth_ == MEM_PACK_MAX_LEVELS - 1) return false;
    if (kind_.pRule->isFlat) return true;
    // Copied by members: a copy of the whole would load several recent stores at once and stall.
    OpenSegment &saved = pAbove_[depth_++];
    saved.kind.pDescriptor = segment_.kind.pDescriptor;
    saved.kind.pRule = segment_.kind.pRule;
    saved.pNextChild = segment_.pNextChild;
    saved.pBytes = segment_.pBytes;
    saved.gapStart = segment_.gapStart;
    saved.gapEnd = segment_.gapEnd;
    return true;
  }

  // Returns to the segment above. False when there is none.
  bool goUp() noexcept {
    if (depth_ == 0) return false;
    segment_ = pAbove_[--depth_];
    return true;
  }

  bool takeText(Form form, const Target &target) noexcept {
    const std::uint32_t room = roomAt(target.key);
    const std::uint32_t length = form == Form::narrowText
                                     ? narrowLength(target.pBytes, room)
                                     : textLength<sizeof(char16_t)>(target.pBytes, room);
    if (length == 0 || !takeRange(target, length)) return false;
    if (!isSwapped || form == Form::narrowText) return true;
    ++steps_;
    return !text_.convert(target.pBytes, length);
  }

  bool takeRange(const Target &target, std::uint32_t length) noexcept {
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

  Found linkSibling(const Kind &kind, std::byte *pSegment, Target &target) noexcept {
    const std::int16_t offset = kind.pDescriptor->SiblingOff;
    return offset == MEM_PACK_NO_SIBLING ? Found::nothing : link(pSegment + offset, target);
  }

  // Replaces a relative pointer to a child or sibling by the address of its target.
  Found link(std::byte *pField, Target &target) noexcept {
    const RelativePointer stored = readRelative<isSwapped>(pField);
    if (!stored.isNull()) {
      if (!resolve(stored.key(), target)) return Found::disorder;
      storeAs<void *>(pField, target.pBytes);
    }
    ++steps_;
    return stored.isNull() ? Found::nothing : Found::target;
  }

  // A reference may point anywhere, and does not change the current block.
  bool linkReference(std::byte *pField) noexcept {
    const RelativePointer stored = readRelative<isSwapped>(pField);
    if (stored.isNull()) return true;
    const std::uint32_t block = stored.block();
    if (block >= blockCount_ || stored.offset() >= pExtents_[block].reachable) return false;
    const auto offset = static_cast<std::size_t>(stored.offset());
    storeAs<void *>(pField, bytesAt(pBlocks_[block], 8 + offset));
    return true;
  }

  bool resolve(PlaceKey key, Target &target) noexcept {
    if (!isReachable(key)) [[unlikely]] {
      if (!goToBlock(blockOf(key)) || !isReachable(key)) return false;
    }
    target = targetAt(key);
    return true;
  }

  bool isBehindAll(const Target &target) noexcept {
    if (isClearlyBehindAll(target)) [[likely]]
      return true;
    return target.key >= end_ && closeText() && target.key >= end_;
  }

  // A zero before the target ends an open text at the latest there. Before offset 0 the byte is the
  // last one of the block's link; reading it has no effect.
  bool isClearlyBehindAll(const Target &target) const noexcept {
    const auto last = std::to_integer<std::uint32_t>(target.pBytes[-1]);
    return target.key >= end_ && (last & openMask_) == 0;
  }

  // Finds the end of the open text.
  bool closeText() noexcept {
    const PlaceKey start = end_ - 1;
    const auto length = narrowLength(targetAt(start).pBytes, roomAt(start));
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

  // In the current block:
  bool isReachable(PlaceKey key) const noexcept { return key - blockKey_ < reachable_; }
  Target targetAt(PlaceKey key) const noexcept { return {pContent_ + (key - blockKey_), key}; }
  std::uint32_t roomAt(PlaceKey key) const noexcept {
    return static_cast<std::uint32_t>(usedEnd_ - key);
  }

  Kind kindOf(std::uint16_t index) const noexcept { return {pKinds_ + index, pRules_ + index}; }

  void *const *const pBlocks_;
  const BlockExtent *const pExtents_;
  const std::uint32_t blockCount_;
  const KindRule *const pRules_;
  const MemPackDescriptor *const pKinds_;
  TextConverter &text_;

  Kind kind_{};  // of the current segment
  OpenSegment segment_{.kind = {&kNothingLeft, nullptr},
                       .pNextChild = kNothingLeft.Children,
                       .pBytes = nullptr,
                       .gapStart = 0,
                       .gapEnd = 0};
  OpenSegment *const pAbove_;  // the segments above it
  std::uint32_t depth_ = 0;

  // The current block, in which the last child or sibling was reached.
  PlaceKey blockKey_ = 0;          // of its offset 0
  std::byte *pContent_ = nullptr;  // from block offset 8 on
  PlaceKey usedEnd_ = 0;
  std::uint64_t reachable_ = 0;  // end of the offsets that pointers can have

  PlaceKey end_ = 0;
  // All bits while a text is open, else none. The text begins at end_ - 1 in the current block.
  std::uint32_t openMask_ = 0;
  std::uint64_t steps_ = 0;
};

// The whole walk is inlined into this function, so that its state can stay in registers.
template <bool isSwapped>
bool linkInOrder(const ChainReader &chain, const KindRule *pRules, const ContentPlace &root,
                 std::uint64_t &steps) noexcept {
  OpenSegment above[MEM_PACK_MAX_LEVELS];
  TextConverter text(chain);
  InOrderWalk<isSwapped> walk(chain, pRules, above, text);
  const bool isDone = walk.run(root);
  steps = walk.steps();
  return isDone;
}

// Finds the place of an address: blocks with content, sorted by address.
class BlockFinder {
 public:
  explicit BlockFinder(const ChainReader &chain) noexcept
      : chain_(chain), pOrder_(reinterpret_cast<std::int32_t *>(chain.scratch().data())) {
    // A block with content has 16 bytes of scratch or more.
    for (std::int32_t i = 0; i < chain.blockCount(); ++i) {
      if (chain.usedLen(i) != 0) pOrder_[count_++] = i;
    }
    std::sort(pOrder_, pOrder_ + count_,
              [this](std::int32_t one, std::int32_t other) { return start(one) < start(other); });
  }

  // No value: not the address of a content byte. Only overlapping blocks of a caller cause this.
  PointerTarget placeOf(std::uintptr_t address) const noexcept {
    const std::int32_t *pBehind = std::upper_bound(
        pOrder_, pOrder_ + count_, address,
        [this](std::uintptr_t wanted, std::int32_t block) { return wanted < start(block); });
    if (pBehind == pOrder_) return {};
    const std::int32_t block = pBehind[-1];
    const std::uintptr_t offset = address - start(block);
    if (offset >= chain_.usedLen(block)) return {};
    return ContentPlace{block, static_cast<std::uint32_t>(offset)};
  }

 private:
  std::uintptr_t start(std::int32_t block) const noexcept {
    return reinterpret_cast<std::uintptr_t>(chain_.at({block, 0}));
  }

  const ChainReader &chain_;
  std::int32_t *pOrder_;
  std::size_t count_ = 0;
};

// Repeats the walk and undoes its steps, as many as there were.
class Restorer {
 public:
  static constexpr char kTooDeep[] = "";  // never read

  Restorer(const ChainReader &chain, std::uint64_t steps) noexcept
      : chain_(chain), finder_(chain), text_(chain), left_(steps) {}

  Outcome visit(std::uint16_t kind, const ContentPlace &place) noexcept;
  Outcome visitText(const TextUse &use) noexcept;
  Outcome pointer(const ContentPlace &segment, std::int16_t offset, PointerTarget &target) noexcept;

 private:
  // Ends the walk. The outcome is never read.
  static Outcome allRestored() noexcept { return failure(0, ErrorText()); }

  const ChainReader &chain_;
  const BlockFinder finder_;
  TextConverter text_;
  std::uint64_t left_;
};

// Segments that the walk linked are within their blocks. Where blocks overlap, an address may have
// changed since, so this is checked again.
Outcome Restorer::visit(std::uint16_t kind, const ContentPlace &place) noexcept {
  if (left_ == 0) return allRestored();
  const MemPackDescriptor &descriptor = chain_.controlBlock().descriptor(kind);
  const std::uint32_t room = chain_.usedLen(place.block) - place.offset;
  const bool isWhole =
      chain_.controlBlock().hasValidCounts(descriptor) && pointersLieWithin(descriptor, room);
  if (!isWhole) return allRestored();
  for (const std::int16_t offset : references(descriptor)) {
    PointerTarget target;
    if (Outcome over = pointer(place, offset, target)) return over;
  }
  return {};
}

Outcome Restorer::visitText(const TextUse &use) noexcept {
  if (left_ == 0) return allRestored();
  if (!use.isWide || !chain_.isSwapped()) return {};
  --left_;
  std::byte *pText = chain_.at(use.text);
  const std::uint32_t room = chain_.usedLen(use.text.block) - use.text.offset;
  // Swapping the bytes of each unit again undoes the conversion.
  return text_.convert(pText, textLength<sizeof(char16_t)>(pText, room));
}

Outcome Restorer::pointer(const ContentPlace &segment, std::int16_t offset,
                          PointerTarget &target) noexcept {
  if (left_ == 0) return allRestored();
  --left_;
  std::byte *pField = chain_.at(segment) + offset;
  const auto address = loadAs<std::uintptr_t>(pField);
  if (address == 0) return {};
  target = finder_.placeOf(address);
  if (!target) return allRestored();
  storeRelative(chain_, pField, *target);
  return {};
}

// Undoes the first `steps` steps of the walk from `root`: each pointer field that it processed,
// where null stays null, and each wide text whose bytes it swapped. Reuses the chain's scratch
// storage. Out of line, because few chains need it.
MEM_NOINLINE void takeBack(const ChainReader &chain, const ContentPlace &root,
                           std::uint64_t steps) noexcept {
  if (steps == 0) return;
  Restorer restorer(chain, steps);
  static_cast<void>(ChainWalk(chain, restorer).run(root));
}

}  // namespace

bool unpackInOrder(const ChainReader &chain, const ContentPlace &root) noexcept {
  const auto count = static_cast<std::size_t>(chain.controlBlock().present());
  // Descriptors are content, and the scratch storage has a quarter of the content's length.
  static_assert(sizeof(KindRule) <= kOldLayout.length / 4);
  auto *const pRules = reinterpret_cast<KindRule *>(chain.scratch().data());
  for (std::size_t i = 0; i < count; ++i) {
    pRules[i] = ruleOf(chain, chain.controlBlock().descriptor(static_cast<std::int32_t>(i)));
  }
  std::uint64_t steps = 0;
  const bool isDone = chain.isSwapped() ? linkInOrder<true>(chain, pRules, root, steps)
                                        : linkInOrder<false>(chain, pRules, root, steps);
  if (!isDone) takeBack(chain, root, steps);
  return isDone;
}

}  // namespace memlib
