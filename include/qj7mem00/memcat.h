/** @file memcat.h
 * The control block of a concatenation buffer.
 */
#ifndef QJ7MEM00_MEMCAT_H
#define QJ7MEM00_MEMCAT_H

#include "membase.h"

enum {
  MEM_CAT_FIRST_LEN = 1024,  /**< bytes of storage that MEM_CatOpen allocates */
  MEM_CAT_STEP = 2048,       /**< grown storage is a multiple of this many bytes */
  MEM_CAT_CLOSE_ERROR = 4028 /**< MEM_CatClose: `BlkLen` too large; not in the message table */
};

/** A concatenation buffer. The caller owns it and need not clear it before MEM_CatOpen. The library
 * owns the text storage at `pText` (subpool 0) until MEM_CatClose. Callers may read it at any time;
 * only the library writes it. */
typedef struct MEMCatCB {
  char16_t *pText; /**< the text; ends with a zero unit after the first append. Null when there is
                      no storage. Moves when the storage grows. */
  uint32_t BlkLen; /**< bytes of storage at `pText`; not written when there is none */
  uint32_t Len;    /**< characters (16-bit units) of text, without the zero */
  char Mark;       /**< 'A' after storage has been allocated */
} MEMCatCB;

MEM_CHECK_SIZE(MEMCatCB, 24);
MEM_CHECK_OFFSET(MEMCatCB, BlkLen, 8);
MEM_CHECK_OFFSET(MEMCatCB, Len, 12);
MEM_CHECK_OFFSET(MEMCatCB, Mark, 16);

#endif
