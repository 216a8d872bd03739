#include "pack/unpack/pack_version.h"

#include <cstring>

namespace mem {

namespace {

constexpr PackVersion kVersions[] = {
    {{'0', '1', '0', '0'}, true, 2, false},
    {{'0', '1', '0', '1'}, true, 2, true},
    {{'0', '2', '0', '0'}, false, 2, false},
    {{'0', '2', '0', '1'}, false, 2, true},
    {{'0', '2', '2', '0'}, false, 2, false},
    {{'0', '2', '2', '1'}, false, 2, true},
    {{'0', '2', '4', '0'}, false, 4, false},
    {{'0', '2', '4', '1'}, false, 4, true},
    // EBCDIC "0100", "0200" and "0300": always a big-endian writer.
    {{0xF0, 0xF1, 0xF0, 0xF0}, true, 2, true},
    {{0xF0, 0xF2, 0xF0, 0xF0}, false, 2, true},
    {{0xF0, 0xF3, 0xF0, 0xF0}, false, 2, true},
};

}  // namespace

bool startsLikeVersion(const void *pText) noexcept {
  const unsigned char first = *static_cast<const unsigned char *>(pText);
  return (first >= '0' && first <= '9') || (first >= 0xF0 && first <= 0xF9);
}

std::optional<PackVersion> findVersion(const void *pText) noexcept {
  for (const PackVersion &version : kVersions) {
    if (std::memcmp(version.text, pText, kPackVersionLen) == 0) return version;
  }
  return {};
}

}  // namespace mem
