// The library beside what programmers use instead, on the same work, in one process and one run.
// bench/performance.py makes docs/performance.md of the figures.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdio>

#include "peers_tables.hpp"
#include "peers_work.hpp"

namespace {

// The C library would give large blocks back to the system with every free, and take them again as
// pages of zeros. That would be most of what some peers cost, so for all of them memory stays.
void keepMemory() {
  mallopt(M_MMAP_THRESHOLD, 1 << 30);
  mallopt(M_TRIM_THRESHOLD, -1);
}

}  // namespace

int main(int argc, char **argv) {
  keepMemory();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::AddCustomContext("compiler", __VERSION__);
  bench::addFloors();
  bench::addHeaps();
  bench::addCells();
  bench::addHashes();
  bench::addGraphs();
  bench::addTexts();
  bench::addSinks();
  bench::addConcatenation();
  benchmark::RunSpecifiedBenchmarks();
  if (bench::everyCheckPassed()) return 0;
  std::fprintf(stderr, "peerbench: some work is not done as it should be; see its message\n");
  return 1;
}
