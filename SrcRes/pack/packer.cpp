#include "pack/packer.h"

#include <cstring>

#include "base/bytes.h"
#include "hash/owned_table.h"
#include "platform/textscan.h"

namespace memlib {

namespace {

// Arguments of the table that maps the address of a packed segment to its record.
constexpr std::int16_t kTableMax = 127;
constexpr std::int16_t kTableAreaKB = 4;
constexpr std::uint16_t kTableSubPool = 0;

// How many records ahead the fix-up prefetches: slots of the table's index, and the records that
// these point to.
constexpr int kFarAhead = 8;
constexpr int kNearAhead = 4;

// MEM_PackHashFunc: 0..127 from an 8-byte address. Uses the byte that would be the lowest one of a
// 4-byte address on the host's platform, without the bit that alignment clears.
std::int16_t packHash(const void *pKey) noexcept {
  const std::size_t lowestByte = platformIsBigEndian() ? 3 : 0;
  return static_cast<std::int16_t>(loadAs<std::uint8_t>(bytesAt(pKey, lowestByte)) >> 1);
}

StepFailure hashFailure(const char *pExitText) noexcept {
  return {.pExitText = pExitText, .isRecorded = true};
}

StepFailure badSegmentPointer(const void *pSegment) noexcept {
  return failure(MEMERR_PACKSPTR, ErrorText("Invalid Segment Ptr=").pointer(pSegment));
}

StepFailure blockTooSmall(std::int32_t blockLen) noexcept {
  return failure(MEMERR_PACKBMIN, ErrorText("BlockTooSmallforMemPackCB=").decimal(blockLen));
}

StepFailure segmentTooLarge(std::int64_t length) noexcept {
  return failure(MEMERR_PACKBMIN,
                 ErrorText("SegmentLengthTooLarge=").decimal(static_cast<std::int16_t>(length)));
}

StepFailure stringTooLarge(std::int64_t length) noexcept {
  return failure(MEMERR_PACKBMIN,
                 ErrorText("StringLengthTooLarge=").decimal(static_cast<std::int32_t>(length)));
}

// Bytes of a segment. REQUIRES: not wide text.
std::int64_t segmentLength(const MemPackDescriptor &descriptor, const void *pSegment) noexcept {
  MEM_ASSERT(descriptor.Type != MEM_PACK_WIDE_STRING);
  switch (descriptor.Type) {
    case MEM_PACK_FIXED:
      return descriptor.FixedLen;
    case MEM_PACK_STRING:
      return static_cast<std::int64_t>(std::strlen(static_cast<const char *>(pSegment))) + 1;
    default:
      return lengthByWord(descriptor, loadAs<std::uint16_t>(pSegment));
  }
}

// The record made `count` records before this one, or null.
const PackRecord *recordBefore(const PackRecord *pRecord, int count) noexcept {
  for (; pRecord != nullptr && count > 0; --count) pRecord = pRecord->pPrevious;
  return pRecord;
}

}  // namespace

const Outcome &Packer::run() noexcept {
  static_cast<void>(checkArguments() && openTable() && startChain() && writeControlBlock() &&
                    copyStructure() && fixPointers());
  MEM_ASSERT_VALID(chain_.isValid());
  return failed_;
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
                                    kTableMax, packHash, kTableAreaKB, kTableSubPool);
  if (result == 0) {
    allowIndex(frame_, hTable_, packHash);
    return true;
  }
  hTable_ = nullptr;
  return fail(hashFailure("HashOpen Return=FAILED"));
}

bool Packer::startChain() noexcept {
  if (!chain_.canHoldHeader()) return fail(blockTooSmall(blockLen_));  // before any block exists
  MemPackBlock *pFirst = chain_.start();
  if (pFirst == nullptr) return fail(failure(MEMERR_PACKAMEM, ErrorText("1stBlkMemAllocFail")));
  *ppFirstBlk_ = pFirst;
  if (!chain_.canHoldControlBlock(controlBlock_.length())) return fail(blockTooSmall(blockLen_));
  return true;
}

bool Packer::writeControlBlock() noexcept {
  const MEMProcessBlock *pProcessBlk = processBlock();
  if (pProcessBlk == nullptr || pProcessBlk->OldPackCB == 0) {
    std::memcpy(chain_.append(kPackVersionLen), platformIsBigEndian() ? "0221" : "0220",
                kPackVersionLen);
    std::memcpy(chain_.append(controlBlock_.length()), controlBlock_.address(),
                controlBlock_.length());
    return true;
  }
  std::memcpy(chain_.append(kPackVersionLen), "0100", kPackVersionLen);
  if (hasTooManyChildrenForOld(controlBlock_)) {
    return fail({.pExitText = "Too many Child Ptrs for Old MemPackCB, rc=FAILED"});
  }
  writeOldControlBlock(controlBlock_,
                       chain_.append(kOldLayout.controlBlockLen(controlBlock_.count())));
  return true;
}

// Depth first, from the root: each segment, then its strings, then its children, then its sibling.
bool Packer::copyStructure() noexcept {
  depth_ = 0;
  levels_[0] = {.descriptor = 0, .nextChild = 0, .pSegment = pRoot_};
  Next next = Next::segment;
  while (next == Next::segment) {
    if (!copySegment(levels_[depth_])) return false;
    next = nextSegment();
  }
  if (next == Next::finished) return true;
  return fail(failure(MEMERR_PACKSTAK, ErrorText("TraversalStackOverflow")));
}

bool Packer::copySegment(const Level &level) noexcept {
  const MemPackDescriptor &descriptor = controlBlock_.descriptor(level.descriptor);
  if (descriptor.Type == MEM_PACK_WIDE_STRING) {
    return fail({.text = ErrorText("WideStringOutOfPlace")});
  }
  // Kinds beyond the count were not checked before the walk.
  const SegmentPlan &plan = plans_.of(level.descriptor);
  if (!plan.isValid()) return fail(badDescriptor(&descriptor));

  const std::int64_t length = segmentLength(descriptor, level.pSegment);
  const bool isNegative = descriptor.Type == MEM_PACK_COUNTED && length < kLengthWordLen;
  if (isNegative) return fail(segmentTooLarge(length));
  if (!plan.pointersLieWithin(length)) return fail(badDescriptor(&descriptor));

  PlacedItem item;
  const Placement placement = chain_.placeSegment(length, item);
  if (placement != Placement::done) return fail(notPlaced(placement, segmentTooLarge(length)));
  copyBytes(item.pBytes, level.pSegment, static_cast<std::size_t>(length));
  return copyStrings(plan, level.pSegment, item.pBytes) && recordSegment(level, item);
}

// Reads the pointers from the caller's segment. In the copy a field that several entries name would
// already be a relative pointer.
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

// Wide text gets twice its length, so that a reader with 4-byte characters can widen it in place.
bool Packer::copyString(bool isWide, const void *pText, RelPtrWord &relPtr) noexcept {
  const std::int64_t length =
      isWide ? 2 * static_cast<std::int64_t>(wideLength(pText)) + 2
             : static_cast<std::int64_t>(std::strlen(static_cast<const char *>(pText))) + 1;
  const std::int64_t reserved = isWide ? 2 * length : length;
  PlacedItem item;
  const Placement placement = chain_.placeString(reserved, isWide, item);
  if (placement != Placement::done) return fail(notPlaced(placement, stringTooLarge(length)));
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

// Moves to the segment that is copied next. Sibling chains do not deepen the stack.
Packer::Next Packer::nextSegment() noexcept {
  for (; depth_ >= 0; --depth_) {
    Level &level = levels_[depth_];
    const SegmentPlan &plan = plans_.of(level.descriptor);
    const Level child = takeChild(plan, level);
    if (child.pSegment != nullptr) {
      if (depth_ + 1 == MEM_PACK_MAX_LEVELS) return Next::overflow;
      levels_[++depth_] = child;
      return Next::segment;
    }
    if (!plan.hasSibling()) continue;
    if (const void *pSibling = loadPointer(level.pSegment, plan.sibling())) {
      level = {.descriptor = level.descriptor, .nextChild = 0, .pSegment = pSibling};
      return Next::segment;
    }
  }
  return Next::finished;
}

// The level's next child that is a segment, or a level without a segment.
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

// In a large graph the table's index and records are spread over memory, so the targets of a
// record's pointers are prefetched some records ahead.
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

// Replaces the pointers to segments. Those to text were replaced when the text was copied.
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

}  // namespace memlib
