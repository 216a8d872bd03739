// Packed chains: making, writing and returning them.
//
// A chain file holds the blocks in chain order, each as its used bytes: from block offset 8 (the
// used length itself) on. It is opened in binary form on every platform.
#pragma once

#include <cstdint>
#include <filesystem>

#include "refhost.hpp"

namespace catalog {

struct ChainSize {
  std::uint64_t blocks = 0;
  std::uint64_t bytes = 0;  // used bytes of all blocks: the length of the chain file
};

// A chain that MEM_Pack made. Its blocks go back to the host when the object dies. One thread at a
// time.
class PackedChain {
 public:
  // Packs the structure at `root`. Throws ServiceError.
  PackedChain(refhost::Host &host, const MemPackCB &packCB, const void *root,
              std::int32_t blockLength);
  ~PackedChain() { release(); }
  PackedChain(const PackedChain &) = delete;
  PackedChain &operator=(const PackedChain &) = delete;

  const MemPackBlock *first() const { return first_; }
  ChainSize size() const;

  // Writes the chain file. Throws InputError when the file cannot be written; a file begun is
  // removed then.
  void write(const std::filesystem::path &path) const;

  // Returns the blocks through MEM_Free. Nothing happens the second time.
  void release();

 private:
  refhost::Host &host_;
  std::int32_t blockLength_;
  MemPackBlock *first_ = nullptr;
};

}  // namespace catalog
