#include "memcpack_inorder.h"

#include <algorithm>

#include "memcpack_fields.h"
#include "memcpack_restore.h"
#include "memcpack_text.h"
#include "memcpack_textlength.h"

namespace mem {

namespace {

// How a kind of segment tells its length. Chains with kinds of no form are not unpacked here.
enum class Form : std::uint8_t { none, fixed, counted, selfDescribing, narrowText, wideText };

// What is known of a kind before the walk. The rules lie in the chain's scratch.
struct KindRule {
  std::uint16_t reach;  // bytes that a segment has at least: fixed length, length word, fields
  Form form;
};
static_assert(sizeof(KindRule) <= 8);

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
      // What is converted to another length cannot be put back.
      return chain.version().wideSize == kNativeWideSize ? Form::wideText : Form::none;
    default:
      // Foreign lengths, too: those that look like lengths of their own do no harm.
      return Form::selfDescribing;
  }
}

// The end of the last pointer field, or of the head in front of them.
std::uint32_t reachOf(const MemPackDescriptor &descriptor) noexcept {
  std::int32_t last = -1;
  if (hasSibling(descriptor)) last = std::max<std::int32_t>(last, descriptor.SiblingOff);
  for (const MemPackChild &child : children(descriptor)) {
    last = std::max<std::int32_t>(last, child.Offset);
  }
  for (const std::int16_t offset : references(descriptor)) {
    last = std::max<std::int32_t>(last, offset);
  }
  const std::uint32_t head =
      descriptor.Type == MEM_PACK_FIXED ? descriptor.FixedLen : sizeof(std::uint16_t);
  const std::uint32_t fieldsEnd =
      last < 0 ? 0 : static_cast<std::uint32_t>(last) + static_cast<std::uint32_t>(sizeof(void *));
  return std::max(head, fieldsEnd);
}

KindRule ruleOf(const PackedChain &chain, const MemPackDescriptor &descriptor) noexcept {
  const Form form = formOf(chain, descriptor);
  if (form == Form::narrowText || form == Form::wideText) return {0, form};
  const bool isUsable = chain.controlBlock().hasValidCounts(descriptor) &&
                        pointersLieWithin(descriptor, UINT16_MAX) && fieldsLieApart(descriptor);
  if (!isUsable) return {0, Form::none};
  return {static_cast<std::uint16_t>(reachOf(descriptor)), form};
}

// Content places in the order of the chain: block, then offset.
using PlaceKey = std::uint32_t;

PlaceKey keyOf(std::uint32_t block, std::uint32_t offset) noexcept {
  return block << 16 | offset;
}

// Where a pointer leads to.
struct Target {
  std::byte *pBytes;
  PlaceKey key;
  std::uint32_t room;  // bytes from there to the end of the block's content, never 0
};

enum class Link : std::uint8_t { null, made, refused };
enum class Step : std::uint8_t { toSegment, up, refused };

// A segment of the walk with what is left to do there.
struct Level {
  const MemPackDescriptor *pKind;
  const MemPackChild *pNextChild;
  std::byte *pSegment;
  PlaceKey gapStart;
  PlaceKey gapEnd;
  std::uint16_t kind;
};

// Walks as ChainWalk does. All that was reached lies below `end_`, and nothing of it lies in the
// gap of a level: the part between a segment's own texts and its first child that is a segment,
// where texts lie that the walk reaches after that child. So nothing overlaps as long as each item
// lies beyond the end or in the gap of its level.
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

  Target start(const ContentPlace &root) noexcept;
  // Begins with a segment.
  bool enter(std::uint16_t kind, const Target &target) noexcept;
  // Goes on with the current segment, up to the next one.
  Step goOn(std::uint16_t &kind, Target &target) noexcept;
  // Back to the segment above. False when there is none.
  bool goUp() noexcept;

  // How often a byte of the chain was changed: pointers made, wide texts converted.
  std::uint64_t changes() const noexcept { return changes_; }

 private:
  static std::uint16_t number(const std::byte *pFrom) noexcept {
    const auto value = loadAs<std::uint16_t>(pFrom);
    return isSwapped ? byteSwapped(value) : value;
  }

  bool goToBlock(std::uint32_t block) noexcept;
  Target targetAt(std::uint32_t offset) const noexcept {
    return {pContent_ + offset, keyOf(block_, offset), extent_.used - offset};
  }
  static bool read(const std::byte *pField, std::uint32_t &block, std::uint32_t &offset) noexcept;
  void replace(std::byte *pField, std::byte *pTarget) noexcept;
  Link link(std::byte *pField, Target &target) noexcept;
  bool linkReference(std::byte *pField) noexcept;
  bool takeRange(const Target &target, std::uint32_t length) noexcept;
  static std::uint32_t toldLength(Form form, const std::byte *pSegment) noexcept;
  bool takeSegment(const KindRule &rule, const Target &target) noexcept;
  Step takeChildren(std::uint16_t &kind, Target &target) noexcept;
  bool goDown(const MemPackChild *pNextChild, const Target &target) noexcept;
  Step takeSibling(std::uint16_t &kind, Target &target) noexcept;
  bool takeText(Form form, const Target &target) noexcept;
  bool takeWideText(const Target &target) noexcept;

  void *const *const pBlocks_;
  const BlockExtent *const pExtents_;
  const std::uint32_t blockCount_;
  const KindRule *const pRules_;
  const MemPackDescriptor *const pKinds_;
  TextConverter &text_;
  Level *const pLevels_;  // those above the current one
  std::uint32_t depth_ = 0;
  Level level_{};
  std::uint32_t block_ = 0;
  std::byte *pContent_ = nullptr;  // of the block, from block offset 8 on
  BlockExtent extent_{};
  PlaceKey end_ = 0;
  std::uint64_t changes_ = 0;
};

template <bool isSwapped>
inline Target InOrderWalk<isSwapped>::start(const ContentPlace &root) noexcept {
  goToBlock(static_cast<std::uint32_t>(root.block));
  return targetAt(root.offset);
}

template <bool isSwapped>
inline Step InOrderWalk<isSwapped>::goOn(std::uint16_t &kind, Target &target) noexcept {
  const Step step = takeChildren(kind, target);
  return step == Step::up ? takeSibling(kind, target) : step;
}

template <bool isSwapped>
inline bool InOrderWalk<isSwapped>::goUp() noexcept {
  if (depth_ == 0) return false;
  level_ = pLevels_[--depth_];
  return true;
}

template <bool isSwapped>
inline bool InOrderWalk<isSwapped>::goToBlock(std::uint32_t block) noexcept {
  if (block >= blockCount_) return false;
  block_ = block;
  pContent_ = bytesAt(pBlocks_[block], 8);
  extent_ = pExtents_[block];
  return true;
}

// Reads a relative pointer. Fields that hold more than one could not be put back: false.
template <bool isSwapped>
inline bool InOrderWalk<isSwapped>::read(const std::byte *pField, std::uint32_t &block,
                                         std::uint32_t &offset) noexcept {
  block = number(pField);
  offset = number(pField + 2);
  return loadAs<std::uint32_t>(pField + 4) == 0;
}

template <bool isSwapped>
inline void InOrderWalk<isSwapped>::replace(std::byte *pField, std::byte *pTarget) noexcept {
  storeAs<void *>(pField, pTarget);
  ++changes_;
}

// Replaces a relative pointer to a child or sibling by the address that it means.
template <bool isSwapped>
inline Link InOrderWalk<isSwapped>::link(std::byte *pField, Target &target) noexcept {
  if (loadAs<std::uint64_t>(pField) == 0) return Link::null;
  std::uint32_t block = 0;
  std::uint32_t offset = 0;
  if (!read(pField, block, offset)) return Link::refused;
  if (block != block_ && !goToBlock(block)) return Link::refused;
  if (offset >= extent_.reachable) return Link::refused;
  target = targetAt(offset);
  replace(pField, target.pBytes);
  return Link::made;
}

// References lead anywhere and leave the block at hand.
template <bool isSwapped>
inline bool InOrderWalk<isSwapped>::linkReference(std::byte *pField) noexcept {
  if (loadAs<std::uint64_t>(pField) == 0) return true;
  std::uint32_t block = 0;
  std::uint32_t offset = 0;
  if (!read(pField, block, offset) || block >= blockCount_) return false;
  if (offset >= pExtents_[block].reachable) return false;
  replace(pField, bytesAt(pBlocks_[block], std::size_t{8} + offset));
  return true;
}

template <bool isSwapped>
inline bool InOrderWalk<isSwapped>::enter(std::uint16_t kind, const Target &target) noexcept {
  if (!takeSegment(pRules_[kind], target)) return false;
  const MemPackDescriptor &descriptor = pKinds_[kind];
  level_ = {&descriptor, descriptor.Children, target.pBytes, 0, 0, kind};
  for (std::int32_t i = 0; i < descriptor.ReferenceCount; ++i) {
    if (!linkReference(target.pBytes + descriptor.References[i])) return false;
  }
  return true;
}

// Bytes that a segment tells of itself, 0 when its length word is too small.
// REQUIRES: the length word lies in its block.
template <bool isSwapped>
inline std::uint32_t InOrderWalk<isSwapped>::toldLength(Form form,
                                                        const std::byte *pSegment) noexcept {
  constexpr std::int32_t kLengthWord = sizeof(std::uint16_t);
  const std::uint16_t word = number(pSegment);
  const std::int32_t told =
      form == Form::counted ? static_cast<std::int16_t>(word) + kLengthWord : word;
  return told < kLengthWord ? 0 : static_cast<std::uint32_t>(told);
}

template <bool isSwapped>
inline bool InOrderWalk<isSwapped>::takeSegment(const KindRule &rule,
                                                const Target &target) noexcept {
  std::uint32_t length = rule.reach;
  if (length > target.room) return false;
  if (rule.form != Form::fixed) {
    if (rule.form != Form::counted && rule.form != Form::selfDescribing) return false;
    const std::uint32_t told = toldLength(rule.form, target.pBytes);
    if (told == 0 || told > target.room) return false;
    length = std::max(length, told);
  }
  if (target.key < end_) return false;
  end_ = target.key + length;
  return true;
}

// Children up to the next one that is a segment.
template <bool isSwapped>
inline Step InOrderWalk<isSwapped>::takeChildren(std::uint16_t &kind, Target &target) noexcept {
  const MemPackChild *const pEnd = level_.pKind->Children + level_.pKind->ChildCount;
  for (const MemPackChild *pChild = level_.pNextChild; pChild != pEnd; ++pChild) {
    const Link made = link(level_.pSegment + pChild->Offset, target);
    if (made == Link::null) continue;
    if (made == Link::refused) return Step::refused;
    const Form form = pRules_[pChild->Descriptor].form;
    if (form == Form::narrowText || form == Form::wideText) {
      if (!takeText(form, target)) return Step::refused;
      continue;
    }
    kind = pChild->Descriptor;
    return goDown(pChild + 1, target) ? Step::toSegment : Step::refused;
  }
  return Step::up;
}

template <bool isSwapped>
inline bool InOrderWalk<isSwapped>::goDown(const MemPackChild *pNextChild,
                                           const Target &target) noexcept {
  if (depth_ == MEM_PACK_MAX_LEVELS - 1) return false;
  // Part by part: a copy would read together what has just been stored apart, and wait for it.
  const bool hasGap = level_.gapStart != level_.gapEnd;
  Level &saved = pLevels_[depth_++];
  saved.pKind = level_.pKind;
  saved.pNextChild = pNextChild;
  saved.pSegment = level_.pSegment;
  saved.gapStart = hasGap ? level_.gapStart : end_;
  saved.gapEnd = hasGap ? level_.gapEnd : target.key;
  saved.kind = level_.kind;
  return true;
}

template <bool isSwapped>
inline Step InOrderWalk<isSwapped>::takeSibling(std::uint16_t &kind, Target &target) noexcept {
  const std::int16_t offset = level_.pKind->SiblingOff;
  if (offset == MEM_PACK_NO_SIBLING) return Step::up;
  kind = level_.kind;
  switch (link(level_.pSegment + offset, target)) {
    case Link::null:
      return Step::up;
    case Link::made:
      return Step::toSegment;
    default:
      return Step::refused;
  }
}

template <bool isSwapped>
inline bool InOrderWalk<isSwapped>::takeRange(const Target &target, std::uint32_t length) noexcept {
  if (target.key >= end_) {
    end_ = target.key + length;
    return true;
  }
  if (target.key < level_.gapStart || target.key + length > level_.gapEnd) return false;
  level_.gapStart = target.key + length;
  return true;
}

template <bool isSwapped>
inline bool InOrderWalk<isSwapped>::takeText(Form form, const Target &target) noexcept {
  if (form == Form::wideText) return takeWideText(target);
  const std::uint32_t length = textLength<std::uint8_t>(target.pBytes, target.room);
  return length != 0 && takeRange(target, length);
}

template <bool isSwapped>
inline bool InOrderWalk<isSwapped>::takeWideText(const Target &target) noexcept {
  const std::uint32_t length = textLength<std::uint16_t>(target.pBytes, target.room);
  if (length == 0 || !takeRange(target, length)) return false;
  if (!isSwapped) return true;
  ++changes_;
  return !text_.convert(target.pBytes, length);
}

// The walk is in this function as a whole, so that its state can stay in registers.
template <bool isSwapped>
bool linkInOrder(const PackedChain &chain, const KindRule *pRules, const ContentPlace &root,
                 std::uint64_t &changes) noexcept {
  Level levels[MEM_PACK_MAX_LEVELS];
  TextConverter text(chain);
  InOrderWalk<isSwapped> walk(chain, pRules, levels, text);
  Target target = walk.start(root);
  std::uint16_t kind = 0;
  bool isAtEnd = false;
  for (Step step = Step::toSegment; step != Step::refused && !isAtEnd;) {
    if (step == Step::toSegment && !walk.enter(kind, target)) break;
    if (step == Step::up && !walk.goUp())
      isAtEnd = true;
    else
      step = walk.goOn(kind, target);
  }
  changes = walk.changes();
  return isAtEnd;
}

}  // namespace

bool unpackInOrder(const PackedChain &chain, const ContentPlace &root) noexcept {
  auto *pRules = static_cast<KindRule *>(chain.scratch());
  for (std::int32_t i = 0; i < chain.controlBlock().present(); ++i) {
    pRules[i] = ruleOf(chain, chain.controlBlock().descriptor(i));
  }
  std::uint64_t changes = 0;
  const bool isDone = chain.isSwapped() ? linkInOrder<true>(chain, pRules, root, changes)
                                        : linkInOrder<false>(chain, pRules, root, changes);
  if (!isDone) restoreChain(chain, root, changes);
  return isDone;
}

}  // namespace mem
