// An independent model of the packer: what MEM_Pack must answer and, byte for byte, which blocks it
// must make. It favours plain recursion and ordered maps over speed and shares no code with the
// library.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "packstruct.hpp"

namespace packmodel {

using memtest::Bytes;

struct Settings {
  bool oldControlBlock = false;  // the process option
  bool bigEndian = false;        // the platform flag
};

// What a call must leave.
struct Outcome {
  std::int16_t result = 0;
  std::uint32_t code = 0;  // MEMERR code in the error area
  std::string name;        // text in the name field
  // With result 0: every block from its used length (block offset 8) to its end, so that an index
  // is a content offset. What holds no item is zero.
  std::vector<Bytes> blocks;
};

// REQUIRES: a control block and a root, and a storage service that never fails.
Outcome pack(const MemPackCB *controlBlock, const void *root, std::int32_t blockLen,
             Settings settings = {});

}  // namespace packmodel
