/** @file chaincheck.hpp
 * Checks that an unpacked chain matches its table. Part of mem.hpp, whose conventions apply.
 *
 * MEM_Unpack checks a chain against its own control block, and that owning pointers point to
 * segments of their kinds. This header compares that control block with the reader's, and checks
 * that references point to segments, which MEM_Unpack does not check in place.
 */
#ifndef QJ7MEM00_MEM_CHAINCHECK_HPP
#define QJ7MEM00_MEM_CHAINCHECK_HPP

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>

#include "context.hpp"

namespace mem::detail {

struct ChainHandle {
  MemPackBlock *pFirst = nullptr;
  std::uint32_t blockLen = 0;  // of every block, as allocated
  bool isBigEndian = false;    // byte order of the used lengths
  explicit operator bool() const noexcept { return pFirst != nullptr; }
};

inline constexpr std::int16_t kChainSubPool = 0;
inline constexpr std::size_t kBlockHead = offsetof(MemPackBlock, UsedLen);  // not in the file form
inline constexpr std::size_t kUsedLenSize = 2;
inline constexpr std::size_t kVersionOff = 2;  // in the file form of the first block
inline constexpr std::size_t kLeastChain = 6;  // used length and version

inline unsigned byteAt(const std::byte *pBytes, std::size_t index) noexcept {
  return std::to_integer<unsigned>(pBytes[index]);
}

// The version's last character gives the byte order; all EBCDIC versions are big-endian.
inline bool isBigEndianChain(const std::byte *pFirstUsed) noexcept {
  return byteAt(pFirstUsed, kVersionOff) >= 0xF0 || byteAt(pFirstUsed, kVersionOff + 3) == '1';
}

inline std::size_t usedLength(const std::byte *pUsed, bool isBigEndian) noexcept {
  const unsigned first = byteAt(pUsed, 0);
  const unsigned second = byteAt(pUsed, 1);
  return isBigEndian ? first * 256 + second : second * 256 + first;
}

// The control block of a chain that is not unpacked yet, in either layout. Unpacking may overwrite
// it.
class ChainControlBlock {
 public:
  // `isBigEndian`: the byte order of the chain's numbers.
  ChainControlBlock(const std::byte *pFirstUsed, bool isBigEndian) noexcept
      : pBytes_(pFirstUsed + kLeastChain),
        usedLen_(usedLength(pFirstUsed, isBigEndian)),
        isOld_((byteAt(pFirstUsed, kVersionOff + 1) & 0x0F) == 1),  // ASCII and EBCDIC
        hasLetters_(isBigEndianChain(pFirstUsed)),
        isSwapped_(isBigEndian != (std::endian::native == std::endian::big)) {}

  template <class Table>
  bool isSameAs(const Table &table) const noexcept {
    constexpr std::size_t kPresent =
        std::max(Table::count(), static_cast<std::size_t>(MEM_PACK_MIN_DESCRIPTORS));
    const std::size_t length =
        2 + kPresent * (isOld_ ? kOldDescriptorLen : sizeof(MemPackDescriptor));
    if (usedLen_ < kLeastChain + length || numberAt(0) != Table::count()) return false;
    for (std::size_t i = 0; i < Table::count(); ++i) {
      if (!isSame(2 + i * (isOld_ ? kOldDescriptorLen : sizeof(MemPackDescriptor)),
                  table.descriptor(i))) {
        return false;
      }
    }
    return true;
  }

 private:
  static constexpr std::size_t kOldDescriptorLen = 58;
  static constexpr std::size_t kOldReferences = 42;

  unsigned numberAt(std::size_t at) const noexcept {
    std::uint16_t number = 0;
    std::memcpy(&number, pBytes_ + at, sizeof number);
    return isSwapped_ ? (number & 0xFFU) << 8 | unsigned{number} >> 8 : number;
  }

  // Only big-endian writers have EBCDIC letters; in other chains these values are ordinary numbers.
  unsigned asciiType(unsigned type) const noexcept {
    if (!hasLetters_) return type;
    switch (type) {
      case 0xC6:
        return MEM_PACK_FIXED;
      case 0xC3:
        return MEM_PACK_COUNTED;
      case 0xE2:
        return MEM_PACK_STRING;
      case 0xE6:
        return MEM_PACK_WIDE_STRING;
      default:
        return type;
    }
  }

  bool isSigned(std::size_t at, std::int16_t expected) const noexcept {
    return numberAt(at) == static_cast<std::uint16_t>(expected);
  }

  // Writers may store any values in the parts that a kind does not use: for text, all parts except
  // the type.
  bool isSame(std::size_t at, const MemPackDescriptor &expected) const noexcept {
    if (asciiType(numberAt(at)) != expected.Type) return false;
    if (expected.Type == MEM_PACK_STRING || expected.Type == MEM_PACK_WIDE_STRING) return true;
    if ((expected.Type == MEM_PACK_FIXED && numberAt(at + 2) != expected.FixedLen) ||
        !isSigned(at + 4, expected.SiblingOff) || !isSigned(at + 6, expected.ChildCount) ||
        !isSigned(at + 8, expected.ReferenceCount)) {
      return false;
    }
    for (int i = 0; i < expected.ChildCount; ++i) {
      const std::size_t entry = at + 10 + 4 * static_cast<std::size_t>(i);
      if (numberAt(entry) != expected.Children[i].Descriptor ||
          !isSigned(entry + 2, expected.Children[i].Offset)) {
        return false;
      }
    }
    const std::size_t references =
        at + (isOld_ ? kOldReferences : offsetof(MemPackDescriptor, References));
    for (int i = 0; i < expected.ReferenceCount; ++i) {
      if (!isSigned(references + 2 * static_cast<std::size_t>(i), expected.References[i])) {
        return false;
      }
    }
    return true;
  }

  const std::byte *pBytes_;
  std::size_t usedLen_;
  bool isOld_;
  bool hasLetters_;
  bool isSwapped_;
};

// The parts of a kind of segment that the check of references needs. Kinds are numbers of
// descriptors; the kinds of targets have an additional number, from 1 on.
struct KindPlan {
  struct Reference {
    std::int16_t offset;
    std::uint16_t target;
  };

  std::uint16_t target;  // the kind's number as a target, 0 for none
  std::uint16_t childCount;
  std::uint16_t referenceCount;
  std::int16_t siblingOff;  // MEM_PACK_NO_SIBLING also if no sibling needs a check
  MemPackChild children[MEM_PACK_MAX_CHILDREN];  // those that need a check
  Reference references[MEM_PACK_MAX_REFERENCES];
};

// Records for each content byte of a chain whether a segment begins there, and its kind.
class SegmentMap {
 public:
  explicit SegmentMap(const Context &context) noexcept : storage_(context) {}

  // Records the chain's blocks; no segments yet. Reads the used lengths now, because a hostile
  // chain may overwrite them later. False when there is no storage.
  bool open(const ChainHandle &chain, std::size_t targetCount) noexcept {
    cellBits_ = std::bit_ceil(static_cast<unsigned>(std::bit_width(2 * targetCount + 1)));
    std::size_t blocks = 0;
    std::uint64_t bytes = 0;
    for (const MemPackBlock *pBlock = chain.pFirst; pBlock != nullptr; pBlock = pBlock->pNext) {
      bytes += usedLength(contentOf(pBlock), chain.isBigEndian);
      ++blocks;
    }
    const std::uint64_t cellBytes = (bytes * cellBits_ / 16 + 1) * sizeof(std::uint16_t);
    if (!storage_.obtain(blocks * sizeof(Block) + cellBytes)) return false;
    pBlocks_ = storage_.as<Block>();
    pBlocksEnd_ = pBlocks_;
    for (const MemPackBlock *pBlock = chain.pFirst; pBlock != nullptr; pBlock = pBlock->pNext) {
      const std::byte *const pContent = contentOf(pBlock);
      *pBlocksEnd_++ = {pContent, usedLength(pContent, chain.isBigEndian), 0};
    }
    pCells_ = reinterpret_cast<std::uint16_t *>(pBlocksEnd_);
    arrangeBlocks();
    return true;
  }

  // Records a segment. False when the place has, or awaits, a segment and it is not an awaited one
  // of this kind.
  bool add(const std::byte *pSegment, unsigned target) noexcept {
    Cell cell;
    if (!find(pSegment, cell)) return false;
    const unsigned known = get(cell);
    if (known == awaited(target)) {
      --awaitedCount_;
    } else if (known != 0) {
      return false;
    }
    set(cell, known, awaited(target) + 1);
    return true;
  }

  // Awaits a segment unless it is already recorded. False when the place has, or awaits, one of
  // another kind.
  bool await(const std::byte *pSegment, unsigned target) noexcept {
    Cell cell;
    if (!find(pSegment, cell)) return false;
    const unsigned known = get(cell);
    if (known != 0) return (known | 1U) == awaited(target) + 1;
    set(cell, 0, awaited(target));
    ++awaitedCount_;
    return true;
  }

  bool isComplete() const noexcept { return awaitedCount_ == 0; }

 private:
  struct Block {
    const std::byte *pContent;
    std::uint64_t usedLen;
    std::uint64_t firstCell;
  };
  struct Cell {
    std::uint16_t *pWord;
    unsigned shift;
  };

  static const std::byte *contentOf(const MemPackBlock *pBlock) noexcept {
    return reinterpret_cast<const std::byte *>(pBlock) + kBlockHead;
  }
  static constexpr unsigned awaited(unsigned target) noexcept { return 2 * target; }

  // Sorts the blocks by address. Most chains' blocks already have this order.
  void arrangeBlocks() noexcept {
    const auto isBefore = [](const Block &left, const Block &right) noexcept {
      return std::less<>()(left.pContent, right.pContent);
    };
    if (!std::is_sorted(pBlocks_, pBlocksEnd_, isBefore)) {
      std::sort(pBlocks_, pBlocksEnd_, isBefore);
    }
    std::uint64_t firstCell = 0;
    for (Block *pBlock = pBlocks_; pBlock != pBlocksEnd_; ++pBlock) {
      pBlock->firstCell = firstCell;
      firstCell += pBlock->usedLen;
    }
    pAtHand_ = pBlocks_;
    const auto steps = static_cast<std::uint64_t>(pBlocksEnd_ - pBlocks_) - 1;
    distance_ = steps == 0 ? 0 : offsetIn(*pBlocks_, pBlocksEnd_[-1].pContent) / steps;
    if (distance_ == 0) distance_ = 1;
  }

  static std::uint64_t offsetIn(const Block &block, const std::byte *pByte) noexcept {
    return reinterpret_cast<std::uintptr_t>(pByte) -
           reinterpret_cast<std::uintptr_t>(block.pContent);
  }

  static bool holds(const Block &block, const std::byte *pByte) noexcept {
    return offsetIn(block, pByte) < block.usedLen;
  }

  bool find(const std::byte *pByte, Cell &cell) noexcept {
    if (!holds(*pAtHand_, pByte) && !findBlock(pByte)) return false;
    const std::uint64_t bit = (pAtHand_->firstCell + offsetIn(*pAtHand_, pByte)) * cellBits_;
    cell = {pCells_ + bit / 16, static_cast<unsigned>(bit % 16)};
    return true;
  }

  // Blocks that were allocated together are usually at equal distances.
  bool findBlock(const std::byte *pByte) noexcept {
    const std::uint64_t guess = offsetIn(*pBlocks_, pByte) / distance_;
    if (guess < static_cast<std::uint64_t>(pBlocksEnd_ - pBlocks_)) {
      pAtHand_ = pBlocks_ + guess;
      if (holds(*pAtHand_, pByte)) return true;
    }
    const Block *const pBehind = std::upper_bound(
        pBlocks_, pBlocksEnd_, pByte, [](const std::byte *pWanted, const Block &block) noexcept {
          return std::less<>()(pWanted, block.pContent);
        });
    if (pBehind == pBlocks_) return false;
    pAtHand_ = pBehind - 1;
    return holds(*pAtHand_, pByte);
  }

  unsigned get(const Cell &cell) const noexcept {
    return (unsigned{*cell.pWord} >> cell.shift) & ((1U << cellBits_) - 1);
  }
  static void set(const Cell &cell, unsigned known, unsigned value) noexcept {
    *cell.pWord = static_cast<std::uint16_t>(*cell.pWord ^ (known ^ value) << cell.shift);
  }

  WorkStorage storage_;
  Block *pBlocks_ = nullptr;
  Block *pBlocksEnd_ = nullptr;
  const Block *pAtHand_ = nullptr;  // the block of the last segment
  std::uint64_t distance_ = 1;      // average distance between blocks
  // Cells in 16-bit words, one cell for each content byte: 0; or twice the number of a kind, plus
  // one if the segment is recorded and not only awaited.
  std::uint16_t *pCells_ = nullptr;
  unsigned cellBits_ = 0;
  std::uint64_t awaitedCount_ = 0;
};

// Walks through the segments of an unpacked chain that matter for references, in the order of
// MEM_Unpack. Each reference must point to a reached segment of its kind.
class ReferenceCheck {
 public:
  ReferenceCheck(const KindPlan *pPlans, SegmentMap &segments) noexcept
      : pPlans_(pPlans), segments_(segments) {}

  // REQUIRES: MEM_Unpack has succeeded on a chain with this control block.
  bool run(const void *pRoot) noexcept {
    if (!begin(0, static_cast<const std::byte *>(pRoot))) return false;
    while (depth_ >= 0) {
      if (!advance()) return false;
    }
    return segments_.isComplete();
  }

 private:
  struct Level {
    const std::byte *pSegment;
    const KindPlan *pPlan;
    std::uint16_t kind;
    std::uint16_t nextChild;
  };

  static const std::byte *pointerAt(const std::byte *pSegment, std::int16_t offset) noexcept {
    const std::byte *pTarget = nullptr;
    std::memcpy(&pTarget, pSegment + offset, sizeof pTarget);
    return pTarget;
  }

  bool begin(std::uint16_t kind, const std::byte *pSegment) noexcept {
    const KindPlan &plan = pPlans_[kind];
    levels_[depth_] = {pSegment, &plan, kind, 0};
    if (plan.target != 0 && !segments_.add(pSegment, plan.target)) return false;
    for (std::uint16_t i = 0; i < plan.referenceCount; ++i) {
      const KindPlan::Reference &reference = plan.references[i];
      const std::byte *const pTarget = pointerAt(pSegment, reference.offset);
      if (pTarget != nullptr && !segments_.await(pTarget, reference.target)) return false;
    }
    return true;
  }

  // One step: down to the next child, else to the sibling, else up.
  bool advance() noexcept {
    Level &level = levels_[depth_];
    while (level.nextChild < level.pPlan->childCount) {
      const MemPackChild &child = level.pPlan->children[level.nextChild++];
      const std::byte *const pChild = pointerAt(level.pSegment, child.Offset);
      if (pChild == nullptr) continue;
      return ++depth_ < MEM_PACK_MAX_LEVELS && begin(child.Descriptor, pChild);
    }
    const std::byte *const pSibling = level.pPlan->siblingOff == MEM_PACK_NO_SIBLING
                                          ? nullptr
                                          : pointerAt(level.pSegment, level.pPlan->siblingOff);
    if (pSibling != nullptr) return begin(level.kind, pSibling);
    --depth_;
    return true;
  }

  const KindPlan *pPlans_;
  SegmentMap &segments_;
  Level levels_[MEM_PACK_MAX_LEVELS];
  int depth_ = 0;
};

}  // namespace mem::detail

#endif
