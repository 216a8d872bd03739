/** @file mem.hpp
 * The services of QJ7MEM00 for C++20: owners that give back what they hold, failures as values,
 * and tables that describe structures, made at compile time from their members.
 *
 * Everything is inline and goes through the MEM function vector like any other caller. The library
 * does not know this header.
 *
 * Conventions:
 *  1. Nothing throws and nothing is allocated but what the services allocate. The header compiles
 *     without exceptions and run-time type information.
 *  2. Owners (Heap, CellPool, …) are movable, not copyable. An owner is empty after default
 *     construction, after being moved from, after release() and after a close() that succeeded;
 *     only isOpen(), close(), assignment and destruction may be used then. Destruction closes and
 *     ignores a failure; call close() to learn of one. An owner whose close() failed still owns.
 *  3. An owner keeps the address of its context. It must be closed before its context dies, before
 *     the thread that uses it is ended (MEM_ThreadTerm) and before the library is unbound.
 *  4. Failures are an Error inside a Result. Answers that are no failures (no such key, key present
 *     already, text not sunk) are values. A Result does not convert to bool: with a value that
 *     itself may be null or "not found", nobody could tell what `if (result)` asks.
 *  5. Threading is the services': an owner is used by one thread at a time unless it says more.
 */
#ifndef QJ7MEM00_MEM_HPP
#define QJ7MEM00_MEM_HPP

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>

#include "qj7mem00.h"

namespace mem {

/** @name Context */
/** @{ */

/** How the services and the calling thread's error area are reached. Made once by whoever knows the
 * host, passed by reference to everything else. Any number of threads may use one context. */
class Context {
 public:
  /** Hands out the calling thread's environment, or null where it has none. Must not throw. */
  using ThreadEnvFn = MEMThreadEnv *(void *pHost);

  /** `vector` is the host's; slots that it replaces later take effect. `pThreadEnv` is called with
   * `pHost` after a failure; without it errors carry only what the result tells. */
  Context(const MEMFunctionVector &vector, ThreadEnvFn *pThreadEnv, void *pHost = nullptr) noexcept
      : pVector_(&vector), pThreadEnv_(pThreadEnv), pHost_(pHost) {}

  const MEMFunctionVector &vector() const noexcept { return *pVector_; }
  const MEMThreadEnv *threadEnv() const noexcept {
    return pThreadEnv_ == nullptr ? nullptr : pThreadEnv_(pHost_);
  }

 private:
  const MEMFunctionVector *pVector_;
  ThreadEnvFn *pThreadEnv_;
  void *pHost_;
};

/** The context of a host object that hands out its vector and the calling thread's environment by
 * vector() and thread(), as the reference host does. The object outlives the context. */
template <class Host>
Context contextOf(Host &host) noexcept {
  return Context(
      host.vector(),
      [](void *pHost) -> MEMThreadEnv * { return &static_cast<Host *>(pHost)->thread(); }, &host);
}

/** A context as an argument. Owners keep its address, so a temporary one is refused. */
class ContextRef {
 public:
  ContextRef(const Context &context) noexcept : pContext_(&context) {}
  ContextRef(const Context &&) = delete;
  const Context *operator->() const noexcept { return pContext_; }
  const Context &get() const noexcept { return *pContext_; }

 private:
  const Context *pContext_;
};
/** @} */

/** @name Errors and results */
/** @{ */

/** Name and message of a code, empty texts for a number that is none of MEMERR_LIST. */
struct CodeText {
  const char *name;
  const char *message;
};

constexpr CodeText codeText(std::uint32_t code) noexcept {
  switch (code) {
#define MEM_CODE_TEXT(name, number, message) \
  case number:                               \
    return {#name, message};
    MEMERR_LIST(MEM_CODE_TEXT)
#undef MEM_CODE_TEXT
    default:
      return {"", ""};
  }
}

/** A failure as one line of text. */
struct ErrorLine {
  char text[640];
};

/** What a failed call left: its code and copies of the calling thread's texts, so that later calls
 * do not change it. */
class Error {
 public:
  /** What failed: the service's name ("MEM_HeapOpen"), a constant. */
  const char *service() const noexcept { return service_; }
  /** The call's own result, 0 for a refusal. */
  std::int16_t result() const noexcept { return result_; }
  /** Whether no service was called, because this header refuses what it was given; nameText()
   * tells why. */
  bool isRefusal() const noexcept { return result_ == 0; }
  /** MEMERR code, or 0: the port string services set none, and the start of the process leaves its
   * code as the inner one. */
  std::uint32_t code() const noexcept { return code_; }
  std::uint32_t innerCode() const noexcept { return innerCode_; }
  /** Name or text of what failed, at most 63 characters. */
  const char *nameText() const noexcept { return nameText_; }
  const char *innerText() const noexcept { return innerText_; }
  /** The thread's free message text as the call left it. No service clears it: where the failing
   * one wrote nothing there, it is an earlier call's. */
  const char *messageText() const noexcept { return messageText_; }

  /** "MEM_HeapOpen failed: 4055 MEMERR_HEAPAMEM, Acquire Memory failed (MemAllocFail)". The code is
   * the inner one where there is no other. */
  ErrorLine line() const noexcept {
    ErrorLine made;
    if (code_ != 0) {
      writeLine(made, code_, nameText_);
    } else if (innerCode_ != 0) {
      writeLine(made, innerCode_, innerText_);
    } else if (isRefusal()) {
      std::snprintf(made.text, sizeof made.text, "%s failed: %s", service_, nameText_);
    } else {
      const Detail detail(nameText_);
      std::snprintf(made.text, sizeof made.text, "%s failed: result %d without a code%s", service_,
                    int{result_}, detail.text);
    }
    return made;
  }

  /** The failure of a call that has just returned `result` on this thread. */
  static Error ofCall(const Context &context, const char *service, std::int16_t result) noexcept {
    Error error(service, result);
    if (const MEMThreadEnv *const pEnv = context.threadEnv()) error.copyFrom(*pEnv);
    if (error.code_ == 0 && result > 0) error.code_ = static_cast<std::uint32_t>(result);
    return error;
  }

  /** A failure of which the service recorded nothing; the text is this header's. */
  static Error withoutRecord(const char *service, std::int16_t result,
                             const char *text = "") noexcept {
    Error error(service, result);
    std::snprintf(error.nameText_, sizeof error.nameText_, "%s", text);
    return error;
  }

  /** A refusal of this header's; the text tells why. */
  static Error refusal(const char *service, const char *text) noexcept {
    return withoutRecord(service, 0, text);
  }

 private:
  struct Detail {  // " (text)", empty for the empty text
    explicit Detail(const char *from) noexcept {
      std::snprintf(text, sizeof text, *from == '\0' ? "%s" : " (%s)", from);
    }
    char text[MEM_NAME_TEXT_LEN + 4];
  };

  Error(const char *service, std::int16_t result) noexcept : service_(service), result_(result) {}

  void copyFrom(const MEMThreadEnv &env) noexcept {
    code_ = env.Error.Code;
    innerCode_ = env.Error.InnerCode;
    copyText(nameText_, env.Error.NameText);
    copyText(innerText_, env.Error.InnerText);
    copyText(messageText_, env.MessageText);
  }

  template <std::size_t kRoom>
  static void copyText(char (&to)[kRoom], const char (&from)[kRoom]) noexcept {
    std::memcpy(to, from, kRoom - 1);
    to[kRoom - 1] = '\0';
  }

  void writeLine(ErrorLine &to, std::uint32_t code, const char *text) const noexcept {
    const CodeText known = codeText(code);
    const bool isKnown = *known.name != '\0';
    const Detail detail(text);
    std::snprintf(to.text, sizeof to.text, "%s failed: %lu%s%s%s%s%s", service_,
                  static_cast<unsigned long>(code), isKnown ? " " : "", known.name,
                  isKnown ? ", " : "", known.message, detail.text);
  }

  const char *service_;
  std::int16_t result_;
  std::uint32_t code_ = 0;
  std::uint32_t innerCode_ = 0;
  char nameText_[MEM_NAME_TEXT_LEN] = {};
  char innerText_[MEM_NAME_TEXT_LEN] = {};
  char messageText_[MEM_MESSAGE_TEXT_LEN] = {};
};

/** A value or the error that came instead. */
template <class Value>
class [[nodiscard]] Result {
 public:
  Result(Value value) noexcept : state_(std::in_place_index<0>, std::move(value)) {}
  Result(const Error &error) noexcept : state_(std::in_place_index<1>, error) {}

  bool isOk() const noexcept { return state_.index() == 0; }

  /** The value. A program that asks a failed result for it is ended. */
  Value &value() &noexcept { return *existing(std::get_if<0>(&state_)); }
  const Value &value() const &noexcept { return *existing(std::get_if<0>(&state_)); }
  Value &&value() &&noexcept { return std::move(*existing(std::get_if<0>(&state_))); }

  /** The error. A program that asks a result with a value for it is ended. */
  const Error &error() const noexcept { return *existing(std::get_if<1>(&state_)); }

 private:
  template <class Part>
  static Part *existing(Part *pPart) noexcept {
    if (pPart == nullptr) std::abort();
    return pPart;
  }

  std::variant<Value, Error> state_;
};

/** Success or an error. */
template <>
class [[nodiscard]] Result<void> {
 public:
  Result() noexcept = default;
  Result(const Error &error) noexcept : error_(error) {}

  bool isOk() const noexcept { return !error_.has_value(); }
  const Error &error() const noexcept {
    if (isOk()) std::abort();
    return *error_;
  }

 private:
  std::optional<Error> error_;
};

using Status = Result<void>;
/** @} */

/** @name Calls by slot */
/** @{ */

/** A slot of the vector with its name. */
template <class Service>
struct Slot {
  const char *name;
  Service *MEMFunctionVector::*entry;
};

/** Every slot under the name of its entry point: slots::MEM_HeapOpen. */
namespace slots {
#define MEM_SLOT_BY_NAME(slot, service) \
  inline constexpr Slot<service##Fn> service{#service, &MEMFunctionVector::service};
MEM_VECTOR_SLOTS(MEM_SLOT_BY_NAME)
#undef MEM_SLOT_BY_NAME
}  // namespace slots

/** Calls a service whose 16-bit result is 0 for success, and takes what a failure left. For
 * services that this header has no better name for. */
template <class Service, class... Args>
Status call(const Context &context, Slot<Service> slot, Args... args) noexcept {
  const std::int16_t result = (context.vector().*slot.entry)(args...);
  if (result != 0) return Error::ofCall(context, slot.name, result);
  return {};
}
/** @} */

/** @name Owners: what they share */
/** @{ */

/** The base of all owners. `Handle{}` is what an empty one holds and is false. */
template <class Derived, class Handle>
class Owner {
 public:
  Owner() noexcept = default;
  Owner(Owner &&other) noexcept
      : pContext_(other.pContext_), handle_(std::exchange(other.handle_, Handle{})) {}
  Owner &operator=(Owner &&other) noexcept {
    if (this == &other) return *this;
    closeQuietly();
    pContext_ = other.pContext_;
    handle_ = std::exchange(other.handle_, Handle{});
    return *this;
  }
  ~Owner() { closeQuietly(); }

  bool isOpen() const noexcept { return static_cast<bool>(handle_); }

  /** Gives back what is owned; nothing to do for an empty owner. On failure it is still owned. */
  Status close() noexcept {
    if (!isOpen()) return {};
    const Status status = Derived::closeHandle(*pContext_, handle_);
    if (status.isOk()) handle_ = Handle{};
    return status;
  }

  /** What is owned, for calls through the vector. */
  const Handle &handle() const noexcept { return handle_; }

  /** Hands what is owned to the caller, who gives it back through the vector. */
  [[nodiscard]] Handle release() noexcept { return std::exchange(handle_, Handle{}); }

 protected:
  Owner(ContextRef context, Handle handle) noexcept
      : pContext_(&context.get()), handle_(std::move(handle)) {}

  const Context &context() const noexcept { return *pContext_; }
  Handle &mutableHandle() noexcept { return handle_; }

 private:
  void closeQuietly() noexcept {
    if (isOpen()) static_cast<void>(Derived::closeHandle(*pContext_, handle_));
  }

  const Context *pContext_ = nullptr;
  Handle handle_{};
};
/** @} */

/** @name Process and thread */
/** @{ */

/** The library's process block, message table and sink: MEM_ProcessInit until MEM_ProcessTerm.
 * Made with no other call running, before all other owners; closed after them, and after every
 * ActiveThread. */
class RunningProcess : public Owner<RunningProcess, bool> {
 public:
  RunningProcess() noexcept = default;

  /** What a start that fails had obtained is given back. */
  static Result<RunningProcess> start(ContextRef context) noexcept {
    const Status started = call(context.get(), slots::MEM_ProcessInit);
    RunningProcess process(context);
    if (!started.isOk()) return started.error();
    return process;
  }

  static Status closeHandle(const Context &context, bool) noexcept {
    return call(context, slots::MEM_ProcessTerm);
  }

 private:
  explicit RunningProcess(ContextRef context) noexcept : Owner(context, true) {}
};

/** The calling thread's thread block: MEM_ThreadAct until MEM_ThreadTerm. Used, and closed, on the
 * thread that made it. One a thread. */
class ActiveThread : public Owner<ActiveThread, bool> {
 public:
  ActiveThread() noexcept = default;

  static Result<ActiveThread> activate(ContextRef context) noexcept {
    const std::int16_t result = context->vector().MEM_ThreadAct();
    if (result == 0) return ActiveThread(context);
    // The call leaves an earlier failure's record where it stands and adds at most this code.
    const Error error = Error::ofCall(context.get(), slots::MEM_ThreadAct.name, result);
    if (error.code() == MEMERR_TBLKFAIL) return error;
    return Error::withoutRecord(slots::MEM_ThreadAct.name, result);
  }

  static Status closeHandle(const Context &context, bool) noexcept {
    return call(context, slots::MEM_ThreadTerm);
  }

 private:
  explicit ActiveThread(ContextRef context) noexcept : Owner(context, true) {}
};
/** @} */

/** @name Members */
/** @{ */

/** A member of a structure: its type and its place, all known to the compiler. Made by MEM_FIELD.
 */
template <class StructType, class FieldType, std::size_t kFieldOffset>
struct Member {
  static_assert(std::is_standard_layout_v<StructType>,
                "mem: a structure for the library must have standard layout");
  using Struct = StructType;
  using Type = FieldType;
  static constexpr std::size_t kOffset = kFieldOffset;
};

/** The member `member` of `Struct`. Members of members and elements of arrays are named as in C:
 * MEM_FIELD(Order, address.street), MEM_FIELD(Order, items[2]).
 *
 * A macro, because a pointer to member does not give its offset in a constant expression, and
 * offsetof does. A structure type with a comma in its name needs an alias. */
#define MEM_FIELD(Struct, member)                                             \
  (::mem::Member<Struct, ::std::remove_reference_t<decltype(Struct::member)>, \
                 offsetof(Struct, member)>{})

/** The structure at any address: segments of an unpacked chain need not be aligned. */
template <class Record>
Record readRecord(const Record *pRecord) noexcept {
  static_assert(std::is_trivially_copyable_v<Record>, "mem: a record is copied byte by byte");
  Record record;
  std::memcpy(&record, static_cast<const void *>(pRecord), sizeof record);
  return record;
}
/** @} */

/** @name Heaps */
/** @{ */

/** Areas of `areaKb` KB, 1 to 256, from a subpool of the host's. */
struct HeapSettings {
  std::int16_t areaKb = 64;
  std::uint16_t subPool = 0;
};

namespace detail {

inline constexpr std::size_t kEntryAlignment = 8;  // of heap entries and of cells' areas

struct HeapSlots {
  static constexpr const auto &open = slots::MEM_HeapOpen;
  static constexpr const auto &close = slots::MEM_HeapClose;
  static constexpr const auto &allocate = slots::MEM_HeapAllocEntryLong;
  static constexpr const auto &allocateChain = slots::MEM_HeapAllocLongMultEntries;
};

struct EnhancedHeapSlots {
  static constexpr const auto &open = slots::MEM_EHeapOpen;
  static constexpr const auto &close = slots::MEM_EHeapClose;
  static constexpr const auto &allocate = slots::MEM_EHeapAllocEntry;
  static constexpr const auto &allocateChain = slots::MEM_EHeapAllocLongMultEntries;
};

template <class Record>
constexpr void checkEntryType() noexcept {
  static_assert(std::is_trivially_destructible_v<Record>,
                "mem: a heap or pool is closed as a whole and runs no destructors");
  static_assert(alignof(Record) <= kEntryAlignment, "mem: entries are aligned to 8 bytes");
  static_assert(sizeof(Record) <= std::numeric_limits<std::int32_t>::max(),
                "mem: an entry is too long");
}

}  // namespace detail

/** What both kinds of heap do. Entries are 8-byte aligned and live until the heap is closed. */
template <class Derived, class Slots>
class BasicHeap : public Owner<Derived, HMEMHEAP> {
 public:
  BasicHeap() noexcept = default;

  static Result<Derived> open(ContextRef context, HeapSettings settings = {}) noexcept {
    HMEMHEAP hMemHeap = nullptr;
    const Status opened =
        call(context.get(), Slots::open, &hMemHeap, settings.areaKb, settings.subPool);
    if (!opened.isOk()) return opened.error();
    return Derived(context, hMemHeap);
  }

  static Status closeHandle(const Context &context, HMEMHEAP hMemHeap) noexcept {
    return call(context, Slots::close, hMemHeap);
  }

  /** An entry of `length` bytes, with whatever the host's storage held. */
  Result<void *> allocate(std::int32_t length) noexcept {
    void *pEntry = nullptr;
    const Status allocated =
        call(this->context(), Slots::allocate, this->handle(), length, &pEntry);
    if (!allocated.isOk()) return allocated.error();
    return pEntry;
  }

  /** A new `Record`, initialised as Record{args…}. */
  template <class Record, class... Args>
  Result<Record *> make(Args &&...args) noexcept {
    detail::checkEntryType<Record>();
    const Result<void *> entry = allocate(static_cast<std::int32_t>(sizeof(Record)));
    if (!entry.isOk()) return entry.error();
    return new (entry.value()) Record{std::forward<Args>(args)...};
  }

  /** `count` records, 1 or more, initialised as Record{} and linked through `link`; the last link
   * is null. On failure what was made so far stays in the heap. */
  template <class Record, std::size_t kOffset>
  Result<Record *> makeChain(Member<Record, Record *, kOffset>, std::int32_t count) noexcept {
    detail::checkEntryType<Record>();
    static_assert(kOffset <= std::numeric_limits<std::int16_t>::max(),
                  "mem: the link lies too far into the structure");
    void *pFirst = nullptr;
    const Status made = call(this->context(), Slots::allocateChain, this->handle(),
                             static_cast<std::int32_t>(sizeof(Record)), count,
                             static_cast<std::int16_t>(kOffset), &pFirst);
    if (!made.isOk()) return made.error();
    for (void *pEntry = pFirst; pEntry != nullptr;) {
      char *const pLink = static_cast<char *>(pEntry) + kOffset;
      void *pNext = nullptr;
      std::memcpy(&pNext, pLink, sizeof pNext);
      new (pEntry) Record{};
      std::memcpy(pLink, &pNext, sizeof pNext);
      pEntry = pNext;
    }
    return static_cast<Record *>(pFirst);
  }

  /** A copy of the text with its terminator. */
  Result<char *> copyText(std::string_view text) noexcept { return copyUnits(text); }
  Result<char16_t *> copyText(std::u16string_view text) noexcept { return copyUnits(text); }

 protected:
  BasicHeap(ContextRef context, HMEMHEAP hMemHeap) noexcept
      : Owner<Derived, HMEMHEAP>(context, hMemHeap) {}

 private:
  template <class Char>
  Result<Char *> copyUnits(std::basic_string_view<Char> text) noexcept {
    constexpr std::size_t kMost = std::numeric_limits<std::int32_t>::max() / sizeof(Char) - 1;
    if (text.size() > kMost) return Error::refusal(Slots::allocate.name, "the text is too long");
    const std::size_t length = text.size() * sizeof(Char);
    const Result<void *> entry = allocate(static_cast<std::int32_t>(length + sizeof(Char)));
    if (!entry.isOk()) return entry.error();
    Char *const pCopy = static_cast<Char *>(entry.value());
    if (length > 0) std::memcpy(pCopy, text.data(), length);
    pCopy[text.size()] = Char{};
    return pCopy;
  }
};

/** A standard heap: entries are never freed singly. One thread at a time. */
class Heap : public BasicHeap<Heap, detail::HeapSlots> {
 public:
  Heap() noexcept = default;

 private:
  friend BasicHeap;
  Heap(ContextRef context, HMEMHEAP hMemHeap) noexcept : BasicHeap(context, hMemHeap) {}
};

/** A heap with a gate: any number of threads may allocate and free. It is moved and closed with no
 * other call on it running. */
class EnhancedHeap : public BasicHeap<EnhancedHeap, detail::EnhancedHeapSlots> {
 public:
  EnhancedHeap() noexcept = default;

  /** Gives back an entry of `length` bytes. Its storage returns to the host at close. */
  Status free(void *pEntry, std::int32_t length) noexcept {
    return call(context(), slots::MEM_EHeapFreeEntry, handle(), length, pEntry);
  }
  template <class Record>
  Status free(Record *pRecord) noexcept {
    detail::checkEntryType<Record>();
    return free(pRecord, static_cast<std::int32_t>(sizeof(Record)));
  }

 private:
  friend BasicHeap;
  EnhancedHeap(ContextRef context, HMEMHEAP hMemHeap) noexcept : BasicHeap(context, hMemHeap) {}
};
/** @} */

/** @name Cell pool */
/** @{ */

/** Areas of `areaLen` bytes, 256 to 1,048,576, from a subpool; -1, -2, … name storage kind 2. */
struct CellSettings {
  std::int32_t areaLen = 4096;
  std::int16_t subPool = 0;
};

/** Records of one type, made and given back singly, in constant time. One thread at a time. */
template <class Record>
class CellPool : public Owner<CellPool<Record>, HMEMCELL> {
  using Base = Owner<CellPool<Record>, HMEMCELL>;

 public:
  /** Bytes of a cell: a record, or the 8 bytes that the pool itself needs. */
  static constexpr std::int32_t kCellLen = sizeof(Record) < 8 ? 8 : sizeof(Record);

  CellPool() noexcept = default;

  static Result<CellPool> open(ContextRef context, CellSettings settings = {}) noexcept {
    detail::checkEntryType<Record>();
    HMEMCELL hMemCell = nullptr;
    const Status opened = call(context.get(), slots::MEM_CellOpen, &hMemCell, settings.areaLen,
                               kCellLen, settings.subPool);
    if (!opened.isOk()) return opened.error();
    return CellPool(context, hMemCell);
  }

  static Status closeHandle(const Context &context, HMEMCELL hMemCell) noexcept {
    return call(context, slots::MEM_CellClose, hMemCell);
  }

  /** A new record, initialised as Record{args…}. It lives until it is freed, or the pool is
   * cleared or closed. */
  template <class... Args>
  Result<Record *> make(Args &&...args) noexcept {
    void *pCell = nullptr;
    const Status taken = call(this->context(), slots::MEM_CellAllocEntry, this->handle(), &pCell);
    if (!taken.isOk()) return taken.error();
    return new (pCell) Record{std::forward<Args>(args)...};
  }

  /** Gives a record back. REQUIRES: it is this pool's and has not been given back. */
  Status free(Record *pRecord) noexcept {
    return call(this->context(), slots::MEM_CellFreeEntry, this->handle(),
                static_cast<void *>(pRecord));
  }

  /** Gives all records back, and all storage but the first area. */
  Status clear() noexcept { return call(this->context(), slots::MEM_CellClear, this->handle()); }

 private:
  CellPool(ContextRef context, HMEMCELL hMemCell) noexcept : Base(context, hMemCell) {}
};
/** @} */

/** @name Hash table */
/** @{ */

/** Answer of HashTable::insert. */
template <class Record>
struct Insertion {
  Record *pRecord;  /**< the table's own record: the new one, or the one that was there */
  bool isDuplicate; /**< the key was there already; nothing was changed */
};

/** Answer of HashTable::remove. */
enum class Removal { kRemoved, kNotFound };

/** Copies of records by a key that lies inside them. Keys are compared byte by byte. Records live
 * until the table is closed; they may be changed, but not their keys. One thread at a time. */
template <class Record, class Key>
class HashTable : public Owner<HashTable<Record, Key>, HMEMHASH> {
  static_assert(std::is_trivially_copyable_v<Record>, "mem: a record is copied byte by byte");
  static_assert(alignof(Record) <= detail::kEntryAlignment, "mem: entries are aligned to 8 bytes");
  static_assert(sizeof(Record) + 15 <= std::numeric_limits<std::int16_t>::max(),
                "mem: a record of a hash table is at most 32,752 bytes long");
  static_assert(std::has_unique_object_representations_v<Key>,
                "mem: a key is compared byte by byte and must not have padding");
  using Base = Owner<HashTable<Record, Key>, HMEMHASH>;

 public:
  HashTable() noexcept = default;

  /** Opens a table of `kBuckets` buckets that are chosen by a hash of the key's bytes. Where the
   * table's heap cannot be opened, the library leaves the control block (8 bytes a bucket and 48)
   * to the host. */
  template <std::int32_t kBuckets, std::size_t kOffset>
  static Result<HashTable> open(ContextRef context, Member<Record, Key, kOffset> key,
                                HeapSettings settings = {}) noexcept {
    static_assert(kBuckets >= 1 && kBuckets <= 32768, "mem: a table has 1 to 32,768 buckets");
    return open(context, key, static_cast<std::int16_t>(kBuckets - 1), &bucketOf<kBuckets>,
                settings);
  }

  /** The same with a hash function of the caller's, which answers 0 to `max`. */
  template <std::size_t kOffset>
  static Result<HashTable> open(ContextRef context, Member<Record, Key, kOffset>, std::int16_t max,
                                MEMHashFunc pFunc, HeapSettings settings = {}) noexcept {
    HMEMHASH hMemHash = nullptr;
    const Status opened =
        call(context.get(), slots::MEM_HashOpen, &hMemHash, static_cast<std::int16_t>(kOffset),
             static_cast<std::int16_t>(sizeof(Key)), max, pFunc, settings.areaKb, settings.subPool);
    if (!opened.isOk()) return opened.error();
    return HashTable(context, hMemHash);
  }

  static Status closeHandle(const Context &context, HMEMHASH hMemHash) noexcept {
    return call(context, slots::MEM_HashClose, hMemHash);
  }

  /** Copies the record into the table unless its key is there already. */
  Result<Insertion<Record>> insert(const Record &record) noexcept {
    void *pStored = nullptr;
    const std::int16_t result = this->context().vector().MEM_HashInsEntry(
        this->handle(), static_cast<std::int16_t>(sizeof(Record)), &record, &pStored);
    if (result != 0 && result != MEMERR_HASHDKEY) return failed(slots::MEM_HashInsEntry, result);
    return Insertion<Record>{static_cast<Record *>(pStored), result != 0};
  }

  /** The record with this key, or null. */
  Result<Record *> find(const Key &key) noexcept {
    void *pStored = nullptr;
    const std::int16_t result =
        this->context().vector().MEM_HashGetEntry(this->handle(), &key, &pStored);
    if (result == MEMERR_HASHNFND) return static_cast<Record *>(nullptr);
    if (result != 0) return failed(slots::MEM_HashGetEntry, result);
    return static_cast<Record *>(pStored);
  }

  /** Removes the record with this key. A later insertion uses its storage. */
  Result<Removal> remove(const Key &key) noexcept {
    const std::int16_t result = this->context().vector().MEM_HashDelEntry(this->handle(), &key);
    if (result == MEMERR_HASHNFND) return Removal::kNotFound;
    if (result != 0) return failed(slots::MEM_HashDelEntry, result);
    return Removal::kRemoved;
  }

  /** Calls `visit(record)` for every record, bucket by bucket. It must not remove records and must
   * not throw: an exception ends the program. */
  template <class Visit>
  Status forEach(Visit visit) noexcept {
    const MEMScanFunc pFct = [](void *pRecord, void *pVisit) noexcept -> std::int16_t {
      (*static_cast<Visit *>(pVisit))(*static_cast<Record *>(pRecord));
      return 0;
    };
    return call(this->context(), slots::MEM_HashScan, this->handle(), pFct,
                static_cast<void *>(&visit));
  }

 private:
  HashTable(ContextRef context, HMEMHASH hMemHash) noexcept : Base(context, hMemHash) {}

  template <class Service>
  Error failed(Slot<Service> slot, std::int16_t result) const noexcept {
    return Error::ofCall(this->context(), slot.name, result);
  }

  // FNV-1a over the key's bytes.
  template <std::int32_t kBuckets>
  static std::int16_t bucketOf(const void *pKey) noexcept {
    const unsigned char *const pBytes = static_cast<const unsigned char *>(pKey);
    std::uint32_t hash = 2166136261U;
    for (std::size_t i = 0; i < sizeof(Key); ++i) hash = (hash ^ pBytes[i]) * 16777619U;
    return static_cast<std::int16_t>(hash % static_cast<std::uint32_t>(kBuckets));
  }
};
/** @} */

/** @name Concatenation buffer */
/** @{ */

namespace detail {

struct CatHandle : MEMCatCB {
  CatHandle() noexcept : MEMCatCB{} {}
  explicit operator bool() const noexcept { return pText != nullptr; }
};

}  // namespace detail

/** Wide text that grows piece by piece. One thread at a time. */
class ConcatBuffer : public Owner<ConcatBuffer, detail::CatHandle> {
 public:
  ConcatBuffer() noexcept = default;

  static Result<ConcatBuffer> open(ContextRef context) noexcept {
    detail::CatHandle block;
    const Status opened = call(context.get(), slots::MEM_CatOpen, static_cast<MEMCatCB *>(&block));
    if (!opened.isOk()) return opened.error();
    return ConcatBuffer(context, block);
  }

  static Status closeHandle(const Context &context, detail::CatHandle &block) noexcept {
    return call(context, slots::MEM_CatClose, static_cast<MEMCatCB *>(&block));
  }

  /** Appends text up to its terminator. A failure leaves the buffer as it was. */
  Status append(const char16_t *pText) noexcept {
    return call(context(), slots::MEM_Cat, block(), pText);
  }

  /** Appends a string, zero units in it as well. */
  Status append(const std::u16string &text) noexcept {
    if (text.size() > std::numeric_limits<std::int32_t>::max()) {
      return Error::refusal(slots::MEM_MemCat.name, "the text is too long");
    }
    return call(context(), slots::MEM_MemCat, block(), text.c_str(),
                static_cast<std::int32_t>(text.size()));
  }

  /** The text. Valid until the next append, or until the buffer is closed. */
  std::u16string_view text() const noexcept { return {handle().pText, handle().Len}; }

 private:
  ConcatBuffer(ContextRef context, detail::CatHandle block) noexcept : Owner(context, block) {}
  MEMCatCB *block() noexcept { return &mutableHandle(); }
};
/** @} */

/** @name String sink: any number of threads */
/** @{ */

namespace detail {

template <class Char>
struct SinkSlots {
  static constexpr const auto &sink = slots::MEM_SinkString;
  static constexpr const auto &remove = slots::MEM_SinkDelete;
  static constexpr const auto &verify = slots::MEM_SinkVerify;
};

template <>
struct SinkSlots<char16_t> {
  static constexpr const auto &sink = slots::MEM_WSinkString;
  static constexpr const auto &remove = slots::MEM_WSinkDelete;
  static constexpr const auto &verify = slots::MEM_WSinkVerify;
};

}  // namespace detail

/** One use of the sink's copy of a text. Copies of equal texts have one address. */
template <class Char>
class BasicSunkString : public Owner<BasicSunkString<Char>, const Char *> {
  using Base = Owner<BasicSunkString<Char>, const Char *>;
  using Slots = detail::SinkSlots<Char>;

 public:
  BasicSunkString() noexcept = default;

  static Result<BasicSunkString> sink(ContextRef context, const Char *pText) noexcept {
    const Char *pSunk = nullptr;
    const Status sunk = call(context.get(), Slots::sink, pText, &pSunk);
    if (!sunk.isOk()) return sunk.error();
    return BasicSunkString(context, pSunk);
  }

  /** The copy that the sink has of a text, or null. It stays as long as somebody uses it; this is
   * no use. */
  static Result<const Char *> find(ContextRef context, const Char *pText) noexcept {
    const Char *pSunk = nullptr;
    const std::int16_t result = (context->vector().*Slots::verify.entry)(pText, &pSunk, nullptr);
    if (result == MEMERR_SINKNFND) return static_cast<const Char *>(nullptr);
    if (result != 0) return Error::ofCall(context.get(), Slots::verify.name, result);
    return pSunk;
  }

  static Status closeHandle(const Context &context, const Char *pSunk) noexcept {
    return call(context, Slots::remove, pSunk);
  }

  /** The copy, read-only for everybody; null for an empty owner. */
  const Char *text() const noexcept { return this->handle(); }

 private:
  BasicSunkString(ContextRef context, const Char *pSunk) noexcept : Base(context, pSunk) {}
};

using SunkString = BasicSunkString<char>;
using WideSunkString = BasicSunkString<char16_t>;
/** @} */

/** @name Pack control blocks from members */
/** @{ */

/** Descriptors of one table, texts' included. Compilers nest expansions 256 deep without further
 * options, and a block of 32,768 bytes has room for 268. */
inline constexpr std::size_t kMaxPackDescriptors = 250;

namespace detail {

template <class Type>
using Target = std::remove_cv_t<std::remove_pointer_t<Type>>;

template <class Type>
inline constexpr bool kIsNarrowText = std::is_same_v<Type, char>;
template <class Type>
inline constexpr bool kIsWideText = std::is_same_v<Type, char16_t>;
template <class Type>
inline constexpr bool kIsText = kIsNarrowText<Type> || kIsWideText<Type>;

inline constexpr std::size_t kMaxOffset = 32767;  // offsets in descriptors have 16 signed bits

enum class PartRole { kSibling, kChild, kReference };

// One pointer of a segment.
template <PartRole kRole, class Field>
struct Part {
  static constexpr PartRole role = kRole;
  using Struct = typename Field::Struct;
  using Target = detail::Target<typename Field::Type>;
  static constexpr std::int16_t offset = static_cast<std::int16_t>(Field::kOffset);
};

template <PartRole kRole, class Field>
constexpr Part<kRole, Field> makePart() noexcept {
  static_assert(std::is_pointer_v<typename Field::Type>,
                "mem: a sibling, child or reference must be a pointer");
  static_assert(Field::kOffset <= kMaxOffset, "mem: the pointer lies too far into the structure");
  return {};
}

// One kind of segment.
template <class StructType, std::uint16_t kType, class... Parts>
struct SegmentKind {
  using Struct = StructType;
  static constexpr std::size_t count([[maybe_unused]] PartRole role) noexcept {
    return ((Parts::role == role ? 1U : 0U) + ... + 0U);
  }
  template <class Text>
  static constexpr bool pointsTo() noexcept {
    return (std::is_same_v<typename Parts::Target, Text> || ...);
  }
};

template <class Struct, std::uint16_t kType, class... Parts>
constexpr SegmentKind<Struct, kType, Parts...> makeSegment() noexcept {
  using Kind = SegmentKind<Struct, kType, Parts...>;
  static_assert((std::is_same_v<typename Parts::Struct, Struct> && ...),
                "mem: a member of another structure in this segment");
  static_assert(Kind::count(PartRole::kSibling) <= 1, "mem: a segment has one sibling at most");
  static_assert(Kind::count(PartRole::kChild) <= MEM_PACK_MAX_CHILDREN,
                "mem: a segment has 24 children at most");
  static_assert(Kind::count(PartRole::kReference) <= MEM_PACK_MAX_REFERENCES,
                "mem: a segment has 8 references at most");
  static_assert(kType != MEM_PACK_FIXED || sizeof(Struct) <= 65535,
                "mem: a segment is 65,535 bytes long at most");
  return {};
}

// The kinds of one control block: segments in the order given, then narrow and wide text where a
// child points to them.
template <class... Segments>
struct PackKinds {
  template <class Struct>
  static constexpr std::size_t timesDescribed() noexcept {
    return ((std::is_same_v<typename Segments::Struct, Struct> ? 1U : 0U) + ... + 0U);
  }
  template <class Text>
  static constexpr bool hasText() noexcept {
    return (Segments::template pointsTo<Text>() || ...);
  }

  static constexpr std::size_t kNarrow = sizeof...(Segments);
  static constexpr std::size_t kWide = kNarrow + (hasText<char>() ? 1 : 0);
  static constexpr std::size_t kCount = kWide + (hasText<char16_t>() ? 1 : 0);

  template <class Target>
  static constexpr std::uint16_t indexOf() noexcept {
    if constexpr (kIsNarrowText<Target>) {
      return static_cast<std::uint16_t>(kNarrow);
    } else if constexpr (kIsWideText<Target>) {
      return static_cast<std::uint16_t>(kWide);
    } else {
      std::uint16_t index = 0;
      bool isFound = false;
      ((isFound = isFound || std::is_same_v<typename Segments::Struct, Target>,
        index = static_cast<std::uint16_t>(index + (isFound ? 0 : 1))),
       ...);
      return index;
    }
  }

  template <class ThisPart>
  static constexpr void add(MemPackDescriptor &descriptor) noexcept {
    using Target = typename ThisPart::Target;
    if constexpr (ThisPart::role == PartRole::kSibling) {
      static_assert(std::is_same_v<Target, typename ThisPart::Struct>,
                    "mem: a sibling points to a structure of its own kind");
      descriptor.SiblingOff = ThisPart::offset;
    } else if constexpr (ThisPart::role == PartRole::kChild) {
      static_assert(kIsText<Target> || timesDescribed<Target>() == 1,
                    "mem: a child of a kind that the control block does not describe");
      descriptor.Children[descriptor.ChildCount++] = {indexOf<Target>(), ThisPart::offset};
    } else {
      static_assert(timesDescribed<Target>() == 1,
                    "mem: a reference to a kind that the control block does not describe");
      descriptor.References[descriptor.ReferenceCount++] = ThisPart::offset;
    }
  }

  template <class Struct, std::uint16_t kType, class... Parts>
  static constexpr MemPackDescriptor describe(SegmentKind<Struct, kType, Parts...>) noexcept {
    static_assert(timesDescribed<Struct>() == 1, "mem: a structure is described twice");
    MemPackDescriptor descriptor{};
    descriptor.Type = kType;
    descriptor.FixedLen = kType == MEM_PACK_FIXED ? static_cast<std::uint16_t>(sizeof(Struct)) : 0;
    descriptor.SiblingOff = MEM_PACK_NO_SIBLING;
    (add<Parts>(descriptor), ...);
    return descriptor;
  }

  static constexpr MemPackDescriptor text(std::uint16_t type) noexcept {
    MemPackDescriptor descriptor{};
    descriptor.Type = type;
    descriptor.SiblingOff = MEM_PACK_NO_SIBLING;
    return descriptor;
  }
};

// Descriptors behind the record, which declares eight.
template <std::size_t kFurther>
struct PackStorage {
  MemPackCB head{};
  MemPackDescriptor further[kFurther]{};
};
template <>
struct PackStorage<0> {
  MemPackCB head{};
};

constexpr std::size_t furtherDescriptors(std::size_t count) noexcept {
  return count > MEM_PACK_MIN_DESCRIPTORS ? count - MEM_PACK_MIN_DESCRIPTORS : 0;
}

}  // namespace detail

/** A control block of `kCount` descriptors whose root segment is a `RootStruct`. */
template <class RootStruct, std::size_t kCount>
class PackTable {
 public:
  using Root = RootStruct;

  constexpr const MemPackCB &controlBlock() const noexcept { return storage_.head; }
  static constexpr std::size_t count() noexcept { return kCount; }

  /** REQUIRES: index < count(). */
  constexpr const MemPackDescriptor &descriptor(std::size_t index) const noexcept {
    if constexpr (kCount > MEM_PACK_MIN_DESCRIPTORS) {
      if (index >= MEM_PACK_MIN_DESCRIPTORS) {
        return storage_.further[index - MEM_PACK_MIN_DESCRIPTORS];
      }
    }
    return storage_.head.Descriptors[index];
  }

 private:
  template <class... Segments>
  friend constexpr auto packTable(Segments... segments) noexcept;

  constexpr void add(const MemPackDescriptor &descriptor) noexcept {
    const auto index = static_cast<std::size_t>(storage_.head.Count++);
    if constexpr (kCount > MEM_PACK_MIN_DESCRIPTORS) {
      if (index >= MEM_PACK_MIN_DESCRIPTORS) {
        storage_.further[index - MEM_PACK_MIN_DESCRIPTORS] = descriptor;
        return;
      }
    }
    storage_.head.Descriptors[index] = descriptor;
  }

  detail::PackStorage<detail::furtherDescriptors(kCount)> storage_;
};

/** The pointer to the next segment of the same kind. */
template <class Field>
constexpr auto sibling(Field) noexcept {
  return detail::makePart<detail::PartRole::kSibling, Field>();
}

/** A pointer to a segment or text that this segment owns. The kind is the pointer's type: a
 * structure that the control block describes, char or char16_t. */
template <class Field>
constexpr auto child(Field) noexcept {
  return detail::makePart<detail::PartRole::kChild, Field>();
}

/** A pointer to a segment that is packed elsewhere in the same structure. */
template <class Field>
constexpr auto reference(Field) noexcept {
  return detail::makePart<detail::PartRole::kReference, Field>();
}

/** A kind of segment of sizeof(Struct) bytes, with its siblings, children and references. */
template <class Struct, class... Parts>
constexpr auto segment(Parts...) noexcept {
  return detail::makeSegment<Struct, MEM_PACK_FIXED, Parts...>();
}

/** A kind of segment that begins with a signed 16-bit count of the bytes behind it. */
template <class Struct, std::size_t kOffset, class... Parts>
constexpr auto countedSegment(Member<Struct, std::int16_t, kOffset>, Parts...) noexcept {
  static_assert(kOffset == 0, "mem: the count is the first member of its segment");
  return detail::makeSegment<Struct, MEM_PACK_COUNTED, Parts...>();
}

/** A kind of segment that begins with its own total length as an unsigned 16-bit number. */
template <std::uint16_t kType, class Struct, std::size_t kOffset, class... Parts>
constexpr auto selfSizedSegment(Member<Struct, std::uint16_t, kOffset>, Parts...) noexcept {
  static_assert(kOffset == 0, "mem: the length is the first member of its segment");
  static_assert(kType != MEM_PACK_FIXED && kType != MEM_PACK_COUNTED && kType != MEM_PACK_STRING &&
                    kType != MEM_PACK_WIDE_STRING,
                "mem: this type letter has a meaning of its own");
  return detail::makeSegment<Struct, kType, Parts...>();
}

/** The control block of these segments; the first one is the root's kind. Descriptors stand in this
 * order, those of narrow and of wide text behind them where a child needs them. */
template <class... Segments>
constexpr auto packTable(Segments... segments) noexcept {
  static_assert(sizeof...(Segments) + 2 <= kMaxPackDescriptors,
                "mem: too many descriptors for a control block");
  using Kinds = detail::PackKinds<Segments...>;
  using Root = typename std::tuple_element_t<0, std::tuple<Segments...>>::Struct;
  PackTable<Root, Kinds::kCount> table;
  (table.add(Kinds::describe(segments)), ...);
  if constexpr (Kinds::template hasText<char>()) table.add(Kinds::text(MEM_PACK_STRING));
  if constexpr (Kinds::template hasText<char16_t>()) table.add(Kinds::text(MEM_PACK_WIDE_STRING));
  return table;
}
/** @} */

/** @name Packed chain */
/** @{ */

/** The longest blocks of use: offsets within a block have 16 signed bits. */
inline constexpr std::int32_t kPackBlockLen = 32768;

namespace detail {

struct ChainHandle {
  MemPackBlock *pFirst = nullptr;
  std::uint32_t blockLen = 0;  // of every block, as it was obtained
  bool isBigEndian = false;    // order of the used lengths
  explicit operator bool() const noexcept { return pFirst != nullptr; }
};

inline constexpr std::int16_t kChainSubPool = 0;
inline constexpr std::size_t kBlockHead = offsetof(MemPackBlock, UsedLen);  // not in the file form
inline constexpr std::size_t kUsedLenSize = 2;
inline constexpr std::size_t kVersionOff = 2;  // in the file form of the first block
inline constexpr std::size_t kLeastChain = 6;  // used length and version

inline unsigned byteAt(const std::byte *pBytes, std::size_t index) noexcept {
  return std::to_integer<unsigned>(pBytes[index]);
}

// The version's last character tells the order; EBCDIC versions are big-endian throughout.
inline bool isBigEndianChain(const std::byte *pFirstUsed) noexcept {
  return byteAt(pFirstUsed, kVersionOff) >= 0xF0 || byteAt(pFirstUsed, kVersionOff + 3) == '1';
}

inline std::size_t usedLength(const std::byte *pUsed, bool isBigEndian) noexcept {
  const unsigned first = byteAt(pUsed, 0);
  const unsigned second = byteAt(pUsed, 1);
  return isBigEndian ? first * 256 + second : second * 256 + first;
}

// The control block of an unpacked chain, in either layout. One of the current layout is in the
// machine's order by then, one of the old layout still in its writer's.
class ChainControlBlock {
 public:
  ChainControlBlock(const std::byte *pFirstUsed, bool isSwapped) noexcept
      : pBytes_(pFirstUsed + kLeastChain),
        isOld_((byteAt(pFirstUsed, kVersionOff + 1) & 0x0F) == 1),  // in ASCII and in EBCDIC
        isBigEndian_(isBigEndianChain(pFirstUsed)),
        isSwapped_(isSwapped) {}

  bool isOld() const noexcept { return isOld_; }

  template <class Table>
  bool isSameAs(const Table &table) const noexcept {
    if (numberAt(0) != Table::count()) return false;
    for (std::size_t i = 0; i < Table::count(); ++i) {
      if (!isSame(2 + i * (isOld_ ? kOldDescriptorLen : sizeof(MemPackDescriptor)),
                  table.descriptor(i))) {
        return false;
      }
    }
    return true;
  }

 private:
  static constexpr std::size_t kOldDescriptorLen = 58;
  static constexpr std::size_t kOldReferences = 42;

  unsigned numberAt(std::size_t at) const noexcept {
    std::uint16_t number = 0;
    std::memcpy(&number, pBytes_ + at, sizeof number);
    return isSwapped_ ? (number & 0xFFU) << 8 | unsigned{number} >> 8 : number;
  }

  // EBCDIC letters are those of big-endian writers; elsewhere they are numbers like others.
  unsigned asciiType(unsigned type) const noexcept {
    if (!isBigEndian_) return type;
    switch (type) {
      case 0xC6:
        return MEM_PACK_FIXED;
      case 0xC3:
        return MEM_PACK_COUNTED;
      case 0xE2:
        return MEM_PACK_STRING;
      case 0xE6:
        return MEM_PACK_WIDE_STRING;
      default:
        return type;
    }
  }

  bool isSigned(std::size_t at, std::int16_t expected) const noexcept {
    return numberAt(at) == static_cast<std::uint16_t>(expected);
  }

  // What a kind does not use, writers may fill as they like: all of a text's but its type.
  bool isSame(std::size_t at, const MemPackDescriptor &expected) const noexcept {
    if (asciiType(numberAt(at)) != expected.Type) return false;
    if (expected.Type == MEM_PACK_STRING || expected.Type == MEM_PACK_WIDE_STRING) return true;
    if ((expected.Type == MEM_PACK_FIXED && numberAt(at + 2) != expected.FixedLen) ||
        !isSigned(at + 4, expected.SiblingOff) || !isSigned(at + 6, expected.ChildCount) ||
        !isSigned(at + 8, expected.ReferenceCount)) {
      return false;
    }
    for (int i = 0; i < expected.ChildCount; ++i) {
      const std::size_t entry = at + 10 + 4 * static_cast<std::size_t>(i);
      if (numberAt(entry) != expected.Children[i].Descriptor ||
          !isSigned(entry + 2, expected.Children[i].Offset)) {
        return false;
      }
    }
    const std::size_t references =
        at + (isOld_ ? kOldReferences : offsetof(MemPackDescriptor, References));
    for (int i = 0; i < expected.ReferenceCount; ++i) {
      if (!isSigned(references + 2 * static_cast<std::size_t>(i), expected.References[i])) {
        return false;
      }
    }
    return true;
  }

  const std::byte *pBytes_;
  bool isOld_;
  bool isBigEndian_;
  bool isSwapped_;
};

template <class Table>
bool describesSame(const std::byte *pFirstUsed, const Table &table) noexcept {
  const ChainControlBlock native(pFirstUsed, false);
  return native.isSameAs(table) ||
         (native.isOld() && ChainControlBlock(pFirstUsed, true).isSameAs(table));
}

}  // namespace detail

/** A chain of packed blocks. One thread at a time. Unpacking makes it the structure itself: from
 * then on it is kept for its lifetime only. */
class PackedChain : public Owner<PackedChain, detail::ChainHandle> {
 public:
  /** The used bytes of each block, as they stand in a file, until the chain is unpacked. */
  class Iterator {
   public:
    using value_type = std::span<const std::byte>;
    using difference_type = std::ptrdiff_t;

    Iterator() noexcept = default;
    value_type operator*() const noexcept {
      const std::byte *const pUsed = PackedChain::usedBytes(pBlock_);
      return {pUsed, detail::usedLength(pUsed, isBigEndian_)};
    }
    Iterator &operator++() noexcept {
      pBlock_ = pBlock_->pNext;
      return *this;
    }
    Iterator operator++(int) noexcept {
      const Iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(const Iterator &other) const noexcept { return pBlock_ == other.pBlock_; }

   private:
    friend class PackedChain;
    Iterator(const MemPackBlock *pBlock, bool isBigEndian) noexcept
        : pBlock_(pBlock), isBigEndian_(isBigEndian) {}

    const MemPackBlock *pBlock_ = nullptr;
    bool isBigEndian_ = false;
  };

  struct Size {
    std::uint64_t blocks = 0;
    std::uint64_t bytes = 0;  // used ones: the length of the file form
  };

  PackedChain() noexcept = default;

  /** Packs the structure at `pRoot`, which `packCB` describes. */
  static Result<PackedChain> pack(ContextRef context, const MemPackCB &packCB, const void *pRoot,
                                  std::int32_t blockLen = kPackBlockLen) noexcept {
    MemPackBlock *pFirst = nullptr;
    const Status packed = call(context.get(), slots::MEM_Pack, &packCB, pRoot, blockLen, &pFirst);
    constexpr bool isBigEndian = std::endian::native == std::endian::big;
    PackedChain chain(context, {pFirst, static_cast<std::uint32_t>(blockLen), isBigEndian});
    if (!packed.isOk()) return packed.error();
    return chain;
  }
  template <class Root, std::size_t kCount>
  static Result<PackedChain> pack(ContextRef context, const PackTable<Root, kCount> &table,
                                  const Root &root,
                                  std::int32_t blockLen = kPackBlockLen) noexcept {
    return pack(context, table.controlBlock(), &root, blockLen);
  }

  /** A chain from its file form, of any writer. Bytes that are none are refused ("it is too short",
   * "wrong length of block 3"); whether they make sense is for unpack() to tell. */
  static Result<PackedChain> load(ContextRef context, std::span<const std::byte> file) noexcept {
    if (file.size() < detail::kLeastChain) return refusal("it is too short");
    const bool isBigEndian = detail::isBigEndianChain(file.data());
    std::size_t longest = 0;
    std::size_t number = 0;
    for (std::size_t at = 0; at < file.size(); ++number) {
      const std::size_t used = usedLengthAt(file, at, isBigEndian);
      if (used == 0) return wrongLength(number);
      longest = used > longest ? used : longest;
      at += used;
    }
    const auto blockLen = static_cast<std::uint32_t>(detail::kBlockHead + longest);
    PackedChain chain(context, {nullptr, blockLen, isBigEndian});
    MemPackBlock **ppEnd = &chain.mutableHandle().pFirst;
    for (std::size_t at = 0; at < file.size();) {
      const std::size_t used = usedLengthAt(file, at, isBigEndian);
      void *const pArea = context->vector().MEM_Alloc(blockLen, detail::kChainSubPool);
      if (pArea == nullptr) {
        return Error::withoutRecord(slots::MEM_Alloc.name, -1, "no storage for a block");
      }
      std::memcpy(static_cast<std::byte *>(pArea) + detail::kBlockHead, &file[at], used);
      *ppEnd = static_cast<MemPackBlock *>(pArea);
      (*ppEnd)->pNext = nullptr;
      ppEnd = &(*ppEnd)->pNext;
      at += used;
    }
    return chain;
  }

  static Status closeHandle(const Context &context, const detail::ChainHandle &chain) noexcept {
    for (MemPackBlock *pBlock = chain.pFirst; pBlock != nullptr;) {
      MemPackBlock *const pNext = pBlock->pNext;
      context.vector().MEM_Free(pBlock, chain.blockLen, detail::kChainSubPool);
      pBlock = pNext;
    }
    return {};
  }

  Iterator begin() const noexcept { return {handle().pFirst, handle().isBigEndian}; }
  Iterator end() const noexcept { return {}; }

  Size size() const noexcept {
    Size size;
    for (const std::span<const std::byte> used : *this) {
      ++size.blocks;
      size.bytes += used.size();
    }
    return size;
  }

  /** Turns the chain into linked structures and hands out the root. They live in the chain, at any
   * alignment (readRecord). Once only; after a failure the chain can only be closed.
   *
   * Where MEM_Unpack works in place, segments are as long and pointers lie where the file's own
   * control block says, not `packCB`: the caller has to trust the writer for that. */
  Result<void *> unpack(const MemPackCB &packCB) noexcept {
    MemPackBlock *pFirst = handle().pFirst;
    void *pRoot = nullptr;
    const Status unpacked = call(context(), slots::MEM_Unpack, &pFirst, &pRoot, &packCB);
    if (!unpacked.isOk()) return unpacked.error();
    if (pFirst != handle().pFirst) {  // laid out anew, for a writer of another pointer width
      static_cast<void>(closeHandle(context(), handle()));
      mutableHandle() = {pFirst, MEM_UNPACK_BLOCK_LEN, false};
    }
    return pRoot;
  }

  /** The same for structures of a table. A chain of any other control block is refused, so records
   * of fixed length can be read without trust in the writer. */
  template <class Root, std::size_t kCount>
  Result<Root *> unpack(const PackTable<Root, kCount> &table) noexcept {
    const MemPackBlock *const pLoaded = handle().pFirst;
    const Result<void *> root = unpack(table.controlBlock());
    if (!root.isOk()) return root.error();
    const bool isInPlace = handle().pFirst == pLoaded;
    if (isInPlace && !detail::describesSame(usedBytes(pLoaded), table)) {
      return Error::refusal("PackedChain::unpack", "the chain describes other structures");
    }
    return static_cast<Root *>(root.value());
  }

 private:
  PackedChain(ContextRef context, detail::ChainHandle handle) noexcept : Owner(context, handle) {}

  static const std::byte *usedBytes(const MemPackBlock *pBlock) noexcept {
    return reinterpret_cast<const std::byte *>(pBlock) + detail::kBlockHead;
  }

  // Used length of the block at `at`, 0 when it cannot be one.
  static std::size_t usedLengthAt(std::span<const std::byte> file, std::size_t at,
                                  bool isBigEndian) noexcept {
    const std::size_t left = file.size() - at;
    const std::size_t least = at == 0 ? detail::kLeastChain : detail::kUsedLenSize;
    if (left < least) return 0;
    const std::size_t used = detail::usedLength(&file[at], isBigEndian);
    return used < least || used > left ? 0 : used;
  }

  static Error refusal(const char *text) noexcept {
    return Error::refusal("PackedChain::load", text);
  }
  static Error wrongLength(std::size_t number) noexcept {
    char text[MEM_NAME_TEXT_LEN];
    std::snprintf(text, sizeof text, "wrong length of block %llu",
                  static_cast<unsigned long long>(number));
    return refusal(text);
  }
};
/** @} */

/** @name Structure definitions from members */
/** @{ */

namespace detail {

template <class Type>
constexpr MEMFieldType integerCode() noexcept {
  constexpr bool isSigned = std::is_signed_v<Type>;
  switch (sizeof(Type)) {
    case 2:
      return isSigned ? MEM_PORT_SHORT : MEM_PORT_USHORT;
    case 4:
      return isSigned ? MEM_PORT_LONG : MEM_PORT_ULONG;
    case 8:
      return isSigned ? MEM_PORT_BIGINT : MEM_PORT_UBIGINT;
    default:
      return MEMFieldType{};
  }
}

// Characters and truth values are integers for the language only.
template <class Type>
inline constexpr bool kIsInteger =
    std::is_integral_v<Type> && !std::is_same_v<Type, bool> && !std::is_same_v<Type, char> &&
    !std::is_same_v<Type, wchar_t> && !std::is_same_v<Type, char8_t> &&
    !std::is_same_v<Type, char16_t> && !std::is_same_v<Type, char32_t>;

template <class Type>
inline constexpr bool kIsByte =
    std::is_same_v<Type, unsigned char> || std::is_same_v<Type, std::byte>;

// The type code of a member; 0 where its type leaves it open.
template <class FieldType>
constexpr MEMFieldType portCode() noexcept {
  using Type = std::remove_cv_t<FieldType>;
  using Element = std::remove_cv_t<std::remove_extent_t<Type>>;
  if constexpr (std::is_array_v<Type>) {
    if (kIsNarrowText<Element>) return MEM_PORT_CHARSZ;
    if (kIsWideText<Element>) return MEM_PORT_WCHARSZ;
    return kIsByte<Element> ? MEM_PORT_BIN : MEMFieldType{};
  } else if constexpr (std::is_pointer_v<Type>) {
    if (kIsNarrowText<Target<Type>>) return MEM_PORT_PSTR;
    if (kIsWideText<Target<Type>>) return MEM_PORT_WPSTR;
    return std::is_class_v<Target<Type>> ? MEM_PORT_PNT : MEMFieldType{};
  } else if constexpr (std::is_enum_v<Type>) {
    return integerCode<std::underlying_type_t<Type>>();
  } else if constexpr (std::is_class_v<Type>) {
    return MEM_PORT_SUBSTRUCTURE;
  } else {
    return kIsInteger<Type> ? integerCode<Type>() : MEMFieldType{};
  }
}

// Whether a member can hold a field of this code.
template <class FieldType, MEMFieldType kCode>
constexpr bool canHold() noexcept {
  using Type = std::remove_cv_t<FieldType>;
  using Element = std::remove_cv_t<std::remove_all_extents_t<Type>>;
  switch (kCode) {
    case MEM_PORT_CHAR:
      return sizeof(Element) == 1 && std::is_trivially_copyable_v<Type>;
    case MEM_PORT_BIN:
      return !std::is_pointer_v<Element> && std::is_trivially_copyable_v<Type>;
    case MEM_PORT_BIT:
      return sizeof(Type) == 1 && std::is_trivially_copyable_v<Type>;
    case MEM_PORT_WCHAR:
      return kIsWideText<Element>;
    default:
      return portCode<FieldType>() == kCode;
  }
}

constexpr bool isPortText(MEMFieldType code) noexcept {
  return code == MEM_PORT_CHARSZ || code == MEM_PORT_PSTR;
}
constexpr bool isPortWideText(MEMFieldType code) noexcept {
  return code == MEM_PORT_WCHARSZ || code == MEM_PORT_WPSTR;
}
constexpr bool isPortNumber(MEMFieldType code) noexcept {
  return code >= MEM_PORT_SHORT && code <= MEM_PORT_ULONG;
}

enum class Repeat { kNone, kByCount, kByLength };

// The structure that a field points to or embeds; void for other fields.
template <class Type, MEMFieldType kCode>
using PortTarget =
    std::conditional_t<kCode == MEM_PORT_PNT || kCode == MEM_PORT_SUBSTRUCTURE, Target<Type>, void>;

// One element of a repeat field, which is declared as such or as an array of one.
template <class Type>
using RepeatElement = std::conditional_t<std::is_array_v<Type> && std::extent_v<Type> == 1,
                                         std::remove_extent_t<Type>, Type>;

}  // namespace detail

/** One field of a definition: MEM_FIELD's member with identifier, type code and options. */
template <class StructType, class FieldType, std::uint32_t kId, MEMFieldType kCode,
          detail::Repeat kRepeat = detail::Repeat::kNone, std::uint32_t kCountId = 0>
class PortField {
 public:
  using Struct = StructType;
  using Target = detail::PortTarget<FieldType, kCode>;
  static constexpr std::uint32_t kFieldId = kId;
  static constexpr MEMFieldType kFieldCode = kCode;
  static constexpr detail::Repeat kRepeats = kRepeat;
  static constexpr std::uint32_t kCountFieldId = kCountId;

  constexpr explicit PortField(std::size_t offset) noexcept {
    def_.FieldID = kId;
    def_.Type = static_cast<std::uint8_t>(kCode);
    def_.Length = static_cast<std::int32_t>(sizeof(FieldType));
    def_.Offset = static_cast<std::int32_t>(offset);
  }

  /** A text without the field is refused. */
  constexpr PortField required() const noexcept {
    PortField changed = *this;
    changed.def_.Required = 1;
    return changed;
  }
  /** Text that is longer than the field is refused instead of being cut. */
  constexpr PortField noTruncate() const noexcept {
    PortField changed = *this;
    changed.def_.NoTruncate = 1;
    return changed;
  }
  /** Never written, and not demanded. */
  constexpr PortField notPorted() const noexcept {
    PortField changed = *this;
    changed.def_.NotPorted = 1;
    return changed;
  }

  /** The value of an absent field. Readers share the text of a pointer field; it must live as long
   * as the table. */
  constexpr PortField defaultText(const char *pText) const noexcept {
    static_assert(detail::isPortText(kCode), "mem: this field has no narrow text as its default");
    PortField changed = *this;
    changed.def_.Default.pText = pText;
    return changed;
  }
  constexpr PortField defaultText(const char16_t *pText) const noexcept {
    static_assert(detail::isPortWideText(kCode), "mem: this field has no wide text as its default");
    PortField changed = *this;
    changed.def_.Default.pWide = pText;
    return changed;
  }
  /** For numbers of 16 and 32 bits. Of a 64-bit field readers set half only, so it has no default.
   */
  template <auto kValue>
  constexpr PortField defaultNumber() const noexcept {
    static_assert(detail::isPortNumber(kCode), "mem: this field has no number as its default");
    static_assert(kValue == static_cast<decltype(kValue)>(static_cast<FieldType>(kValue)) &&
                      (kValue < 0) == (static_cast<FieldType>(kValue) < FieldType{}),
                  "mem: the default does not fit its field");
    PortField changed = *this;
    if constexpr (sizeof(FieldType) == 2) {
      changed.def_.Default.Short = static_cast<std::uint16_t>(kValue);
    } else {
      changed.def_.Default.Long = static_cast<std::uint32_t>(kValue);
    }
    return changed;
  }
  /** For all other types: the field's bytes, which must live as long as the table. */
  constexpr PortField defaultBytes(const FieldType *pField) const noexcept {
    static_assert(!detail::isPortText(kCode) && !detail::isPortWideText(kCode) &&
                      !detail::isPortNumber(kCode) && kCode != MEM_PORT_UBIGINT &&
                      kCode != MEM_PORT_BIGINT,
                  "mem: this field has no bytes as its default");
    PortField changed = *this;
    changed.def_.Default.pBytes = pField;
    return changed;
  }

  constexpr const MEMFieldDef &def() const noexcept { return def_; }

 private:
  MEMFieldDef def_{};
};

/** The field `kId` of a structure, its type code taken from the member's type:
 *
 *  | member                                   | type code                  |
 *  |------------------------------------------|----------------------------|
 *  | integer or enumeration of 16, 32, 64 bits| Short … UBigInt            |
 *  | char[n], char16_t[n]                     | CharSZ, WCharSZ            |
 *  | char *, char16_t *                       | PStr, WPStr                |
 *  | std::uint8_t[n], std::byte[n]            | Bin                        |
 *  | pointer to a described structure         | Pnt                        |
 *  | described structure                      | Substructure               |
 */
template <std::uint32_t kId, class Struct, class Type, std::size_t kOffset>
constexpr auto field(Member<Struct, Type, kOffset>) noexcept {
  static_assert(detail::portCode<Type>() != MEMFieldType{},
                "mem: this member's type has no type code (use fieldAs to choose one)");
  return PortField<Struct, Type, kId, detail::portCode<Type>()>(kOffset);
}

/** The same with a type code of the caller's: Char, WChar, Bin and Bit, which no type tells. */
template <std::uint32_t kId, MEMFieldType kCode, class Struct, class Type, std::size_t kOffset>
constexpr auto fieldAs(Member<Struct, Type, kOffset>) noexcept {
  static_assert(detail::canHold<Type, kCode>(),
                "mem: this member cannot hold a field of this type");
  return PortField<Struct, Type, kId, kCode>(kOffset);
}

/** The repeat field, the last one of its structure: an element, or an array of one, of which there
 * are as many as the field `kCountId` says. */
template <std::uint32_t kId, std::uint32_t kCountId, class Struct, class Type, std::size_t kOffset>
constexpr auto repeatedField(Member<Struct, Type, kOffset>) noexcept {
  using Element = detail::RepeatElement<Type>;
  static_assert(detail::portCode<Element>() != MEMFieldType{},
                "mem: the repeated member's type has no type code");
  return PortField<Struct, Element, kId, detail::portCode<Element>(), detail::Repeat::kByCount,
                   kCountId>(kOffset);
}

/** The same where the field `kLengthId` holds the structure's bytes. */
template <std::uint32_t kId, std::uint32_t kLengthId, class Struct, class Type, std::size_t kOffset>
constexpr auto repeatedFieldByLength(Member<Struct, Type, kOffset>) noexcept {
  using Element = detail::RepeatElement<Type>;
  static_assert(detail::portCode<Element>() != MEMFieldType{},
                "mem: the repeated member's type has no type code");
  return PortField<Struct, Element, kId, detail::portCode<Element>(), detail::Repeat::kByLength,
                   kLengthId>(kOffset);
}

/** One structure with its fields. */
template <class StructType, std::uint32_t kId, class... Fields>
struct PortStructure {
  using Struct = StructType;
  static constexpr std::uint32_t kStructId = kId;
  static constexpr std::size_t kFieldCount = sizeof...(Fields);

  /** Index of the field that counts the repeat field, or MEM_PORT_NO_COUNT. */
  static constexpr std::int32_t countField() noexcept {
    if (countFieldId() == 0) return MEM_PORT_NO_COUNT;
    std::int32_t index = 0;
    bool isFound = false;
    ((isFound = isFound || Fields::kFieldId == countFieldId(), index += isFound ? 0 : 1), ...);
    return index;
  }
  static constexpr std::uint32_t countFieldId() noexcept {
    return ((Fields::kRepeats == detail::Repeat::kNone ? 0U : Fields::kCountFieldId) + ... + 0U);
  }
  static constexpr bool isCountLength() noexcept {
    return ((Fields::kRepeats == detail::Repeat::kByLength) || ...);
  }

  std::array<MEMFieldDef, kFieldCount> fields;
};

namespace detail {

template <class... Fields>
constexpr bool areIdsAscending() noexcept {
  std::uint32_t last = 0;
  bool isAscending = true;
  ((isAscending = isAscending && Fields::kFieldId > last, last = Fields::kFieldId), ...);
  return isAscending;
}

template <class... Fields>
constexpr bool repeatsOnlyLast() noexcept {
  std::size_t index = 0;
  bool isOnlyLast = true;
  ((isOnlyLast =
        isOnlyLast && (Fields::kRepeats == Repeat::kNone || index + 1 == sizeof...(Fields)),
    ++index),
   ...);
  return isOnlyLast;
}

template <std::uint32_t kCountId, class... Fields>
constexpr bool hasCountField() noexcept {
  return ((Fields::kFieldId == kCountId && Fields::kRepeats == Repeat::kNone &&
           isPortNumber(Fields::kFieldCode)) ||
          ...);
}

template <class Structure, class... Fields>
constexpr void checkRepeat() noexcept {
  static_assert(repeatsOnlyLast<Fields...>(), "mem: the repeat field is the last one");
  static_assert(!((Fields::kRepeats != Repeat::kNone) || ...) ||
                    hasCountField<Structure::countFieldId(), Fields...>(),
                "mem: the count field must be a 16- or 32-bit number of the same structure");
}

}  // namespace detail

/** The structure `kId` of a table, with its fields in ascending order of their identifiers. Clang
 * takes more than 256 fields with -fbracket-depth only. */
template <class Struct, std::uint32_t kId, class... Fields>
constexpr auto structure(const Fields &...fields) noexcept {
  using Structure = PortStructure<Struct, kId, Fields...>;
  static_assert(kId >= 1 && kId <= 0x7FFFFFFFU,
                "mem: structure identifiers are 1 to 2,147,483,647");
  static_assert(sizeof...(Fields) >= 1, "mem: a structure without fields cannot be read back");
  static_assert(sizeof...(Fields) <= MEM_PORT_MAX_FIELDS,
                "mem: a structure has 1,024 fields at most");
  static_assert((std::is_same_v<typename Fields::Struct, Struct> && ...),
                "mem: a field of another structure");
  static_assert(detail::areIdsAscending<Fields...>(),
                "mem: field identifiers are 1 or more and ascend");
  static_assert(sizeof(Struct) <= std::numeric_limits<std::int32_t>::max(),
                "mem: the structure is too long");
  detail::checkRepeat<Structure, Fields...>();
  return Structure{{fields.def()...}};
}

/** A table of structure definitions, complete and checked: every pointer and embedded structure
 * leads to a structure of the same table. It holds addresses of its own parts, so it is made in
 * place (a constant of static storage duration) and not copied:
 *
 *     inline constexpr mem::PortTable kTable{mem::structure<…>(…), …};
 */
template <class... Structures>
class PortTable {
 public:
  constexpr explicit PortTable(const Structures &...structures) noexcept { (add(structures), ...); }
  PortTable(const PortTable &) = delete;
  PortTable &operator=(const PortTable &) = delete;

  /** As the services take it, ended by a record with identifier 0. */
  constexpr const MEMStructDef *table() const noexcept { return defs_.data(); }

  template <class Struct>
  static constexpr bool describes() noexcept {
    return timesDescribed<Struct>() == 1;
  }
  /** Identifier of a structure. */
  template <class Struct>
  static constexpr std::uint32_t idOf() noexcept {
    static_assert(describes<Struct>(), "mem: a structure that the table does not describe");
    return ((std::is_same_v<typename Structures::Struct, Struct> ? Structures::kStructId : 0U) +
            ... + 0U);
  }

 private:
  template <class Struct>
  static constexpr std::size_t timesDescribed() noexcept {
    return ((std::is_same_v<typename Structures::Struct, Struct> ? 1U : 0U) + ... + 0U);
  }
  static constexpr std::size_t timesUsed(std::uint32_t id) noexcept {
    return ((Structures::kStructId == id ? 1U : 0U) + ... + 0U);
  }

  template <class Field>
  static constexpr std::uint32_t targetId() noexcept {
    using Target = typename Field::Target;
    if constexpr (std::is_void_v<Target>) {
      return 0;
    } else {
      static_assert(timesDescribed<Target>() == 1,
                    "mem: a field leads to a structure that the table does not describe");
      return idOf<Target>();
    }
  }

  template <class Struct, std::uint32_t kId, class... Members>
  constexpr void add(const PortStructure<Struct, kId, Members...> &added) noexcept {
    using Structure = PortStructure<Struct, kId, Members...>;
    static_assert(timesDescribed<Struct>() == 1, "mem: a structure is described twice");
    static_assert(timesUsed(kId) == 1, "mem: two structures have one identifier");
    const std::array<std::uint32_t, Structure::kFieldCount> targets = {targetId<Members>()...};
    MEMStructDef &def = defs_[defCount_++];
    def.StructID = kId;
    def.Length = static_cast<std::int32_t>(sizeof(Struct));
    def.CountField = Structure::countField();
    def.FieldCount = static_cast<std::int32_t>(Structure::kFieldCount);
    def.Fields = fields_.data() + fieldCount_;
    def.CountIsLength = Structure::isCountLength() ? 1 : 0;
    for (std::size_t i = 0; i < Structure::kFieldCount; ++i) {
      fields_[fieldCount_] = added.fields[i];
      fields_[fieldCount_++].SubStructID = targets[i];
    }
  }

  std::array<MEMFieldDef, (Structures::kFieldCount + ... + 0U)> fields_{};
  std::array<MEMStructDef, sizeof...(Structures) + 1> defs_{};
  std::size_t fieldCount_ = 0;
  std::size_t defCount_ = 0;
};
/** @} */

/** @name Port strings: any number of threads, each on its own object */
/** @{ */

/** A port string in a heap of its own. */
class PortString {
 public:
  /** The characters, chunk by chunk. */
  class Iterator {
   public:
    using value_type = std::string_view;
    using difference_type = std::ptrdiff_t;

    Iterator() noexcept = default;
    value_type operator*() const noexcept {
      return {static_cast<const char *>(pChunk_->Text), static_cast<std::size_t>(pChunk_->Used)};
    }
    Iterator &operator++() noexcept {
      pChunk_ = pChunk_->pNext;
      return *this;
    }
    Iterator operator++(int) noexcept {
      const Iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(const Iterator &other) const noexcept = default;

   private:
    friend class PortString;
    explicit Iterator(const MEMPortChunk *pChunk) noexcept : pChunk_(pChunk) {}

    const MEMPortChunk *pChunk_ = nullptr;
  };

  PortString() noexcept = default;

  /** Writes the structure at `pStruct`, of kind `structId`, and all that it reaches. The heap of
   * `settings` takes the text. `chunkLen` is the capacity of a chunk, 0 for what fills an area. The
   * error has no code of its own; a failing heap's stands there. */
  static Result<PortString> write(ContextRef context, const MEMStructDef *pDefs,
                                  std::uint32_t structId, const void *pStruct,
                                  HeapSettings settings = {}, std::int32_t chunkLen = 0) noexcept {
    Result<Heap> heap = Heap::open(context, settings);
    if (!heap.isOk()) return heap.error();
    PortString string(std::move(heap).value(), structId);
    const Status written = call(context.get(), slots::MEM_StructToPortStr, pDefs, structId, pStruct,
                                chunkLen, string.heap_.handle(), &string.length_, &string.pFirst_);
    if (!written.isOk()) return written.error();
    return string;
  }
  template <class Struct, class... Structures>
  static Result<PortString> write(ContextRef context, const PortTable<Structures...> &table,
                                  const Struct &top, HeapSettings settings = {},
                                  std::int32_t chunkLen = 0) noexcept {
    return write(context, table.table(), PortTable<Structures...>::template idOf<Struct>(), &top,
                 settings, chunkLen);
  }

  bool isOpen() const noexcept { return heap_.isOpen(); }
  Status close() noexcept { return heap_.close(); }

  /** Identifier of the top-level structure. */
  std::uint32_t structId() const noexcept { return structId_; }
  std::uint32_t length() const noexcept { return isOpen() ? length_ : 0; }
  const MEMPortChunk *firstChunk() const noexcept { return isOpen() ? pFirst_ : nullptr; }
  Iterator begin() const noexcept { return Iterator(firstChunk()); }
  Iterator end() const noexcept { return {}; }

 private:
  PortString(Heap heap, std::uint32_t structId) noexcept
      : heap_(std::move(heap)), structId_(structId) {}

  Heap heap_;  // the other members count only while it is open
  MEMPortChunk *pFirst_ = nullptr;
  std::uint32_t length_ = 0;
  std::uint32_t structId_ = 0;
};

namespace detail {

// Whether the first structure text is of this kind. A reader would store whatever comes first.
inline bool beginsWith(std::string_view text, std::uint32_t structId) noexcept {
  constexpr std::size_t kMostDigits = 10;
  char digits[kMostDigits + 1] = {'('};
  std::size_t length = 1;
  for (; structId != 0; structId /= 10) digits[length++] = static_cast<char>('0' + structId % 10);
  constexpr std::size_t kHeader = MEM_PORT_HEADER_LEN;
  if (text.size() < kHeader) return false;
  const std::string_view body = text.substr(kHeader);
  if (!body.starts_with(std::string_view(digits, length)) || body.size() == length) return false;
  return body[length] == '<' || body[length] == ',';
}

template <class Struct, class Heap, class Slot, class... Input>
Result<Struct *> readPort(Heap &heap, const Context &context, Slot slot, const MEMStructDef *pDefs,
                          Input... input) noexcept {
  void *pTop = nullptr;
  const Status read = call(context, slot, pDefs, input..., heap.handle(), &pTop);
  if (!read.isOk()) return read.error();
  return static_cast<Struct *>(pTop);
}

inline constexpr char kOtherStructure[] = "the text begins with another structure";

}  // namespace detail

/** Reads a port string into structures in the caller's heap, of either kind, and hands out the
 * top-level one, which has to be a `Struct`. The text need not be trusted. On failure what was made
 * so far stays in the heap. */
template <class Struct, class Heap, class... Structures>
Result<Struct *> readPortString(ContextRef context, Heap &heap,
                                const PortTable<Structures...> &table,
                                std::string_view text) noexcept {
  const auto slot = slots::MEM_Port1StrToStruct;
  constexpr std::uint32_t kStructId = PortTable<Structures...>::template idOf<Struct>();
  if (!detail::beginsWith(text, kStructId)) {
    return Error::refusal(slot.name, detail::kOtherStructure);
  }
  if (text.size() > std::numeric_limits<std::uint32_t>::max()) {
    return Error::refusal(slot.name, "the text is too long");
  }
  return detail::readPort<Struct>(heap, context.get(), slot, table.table(), text.data(),
                                  static_cast<std::uint32_t>(text.size()));
}

/** The same from a string that was written here. */
template <class Struct, class Heap, class... Structures>
Result<Struct *> readPortString(ContextRef context, Heap &heap,
                                const PortTable<Structures...> &table,
                                const PortString &string) noexcept {
  const auto slot = slots::MEM_PortStrToStruct;
  constexpr std::uint32_t kStructId = PortTable<Structures...>::template idOf<Struct>();
  if (string.structId() != kStructId) return Error::refusal(slot.name, detail::kOtherStructure);
  return detail::readPort<Struct>(heap, context.get(), slot, table.table(), string.firstChunk());
}
/** @} */

}  // namespace mem

#endif
