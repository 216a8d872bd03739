/** @file memproc.h
 * The library's two context blocks: one per process, one per thread, and the option record.
 *
 * The process block is registered with the host as component 3's anchor (RuntimeServices slots 7
 * and 8). The thread environment points to the thread block (`pMemThreadBlk`). Both belong to the
 * library; hosts and tools may read them.
 */
#ifndef QJ7MEM00_MEMPROC_H
#define QJ7MEM00_MEMPROC_H

#include "membase.h"

enum {
  MEM_PROCESS_BLOCK_LEN = 3248,  /**< bytes of the process block */
  MEM_PROCESS_BLOCK_SUBPOOL = 1, /**< host subpool of the process block */
  MEM_PROCESS_BLOCK_TYPE = 1,    /**< its `Type` */
  MEM_PROCESS_READY = 0x03,      /**< its `Flags` once initialisation has completed */
  MEM_THREAD_BLOCK_LEN = 296,    /**< bytes of the thread block */
  MEM_THREAD_BLOCK_SUBPOOL = 2,  /**< host subpool of the thread block */
  MEM_THREAD_BLOCK_TYPE = 2,     /**< its `Type` */
  MEM_THREAD_IN_CAT = 0x01,      /**< thread flag: MEM_Cat is running MEM_MemCat */
  MEM_SINK_SEGMENTS = 64,        /**< sink blocks that the sink can own */
  MEM_SINK_SUBPOOL = 230         /**< host subpool of sink blocks and of the sink's index */
};

/** Common head of both context blocks. */
typedef struct MEMBlockHeader {
  uint32_t Length;     /**< bytes of the whole block */
  char Mark;           /**< '>' */
  char Eyecatcher[4];  /**< "PST_", no terminator */
  char Name[19];       /**< "MEMProcessBlock" or "MEMThreadBlock", blank-padded, no terminator */
  uint16_t Reserved28; /**< 0 */
  uint16_t Type;       /**< MEM_PROCESS_BLOCK_TYPE or MEM_THREAD_BLOCK_TYPE */
} MEMBlockHeader;

MEM_CHECK_SIZE(MEMBlockHeader, 32);
MEM_CHECK_OFFSET(MEMBlockHeader, Mark, 4);
MEM_CHECK_OFFSET(MEMBlockHeader, Eyecatcher, 5);
MEM_CHECK_OFFSET(MEMBlockHeader, Name, 9);
MEM_CHECK_OFFSET(MEMBlockHeader, Reserved28, 28);
MEM_CHECK_OFFSET(MEMBlockHeader, Type, 30);

/** One sink block of 0x44000 bytes: 16384 bytes of allocation map, then 0x40000 bytes of strings
 * that the host keeps write-protected. All zero for an entry without a block. */
typedef struct MEMSinkSegment {
  uint8_t *pBase;   /**< the block, owned by the sink */
  uint8_t *pSpace;  /**< string space, pBase + 16384 */
  uint8_t *pLast;   /**< last byte of the string space, pBase + 0x43FFF */
  uint8_t *pMap;    /**< allocation map, one bit per 2-byte granule, most significant bit first */
  uint32_t Counter; /**< 0 when the block is allocated */
  uint32_t UsedLen; /**< bytes reserved for copies */
  int32_t FreeLen;  /**< bytes still free, 0x40000 when the block is allocated, never below 0 */
  uint32_t TextLen; /**< bytes of text and terminators in the copies */
} MEMSinkSegment;

MEM_CHECK_SIZE(MEMSinkSegment, 48);
MEM_CHECK_OFFSET(MEMSinkSegment, pSpace, 8);
MEM_CHECK_OFFSET(MEMSinkSegment, pLast, 16);
MEM_CHECK_OFFSET(MEMSinkSegment, pMap, 24);
MEM_CHECK_OFFSET(MEMSinkSegment, Counter, 32);
MEM_CHECK_OFFSET(MEMSinkSegment, UsedLen, 36);
MEM_CHECK_OFFSET(MEMSinkSegment, FreeLen, 40);
MEM_CHECK_OFFSET(MEMSinkSegment, TextLen, 44);

/** The process block, 3248 bytes. Bytes without a field are 0. The sink's fields (96 to 3223) are
 * protected by `Gate`; the others change only in the process calls and in MEMSetProcOptions. */
typedef struct MEMProcessBlock {
  MEMBlockHeader Header;
  uint8_t Flags; /**< MEM_PROCESS_READY after a complete initialisation, else 0 */
  uint8_t Reserved33[7];
  void *Pointers[7];    /**< process-wide pointers of the host; copied into new thread blocks */
  int32_t SegmentCount; /**< sink blocks allocated so far, 1 after start */
  uint32_t Reserved100;
  MEMSinkSegment Segments[MEM_SINK_SEGMENTS];
  uint32_t Gate; /**< sink gate, any number while there is an index, else 0 */
  uint32_t Reserved3180;
  void *pIndex;       /**< sorted index of the copies, 16 bytes for each slot */
  uint32_t IndexLen;  /**< bytes of the index area */
  uint32_t SlotCount; /**< slots that fit in the index area */
  uint32_t Used;      /**< Act + Garbage */
  uint32_t Act;       /**< strings currently sunk */
  uint32_t Garbage;   /**< slots above End that deletes left unused */
  int32_t Free;       /**< highest free slot below First; below 0 when there is none */
  uint32_t First;     /**< first slot of the active range */
  uint32_t End;       /**< last slot of the active range */
  uint8_t OldPackCB;  /**< process option: non-zero makes MEM_Pack write the old control block */
  uint8_t Reserved3225[23];
} MEMProcessBlock;

MEM_CHECK_SIZE(MEMProcessBlock, MEM_PROCESS_BLOCK_LEN);
MEM_CHECK_OFFSET(MEMProcessBlock, Flags, 32);
MEM_CHECK_OFFSET(MEMProcessBlock, Pointers, 40);
MEM_CHECK_OFFSET(MEMProcessBlock, SegmentCount, 96);
MEM_CHECK_OFFSET(MEMProcessBlock, Segments, 104);
MEM_CHECK_OFFSET(MEMProcessBlock, Gate, 3176);
MEM_CHECK_OFFSET(MEMProcessBlock, pIndex, 3184);
MEM_CHECK_OFFSET(MEMProcessBlock, IndexLen, 3192);
MEM_CHECK_OFFSET(MEMProcessBlock, SlotCount, 3196);
MEM_CHECK_OFFSET(MEMProcessBlock, Used, 3200);
MEM_CHECK_OFFSET(MEMProcessBlock, Act, 3204);
MEM_CHECK_OFFSET(MEMProcessBlock, Garbage, 3208);
MEM_CHECK_OFFSET(MEMProcessBlock, Free, 3212);
MEM_CHECK_OFFSET(MEMProcessBlock, First, 3216);
MEM_CHECK_OFFSET(MEMProcessBlock, End, 3220);
MEM_CHECK_OFFSET(MEMProcessBlock, OldPackCB, 3224);

/** The thread block, 296 bytes, used only by its own thread. */
typedef struct MEMThreadBlock {
  MEMBlockHeader Header;
  void *Pointers[7]; /**< the process block's pointers when this block was made */
  uint32_t Flags;    /**< MEM_THREAD_IN_CAT */
  uint8_t Reserved92[4];
  void *pHashIndexes; /**< the library's own: indexes of tables that this thread has open */
  void *pOpenedTable; /**< the library's own: the hash table that this thread opened last */
  uint8_t Reserved112[168];
  MEMProcessBlock *pProcessBlk; /**< the process block, not owned */
  uint8_t Reserved288[8];
} MEMThreadBlock;

MEM_CHECK_SIZE(MEMThreadBlock, MEM_THREAD_BLOCK_LEN);
MEM_CHECK_OFFSET(MEMThreadBlock, Pointers, 32);
MEM_CHECK_OFFSET(MEMThreadBlock, Flags, 88);
MEM_CHECK_OFFSET(MEMThreadBlock, pProcessBlk, 280);

/** Argument of MEMSetProcOptions. Nothing else of the record is read. */
typedef struct MEMProcOptions {
  uint8_t Set; /**< 0 = do not change the options */
  uint8_t Reserved1[63];
  uint8_t OldPackCB; /**< new value of MEMProcessBlock.OldPackCB */
} MEMProcOptions;

MEM_CHECK_SIZE(MEMProcOptions, 65);
MEM_CHECK_OFFSET(MEMProcOptions, OldPackCB, 64);

#endif
