// Throughput of port strings, compared with a copy of the same bytes, by the number of structures.
// Read the figures as ratios within one run.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "benchlib.hpp"
#include "qj7mem00/mem.hpp"

namespace {

using bench::library;
using bench::OpenHeap;
using bench::portField;
using bench::require;

// Definition table and structures of one case.
struct Case {
  std::vector<MEMFieldDef> fields;
  std::vector<MEMStructDef> defs;
  std::vector<std::uint64_t> storage;  // the structures, 8-byte aligned
  std::vector<std::string> strings;

  void define(std::int32_t length, std::int32_t countField = MEM_PORT_NO_COUNT) {
    MEMStructDef def{};
    def.StructID = 1;
    def.Length = length;
    def.CountField = countField;
    def.FieldCount = static_cast<std::int32_t>(fields.size());
    def.Fields = fields.data();
    defs = {def, MEMStructDef{}};
  }
};

constexpr std::size_t kElements = 10000;

// One structure with a count, and elements of 8 bytes from offset 8 on.
void makeRepeated(Case &made, MEMFieldType type) {
  made.fields = {portField(1, MEM_PORT_LONG, 4, 0), portField(2, type, 8, 8)};
  made.define(16, 0);
  made.storage.assign(1 + kElements, 0);
  made.storage[0] = kElements;
}

void makeNumbers(Case &made) {
  makeRepeated(made, MEM_PORT_BIGINT);
  std::uint64_t value = 1;
  for (std::size_t i = 1; i <= kElements; ++i) made.storage[i] = value *= 6364136223846793005U;
}

void makeStrings(Case &made) {
  makeRepeated(made, MEM_PORT_PSTR);
  for (std::size_t i = 0; i < 16; ++i) {
    made.strings.push_back(std::string(20 + 5 * i, 'a') + "/" + std::string(20, 'b'));
  }
  for (std::size_t i = 1; i <= kElements; ++i) {
    const char *text = made.strings[i % 16].c_str();
    std::memcpy(&made.storage[i], &text, sizeof text);
  }
}

// A list of `count` structures, each with a number and pointers to the next one and to another.
void makePointers(Case &made, std::size_t count) {
  made.fields = {portField(1, MEM_PORT_LONG, 4, 0), portField(2, MEM_PORT_PNT, 8, 8, 1),
                 portField(3, MEM_PORT_PNT, 8, 16, 1)};
  made.define(24);
  made.storage.assign(3 * count, 0);
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint64_t *next = i + 1 < count ? &made.storage[3 * (i + 1)] : nullptr;
    const std::uint64_t *back = &made.storage[3 * (i / 2)];
    made.storage[3 * i] = i;
    std::memcpy(&made.storage[3 * i + 1], &next, sizeof next);
    std::memcpy(&made.storage[3 * i + 2], &back, sizeof back);
  }
}

struct Written {
  MEMPortChunk *first = nullptr;
  std::uint32_t length = 0;
};

Written write(MEMFunctionVector &mem, const Case &made, HMEMHEAP heap) {
  Written written;
  require(mem.MEM_StructToPortStr(made.defs.data(), 1, made.storage.data(), 0, heap,
                                  &written.length, &written.first),
          "MEM_StructToPortStr");
  return written;
}

std::string textOf(const Written &written) {
  std::string text;
  for (const MEMPortChunk *chunk = written.first; chunk != nullptr; chunk = chunk->pNext) {
    text.append(reinterpret_cast<const char *>(chunk) + offsetof(MEMPortChunk, Text),
                static_cast<std::size_t>(chunk->Used));
  }
  return text;
}

void measureWriting(benchmark::State &state, const Case &made) {
  refhost::Session session(library().bindEntry());
  std::int64_t length = 0;
  for (auto _ : state) {
    const OpenHeap heap(session.vector());
    length = write(session.vector(), made, heap.get()).length;
  }
  state.SetBytesProcessed(state.iterations() * length);
}

void measureReading(benchmark::State &state, const Case &made, bool inChunks) {
  refhost::Session session(library().bindEntry());
  MEMFunctionVector &mem = session.vector();
  const OpenHeap source(mem);
  const Written written = write(mem, made, source.get());
  const std::string text = textOf(written);
  for (auto _ : state) {
    const OpenHeap heap(mem);
    void *root = nullptr;
    require(inChunks ? mem.MEM_PortStrToStruct(made.defs.data(), written.first, heap.get(), &root)
                     : mem.MEM_Port1StrToStruct(made.defs.data(), text.data(), written.length,
                                                heap.get(), &root),
            "reading");
    benchmark::DoNotOptimize(root);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

// The floor: a copy of the text.
void measureCopy(benchmark::State &state, const Case &made) {
  refhost::Session session(library().bindEntry());
  const OpenHeap source(session.vector());
  const std::string text = textOf(write(session.vector(), made, source.get()));
  std::string copy(text.size(), ' ');
  for (auto _ : state) {
    std::memcpy(copy.data(), text.data(), text.size());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

void makePointers1000(Case &made) {
  makePointers(made, 1000);
}

// The same structures by their types, for the C++ header.
struct Numbers {
  std::int32_t count;
  std::int64_t elements[1];
};
struct Strings {
  std::int32_t count;
  char *elements[1];
};
struct Link {
  std::int32_t number;
  Link *pNext;
  Link *pBack;
};
inline constexpr mem::PortTable kNumbers{
    mem::structure<Numbers, 1>(mem::field<1>(MEM_FIELD(Numbers, count)).required(),
                               mem::repeatedField<2, 1>(MEM_FIELD(Numbers, elements)))};
inline constexpr mem::PortTable kStrings{
    mem::structure<Strings, 1>(mem::field<1>(MEM_FIELD(Strings, count)).required(),
                               mem::repeatedField<2, 1>(MEM_FIELD(Strings, elements)))};
inline constexpr mem::PortTable kLinks{
    mem::structure<Link, 1>(mem::field<1>(MEM_FIELD(Link, number)).required(),
                            mem::field<2>(MEM_FIELD(Link, pNext)).required(),
                            mem::field<3>(MEM_FIELD(Link, pBack)).required())};

enum class Trust : bool { none, full };

// One block, read by readPortString, or by the form that does not check the text.
template <class Struct, class Table>
void measureTypedReading(benchmark::State &state, const Case &made, const Table &table,
                         Trust trust) {
  refhost::Session session(library().bindEntry());
  const mem::Context context = mem::contextOf(session.host());
  const OpenHeap source(session.vector());
  const std::string text = textOf(write(session.vector(), made, source.get()));
  for (auto _ : state) {
    mem::Heap heap = mem::Heap::open(context, {.areaKb = 256}).value();
    const mem::Result<Struct *> root =
        trust == Trust::full ? mem::readPortStringUnchecked<Struct>(context, heap, table, text)
                             : mem::readPortString<Struct>(context, heap, table, text);
    require(root.isOk() ? std::int16_t{0} : std::int16_t{-1}, "reading");
    benchmark::DoNotOptimize(root);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

template <void (*kMake)(Case &)>
void Copy(benchmark::State &state) {
  Case made;
  kMake(made);
  measureCopy(state, made);
}
template <void (*kMake)(Case &)>
void Write(benchmark::State &state) {
  Case made;
  kMake(made);
  measureWriting(state, made);
}
template <void (*kMake)(Case &)>
void ReadChunks(benchmark::State &state) {
  Case made;
  kMake(made);
  measureReading(state, made, true);
}
template <void (*kMake)(Case &)>
void ReadBlock(benchmark::State &state) {
  Case made;
  kMake(made);
  measureReading(state, made, false);
}

// MB of text a second, for records of one kind.
#define PORT_BENCHES(make)              \
  BENCHMARK_TEMPLATE(Copy, make);       \
  BENCHMARK_TEMPLATE(Write, make);      \
  BENCHMARK_TEMPLATE(ReadChunks, make); \
  BENCHMARK_TEMPLATE(ReadBlock, make)
PORT_BENCHES(makeNumbers);
PORT_BENCHES(makeStrings);
PORT_BENCHES(makePointers1000);
#undef PORT_BENCHES

// Comparing a text with its table before it is read.
template <void (*kMake)(Case &), class Struct, const auto &kTable, Trust kTrust>
void ReadTyped(benchmark::State &state) {
  Case made;
  kMake(made);
  measureTypedReading<Struct>(state, made, kTable, kTrust);
}
BENCHMARK_TEMPLATE(ReadTyped, makeNumbers, Numbers, kNumbers, Trust::full);
BENCHMARK_TEMPLATE(ReadTyped, makeNumbers, Numbers, kNumbers, Trust::none);
BENCHMARK_TEMPLATE(ReadTyped, makeStrings, Strings, kStrings, Trust::full);
BENCHMARK_TEMPLATE(ReadTyped, makeStrings, Strings, kStrings, Trust::none);
BENCHMARK_TEMPLATE(ReadTyped, makePointers1000, Link, kLinks, Trust::full);
BENCHMARK_TEMPLATE(ReadTyped, makePointers1000, Link, kLinks, Trust::none);

// The cost of a structure by the number of structures. The registry has 1,999 chains.
void WriteGrowing(benchmark::State &state) {
  Case made;
  makePointers(made, static_cast<std::size_t>(state.range(0)));
  measureWriting(state, made);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(WriteGrowing)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void ReadGrowing(benchmark::State &state) {
  Case made;
  makePointers(made, static_cast<std::size_t>(state.range(0)));
  measureReading(state, made, true);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(ReadGrowing)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
