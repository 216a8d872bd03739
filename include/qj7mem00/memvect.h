/** @file memvect.h
 * The MEM function vector: every service of the library, slot by slot, and the binding entry.
 *
 * The vector is a table of at least 52 pointers that the host owns. Slots 0 to 3 are the host's.
 * Binding fills slots 4 to 51, unbinding clears them. Callers reach the library only through the
 * vector. The library also calls its own services through it, so a replaced slot takes effect for
 * internal users, too. MEM_VECTOR_SLOTS is the one list of slots.
 *
 * Conventions of all services (see membase.h too):
 *  1. A service runs inside a trace frame (MEMTraceFrame) and, unless noted, first clears the
 *     calling thread's error area. A failure sets `Code` and `ReturnCode` there, in most cases with
 *     a text in `NameText`, and then calls TextServices slot 8.
 *  2. The thread environment, trace buffer or thread block may be missing: then nothing is written
 *     to it.
 *  3. Handles are addresses of control blocks and are checked by their eye-catcher. A handle whose
 *     storage the host has made inaccessible faults.
 *  4. "One thread at a time" means: the caller serialises all calls on one object; different
 *     objects may be used on different threads at once.
 */
#ifndef QJ7MEM00_MEMVECT_H
#define QJ7MEM00_MEMVECT_H

#include "membase.h"
#include "memcat.h"
#include "memerr.h"
#include "memhost.h"
#include "mempack.h"
#include "memproc.h"

/** Handle of a standard heap ("QQQHEAP1") or an enhanced heap ("ENHHEAP1"). */
typedef struct MEMHeapObject *HMEMHEAP;
/** Handle of a cell pool ("QQQCELL1"). */
typedef struct MEMCellObject *HMEMCELL;
/** Handle of a hash table ("QQQQHASH"). */
typedef struct MEMHashObject *HMEMHASH;

/** A caller's hash function: returns the bucket index, 0..Max, of the `KeyLen` bytes at `pKey`. */
typedef int16_t (*MEMHashFunc)(const void *pKey);
/** A caller's scan callback: returns 0, or a code that MEM_HashScan keeps. */
typedef int16_t (*MEMScanFunc)(void *pRecord, void *pParm);

struct MEMStructDef;
struct MEMPortChunk;

/** @name Process and thread: none of these writes "Parms" or "Return" lines */
/** @{ */

/** Makes the process block (subpool 1), registers it and the message table for component 3 and
 * starts the string sink. Call it once per process, before any other service and with no other call
 * running. On failure the cause is in `InnerCode` and `InnerText`, not in `Code` and `NameText`;
 * what exists so far stays until MEM_ProcessTerm. A second call makes a second block and sink and
 * loses the first ones. */
typedef int16_t MEM_ProcessInitFn(void);

/** Stops the sink, frees the process block and withdraws the anchor and the message table. 0 also
 * when there is no process block. Does not change the error area. Call it after the last thread's
 * MEM_ThreadTerm, with no other call running. */
typedef int16_t MEM_ProcessTermFn(void);

/** Makes the calling thread's thread block (subpool 2). A second call makes a second block and
 * loses the first. Without a process block or thread environment: -1, nothing recorded.
 * MEMERR_TBLKFAIL when there is no storage. Does not change the rest of the error area. */
typedef int16_t MEM_ThreadActFn(void);

/** Frees the calling thread's thread block. Without thread block or process block: 0, nothing is
 * freed. Does not change the error area. */
typedef int16_t MEM_ThreadTermFn(void);

/** Sets the process option when `pOptions->Set` is not 0. Always 0, also with a null record or
 * without a process block. Does not change the error area. */
typedef int16_t MEMSetProcOptionsFn(const MEMProcOptions *pOptions);
/** @} */

/** @name Storage by subpool */
/** @{ */

/** Allocates `Size` bytes, 8-byte aligned, from a subpool; null when the host has no storage. A
 * negative `SubPool` means the subpool of its absolute value (-256: subpool 0) and storage kind 2
 * instead of 1. Records no error of its own. The caller frees the storage through MEM_Free. Any
 * number of threads. */
typedef void *MEM_AllocFn(uint32_t Size, int16_t SubPool);

/** Frees storage, with the size and subpool with which it was allocated. Does not change the error
 * area. Any number of threads. */
typedef void MEM_FreeFn(void *pArea, uint32_t Size, int16_t SubPool);

/** Dialog tables of another platform: always -1 with MEMERR_NOT_SUPPORTED. */
typedef int16_t MEM_InitQTRFTblsFn(void);
/** @} */

/** @name Standard heap: one thread at a time
 * Entries are 8-byte aligned, never cleared, never freed individually, and live until the heap is
 * closed. The allocation services also accept enhanced heaps and pass the call on. */
/** @{ */

/** Opens a heap with areas of `AreaLen` KB, 1..256, from `SubPool`. The heap belongs to the caller
 * until MEM_HeapClose. `SubPool` goes to MEM_Alloc as a signed number: from 32768 on it means
 * subpool 65536 - `SubPool`, kind 2. MEMERR_HEAPSIZE, MEMERR_HEAPAMEM. */
typedef int16_t MEM_HeapOpenFn(HMEMHEAP *phMemHeap, int16_t AreaLen, uint16_t SubPool);

/** Frees all areas and large blocks. MEMERR_HEAPBHDL, also for an enhanced heap. */
typedef int16_t MEM_HeapCloseFn(HMEMHEAP hMemHeap);

/** Allocates an entry of `Len` bytes, 1 or more. Served by slot 14 or, for an enhanced heap, by
 * slot 38. MEMERR_HEAPBHDL, MEMERR_HEAPEMIN, MEMERR_HEAPAMEM. */
typedef int16_t MEM_HeapAllocEntryFn(HMEMHEAP hMemHeap, int16_t Len, void **ppEntry);

/** Allocates `NumEnties` entries of `Len` bytes and stores the address of the first. Each entry has
 * at `LinkOff` the address of the next one, the last one null. `LinkOff` is not compared with
 * `Len`. Each entry comes from slot 14. On failure the entries made so far stay in the heap.
 * MEMERR_HEAPBHDL, MEMERR_HEAPNUME, MEMERR_HEAPLOFF and those of the single allocation. */
typedef int16_t MEM_HeapAllocMultEntriesFn(HMEMHEAP hMemHeap, int16_t Len, int16_t NumEnties,
                                           int16_t LinkOff, void **ppEntry);

/** MEM_HeapAllocEntry with a 32-bit length. An entry too large for an area gets a block of its
 * own. */
typedef int16_t MEM_HeapAllocEntryLongFn(HMEMHEAP hMemHeap, int32_t Len, void **ppEntry);

/** MEM_HeapAllocMultEntries with 32-bit length and count. */
typedef int16_t MEM_HeapAllocLongMultEntriesFn(HMEMHEAP hMemHeap, int32_t Len, int32_t NumEnties,
                                               int16_t LinkOff, void **ppEntry);
/** @} */

/** @name Enhanced heap: any number of threads, serialised by the heap's gate
 * Entries are as in a standard heap, but have at least 16 bytes. Each call acquires and releases
 * the gate (RuntimeServices 29 and 30) itself; no failure leaves it held. If a gate service or, at
 * open, the allocation fails, the host's own code and text are in `InnerCode` and `InnerText`.
 * Failures also set `Component`. */
/** @{ */

/** Opens an enhanced heap with a gate of its own; arguments as for MEM_HeapOpen. The heap belongs
 * to the caller until MEM_EHeapClose. MEMERR_HEAPSIZE, MEMERR_HEAPGATE, MEMERR_HEAPAMEM. */
typedef int16_t MEM_EHeapOpenFn(HMEMHEAP *phMemHeap, int16_t AreaLen, uint16_t SubPool);

/** Frees all areas and large blocks, then deletes the gate. No other call on the heap may be
 * running or follow. MEMERR_HEAPBHDL, also for a standard heap; after MEMERR_HEAPGATE the heap is
 * unchanged. */
typedef int16_t MEM_EHeapCloseFn(HMEMHEAP hMemHeap);

/** Allocates an entry of `Len` bytes, rounded up to a multiple of 8; any `Len` below 16, including
 * 0 and negative values, gives 16 bytes. An entry too large for an area gets a block of its own.
 * MEMERR_HEAPBHDL, MEMERR_HEAPGATE, MEMERR_HEAPAMEM. */
typedef int16_t MEM_EHeapAllocEntryFn(HMEMHEAP hMemHeap, int32_t Len, void **ppEntry);

/** Frees an entry, with the length with which it was allocated. An area entry is cleared. Its
 * storage is not allocated again and returns to the host at close, as does that of a large entry.
 * MEMERR_HEAPBHDL, MEMERR_HEAPGATE, MEMERR_HEAPENTRY (the host's storage check refuses the range,
 * or the length is that of a large entry and there is no large block before the address). */
typedef int16_t MEM_EHeapFreeEntryFn(HMEMHEAP hMemHeap, int32_t Len, void *pEntry);

/** Allocates a chain of entries as MEM_HeapAllocMultEntries does; each comes from slot 38, which
 * acquires the gate for each entry, so entries of other threads may be between them. */
typedef int16_t MEM_EHeapAllocMultEntriesFn(HMEMHEAP hMemHeap, int32_t Len, int16_t NumEnties,
                                            int16_t LinkOff, void **ppEntry);
/** MEM_EHeapAllocMultEntries with a 32-bit count. */
typedef int16_t MEM_EHeapAllocLongMultEntriesFn(HMEMHEAP hMemHeap, int32_t Len, int32_t NumEnties,
                                                int16_t LinkOff, void **ppEntry);
/** @} */

/** @name Cell pool: one thread at a time
 * Cells of one length from areas of one length. A new area is allocated when no cell is free; all
 * areas are freed together. Cells follow each other without gaps, so the cell length determines the
 * alignment. */
/** @{ */

/** Opens a pool. `AreaLen` is 256 to 1,048,576 bytes and at least `CellLen` + 168; `CellLen` is 8
 * or more. The pool belongs to the caller until MEM_CellClose. Checked in this order:
 * MEMERR_CELLBNDS, MEMERR_CELLSIZE, MEMERR_CELLELEN; then MEMERR_CELLAMEM. */
typedef int16_t MEM_CellOpenFn(HMEMCELL *phMemCell, int32_t AreaLen, int32_t CellLen,
                               int16_t SubPool);
/** Frees all areas, even if cells are still allocated. MEMERR_CELLBHDL. */
typedef int16_t MEM_CellCloseFn(HMEMCELL hMemCell);
/** Frees the areas added since open and resets the pool to its state after open; all cells become
 * invalid. MEMERR_CELLBHDL. */
typedef int16_t MEM_CellClearFn(HMEMCELL hMemCell);
/** Allocates the cell that was freed last, or the next unused one. Its first 8 bytes are zero. The
 * others are zero in a cell that was freed before, and as the host delivered them in an unused one.
 * MEMERR_CELLBHDL, MEMERR_CELLAMEM (the pool is unchanged). */
typedef int16_t MEM_CellAllocEntryFn(HMEMCELL hMemCell, void **ppCell);
/** Frees a cell and fills it with zeros. The caller must ensure that the cell is one of the pool's
 * and is freed only once; null is ignored. MEMERR_CELLBHDL. */
typedef int16_t MEM_CellFreeEntryFn(HMEMCELL hMemCell, void *pEntry);
/** @} */

/** @name Hash table: one thread at a time
 * The table copies records into its own standard heap, where they live until MEM_HashClose. Callers
 * get the address of the copy and may change the copy, but not its key. */
/** @{ */

/** Opens a table for records with a key of `KeyLen` bytes at offset `KeyOff`, with buckets 0..`Max`
 * chosen by `pFunc`. `AreaLen` (KB) and `SubPool` are those of the entry heap. A `KeyLen` of 0 or
 * less makes all keys equal. MEMERR_HASHAMEM (also for `Max` below -1); a heap failure is returned
 * with the heap's own error, and the control block is not freed. */
typedef int16_t MEM_HashOpenFn(HMEMHASH *phHash, int16_t KeyOff, int16_t KeyLen, int16_t Max,
                               MEMHashFunc pFunc, int16_t AreaLen, uint16_t SubPool);

/** Closes the entry heap and frees the table. MEMERR_HASHBHDL; after a heap failure the table is
 * unchanged. */
typedef int16_t MEM_HashCloseFn(HMEMHASH hMemHash);

/** Copies the `Len` bytes at `pInputEntry` into the table and stores the copy's address. When the
 * table already has the key, returns MEMERR_HASHDKEY (no error recorded), copies nothing and stores
 * the address of the existing record. MEMERR_HASHBHDL, MEMERR_HASHFERR, or the heap's errors. */
typedef int16_t MEM_HashInsEntryFn(HMEMHASH hMemHash, int16_t Len, const void *pInputEntry,
                                   void **ppNewEntry);

/** Stores the address of the record with the key, or returns MEMERR_HASHNFND (no error recorded).
 * MEMERR_HASHBHDL, MEMERR_HASHFERR. */
typedef int16_t MEM_HashGetEntryFn(HMEMHASH hMemHash, const void *pKey, void **ppEntry);

/** Removes the record with the key; a later insert reuses its storage. Returns MEMERR_HASHNFND when
 * there is none. MEMERR_HASHBHDL, MEMERR_HASHFERR. */
typedef int16_t MEM_HashDelEntryFn(HMEMHASH hMemHash, const void *pKey);

/** Calls `pFct(record, pParm)` for every record, bucket by bucket in order of insertion. The result
 * is the last non-zero result of `pFct`, else 0; a non-zero result does not end the scan. `pFct`
 * must not delete records or close the table; a record that it inserts is visited too, if its
 * bucket is the current or a later one. MEMERR_HASHBHDL. */
typedef int16_t MEM_HashScanFn(HMEMHASH hMemHash, MEMScanFunc pFct, void *pParm);
/** @} */

/** @name Pack and unpack: any number of threads, each on its own structure and chain */
/** @{ */

/** Flattens the structure at `pRoot` (segment kind 0 of `pPackCB`) into a chain of blocks of
 * `BlkLen` bytes from subpool 0. The structure is not changed. `*ppFirstBlk` is stored as soon as
 * the first block exists, on failures after that point too: the caller returns each block with
 * MEM_Free(block, BlkLen, 0). The result is the MEMERR code itself (MEMERR_PACK…), -1 after a
 * failure of a hash service except its closing (the service's error remains recorded), for
 * "WideStringOutOfPlace", and for a control block that the old layout cannot hold. */
typedef int16_t MEM_PackFn(const MemPackCB *pPackCB, const void *pRoot, int32_t BlkLen,
                           MemPackBlock **ppFirstBlk);

/** Converts a packed chain of any writer back to linked structures and stores the root. The bytes
 * of the chain need not be trusted: nothing outside the blocks is read or written. Each block must
 * have room for its used length + 8 bytes; block 0 for at least 14 bytes, the others for at least
 * 10.
 *
 * If the first child offsets of `pPackCB` equal those of the file, used or not, the chain is
 * unpacked in place: the blocks become the structure, with segments at any alignment. Otherwise
 * `*ppFirstBlk` becomes a new chain of blocks of MEM_UNPACK_BLOCK_LEN bytes from subpool 0, laid
 * out by `pPackCB`; the old chain is only read and stays the caller's. On failure both cells are
 * unchanged, and blocks that were being unpacked in place can only be freed. The result is the
 * MEMERR code itself (MEMERR_PACK…).
 *
 * After success, child and sibling pointers point to segments and texts of the kinds in the
 * descriptors. Each is reached once (narrow text may be shared) and ends within its block, if its
 * length is known (for the EBCDIC types 0xE5 and 0xE7 it is not). Success does not guarantee:
 *  - in place, that the descriptors are the caller's. The file's own control block (offset 14 of
 *    the first block) is used; of `pPackCB` only the first child offset is compared, and the second
 *    one in files of 21 or more descriptors. A segment may be shorter than the caller's structure,
 *    and the bytes of a pointer of the caller's structure may have any value. If you do not trust
 *    the writer, compare the two control blocks before you read a segment, as PackedChain::unpack
 *    of mem.hpp does with a table;
 *  - the target of references: in place any used byte of any block, in a new chain any segment or
 *    text;
 *  - in place, that segments and narrow texts do not overlap: a write to one may change another;
 *  - a limit of storage. `FixedLen` of `pPackCB` is the length of a new chain's segments: with
 *    33,009 a chain of 257 KB becomes one of 1 GB. Only the host's limit for subpool 0 protects
 *    against this. */
typedef int16_t MEM_UnpackFn(MemPackBlock **ppFirstBlk, void **ppRoot, const MemPackCB *pPackCB);
/** @} */

/** @name Concatenation buffer: one thread at a time */
/** @{ */

/** Initialises the caller's control block and allocates its first text storage, 1,024 bytes without
 * text. On failure `pText` is null and nothing else of the block is written. MEMERR_CATAMEM. */
typedef int16_t MEM_CatOpenFn(MEMCatCB *pCatCB);

/** Frees the text storage, if there is any, and sets `pText` to null; the other fields keep their
 * values. MEM_CAT_CLOSE_ERROR when `BlkLen` is 0x80000000 or more, regardless of `pText`. After a
 * failed open `BlkLen` still has the caller's value. */
typedef int16_t MEM_CatCloseFn(MEMCatCB *pCatCB);

/** Appends NUL-terminated wide text through slot 29. On failure the error is MEMERR_CATSTDSTR with
 * slot 29's code and text as the inner ones (without them if the thread has no thread block). */
typedef int16_t MEM_CatFn(MEMCatCB *pCatCB, const char16_t *pText);

/** Appends `Len` characters of wide text; `pText[Len]` is copied, too, and must be the terminator.
 * The text may be in the buffer itself. Storage that is too small is replaced by the next multiple
 * of 2,048 bytes above the need. MEMERR_CATSTRSIZE (more than 2,147,483,647 bytes, also for a
 * negative `Len`), MEMERR_CATAMEM (also for a buffer without storage), MEMERR_CATSTDSTR (null
 * text); a failure does not change the buffer. */
typedef int16_t MEM_MemCatFn(MEMCatCB *pCatCB, const char16_t *pText, int32_t Len);
/** @} */

/** @name String sink: any number of threads, serialised by the sink gate
 * Failures of the six calls for strings set `Component` and echo the start of the text in the free
 * message text and in an "EXCP" record. The code and text of a failed host service are in
 * `InnerCode` and `InnerText`. */
/** @{ */

/** Starts the process's sink: gate, first block (write-protected) and index. Called by
 * MEM_ProcessInit. While the sink runs, does nothing and returns 0. On failure the code and text
 * are in `InnerCode` and `InnerText`, the former `Code` is in `PrevInnerCode`, and all storage and
 * the gate have been freed. */
typedef int16_t MEM_SinkInitFn(void);
/** Frees all that the sink has; does nothing when it does not run. Called by MEM_ProcessTerm.
 * Always 0. Does not change the error area. */
typedef int16_t MEM_SinkTermFn(void);
/** Stores the address of the shared copy of a text and counts one more use. Makes the copy if there
 * is none yet. The copy does not move until its last use ends or the sink ends. It is
 * write-protected storage of the sink: never write to it or free it. MEMERR_SINKITEXT (null text),
 * MEMERR_SINKIERR (null `ppSunk`, or no sink), MEMERR_SINKLGATE, MEMERR_SINKVSTG,
 * MEMERR_SINKNOSPACE (also a text that no block can hold); a failure changes neither the sink nor
 * `*ppSunk`. */
typedef int16_t MEM_SinkStringFn(const char *pText, const char **ppSunk);
/** Ends one use of a shared copy. `pSunk` is the address that MEM_SinkString has stored. After the
 * last use the copy is erased and the address is invalid. The text at `pSunk` is read; when no such
 * text is sunk, the result is MEMERR_SINKNFND (no error recorded). MEMERR_SINKIERR (null, the
 * address of an equal text that is not the copy, or no sink), MEMERR_SINKLGATE, MEMERR_SINKVSTG: if
 * the copy could not be made writable, it stays with its uses; if it could not be protected again,
 * it is erased. */
typedef int16_t MEM_SinkDeleteFn(const char *pSunk);
/** Stores the address of the shared copy of a text if there is one; otherwise the result is
 * MEMERR_SINKNFND (no error recorded). Counts no use: the address is valid only as long as another
 * use lasts. `pReserved` is not used. MEMERR_SINKITEXT (null text), MEMERR_SINKSTEXT (null
 * `ppSunk`), MEMERR_SINKIERR (no sink), MEMERR_SINKLGATE; `*ppSunk` changes only on success. */
typedef int16_t MEM_SinkVerifyFn(const char *pText, const char **ppSunk, void *pReserved);
/** MEM_SinkString for wide text, which ends with a zero unit. A narrow and a wide text of the same
 * bytes share one copy. Without a thread environment: -1, nothing done. */
typedef int16_t MEM_WSinkStringFn(const char16_t *pText, const char16_t **ppSunk);
/** MEM_SinkDelete for wide text. Without a thread environment: -1, nothing done. */
typedef int16_t MEM_WSinkDeleteFn(const char16_t *pSunk);
/** MEM_SinkVerify for wide text. Without a thread environment: -1, nothing done. */
typedef int16_t MEM_WSinkVerifyFn(const char16_t *pText, const char16_t **ppSunk, void *pReserved);
/** @} */

/** @name Port strings: any number of threads, each on its own heap
 * A failing call returns -1, or the result that the host's exception filter has stored. It sets no
 * code of its own. The reason is in an "EXCP" record (none for a wrong count in the header or a
 * default that is too long), and a heap's error remains recorded. All that a call has allocated in
 * `hMemHeap`, a heap of either kind, stays there until the heap is closed. */
/** @{ */

/** Writes the structure at `pStruct`, described by the definition `StructID`, and all that it
 * reaches through pointers, as a chain of text chunks in the caller's heap. Each chunk is filled to
 * `ChunkLen` characters, 23 or more; 0 selects the length that fills an area of the heap.
 * `*pTotalLen` and `*ppFirstChunk` are first set to 0 and null; after a failure `*ppFirstChunk` may
 * be the first chunk of a text without a header. The structures are only read and must not change
 * meanwhile. */
typedef int16_t MEM_StructToPortStrFn(const struct MEMStructDef *pDefs, uint32_t StructID,
                                      const void *pStruct, int32_t ChunkLen, HMEMHEAP hMemHeap,
                                      uint32_t *pTotalLen, struct MEMPortChunk **ppFirstChunk);

/** Reads a chunk chain back into structures in the caller's heap and stores the address of the
 * top-level one. The text need not be trusted: the call writes only the structures and strings that
 * it makes, and reads only the chunks and the definitions.
 *
 * Success does not guarantee that the structures match the definitions:
 *  - a pointer field may point to a structure of another kind than its `SubStructID`, an embedded
 *    text may be of another kind and overwrite the fields after it, the top-level structure may be
 *    of any kind in the table;
 *  - the count field may differ from the number of elements that there is room for, and the text
 *    may have had fewer elements than that;
 *  - fields with the same offset, and further occurrences of the last field, may overlap: a pointer
 *    field has the value that was stored last;
 *  - an absent field without a default has the old contents of the storage;
 *  - the element counts determine the storage, up to 2 GB for a text of 45 characters. Only the
 *    host's limit for the heap's subpool protects against this.
 * docs/port-strings.md describes what a careful caller does.
 *
 * After a failure `*ppStruct` is unchanged, null, or the address of an incomplete top-level
 * structure whose pointer fields may be invalid: do not use it. */
typedef int16_t MEM_PortStrToStructFn(const struct MEMStructDef *pDefs,
                                      const struct MEMPortChunk *pFirstChunk, HMEMHEAP hMemHeap,
                                      void **ppStruct);

/** MEM_PortStrToStruct for `Len` contiguous characters. Nothing after the last structure is
 * read. */
typedef int16_t MEM_Port1StrToStructFn(const struct MEMStructDef *pDefs, const char *pText,
                                       uint32_t Len, HMEMHEAP hMemHeap, void **ppStruct);
/** @} */

/** The slots of the library: SLOT(number, entry point). The order is the host's contract. */
#define MEM_VECTOR_SLOTS(SLOT)           \
  SLOT(4, MEM_ProcessInit)               \
  SLOT(5, MEM_ProcessTerm)               \
  SLOT(6, MEM_ThreadAct)                 \
  SLOT(7, MEM_ThreadTerm)                \
  SLOT(8, MEM_Alloc)                     \
  SLOT(9, MEM_Free)                      \
  SLOT(10, MEM_HeapOpen)                 \
  SLOT(11, MEM_HeapClose)                \
  SLOT(12, MEM_HeapAllocEntry)           \
  SLOT(13, MEM_HeapAllocMultEntries)     \
  SLOT(14, MEM_HeapAllocEntryLong)       \
  SLOT(15, MEM_CellOpen)                 \
  SLOT(16, MEM_CellClose)                \
  SLOT(17, MEM_CellClear)                \
  SLOT(18, MEM_CellAllocEntry)           \
  SLOT(19, MEM_CellFreeEntry)            \
  SLOT(20, MEM_HashOpen)                 \
  SLOT(21, MEM_HashClose)                \
  SLOT(22, MEM_HashInsEntry)             \
  SLOT(23, MEM_HashGetEntry)             \
  SLOT(24, MEM_Pack)                     \
  SLOT(25, MEM_Unpack)                   \
  SLOT(26, MEM_CatOpen)                  \
  SLOT(27, MEM_CatClose)                 \
  SLOT(28, MEM_Cat)                      \
  SLOT(29, MEM_MemCat)                   \
  SLOT(30, MEM_InitQTRFTbls)             \
  SLOT(31, MEM_SinkInit)                 \
  SLOT(32, MEM_SinkTerm)                 \
  SLOT(33, MEM_SinkString)               \
  SLOT(34, MEM_SinkDelete)               \
  SLOT(35, MEM_SinkVerify)               \
  SLOT(36, MEM_EHeapOpen)                \
  SLOT(37, MEM_EHeapClose)               \
  SLOT(38, MEM_EHeapAllocEntry)          \
  SLOT(39, MEM_EHeapFreeEntry)           \
  SLOT(40, MEM_EHeapAllocMultEntries)    \
  SLOT(41, MEM_StructToPortStr)          \
  SLOT(42, MEM_PortStrToStruct)          \
  SLOT(43, MEMSetProcOptions)            \
  SLOT(44, MEM_Port1StrToStruct)         \
  SLOT(45, MEM_WSinkString)              \
  SLOT(46, MEM_WSinkDelete)              \
  SLOT(47, MEM_WSinkVerify)              \
  SLOT(48, MEM_HashDelEntry)             \
  SLOT(49, MEM_HashScan)                 \
  SLOT(50, MEM_HeapAllocLongMultEntries) \
  SLOT(51, MEM_EHeapAllocLongMultEntries)

enum { MEM_VECTOR_HOST_SLOTS = 4, MEM_VECTOR_LEN = 52 };

/** The MEM function vector. A host's table may continue after the last slot. */
typedef struct MEMFunctionVector {
  void *HostSlots[MEM_VECTOR_HOST_SLOTS]; /**< the host's; never read or written by the library */
#define MEM_VECTOR_FIELD(slot, name) name##Fn *name;
  MEM_VECTOR_SLOTS(MEM_VECTOR_FIELD)
#undef MEM_VECTOR_FIELD
} MEMFunctionVector;

#define MEM_VECTOR_CHECK(slot, name) MEM_CHECK_SLOT(MEMFunctionVector, name, slot);
MEM_VECTOR_SLOTS(MEM_VECTOR_CHECK)
#undef MEM_VECTOR_CHECK
MEM_CHECK_SIZE(MEMFunctionVector, MEM_VECTOR_LEN * 8);

enum {
  MEM_HOST_VECTORS = 32,    /**< cells of the first binding list */
  MEM_SERVICE_VECTORS = 48, /**< cells of the second binding list */
  MEM_MODE_BIND = 1         /**< any other mode unbinds */
};

/** Places of the vectors that the library uses in the first binding list. */
enum {
  MEM_HOST_RUNTIME = 0, /**< MEMRuntimeServices */
  MEM_HOST_TRACE = 1,   /**< MEMTraceServices */
  MEM_HOST_TEXT = 2,    /**< MEMTextServices */
  MEM_HOST_VECTOR = 3   /**< MEMFunctionVector, filled by binding */
};

/** Name of the one exported function, for dlsym and GetProcAddress. */
#define MEM_BIND_ENTRY_NAME "ENV_FWV_V00M00_GFunc"

/** The one exported function: binds (mode 1) or unbinds (any other mode) the library.
 *
 * Binding keeps `*ppHostVectors[0..31]`, `*ppServiceVectors[0..47]`, `pSysEnv` and `SysFlags` and
 * fills slots 4 to 51 of the MEM function vector, inside a trace frame named "PSdynamn". Unbinding
 * clears those slots, then drops all that was kept; the lists are not read. Unbinding while unbound
 * does nothing. Arguments are not checked. Must not overlap any call through the vector.
 *
 * @param ppHostVectors     32 addresses of cells that hold the host's service vectors
 * @param ppServiceVectors  48 addresses of further cells; kept, never called
 * @param pSysEnv           MEMSysEnv of the host, or null
 * @param SysFlags          kept, not used
 * @param Mode              MEM_MODE_BIND or anything else */
typedef void MEMBindFn(void **const *ppHostVectors, void **const *ppServiceVectors,
                       const MEMSysEnv *pSysEnv, uint32_t SysFlags, int16_t Mode);

#endif
