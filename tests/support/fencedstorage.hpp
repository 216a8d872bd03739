// Storage that is cut into pieces with fences between them: poisoned bytes under the address
// sanitizer, elsewhere canaries that are looked at afterwards. Equal requests get equal addresses,
// so that what is stored can be compared from run to run, pointers included.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define MEM_TEST_FENCES 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MEM_TEST_FENCES 1
#endif
#endif
#ifdef MEM_TEST_FENCES
#include <sanitizer/asan_interface.h>
#endif

namespace memtest {

class FencedStorage {
 public:
  static constexpr std::uint8_t kFill = 0xA5;

  explicit FencedStorage(std::size_t capacity) : area_(capacity, kFill) { fence(0, capacity); }
  ~FencedStorage() { open(0, area_.size()); }
  FencedStorage(const FencedStorage &) = delete;
  FencedStorage &operator=(const FencedStorage &) = delete;

  // All pieces go, and are filled as at first.
  void clear() {
    const std::size_t behind = std::min(used_ + kFence, area_.size());
    open(0, behind);
    std::memset(area_.data(), kFill, behind);
    fence(0, behind);
    pieces_.clear();
    used_ = 0;
  }

  // A piece of exactly this length, or null when there is no room.
  std::uint8_t *take(std::size_t length) {
    const std::size_t at = (used_ + kFence + kAlign - 1) / kAlign * kAlign;
    if (at + kFence > area_.size() || length > area_.size() - at - kFence) return nullptr;
    pieces_.push_back({at, length});
    used_ = at + length;
    open(at, length);
    return area_.data() + at;
  }

  std::size_t size() const { return pieces_.size(); }
  std::string piece(std::size_t i) const {
    return {reinterpret_cast<const char *>(area_.data()) + pieces_[i].at, pieces_[i].length};
  }
  // False when anything was written between the pieces.
  bool isWhole() const {
#ifdef MEM_TEST_FENCES
    return true;  // the sanitizer has seen it
#else
    std::size_t from = 0;
    for (const Piece &piece : pieces_) {
      if (!isFence(from, piece.at)) return false;
      from = piece.at + piece.length;
    }
    return isFence(from, std::min(used_ + kFence, area_.size()));
#endif
  }

 private:
  static constexpr std::size_t kFence = 32;
  static constexpr std::size_t kAlign = 16;

  struct Piece {
    std::size_t at;
    std::size_t length;
  };

  bool isFence(std::size_t from, std::size_t to) const {
    return std::all_of(area_.data() + from, area_.data() + to,
                       [](std::uint8_t byte) { return byte == kFill; });
  }
#ifdef MEM_TEST_FENCES
  void fence(std::size_t at, std::size_t length) {
    __asan_poison_memory_region(area_.data() + at, length);
  }
  void open(std::size_t at, std::size_t length) {
    __asan_unpoison_memory_region(area_.data() + at, length);
  }
#else
  void fence(std::size_t, std::size_t) {}
  void open(std::size_t, std::size_t) {}
#endif

  std::vector<std::uint8_t> area_;
  std::vector<Piece> pieces_;
  std::size_t used_ = 0;
};

}  // namespace memtest
