/** @file memhost.h
 * The records that a host provides: its service vectors, the trace frame and the thread
 * environment.
 *
 * A service vector is a table of function pointers; slot n is the n-th 8-byte pointer. The library
 * keeps the address of each vector from bind to unbind and reads the slot at every call, so a host
 * may patch slots at any time. Only the named slots are called. Reserved slots may have any value,
 * and a vector may be longer than its type here.
 *
 * Only the low 16 bits of a 16-bit result count. The library clears a cell before it calls a
 * service that stores into it.
 *
 * Threading: the library calls every service on the thread that called the library, and on several
 * threads at once if the host calls the library so. Gates are the only services that may wait.
 */
#ifndef QJ7MEM00_MEMHOST_H
#define QJ7MEM00_MEMHOST_H

#include "membase.h"
#include "memerr.h"
#include "memproc.h"

/** @name Trace flags of a call (MEMTraceFrame.TraceFlags) */
/** @{ */
#define MEM_TRACE_ENTRY 0x00000001U   /**< bit 0: "STDE" records, the "Parms" lines */
#define MEM_TRACE_EXIT 0x00000002U    /**< bit 1: "STDX" records, the "Return" lines */
#define MEM_TRACE_STORAGE 0x00000010U /**< bit 4: "SL05" records of the heaps */
#define MEM_TRACE_SINK 0x80000000U    /**< bit 31: "SL32" records of the string sink */
/** @} */

/** Lengths of the texts in the thread environment, in bytes with the terminator. */
enum {
  MEM_NAME_TEXT_LEN = 64,    /**< `NameText` and `InnerText`: at most 63 characters are shown */
  MEM_MESSAGE_TEXT_LEN = 256 /**< the most that the library writes at `MessageText` */
};

/** The part of the thread environment that most entry points clear on entry, so that it describes
 * only the current call. 552 bytes at offset 64 of the environment; offsets in brackets count from
 * the start of the environment. */
typedef struct MEMErrorArea {
  uint8_t Reserved0[10];
  uint16_t Component;  /**< [74] number of the failing component, 3 */
  uint16_t ReturnCode; /**< [76] 0xFFFF on failure */
  uint8_t Reserved14[2];
  uint32_t Code;          /**< [80] MEMERR code */
  uint32_t InnerCode;     /**< [84] code of the failure inside a nested call */
  uint32_t PrevInnerCode; /**< [88] of a nested failure of MEM_Cat: the former value of [84];
                             of a failing start of the sink: that of [80] */
  uint8_t Reserved28[268];
  char NameText[MEM_NAME_TEXT_LEN];  /**< [360] name or text of what failed */
  char InnerText[MEM_NAME_TEXT_LEN]; /**< [424] name or text that belongs to InnerCode */
  uint8_t Reserved424[128];
} MEMErrorArea;

MEM_CHECK_SIZE(MEMErrorArea, 552);
MEM_CHECK_OFFSET(MEMErrorArea, Component, 74 - 64);
MEM_CHECK_OFFSET(MEMErrorArea, ReturnCode, 76 - 64);
MEM_CHECK_OFFSET(MEMErrorArea, Code, 80 - 64);
MEM_CHECK_OFFSET(MEMErrorArea, InnerCode, 84 - 64);
MEM_CHECK_OFFSET(MEMErrorArea, PrevInnerCode, 88 - 64);
MEM_CHECK_OFFSET(MEMErrorArea, NameText, 360 - 64);
MEM_CHECK_OFFSET(MEMErrorArea, InnerText, 424 - 64);

/** A thread's trace buffer: the text of the next record. The contract fixes the offsets of text and
 * length; the host chooses the size. 4,096 bytes hold every line of this library, with texts of 511
 * wide characters shown twice as UTF-8. */
typedef struct MEMTraceBuf {
  uint8_t Reserved0[32];
  uint32_t TextLen; /**< bytes of text, without a terminator */
  uint8_t Reserved36[4];
  char Text[1]; /**< the text starts here and continues after the record */
} MEMTraceBuf;

MEM_CHECK_OFFSET(MEMTraceBuf, TextLen, 32);
MEM_CHECK_OFFSET(MEMTraceBuf, Text, 40);

/** Thread environment: one per thread, owned by the host, found through the trace frame. The
 * library uses only the named fields. */
typedef struct MEMThreadEnv {
  uint8_t Reserved0[64];
  MEMErrorArea Error;
  uint8_t Reserved616[616];
  char MessageText[MEM_MESSAGE_TEXT_LEN]; /**< free message text; not part of the error area */
  uint8_t Reserved1488[360];
  MEMTraceBuf *pTraceBuf; /**< null: nothing is traced on this thread */
  uint8_t Reserved1856[8];
  MEMThreadBlock *pMemThreadBlk; /**< null before MEM_ThreadAct */
} MEMThreadEnv;

MEM_CHECK_SIZE(MEMThreadEnv, 1872);
MEM_CHECK_OFFSET(MEMThreadEnv, Error, 64);
MEM_CHECK_OFFSET(MEMThreadEnv, MessageText, 1232);
MEM_CHECK_OFFSET(MEMThreadEnv, pTraceBuf, 1848);
MEM_CHECK_OFFSET(MEMThreadEnv, pMemThreadBlk, 1864);

/** Trace frame: a record in an entry point's own stack frame. The library clears it, stores the
 * entry point's name and passes it to EnterFrame and LeaveFrame. */
typedef struct MEMTraceFrame {
  void *pHostLink;          /**< the host's own */
  MEMThreadEnv *pThreadEnv; /**< set by EnterFrame; may be null */
  uint8_t Reserved16[16];   /**< the host's own */
  uint32_t TraceFlags;      /**< set by EnterFrame: MEM_TRACE_… */
  uint32_t Result;          /**< result of the call; the library writes the low 16 bits only */
  uint8_t Reserved40[16];   /**< the host's own */
  const char *pName;        /**< trace name of the entry point, set before EnterFrame */
} MEMTraceFrame;

MEM_CHECK_SIZE(MEMTraceFrame, 64);
MEM_CHECK_OFFSET(MEMTraceFrame, pThreadEnv, 8);
MEM_CHECK_OFFSET(MEMTraceFrame, TraceFlags, 32);
MEM_CHECK_OFFSET(MEMTraceFrame, Result, 36);
MEM_CHECK_OFFSET(MEMTraceFrame, pName, 56);

/** The block that the third argument of the binding call points to. */
typedef struct MEMSysEnv {
  uint8_t Reserved0[176];
  uint32_t PlatformFlags; /**< bit 0: MEM_PLATFORM_BIG_ENDIAN */
} MEMSysEnv;

MEM_CHECK_OFFSET(MEMSysEnv, PlatformFlags, 176);

/** Platform flag: this machine is big-endian. Packed chains are marked as big-endian, chains of the
 * other byte order are swapped when they are unpacked, and the packer hashes byte 3. */
#define MEM_PLATFORM_BIG_ENDIAN 0x00000001U

/** A slot that the library neither calls nor changes. */
typedef void (*MEMReservedSlot)(void);

/** Operations of the host runtime (HostVector[0]). The comment of each begins with its slot
 * number. */
typedef struct MEMRuntimeServices {
  MEMReservedSlot Reserved0[7];

  /** 7: stores component `Component`'s anchor, or null, at `*ppAnchor`. `Zero` is 0. */
  uint16_t (*GetAnchor)(int32_t Zero, int32_t Component, void **ppAnchor);
  /** 8: registers `pAnchor` (null withdraws it) as the component's anchor. */
  void (*SetAnchor)(int32_t Zero, int32_t Component, void *pAnchor);
  MEMReservedSlot Reserved9[18];

  /** 27: makes a gate and stores its handle, any number. 0 = success. */
  uint16_t (*CreateGate)(uint32_t *phGate);
  /** 28: deletes a gate that no thread holds. */
  void (*DeleteGate)(uint32_t hGate);
  /** 29: waits until the gate is free, then holds it. 0 = success. */
  uint16_t (*AcquireGate)(uint32_t hGate);
  /** 30: releases a gate held by the calling thread. */
  void (*ReleaseGate)(uint32_t hGate);
  MEMReservedSlot Reserved31[17];

  /** 48: allocates `Length` bytes, 8-byte aligned, from a subpool. 0 = success. */
  uint16_t (*GetPoolStorage)(uint16_t SubPool, uint32_t Length, void **ppArea);
  /** 49: frees storage allocated through slot 48. */
  void (*FreePoolStorage)(uint16_t SubPool, void *pArea);
  MEMReservedSlot Reserved50[62];

  /** 112: allocates `Length` bytes of a storage kind (0, 1 or 2), 8-byte aligned. 0 = success. */
  uint16_t (*GetStorage)(void **ppArea, uint32_t Length, uint16_t SubPool, uint16_t Kind);
  /** 113: frees storage allocated through slot 112; `Length` is the allocated length. */
  void (*FreeStorage)(void *pArea, uint32_t Length, uint16_t SubPool);
  MEMReservedSlot Reserved114[19];

  /** 133: registers the component's message table (null withdraws it). Kept by address. */
  void (*RegisterMessages)(int32_t Component, const MEMMessageRow *pTable);
  MEMReservedSlot Reserved134[10];

  /** 144: makes a range of storage read-only (mode 16) or writable (mode 32). The range is often
   * part of a page: every page that it touches changes. 0 = success. */
  uint16_t (*ProtectStorage)(void *pArea, uint32_t Length, uint16_t SubPool, uint16_t Mode);
  MEMReservedSlot Reserved145[3];

  /** 148: enters a trace frame: sets pThreadEnv and TraceFlags. */
  void (*EnterFrame)(MEMTraceFrame *pFrame, int32_t Component);
  /** 149: leaves the frame entered last on this thread. */
  void (*LeaveFrame)(MEMTraceFrame *pFrame, int32_t Component);
  MEMReservedSlot Reserved150[8];

  /** 158: converts text between code pages (1200 = UTF-16, 12000 = UTF-32, both in the machine's
   * byte order). `InLen` is in bytes, -1 for NUL-terminated input; `OutLen` is the size of the
   * buffer at `pOut` in bytes. The result is NUL-terminated. 0 = success. May be null: then the
   * library converts the text itself. */
  uint16_t (*ConvertText)(uint16_t FromPage, uint16_t ToPage, const void *pIn, int32_t InLen,
                          void *pOut, int32_t OutLen);
  MEMReservedSlot Reserved159[126];

  /** 285: 0 when the whole range can be read and written. */
  uint16_t (*CheckStorage)(const void *pArea, uint32_t Length);
} MEMRuntimeServices;

enum {
  MEM_PROTECT_READ_ONLY = 16, /**< mode of ProtectStorage */
  MEM_PROTECT_WRITABLE = 32   /**< mode of ProtectStorage */
};

#define MEM_CHECK_SLOT(vector, field, slot) MEM_CHECK_OFFSET(vector, field, (slot)*8)
MEM_CHECK_SLOT(MEMRuntimeServices, GetAnchor, 7);
MEM_CHECK_SLOT(MEMRuntimeServices, SetAnchor, 8);
MEM_CHECK_SLOT(MEMRuntimeServices, CreateGate, 27);
MEM_CHECK_SLOT(MEMRuntimeServices, DeleteGate, 28);
MEM_CHECK_SLOT(MEMRuntimeServices, AcquireGate, 29);
MEM_CHECK_SLOT(MEMRuntimeServices, ReleaseGate, 30);
MEM_CHECK_SLOT(MEMRuntimeServices, GetPoolStorage, 48);
MEM_CHECK_SLOT(MEMRuntimeServices, FreePoolStorage, 49);
MEM_CHECK_SLOT(MEMRuntimeServices, GetStorage, 112);
MEM_CHECK_SLOT(MEMRuntimeServices, FreeStorage, 113);
MEM_CHECK_SLOT(MEMRuntimeServices, RegisterMessages, 133);
MEM_CHECK_SLOT(MEMRuntimeServices, ProtectStorage, 144);
MEM_CHECK_SLOT(MEMRuntimeServices, EnterFrame, 148);
MEM_CHECK_SLOT(MEMRuntimeServices, LeaveFrame, 149);
MEM_CHECK_SLOT(MEMRuntimeServices, ConvertText, 158);
MEM_CHECK_SLOT(MEMRuntimeServices, CheckStorage, 285);
MEM_CHECK_SIZE(MEMRuntimeServices, 286 * 8);

/** Trace operations (HostVector[1]). Record types: "STDE" entry, "STDX" exit, "EXCP" exception,
 * "SL05" heap storage, "SL32" sink detail. The text and length of a record are in the calling
 * thread's trace buffer. `Zero` is always 0. */
typedef struct MEMTraceServices {
  MEMReservedSlot Reserved0[9];

  /** 9: writes a trace record. */
  void (*WriteRecord)(int32_t Component, int32_t Zero, const char *pType, const char *pSource,
                      const char *pFunction, int32_t Line);
  MEMReservedSlot Reserved10[2];

  /** 12: formats by the printf rules of 64-bit Windows and returns the length of the text: every
   * argument is 8 bytes wide, `l` means 32 bits and `h` 16, `%S` is UTF-16, `%p` 16 digits. A
   * negative result makes a record without text. */
  int32_t (*Format)(char *pDest, const char *pFormat, ...);
  MEMReservedSlot Reserved13[3];

  /** 16: writes an exception record; `pType` is "EXCP". */
  void (*WriteException)(int32_t Component, int32_t Zero, const char *pType, const char *pSource,
                         const char *pFunction, int32_t Line);
  MEMReservedSlot Reserved17[4];

  /** 21: writes a trace record with the wide text `pText` instead of the trace buffer's text. */
  void (*WriteWideRecord)(int32_t Component, int32_t Zero, const char *pType, const char *pSource,
                          const char *pFunction, int32_t Line, const char16_t *pText);
} MEMTraceServices;

MEM_CHECK_SLOT(MEMTraceServices, WriteRecord, 9);
MEM_CHECK_SLOT(MEMTraceServices, Format, 12);
MEM_CHECK_SLOT(MEMTraceServices, WriteException, 16);
MEM_CHECK_SLOT(MEMTraceServices, WriteWideRecord, 21);
MEM_CHECK_SIZE(MEMTraceServices, 22 * 8);

/** Text operations (HostVector[2]). */
typedef struct MEMTextServices {
  MEMReservedSlot Reserved0[8];

  /** 8: called after a failing call has filled the thread's error area. `pErrorText` is the text in
   * it; `pDetail` adds detail to a few failures and is otherwise the empty text. */
  void (*ReportError)(char *pErrorText, const char *pDetail);
  MEMReservedSlot Reserved9[3];

  /** 12: exception filter for faults inside the port string calls. `pException` is a siginfo_t * on
   * Linux, an EXCEPTION_POINTERS * on Windows. 1 = end the call, 0 = not ours, the process handles
   * the fault, -1 = continue. If the filter stores a result in the frame, it becomes the result of
   * the call. May be null: same as 1. */
  int32_t (*FilterException)(void *pException, MEMTraceFrame *pFrame);
} MEMTextServices;

MEM_CHECK_SLOT(MEMTextServices, ReportError, 8);
MEM_CHECK_SLOT(MEMTextServices, FilterException, 12);
MEM_CHECK_SIZE(MEMTextServices, 13 * 8);

#endif
