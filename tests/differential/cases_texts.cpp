// Graphs written as port strings and read again: in one piece, in chunks, and by a table that does
// not know the last fields yet.
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "cases.hpp"
#include "portgraph.hpp"

namespace replay {

namespace {

using memtest::PortGraph;

constexpr std::uint16_t kWriting = 20;  // subpools
constexpr std::uint16_t kReading = 21;
constexpr std::uint16_t kWritingAgain = 22;

std::int16_t anyAreaKb(Random &random) {
  constexpr std::int16_t kAreas[] = {1, 2, 4, 4, 16, 63};
  return kAreas[random.below(std::size(kAreas))];
}

std::int32_t anyCapacity(Random &random) {
  constexpr std::int32_t kCapacities[] = {0, 0, 23, 24, 50, 1000, 3000};
  if (random.oneIn(3)) return static_cast<std::int32_t>(random.between(1, 300));
  return kCapacities[random.below(std::size(kCapacities))];
}

// Writes, shows every chunk and returns the whole text; empty after a failure.
std::string writeText(Watch &watch, const MEMStructDef *defs, std::uint32_t structID,
                      const void *root, std::int32_t capacity, const CaseHeap &heap) {
  std::uint32_t length = 0xDEADBEEF;
  MEMPortChunk *first = reinterpret_cast<MEMPortChunk *>(0x123);
  const std::int16_t result = watch.did(
      "MEM_StructToPortStr",
      watch.mem().MEM_StructToPortStr(defs, structID, root, capacity, heap.get(), &length, &first));
  watch.log() << "length " << std::int64_t{length} << " first ";
  watch.log().address(first).end();
  std::string text;
  if (result != 0) return text;
  for (const MEMPortChunk *chunk = first; chunk != nullptr; chunk = chunk->pNext) {
    const auto used = static_cast<std::size_t>(chunk->Used);
    watch.log() << "chunk ";
    watch.log().address(chunk);
    watch.log().bytes("", chunk, offsetof(MEMPortChunk, Text) + used);
    text.append(reinterpret_cast<const char *>(chunk) + offsetof(MEMPortChunk, Text), used);
  }
  watch.log() << "text ";
  watch.log().quoted(text).end();
  return text;
}

// A copy of a table in which some structures lack their last fields.
class OlderTable {
 public:
  OlderTable(const MEMStructDef *defs, Random &random) {
    for (;; ++defs) {
      rows_.push_back(*defs);
      MEMStructDef &row = rows_.back();
      if (static_cast<std::int32_t>(row.StructID) < 1) return;
      if (row.CountField != MEM_PORT_NO_COUNT || row.FieldCount < 2 || random.oneIn(3)) continue;
      row.FieldCount -= static_cast<std::int32_t>(
          random.between(1, static_cast<std::size_t>(row.FieldCount) - 1));
    }
  }
  const MEMStructDef *table() const { return rows_.data(); }

 private:
  std::vector<MEMStructDef> rows_;
};

void read(Watch &watch, Random &random, const MEMStructDef *defs, const PortGraph &graph,
          const std::string &text, std::size_t chunkLen) {
  CaseHeap heap(watch, anyAreaKb(random), kReading);
  int untouched = 0;
  void *root = &untouched;
  const std::int16_t result = readText(watch, defs, text, chunkLen, heap, &root);
  if (result == 0) {
    const CaseHeap other(watch, 4, kWritingAgain);
    writeText(watch, defs, graph.rootID(), root, 0, other);
  }
  heap.show();
}

// A branch and its leaves, as the tables of port strings describe them.
memtest::Defs leavesTable() {
  using memtest::Field;
  constexpr auto kPointer = static_cast<std::int32_t>(sizeof(void *));
  std::vector<Field> fields = {
      Field(1, MEM_PORT_PNT, kPointer, offsetof(Leaves::Branch, next)).of(1)};
  for (std::size_t i = 0; i < Leaves::kOfBranch; ++i) {
    const std::size_t offset = offsetof(Leaves::Branch, leaves) + i * sizeof(void *);
    fields.push_back(Field(static_cast<std::uint32_t>(2 + i), MEM_PORT_PNT, kPointer,
                           static_cast<std::int32_t>(offset))
                         .of(2));
  }
  fields.push_back(Field(99, MEM_PORT_PNT, kPointer, offsetof(Leaves::Branch, seen)).of(2));
  memtest::Defs defs;
  defs.add(1, sizeof(Leaves::Branch), fields);
  defs.add(2, 1, {Field(1, MEM_PORT_BIT, 1, 0)});
  return defs;
}

void writeAndReadLeaves(Watch &watch, Random &random) {
  std::optional<Leaves> leaves;
  makeFixed(leaves, random);
  std::optional<memtest::Defs> defs;
  {
    const FixedPlace fixed;
    defs.emplace(leavesTable());
  }
  if (random.oneIn(6)) watch.host().setTraceFlags(anyTraceFlags(random));
  CaseHeap heap(watch, anyAreaKb(random), kWriting);
  const std::string text =
      writeText(watch, defs->table(), 1, leaves->root(), anyCapacity(random), heap);
  if (text.empty()) return;
  CaseHeap other(watch, 16, kReading);
  void *root = nullptr;
  readText(watch, defs->table(), text, random.below(3000), other, &root);
  heap.show();
  other.show();
}

}  // namespace

void textsCase(Watch &watch, Random &random, const Settings &) {
  if (random.oneIn(300)) return writeAndReadLeaves(watch, random);
  std::optional<PortGraph> graph;
  makeFixed(graph, random.bits());
  std::optional<OlderTable> older;
  makeFixed(older, graph->defs(), random);
  watch.host().setTraceFlags(anyTraceFlags(random));
  const bool isFaulty = random.oneIn(12);
  refhost::Fault fault;
  fault.nth = random.between(1, 10);

  CaseHeap heap(watch, anyAreaKb(random), kWriting);
  if (isFaulty && random.oneIn(2)) watch.host().arm(fault);
  const std::string text =
      writeText(watch, graph->defs(), graph->rootID(), graph->root(), anyCapacity(random), heap);
  if (!text.empty()) {
    if (isFaulty) watch.host().arm(fault);
    read(watch, random, graph->defs(), *graph, text, 0);
    read(watch, random, graph->defs(), *graph, text, random.between(1, 60));
    read(watch, random, graph->defs(), *graph, text, random.between(60, 2000));
    read(watch, random, older->table(), *graph, text, random.below(200));
  }
  watch.host().disarm();
  heap.show();
}

}  // namespace replay
