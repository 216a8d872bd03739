// The catalogue as a port string: a text file that other programs, and other versions of this one,
// can read.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "catalog_model.hpp"
#include "refhost.hpp"

namespace catalog {

// Writes the records at `root` as a port string file and returns its characters. Throws
// ServiceError and, when the file cannot be written, InputError; a file begun is removed then.
std::uint64_t writePortFile(refhost::Host &host, const PackageRecord *root,
                            const std::filesystem::path &path);

// Records read from a port string file, in a heap of their own. One thread at a time.
class PortRecords {
 public:
  // Throws InputError when the file cannot be read or is no port string of a catalogue.
  PortRecords(refhost::Host &host, const std::filesystem::path &path);
  ~PortRecords();
  PortRecords(const PortRecords &) = delete;
  PortRecords &operator=(const PortRecords &) = delete;

  const PackageRecord *root() const { return root_; }
  std::uint64_t characters() const { return characters_; }

 private:
  refhost::Host &host_;
  HMEMHEAP heap_ = nullptr;
  PackageRecord *root_ = nullptr;
  std::uint64_t characters_ = 0;
};

}  // namespace catalog
