// The library compared with what programmers use instead, on the same work, in one process and one
// run. bench/performance.py makes docs/performance.md from the figures.
#include <benchmark/benchmark.h>

#include <cstdio>

#include "peers_tables.hpp"
#include "peers_work.hpp"

int main(int argc, char **argv) {
  bench::keepMemory();
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
