/** @file mempack.h
 * The pack control block, which describes a caller's structures, and the packed block.
 *
 * MEM_Pack turns a tree of segments (the caller's structures) into a chain of equal-sized blocks
 * in which every pointer is replaced by a relative pointer. docs/packed-chain.md describes the
 * bytes for readers on other platforms.
 */
#ifndef QJ7MEM00_MEMPACK_H
#define QJ7MEM00_MEMPACK_H

#include "membase.h"

enum {
  MEM_PACK_MAX_CHILDREN = 24,   /**< child pointers of a descriptor */
  MEM_PACK_MAX_REFERENCES = 8,  /**< reference pointers of a descriptor */
  MEM_PACK_MIN_DESCRIPTORS = 8, /**< least number of descriptors in a control block */
  MEM_PACK_MAX_LEVELS = 64,     /**< depth of a structure, the root included */
  MEM_PACK_MAX_BLOCKS = 32767,  /**< blocks of a chain */
  MEM_PACK_NO_SIBLING = -1,     /**< SiblingOff of a segment without a sibling chain */
  MEM_PACK_BLOCK_OVERHEAD = 15, /**< the longest item is the block length minus this */
  MEM_UNPACK_BLOCK_LEN = 33024  /**< bytes of each block of a new chain from MEM_Unpack */
};

/** Segment types. Any other value is a self-describing segment: it starts with its own total
 * length as an unsigned 16-bit number. */
enum {
  MEM_PACK_FIXED = 'F',      /**< `FixedLen` bytes */
  MEM_PACK_COUNTED = 'C',    /**< a signed 16-bit count, then that many bytes */
  MEM_PACK_STRING = 'S',     /**< narrow text with its NUL */
  MEM_PACK_WIDE_STRING = 'W' /**< wide text with its NUL; target of a child pointer only */
};

/** A child pointer: an 8-byte pointer in the segment that owns what it points to. */
typedef struct MemPackChild {
  uint16_t Descriptor; /**< index of the descriptor of the child's kind */
  int16_t Offset;      /**< byte offset of the pointer within the segment */
} MemPackChild;

MEM_CHECK_SIZE(MemPackChild, 4);

/** Description of one kind of segment. Unused entries may have any value, except the first two
 * child entries of descriptor 0: clear them, because MEM_Unpack compares their offsets even if they
 * are unused. */
typedef struct MemPackDescriptor {
  uint16_t Type;          /**< MEM_PACK_FIXED, … */
  uint16_t FixedLen;      /**< bytes of a MEM_PACK_FIXED segment */
  int16_t SiblingOff;     /**< offset of the pointer to the next segment of
                               the same kind, or MEM_PACK_NO_SIBLING */
  int16_t ChildCount;     /**< used entries of Children, 0..24 */
  int16_t ReferenceCount; /**< used entries of References, 0..8 */
  MemPackChild Children[MEM_PACK_MAX_CHILDREN];
  int16_t References[MEM_PACK_MAX_REFERENCES]; /**< offsets of pointers to segments that are
                                                    packed elsewhere in the same structure */
} MemPackDescriptor;

MEM_CHECK_SIZE(MemPackDescriptor, 122);
MEM_CHECK_OFFSET(MemPackDescriptor, FixedLen, 2);
MEM_CHECK_OFFSET(MemPackDescriptor, SiblingOff, 4);
MEM_CHECK_OFFSET(MemPackDescriptor, ChildCount, 6);
MEM_CHECK_OFFSET(MemPackDescriptor, ReferenceCount, 8);
MEM_CHECK_OFFSET(MemPackDescriptor, Children, 10);
MEM_CHECK_OFFSET(MemPackDescriptor, References, 106);

/** Pack control block. Descriptor 0 describes the root segment. Descriptors beyond the eighth
 * follow the record; MEM_PACK_CB_LEN gives the total length. */
typedef struct MemPackCB {
  int16_t Count; /**< descriptors, 1 or more */
  MemPackDescriptor Descriptors[MEM_PACK_MIN_DESCRIPTORS];
} MemPackCB;

MEM_CHECK_SIZE(MemPackCB, 978);
MEM_CHECK_OFFSET(MemPackCB, Descriptors, 2);

/** Bytes of a control block with `count` descriptors. */
#define MEM_PACK_CB_LEN(count) (978 + ((count) > 8 ? 122 * ((count)-8) : 0))

/** Header of a packed block. The content follows at offset 10; content offsets in relative pointers
 * count from offset 8. The first block's content starts with a version of four characters and the
 * control block. */
typedef struct MemPackBlock {
  struct MemPackBlock *pNext; /**< next block of the chain, null in the last; memory only */
  uint16_t UsedLen;           /**< used bytes from offset 8 on, this field included */
} MemPackBlock;

MEM_CHECK_OFFSET(MemPackBlock, UsedLen, 8);

/** What MEM_Pack stores in a pointer field: the place of the target. A null pointer stays null. */
typedef struct MemPackRelPtr {
  int16_t Block;      /**< block number, from 0 */
  int16_t Offset;     /**< content offset within the block, from block offset 8 */
  uint32_t Reserved4; /**< 0 */
} MemPackRelPtr;

MEM_CHECK_SIZE(MemPackRelPtr, 8);
MEM_CHECK_OFFSET(MemPackRelPtr, Offset, 2);

#endif
