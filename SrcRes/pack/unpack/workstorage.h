// Storage for the time of one call: allocated through the vector from subpool 0 and freed on every
// path. It is freed before a failure is recorded, because nested calls clear the error area.
#pragma once

#include <cstdint>
#include <cstring>

#include "frame/hostaccess.h"
#include "platform/check.h"

namespace memlib {

class WorkStorage {
 public:
  WorkStorage() noexcept = default;
  ~WorkStorage() noexcept {
    if (pArea_ != nullptr) functionVector().MEM_Free(pArea_, size_, 0);
  }
  WorkStorage(const WorkStorage &) = delete;
  WorkStorage &operator=(const WorkStorage &) = delete;

  // Allocates `size` zero bytes. False when there is no storage. REQUIRES: nothing is allocated
  // yet.
  bool obtain(std::uint32_t size) noexcept {
    if (!obtainUnset(size)) return false;
    std::memset(pArea_, 0, size);
    return true;
  }

  // The same without clearing the bytes.
  bool obtainUnset(std::uint32_t size) noexcept {
    MEM_ASSERT(!exists());
    pArea_ = functionVector().MEM_Alloc(size, 0);
    size_ = size;
    return pArea_ != nullptr;
  }

  template <class T>
  T *as(std::size_t offset = 0) const noexcept {
    return reinterpret_cast<T *>(static_cast<unsigned char *>(pArea_) + offset);
  }
  bool exists() const noexcept { return pArea_ != nullptr; }

 private:
  void *pArea_ = nullptr;
  std::uint32_t size_ = 0;
};

}  // namespace memlib
