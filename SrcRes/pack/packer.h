// Packing: turns pointer-linked structures into a chain of blocks.
#pragma once

#include "frame/callframe.h"
#include "pack/chain_builder.h"
#include "pack/pack_descriptors.h"
#include "pack/segment_plan.h"

namespace memlib {

// The table's record of a packed segment. The key comes first.
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

  const Outcome &run() noexcept;

  bool hasTable() const noexcept { return hTable_ != nullptr; }
  std::int16_t closeTable() noexcept { return functionVector().MEM_HashClose(hTable_); }

 private:
  // A level of the traversal stack.
  struct Level {
    std::uint16_t descriptor;
    std::uint16_t nextChild;  // next child entry to examine
    const void *pSegment;
  };
  enum class Next { segment, finished, overflow };

  // Each of these steps returns true, or sets the failure and returns false.
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

  MEM_NOINLINE bool fail(const StepFailure &failed) noexcept {
    failed_ = failed;
    return false;
  }

  Next nextSegment() noexcept;
  static Level takeChild(const SegmentPlan &plan, Level &level) noexcept;

  const CallFrame &frame_;
  const PackControlBlock controlBlock_;
  const void *const pRoot_;
  const std::int32_t blockLen_;
  MemPackBlock **const ppFirstBlk_;

  Outcome failed_;
  ChainBuilder chain_;
  PlanTable plans_{controlBlock_};
  HMEMHASH hTable_ = nullptr;
  PackRecord *pLastRecord_ = nullptr;
  Level levels_[MEM_PACK_MAX_LEVELS];
  std::int32_t depth_ = 0;  // current level; -1 once the walk is over
};

}  // namespace memlib
