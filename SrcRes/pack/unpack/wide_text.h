// Conversion of a writer's wide text into this platform's UTF-16.
#pragma once

#include <cstdint>

#include "pack/unpack/chain_reader.h"

namespace mem {

// Turns wide text into native UTF-16, in place. Holds a work area from the first text that needs
// it.
class TextConverter {
 public:
  explicit TextConverter(const PackedChain &chain) noexcept : chain_(chain) {}

  // `pText` holds `length` bytes of the writer's wide text, terminator included; on success it
  // holds native UTF-16 with a terminator.
  Outcome convert(std::byte *pText, std::uint32_t length) noexcept;

 private:
  Outcome narrowUnits(std::byte *pText, std::uint32_t length) noexcept;

  const PackedChain &chain_;
  WorkStorage area_;
};

}  // namespace mem
