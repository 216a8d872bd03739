// Packed chains: making, writing, reading and returning them.
//
// A chain file holds the blocks in chain order, each as its used bytes: from block offset 8 (the
// used length itself) on. It is opened in binary form on every platform.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

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

// A chain read from a file, in blocks of this program's, and what MEM_Unpack makes of it.
// Everything goes back to the host when the object dies. One thread at a time.
class LoadedChain {
 public:
  // Reads the file. Throws InputError when it cannot be read or is no chain file, ServiceError when
  // there is no storage.
  LoadedChain(refhost::Host &host, const std::filesystem::path &path);
  ~LoadedChain() { release(); }
  LoadedChain(const LoadedChain &) = delete;
  LoadedChain &operator=(const LoadedChain &) = delete;

  const ChainSize &size() const { return size_; }

  // Turns the chain into structures and returns the root, which lives as long as this object.
  // Throws InputError when the library refuses the chain. Once only.
  const void *unpack(const MemPackCB &packCB);

  // Returns all blocks. Nothing happens the second time.
  void release();

 private:
  struct Block {
    MemPackBlock *block;
    std::uint32_t length;
  };
  void load(const std::string &bytes);

  refhost::Host &host_;
  std::string name_;           // of the file, for messages
  std::vector<Block> blocks_;  // as read, linked in order
  MemPackBlock *made_ =
      nullptr;  // chain that MEM_Unpack made for a writer of another pointer width
  ChainSize size_;
};

}  // namespace catalog
