/** @file memerr.h
 * The library's error codes and the message table that it registers with the host.
 *
 * Codes are part of the contract with hosts and callers. They are in bands by owner: 3073 to 3092
 * process, thread and storage services, 4010 to 4014 cell pools, 4025 to 4027 concatenation, 4030
 * to 4034 hash tables, 4050 to 4058 heaps, 4065 to 4076 pack and unpack, 4080 to 4086 the string
 * sink, 4096 a service that this build does not provide.
 */
#ifndef QJ7MEM00_MEMERR_H
#define QJ7MEM00_MEMERR_H

#include "membase.h"

/** Every code with its message, in the order of the message table. Use it as MEMERR_LIST(ROW),
 * where ROW(name, code, message) is your own macro. Some codes have the same message; that is
 * intended. */
#define MEMERR_LIST(ROW)                                             \
  ROW(MEMERR_PBLKFAIL, 3073, "Acquire ProcessBlk failed")            \
  ROW(MEMERR_TBLKFAIL, 3074, "Acquire ThreadBlk failed")             \
  ROW(MEMERR_OPSCHEAP, 3075, "Could not create OpSys Heap")          \
  ROW(MEMERR_LOAD_QTRLINK, 3076, "Could not load QTRLINK")           \
  ROW(MEMERR_VBIND, 3077, "QTRF VBIND error")                        \
  ROW(MEMERR_VFETCH, 3078, "QTRF VFETCH error")                      \
  ROW(MEMERR_OSLOAD, 3079, "Error loading Translate Table")          \
  ROW(MEMERR_MSTGGATE, 3090, "Error acquiring gate")                 \
  ROW(MEMERR_GETMEM, 3091, "Error allocating block")                 \
  ROW(MEMERR_FREEMEM, 3092, "Error releasing block")                 \
  ROW(MEMERR_CELLBNDS, 4010, "Create bounds error")                  \
  ROW(MEMERR_CELLSIZE, 4011, "Create area too small")                \
  ROW(MEMERR_CELLELEN, 4012, "Create element too small")             \
  ROW(MEMERR_CELLAMEM, 4013, "Acquire Memory failed")                \
  ROW(MEMERR_CELLBHDL, 4014, "Bad Cell Handle")                      \
  ROW(MEMERR_CATSTRSIZE, 4025, "Max String size exceeded")           \
  ROW(MEMERR_CATAMEM, 4026, "Acquire Memory failed")                 \
  ROW(MEMERR_CATSTDSTR, 4027, "Standard String error")               \
  ROW(MEMERR_HASHAMEM, 4030, "CtlBlk getmain failed")                \
  ROW(MEMERR_HASHBHDL, 4031, "Bad Hash CtlBlk handle")               \
  ROW(MEMERR_HASHFERR, 4032, "Caller Hash Function bad data")        \
  ROW(MEMERR_HASHDKEY, 4033, "New entry has dup key value")          \
  ROW(MEMERR_HASHNFND, 4034, "Specified entry not found")            \
  ROW(MEMERR_HEAPSIZE, 4050, "Create size error")                    \
  ROW(MEMERR_HEAPEMIN, 4051, "Create element too small")             \
  ROW(MEMERR_HEAPEMAX, 4052, "Create element too large")             \
  ROW(MEMERR_HEAPNUME, 4053, "Multiple element count too small")     \
  ROW(MEMERR_HEAPLOFF, 4054, "Multiple element Link Offset invalid") \
  ROW(MEMERR_HEAPAMEM, 4055, "Acquire Memory failed")                \
  ROW(MEMERR_HEAPBHDL, 4056, "Heap Handle invalid")                  \
  ROW(MEMERR_HEAPGATE, 4057, "Failure Processing Gate")              \
  ROW(MEMERR_HEAPENTRY, 4058, "EHeap Free Bad Pointer")              \
  ROW(MEMERR_PACKAMEM, 4065, "Pack Block getmain failed")            \
  ROW(MEMERR_PACKBMIN, 4066, "Too Many blocks for Unpack")           \
  ROW(MEMERR_PACKBMAX, 4067, "BlockLen too small")                   \
  ROW(MEMERR_PACKSMAX, 4068, "Segment too large")                    \
  ROW(MEMERR_PACKSPTR, 4069, "Bad Segment Pointer")                  \
  ROW(MEMERR_PACKRBLK, 4070, "Bad Relative Block number")            \
  ROW(MEMERR_PACKROFF, 4071, "Bad Relative Block offset")            \
  ROW(MEMERR_PACKCYCL, 4072, "Recursive Structure")                  \
  ROW(MEMERR_PACKSTAK, 4073, "Traversal stack overflow")             \
  ROW(MEMERR_PACKCBID, 4074, "Structure Id Invalid")                 \
  ROW(MEMERR_PACKCBVR, 4075, "Structure Id Version bad")             \
  ROW(MEMERR_PACKUTF, 4076, "Unicode Conversion error")              \
  ROW(MEMERR_SINKVSTG, 4080, "String Sink VSTG failure")             \
  ROW(MEMERR_SINKLGATE, 4081, "Sink List Gate error")                \
  ROW(MEMERR_SINKITEXT, 4082, "Input Text error")                    \
  ROW(MEMERR_SINKSTEXT, 4083, "Sink Text error")                     \
  ROW(MEMERR_SINKNFND, 4084, "Value not found in Sink")              \
  ROW(MEMERR_SINKNOSPACE, 4085, "No Space available")                \
  ROW(MEMERR_SINKIERR, 4086, "Internal Process Error")               \
  ROW(MEMERR_NOT_SUPPORTED, 4096, "Function Service not defined")

/** The codes by name. */
enum MEMErrorCode {
#define MEM_CODE_ROW(name, code, message) name = (code),
  MEMERR_LIST(MEM_CODE_ROW)
#undef MEM_CODE_ROW
};

/** One row of a message table. The table ends with a row whose code is 0, whose name and message
 * are empty texts and whose explanation is null; every other explanation is the empty text.
 * All texts are constant and live as long as the library is loaded. */
typedef struct MEMMessageRow {
  uint32_t Code;           /**< MEMERR code, 0 in the last row */
  uint32_t Reserved4;      /**< padding, 0 */
  const char *Name;        /**< "MEMERR_…" */
  const char *Message;     /**< what hosts show for the code */
  const char *Explanation; /**< empty text; null in the last row */
} MEMMessageRow;

MEM_CHECK_SIZE(MEMMessageRow, 32);
MEM_CHECK_OFFSET(MEMMessageRow, Code, 0);
MEM_CHECK_OFFSET(MEMMessageRow, Name, 8);
MEM_CHECK_OFFSET(MEMMessageRow, Message, 16);
MEM_CHECK_OFFSET(MEMMessageRow, Explanation, 24);

#endif
