/** @file memchk.h
 * The checking layer: a static library (`QJ7MEM00::check`) for hosts. It replaces slots of the MEM
 * function vector by its own functions, which call the original ones. It finds misuse of heap
 * entries and cells by components, and counts what they use. The memory services do not change.
 *
 * What it finds: writes before and after heap entries, writes to freed entries and cells, wrong
 * lengths, entries and cells freed twice, to another owner or never allocated, closed handles.
 * Under AddressSanitizer and valgrind the faulty instruction itself is reported.
 * docs/checking-layer.md describes what the layer cannot detect, what changes for the component,
 * and what it costs.
 *
 * Slots 10 to 19 and 36 to 42 are replaced, and of the same families 44, 50 and 51; with
 * MEMCHK_STATISTICS all slots from 8 on, so that hash tables, concatenation buffers and the sink
 * are counted, too. A replaced slot calls its former function, so the host's own services remain in
 * use.
 *
 * Conventions (see membase.h, too):
 *  1. Results are 0, -1, or a MEMCHK code. No call changes the thread's error area or a trace
 *     frame.
 *  2. The layer's own records come from the C++ runtime's allocator, never from the host's storage.
 *     When that allocator fails, the program ends.
 *  3. Attach and detach must not overlap any call through the vector, nor each other. Any number of
 *     threads may make all other calls at once. The vector's own rules for threads do not change: a
 *     standard heap or pool belongs to one thread at a time.
 */
#ifndef QJ7MEM00_MEMCHK_H
#define QJ7MEM00_MEMCHK_H

#include "qj7mem00.h"

#ifdef QJ7MEM00_MEMVECT_H /* else the standard is too old, which qj7mem00.h says */

#ifdef __cplusplus
extern "C" {
#endif

/** An attached layer. It belongs to the caller from MEMCheckAttach to MEMCheckDetach. */
typedef struct MEMCheck MEMCheck;

/** What a report is about (MEMCheckReport.Kind). */
enum MEMCheckKind {
  MEMCHK_OVERRUN = 1,      /**< bytes after an entry were overwritten */
  MEMCHK_UNDERRUN = 2,     /**< bytes before an entry were overwritten */
  MEMCHK_FREED_WRITE = 3,  /**< a freed entry or cell was overwritten */
  MEMCHK_DOUBLE_FREE = 4,  /**< an entry or cell is freed twice */
  MEMCHK_FOREIGN = 5,      /**< the freed address was never allocated as an entry or cell */
  MEMCHK_OTHER_OWNER = 6,  /**< an entry of another heap or a cell of another pool is freed */
  MEMCHK_WRONG_LENGTH = 7, /**< an entry is freed with another length than it was allocated with */
  MEMCHK_CLOSED_HANDLE = 8 /**< a closed heap or pool is used */
};

/** The place of a call. All zero when it is unknown. */
typedef struct MEMCheckPlace {
  const char *pService; /**< "MEM_HeapAllocEntry": the service that the component called */
  const void *pCaller;  /**< address after the component's call instruction */
  uint64_t Call;        /**< number of the call, counted from 1 since attach over all threads */
  uint32_t Slot;        /**< the service's slot */
  uint32_t Thread;      /**< number of the thread, counted from 1 by first use of the layer */
} MEMCheckPlace;

MEM_CHECK_SIZE(MEMCheckPlace, 32);

/** One finding. The record and all that it points to are valid during the callback only. */
typedef struct MEMCheckReport {
  uint32_t Kind;        /**< MEMCheckKind */
  uint32_t Code;        /**< the MEMERR code of this misuse, if there is one: MEMERR_HEAPENTRY,
                           MEMERR_HEAPBHDL, MEMERR_CELLBHDL; else 0 */
  const char *pText;    /**< the whole report, some lines of text */
  const void *pAddress; /**< first overwritten byte, or the address that was passed */
  const void *pObject;  /**< the entry or cell, null when there is none */
  const void *pOwner;   /**< its heap or pool: that of the call for MEMCHK_FOREIGN */
  int64_t Length;       /**< bytes of the entry or cell */
  int64_t Given; /**< MEMCHK_WRONG_LENGTH: the length that was passed; for the kinds that report
                    writes: how many bytes from pAddress on are overwritten */
  MEMCheckPlace Found; /**< the call that found it; unknown in MEMCheckVerify and MEMCheckDetach */
  MEMCheckPlace Made;  /**< where the entry or cell was allocated or the handle opened */
  MEMCheckPlace Ended; /**< where it was freed or closed, if at all */
} MEMCheckReport;

/** Takes a report. Runs on the thread that found the misuse, possibly on several threads at once,
 * before the service continues. It may use the library and must return. */
typedef void MEMCheckReportFn(void *pContext, const MEMCheckReport *pReport);

/** Takes the next `Len` characters of a text. They are not NUL-terminated. */
typedef void MEMCheckTextFn(void *pContext, const char *pText, size_t Len);

/** @name Flags of MEMCheckOptions */
/** @{ */
#define MEMCHK_STATISTICS 0x00000001U /**< count in all slots from 8 on */
#define MEMCHK_NO_CHECKS                                                    \
  0x00000002U /**< only count: entries, addresses and cells are the same as \
                   without the layer, and nothing is reported */
#define MEMCHK_NO_CHECKERS                                               \
  0x00000004U /**< do not inform AddressSanitizer and valgrind: only the \
                   layer's own checks find damage */
#define MEMCHK_PLACES                                                           \
  0x00000008U /**< with MEMCHK_NO_CHECKS: keep the place of each entry and cell \
                   for MEMCheckMap; without it they are kept anyway */
/** @} */

enum {
  MEMCHK_RED_ZONE = 64,        /**< default of MEMCheckOptions.RedZone */
  MEMCHK_MIN_RED_ZONE = 32,    /**< smaller values are raised to this */
  MEMCHK_MAX_RED_ZONE = 65536, /**< larger values are lowered to this */
  MEMCHK_QUARANTINE = 1024,    /**< default of MEMCheckOptions.Quarantine */
  MEMCHK_NOT_BOUND = 1,        /**< result of attach: a slot or an argument is null */
  MEMCHK_ATTACHED_ALREADY = 2  /**< result of attach: a process can have only one layer at a time */
};

/** Options of a layer. Zero selects the default, except for `Size`. */
typedef struct MEMCheckOptions {
  uint32_t Size;        /**< sizeof(MEMCheckOptions); members beyond it count as 0 */
  uint32_t Flags;       /**< MEMCHK_STATISTICS, MEMCHK_NO_CHECKS, MEMCHK_NO_CHECKERS,
                             MEMCHK_PLACES */
  uint32_t VerifyEvery; /**< verify everything after this many calls of components; 0 = never */
  uint32_t RedZone;     /**< bytes before and after each entry, rounded up to a multiple of 16; 0 =
                             MEMCHK_RED_ZONE */
  uint32_t Quarantine;  /**< most freed cells that each pool keeps; 0 = MEMCHK_QUARANTINE */
  uint32_t Reserved20;
  MEMCheckReportFn *pReport; /**< null: reports go to stderr */
  void *pContext;            /**< first argument of `pReport` */
} MEMCheckOptions;

MEM_CHECK_SIZE(MEMCheckOptions, 40);

/** Attaches a layer to a vector that the library has filled, and stores the layer. From then on
 * calls of the slots above go through the layer. Heaps and pools that are already open are checked
 * only for what happens from then on. `pOptions` may be null and is not kept. MEMCHK_NOT_BOUND,
 * MEMCHK_ATTACHED_ALREADY. */
int16_t MEMCheckAttach(MEMFunctionVector *pVector, const MEMCheckOptions *pOptions,
                       MEMCheck **ppCheck);

/** Verifies everything, restores the slots and ends the layer. A slot that no longer contains the
 * layer's function is not changed. A function that replaced the layer's in a slot may continue to
 * call it; the layer then only passes calls on. Call it before the library is unbound. Heaps and
 * pools may stay open: entries allocated before are used and freed as without the layer. Null does
 * nothing. Always 0. */
int16_t MEMCheckDetach(MEMCheck *pCheck);

/** Checks the red zones of all entries, and all freed entries and cells. Reports each damage once
 * and repairs the layer's own bytes. Returns the number of reports. */
uint64_t MEMCheckVerify(MEMCheck *pCheck);

/** Number of reports since attach, including those made during callbacks. */
uint64_t MEMCheckReports(const MEMCheck *pCheck);

/** Passes the statistics to `pText` as one JSON text in UTF-8, in pieces. docs/checking-layer.md
 * lists the members. Services may run meanwhile; the figures of each object are consistent. */
int16_t MEMCheckStatistics(MEMCheck *pCheck, MEMCheckTextFn *pText, void *pContext);

/** The same, with a member "map" in each heap and pool: its areas and what is where in them.
 * `memtool heapmap` draws it. There is none under MEMCHK_NO_CHECKS without MEMCHK_PLACES. */
int16_t MEMCheckMap(MEMCheck *pCheck, MEMCheckTextFn *pText, void *pContext);

#ifdef __cplusplus
}
#endif

#endif
#endif
