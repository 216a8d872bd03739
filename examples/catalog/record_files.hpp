// The catalogue's records in files: as a packed chain and as a port string.
//
// A chain file holds the blocks in chain order, each as its used bytes. Both files are opened in
// binary form on every platform. Threading: one thread at a time for each object.
#pragma once

#include <cstdint>
#include <filesystem>

#include "catalog_model.hpp"

namespace catalog {

// Writes the chain file. Throws InputError when it cannot be written; a file begun is removed then.
void writeChainFile(const mem::PackedChain &chain, const std::filesystem::path &path);

// Reads it. Throws InputError when the file cannot be read or is no chain file, ServiceError when
// there is no storage.
mem::PackedChain readChainFile(const mem::Context &context, const std::filesystem::path &path);

// Turns a chain that was read into records, which live in it. Throws InputError, with the file's
// name, when the library refuses the chain.
const PackageRecord *unpackRecords(mem::PackedChain &chain, const std::filesystem::path &path);

// Writes the records at `root` as a port string file and returns its characters. Throws
// ServiceError and, when the file cannot be written, InputError; a file begun is removed then.
std::uint64_t writePortFile(const mem::Context &context, const PackageRecord &root,
                            const std::filesystem::path &path);

// Records read from a port string file, and the heap that holds them.
struct PortRecords {
  mem::Heap heap;
  const PackageRecord *root;
  std::uint64_t characters;
};

// Throws InputError when the file cannot be read or is no port string of a catalogue.
PortRecords readPortFile(const mem::Context &context, const std::filesystem::path &path);

}  // namespace catalog
