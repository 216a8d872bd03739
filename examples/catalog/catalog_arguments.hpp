// The arguments of the command line.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace catalog {

// A block length that every reader accepts: offsets in a block of this length fit 16 signed bits.
inline constexpr std::int32_t kDefaultBlockLength = 32768;

struct Arguments {
  std::string help;                 // with --help: the text to show
  std::filesystem::path catalogue;  // empty: the machine's own, else the sample
  std::filesystem::path chainFile;  // empty: a file in the program's folder
  std::filesystem::path portFile;   // in the folder of the chain file; has no option
  bool reads = false;               // read the chain file and compare, instead of writing it
  std::int32_t blockLength = kDefaultBlockLength;
};

// Throws InputError for an unknown option, a missing or invalid value, or a second catalogue.
Arguments parseArguments(std::vector<std::string> words);

}  // namespace catalog
