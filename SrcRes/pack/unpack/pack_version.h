// The version that opens a packed chain: who wrote it.
#pragma once

#include <cstdint>
#include <optional>

namespace mem {

inline constexpr std::uint32_t kPackVersionLen = 4;

struct PackVersion {
  unsigned char text[kPackVersionLen];
  bool isOldLayout;       // control block with descriptors of 58 bytes
  std::uint8_t wideSize;  // bytes of the writer's wide characters, 2 or 4
  bool isBigEndian;
};

// True when the first character is a digit, in ASCII or EBCDIC.
bool startsLikeVersion(const void *pText) noexcept;

// The row of the version table, or nothing for a version that is not in it.
std::optional<PackVersion> findVersion(const void *pText) noexcept;

}  // namespace mem
