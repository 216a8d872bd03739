#include "memchk_checkers.hpp"

#include "memchk_platform.hpp"

#if defined(MEMCHK_VALGRIND)
#include <valgrind/memcheck.h>
#endif

namespace memchk::checkers {

namespace {

// The sanitizer's interface, looked up by name: a program may be linked with it or not.
struct Sanitizer {
  void (*poison)(const volatile void *, std::size_t);
  void (*unpoison)(const volatile void *, std::size_t);
  void *(*reportAddress)();
  void (*setErrorReportCallback)(void (*)(const char *));
  void (*symbolizePc)(void *, const char *, char *, std::size_t);
};
constinit Sanitizer sanitizer{};
constinit bool onValgrind = false;
using DescribeFn = void(const void *);
constinit DescribeFn *describeError = nullptr;

template <class Function>
void findFunction(Function *&function, const char *pName) noexcept {
  function = reinterpret_cast<Function *>(platform::findFunction(pName));
}

void onSanitizerError(const char *) {
  if (describeError != nullptr && sanitizer.reportAddress != nullptr) {
    describeError(sanitizer.reportAddress());
  }
}

}  // namespace

void find(bool areUsed) noexcept {
  sanitizer = {};
  onValgrind = false;
  findFunction(sanitizer.symbolizePc, "__sanitizer_symbolize_pc");
  if (!areUsed) return;
  findFunction(sanitizer.poison, "__asan_poison_memory_region");
  findFunction(sanitizer.unpoison, "__asan_unpoison_memory_region");
  findFunction(sanitizer.reportAddress, "__asan_get_report_address");
  findFunction(sanitizer.setErrorReportCallback, "__asan_set_error_report_callback");
  if (sanitizer.unpoison == nullptr) sanitizer.poison = nullptr;
#if defined(MEMCHK_VALGRIND)
  onValgrind = RUNNING_ON_VALGRIND != 0;
#endif
}

bool isPresent() noexcept {
  return sanitizer.poison != nullptr || onValgrind;
}

bool showsNames() noexcept {
  return onValgrind;
}

void deny(const void *pBytes, std::size_t length) noexcept {
  if (length == 0) return;
  if (sanitizer.poison != nullptr) sanitizer.poison(pBytes, length);
#if defined(MEMCHK_VALGRIND)
  if (onValgrind) static_cast<void>(VALGRIND_MAKE_MEM_NOACCESS(pBytes, length));
#endif
}

void allow(const void *pBytes, std::size_t length) noexcept {
  if (length == 0) return;
  if (sanitizer.poison != nullptr) sanitizer.unpoison(pBytes, length);
#if defined(MEMCHK_VALGRIND)
  if (onValgrind) static_cast<void>(VALGRIND_MAKE_MEM_DEFINED(pBytes, length));
#endif
}

std::uint32_t name([[maybe_unused]] const void *pBytes, [[maybe_unused]] std::size_t length,
                   [[maybe_unused]] const char *pName) noexcept {
#if defined(MEMCHK_VALGRIND)
  // valgrind numbers blocks from 0; here 0 means no block.
  if (onValgrind) {
    return static_cast<std::uint32_t>(VALGRIND_CREATE_BLOCK(pBytes, length, pName)) + 1;
  }
#endif
  return 0;
}

void unname([[maybe_unused]] std::uint32_t block) noexcept {
#if defined(MEMCHK_VALGRIND)
  if (onValgrind && block != 0) static_cast<void>(VALGRIND_DISCARD(block - 1));
#endif
}

std::string codeLine(const void *pCode) {
  if (sanitizer.symbolizePc == nullptr) return {};
  char text[512] = "";
  // The address is the one after the call, which may belong to another line.
  auto *pCall = reinterpret_cast<char *>(reinterpret_cast<std::uintptr_t>(pCode) - 1);
  sanitizer.symbolizePc(pCall, "%f %s:%l", text, sizeof text);
  return text;
}

void describeErrors(void (*describe)(const void *)) noexcept {
  describeError = describe;
  if (sanitizer.setErrorReportCallback == nullptr) return;
  sanitizer.setErrorReportCallback(describe == nullptr ? nullptr : onSanitizerError);
}

void showStack([[maybe_unused]] const char *pTitle) noexcept {
#if defined(MEMCHK_VALGRIND)
  if (onValgrind) static_cast<void>(VALGRIND_PRINTF_BACKTRACE("%s\n", pTitle));
#endif
}

Leave::Leave() noexcept {
#if defined(MEMCHK_VALGRIND)
  if (onValgrind) VALGRIND_DISABLE_ERROR_REPORTING;
#endif
}

Leave::~Leave() {
#if defined(MEMCHK_VALGRIND)
  if (onValgrind) VALGRIND_ENABLE_ERROR_REPORTING;
#endif
}

}  // namespace memchk::checkers
