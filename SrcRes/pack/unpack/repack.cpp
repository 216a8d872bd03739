// Unpacking into a new chain, in three passes: the survey checks the old chain and numbers its
// segments and texts, the move copies them, and linking stores the new addresses.
#include "base/bytes.h"
#include "pack/chain_builder.h"
#include "pack/unpack/chain_text.h"
#include "pack/unpack/chain_walk.h"
#include "pack/unpack/place_index.h"
#include "pack/unpack/pointer_fields.h"
#include "pack/unpack/unpack_ways.h"

namespace memlib {

namespace {

constexpr std::int32_t kLineDirection = 1341;

// Length of the longest item in a new block.
constexpr std::int64_t kMostOfABlock = MEM_UNPACK_BLOCK_LEN - MEM_PACK_BLOCK_OVERHEAD;

StepFailure blockTooSmall() noexcept {
  return failure(MEMERR_PACKBMIN,
                 ErrorText("BlockTooSmallforMemPackCBinUnpack=").decimal(MEM_UNPACK_BLOCK_LEN));
}

StepFailure segmentTooLarge(std::int64_t length) noexcept {
  return failure(
      MEMERR_PACKBMIN,
      ErrorText("SegmentLengthTooLargeinUnpack=").decimal(static_cast<std::int16_t>(length)));
}

// The failure of a text that no new block can hold: by itself, or with the double room of wide
// text.
StepFailure textTooLarge(std::int64_t length) noexcept {
  const char *const pText =
      length > kMostOfABlock ? "StrBufLengthTooLargeinUnpack=" : "StrBufLengthTooLargeinRepack=";
  return failure(MEMERR_PACKBMIN, ErrorText(pText).decimal(static_cast<std::int16_t>(length)));
}

StepFailure noStorage(const char *pText) noexcept {
  return failure(MEMERR_PACKAMEM, ErrorText(pText));
}

enum class ItemKind : std::uint8_t { segment, narrowText, wideText };

// The new place of a segment or text of the old chain.
struct Moved {
  ContentPlace from;
  std::byte *pCopy;
  std::uint16_t descriptor;
  ItemKind item;
};

// The data of all passes.
struct RepackJob {
  const MemPackDescriptor &oldKind(std::uint16_t kind) const noexcept {
    return chain.controlBlock().descriptor(kind);
  }
  const MemPackDescriptor &newKind(std::uint16_t kind) const noexcept {
    return callers.descriptor(kind);
  }
  Moved &movedFrom(const ContentPlace &place) const noexcept { return pMoved[index.number(place)]; }

  // Reads a pointer field of the old chain. REQUIRES: the field is in its block.
  Outcome read(const ContentPlace &segment, std::int16_t offset,
               PointerTarget &target) const noexcept {
    MEM_ASSERT(offset >= 0 && chain.holds(segment, static_cast<std::uint32_t>(offset) + oldWidth));
    const std::byte *pField = chain.at(segment) + offset;
    const bool isNull = oldWidth == sizeof(std::uint32_t) ? loadAs<std::uint32_t>(pField) == 0
                                                          : loadAs<std::uint64_t>(pField) == 0;
    if (isNull) return {};
    target.emplace();
    return chain.follow(pField, *target);
  }

  Outcome measureText(const TextUse &use, std::uint32_t &length) const noexcept {
    return chain.measureText(use.text, use.isWide ? chain.wideSize() : 1U, length);
  }

  ChainReader &chain;
  const PackControlBlock &callers;
  std::uint32_t oldWidth;   // of the pointers of the old chain
  PlaceIndex index;         // of the items to move
  Moved *pMoved = nullptr;  // one for each place of the index
};

// A walk over the old chain.
class Pass {
 public:
  static constexpr char kTooDeep[] = "UnpackStackOverflow";

  explicit Pass(RepackJob &job) noexcept : job_(job) {}

  Outcome pointer(const ContentPlace &segment, std::int16_t offset,
                  PointerTarget &target) const noexcept {
    return job_.read(segment, offset, target);
  }

 protected:
  RepackJob &job_;
};

// Checks the whole old chain and numbers the items to move. Segments and texts must not overlap, so
// the copies never take more than the chain has.
class Survey : public Pass {
 public:
  using Pass::Pass;

  Outcome visit(std::uint16_t kind, const ContentPlace &place) noexcept {
    if (Outcome failed = checkKind(kind)) return failed;
    const MemPackDescriptor &file = job_.oldKind(kind);
    // Wide text is never a segment; only a root can be described as one.
    if (file.Type == MEM_PACK_WIDE_STRING) return job_.chain.file().badKind(kind);
    std::uint32_t length = 0;
    if (Outcome failed = job_.chain.measureSegment(file, place, length)) return failed;
    if (!pointersLieWithin(file, length, job_.oldWidth)) return badOffset(place.offset);
    return number(place, length);
  }

  Outcome visitText(const TextUse &use) noexcept {
    const MemPackDescriptor &owner = job_.oldKind(use.descriptor);
    if (Outcome failed = checkKind(owner.Children[use.child].Descriptor)) return failed;
    // Narrow text may be shared. The move checks that the item reached first is text.
    if (!use.isWide && job_.index.contains(use.text)) return {};
    std::uint32_t length = 0;
    if (Outcome failed = job_.measureText(use, length)) return failed;
    return number(use.text, length);
  }

 private:
  // Both control blocks must describe the same kind.
  Outcome checkKind(std::uint16_t kind) const noexcept {
    const MemPackDescriptor &file = job_.oldKind(kind);
    // Kinds beyond the count were not checked before the walk.
    if (!job_.chain.controlBlock().hasValidCounts(file)) return job_.chain.file().badKind(kind);
    if (kind >= job_.callers.present()) return badDescriptor(job_.callers.address());
    const MemPackDescriptor &callers = job_.newKind(kind);
    const bool isSame = job_.callers.hasValidCounts(callers) && haveSameFields(file, callers);
    return isSame ? Outcome{} : badDescriptor(&callers);
  }

  Outcome number(const ContentPlace &place, std::uint32_t length) noexcept {
    if (job_.index.contains(place) || !job_.chain.claim(place, length)) return reachedTwice();
    job_.index.add(place);
    return {};
  }
};

// The new chain. Freed unless it is released to the caller.
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

  ChainBuilder &blocks() noexcept { return blocks_; }
  MemPackBlock *release() noexcept {
    MEM_ASSERT_VALID(blocks_.isValid());
    MemPackBlock *pFirst = pFirst_;
    pFirst_ = nullptr;
    return pFirst;
  }

 private:
  ChainBuilder blocks_;
  MemPackBlock *pFirst_ = nullptr;
};

// Copies every segment and text and records its new place. Links the texts.
class Mover : public Pass {
 public:
  Mover(RepackJob &job, ChainBuilder &blocks) noexcept
      : Pass(job), blocks_(blocks), text_(job.chain) {}

  Outcome visit(std::uint16_t kind, const ContentPlace &place) noexcept;
  Outcome visitText(const TextUse &use) noexcept;

 private:
  std::int64_t newLength(const MemPackDescriptor &file, const MemPackDescriptor &callers,
                         std::uint32_t oldLength) const noexcept;
  Outcome copyText(const TextUse &use, Moved &moved) noexcept;

  ChainBuilder &blocks_;
  TextConverter text_;
};

// A segment that contains its own length keeps all bytes after its last pointer field.
std::int64_t Mover::newLength(const MemPackDescriptor &file, const MemPackDescriptor &callers,
                              std::uint32_t oldLength) const noexcept {
  if (file.Type == MEM_PACK_FIXED) return callers.FixedLen;
  return oldLength - lastFieldEnd(file, job_.oldWidth) + lastFieldEnd(callers, sizeof(void *));
}

// The length word of a segment that has one, in native order.
void storeLength(const MemPackDescriptor &descriptor, std::byte *pSegment,
                 std::int64_t length) noexcept {
  if (descriptor.Type == MEM_PACK_FIXED || descriptor.Type == MEM_PACK_STRING) return;
  if (length < kLengthWordLen) return;
  const bool isCounted = descriptor.Type == MEM_PACK_COUNTED;
  storeAs(pSegment, static_cast<std::uint16_t>(isCounted ? length - kLengthWordLen : length));
}

Outcome Mover::visit(std::uint16_t kind, const ContentPlace &place) noexcept {
  const MemPackDescriptor &file = job_.oldKind(kind);
  const MemPackDescriptor &callers = job_.newKind(kind);
  std::uint32_t oldLength = 0;
  if (Outcome failed = job_.chain.measureSegment(file, place, oldLength)) return failed;
  const std::int64_t length = newLength(file, callers, oldLength);
  if (!pointersLieWithin(callers, length) || !fieldsLieApart(callers)) {
    return badDescriptor(&callers);
  }
  const bool isTellable = file.Type != MEM_PACK_COUNTED || length - kLengthWordLen <= INT16_MAX;
  if (!isTellable) return segmentTooLarge(length);

  PlacedItem item;
  const Placement placement = blocks_.placeSegment(length, item);
  if (placement != Placement::done) return notPlaced(placement, segmentTooLarge(length));
  copyRuns({file, oldLength, job_.oldWidth}, job_.chain.at(place),
           {callers, static_cast<std::uint32_t>(length), sizeof(void *)}, item.pBytes);
  storeLength(file, item.pBytes, length);
  job_.movedFrom(place) = {place, item.pBytes, kind, ItemKind::segment};
  return {};
}

Outcome Mover::visitText(const TextUse &use) noexcept {
  Moved &moved = job_.movedFrom(use.text);
  if (moved.pCopy == nullptr) {
    if (Outcome failed = copyText(use, moved)) return failed;
  } else if (moved.item != ItemKind::narrowText) {
    return reachedTwice();
  }
  const Moved &owner = job_.movedFrom(use.segment);
  const std::int16_t offset = job_.newKind(use.descriptor).Children[use.child].Offset;
  storeAs<void *>(owner.pCopy + offset, moved.pCopy);
  return {};
}

Outcome Mover::copyText(const TextUse &use, Moved &moved) noexcept {
  std::uint32_t length = 0;
  if (Outcome failed = job_.measureText(use, length)) return failed;
  // Wide text of 2-byte writers keeps the double room that the packer reserves.
  const bool isDoubled = use.isWide && job_.chain.wideSize() == sizeof(char16_t);
  PlacedItem item;
  const Placement placement =
      blocks_.placeString(std::int64_t{length} * (isDoubled ? 2 : 1), use.isWide, item);
  if (placement != Placement::done) return notPlaced(placement, textTooLarge(length));
  copyBytes(item.pBytes, job_.chain.at(use.text), length);
  moved = {use.text, item.pBytes, use.descriptor,
           use.isWide ? ItemKind::wideText : ItemKind::narrowText};
  return use.isWide ? text_.convert(item.pBytes, length) : Outcome{};
}

// Error texts for a pointer to a place that was not moved: in a block from which nothing was moved,
// or at another offset. Each kind of pointer has its own texts.
struct MissingTexts {
  const char *pBlock;
  const char *pOffset;
};
constexpr MissingTexts kMissingChild{"NewBlockTblBlkNumErr", "NewBlockTblOffsetErr"};
constexpr MissingTexts kMissingSibling{"UnpackSibNewBlockTblBlkErr",
                                       "UnpackSibNewBlockTblOffsetErr"};
constexpr MissingTexts kMissingReference{"RepackNewBlockTblBlkErr", "RepackNewBlockTblOffsetErr"};

// Stores the new address in a pointer field of a copy.
Outcome linkField(const RepackJob &job, const Moved &moved, std::int16_t oldOffset,
                  std::int16_t newOffset, const MissingTexts &missing) noexcept {
  PointerTarget target;
  if (Outcome failed = job.read(moved.from, oldOffset, target)) return failed;
  if (!target) return {};
  if (!job.index.contains(*target)) {
    return job.index.containsAnyOf(target->block)
               ? failure(MEMERR_PACKROFF, ErrorText(missing.pOffset))
               : failure(MEMERR_PACKRBLK, ErrorText(missing.pBlock));
  }
  storeAs<void *>(moved.pCopy + newOffset, job.movedFrom(*target).pCopy);
  return {};
}

// Links the pointers to segments in a copied segment.
Outcome link(const RepackJob &job, const Moved &moved) noexcept {
  const MemPackDescriptor &file = job.oldKind(moved.descriptor);
  const MemPackDescriptor &callers = job.newKind(moved.descriptor);
  for (std::size_t i = 0; i < children(file).size(); ++i) {
    const MemPackChild &child = file.Children[i];
    if (isTextKind(job.oldKind(child.Descriptor))) continue;
    if (Outcome failed =
            linkField(job, moved, child.Offset, callers.Children[i].Offset, kMissingChild)) {
      return failed;
    }
  }
  if (hasSibling(file)) {
    if (Outcome failed =
            linkField(job, moved, file.SiblingOff, callers.SiblingOff, kMissingSibling)) {
      return failed;
    }
  }
  for (std::size_t i = 0; i < references(file).size(); ++i) {
    if (Outcome failed =
            linkField(job, moved, file.References[i], callers.References[i], kMissingReference)) {
      return failed;
    }
  }
  return {};
}

Outcome linkAll(const RepackJob &job, std::uint32_t count) noexcept {
  for (std::uint32_t i = 0; i < count; ++i) {
    if (job.pMoved[i].item != ItemKind::segment) continue;
    if (Outcome failed = link(job, job.pMoved[i])) return failed;
  }
  return {};
}

// The writer's pointer width, derived from the offsets of the root's first two child pointers in
// the two control blocks.
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

Outcome repack(CallFrame &frame, ChainReader &chain, const ContentPlace &root,
               const PackControlBlock &callers, MemPackBlock *&pNewFirst,
               void *&pNewRoot) noexcept {
  if (!callers.exists()) return noStorage("NewPackCBInvalid");
  if (const MemPackDescriptor *pInvalid = callers.firstInvalid()) return badDescriptor(pInvalid);
  const std::uint32_t oldWidth = writersPointerWidth(chain.controlBlock(), callers);
  RepackJob job{chain, callers, oldWidth, PlaceIndex(chain)};
  if (Outcome failed = job.index.open()) return failed;
  traceDirection(frame, oldWidth);

  chain.startClaims();
  Survey survey(job);
  if (Outcome failed = ChainWalk(chain, survey).run(root)) return failed;
  const std::uint32_t count = job.index.seal();
  WorkStorage table;
  if (Outcome failed = obtainMoved(table, count)) return failed;
  job.pMoved = table.as<Moved>();

  NewChain newChain;
  if (Outcome failed = newChain.start(chain.file().version(), callers)) return failed;
  Mover mover(job, newChain.blocks());
  if (Outcome failed = ChainWalk(chain, mover).run(root)) return failed;
  if (Outcome failed = linkAll(job, count)) return failed;
  pNewRoot = job.movedFrom(root).pCopy;
  pNewFirst = newChain.release();
  return {};
}

}  // namespace memlib
