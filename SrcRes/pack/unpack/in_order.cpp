// The fast way of unpacking in place: 340 to 73 ns a package at 1,000 packages. The trial is
// written down in docs/performance.md, "What was tried": unpacking in the writer's order.
#include "pack/unpack/in_order.h"

#include <algorithm>
#include <bit>

#include "pack/unpack/chain_walk.h"
#include "pack/unpack/pointer_fields.h"
#include "pack/unpack/text_length.h"
#include "pack/unpack/wide_text.h"

namespace mem {

namespace {

// How a kind of segment tells its length. Chains with kinds of no form are not unpacked here.
enum class Form : std::uint8_t { none, fixed, counted, selfDescribing, narrowText, wideText };

// What is known of a kind before the walk. The rules lie in the chain's scratch.
struct KindRule {
  std::uint16_t reach;  // bytes that a segment has at least: fixed length, length word, fields
  Form form;
  std::uint8_t leadingTexts;  // children in front of the first that is not narrow text
  bool isFlat;                // a segment without other children
};

Form formOf(const PackedChain &chain, const MemPackDescriptor &descriptor) noexcept {
  constexpr std::uint8_t kNativeWideSize = 2;
  switch (descriptor.Type) {
    case MEM_PACK_FIXED:
      return Form::fixed;
    case MEM_PACK_COUNTED:
      return Form::counted;
    case MEM_PACK_STRING:
      return Form::narrowText;
    case MEM_PACK_WIDE_STRING:
      // Narrowing changes the length of the text, so it could not be undone.
      return chain.version().wideSize == kNativeWideSize ? Form::wideText : Form::none;
    default:
      // Kinds of EBCDIC writers whose length is in another field are measured in this way, too. A
      // wrong length is safe: what does not fit is left to the exact walk.
      return Form::selfDescribing;
  }
}

// The end of the last pointer field, or of the head in front of them.
// REQUIRES: the fields lie within 65,535 bytes.
std::uint32_t reachOf(const MemPackDescriptor &descriptor) noexcept {
  const std::uint32_t head =
      descriptor.Type == MEM_PACK_FIXED ? descriptor.FixedLen : sizeof(std::uint16_t);
  return std::max(head, static_cast<std::uint32_t>(lastFieldEnd(descriptor, sizeof(void *))));
}

std::uint8_t leadingTextsOf(const PackControlBlock &controlBlock,
                            const MemPackDescriptor &descriptor) noexcept {
  const auto all = children(descriptor);
  const auto other = std::ranges::find_if(all, [&](const MemPackChild &child) {
    return controlBlock.descriptor(child.Descriptor).Type != MEM_PACK_STRING;
  });
  return static_cast<std::uint8_t>(other - all.begin());
}

KindRule ruleOf(const PackedChain &chain, const MemPackDescriptor &descriptor) noexcept {
  const Form form = formOf(chain, descriptor);
  if (form == Form::narrowText || form == Form::wideText) return {0, form, 0, false};
  const bool isUsable = chain.controlBlock().hasValidCounts(descriptor) &&
                        pointersLieWithin(descriptor, UINT16_MAX) && fieldsLieApart(descriptor);
  if (!isUsable) return {0, Form::none, 0, false};
  const std::uint8_t leadingTexts = leadingTextsOf(chain.controlBlock(), descriptor);
  return {static_cast<std::uint16_t>(reachOf(descriptor)), form, leadingTexts,
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

// A relative pointer in native byte order: the block's number, then the offset. What the field
// holds beside them counts as part of the offset, which is too large for every block then.
struct RelativePointer {
  std::uint64_t value;

  bool isNull() const noexcept { return value == 0; }
  std::uint32_t block() const noexcept { return static_cast<std::uint16_t>(value); }
  std::uint64_t offset() const noexcept { return value >> 16; }
  PlaceKey key() const noexcept { return value << kOffsetBits | value >> 16; }
};

// Where a pointer leads to.
struct Target {
  std::byte *pBytes;
  PlaceKey key;
};

enum class Link : std::uint8_t { null, made, refused };
enum class Step : std::uint8_t { toSegment, up, refused };

struct Kind {
  const MemPackDescriptor *pDescriptor;
  const KindRule *pRule;
};

// A segment of the walk with what is left to do there.
struct Level {
  Kind kind;
  const MemPackChild *pNextChild;
  std::byte *pSegment;
  PlaceKey gapStart;
  PlaceKey gapEnd;
};

// What is left to do above a root.
constexpr MemPackDescriptor kNothingLeft = [] {
  MemPackDescriptor descriptor{};
  descriptor.SiblingOff = MEM_PACK_NO_SIBLING;
  return descriptor;
}();

// Bytes of the narrow text at `pText`, or 0. Out of line, since few texts are looked at.
MEM_NOINLINE std::uint32_t narrowLength(const std::byte *pText, std::uint32_t room) noexcept {
  return textLength<std::uint8_t>(pText, room);
}

// Walks as ChainWalk does. All that was reached lies below `end_`, and nothing of it lies in the
// gap of a level: the part between a segment's own texts and its first child that is a segment,
// where texts lie that the walk reaches after that child. So nothing overlaps as long as each item
// lies beyond the end or in the gap of its level.
//
// Where a text ends is mostly not looked for: writers place the next item right behind its
// terminator, and a zero there tells that the text ends in front of that item. Until one is reached
// the text is open. `end_` lies behind its first byte then, and nothing beyond it is changed.
//
// Each address hangs on what was read at the one before. So that little has to be waited for in
// between, the level and the block at hand are kept apart from their tables.
template <bool isSwapped>
class InOrderWalk {
 public:
  // `pLevels` has room for all levels of a walk.
  InOrderWalk(const PackedChain &chain, const KindRule *pRules, Level *pLevels,
              TextConverter &text) noexcept
      : pBlocks_(chain.blocks()),
        pExtents_(chain.extents()),
        blockCount_(static_cast<std::uint32_t>(chain.blockCount())),
        pRules_(pRules),
        pKinds_(&chain.controlBlock().descriptor(0)),
        text_(text),
        pLevels_(pLevels) {}

  Target start(const ContentPlace &root) noexcept {
    useBlock(static_cast<std::uint32_t>(root.block));
    kind_ = kindOf(0);
    return targetAt(blockKey_ + root.offset);
  }

  // Takes the next segment; of a flat one its siblings, too.
  bool enter(Target &target) noexcept {
    while (takeSegment(kind_, target)) {
      if (!kind_.pRule->isFlat) {
        beginLevel(target);
        return true;
      }
      const Link next = linkSibling(kind_, target.pBytes, target);
      if (next != Link::made) return next == Link::null;
    }
    return false;
  }

  // Goes on with the segment of the current level, up to the next segment.
  Step goOn(Target &target) noexcept {
    const Step step = takeChildren(target);
    if (step != Step::up) return step;
    kind_ = level_.kind;
    switch (linkSibling(kind_, level_.pSegment, target)) {
      case Link::null:
        return Step::up;
      case Link::made:
        return Step::toSegment;
      default:
        return Step::refused;
    }
  }

  // Back to the segment above. False when there is none.
  bool goUp() noexcept {
    if (depth_ == 0) return false;
    level_ = pLevels_[--depth_];
    return true;
  }

  // To be asked at the end: whether the last text ends.
  bool finish() noexcept { return openMask_ == 0 || closeText(); }

  // Pointer fields passed, null or made, and wide texts converted.
  std::uint64_t steps() const noexcept { return steps_; }

 private:
  // A segment: its own bytes, its references, the narrow texts that come first among its children.
  bool takeSegment(const Kind &kind, const Target &target) noexcept {
    return takeBytes(*kind.pRule, target) && takeReferences(*kind.pDescriptor, target.pBytes) &&
           takeLeadingTexts(kind, target.pBytes);
  }

  bool takeBytes(const KindRule &rule, const Target &target) noexcept {
    PlaceKey end = target.key + rule.reach;
    if (end > usedEnd_) return false;
    if (rule.form != Form::fixed) {
      if (rule.form != Form::counted && rule.form != Form::selfDescribing) return false;
      const std::uint32_t told = toldLength(rule.form, target.pBytes);
      if (told == 0 || told > roomAt(target.key)) return false;
      end = std::max(end, target.key + told);
    }
    if (!isBehindAll(target)) return false;
    end_ = end;
    openMask_ = 0;
    return true;
  }

  bool takeReferences(const MemPackDescriptor &descriptor, std::byte *pSegment) noexcept {
    const std::uint32_t count = static_cast<std::uint16_t>(descriptor.ReferenceCount);
    std::uint32_t taken = 0;
    while (taken < count && linkReference(pSegment + descriptor.References[taken])) ++taken;
    steps_ += taken;
    return taken == count;
  }

  // Most children are texts, and they come first in most kinds.
  bool takeLeadingTexts(const Kind &kind, std::byte *pSegment) noexcept {
    const MemPackChild *const pFirst = kind.pDescriptor->Children;
    const MemPackChild *const pEnd = pFirst + kind.pRule->leadingTexts;
    const MemPackChild *pChild = pFirst;
    while (pChild != pEnd && takeLeadingText(pSegment + pChild->Offset)) ++pChild;
    steps_ += static_cast<std::uint64_t>(pChild - pFirst);
    return pChild == pEnd;
  }

  // Takes a text or null without a branch between the two: which one it is depends on the data, and
  // a mispredicted branch costs more than taking a text. Null is handled as a text of no bytes at
  // the end of all that was reached, and null is stored again.
  bool takeLeadingText(std::byte *pField) noexcept {
    const RelativePointer stored = read(pField);
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

  void beginLevel(const Target &target) noexcept {
    level_.kind = kind_;
    level_.pNextChild = kind_.pDescriptor->Children + kind_.pRule->leadingTexts;
    level_.pSegment = target.pBytes;
    level_.gapStart = level_.gapEnd = 0;
  }

  // Children up to the next one that is a segment.
  Step takeChildren(Target &target) noexcept {
    const MemPackDescriptor &descriptor = *level_.kind.pDescriptor;
    const MemPackChild *const pEnd = descriptor.Children + descriptor.ChildCount;
    while (level_.pNextChild != pEnd) {
      const MemPackChild &child = *level_.pNextChild++;
      const Link made = link(level_.pSegment + child.Offset, target);
      if (made == Link::null) continue;
      if (made == Link::refused) return Step::refused;
      kind_ = kindOf(child.Descriptor);
      const Form form = kind_.pRule->form;
      if (form == Form::narrowText || form == Form::wideText) {
        const bool isTaken =
            form == Form::narrowText ? takeNarrowText(target) : takeWideText(target);
        if (!isTaken) return Step::refused;
        continue;
      }
      const bool isLast = level_.pNextChild == pEnd;
      return (isLast || openGap(target)) && goDown() ? Step::toSegment : Step::refused;
    }
    return Step::up;
  }

  // In front of the first child that is a segment; later ones find the gap there.
  bool openGap(const Target &target) noexcept {
    if (level_.gapStart != level_.gapEnd) return true;
    if (openMask_ != 0 && !closeText()) return false;
    level_.gapStart = end_;
    level_.gapEnd = target.key;
    return true;
  }

  // Flat segments need no level: nothing is left to do there when their siblings come.
  bool goDown() noexcept {
    if (depth_ == MEM_PACK_MAX_LEVELS - 1) return false;
    if (kind_.pRule->isFlat) return true;
    // Part by part: a copy would read together what has just been stored apart, and wait for it.
    Level &saved = pLevels_[depth_++];
    saved.kind.pDescriptor = level_.kind.pDescriptor;
    saved.kind.pRule = level_.kind.pRule;
    saved.pNextChild = level_.pNextChild;
    saved.pSegment = level_.pSegment;
    saved.gapStart = level_.gapStart;
    saved.gapEnd = level_.gapEnd;
    return true;
  }

  bool takeNarrowText(const Target &target) noexcept {
    const std::uint32_t length = narrowLength(target.pBytes, roomAt(target.key));
    return length != 0 && takeRange(target, length);
  }

  bool takeWideText(const Target &target) noexcept {
    const std::uint32_t length = textLength<std::uint16_t>(target.pBytes, roomAt(target.key));
    if (length == 0 || !takeRange(target, length)) return false;
    if (!isSwapped) return true;
    ++steps_;
    return !text_.convert(target.pBytes, length);
  }

  bool takeRange(const Target &target, std::uint32_t length) noexcept {
    if (target.key >= end_) {
      if (!isBehindAll(target)) return false;
      end_ = target.key + length;
      openMask_ = 0;
      return true;
    }
    if (target.key < level_.gapStart || target.key + length > level_.gapEnd) return false;
    level_.gapStart = target.key + length;
    return true;
  }

  Link linkSibling(const Kind &kind, std::byte *pSegment, Target &target) noexcept {
    const std::int16_t offset = kind.pDescriptor->SiblingOff;
    return offset == MEM_PACK_NO_SIBLING ? Link::null : link(pSegment + offset, target);
  }

  // Replaces a relative pointer to a child or sibling by the address that it means.
  Link link(std::byte *pField, Target &target) noexcept {
    const RelativePointer stored = read(pField);
    if (!stored.isNull()) {
      if (!resolve(stored.key(), target)) return Link::refused;
      storeAs<void *>(pField, target.pBytes);
    }
    ++steps_;
    return stored.isNull() ? Link::null : Link::made;
  }

  // References lead anywhere and leave the block at hand.
  bool linkReference(std::byte *pField) noexcept {
    const RelativePointer stored = read(pField);
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

  // A zero in front of the target ends an open text, wherever that text's own terminator lies. In
  // front of offset 0 that is the last byte of the block's link, read without effect.
  bool isClearlyBehindAll(const Target &target) const noexcept {
    const auto last = std::to_integer<std::uint32_t>(target.pBytes[-1]);
    return target.key >= end_ && (last & openMask_) == 0;
  }

  // Finds the end of the open text.
  bool closeText() noexcept {
    const PlaceKey start = end_ - 1;
    const std::uint32_t length = narrowLength(targetAt(start).pBytes, roomAt(start));
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

  Kind kindOf(std::uint16_t index) const noexcept { return {pKinds_ + index, pRules_ + index}; }

  static std::uint16_t number(const std::byte *pFrom) noexcept {
    const auto value = loadAs<std::uint16_t>(pFrom);
    return isSwapped ? byteSwapped(value) : value;
  }

  // Bytes that a segment tells of itself, 0 when its length word is too small.
  // REQUIRES: the length word lies in its block.
  static std::uint32_t toldLength(Form form, const std::byte *pSegment) noexcept {
    constexpr std::int32_t kLengthWord = sizeof(std::uint16_t);
    const std::uint16_t word = number(pSegment);
    const std::int32_t told =
        form == Form::counted ? static_cast<std::int16_t>(word) + kLengthWord : word;
    return told < kLengthWord ? 0 : static_cast<std::uint32_t>(told);
  }

  static RelativePointer read(const std::byte *pField) noexcept {
    // Block and offset are one number of 32 bits here, in which either may be the upper half.
    constexpr bool isBlockUpper = isSwapped == (std::endian::native == std::endian::little);
    const auto stored = loadAs<std::uint32_t>(pField);
    const std::uint32_t numbers = isSwapped ? byteSwapped(stored) : stored;
    const std::uint64_t rest = loadAs<std::uint32_t>(pField + 4);
    return {rest << 32 | (isBlockUpper ? std::rotl(numbers, 16) : numbers)};
  }

  void *const *const pBlocks_;
  const BlockExtent *const pExtents_;
  const std::uint32_t blockCount_;
  const KindRule *const pRules_;
  const MemPackDescriptor *const pKinds_;
  TextConverter &text_;
  Level *const pLevels_;  // those above the current one
  std::uint32_t depth_ = 0;
  Kind kind_{};  // of the next segment
  Level level_{.kind = {&kNothingLeft, nullptr},
               .pNextChild = kNothingLeft.Children,
               .pSegment = nullptr,
               .gapStart = 0,
               .gapEnd = 0};

  // The block at hand, in which the last child or sibling was reached.
  PlaceKey blockKey_ = 0;          // of its offset 0
  std::byte *pContent_ = nullptr;  // from block offset 8 on
  PlaceKey usedEnd_ = 0;
  std::uint64_t reachable_ = 0;  // the end of the offsets that pointers can name

  PlaceKey end_ = 0;
  // All bits while a text is open, else none. It begins at end_ - 1 in the block at hand.
  std::uint32_t openMask_ = 0;
  std::uint64_t steps_ = 0;
};

// The walk is in this function as a whole, so that its state can stay in registers.
template <bool isSwapped>
bool linkInOrder(const PackedChain &chain, const KindRule *pRules, const ContentPlace &root,
                 std::uint64_t &steps) noexcept {
  Level levels[MEM_PACK_MAX_LEVELS];
  TextConverter text(chain);
  InOrderWalk<isSwapped> walk(chain, pRules, levels, text);
  Target target = walk.start(root);
  bool isAtEnd = false;
  for (Step step = Step::toSegment; step != Step::refused && !isAtEnd;) {
    if (step == Step::toSegment && !walk.enter(target)) break;
    if (step == Step::up && !walk.goUp())
      isAtEnd = true;
    else
      step = walk.goOn(target);
  }
  steps = walk.steps();
  return isAtEnd && walk.finish();
}

// Blocks with content by their addresses, to tell the place that an address means.
class BlockFinder {
 public:
  explicit BlockFinder(const PackedChain &chain) noexcept
      : chain_(chain), pOrder_(chain.scratchByBlock<std::int32_t>()) {
    for (std::int32_t i = 0; i < chain.blockCount(); ++i) {
      if (chain.usedLen(i) != 0) pOrder_[count_++] = i;
    }
    std::sort(pOrder_, pOrder_ + count_,
              [this](std::int32_t one, std::int32_t other) { return start(one) < start(other); });
  }

  // REQUIRES: `address` is that of a content byte.
  ContentPlace placeOf(std::uintptr_t address) const noexcept {
    const std::int32_t *pBehind = std::upper_bound(
        pOrder_, pOrder_ + count_, address,
        [this](std::uintptr_t wanted, std::int32_t block) { return wanted < start(block); });
    const std::int32_t block = pBehind[-1];
    return {block, static_cast<std::uint32_t>(address - start(block))};
  }

 private:
  std::uintptr_t start(std::int32_t block) const noexcept {
    return reinterpret_cast<std::uintptr_t>(chain_.at({block, 0}));
  }

  const PackedChain &chain_;
  std::int32_t *pOrder_;
  std::size_t count_ = 0;
};

// Goes the way of the walk once more and takes its steps back, as many as there were.
class Restorer {
 public:
  static constexpr char kTooDeep[] = "";  // nobody reads it

  Restorer(const PackedChain &chain, std::uint64_t steps) noexcept
      : chain_(chain), finder_(chain), text_(chain), left_(steps) {}

  Outcome visit(std::uint16_t kind, const ContentPlace &place) noexcept;
  Outcome visitText(const TextUse &use) noexcept;
  Outcome pointer(const ContentPlace &segment, std::int16_t offset, ContentPlace &target,
                  bool &isNull) noexcept;

 private:
  // Ends the walk. Nobody reads it.
  static Outcome allRestored() noexcept { return failure(0, ErrorText()); }

  const PackedChain &chain_;
  const BlockFinder finder_;
  TextConverter text_;
  std::uint64_t left_;
};

Outcome Restorer::visit(std::uint16_t kind, const ContentPlace &place) noexcept {
  if (left_ == 0) return allRestored();
  for (const std::int16_t offset : references(chain_.controlBlock().descriptor(kind))) {
    ContentPlace target{};
    bool isNull = false;
    if (Outcome over = pointer(place, offset, target, isNull)) return over;
  }
  return {};
}

Outcome Restorer::visitText(const TextUse &use) noexcept {
  if (left_ == 0) return allRestored();
  if (!use.isWide || !chain_.isSwapped()) return {};
  --left_;
  std::byte *pText = chain_.at(use.text);
  const std::uint32_t room = chain_.usedLen(use.text.block) - use.text.offset;
  // Swapping the bytes of each unit is undone by doing it again.
  return text_.convert(pText, textLength<std::uint16_t>(pText, room));
}

Outcome Restorer::pointer(const ContentPlace &segment, std::int16_t offset, ContentPlace &target,
                          bool &isNull) noexcept {
  std::byte *pField = chain_.at(segment) + offset;
  if (left_ == 0) return allRestored();
  --left_;
  isNull = loadAs<std::uint64_t>(pField) == 0;
  if (isNull) return {};
  target = finder_.placeOf(loadAs<std::uintptr_t>(pField));
  chain_.storeRelative(pField, target);
  return {};
}

// Takes back the first `steps` steps of the walk from `root`: each pointer field that it passed,
// where null stays null, and each wide text whose bytes it swapped. The chain's scratch is used
// anew. Out of line, since few chains come here.
// REQUIRES: the pointer fields held nothing but block and offset, no two things reached overlap,
// wide text has kept its length.
MEM_NOINLINE void takeBack(const PackedChain &chain, const ContentPlace &root,
                           std::uint64_t steps) noexcept {
  if (steps == 0) return;
  Restorer restorer(chain, steps);
  static_cast<void>(ChainWalk(chain, restorer).run(root));
}

}  // namespace

bool unpackInOrder(const PackedChain &chain, const ContentPlace &root) noexcept {
  auto *pRules = chain.scratchByKind<KindRule>();
  for (std::int32_t i = 0; i < chain.controlBlock().present(); ++i) {
    pRules[i] = ruleOf(chain, chain.controlBlock().descriptor(i));
  }
  std::uint64_t steps = 0;
  const bool isDone = chain.isSwapped() ? linkInOrder<true>(chain, pRules, root, steps)
                                        : linkInOrder<false>(chain, pRules, root, steps);
  if (!isDone) takeBack(chain, root, steps);
  return isDone;
}

}  // namespace mem
