/** @file context.hpp
 * Common parts of the C++ layer: the context, errors and results, calls by slot, owners, and
 * members of structures. Part of mem.hpp, whose conventions apply.
 */
#ifndef QJ7MEM00_MEM_CONTEXT_HPP
#define QJ7MEM00_MEM_CONTEXT_HPP

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

#include "../qj7mem00.h"

namespace mem {

/** @name Context */
/** @{ */

/** Access to the services and to the calling thread's error area. Make it once, where the host is
 * known, and pass it by reference to everything else. Any number of threads may use one context. */
class Context {
 public:
  /** Returns the calling thread's environment, or null if it has none. Must not throw. */
  using ThreadEnvFn = MEMThreadEnv *(void *pHost);

  /** `vector` is the host's; slots that it replaces later take effect. `pThreadEnv` is called with
   * `pHost` after a failure; without it errors contain only the result. */
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

/** The context of a host object that returns its vector and the calling thread's environment from
 * vector() and thread(), as the reference host does. The object must outlive the context. */
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

/** Name and message of a code; empty texts for a number that is not in MEMERR_LIST. */
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

/** The error of a failed call: its code and copies of the calling thread's texts, which later calls
 * do not change. */
class Error {
 public:
  /** The name of the service that failed ("MEM_HeapOpen"), a constant. */
  const char *service() const noexcept { return service_; }
  /** The call's own result, 0 for a refusal. */
  std::int16_t result() const noexcept { return result_; }
  /** True when this header refused an argument and called no service; nameText() has the reason. */
  bool isRefusal() const noexcept { return result_ == 0; }
  /** MEMERR code, or 0: the port string services set none, and the start of the process stores its
   * code as the inner one. */
  std::uint32_t code() const noexcept { return code_; }
  std::uint32_t innerCode() const noexcept { return innerCode_; }
  /** Name or text of what failed, at most 63 characters. */
  const char *nameText() const noexcept { return nameText_; }
  const char *innerText() const noexcept { return innerText_; }
  /** The thread's free message text after the call. No service clears it: if the failing one wrote
   * nothing, it is the text of an earlier call. */
  const char *messageText() const noexcept { return messageText_; }

  /** @name Of a failed reading or writing of a port string: its last exception record */
  /** @{ */
  /** "Unknown StructID: 13!", at most 127 characters; empty if there was no record, or if the
   * host's tracing of later calls has replaced it. */
  const char *reasonText() const noexcept { return reasonText_; }
  /** The number of characters of the text or of the current chunk that had been read when the error
   * was found; -1 without a place. */
  std::int64_t position() const noexcept { return position_; }
  /** Up to 80 characters that were read last, and up to 80 that come next. */
  const char *readText() const noexcept { return readText_; }
  const char *nextText() const noexcept { return nextText_; }
  /** @} */

  /** "MEM_HeapOpen failed: 4055 MEMERR_HEAPAMEM, Acquire Memory failed (MemAllocFail)". The code is
   * the inner one if there is no other. "MEM_Port1StrToStruct failed: Unknown StructID: 13! (at
   * character 26)". */
  ErrorLine line() const noexcept {
    ErrorLine made;
    if (code_ != 0) {
      writeLine(made, code_, nameText_);
    } else if (innerCode_ != 0) {
      writeLine(made, innerCode_, innerText_);
    } else if (isRefusal()) {
      std::snprintf(made.text, sizeof made.text, "%s failed: %s", service_, nameText_);
    } else if (*reasonText_ != '\0') {
      writeReason(made);
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

  /** The same for a call that reads or writes a port string, after forgetRecord() before the
   * call. */
  static Error ofPortCall(const Context &context, const char *service,
                          std::int16_t result) noexcept {
    Error error = ofCall(context, service, result);
    if (const MEMThreadEnv *const pEnv = context.threadEnv()) error.takeRecord(pEnv->pTraceBuf);
    return error;
  }
  /** Clears the thread's trace buffer, so that its contents after a call come from that call. */
  static void forgetRecord(const Context &context) noexcept {
    const MEMThreadEnv *const pEnv = context.threadEnv();
    if (pEnv != nullptr && pEnv->pTraceBuf != nullptr) pEnv->pTraceBuf->TextLen = 0;
  }

  /** A failure that the service did not record; the text comes from this header. */
  static Error withoutRecord(const char *service, std::int16_t result,
                             const char *text = "") noexcept {
    Error error(service, result);
    std::snprintf(error.nameText_, sizeof error.nameText_, "%s", text);
    return error;
  }

  /** A refusal by this header; the text is the reason. */
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

  // "(source:line)ERROR:reason"; readers add "\nPosition: number\nRead:text\nNext:text". These
  // texts may be any input.
  void takeRecord(const MEMTraceBuf *pBuf) noexcept {
    constexpr std::size_t kLongest = 512;
    constexpr std::string_view kReason = ")ERROR:";
    constexpr std::string_view kPosition = "\nPosition: ";
    constexpr std::string_view kRead = "\nRead:";
    constexpr std::string_view kNext = "\nNext:";
    if (pBuf == nullptr || pBuf->TextLen == 0 || pBuf->TextLen > kLongest) return;
    const std::string_view record(static_cast<const char *>(pBuf->Text), pBuf->TextLen);
    const std::size_t reasonAt = record.find(kReason);
    if (!record.starts_with('(') || reasonAt == std::string_view::npos) return;
    const std::string_view reason = record.substr(reasonAt + kReason.size());
    const std::size_t positionAt = reason.find(kPosition);
    copyText(reasonText_, reason.substr(0, positionAt));
    if (positionAt == std::string_view::npos) return;
    std::string_view rest = reason.substr(positionAt + kPosition.size());
    position_ = 0;
    for (; !rest.empty() && rest.front() >= '0' && rest.front() <= '9'; rest.remove_prefix(1)) {
      position_ = position_ * 10 + (rest.front() - '0');
    }
    // The input may contain these words, too.
    const std::size_t nextAt = rest.rfind(kNext);
    if (!rest.starts_with(kRead) || nextAt == std::string_view::npos) return;
    copyText(readText_, rest.substr(kRead.size(), nextAt - kRead.size()));
    copyText(nextText_, rest.substr(nextAt + kNext.size()));
  }

  template <std::size_t kRoom>
  static void copyText(char (&to)[kRoom], std::string_view from) noexcept {
    const std::size_t length = from.size() < kRoom ? from.size() : kRoom - 1;
    std::memcpy(to, from.data(), length);
    to[length] = '\0';
  }

  void writeReason(ErrorLine &to) const noexcept {
    if (position_ < 0) {
      std::snprintf(to.text, sizeof to.text, "%s failed: %s", service_, reasonText_);
    } else {
      std::snprintf(to.text, sizeof to.text, "%s failed: %s (at character %lld)", service_,
                    reasonText_, static_cast<long long>(position_));
    }
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
  char reasonText_[128] = {};
  char readText_[81] = {};
  char nextText_[81] = {};
  std::int64_t position_ = -1;
};

template <class Value>
class Result;

namespace detail {

// Ends a program that reads the value of a failure or the error of a success.
[[noreturn]] inline void endWith(const char *text) noexcept {
  std::fprintf(stderr, "%s\n", text);
  std::abort();
}
[[noreturn]] inline void endWith(const Error &error) noexcept {
  endWith(static_cast<const char *>(error.line().text));
}
[[noreturn]] inline void endWithoutError() noexcept {
  endWith("mem: a result was asked for an error, and has none");
}

template <class Type>
inline constexpr bool kIsResult = false;
template <class Value>
inline constexpr bool kIsResult<Result<Value>> = true;

// The result of calling `use`; success for a function without a value.
template <class Use, class... Args>
auto resultOf(Use &&use, Args &&...args) noexcept {
  using Returned = std::invoke_result_t<Use, Args...>;
  if constexpr (std::is_void_v<Returned>) {
    std::invoke(std::forward<Use>(use), std::forward<Args>(args)...);
    return Result<Returned>();
  } else {
    return Result<std::remove_cvref_t<Returned>>(
        std::invoke(std::forward<Use>(use), std::forward<Args>(args)...));
  }
}

}  // namespace detail

/** A value, or the error of a failed call. */
template <class Value>
class [[nodiscard]] Result {
 public:
  Result(Value value) noexcept : state_(std::in_place_index<0>, std::move(value)) {}
  Result(const Error &error) noexcept : state_(std::in_place_index<1>, error) {}

  bool isOk() const noexcept { return state_.index() == 0; }

  /** The value. If the call failed, prints the error to stderr and ends the program. A temporary
   * result returns the value itself and not a reference, so that a range-based for loop over
   * `PortString::write(…).value()` keeps its range alive. */
  Value &value() &noexcept { return existing(*this); }
  const Value &value() const &noexcept { return existing(*this); }
  Value value() &&noexcept { return std::move(existing(*this)); }
  const Value &value() const &&noexcept = delete;

  /** A member of the value, or of its target if the value is a pointer. As value(). */
  auto operator->() noexcept { return addressOf(value()); }
  auto operator->() const noexcept { return addressOf(value()); }

  /** The error. Ends the program if there is a value instead. */
  const Error &error() const noexcept {
    const Error *const pError = std::get_if<1>(&state_);
    if (pError == nullptr) detail::endWithoutError();
    return *pError;
  }

  /** The result of `use(value)`, which is a Result or a Status; or the error of a failure. */
  template <class Use>
  auto and_then(Use &&use) &noexcept {
    return chained(*this, std::forward<Use>(use));
  }
  template <class Use>
  auto and_then(Use &&use) const &noexcept {
    return chained(*this, std::forward<Use>(use));
  }
  template <class Use>
  auto and_then(Use &&use) &&noexcept {
    return chained(std::move(*this), std::forward<Use>(use));
  }

  /** A result with what `use(value)` returns (a Status if that is void), or the error of a failure.
   */
  template <class Use>
  auto transform(Use &&use) &noexcept {
    return transformed(*this, std::forward<Use>(use));
  }
  template <class Use>
  auto transform(Use &&use) const &noexcept {
    return transformed(*this, std::forward<Use>(use));
  }
  template <class Use>
  auto transform(Use &&use) &&noexcept {
    return transformed(std::move(*this), std::forward<Use>(use));
  }

 private:
  template <class Self>
  static auto &existing(Self &self) noexcept {
    auto *const pValue = std::get_if<0>(&self.state_);
    if (pValue == nullptr) detail::endWith(self.error());
    return *pValue;
  }

  template <class Type>
  static auto addressOf(Type &value) noexcept {
    if constexpr (std::is_pointer_v<Value>) {
      return value;
    } else {
      return &value;
    }
  }

  template <class Self, class Use>
  static auto chained(Self &&self, Use &&use) noexcept {
    using Next = std::remove_cvref_t<decltype(std::invoke(std::forward<Use>(use),
                                                          std::forward<Self>(self).value()))>;
    static_assert(detail::kIsResult<Next>,
                  "mem: and_then needs a function that returns a Result or a Status");
    if (!self.isOk()) return Next(self.error());
    return Next(std::invoke(std::forward<Use>(use), std::forward<Self>(self).value()));
  }

  template <class Self, class Use>
  static auto transformed(Self &&self, Use &&use) noexcept {
    using Next =
        decltype(detail::resultOf(std::forward<Use>(use), std::forward<Self>(self).value()));
    if (!self.isOk()) return Next(self.error());
    return detail::resultOf(std::forward<Use>(use), std::forward<Self>(self).value());
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
    if (isOk()) detail::endWithoutError();
    return *error_;
  }

  /** As for a Result, with `use()`. */
  template <class Use>
  auto and_then(Use &&use) const noexcept {
    using Next = std::remove_cvref_t<std::invoke_result_t<Use>>;
    static_assert(detail::kIsResult<Next>,
                  "mem: and_then needs a function that returns a Result or a Status");
    return isOk() ? Next(std::invoke(std::forward<Use>(use))) : Next(*error_);
  }
  template <class Use>
  auto transform(Use &&use) const noexcept {
    using Next = decltype(detail::resultOf(std::forward<Use>(use)));
    return isOk() ? detail::resultOf(std::forward<Use>(use)) : Next(*error_);
  }

 private:
  std::optional<Error> error_;
};

using Status = Result<void>;

/** Returns from the function with the error if a call has failed:
 *
 *     MEM_TRY(heap.close());
 *     MEM_TRY(auto heap, mem::Heap::open(context));  // declares `heap`, or assigns what is named
 *
 * The function returns any Result or Status. The second form expands to several statements. */
#define MEM_TRY(first, ...)                                                         \
  __VA_OPT__(MEM_TRY_VALUE_(MEM_TRY_NAME_(memTried, __LINE__), first, __VA_ARGS__)) \
  MEM_TRY_STATUS##__VA_OPT__(_NONE)##_(first)
#define MEM_TRY_VALUE_(result, target, ...)  \
  auto result = (__VA_ARGS__);               \
  if (!result.isOk()) return result.error(); \
  target = ::std::move(result).value()
#define MEM_TRY_STATUS_(call) \
  if (const auto memTried = (call); !memTried.isOk()) return memTried.error()
#define MEM_TRY_STATUS_NONE_(target)
#define MEM_TRY_NAME_(name, line) MEM_TRY_JOIN_(name, line)
#define MEM_TRY_JOIN_(name, line) name##line
/** @} */

/** @name Calls by slot */
/** @{ */

/** A slot of the vector and its name. */
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

/** Calls a service whose 16-bit result is 0 for success, and returns the error of a failure. For
 * services without their own function in this header. */
template <class Service, class... Args>
Status call(const Context &context, Slot<Service> slot, Args... args) noexcept {
  const std::int16_t result = (context.vector().*slot.entry)(args...);
  if (result != 0) return Error::ofCall(context, slot.name, result);
  return {};
}
/** @} */

namespace detail {

// Cleared storage of subpool 0 for the time of a call.
class WorkStorage {
 public:
  explicit WorkStorage(const Context &context) noexcept : context_(context) {}
  ~WorkStorage() { giveBack(); }
  WorkStorage(const WorkStorage &) = delete;
  WorkStorage &operator=(const WorkStorage &) = delete;

  // Replaces the storage allocated before. False when there is no storage of this length.
  bool obtain(std::uint64_t length) noexcept {
    giveBack();
    length_ = static_cast<std::uint32_t>(length);
    if (length_ != length) return false;
    pStorage_ = context_.vector().MEM_Alloc(length_, kSubPool);
    if (pStorage_ != nullptr) std::memset(pStorage_, 0, length_);
    return pStorage_ != nullptr;
  }
  template <class Type>
  Type *as() const noexcept {
    return static_cast<Type *>(pStorage_);
  }

 private:
  static constexpr std::int16_t kSubPool = 0;

  void giveBack() noexcept {
    if (pStorage_ != nullptr) context_.vector().MEM_Free(pStorage_, length_, kSubPool);
    pStorage_ = nullptr;
  }

  const Context &context_;
  std::uint32_t length_ = 0;
  void *pStorage_ = nullptr;
};

}  // namespace detail

/** @name Owners: what they share */
/** @{ */

/** The base of all owners. An empty owner has `Handle{}`, which is false. */
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

  /** Frees what is owned; does nothing for an empty owner. On failure it is still owned. */
  Status close() noexcept {
    if (!isOpen()) return {};
    const Status status = Derived::closeHandle(*pContext_, handle_);
    if (status.isOk()) handle_ = Handle{};
    return status;
  }

  /** The handle of what is owned, for calls through the vector. */
  const Handle &handle() const noexcept { return handle_; }

  /** Passes ownership to the caller, who frees the handle through the vector. */
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

/** @name Members */
/** @{ */

/** A member of a structure: its type and its offset, both known at compile time. */
template <class StructType, class FieldType, std::size_t kFieldOffset>
struct Member {
  static_assert(std::is_standard_layout_v<StructType>,
                "mem: a structure for the library must have standard layout");
  using Struct = StructType;
  using Type = FieldType;
  static constexpr std::size_t kOffset = kFieldOffset;
  static constexpr const char *kName = "";
};

namespace detail {

// A name as a template argument, so that it takes no room in programs that do not use it.
template <std::size_t kSize>
struct MemberName {
  constexpr MemberName(const char (&name)[kSize]) noexcept {
    for (std::size_t i = 0; i < kSize; ++i) text[i] = name[i];
  }
  char text[kSize]{};
};

}  // namespace detail

/** A member that knows its name as well. Made by MEM_FIELD. */
template <class StructType, class FieldType, std::size_t kFieldOffset, detail::MemberName kText>
struct NamedMember : Member<StructType, FieldType, kFieldOffset> {
  static constexpr const char *kName = kText.text;
};

/** The member `member` of `Struct`. Members of members and elements of arrays are named as in C:
 * MEM_FIELD(Order, address.street), MEM_FIELD(Order, items[2]).
 *
 * A macro, because offsetof gives the offset in a constant expression and a pointer to member does
 * not. A structure type with a comma in its name needs an alias. */
#define MEM_FIELD(Struct, member)                                                  \
  (::mem::NamedMember<Struct, ::std::remove_reference_t<decltype(Struct::member)>, \
                      offsetof(Struct, member), #member>{})

namespace detail {

inline constexpr std::size_t kEntryAlignment = 8;  // of heap entries and of cells' areas

}  // namespace detail

/** The structure at any address: segments of an unpacked chain need not be aligned. */
template <class Record>
Record readRecord(const Record *pRecord) noexcept {
  static_assert(std::is_trivially_copyable_v<Record>, "mem: a record is copied byte by byte");
  Record record;
  std::memcpy(&record, static_cast<const void *>(pRecord), sizeof record);
  return record;
}
/** @} */

}  // namespace mem

#endif
