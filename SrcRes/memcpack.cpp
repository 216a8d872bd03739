#include "memcpack.h"

#include <cstring>

#include "bytes.h"
#include "callframe.h"
#include "memcpack_blocks.h"
#include "memcpack_cb.h"
#include "memcpack_outcome.h"

namespace mem {

namespace {

constexpr EntryPoint kPack{"MEM_Pack", kSourcePack, 402, 911};

// Arguments of the table that maps the address of a packed segment to its record.
constexpr std::int16_t kTableMax = 127;
constexpr std::int16_t kTableAreaKB = 4;
constexpr std::uint16_t kTableSubPool = 0;

// What the table keeps of a packed segment. The key comes first.
struct PackRecord {
  const void *pSegment;   // in the caller's structure
  std::byte *pCopy;       // in the blocks
  MemPackRelPtr relPtr;   // of the copy
  PackRecord *pPrevious;  // segment packed before this one
  std::uint16_t Descriptor;
  std::uint8_t Reserved34[6];
};
MEM_CHECK_SIZE(PackRecord, 40);
MEM_CHECK_OFFSET(PackRecord, Descriptor, 32);

PackFailure hashFailure(const char *pExitText) noexcept {
  return {.result = -1, .code = 0, .text = ErrorText(), .pExitText = pExitText, .isRecorded = true};
}

PackFailure badSegmentPointer(const void *pSegment) noexcept {
  return failure(MEMERR_PACKSPTR, ErrorText("Invalid Segment Ptr=").pointer(pSegment));
}

PackFailure blockTooSmall(std::int32_t blockLen) noexcept {
  return failure(MEMERR_PACKBMIN, ErrorText("BlockTooSmallforMemPackCB=").decimal(blockLen));
}

PackFailure segmentTooLarge(std::int64_t length) noexcept {
  return failure(MEMERR_PACKBMIN,
                 ErrorText("SegmentLengthTooLarge=").decimal(static_cast<std::int16_t>(length)));
}

PackFailure stringTooLarge(std::int64_t length) noexcept {
  return failure(MEMERR_PACKBMIN,
                 ErrorText("StringLengthTooLarge=").decimal(static_cast<std::int32_t>(length)));
}

// Why the chain has no further block.
Outcome failedBlock(Placement placement) noexcept {
  if (placement == Placement::tooManyBlocks) return badBlockCount(MEM_PACK_MAX_BLOCKS + 1);
  return failure(MEMERR_PACKAMEM, ErrorText("NthBlkMemAllocFail"));
}

std::int64_t wideLength(const void *pText) noexcept {
  std::int64_t units = 0;
  while (loadAs<char16_t>(bytesAt(pText, static_cast<std::size_t>(units) * 2)) != 0) ++units;
  return units;
}

// Bytes of a segment. REQUIRES: not wide text.
std::int64_t segmentLength(const MemPackDescriptor &descriptor, const void *pSegment) noexcept {
  switch (descriptor.Type) {
    case MEM_PACK_FIXED:
      return descriptor.FixedLen;
    case MEM_PACK_COUNTED:
      return std::int64_t{loadAs<std::int16_t>(pSegment)} + 2;
    case MEM_PACK_STRING:
      return static_cast<std::int64_t>(std::strlen(static_cast<const char *>(pSegment))) + 1;
    default:
      return loadAs<std::uint16_t>(pSegment);
  }
}

bool hasNegativeCount(const MemPackDescriptor &descriptor, const void *pSegment) noexcept {
  return descriptor.Type == MEM_PACK_COUNTED && loadAs<std::int16_t>(pSegment) < 0;
}

// One call of MEM_Pack: the walk that copies segments (copyStructure), then the fix-up of the
// pointers in the copies (fixPointers). The caller's structure is only read.
class Packer {
 public:
  Packer(const MemPackCB *pPackCB, const void *pRoot, std::int32_t blockLen,
         MemPackBlock **ppFirstBlk) noexcept
      : controlBlock_(pPackCB),
        pRoot_(pRoot),
        blockLen_(blockLen),
        ppFirstBlk_(ppFirstBlk),
        chain_(blockLen) {}

  Outcome run() noexcept;

  bool hasTable() const noexcept { return hTable_ != nullptr; }
  std::int16_t closeTable() noexcept { return functionVector().MEM_HashClose(hTable_); }

 private:
  struct Level {
    std::uint16_t descriptor;
    std::uint16_t nextChild;  // next child entry to examine
    const void *pSegment;
  };
  enum class Step { segment, finished, overflow };

  Outcome checkArguments() const noexcept;
  Outcome openTable() noexcept;
  Outcome startChain() noexcept;
  Outcome writeControlBlock() noexcept;
  Outcome copyStructure() noexcept;
  Outcome copySegment(const Level &level) noexcept;
  Outcome copyStrings(const Level &level, std::byte *pCopy) noexcept;
  Outcome copyString(bool isWide, const void *pText, MemPackRelPtr &relPtr) noexcept;
  Outcome recordSegment(const Level &level, const PlacedItem &item) noexcept;
  Step nextSegment() noexcept;
  Level takeChild(Level &level) const noexcept;
  const void *sibling(const Level &level) const noexcept;
  Outcome fixPointers() noexcept;
  Outcome fixRecord(const PackRecord &record) noexcept;
  Outcome fixPointer(std::byte *pCopy, std::int16_t offset) noexcept;

  bool isText(const MemPackChild &child) const noexcept {
    return isTextKind(controlBlock_.descriptor(child.Descriptor));
  }

  const PackControlBlock controlBlock_;
  const void *const pRoot_;
  const std::int32_t blockLen_;
  MemPackBlock **const ppFirstBlk_;

  BlockChain chain_;
  HMEMHASH hTable_ = nullptr;
  PackRecord *pLastRecord_ = nullptr;
  Level levels_[MEM_PACK_MAX_LEVELS];
  std::int32_t depth_ = 0;  // current level; -1 once the walk is over
};

Outcome Packer::run() noexcept {
  if (Outcome failed = checkArguments()) return failed;
  if (Outcome failed = openTable()) return failed;
  if (Outcome failed = startChain()) return failed;
  if (Outcome failed = writeControlBlock()) return failed;
  if (Outcome failed = copyStructure()) return failed;
  return fixPointers();
}

Outcome Packer::checkArguments() const noexcept {
  if (!controlBlock_.exists()) return badDescriptor(controlBlock_.address());
  if (pRoot_ == nullptr || ppFirstBlk_ == nullptr) return badSegmentPointer(nullptr);
  if (const MemPackDescriptor *pInvalid = controlBlock_.firstInvalid()) {
    return badDescriptor(pInvalid);
  }
  return {};
}

Outcome Packer::openTable() noexcept {
  const std::int16_t result =
      functionVector().MEM_HashOpen(&hTable_, offsetof(PackRecord, pSegment), sizeof(void *),
                                    kTableMax, MEM_PackHashFunc, kTableAreaKB, kTableSubPool);
  if (result == 0) return {};
  hTable_ = nullptr;
  return hashFailure("HashOpen Return=FAILED");
}

Outcome Packer::startChain() noexcept {
  if (!chain_.canHoldHeader()) return blockTooSmall(blockLen_);  // no block to hand out either
  MemPackBlock *pFirst = chain_.start();
  if (pFirst == nullptr) return failure(MEMERR_PACKAMEM, ErrorText("1stBlkMemAllocFail"));
  *ppFirstBlk_ = pFirst;
  if (!chain_.canHoldControlBlock(controlBlock_.length())) return blockTooSmall(blockLen_);
  return {};
}

Outcome Packer::writeControlBlock() noexcept {
  const MEMProcessBlock *pProcessBlk = processBlock();
  if (pProcessBlk == nullptr || pProcessBlk->OldPackCB == 0) {
    std::memcpy(chain_.append(4), platformIsBigEndian() ? "0221" : "0220", 4);
    std::memcpy(chain_.append(controlBlock_.length()), controlBlock_.address(),
                controlBlock_.length());
    return {};
  }
  std::memcpy(chain_.append(4), "0100", 4);
  if (hasTooManyChildrenForOld(controlBlock_)) {
    return PackFailure{.result = -1,
                       .code = 0,
                       .text = ErrorText(),
                       .pExitText = "Too many Child Ptrs for Old MemPackCB, rc=FAILED"};
  }
  writeOldControlBlock(controlBlock_, chain_.append(oldControlBlockLen(controlBlock_.count())));
  return {};
}

// Depth first, from the root: each segment, then its strings, then its children, then its sibling.
Outcome Packer::copyStructure() noexcept {
  depth_ = 0;
  levels_[0] = {.descriptor = 0, .nextChild = 0, .pSegment = pRoot_};
  Step step = Step::segment;
  while (step == Step::segment) {
    if (Outcome failed = copySegment(levels_[depth_])) return failed;
    step = nextSegment();
  }
  if (step == Step::finished) return {};
  return failure(MEMERR_PACKSTAK, ErrorText("TraversalStackOverflow"));
}

Outcome Packer::copySegment(const Level &level) noexcept {
  const MemPackDescriptor &descriptor = controlBlock_.descriptor(level.descriptor);
  if (descriptor.Type == MEM_PACK_WIDE_STRING) {
    return PackFailure{.result = -1, .code = 0, .text = ErrorText("WideStringOutOfPlace")};
  }
  // Kinds beyond the count were not looked at before the walk.
  if (!controlBlock_.hasValidCounts(descriptor)) return badDescriptor(&descriptor);

  const std::int64_t length = segmentLength(descriptor, level.pSegment);
  if (hasNegativeCount(descriptor, level.pSegment)) return segmentTooLarge(length);
  if (!pointersLieWithin(descriptor, length)) return badDescriptor(&descriptor);

  PlacedItem item;
  const Placement placement = chain_.placeSegment(length, item);
  if (placement == Placement::tooLong) return segmentTooLarge(length);
  if (placement != Placement::done) return failedBlock(placement);
  std::memcpy(item.pBytes, level.pSegment, static_cast<std::size_t>(length));
  if (Outcome failed = copyStrings(level, item.pBytes)) return failed;
  return recordSegment(level, item);
}

// Reads the pointers from the caller's segment: in the copy, one that an earlier entry names too
// would be a relative pointer already.
Outcome Packer::copyStrings(const Level &level, std::byte *pCopy) noexcept {
  for (const MemPackChild &child : children(controlBlock_.descriptor(level.descriptor))) {
    const MemPackDescriptor &kind = controlBlock_.descriptor(child.Descriptor);
    if (!isTextKind(kind)) continue;
    const void *pText = loadPointer(level.pSegment, child.Offset);
    if (pText == nullptr) continue;
    MemPackRelPtr relPtr{};
    if (Outcome failed = copyString(kind.Type == MEM_PACK_WIDE_STRING, pText, relPtr)) {
      return failed;
    }
    storeAs(bytesAt(pCopy, static_cast<std::size_t>(child.Offset)), relPtr);
  }
  return {};
}

// Wide text gets twice its room, so that a reader with 4-byte characters can widen it in place.
Outcome Packer::copyString(bool isWide, const void *pText, MemPackRelPtr &relPtr) noexcept {
  const std::int64_t length =
      isWide ? 2 * wideLength(pText) + 2
             : static_cast<std::int64_t>(std::strlen(static_cast<const char *>(pText))) + 1;
  const std::int64_t reserved = isWide ? 2 * length : length;
  PlacedItem item;
  const Placement placement = chain_.placeString(reserved, isWide, item);
  if (placement == Placement::tooLong) return stringTooLarge(length);
  if (placement != Placement::done) return failedBlock(placement);
  std::memcpy(item.pBytes, pText, static_cast<std::size_t>(length));
  relPtr = item.relPtr;
  return {};
}

Outcome Packer::recordSegment(const Level &level, const PlacedItem &item) noexcept {
  const PackRecord record{.pSegment = level.pSegment,
                          .pCopy = item.pBytes,
                          .relPtr = item.relPtr,
                          .pPrevious = pLastRecord_,
                          .Descriptor = level.descriptor,
                          .Reserved34 = {}};
  void *pStored = nullptr;
  const std::int16_t result = functionVector().MEM_HashInsEntry(
      hTable_, static_cast<std::int16_t>(sizeof record), &record, &pStored);
  if (result == MEMERR_HASHDKEY) {
    return failure(MEMERR_PACKCYCL, ErrorText("RecursiveStructure"));
  }
  if (result != 0) return hashFailure("HashInsEntry Return=FAILED");
  pLastRecord_ = static_cast<PackRecord *>(pStored);
  return {};
}

// Moves on to the segment that is copied next. Sibling chains do not deepen the stack.
Packer::Step Packer::nextSegment() noexcept {
  for (; depth_ >= 0; --depth_) {
    Level &level = levels_[depth_];
    const Level child = takeChild(level);
    if (child.pSegment != nullptr) {
      if (depth_ + 1 == MEM_PACK_MAX_LEVELS) return Step::overflow;
      levels_[++depth_] = child;
      return Step::segment;
    }
    if (const void *pSibling = sibling(level)) {
      level = {.descriptor = level.descriptor, .nextChild = 0, .pSegment = pSibling};
      return Step::segment;
    }
  }
  return Step::finished;
}

// The level's next child that is a segment of its own, or a level without a segment.
Packer::Level Packer::takeChild(Level &level) const noexcept {
  const auto all = children(controlBlock_.descriptor(level.descriptor));
  while (level.nextChild < all.size()) {
    const MemPackChild &child = all[level.nextChild++];
    if (isText(child)) continue;
    if (const void *pChild = loadPointer(level.pSegment, child.Offset)) {
      return {.descriptor = child.Descriptor, .nextChild = 0, .pSegment = pChild};
    }
  }
  return {};
}

const void *Packer::sibling(const Level &level) const noexcept {
  const MemPackDescriptor &descriptor = controlBlock_.descriptor(level.descriptor);
  return hasSibling(descriptor) ? loadPointer(level.pSegment, descriptor.SiblingOff) : nullptr;
}

Outcome Packer::fixPointers() noexcept {
  for (const PackRecord *pRecord = pLastRecord_; pRecord != nullptr; pRecord = pRecord->pPrevious) {
    if (Outcome failed = fixRecord(*pRecord)) return failed;
  }
  return {};
}

Outcome Packer::fixRecord(const PackRecord &record) noexcept {
  const MemPackDescriptor &descriptor = controlBlock_.descriptor(record.Descriptor);
  if (hasSibling(descriptor)) {
    if (Outcome failed = fixPointer(record.pCopy, descriptor.SiblingOff)) return failed;
  }
  for (const MemPackChild &child : children(descriptor)) {
    if (isText(child)) continue;  // done when the text was copied
    if (Outcome failed = fixPointer(record.pCopy, child.Offset)) return failed;
  }
  for (const std::int16_t offset : references(descriptor)) {
    if (Outcome failed = fixPointer(record.pCopy, offset)) return failed;
  }
  return {};
}

Outcome Packer::fixPointer(std::byte *pCopy, std::int16_t offset) noexcept {
  const void *pTarget = loadPointer(pCopy, offset);
  if (pTarget == nullptr) return {};
  void *pFound = nullptr;
  const std::int16_t result = functionVector().MEM_HashGetEntry(hTable_, &pTarget, &pFound);
  if (result == MEMERR_HASHNFND) return badSegmentPointer(pTarget);
  if (result != 0) return hashFailure("HashGetEntry Return=FAILED");
  storeAs(bytesAt(pCopy, static_cast<std::size_t>(offset)),
          static_cast<const PackRecord *>(pFound)->relPtr);
  return {};
}

}  // namespace

std::int16_t finishFailed(CallFrame &frame, const PackFailure &failed) noexcept {
  if (failed.pExitText != nullptr) frame.traceExit(failed.pExitText);
  if (failed.isRecorded) return frame.finish(failed.result);
  return frame.fail({.code = failed.code,
                     .text = failed.text.c_str(),
                     .marksComponent = true,
                     .result = failed.result});
}

std::int16_t MEM_PackHashFunc(const void *pKey) noexcept {
  const std::size_t lowestByte = platformIsBigEndian() ? 3 : 0;
  return static_cast<std::int16_t>(loadAs<std::uint8_t>(bytesAt(pKey, lowestByte)) >> 1);
}

std::int16_t MEM_Pack(const MemPackCB *pPackCB, const void *pRoot, std::int32_t BlkLen,
                      MemPackBlock **ppFirstBlk) noexcept {
  CallFrame frame(kPack, ErrorArea::clear);
  frame.traceEntry("Parms: BlkLen=%ld", BlkLen);
  Packer packer(pPackCB, pRoot, BlkLen, ppFirstBlk);
  if (const Outcome failed = packer.run()) {
    {
      const ErrorAreaKeeper keeper(frame);
      if (packer.hasTable()) packer.closeTable();
    }
    return finishFailed(frame, *failed);
  }
  if (packer.closeTable() != 0) {
    // The chain is complete; only the table's storage is in doubt.
    frame.traceExit("HashClose Return=FAILED");
    return frame.finish(0);
  }
  return frame.succeed();
}

}  // namespace mem
