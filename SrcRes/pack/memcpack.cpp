// Packing: pointer-linked structures become a chain of blocks. The walk over the structure, then
// the fix-up of the pointers.
#include <cstring>

#include "base/bytes.h"
#include "base/copybytes.h"
#include "frame/callframe.h"
#include "hash/owned_table.h"
#include "pack/chain_builder.h"
#include "pack/pack_descriptors.h"
#include "pack/pack_failure.h"
#include "pack/segment_plan.h"
#include "platform/textscan.h"

namespace mem {

namespace {

constexpr EntryPoint kPack{"MEM_Pack", kSourcePack, 402, 911};

// Arguments of the table that maps the address of a packed segment to its record.
constexpr std::int16_t kTableMax = 127;
constexpr std::int16_t kTableAreaKB = 4;
constexpr std::uint16_t kTableSubPool = 0;

// Records by which the fix-up asks for storage ahead: for slots of the table's index, and for the
// records that these lead to.
constexpr int kFarAhead = 8;
constexpr int kNearAhead = 4;

// What the table keeps of a packed segment. The key comes first.
struct PackRecord {
  const void *pSegment;   // in the caller's structure
  std::byte *pCopy;       // in the blocks
  RelPtrWord relPtr;      // of the copy
  PackRecord *pPrevious;  // segment packed before this one
  std::uint16_t Descriptor;
  std::uint8_t Reserved34[6];
};
MEM_CHECK_SIZE(PackRecord, 40);
MEM_CHECK_OFFSET(PackRecord, Descriptor, 32);

// 0..127 from an 8-byte address, by the byte that is the lowest one of a 4-byte address on the
// host's platform, without the bit that alignment clears.
std::int16_t MEM_PackHashFunc(const void *pKey) noexcept {
  const std::size_t lowestByte = platformIsBigEndian() ? 3 : 0;
  return static_cast<std::int16_t>(loadAs<std::uint8_t>(bytesAt(pKey, lowestByte)) >> 1);
}

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
PackFailure failedBlock(Placement placement) noexcept {
  if (placement == Placement::tooManyBlocks) return badBlockCount(MEM_PACK_MAX_BLOCKS + 1);
  return failure(MEMERR_PACKAMEM, ErrorText("NthBlkMemAllocFail"));
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

// The record that was made `count` records before this one, or null.
const PackRecord *recordBefore(const PackRecord *pRecord, int count) noexcept {
  for (; pRecord != nullptr && count > 0; --count) pRecord = pRecord->pPrevious;
  return pRecord;
}

bool hasNegativeCount(const MemPackDescriptor &descriptor, const void *pSegment) noexcept {
  return descriptor.Type == MEM_PACK_COUNTED && loadAs<std::int16_t>(pSegment) < 0;
}

// One call of MEM_Pack: the walk that copies segments (copyStructure), then the fix-up of the
// pointers in the copies (fixPointers). The caller's structure is only read.
class Packer {
 public:
  Packer(const CallFrame &frame, const MemPackCB *pPackCB, const void *pRoot, std::int32_t blockLen,
         MemPackBlock **ppFirstBlk) noexcept
      : frame_(frame),
        controlBlock_(pPackCB),
        pRoot_(pRoot),
        blockLen_(blockLen),
        ppFirstBlk_(ppFirstBlk),
        chain_(blockLen) {}

  // False when packing failed, and failed() says why.
  bool run() noexcept;
  const PackFailure &failed() const noexcept { return *failed_; }

  bool hasTable() const noexcept { return hTable_ != nullptr; }
  std::int16_t closeTable() noexcept { return functionVector().MEM_HashClose(hTable_); }

 private:
  struct Level {
    std::uint16_t descriptor;
    std::uint16_t nextChild;  // next child entry to examine
    const void *pSegment;
  };
  enum class Step { segment, finished, overflow };

  // Each of these is done, or returns false with the failure set.
  bool checkArguments() noexcept;
  bool openTable() noexcept;
  bool startChain() noexcept;
  bool writeControlBlock() noexcept;
  bool copyStructure() noexcept;
  bool copySegment(const Level &level) noexcept;
  bool copyStrings(const SegmentPlan &plan, const void *pSegment, std::byte *pCopy) noexcept;
  bool copyString(bool isWide, const void *pText, RelPtrWord &relPtr) noexcept;
  bool recordSegment(const Level &level, const PlacedItem &item) noexcept;
  bool fixPointers() noexcept;
  template <class Use>
  void forEachTarget(const PackRecord &record, Use use) noexcept;
  bool fixRecord(const PackRecord &record) noexcept;
  bool fixPointer(std::byte *pCopy, std::int16_t offset) noexcept;

  MEM_NOINLINE bool fail(const PackFailure &failed) noexcept {
    failed_ = failed;
    return false;
  }

  Step nextSegment() noexcept;
  static Level takeChild(const SegmentPlan &plan, Level &level) noexcept;

  const CallFrame &frame_;
  const PackControlBlock controlBlock_;
  const void *const pRoot_;
  const std::int32_t blockLen_;
  MemPackBlock **const ppFirstBlk_;

  Outcome failed_;
  BlockChain chain_;
  PlanTable plans_{controlBlock_};
  HMEMHASH hTable_ = nullptr;
  PackRecord *pLastRecord_ = nullptr;
  Level levels_[MEM_PACK_MAX_LEVELS];
  std::int32_t depth_ = 0;  // current level; -1 once the walk is over
};

bool Packer::run() noexcept {
  return checkArguments() && openTable() && startChain() && writeControlBlock() &&
         copyStructure() && fixPointers();
}

bool Packer::checkArguments() noexcept {
  if (!controlBlock_.exists()) return fail(badDescriptor(controlBlock_.address()));
  if (pRoot_ == nullptr || ppFirstBlk_ == nullptr) return fail(badSegmentPointer(nullptr));
  if (const MemPackDescriptor *pInvalid = controlBlock_.firstInvalid()) {
    return fail(badDescriptor(pInvalid));
  }
  return true;
}

bool Packer::openTable() noexcept {
  const std::int16_t result =
      functionVector().MEM_HashOpen(&hTable_, offsetof(PackRecord, pSegment), sizeof(void *),
                                    kTableMax, MEM_PackHashFunc, kTableAreaKB, kTableSubPool);
  if (result == 0) {
    allowIndex(frame_, hTable_, MEM_PackHashFunc);
    return true;
  }
  hTable_ = nullptr;
  return fail(hashFailure("HashOpen Return=FAILED"));
}

bool Packer::startChain() noexcept {
  if (!chain_.canHoldHeader())
    return fail(blockTooSmall(blockLen_));  // no block to hand out either
  MemPackBlock *pFirst = chain_.start();
  if (pFirst == nullptr) return fail(failure(MEMERR_PACKAMEM, ErrorText("1stBlkMemAllocFail")));
  *ppFirstBlk_ = pFirst;
  if (!chain_.canHoldControlBlock(controlBlock_.length())) return fail(blockTooSmall(blockLen_));
  return true;
}

bool Packer::writeControlBlock() noexcept {
  const MEMProcessBlock *pProcessBlk = processBlock();
  if (pProcessBlk == nullptr || pProcessBlk->OldPackCB == 0) {
    std::memcpy(chain_.append(4), platformIsBigEndian() ? "0221" : "0220", 4);
    std::memcpy(chain_.append(controlBlock_.length()), controlBlock_.address(),
                controlBlock_.length());
    return true;
  }
  std::memcpy(chain_.append(4), "0100", 4);
  if (hasTooManyChildrenForOld(controlBlock_)) {
    return fail({.result = -1,
                 .code = 0,
                 .text = ErrorText(),
                 .pExitText = "Too many Child Ptrs for Old MemPackCB, rc=FAILED"});
  }
  writeOldControlBlock(controlBlock_, chain_.append(oldControlBlockLen(controlBlock_.count())));
  return true;
}

// Depth first, from the root: each segment, then its strings, then its children, then its sibling.
bool Packer::copyStructure() noexcept {
  depth_ = 0;
  levels_[0] = {.descriptor = 0, .nextChild = 0, .pSegment = pRoot_};
  Step step = Step::segment;
  while (step == Step::segment) {
    if (!copySegment(levels_[depth_])) return false;
    step = nextSegment();
  }
  if (step == Step::finished) return true;
  return fail(failure(MEMERR_PACKSTAK, ErrorText("TraversalStackOverflow")));
}

bool Packer::copySegment(const Level &level) noexcept {
  const MemPackDescriptor &descriptor = controlBlock_.descriptor(level.descriptor);
  if (descriptor.Type == MEM_PACK_WIDE_STRING) {
    return fail({.result = -1, .code = 0, .text = ErrorText("WideStringOutOfPlace")});
  }
  // Kinds beyond the count were not looked at before the walk.
  const SegmentPlan &plan = plans_.of(level.descriptor);
  if (!plan.isValid()) return fail(badDescriptor(&descriptor));

  const std::int64_t length = segmentLength(descriptor, level.pSegment);
  if (hasNegativeCount(descriptor, level.pSegment)) return fail(segmentTooLarge(length));
  if (!plan.pointersLieWithin(length)) return fail(badDescriptor(&descriptor));

  PlacedItem item;
  const Placement placement = chain_.placeSegment(length, item);
  if (placement == Placement::tooLong) return fail(segmentTooLarge(length));
  if (placement != Placement::done) return fail(failedBlock(placement));
  copyBytes(item.pBytes, level.pSegment, static_cast<std::size_t>(length));
  return copyStrings(plan, level.pSegment, item.pBytes) && recordSegment(level, item);
}

// Reads the pointers from the caller's segment: in the copy, one that an earlier entry names too
// would be a relative pointer already.
bool Packer::copyStrings(const SegmentPlan &plan, const void *pSegment, std::byte *pCopy) noexcept {
  for (const TextField &field : plan.texts()) {
    const void *pText = loadPointer(pSegment, field.Offset);
    if (pText == nullptr) continue;
    RelPtrWord relPtr = 0;
    if (!copyString(field.isWide, pText, relPtr)) return false;
    storeAs(bytesAt(pCopy, static_cast<std::size_t>(field.Offset)), relPtr);
  }
  return true;
}

// Wide text gets twice its room, so that a reader with 4-byte characters can widen it in place.
bool Packer::copyString(bool isWide, const void *pText, RelPtrWord &relPtr) noexcept {
  const std::int64_t length =
      isWide ? 2 * static_cast<std::int64_t>(wideLength(pText)) + 2
             : static_cast<std::int64_t>(std::strlen(static_cast<const char *>(pText))) + 1;
  const std::int64_t reserved = isWide ? 2 * length : length;
  PlacedItem item;
  const Placement placement = chain_.placeString(reserved, isWide, item);
  if (placement == Placement::tooLong) return fail(stringTooLarge(length));
  if (placement != Placement::done) return fail(failedBlock(placement));
  copyBytes(item.pBytes, pText, static_cast<std::size_t>(length));
  relPtr = item.relPtr;
  return true;
}

bool Packer::recordSegment(const Level &level, const PlacedItem &item) noexcept {
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
    return fail(failure(MEMERR_PACKCYCL, ErrorText("RecursiveStructure")));
  }
  if (result != 0) return fail(hashFailure("HashInsEntry Return=FAILED"));
  pLastRecord_ = static_cast<PackRecord *>(pStored);
  return true;
}

// Moves on to the segment that is copied next. Sibling chains do not deepen the stack.
Packer::Step Packer::nextSegment() noexcept {
  for (; depth_ >= 0; --depth_) {
    Level &level = levels_[depth_];
    const SegmentPlan &plan = plans_.of(level.descriptor);
    const Level child = takeChild(plan, level);
    if (child.pSegment != nullptr) {
      if (depth_ + 1 == MEM_PACK_MAX_LEVELS) return Step::overflow;
      levels_[++depth_] = child;
      return Step::segment;
    }
    if (!plan.hasSibling()) continue;
    if (const void *pSibling = loadPointer(level.pSegment, plan.sibling())) {
      level = {.descriptor = level.descriptor, .nextChild = 0, .pSegment = pSibling};
      return Step::segment;
    }
  }
  return Step::finished;
}

// The level's next child that is a segment of its own, or a level without a segment.
Packer::Level Packer::takeChild(const SegmentPlan &plan, Level &level) noexcept {
  const auto all = plan.children();
  while (level.nextChild < all.size()) {
    const MemPackChild &child = all[level.nextChild++];
    if (const void *pChild = loadPointer(level.pSegment, child.Offset)) {
      return {.descriptor = child.Descriptor, .nextChild = 0, .pSegment = pChild};
    }
  }
  return {};
}

// In a large graph the table's index and records are met all over storage: what a record's pointers
// lead to is asked for some records ahead.
bool Packer::fixPointers() noexcept {
  const KeyLookahead *pIndex = indexToAskAhead(frame_, hTable_);
  const PackRecord *pFar = pIndex == nullptr ? nullptr : recordBefore(pLastRecord_, kFarAhead);
  const PackRecord *pNear = pIndex == nullptr ? nullptr : recordBefore(pLastRecord_, kNearAhead);
  for (const PackRecord *pRecord = pLastRecord_; pRecord != nullptr; pRecord = pRecord->pPrevious) {
    if (pFar != nullptr) {
      forEachTarget(*pFar, [pIndex](const void *pTarget) { pIndex->wantSlot(&pTarget); });
      pFar = pFar->pPrevious;
    }
    if (pNear != nullptr) {
      forEachTarget(*pNear, [pIndex](const void *pTarget) {
        pIndex->wantRecord(&pTarget, offsetof(PackRecord, relPtr));
      });
      pNear = pNear->pPrevious;
    }
    if (!fixRecord(*pRecord)) return false;
  }
  return true;
}

template <class Use>
void Packer::forEachTarget(const PackRecord &record, Use use) noexcept {
  for (const std::int16_t offset : plans_.of(record.Descriptor).links()) {
    if (const void *pTarget = loadPointer(record.pCopy, offset)) use(pTarget);
  }
}

// Pointers to text were replaced when the text was copied.
bool Packer::fixRecord(const PackRecord &record) noexcept {
  for (const std::int16_t offset : plans_.of(record.Descriptor).links()) {
    if (!fixPointer(record.pCopy, offset)) return false;
  }
  return true;
}

bool Packer::fixPointer(std::byte *pCopy, std::int16_t offset) noexcept {
  const void *pTarget = loadPointer(pCopy, offset);
  if (pTarget == nullptr) return true;
  void *pFound = nullptr;
  const std::int16_t result = functionVector().MEM_HashGetEntry(hTable_, &pTarget, &pFound);
  if (result == MEMERR_HASHNFND) return fail(badSegmentPointer(pTarget));
  if (result != 0) return fail(hashFailure("HashGetEntry Return=FAILED"));
  storeAs(bytesAt(pCopy, static_cast<std::size_t>(offset)),
          static_cast<const PackRecord *>(pFound)->relPtr);
  return true;
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

std::int16_t MEM_Pack(const MemPackCB *pPackCB, const void *pRoot, std::int32_t BlkLen,
                      MemPackBlock **ppFirstBlk) noexcept {
  CallFrame frame(kPack, ErrorArea::clear);
  frame.traceEntry("Parms: BlkLen=%ld", BlkLen);
  Packer packer(frame, pPackCB, pRoot, BlkLen, ppFirstBlk);
  if (!packer.run()) {
    {
      const ErrorAreaKeeper keeper(frame);
      if (packer.hasTable()) packer.closeTable();
    }
    return finishFailed(frame, packer.failed());
  }
  if (packer.closeTable() != 0) {
    // The chain is complete; only the table's storage is in doubt.
    frame.traceExit("HashClose Return=FAILED");
    return frame.finish(0);
  }
  return frame.succeed();
}

}  // namespace mem
