/** @file text.hpp
 * Growing wide text, and strings in the sink. Part of mem.hpp, whose conventions apply.
 */
#ifndef QJ7MEM00_MEM_TEXT_HPP
#define QJ7MEM00_MEM_TEXT_HPP

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "context.hpp"

namespace mem {

/** @name Concatenation buffer */
/** @{ */

namespace detail {

struct CatHandle : MEMCatCB {
  CatHandle() noexcept : MEMCatCB{} {}
  explicit operator bool() const noexcept { return pText != nullptr; }
};

}  // namespace detail

/** A growing buffer of wide text. One thread at a time. */
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

  /** Appends text up to its terminator. A failure does not change the buffer. */
  Status append(const char16_t *pText) noexcept {
    return call(context(), slots::MEM_Cat, block(), pText);
  }

  /** Appends a string, including any zero units in it. */
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

/** One use of the sink's copy of a text. Copies of equal texts have one address. A failed close()
 * still owns the use, unless the copy was erased but could not be protected again (MEMERR_SINKVSTG,
 * "ProtPageErrReadOnly"): then the owner is empty. */
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

  /** The sink's copy of a text, or null. Does not count as a use: the copy stays only as long as
   * another use lasts. */
  static Result<const Char *> find(ContextRef context, const Char *pText) noexcept {
    const Char *pSunk = nullptr;
    const std::int16_t result = (context->vector().*Slots::verify.entry)(pText, &pSunk, nullptr);
    if (result == MEMERR_SINKNFND) return static_cast<const Char *>(nullptr);
    if (result != 0) return Error::ofCall(context.get(), Slots::verify.name, result);
    return pSunk;
  }

  static Status closeHandle(const Context &context, const Char *&pSunk) noexcept {
    const Status removed = call(context, Slots::remove, pSunk);
    if (!removed.isOk() && isErased(removed.error())) pSunk = nullptr;
    return removed;
  }

  /** The copy, which is read-only; null for an empty owner. */
  const Char *text() const noexcept { return this->handle(); }

 private:
  BasicSunkString(ContextRef context, const Char *pSunk) noexcept : Base(context, pSunk) {}

  // The one failure after which the copy no longer exists: its storage was not protected again.
  static bool isErased(const Error &error) noexcept {
    return error.code() == MEMERR_SINKVSTG &&
           std::string_view(error.nameText()) == "ProtPageErrReadOnly";
  }
};

using SunkString = BasicSunkString<char>;
using WideSunkString = BasicSunkString<char16_t>;
/** @} */

}  // namespace mem

#endif
