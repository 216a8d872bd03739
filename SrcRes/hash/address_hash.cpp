#include "hash/address_hash.h"

#include "base/bytes.h"
#include "frame/hostaccess.h"

namespace mem {

std::int16_t MEM_PackHashFunc(const void *pKey) noexcept {
  const std::size_t lowestByte = platformIsBigEndian() ? 3 : 0;
  return static_cast<std::int16_t>(loadAs<std::uint8_t>(bytesAt(pKey, lowestByte)) >> 1);
}

std::int16_t MEM_PortHash(const void *pKey) noexcept {
  constexpr std::uint64_t kModulus = 1999;
  const auto address = loadAs<std::uint64_t>(pKey);
  const std::uint64_t hashed = address % 8 == 0 ? address / 8 : address;
  return static_cast<std::int16_t>(hashed % kModulus);
}

}  // namespace mem
