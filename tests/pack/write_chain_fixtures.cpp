// Writes the chains that are kept under tests/fixtures/chains, and from each of them a seed for the
// fuzzer.
//
//   write_chain_fixtures <folder for chains> <folder for seeds>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "chainfixtures.hpp"
#include "chainrun.hpp"

namespace {

void writeFile(const std::filesystem::path &path, const chainwriter::Bytes &bytes) {
  std::ofstream file(path, std::ios::binary);
  file.write(reinterpret_cast<const char *>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
  file.close();
  if (!file) throw std::runtime_error("cannot write " + path.string());
}

void writeAll(const std::filesystem::path &chains, const std::filesystem::path &seeds) {
  std::filesystem::create_directories(chains);
  std::filesystem::create_directories(seeds);
  for (const chainwriter::Fixture &fixture : chainwriter::allFixtures()) {
    const chainwriter::Bytes file = fixture.chain.file();
    const chainwriter::Bytes controlBlock = chainwriter::readersControlBlock(fixture.tree);
    writeFile(chains / (fixture.name + ".chain"), file);
    writeFile(seeds / (fixture.name + ".seed"),
              chainrun::encodeFuzzCase(false, controlBlock, file));
  }
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 3) {
    std::fputs("usage: write_chain_fixtures <folder for chains> <folder for seeds>\n", stderr);
    return 2;
  }
  try {
    writeAll(argv[1], argv[2]);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "write_chain_fixtures: %s\n", error.what());
    return 1;
  }
  return 0;
}
