#include "guardpages.hpp"

#if defined(_WIN32)
#include <windows.h>
#else
#include <sys/mman.h>
#include <unistd.h>
#endif

#include <stdexcept>

namespace memtest {

namespace {

void require(bool isDone) {
  if (!isDone) throw std::runtime_error("the system refuses guard pages");
}

}  // namespace

#if defined(_WIN32)

GuardPages::GuardPages(std::size_t count)
    : base_(static_cast<std::uint8_t *>(
          VirtualAlloc(nullptr, count * pageLength(), MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE))),
      count_(count) {
  require(base_ != nullptr);
}

GuardPages::~GuardPages() {
  VirtualFree(base_, 0, MEM_RELEASE);
}

std::size_t GuardPages::pageLength() {
  SYSTEM_INFO info;
  GetSystemInfo(&info);
  return info.dwPageSize;
}

void GuardPages::setAccess(std::size_t i, bool allowed) {
  DWORD before = 0;
  require(VirtualProtect(page(i), pageLength(), allowed ? PAGE_READWRITE : PAGE_NOACCESS,
                         &before) != 0);
}

#else

GuardPages::GuardPages(std::size_t count) : base_(nullptr), count_(count) {
  void *pages = mmap(nullptr, count * pageLength(), PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  require(pages != MAP_FAILED);
  base_ = static_cast<std::uint8_t *>(pages);
}

GuardPages::~GuardPages() {
  munmap(base_, count_ * pageLength());
}

std::size_t GuardPages::pageLength() {
  return static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

void GuardPages::setAccess(std::size_t i, bool allowed) {
  require(mprotect(page(i), pageLength(), allowed ? PROT_READ | PROT_WRITE : PROT_NONE) == 0);
}

#endif

}  // namespace memtest
