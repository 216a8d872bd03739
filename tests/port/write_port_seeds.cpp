// Writes valid port strings into a folder, in the form of the fuzzer's inputs.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "portmutants.hpp"

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: write_port_seeds <folder>\n");
    return 2;
  }
  constexpr std::uint64_t kSeed = 44;
  constexpr std::size_t kCount = 16;
  constexpr char kChunkLengths[] = {0, 0, 23, 100};
  std::size_t number = 0;
  for (const std::string &text : memtest::soundTexts(kSeed, kCount)) {
    const auto path = std::filesystem::path(argv[1]) / ("text" + std::to_string(number) + ".seed");
    std::ofstream file(path, std::ios::binary);
    file << kChunkLengths[number++ % 4] << text;
    if (!file.flush()) {
      std::fprintf(stderr, "write_port_seeds: %s cannot be written\n", path.string().c_str());
      return 2;
    }
  }
  return 0;
}
