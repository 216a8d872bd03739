/** @file refhost.hpp
 * The reference host: an embeddable host runtime for tests, tools, examples and for developers of
 * components who do not have the real one.
 *
 * It implements every service that the library calls, on Linux and Windows. A Host owns the service
 * vectors, the MEM function vector, one thread environment for each thread, the storage account and
 * the message table. Services have no context argument, so a process has at most one Host at a time
 * (constructing a second one is a logic_error).
 * It enforces the rules of the real runtime: it reports every misuse of a service as a Misuse, and
 * refuses the call where that is possible.
 * When a thread ends, the host reports what the thread has not undone: gates that it holds, an open
 * frame, an active thread block. No thread waits for a gate whose owner has ended. The host keeps
 * nothing else of an ended thread, so it can serve any number of threads in turn.
 * At its end a host reports, on stderr unless Options say otherwise, the storage that components
 * have not freed and the misuses that were not taken. If there are none, it writes nothing.
 *
 * Threading: services may be called on any number of threads at once. The members of Host that
 * read state (account, calls, records, message, …) may be called at any time; those that change
 * settings (setTraceFlags, arm, record…, onTrace) may too, and take effect at the next call.
 * Construction, destruction, bind, unbind and restoreSlots must not overlap any call through the
 * vector. A thread may end at any time, before, during and after the host's destruction.
 */
#pragma once

/* One clear message instead of many errors, or of none: C++17 takes this header. */
#if __cplusplus <= 201703L && (!defined(_MSVC_LANG) || _MSVC_LANG <= 201703L)
#error "refhost.hpp needs C++20 or later: compile with -std=c++20 (/std:c++20)"
#else

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "qj7mem00/memchk.h"
#include "qj7mem00/qj7mem00.h"

namespace refhost {

/** Every service that the library calls, in the order of vectors and slots. */
enum class Service {
  GetAnchor,
  SetAnchor,
  CreateGate,
  DeleteGate,
  AcquireGate,
  ReleaseGate,
  GetPoolStorage,
  FreePoolStorage,
  GetStorage,
  FreeStorage,
  RegisterMessages,
  ProtectStorage,
  EnterFrame,
  LeaveFrame,
  ConvertText,
  CheckStorage,
  WriteRecord,
  Format,
  WriteException,
  WriteWideRecord,
  ReportError,
  FilterException
};
inline constexpr std::size_t kServiceCount = 22;

std::string_view serviceName(Service service);

/** @name Results of a service that refuses a call
 * The host also stores the number in the calling thread's error area at offset 80, with the
 * service's name in the name field (offset 360). */
/** @{ */
inline constexpr std::uint16_t kNoStorage = 8;    /**< more than kMaxStorage, or none left */
inline constexpr std::uint16_t kBadArgument = 12; /**< a value that the service does not know */
inline constexpr std::uint16_t kNoGate = 16;      /**< the gate was not created, or is deleted */
inline constexpr std::uint16_t kGateOwned = 20;   /**< held by this thread or one that has ended */
inline constexpr std::uint16_t kNotStorage = 24;  /**< range not inside one live area */
inline constexpr std::uint16_t kNotProtectable = 28; /**< area without pages of its own */
inline constexpr std::uint16_t kBadText = 32;        /**< text that is not valid in its code page */
inline constexpr std::uint16_t kNoRoom = 36;         /**< result of a conversion does not fit */
/** @} */

/** Longest storage request that is served, in bytes: a test with a wrong length does not use up the
 * machine's memory. */
inline constexpr std::uint32_t kMaxStorage = 0x40000000;

/** Storage of this subpool, and any area of at least kPagedLength bytes, has whole pages of its
 * own, so that it can be protected. */
inline constexpr std::uint16_t kProtectedSubPool = MEM_SINK_SUBPOOL;
inline constexpr std::uint32_t kPagedLength = 0x10000;

/** Room for text in a thread's trace buffer, and the room that Format assumes at any other
 * destination; both in bytes with the terminator. Longer texts are cut. */
inline constexpr std::size_t kTraceTextRoom = 8192;
inline constexpr std::size_t kFormatRoom = 4096;

/** Storage account of one subpool and kind, or of all. Lengths are the requested ones. */
struct Account {
  std::uint64_t liveBytes = 0;
  std::uint64_t liveCount = 0;
  std::uint64_t peakBytes = 0;
  std::uint64_t totalBytes = 0;
  std::uint64_t totalCount = 0;
};

/** Kind of the storage of the pool services (slots 48 and 49) in the account. */
inline constexpr std::uint16_t kPoolKind = 0xFFFF;

/** A storage area that was not freed, and the call that allocated it. */
struct Leak {
  void *area;
  std::uint64_t length;
  std::uint16_t subPool;
  std::uint16_t kind;
  std::uint64_t callNumber = 0; /**< the nth area since the host was made, from 1 */
  std::uint64_t thread = 0;     /**< number of the thread, in the order of their first calls */
  /** Trace names of the entry points that were open on the thread: first the service that the
   * component called, last the one that called the host. Empty if the component called the host
   * itself. */
  std::vector<std::string> services = {};
  /** Native stack, the innermost function first, without the host's and the library's functions;
   * empty unless Options::stacks is set. */
  std::vector<std::string> stack = {};
};

/** How many misuses are kept until they are taken. */
inline constexpr std::size_t kKeptMisuses = 1000;

/** A misuse of a service: storage that is freed otherwise than it was allocated, a gate released by
 * a thread that does not hold it, frames left out of order, a thread that ended without undoing
 * such a call (`service` is then the service that it did not call). The host keeps the first
 * kKeptMisuses since they were last taken; one more gives the number of the others. */
struct Misuse {
  Service service;
  std::string what;
  std::uint64_t thread = 0;               /**< as in Leak */
  std::vector<std::string> services = {}; /**< as in Leak: entry points that were open */
  std::vector<std::string> stack = {};    /**< as in Leak */
  std::optional<Leak> area = {};          /**< the area concerned, where there is one */
};

/** Leaks and misuses that a host has found. */
struct Findings {
  std::vector<Leak> leaks; /**< of components, in the order of their call numbers */
  std::vector<Misuse> misuses;

  bool empty() const { return leaks.empty() && misuses.empty(); }

  /** The report: some lines for each group of equal leaks, the largest group first, and for each
   * misuse. Leaks are equal if length, subpool, kind, services and stack are. Empty if nothing was
   * found. */
  std::string text() const;
};

/** What trace lines contain before the record, in this order. */
struct TraceLineStyle {
  bool time = false;   /**< seconds since the host was made: "    0.000123 " */
  bool thread = false; /**< number of the thread: "T1 " */
  bool depth = false;  /**< two blanks for every entry point around the traced one */
};

struct Options {
  bool dirtyStorage = false; /**< storage is filled with dirtyByte instead of zeros */
  std::uint8_t dirtyByte = 0xA5;
  bool bigEndian = false;         /**< platform flag in pSysEnv, which the packer reads */
  bool nullSysEnv = false;        /**< bind with a null pSysEnv */
  std::uint32_t traceFlags = 0;   /**< flags of every frame until setTraceFlags */
  TraceLineStyle traceLines = {}; /**< of streams and files, until setTraceLines */
  bool checked = false;    /**< bind attaches the checking layer (memchk.h), unbind detaches it;
                                so does MEM_CHECKED=1 in the environment */
  bool statistics = false; /**< bind attaches the layer to count for Host::statistics, without its
                                checks unless `checked` is set, too */
  bool places = false;     /**< as statistics; the layer also keeps the place of each entry and cell
                                for maps, as it does with `checked` */

  /** @name The report at the end */
  /** @{ */
  bool report = true; /**< write findings, if there are any, to stderr or pass them to onReport */
  std::function<void(const Findings &)> onReport = {}; /**< must not throw */
  bool keepLeaks = true; /**< leaks stay allocated, so that memory checkers report them, too */
  bool stacks = false;   /**< leaks and misuses have native stacks; each storage call is slower */
  /** @} */

  /** Called at each misuse, on its thread, before the service returns. It may use the library and
   * must not throw. The misuse is kept as well. For a thread that ends without undoing its calls it
   * is called at the thread's end; other threads that end then wait, so it must not wait for them.
   * stopOnMisuse and abortOnMisuse can be set here. */
  std::function<void(const Misuse &)> onMisuse = {};

  /** The call that allocates the area with this number (Leak::callNumber) stops in the debugger; 0:
   * none. Without a debugger the program ends there. */
  std::uint64_t stopAtCall = 0;
};

/** @name For Options::onMisuse
 * Both write the misuse to stderr. stopOnMisuse then stops in the debugger (without one the program
 * ends there), abortOnMisuse aborts. */
/** @{ */
void stopOnMisuse(const Misuse &misuse);
void abortOnMisuse(const Misuse &misuse);
/** @} */

/** One recorded service call. The first four arguments are widened to 64 bits (signed ones with
 * their sign), in the order of the slot's signature; addresses are stored as numbers. Of Format
 * only the destination and the format are recorded. */
struct HostCall {
  Service service;
  std::string frame; /**< name of the innermost frame at the time of the call;
                          for EnterFrame and LeaveFrame: of that frame itself */
  std::array<std::uint64_t, 4> args{};
  std::uint64_t result = 0; /**< GetAnchor, GetStorage, GetPoolStorage: the address, or 0; Format:
                                 the length; others: the code. Of an injected failure: Fault::code.
                                 0 while the call runs */
};

/** One trace record, with the text copied. */
struct TraceRecord {
  std::string type; /**< "STDE", "STDX", "EXCP", "SL05" or "SL32" */
  std::string source;
  std::string function;
  std::int32_t line = 0;
  std::string text; /**< wide text is kept as UTF-8 */
  Service writtenBy = Service::WriteRecord;
  std::uint64_t time = 0;   /**< nanoseconds since the host was made */
  std::uint64_t thread = 0; /**< number of the thread, as in Leak */
  std::size_t depth = 0; /**< entry points open on the thread; 1: the component called this one */
};

/** A failure to inject: the nth next call of a service (1 = the next one) fails. It does none of
 * the service's work and returns `code`; a service without a result does nothing. Cells for results
 * keep what they hold. */
struct Fault {
  Service service = Service::GetStorage;
  std::uint64_t nth = 1;
  bool andAllLater = false;    /**< every call from the nth on fails */
  std::uint16_t code = 8;      /**< the service's own result */
  std::uint32_t errorCode = 0; /**< stored at offset 80 of the thread environment, 0 = nothing */
  std::string errorText = {};  /**< stored in the name field (offset 360) if errorCode is set */
};

struct Message {
  std::string name;
  std::string text;
};

/** Where a component has opened an object or allocated an entry. */
struct StatisticsPlace {
  std::string service;      /**< entry point that the component called; empty if it is not known */
  std::uint64_t call = 0;   /**< number of the component's call (memchk.h); 0 without the layer */
  std::uint64_t thread = 0; /**< as in Leak; of buffers, entries and cells as in memchk.h */
  const void *caller = nullptr; /**< address after the component's call instruction; null without
                                     the layer */
  std::string from; /**< the same as file and offset, with the function if it is exported */
  std::uint64_t storageCall = 0; /**< number of the call that allocated the object's first area, as
                                      in Leak; 0 for buffers, entries and cells */
};

/** What components have requested: entries, cells, records, appended texts, texts of the sink. */
struct Usage {
  std::int64_t made = 0;
  std::int64_t freed = 0;
  std::int64_t live = 0;
  std::int64_t bytesAsked = 0; /**< requested lengths of all that were made */
  std::int64_t bytesLive = 0;
  std::int64_t bytesPeak = 0;
  std::array<std::int64_t, 33> histogram{}; /**< [n]: how many have a length of n binary digits,
                                                 2^(n-1) to 2^n - 1; [0]: of length 0 */
};

/** An entry or a cell in a map. */
struct MappedEntry {
  std::uint64_t offset = 0; /**< from the start of its area */
  std::uint64_t asked = 0;
  std::uint64_t taken = 0; /**< bytes that it occupies, with rounding, without red zones */
  std::uint64_t zone = 0;  /**< length of each of its two red zones */
  StatisticsPlace made;
  std::optional<StatisticsPlace> freed; /**< of an enhanced heap's entry that was freed */
};

/** An area or a large block in a map. */
struct MappedArea {
  const void *area = nullptr;
  std::uint64_t length = 0;
  std::uint64_t head = 0; /**< bytes that the library keeps at the start */
  bool isLarge = false;
  std::uint64_t free = 0; /**< heaps: offset of the bytes that no entry has used yet */
  std::vector<MappedEntry> entries;
};

/** What has happened to an object between two snapshots. */
enum class Change { none, opened, closed, changed };

/** An open heap, pool, table or buffer. Figures that its family does not have are 0. */
struct ObjectStatistics {
  enum class Kind { standardHeap, enhancedHeap, cellPool, hashTable, buffer };

  Kind kind = Kind::standardHeap;
  const void *handle = nullptr; /**< of a buffer its control block */
  StatisticsPlace opened;
  Change change = Change::none; /**< in a difference */

  /** @name Heaps and pools */
  /** @{ */
  std::uint16_t subPool = 0;
  std::uint64_t areaSize = 0;
  std::uint64_t cellLen = 0; /**< pools */
  std::int64_t areas = 0;
  std::int64_t largeBlocks = 0;   /**< heaps */
  std::int64_t bytesObtained = 0; /**< allocated from the host; of buffers, too */
  std::int64_t bytesUsed = 0;     /**< of these, with headers, rounding and red zones */
  std::int64_t bytesWasted = 0;   /**< unused ends of areas */
  std::vector<MappedArea> map;    /**< in a snapshot with maps */
  /** @} */

  /** @name Tables and buffers */
  /** @{ */
  const void *heap = nullptr; /**< of a table's records */
  std::int64_t duplicates = 0;
  std::int64_t found = 0;
  std::int64_t notFound = 0;
  std::int64_t bytesObtainedPeak = 0;
  std::int64_t moves = 0; /**< how often a buffer's text has moved */
  /** @} */

  std::optional<Usage> usage; /**< empty without the layer */
};

/** The objects of a family. Without the layer the counts are empty. */
struct FamilyStatistics {
  std::optional<std::int64_t> opened;
  std::optional<std::int64_t> closed;
  std::vector<ObjectStatistics> open; /**< in the order of opening */
};

struct SinkStatistics {
  std::int64_t areas = 0; /**< of the sink's subpool */
  std::int64_t bytesObtained = 0;
  std::int64_t bytesObtainedPeak = 0;
  std::optional<Usage> texts;  /**< each text of each call */
  std::optional<Usage> copies; /**< each shared copy once */
  std::int64_t found = 0;
  std::int64_t notFound = 0;
};

struct ServiceStatistics {
  std::uint32_t slot = 0;
  std::string service;
  std::int64_t calls = 0;
  std::int64_t failures = 0;
};

/** What components have opened and use: a snapshot, or the difference of two. All figures are
 * signed: in a difference each is the increase. docs/statistics.md lists which of them need the
 * checking layer. */
struct Statistics {
  bool isDifference = false;
  bool isCounted = false; /**< the layer was attached */
  std::int64_t componentCalls = 0;
  std::int64_t reports = 0;
  std::vector<ServiceStatistics> services; /**< those that were called, by slot */
  FamilyStatistics heaps;
  FamilyStatistics pools;
  std::optional<FamilyStatistics> tables;
  std::optional<FamilyStatistics> buffers;
  SinkStatistics sink;

  /** What has changed since an earlier snapshot. All figures of an object are 0 before it is opened
   * and after it is closed. Unchanged objects and maps are left out. */
  Statistics since(const Statistics &before) const;

  /** Tables for reading. */
  std::string table() const;
  /** One line: the members of MEMCheckStatistics' JSON and those of the host (docs/statistics.md).
   * Unknown members are left out. */
  std::string json() const;
};

class Host {
 public:
  explicit Host(Options options = {});
  /** Reports what has not been reported yet. */
  ~Host();
  Host(const Host &) = delete;
  Host &operator=(const Host &) = delete;

  /** @name Binding
   * The lists that bind passes contain the vectors below. The other cells lead to a table of
   * functions that end the program with a message; reserved slots contain such functions, too.
   * Unbind before destruction: a bound library keeps the addresses of the host's tables. */
  /** @{ */
  void bind(MEMBindFn *entry);
  void unbind(MEMBindFn *entry, std::int16_t mode = 0);
  /** @} */

  /** @name The host's tables
   * Slots may be replaced at any time. restoreSlots restores the host's own services and, while the
   * library is bound, the contents of the MEM function vector after binding. */
  /** @{ */
  MEMFunctionVector &vector();
  MEMRuntimeServices &runtime();
  MEMTraceServices &trace();
  MEMTextServices &text();
  MEMSysEnv &sysEnv();
  void restoreSlots();
  /** @} */

  /** @name The calling thread's environment
   * Made at first use, all zero except its trace buffer. It exists until its thread or the host
   * ends. After withoutThreadEnv(true), frames that are entered get a null environment, on all
   * threads. */
  /** @{ */
  MEMThreadEnv &thread();
  void withoutThreadEnv(bool missing);
  /** @} */

  /** @name Process anchor of component 3, and the registered message table */
  /** @{ */
  MEMProcessBlock *anchor() const;
  const MEMMessageRow *messageTable() const;
  std::optional<Message> message(std::uint32_t code) const;
  /** @} */

  /** @name Storage */
  /** @{ */
  Account account(std::uint16_t subPool, std::uint16_t kind) const;
  Account account(std::uint16_t subPool) const; /**< all kinds of a subpool */
  Account account() const;                      /**< everything */
  std::vector<Leak> leaks() const;
  std::string accountReport() const;          /**< a table, one line a subpool and kind */
  std::string leakReport() const;             /**< empty if all storage has been freed */
  bool isReadOnly(const void *address) const; /**< under protection mode 16 */
  void setDirtyStorage(bool dirty);
  /** @} */

  /** @name Gates */
  /** @{ */
  std::size_t gateCount() const;     /**< gates created and not deleted */
  std::size_t heldGateCount() const; /**< including those whose owner has ended */
  /** @} */

  std::vector<Misuse> takeMisuses();

  /** Reports, as Options say, and returns what components have not undone: live storage that is not
   * the library's own (its process and thread blocks, its sink), misuses that were not taken, gates
   * that were not deleted and, if the process has been ended, threads that are still active. Each
   * is reported once. REQUIRES: no call through the vector is running. */
  Findings report();

  /** @name The checking layer, with Options::checked, statistics or places
   * Its reports are written to stderr. check() is null while no layer is attached; checkReports()
   * counts since construction. */
  /** @{ */
  MEMCheck *check() const;
  std::uint64_t checkReports() const;
  /** @} */

  /** What is open and how it is used (docs/statistics.md). With the layer attached, services may
   * run meanwhile; without it, REQUIRES: no call through the vector is running, because control
   * blocks are read. Maps need Options::checked or Options::places. */
  Statistics statistics(bool withMaps = false) const;

  /** @name Fault injection
   * Arming replaces an earlier fault of the same service. Frames cannot fail: arming EnterFrame or
   * LeaveFrame is a logic_error, and so is an nth of 0. */
  /** @{ */
  void arm(Fault fault);
  void disarm();                     /**< all services */
  std::uint64_t faultsFired() const; /**< since construction */
  /** @} */

  /** @name Counts since construction or resetCalls, and, while recording, the calls in order */
  /** @{ */
  std::uint64_t calls(Service service) const;
  void resetCalls();
  void recordCalls(bool on);
  std::vector<HostCall> takeCalls();
  /** @} */

  /** @name Tracing
   * Records go to all that are set of: memory (keepRecords), a stream, a file, a callback. A stream
   * and a file get one line for each. A null stream, an empty path or an empty callback ends that
   * output. The stream must exist as long as it is set. The callback runs on the thread that writes
   * the record, on several threads at once, and may use the library. setTraceFlags takes effect at
   * the next frame entered. */
  /** @{ */
  void setTraceFlags(std::uint32_t flags);
  void keepRecords(bool on);
  std::vector<TraceRecord> takeRecords();
  void traceToStream(std::ostream *stream);
  void traceToFile(const std::filesystem::path &path); /**< throws std::runtime_error */
  void onTrace(std::function<void(const TraceRecord &)> callback);
  void setTraceLines(TraceLineStyle style); /**< of streams and files */

  /** Begins a file of trace events in JSON, which browsers show on a time line: each entry point
   * and each host service that is called (except those of frames and tracing) is a span of its
   * thread, each trace record an instant. An empty path, another file or the host's end completes
   * the file. Trace flags are not needed. Throws std::runtime_error. */
  void timelineToFile(const std::filesystem::path &path);
  /** @} */

  /** What FilterException returns (1 unless set) and the result that it stores in the frame, if
   * not 0. With answer 1 the frames inside the frame of that call count as left. */
  void setFilterAnswer(std::int32_t answer, std::uint16_t result = 0);

  /** @name Text and detail of the last ReportError call on any thread, empty before the first */
  /** @{ */
  std::string lastReportedText() const;
  std::string lastReportedDetail() const;
  /** @} */

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

namespace detail {

/** A scalar as the eight bytes in which Windows passes it. */
template <class T>
std::uint64_t widen(T value) {
  if constexpr (std::is_pointer_v<T>) {
    return reinterpret_cast<std::uintptr_t>(value);
  } else if constexpr (std::is_null_pointer_v<T>) {
    return 0;
  } else {
    static_assert(std::is_integral_v<T> || std::is_enum_v<T>, "integers and pointers only");
    return static_cast<std::uint64_t>(value);
  }
}

std::string formatWidened(const char *format, const std::uint64_t *args, std::size_t count);

}  // namespace detail

/** Formats integers and pointers by the printf rules of 64-bit Windows, as the host's Format
 * service does: `h` is 16 bits, `l` and no size 32, `ll`, `I64` and pointers 64; %S (and %ls, %ws)
 * is UTF-16 and is formatted as UTF-8; %p is 16 upper-case digits. Each argument is widened to 64
 * bits first, so any integer type fits any integer conversion. There is no %n and no floating
 * point: an unknown conversion is copied unchanged. Texts are cut at 65,535 bytes. Throws
 * std::invalid_argument if there are fewer arguments than conversions. */
template <class... Args>
std::string formatText(const char *format, Args... args) {
  const std::array<std::uint64_t, sizeof...(Args)> widened{detail::widen(args)...};
  return detail::formatWidened(format, widened.data(), widened.size());
}

/** A record as one line: "STDE MEM_HeapOpen(..\SrcRes\MEMCHEAP:101) text", after what the style
 * adds. Control characters are written as "\x0A". */
std::string traceLine(const TraceRecord &record, TraceLineStyle style = {});

/** The dynamic library, loaded at run time and unloaded at destruction. Throws std::runtime_error
 * with the loader's reason. Unbind before destruction. */
class Library {
 public:
  explicit Library(const std::filesystem::path &path);
  ~Library();
  Library(const Library &) = delete;
  Library &operator=(const Library &) = delete;
  MEMBindFn *bindEntry() const { return bindEntry_; }

  /** The library's file name on this platform ("QJ7MEM00.so", "QJ7MEM00.dll") in the folder of the
   * running program. */
  static std::filesystem::path besideProgram();

  /** The first that exists of besideProgram() and, on Linux with glibc, the file in the folders of
   * LD_LIBRARY_PATH, in the program's run path, which linking with an installed reference host sets
   * to the library's folder, and in the system's folders. Otherwise the file name alone, for which
   * the system's loader searches: on Windows in the system's folders, the current folder and the
   * folders of PATH. */
  static std::filesystem::path installed();

 private:
  void *handle_ = nullptr;
  MEMBindFn *bindEntry_ = nullptr;
};

/** A host that is bound to a loaded library, with the process and the calling thread started.
 * close(), or else destruction, ends the thread and the process, unbinds and reports; call it on
 * the same thread. Further threads call MEM_ThreadAct and MEM_ThreadTerm themselves. */
class Session {
 public:
  /** Throws std::runtime_error with the failing step, its code and text; the library is then
   * unbound. */
  explicit Session(MEMBindFn *entry, Options options = {});
  ~Session();
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  /** Ends the session and returns what Host::report finds then: for a program's exit code,
   * `return session.close().empty() ? 0 : 1;`. Armed faults are disarmed and replaced slots
   * restored first. The vector is empty afterwards; the host may still be read. A later call does
   * nothing and returns no findings. */
  Findings close();

  Host &host() { return host_; }
  MEMFunctionVector &vector() { return host_.vector(); }

 private:
  Host host_;
  MEMBindFn *entry_;
  bool isOpen_ = true;
};

}  // namespace refhost

#endif
