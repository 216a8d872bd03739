// Runs a fuzz target over the files of folders, so that seeds and findings are ordinary tests where
// there is no libFuzzer.
//
//   <target> <file or folder>...
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

namespace {

std::size_t replayFile(const std::filesystem::path &path) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size());
  return 1;
}

std::size_t replay(const std::filesystem::path &path) {
  if (!std::filesystem::is_directory(path)) return replayFile(path);
  std::size_t count = 0;
  for (const auto &entry : std::filesystem::directory_iterator(path)) count += replay(entry.path());
  return count;
}

}  // namespace

int main(int argc, char **argv) {
  std::size_t count = 0;
  for (int i = 1; i < argc; ++i) count += replay(argv[i]);
  std::printf("%zu inputs\n", count);
  return count == 0 ? 1 : 0;
}
