// What the user asks for on the command line.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace catalog {

// A block length that every reader takes: offsets in a block of this length fit 16 signed bits.
inline constexpr std::int32_t kDefaultBlockLength = 32768;

struct Arguments {
  std::string help;                 // what --help shows, where that was asked for
  std::filesystem::path catalogue;  // empty: the machine's own, else the sample
  std::filesystem::path chainFile;  // empty: a file beside the program
  std::filesystem::path portFile;   // beside the chain file; not the user's to name
  bool reads = false;               // read the chain file and compare, instead of writing it
  std::int32_t blockLength = kDefaultBlockLength;
};

// Throws InputError for an unknown option, a missing or wrong value, or a second catalogue.
Arguments parseArguments(std::vector<std::string> words);

}  // namespace catalog
