// Replays cases on one build of the library and writes what it did, for a comparison with another
// build: one line a case with its number and a digest, or with --full all that it did.
//
//   replay_cases --module FILE --kind graphs|texts|mutants|calls [--seed N] [--first N] [--count N]
//                [--cases FILE] [--full] [--old-control-block] --out FILE
//
// --cases names a file with the numbers of the cases to run, one a line. Cases run in a child
// process; one that ends it (a fault, 20 seconds) is reported as such, and a new child goes on.
#include <dlfcn.h>
#include <link.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "cases.hpp"
#include "refhost.hpp"

namespace {

using namespace replay;

struct Kind {
  std::string_view name;
  CaseFunction run;
};

constexpr Kind kKinds[] = {
    {"graphs", graphsCase}, {"texts", textsCase}, {"mutants", mutantsCase}, {"calls", callsCase}};
constexpr unsigned kMostSeconds = 20;  // of a case

struct Arguments {
  std::string module;
  const Kind *kind = nullptr;
  std::uint64_t seed = 1;
  std::vector<std::uint64_t> cases;
  bool isFull = false;
  Settings settings;
  std::string out;
};

// What the function on the other stack works on.
Arguments arguments;
std::FILE *out = nullptr;
MEMBindFn *entry = nullptr;

std::uint64_t numberOf(std::string_view text) {
  std::uint64_t number = 0;
  const auto end = std::from_chars(text.data(), text.data() + text.size(), number).ptr;
  if (text.empty() || end != text.data() + text.size()) {
    throw std::runtime_error("no number: " + std::string(text));
  }
  return number;
}

const Kind *kindOf(std::string_view name) {
  for (const Kind &kind : kKinds) {
    if (kind.name == name) return &kind;
  }
  throw std::runtime_error("no kind of cases: " + std::string(name));
}

std::vector<std::uint64_t> numbersIn(const std::string &path) {
  std::ifstream file(path);
  std::vector<std::uint64_t> numbers;
  for (std::string line; std::getline(file, line);) numbers.push_back(numberOf(line));
  return numbers;
}

Arguments argumentsFrom(const std::vector<std::string> &words) {
  Arguments made;
  std::uint64_t first = 0;
  std::uint64_t count = 1000;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string &word = words[i];
    if (word == "--full") {
      made.isFull = true;
      continue;
    }
    if (word == "--old-control-block") {
      made.settings.oldControlBlock = true;
      continue;
    }
    if (++i == words.size()) throw std::runtime_error("nothing follows " + word);
    if (word == "--module") {
      made.module = words[i];
    } else if (word == "--kind") {
      made.kind = kindOf(words[i]);
    } else if (word == "--seed") {
      made.seed = numberOf(words[i]);
    } else if (word == "--first") {
      first = numberOf(words[i]);
    } else if (word == "--count") {
      count = numberOf(words[i]);
    } else if (word == "--cases") {
      made.cases = numbersIn(words[i]);
      count = 0;
    } else if (word == "--out") {
      made.out = words[i];
    } else {
      throw std::runtime_error("unknown: " + word);
    }
  }
  for (std::uint64_t i = 0; i < count; ++i) made.cases.push_back(first + i);
  if (made.module.empty() || made.kind == nullptr || made.out.empty()) {
    throw std::runtime_error("--module, --kind and --out are needed");
  }
  return made;
}

// All of the module's addresses.
void tellModule(CaseLog &log, const void *inModule) {
  struct Search {
    std::uintptr_t wanted;
    std::uintptr_t start;
    std::uintptr_t end;
  } search{reinterpret_cast<std::uintptr_t>(inModule), 0, 0};
  dl_iterate_phdr(
      [](dl_phdr_info *info, std::size_t, void *parm) {
        auto *at = static_cast<Search *>(parm);
        std::uintptr_t end = info->dlpi_addr;
        for (int i = 0; i < info->dlpi_phnum; ++i) {
          const auto &part = info->dlpi_phdr[i];
          if (part.p_type == PT_LOAD) {
            end = std::max<std::uintptr_t>(end, info->dlpi_addr + part.p_vaddr + part.p_memsz);
          }
        }
        if (at->wanted < info->dlpi_addr || at->wanted >= end) return 0;
        at->start = info->dlpi_addr;
        at->end = end;
        return 1;
      },
      &search);
  if (search.end == 0) throw std::runtime_error("the module is nowhere");
  log.setModule(reinterpret_cast<const void *>(search.start), search.end - search.start);
}

// A host with a started library. Its records are at fixed addresses; the library's own start is
// outside, so that it cannot move what comes later.
class StartedHost {
 public:
  explicit StartedHost(const refhost::Options &options) {
    makeFixed(host_, options);
    {
      const FixedPlace fixed;
      host_->thread();
    }
    host_->bind(entry);
    isStarted_ = mem().MEM_ProcessInit() == 0 && mem().MEM_ThreadAct() == 0;
  }
  ~StartedHost() {
    host_->disarm();
    host_->restoreSlots();
    mem().MEM_ThreadTerm();
    mem().MEM_ProcessTerm();
    host_->unbind(entry);
  }
  StartedHost(const StartedHost &) = delete;
  StartedHost &operator=(const StartedHost &) = delete;

  bool isStarted() const { return isStarted_; }
  refhost::Host &host() { return *host_; }
  MEMFunctionVector &mem() { return host_->vector(); }

 private:
  std::optional<refhost::Host> host_;
  bool isStarted_ = false;
};

void runCase(std::uint64_t number, CaseLog &log) {
  restart();
  log.clear();
  Random random(arguments.seed * 0x9E3779B97F4A7C15U + number);
  refhost::Options options;
  options.dirtyStorage = random.oneIn(2);
  options.dirtyByte = random.oneIn(2) ? std::uint8_t{0xA5} : std::uint8_t{0xFF};
  StartedHost started(options);
  if (started.isStarted()) {
    Watch watch(started.host(), log);
    arguments.kind->run(watch, random, arguments.settings);
    log << started.host().leakReport();
    // What the start took is still there, and is no concern of the case.
  } else {
    log << "the library does not start\n";
  }
}

void writeHead(std::uint64_t number) {
  if (arguments.isFull)
    std::fprintf(out, "== case %llu\n", static_cast<unsigned long long>(number));
}

void writeCase(std::uint64_t number, CaseLog &log) {
  if (arguments.isFull) return log.writeOn();
  std::fprintf(out, "%llu %016llx\n", static_cast<unsigned long long>(number),
               static_cast<unsigned long long>(log.digest()));
  std::fflush(out);
}

void writeEnd(std::uint64_t number, int status) {
  const std::string how = WIFSIGNALED(status)
                              ? "ends with signal " + std::to_string(WTERMSIG(status))
                              : "ends with status " + std::to_string(WEXITSTATUS(status));
  if (!arguments.isFull) std::fprintf(out, "%llu ", static_cast<unsigned long long>(number));
  std::fprintf(out, "%s\n", how.c_str());
  std::fflush(out);
}

// Cases from index `next` on, which is kept up to date.
void runCases(volatile std::uint64_t &next) {
  CaseLog log(arguments.isFull ? out : nullptr);
  tellModule(log, reinterpret_cast<const void *>(entry));
  while (next < arguments.cases.size()) {
    alarm(kMostSeconds);
    const std::uint64_t number = arguments.cases[next];
    writeHead(number);
    runCase(number, log);
    writeCase(number, log);
    next = next + 1;
  }
}

void runAll() {
  auto *const next = static_cast<volatile std::uint64_t *>(sharedPage());
  while (*next < arguments.cases.size()) {
    const pid_t child = fork();
    if (child < 0) std::abort();
    if (child == 0) {
      runCases(*next);
      _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (status == 0) continue;
    writeEnd(arguments.cases[*next], status);
    *next = *next + 1;
  }
}

void prepare() {
  const FixedPlace fixed;
  prepareMutants();
  keepWhatIsThere();
}

int replayCases(int argc, char **argv) {
  arguments = argumentsFrom({argv + 1, argv + argc});
  out = std::fopen(arguments.out.c_str(), "w");
  if (out == nullptr) throw std::runtime_error("cannot write " + arguments.out);
  const refhost::Library library(arguments.module);
  entry = library.bindEntry();
  reserveRanges();
  prepare();
  runOnOwnStack(runAll);
  return std::fclose(out) == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
  try {
    return replayCases(argc, argv);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "replay_cases: %s\n", error.what());
    return 2;
  }
}
