/** @file memchk.h
 * The checking layer: a static library (`QJ7MEM00::check`) for hosts. It puts itself between the
 * MEM function vector and what is in its slots, finds misuse of heap entries and cells by
 * components, and counts what they use. The memory services themselves stay as they are.
 *
 * What it finds: writes before and after heap entries, writes to freed entries and cells, wrong
 * lengths, entries and cells freed twice, to another owner or never allocated, closed handles.
 * Under AddressSanitizer and valgrind the instruction itself is reported. What it cannot see, what
 * changes for the component, and what it costs is in docs/checking-layer.md.
 *
 * Slots 10 to 19 and 36 to 42 are replaced, and of the same families 44, 50 and 51; with
 * MEMCHK_STATISTICS all slots from 8 on, so that hash tables, concatenation buffers and the sink
 * are counted, too. A replaced slot calls what was there before, so that services of the host's own
 * remain in use.
 *
 * Conventions (see membase.h, too):
 *  1. Results are 0, -1, or a MEMCHK code. No call touches the thread's error area or a trace
 * frame.
 *  2. The layer's own records come from the C++ runtime's allocator, never from the host's storage.
 *     When that allocator has nothing left, the program ends.
 *  3. Attach and detach must not overlap any call through the vector, nor each other. All else may
 *     be called on any number of threads at once. The vector's own rules for threads stay as they
 *     are: a standard heap or pool belongs to one thread at a time.
 */
#ifndef QJ7MEM00_MEMCHK_H
#define QJ7MEM00_MEMCHK_H

#include "memvect.h"

#ifdef __cplusplus
extern "C" {
#endif

/** An attached layer. It belongs to the caller from MEMCheckAttach to MEMCheckDetach. */
typedef struct MEMCheck MEMCheck;

/** What a report is about (MEMCheckReport.Kind). */
enum MEMCheckKind {
  MEMCHK_OVERRUN = 1,      /**< bytes after an entry were written to */
  MEMCHK_UNDERRUN = 2,     /**< bytes before an entry were written to */
  MEMCHK_FREED_WRITE = 3,  /**< a freed entry or cell was written to */
  MEMCHK_DOUBLE_FREE = 4,  /**< an entry or cell is freed that was freed before */
  MEMCHK_FOREIGN = 5,      /**< what is freed is no entry or cell that was allocated */
  MEMCHK_OTHER_OWNER = 6,  /**< an entry of another heap, a cell of another pool is freed */
  MEMCHK_WRONG_LENGTH = 7, /**< an entry is freed with another length than it was allocated with */
  MEMCHK_CLOSED_HANDLE = 8 /**< a heap or pool is used that was closed */
};

/** Where a call was made. All zero when it is not known. */
typedef struct MEMCheckPlace {
  const char *pService; /**< "MEM_HeapAllocEntry": the service that the component called */
  const void *pCaller;  /**< address after the component's call instruction */
  uint64_t Call;        /**< number of the call, counted from 1 since attach over all threads */
  uint32_t Slot;        /**< the service's slot */
  uint32_t Thread;      /**< number of the thread, counted from 1 by first use of the layer */
} MEMCheckPlace;

MEM_CHECK_SIZE(MEMCheckPlace, 32);

/** One finding. Valid during the callback only, with all that it leads to. */
typedef struct MEMCheckReport {
  uint32_t Kind;        /**< MEMCheckKind */
  uint32_t Code;        /**< the MEMERR code of such a misuse where there is one: MEMERR_HEAPENTRY,
                             MEMERR_HEAPBHDL, MEMERR_CELLBHDL; else 0 */
  const char *pText;    /**< the whole report, some lines of text */
  const void *pAddress; /**< first byte that was written to, or the address that was passed */
  const void *pObject;  /**< the entry or cell, null when there is none */
  const void *pOwner;   /**< its heap or pool: that of the call for MEMCHK_FOREIGN */
  int64_t Length;       /**< bytes of the entry or cell */
  int64_t Given;        /**< MEMCHK_WRONG_LENGTH: the length that was passed; for the kinds that
                             report writes: how many bytes from pAddress on have been written to */
  MEMCheckPlace Found;  /**< the call in which it was noticed; unknown in MEMCheckVerify and
                             MEMCheckDetach */
  MEMCheckPlace Made;   /**< where the entry or cell was allocated, the handle opened */
  MEMCheckPlace Ended;  /**< where it was freed or closed, if it was */
} MEMCheckReport;

/** Takes a report. Runs on the thread that noticed it, on several at once, before the service goes
 * on; it may use the library and must return. */
typedef void MEMCheckReportFn(void *pContext, const MEMCheckReport *pReport);

/** Takes the next `Len` characters of a text, which are not NUL-terminated. */
typedef void MEMCheckTextFn(void *pContext, const char *pText, size_t Len);

/** @name Flags of MEMCheckOptions */
/** @{ */
#define MEMCHK_STATISTICS 0x00000001U /**< count in all slots from 8 on */
#define MEMCHK_NO_CHECKS                                                     \
  0x00000002U /**< only count: entries, addresses and cells stay as they are \
                   without the layer, and nothing is reported */
#define MEMCHK_NO_CHECKERS                                               \
  0x00000004U /**< tell AddressSanitizer and valgrind nothing: damage is \
                   found by the layer's own looks only */
#define MEMCHK_PLACES                                                           \
  0x00000008U /**< with MEMCHK_NO_CHECKS: keep the place of each entry and cell \
                   for MEMCheckMap; without it they are kept anyway */
/** @} */

enum {
  MEMCHK_RED_ZONE = 64,        /**< default of MEMCheckOptions.RedZone */
  MEMCHK_MIN_RED_ZONE = 32,    /**< smaller ones are made this long */
  MEMCHK_MAX_RED_ZONE = 65536, /**< longer ones are made this long */
  MEMCHK_QUARANTINE = 1024,    /**< default of MEMCheckOptions.Quarantine */
  MEMCHK_NOT_BOUND = 1,        /**< result of attach: a slot is null, or an argument is */
  MEMCHK_ATTACHED_ALREADY = 2  /**< result of attach: a process has one layer at a time */
};

/** How a layer works. Zeros, but for `Size`, are the defaults. */
typedef struct MEMCheckOptions {
  uint32_t Size;        /**< sizeof(MEMCheckOptions); what lies beyond counts as 0 */
  uint32_t Flags;       /**< MEMCHK_STATISTICS, MEMCHK_NO_CHECKS, MEMCHK_NO_CHECKERS,
                             MEMCHK_PLACES */
  uint32_t VerifyEvery; /**< verify everything at each so many calls of components; 0 = never */
  uint32_t RedZone;     /**< bytes before and after each entry, made a multiple of 16; 0 =
                             MEMCHK_RED_ZONE */
  uint32_t Quarantine;  /**< freed cells that each pool keeps back at most; 0 = MEMCHK_QUARANTINE */
  uint32_t Reserved20;
  MEMCheckReportFn *pReport; /**< null: reports go to stderr */
  void *pContext;            /**< first argument of `pReport` */
} MEMCheckOptions;

MEM_CHECK_SIZE(MEMCheckOptions, 40);

/** Attaches a layer to a vector that the library has filled and stores it. From then on
 * the slots above lead through the layer. Heaps and pools that are open already are checked as far
 * as they are used from now on. `pOptions` may be null and is not kept. MEMCHK_NOT_BOUND,
 * MEMCHK_ATTACHED_ALREADY. */
int16_t MEMCheckAttach(MEMFunctionVector *pVector, const MEMCheckOptions *pOptions,
                       MEMCheck **ppCheck);

/** Verifies everything, puts back what was in the slots and ends the layer. A slot that no longer
 * leads into the layer is left alone. What has been put into a slot over the layer's may go on
 * calling it: it then passes calls on. Before the library is unbound. Heaps and pools may stay
 * open: entries allocated before are used and freed as without it. Null does nothing. Always 0. */
int16_t MEMCheckDetach(MEMCheck *pCheck);

/** Looks at the red zones of all entries, and at all freed entries and cells. Reports each damage
 * once and repairs the layer's own bytes. The result is the number of reports made. */
uint64_t MEMCheckVerify(MEMCheck *pCheck);

/** Number of reports since attach, those during the call's callbacks included. */
uint64_t MEMCheckReports(const MEMCheck *pCheck);

/** Passes the statistics on as one JSON text in UTF-8, piece by piece. docs/checking-layer.md lists
 * the members. Services may run meanwhile; each object's figures fit together. */
int16_t MEMCheckStatistics(MEMCheck *pCheck, MEMCheckTextFn *pText, void *pContext);

/** The same, with a member "map" in each heap and pool: its areas and what lies where in them.
 * `memtool heapmap` draws it. There is none under MEMCHK_NO_CHECKS without MEMCHK_PLACES. */
int16_t MEMCheckMap(MEMCheck *pCheck, MEMCheckTextFn *pText, void *pContext);

#ifdef __cplusplus
}
#endif

#endif
