// Runs a fuzz target over the files of folders and over mutants of them, so that seeds and findings
// are ordinary tests where there is no libFuzzer, and with every compiler.
//
//   <target> [--mutants=<count>] [--first=<number>] <file or folder>...
//
// Mutants have numbers, from 1 or `--first` on, and are the same in every run over the same files.
// When one of them ends the program, its number, its bytes and the command that repeats it alone
// are shown.
#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "mutator.hpp"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define REPLAY_IS_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define REPLAY_IS_SANITIZED 1
#endif
#endif
#ifdef REPLAY_IS_SANITIZED
#include <sanitizer/common_interface_defs.h>
#endif

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

namespace {

using memtest::FuzzInput;

// What is being run, for the report of its end.
struct Running {
  const char *program = "";
  std::string arguments;     // the files and folders
  std::string file;          // an input that is run as it is
  std::uint64_t number = 0;  // of a mutant, 0 for none
  const FuzzInput *pInput = nullptr;
} running;

void showInput() {
  if (running.pInput == nullptr) return;
  if (running.number == 0) {
    std::fprintf(stderr, "\nthis was the input %s\n", running.file.c_str());
  } else {
    const auto number = static_cast<unsigned long long>(running.number);
    std::fprintf(stderr,
                 "\nthis was mutant %llu; it is run alone by\n  %s --first=%llu --mutants=1%s\n",
                 number, running.program, number, running.arguments.c_str());
  }
  std::fprintf(stderr, "its %zu bytes:", running.pInput->size());
  for (std::size_t i = 0; i < running.pInput->size(); ++i) {
    std::fprintf(stderr, "%s%02X", i % 32 == 0 ? "\n  " : "", (*running.pInput)[i]);
  }
  std::fprintf(stderr, "\n");
  std::fflush(stderr);
  running.pInput = nullptr;
}

void onSignal(int signal) {
  std::signal(signal, SIG_DFL);
  showInput();
  std::raise(signal);
}

// A target's own finding aborts; a sanitizer ends the program in its own way.
void watchForTheEnd() {
  std::signal(SIGABRT, onSignal);
#ifdef REPLAY_IS_SANITIZED
  __sanitizer_set_death_callback(showInput);
#else
  for (const int signal : {SIGSEGV, SIGFPE, SIGILL}) std::signal(signal, onSignal);
#endif
}

void run(const FuzzInput &input) {
  running.pInput = &input;
  LLVMFuzzerTestOneInput(input.data(), input.size());
  running.pInput = nullptr;
}

// In the order of their names, so that mutants are the same everywhere.
std::vector<std::filesystem::path> filesOf(const std::filesystem::path &path) {
  if (!std::filesystem::is_directory(path)) return {path};
  std::vector<std::filesystem::path> files;
  for (const auto &entry : std::filesystem::directory_iterator(path)) {
    const std::vector<std::filesystem::path> inside = filesOf(entry.path());
    files.insert(files.end(), inside.begin(), inside.end());
  }
  std::sort(files.begin(), files.end());
  return files;
}

FuzzInput bytesOf(const std::filesystem::path &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The number of an argument "--name=number". False for any other argument.
bool takeNumber(const char *argument, std::string_view name, std::uint64_t &number) {
  const std::string_view text(argument);
  if (text.compare(0, name.size(), name) != 0) return false;
  number = std::strtoull(argument + name.size(), nullptr, 10);
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  std::uint64_t mutants = 0;
  std::uint64_t first = 1;
  std::vector<FuzzInput> inputs;
  running.program = argv[0];
  watchForTheEnd();
  for (int i = 1; i < argc; ++i) {
    if (takeNumber(argv[i], "--mutants=", mutants) || takeNumber(argv[i], "--first=", first))
      continue;
    running.arguments += " " + std::string(argv[i]);
    for (const std::filesystem::path &path : filesOf(argv[i])) {
      inputs.push_back(bytesOf(path));
      running.file = path.string();
      run(inputs.back());
    }
  }
  if (inputs.empty()) {
    std::fprintf(stderr, "%s: no inputs\n", argv[0]);
    return 1;
  }
  const memtest::Mutator mutator(inputs);
  for (std::uint64_t number = first; number < first + mutants; ++number) {
    running.number = number;
    run(mutator.mutant(number));
  }
  std::printf("%zu inputs and %llu mutants\n", inputs.size(),
              static_cast<unsigned long long>(mutants));
  return 0;
}
