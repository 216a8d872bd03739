// The library compared with what programmers use instead, on the same work, in one process and one
// run. bench/performance.py makes docs/performance.md from the figures.
#include <benchmark/benchmark.h>

#include "peers_tables.hpp"
#include "peers_work.hpp"

static void addAll() {
  benchmark::AddCustomContext("compiler", __VERSION__);
  bench::addFloors();
  bench::addHeaps();
  bench::addCells();
  bench::addHashes();
  bench::addGraphs();
  bench::addTexts();
  bench::addSinks();
  bench::addConcatenation();
}

int main(int argc, char **argv) {
  return bench::runBenchmarks(argc, argv, "peerbench", addAll);
}
