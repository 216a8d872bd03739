#include "pack/unpack/repack.h"

#include "pack/chain_builder.h"
#include "pack/unpack/chain_walk.h"
#include "pack/unpack/place_index.h"
#include "pack/unpack/pointer_fields.h"
#include "pack/unpack/wide_text.h"

namespace mem {

namespace {

constexpr std::int32_t kLineDirection = 1341;

// The longest item of a new block.
constexpr std::int64_t kMostOfABlock = MEM_UNPACK_BLOCK_LEN - MEM_PACK_BLOCK_OVERHEAD;

PackFailure blockTooSmall() noexcept {
  return failure(MEMERR_PACKBMIN,
                 ErrorText("BlockTooSmallforMemPackCBinUnpack=").decimal(MEM_UNPACK_BLOCK_LEN));
}

PackFailure segmentTooLarge(std::int64_t length) noexcept {
  return failure(
      MEMERR_PACKBMIN,
      ErrorText("SegmentLengthTooLargeinUnpack=").decimal(static_cast<std::int16_t>(length)));
}

// Of text that no new block can hold: by itself, or with the room that wide text gets.
PackFailure textTooLarge(std::int64_t length) noexcept {
  const char *const pText =
      length > kMostOfABlock ? "StrBufLengthTooLargeinUnpack=" : "StrBufLengthTooLargeinRepack=";
  return failure(MEMERR_PACKBMIN, ErrorText(pText).decimal(static_cast<std::int16_t>(length)));
}

PackFailure noStorage(const char *pText) noexcept {
  return failure(MEMERR_PACKAMEM, ErrorText(pText));
}

Outcome failedBlock(Placement placement) noexcept {
  if (placement == Placement::tooManyBlocks) return badBlockCount(MEM_PACK_MAX_BLOCKS + 1);
  return noStorage("NthBlkMemAllocFail");
}

// Texts for a pointer that leads where nothing was moved from: to a block of which nothing was
// moved, or to another offset of one. Each kind of pointer has its own.
struct MissingTexts {
  const char *pBlock;
  const char *pOffset;
};
constexpr MissingTexts kMissingChild{"NewBlockTblBlkNumErr", "NewBlockTblOffsetErr"};
constexpr MissingTexts kMissingSibling{"UnpackSibNewBlockTblBlkErr",
                                       "UnpackSibNewBlockTblOffsetErr"};
constexpr MissingTexts kMissingReference{"RepackNewBlockTblBlkErr", "RepackNewBlockTblOffsetErr"};

PackFailure missingTarget(const PlaceIndex &index, const ContentPlace &target,
                          const MissingTexts &texts) noexcept {
  return index.containsAnyOf(target.block) ? failure(MEMERR_PACKROFF, ErrorText(texts.pOffset))
                                           : failure(MEMERR_PACKRBLK, ErrorText(texts.pBlock));
}

// Both walks over the old chain end with it.
constexpr char kWalkTooDeep[] = "UnpackStackOverflow";

// Reads the pointer fields of the old chain, which have the writer's width.
class OldPointers {
 public:
  OldPointers(const PackedChain &chain, std::uint32_t width) noexcept
      : chain_(chain), width_(width) {}

  std::uint32_t width() const noexcept { return width_; }

  // REQUIRES: the field lies in its block.
  Outcome read(const ContentPlace &segment, std::int16_t offset, ContentPlace &target,
               bool &isNull) const noexcept {
    const std::byte *pField = chain_.at(segment) + offset;
    isNull = width_ == sizeof(std::uint32_t) ? loadAs<std::uint32_t>(pField) == 0
                                             : loadAs<std::uint64_t>(pField) == 0;
    return isNull ? Outcome{} : chain_.follow(pField, target);
  }

 private:
  const PackedChain &chain_;
  std::uint32_t width_;
};

// First pass: checks the whole old chain and numbers what will be moved. Segments and texts must
// not overlap, so that what is copied is never more than there is.
class Survey {
 public:
  static constexpr const char *kTooDeep = kWalkTooDeep;

  Survey(PackedChain &chain, const PackControlBlock &callers, const OldPointers &pointers,
         PlaceIndex &index) noexcept
      : chain_(chain), callers_(callers), pointers_(pointers), index_(index) {}

  Outcome visit(std::uint16_t kind, const ContentPlace &place) noexcept {
    if (Outcome failed = checkKind(kind)) return failed;
    const MemPackDescriptor &file = chain_.controlBlock().descriptor(kind);
    // Wide text is no segment of its own; only the root can be given as one.
    if (file.Type == MEM_PACK_WIDE_STRING) return chain_.badKind(kind);
    std::uint32_t length = 0;
    if (Outcome failed = chain_.measureSegment(file, place, length)) return failed;
    if (!pointersLieWithin(file, length, pointers_.width())) return badOffset(place.offset);
    return number(place, length);
  }

  Outcome visitText(const TextUse &use) noexcept {
    const MemPackDescriptor &owner = chain_.controlBlock().descriptor(use.descriptor);
    if (Outcome failed = checkKind(owner.Children[use.child].Descriptor)) return failed;
    // Narrow text may be shared. Whether it is text that was there first shows when it is moved.
    if (!use.isWide && index_.contains(use.text)) return {};
    const std::uint32_t unitLen = use.isWide ? chain_.version().wideSize : 1U;
    std::uint32_t length = 0;
    if (Outcome failed = chain_.measureText(use.text, unitLen, length)) return failed;
    return number(use.text, length);
  }

  Outcome pointer(const ContentPlace &segment, std::int16_t offset, ContentPlace &target,
                  bool &isNull) const noexcept {
    return pointers_.read(segment, offset, target, isNull);
  }

 private:
  // Both control blocks must mean the same by a kind.
  Outcome checkKind(std::uint16_t kind) const noexcept {
    const MemPackDescriptor &file = chain_.controlBlock().descriptor(kind);
    // Kinds beyond the count were not looked at before the walk.
    if (!chain_.controlBlock().hasValidCounts(file)) return chain_.badKind(kind);
    if (kind >= callers_.present()) return badDescriptor(callers_.address());
    const MemPackDescriptor &callers = callers_.descriptor(kind);
    const bool isSame = callers_.hasValidCounts(callers) && haveSameFields(file, callers);
    return isSame ? Outcome{} : badDescriptor(&callers);
  }

  Outcome number(const ContentPlace &place, std::uint32_t length) noexcept {
    if (index_.contains(place) || !chain_.claim(place, length)) return reachedTwice();
    index_.add(place);
    return {};
  }

  PackedChain &chain_;
  const PackControlBlock &callers_;
  const OldPointers &pointers_;
  PlaceIndex &index_;
};

enum class ItemKind : std::uint8_t { segment, narrowText, wideText };

// Where a segment or a text of the old chain went.
struct Moved {
  ContentPlace from;
  std::byte *pCopy;
  std::uint16_t descriptor;
  ItemKind item;
};

// The new chain, returned to the host unless it is released to the caller.
class NewChain {
 public:
  NewChain() noexcept : blocks_(MEM_UNPACK_BLOCK_LEN) {}
  ~NewChain() noexcept {
    while (pFirst_ != nullptr) {
      MemPackBlock *pNext = pFirst_->pNext;
      functionVector().MEM_Free(pFirst_, MEM_UNPACK_BLOCK_LEN, 0);
      pFirst_ = pNext;
    }
  }
  NewChain(const NewChain &) = delete;
  NewChain &operator=(const NewChain &) = delete;

  Outcome start(const PackVersion &version, const PackControlBlock &callers) noexcept {
    pFirst_ = blocks_.start();
    if (pFirst_ == nullptr) return noStorage("NthBlkMemAllocFail");
    if (!blocks_.canHoldControlBlock(callers.length())) return blockTooSmall();
    std::memcpy(blocks_.append(kPackVersionLen), version.text, kPackVersionLen);
    std::memcpy(blocks_.append(callers.length()), callers.address(), callers.length());
    return {};
  }

  BlockChain &blocks() noexcept { return blocks_; }
  MemPackBlock *release() noexcept {
    MemPackBlock *pFirst = pFirst_;
    pFirst_ = nullptr;
    return pFirst;
  }

 private:
  BlockChain blocks_;
  MemPackBlock *pFirst_ = nullptr;
};

// Second pass: copies every segment and text and remembers where it went.
class Mover {
 public:
  static constexpr const char *kTooDeep = kWalkTooDeep;

  Mover(const PackedChain &chain, const PackControlBlock &callers, const OldPointers &pointers,
        const PlaceIndex &index, Moved *pMoved, BlockChain &blocks) noexcept
      : chain_(chain),
        callers_(callers),
        pointers_(pointers),
        index_(index),
        pMoved_(pMoved),
        blocks_(blocks),
        text_(chain) {}

  Outcome visit(std::uint16_t kind, const ContentPlace &place) noexcept;
  Outcome visitText(const TextUse &use) noexcept;
  Outcome pointer(const ContentPlace &segment, std::int16_t offset, ContentPlace &target,
                  bool &isNull) const noexcept {
    return pointers_.read(segment, offset, target, isNull);
  }

 private:
  std::int64_t newLength(const MemPackDescriptor &file, const MemPackDescriptor &callers,
                         std::uint32_t oldLength) const noexcept;
  Outcome copyText(const TextUse &use, Moved &moved) noexcept;

  const PackedChain &chain_;
  const PackControlBlock &callers_;
  const OldPointers &pointers_;
  const PlaceIndex &index_;
  Moved *pMoved_;
  BlockChain &blocks_;
  TextConverter text_;
};

// A segment that tells its own length keeps all that lies behind its last pointer field.
std::int64_t Mover::newLength(const MemPackDescriptor &file, const MemPackDescriptor &callers,
                              std::uint32_t oldLength) const noexcept {
  if (file.Type == MEM_PACK_FIXED) return callers.FixedLen;
  return oldLength - lastFieldEnd(file, pointers_.width()) + lastFieldEnd(callers, sizeof(void *));
}

// The length word of a segment that has one, in native order.
void storeLength(const MemPackDescriptor &descriptor, std::byte *pSegment,
                 std::int64_t length) noexcept {
  if (descriptor.Type == MEM_PACK_FIXED || descriptor.Type == MEM_PACK_STRING) return;
  if (length < static_cast<std::int64_t>(sizeof(std::uint16_t))) return;
  const std::int64_t told = descriptor.Type == MEM_PACK_COUNTED ? length - 2 : length;
  storeAs(pSegment, static_cast<std::uint16_t>(told));
}

Outcome Mover::visit(std::uint16_t kind, const ContentPlace &place) noexcept {
  const MemPackDescriptor &file = chain_.controlBlock().descriptor(kind);
  const MemPackDescriptor &callers = callers_.descriptor(kind);
  std::uint32_t oldLength = 0;
  if (Outcome failed = chain_.measureSegment(file, place, oldLength)) return failed;
  const std::int64_t length = newLength(file, callers, oldLength);
  if (!pointersLieWithin(callers, length) || !fieldsLieApart(callers)) {
    return badDescriptor(&callers);
  }
  if (file.Type == MEM_PACK_COUNTED && length - 2 > INT16_MAX) return segmentTooLarge(length);

  PlacedItem item;
  const Placement placement = blocks_.placeSegment(length, item);
  if (placement == Placement::tooLong) return segmentTooLarge(length);
  if (placement != Placement::done) return failedBlock(placement);
  copyRuns({file, oldLength, pointers_.width()}, chain_.at(place),
           {callers, static_cast<std::uint32_t>(length), sizeof(void *)}, item.pBytes);
  storeLength(file, item.pBytes, length);
  pMoved_[index_.number(place)] = {place, item.pBytes, kind, ItemKind::segment};
  return {};
}

Outcome Mover::visitText(const TextUse &use) noexcept {
  Moved &moved = pMoved_[index_.number(use.text)];
  if (moved.pCopy == nullptr) {
    if (Outcome failed = copyText(use, moved)) return failed;
  } else if (moved.item != ItemKind::narrowText) {
    return reachedTwice();
  }
  const Moved &owner = pMoved_[index_.number(use.segment)];
  const std::int16_t offset = callers_.descriptor(use.descriptor).Children[use.child].Offset;
  storeAs<void *>(owner.pCopy + offset, moved.pCopy);
  return {};
}

Outcome Mover::copyText(const TextUse &use, Moved &moved) noexcept {
  const std::uint32_t unitLen = use.isWide ? chain_.version().wideSize : 1U;
  std::uint32_t length = 0;
  if (Outcome failed = chain_.measureText(use.text, unitLen, length)) return failed;
  // Wide text of 2-byte writers keeps the double room that the packer gives it.
  const std::int64_t reserved = std::int64_t{length} * (unitLen == 2 ? 2 : 1);
  PlacedItem item;
  const Placement placement = blocks_.placeString(reserved, use.isWide, item);
  if (placement == Placement::tooLong) return textTooLarge(length);
  if (placement != Placement::done) return failedBlock(placement);
  std::memcpy(item.pBytes, chain_.at(use.text), length);
  moved = {use.text, item.pBytes, use.descriptor,
           use.isWide ? ItemKind::wideText : ItemKind::narrowText};
  return use.isWide ? text_.convert(item.pBytes, length) : Outcome{};
}

// Third pass: stores the new addresses in the pointer fields of the copies.
class Linker {
 public:
  Linker(const PackedChain &chain, const PackControlBlock &callers, const OldPointers &pointers,
         const PlaceIndex &index, const Moved *pMoved) noexcept
      : chain_(chain), callers_(callers), pointers_(pointers), index_(index), pMoved_(pMoved) {}

  Outcome link(const Moved &moved) const noexcept;

 private:
  Outcome linkField(const Moved &moved, std::int16_t oldOffset, std::int16_t newOffset,
                    const MissingTexts &missing) const noexcept;

  const PackedChain &chain_;
  const PackControlBlock &callers_;
  const OldPointers &pointers_;
  const PlaceIndex &index_;
  const Moved *pMoved_;
};

Outcome Linker::link(const Moved &moved) const noexcept {
  if (moved.item != ItemKind::segment) return {};
  const MemPackDescriptor &file = chain_.controlBlock().descriptor(moved.descriptor);
  const MemPackDescriptor &callers = callers_.descriptor(moved.descriptor);
  const auto oldChildren = children(file);
  const auto newChildren = children(callers);
  for (std::size_t i = 0; i < oldChildren.size(); ++i) {
    if (isTextKind(chain_.controlBlock().descriptor(oldChildren[i].Descriptor))) continue;
    if (Outcome failed =
            linkField(moved, oldChildren[i].Offset, newChildren[i].Offset, kMissingChild)) {
      return failed;
    }
  }
  if (hasSibling(file)) {
    if (Outcome failed = linkField(moved, file.SiblingOff, callers.SiblingOff, kMissingSibling)) {
      return failed;
    }
  }
  const auto oldReferences = references(file);
  const auto newReferences = references(callers);
  for (std::size_t i = 0; i < oldReferences.size(); ++i) {
    if (Outcome failed = linkField(moved, oldReferences[i], newReferences[i], kMissingReference)) {
      return failed;
    }
  }
  return {};
}

Outcome Linker::linkField(const Moved &moved, std::int16_t oldOffset, std::int16_t newOffset,
                          const MissingTexts &missing) const noexcept {
  ContentPlace target{};
  bool isNull = false;
  if (Outcome failed = pointers_.read(moved.from, oldOffset, target, isNull)) return failed;
  if (isNull) return {};
  if (!index_.contains(target)) return missingTarget(index_, target, missing);
  storeAs<void *>(moved.pCopy + newOffset, pMoved_[index_.number(target)].pCopy);
  return {};
}

// The writer's pointer width, told from where the two control blocks have the root's first two
// child pointers.
std::uint32_t writersPointerWidth(const PackControlBlock &file,
                                  const PackControlBlock &callers) noexcept {
  if (rootChildOffset(file, 0) < rootChildOffset(callers, 0)) return 4;
  if (file.count() < kSecondChildCompared) return 8;
  return rootChildOffset(callers, 1) <= rootChildOffset(file, 1) ? 8 : 4;
}

void traceDirection(CallFrame &frame, std::uint32_t width) noexcept {
  frame.trace(kExitRecord, kLineDirection,
              width == 4 ? "The file was written in 32 bit and the current platform is 64 bit"
                         : "The file was written in 64 bit and the current platform is 32 bit");
}

Outcome obtainMoved(WorkStorage &table, std::uint32_t count) noexcept {
  const bool isCountable = count <= UINT32_MAX / sizeof(Moved);
  if (isCountable && table.obtain(count * static_cast<std::uint32_t>(sizeof(Moved)))) return {};
  return noStorage("NewBlockTblCallocFail");
}

}  // namespace

Outcome repack(CallFrame &frame, PackedChain &chain, const ContentPlace &root,
               const PackControlBlock &callers, MemPackBlock *&pNewFirst,
               void *&pNewRoot) noexcept {
  if (!callers.exists()) return noStorage("NewPackCBInvalid");
  if (const MemPackDescriptor *pInvalid = callers.firstInvalid()) return badDescriptor(pInvalid);
  PlaceIndex index(chain);
  if (Outcome failed = index.open()) return failed;
  const OldPointers pointers(chain, writersPointerWidth(chain.controlBlock(), callers));
  traceDirection(frame, pointers.width());

  chain.startClaims();
  Survey survey(chain, callers, pointers, index);
  if (Outcome failed = ChainWalk(chain, survey).run(root)) return failed;
  const std::uint32_t count = index.seal();
  WorkStorage table;
  if (Outcome failed = obtainMoved(table, count)) return failed;
  auto *pMoved = table.as<Moved>();

  NewChain newChain;
  if (Outcome failed = newChain.start(chain.version(), callers)) return failed;
  Mover mover(chain, callers, pointers, index, pMoved, newChain.blocks());
  if (Outcome failed = ChainWalk(chain, mover).run(root)) return failed;
  const Linker linker(chain, callers, pointers, index, pMoved);
  for (std::uint32_t i = 0; i < count; ++i) {
    if (Outcome failed = linker.link(pMoved[i])) return failed;
  }
  pNewRoot = pMoved[index.number(root)].pCopy;
  pNewFirst = newChain.release();
  return {};
}

}  // namespace mem
