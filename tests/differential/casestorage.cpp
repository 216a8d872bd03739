#include "casestorage.hpp"

#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

// The linker leads the host's calls of these here (see CMakeLists.txt).
extern "C" {
void __real_free(void *area);
void *__real_mmap(void *address, std::size_t length, int access, int flags, int file, off_t offset);
int __real_munmap(void *address, std::size_t length);
void *__wrap_calloc(std::size_t count, std::size_t length);
void __wrap_free(void *area);
void *__wrap_mmap(void *address, std::size_t length, int access, int flags, int file, off_t offset);
int __wrap_munmap(void *address, std::size_t length);
}

namespace replay {

namespace {

// The ranges differ in the low halves of their addresses, which is all that %lX shows of them.
constexpr std::uintptr_t kCallersStart = 0x210010000000;
constexpr std::size_t kCallersLen = 0x20000000;
constexpr std::uintptr_t kHostsStart = 0x220040000000;
constexpr std::size_t kHostsLen = 0x30000000;
constexpr std::uintptr_t kStackStart = 0x23007E000000;
constexpr std::size_t kStackLen = 0x800000;

constexpr std::size_t kAlign = 16;
constexpr std::size_t kMostOfHost =
    1 << 24;  // bytes at once: wild lengths must not cost a run's time
constexpr std::size_t kPage = 4096;
constexpr std::uint8_t kFresh =
    0xCB;  // in storage of `new`, so that no run depends on earlier ones

// Allocates from one range, from its start on; nothing is used again before the next start.
class Range {
 public:
  constexpr Range(std::uintptr_t start, std::size_t length) : start_(start), length_(length) {}

  void reserve(int flags) const {
    void *const wanted = reinterpret_cast<void *>(start_);
    void *const got = __real_mmap(wanted, length_, PROT_READ | PROT_WRITE,
                                  MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE | flags, -1, 0);
    if (got != wanted) throw std::runtime_error("an address range is taken");
  }

  // Null when the range is used up.
  void *take(std::size_t length, std::size_t alignment) {
    const std::size_t from = (used_ + alignment - 1) / alignment * alignment;
    if (from > length_ || length > length_ - from) return nullptr;
    used_ = from + std::max<std::size_t>(length, 1);
    return reinterpret_cast<void *>(start_ + from);
  }

  void keep() { kept_ = used_; }
  void restart() { used_ = kept_; }
  bool holds(std::uint64_t address) const { return address - start_ < length_; }
  bool holds(const void *address) const {
    return holds(std::uint64_t{reinterpret_cast<std::uintptr_t>(address)});
  }
  bool holdsLowHalf(std::uint32_t lowHalf) const {
    return lowHalf - static_cast<std::uint32_t>(start_) < length_;
  }

 private:
  std::uintptr_t start_;
  std::size_t length_;
  std::size_t used_ = 0;
  std::size_t kept_ = 0;
};

constinit Range callers(kCallersStart, kCallersLen);
constinit Range hosts(kHostsStart, kHostsLen);
constinit Range stack(kStackStart, kStackLen);
constinit bool isPlaceFixed = false;

void *hostStorage(std::size_t length, std::size_t alignment) {
  void *const area = length > kMostOfHost ? nullptr : hosts.take(length, alignment);
  return area == nullptr ? nullptr : std::memset(area, 0, length);
}

void *runFunction(void *function) {
  reinterpret_cast<void (*)()>(function)();
  return nullptr;
}

}  // namespace

FixedPlace::FixedPlace() {
  isPlaceFixed = true;
}
FixedPlace::~FixedPlace() {
  isPlaceFixed = false;
}

void reserveRanges() {
  callers.reserve(MAP_NORESERVE);
  hosts.reserve(MAP_NORESERVE);
  stack.reserve(MAP_NORESERVE | MAP_STACK);
}

void keepWhatIsThere() {
  callers.keep();
  hosts.keep();
}

void restart() {
  callers.restart();
  hosts.restart();
}

void *sharedPage() {
  void *const page =
      __real_mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) throw std::runtime_error("no shared page");
  return page;
}

void runOnOwnStack(void (*function)()) {
  pthread_attr_t attributes;
  pthread_t thread;
  pthread_attr_init(&attributes);
  pthread_attr_setstack(&attributes, reinterpret_cast<void *>(kStackStart), kStackLen);
  if (pthread_create(&thread, &attributes, runFunction, reinterpret_cast<void *>(function)) != 0) {
    throw std::runtime_error("no thread on an own stack");
  }
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

bool isOnOwnStack(std::uint64_t address) {
  return stack.holds(address);
}
bool isOnOwnStackByLowHalf(std::uint32_t lowHalf) {
  return stack.holdsLowHalf(lowHalf);
}
bool isFixed(std::uint64_t address) {
  return callers.holds(address) || hosts.holds(address);
}

}  // namespace replay

// The host's storage.

void *__wrap_calloc(std::size_t count, std::size_t length) {
  return replay::hostStorage(count * length, replay::kAlign);
}

void __wrap_free(void *area) {
  if (!replay::hosts.holds(area)) __real_free(area);
}

void *__wrap_mmap(void *, std::size_t length, int, int, int, off_t) {
  void *const pages = replay::hostStorage(length, replay::kPage);
  return pages == nullptr ? MAP_FAILED : pages;
}

// Pages stay mapped for the next ones to use, and can be written again.
int __wrap_munmap(void *address, std::size_t length) {
  if (!replay::hosts.holds(address)) return __real_munmap(address, length);
  return mprotect(address, length, PROT_READ | PROT_WRITE);
}

// Everything of the program's own.

void *operator new(std::size_t length) {
  if (replay::isPlaceFixed) {
    void *const area = replay::callers.take(length, replay::kAlign);
    if (area == nullptr) throw std::bad_alloc();
    return std::memset(area, replay::kFresh, length);
  }
  void *const area = std::malloc(std::max<std::size_t>(length, 1));
  if (area == nullptr) throw std::bad_alloc();
  return area;
}
void *operator new[](std::size_t length) {
  return operator new(length);
}
void operator delete(void *area) noexcept {
  if (!replay::callers.holds(area)) __real_free(area);
}
void operator delete[](void *area) noexcept {
  operator delete(area);
}
void operator delete(void *area, std::size_t) noexcept {
  operator delete(area);
}
void operator delete[](void *area, std::size_t) noexcept {
  operator delete(area);
}
