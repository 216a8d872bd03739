// The tables of the comparison. Each function registers the benchmarks of one.
#pragma once

namespace bench {

void addFloors();
void addHeaps();
void addCells();
void addHashes();
void addGraphs();
void addTexts();
void addSinks();
void addConcatenation();

}  // namespace bench
