/** @file memcat.h
 * The control block of a concatenation buffer.
 */
#ifndef QJ7MEM00_MEMCAT_H
#define QJ7MEM00_MEMCAT_H

#include "membase.h"

enum {
  MEM_CAT_FIRST_LEN = 1024,  /**< bytes of storage that MEM_CatOpen obtains */
  MEM_CAT_STEP = 2048,       /**< grown storage is a multiple of this many bytes */
  MEM_CAT_CLOSE_ERROR = 4028 /**< MEM_CatClose: `BlkLen` too large; not in the message table */
};

/** A concatenation buffer: owned by the caller, who need not clear it before MEM_CatOpen. The
 * library owns the text storage behind it (subpool 0) until MEM_CatClose. Read freely; written by
 * the library only. */
typedef struct MEMCatCB {
  char16_t *pText; /**< the text; ends with a zero unit from the first append on. Null when there is
                        no storage. Moves when the storage grows. */
  uint32_t BlkLen; /**< bytes of storage at `pText`; not written when there is none */
  uint32_t Len;    /**< characters (16-bit units) of text, without the zero */
  char Mark;       /**< 'A' once storage has been obtained */
} MEMCatCB;

MEM_CHECK_SIZE(MEMCatCB, 24);
MEM_CHECK_OFFSET(MEMCatCB, BlkLen, 8);
MEM_CHECK_OFFSET(MEMCatCB, Len, 12);
MEM_CHECK_OFFSET(MEMCatCB, Mark, 16);

#endif
