// Pages whose access can be forbidden: addresses that surely fault.
#pragma once

#include <cstddef>
#include <cstdint>

namespace memtest {

class GuardPages {
 public:
  // Writable pages, all zero.
  explicit GuardPages(std::size_t count);
  ~GuardPages();
  GuardPages(const GuardPages &) = delete;
  GuardPages &operator=(const GuardPages &) = delete;

  static std::size_t pageLength();

  // Page `i`; `behind(i)` is the first byte after it.
  std::uint8_t *page(std::size_t i) const { return base_ + i * pageLength(); }
  std::uint8_t *behind(std::size_t i) const { return page(i + 1); }

  // From now on any access to the page faults, or none does. The contents stay.
  void forbid(std::size_t i) { setAccess(i, false); }
  void allow(std::size_t i) { setAccess(i, true); }

 private:
  void setAccess(std::size_t i, bool allowed);

  std::uint8_t *base_;
  std::size_t count_;
};

}  // namespace memtest
