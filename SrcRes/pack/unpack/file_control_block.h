// The version and the control block of a packed chain, as its writer stored them in block 0.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/bytes.h"
#include "pack/pack_descriptors.h"

namespace memlib {

// A row of the version table: who wrote the chain.
struct PackVersion {
  unsigned char text[kPackVersionLen];
  bool isOldLayout;       // control block with descriptors of 58 bytes
  std::uint8_t wideSize;  // bytes of the writer's wide characters, 2 or 4
  bool isBigEndian;
};

class FileControlBlock {
 public:
  // Reads the version and finds the control block. Changes nothing.
  Outcome open(MemPackBlock *pFirst) noexcept;

  // REQUIRES for the rest: opened.
  const PackVersion &version() const noexcept {
    MEM_ASSERT(pVersion_ != nullptr);
    return *pVersion_;
  }
  // True when the writer's numbers are in the other byte order than this host's.
  bool isSwapped() const noexcept { return isSwapped_; }
  std::int32_t count() const noexcept { return count_; }  // at least 1
  // Content offset of what follows the control block.
  std::uint32_t endOff() const noexcept { return kHeadLen + layout().controlBlockLen(count_); }

  template <class T>
  T number(const void *pFrom) const noexcept {
    const T value = loadAs<T>(pFrom);
    return isSwapped_ ? byteSwapped(value) : value;
  }

  // A native descriptor of the current layout, with the type in ASCII. Counts that are out of range
  // are kept; their entries count as unused. Unused entries are those of the file, or zero when the
  // file has the old layout. REQUIRES: index < descriptorsPresent(count()).
  MemPackDescriptor descriptor(std::int32_t index) const noexcept;

  // True for the kinds of some EBCDIC writers whose lengths are in fields known only to their
  // owners.
  bool hasForeignLength(const MemPackDescriptor &descriptor) const noexcept;

  // Swaps a current control block of the other byte order in the file itself: the count, and of
  // each used kind the five header fields and the used entries. `native` is its native copy. Call
  // it only once.
  void swap(const PackControlBlock &native) const noexcept;

  // For a kind that is not valid: names its descriptor in the file.
  StepFailure badKind(std::int32_t index) const noexcept { return badDescriptor(at(index)); }

 private:
  static constexpr std::uint32_t kHeadLen = 6;  // used length and version, in content offsets

  Outcome readVersion(const MemPackBlock *pFirst) noexcept;
  const DescriptorLayout &layout() const noexcept {
    return pVersion_->isOldLayout ? kOldLayout : kCurrentLayout;
  }
  std::byte *at(std::int32_t index) const noexcept {
    return pBytes_ + sizeof(std::int16_t) + static_cast<std::size_t>(index) * layout().length;
  }

  const PackVersion *pVersion_ = nullptr;
  bool isSwapped_ = false;
  std::int32_t count_ = 0;
  std::byte *pBytes_ = nullptr;
};

}  // namespace memlib
