// The catalogue's records in files: as a packed chain and as a port string.
//
// A chain file contains the used bytes of the blocks, in chain order. Both files are opened in
// binary form on every platform. Threading: one thread at a time for each object.
#pragma once

#include <cstdint>
#include <filesystem>

#include "catalog_model.hpp"

namespace catalog {

// Writes the chain file. Throws InputError if it cannot be written; an incomplete file is removed.
void writeChainFile(const mem::PackedChain &chain, const std::filesystem::path &path);

// Reads it. Throws InputError if the file cannot be read or is not a chain file, ServiceError if
// there is no storage.
mem::PackedChain readChainFile(const mem::Context &context, const std::filesystem::path &path);

// Unpacks a chain that was read. The records are part of the chain. Throws InputError, with the
// file's name, if the library refuses the chain.
const PackageRecord *unpackRecords(mem::PackedChain &chain, const std::filesystem::path &path);

// Writes the records at `root` as a port string file and returns its characters. Throws
// ServiceError and, if the file cannot be written, InputError; an incomplete file is removed.
std::uint64_t writePortFile(const mem::Context &context, const PackageRecord &root,
                            const std::filesystem::path &path);

// Records read from a port string file, and the heap that contains them.
struct PortRecords {
  mem::Heap heap;
  const PackageRecord *root;
  std::uint64_t characters;
};

// Throws InputError if the file cannot be read or is not a port string of a catalogue.
PortRecords readPortFile(const mem::Context &context, const std::filesystem::path &path);

}  // namespace catalog
