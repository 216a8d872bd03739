// Fuzzes the writer of port strings. The first byte of an input chooses between two worlds; the
// rest makes decisions in it.
//
// Valid:   a right definition table and a graph over it. The text must be the model's, and reading
//          it must give the same graph.
// Hostile: a definition table and structures of arbitrary bytes, with pointers that lead anywhere,
//          all in pages with forbidden ones around them. The call ends with a text or with a
//          failure, at most by way of the host's filter, and leaves nothing allocated.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <string>

#include "binding/entrypoints.h"
#include "fuzzfail.hpp"
#include "guardpages.hpp"
#include "portgraph.hpp"
#include "portmodel.hpp"
#include "refhost.hpp"

namespace {

using memtest::GuardPages;
using memtest::Random;
using memtest::require;
using memtest::stop;

constexpr std::uint16_t kHeapSubPool = 7;

std::string textOf(const MEMPortChunk *chunk) {
  std::string text;
  for (; chunk != nullptr; chunk = chunk->pNext) {
    text.append(reinterpret_cast<const char *>(chunk) + offsetof(MEMPortChunk, Text),
                static_cast<std::size_t>(chunk->Used));
  }
  return text;
}

// A caller's heap that goes with its scope, and the account that has to be as before then.
class Scope {
 public:
  explicit Scope(refhost::Host &host) : host_(host), mem_(host.vector()), before_(live()) {
    require(mem_.MEM_HeapOpen(&heap_, 4, kHeapSubPool) == 0, "no heap");
  }
  ~Scope() {
    host_.disarm();
    require(mem_.MEM_HeapClose(heap_) == 0, "the heap is damaged");
    require(live() == before_, "storage is left");
    require(host_.takeMisuses().empty(), "a host service was misused");
    host_.takeRecords();
  }
  Scope(const Scope &) = delete;
  Scope &operator=(const Scope &) = delete;

  HMEMHEAP heap() const { return heap_; }

 private:
  std::uint64_t live() const { return host_.account().liveBytes; }

  refhost::Host &host_;
  MEMFunctionVector &mem_;
  const std::uint64_t before_;
  HMEMHEAP heap_ = nullptr;
};

void runSound(refhost::Host &host, std::span<const std::uint8_t> choices, std::int32_t chunkLen) {
  const memtest::PortGraph graph{Random(choices)};
  const std::string expected = portmodel::write(graph.defs(), graph.rootID(), graph.root());
  const Scope scope(host);
  MEMFunctionVector &mem = host.vector();
  std::uint32_t total = 0;
  MEMPortChunk *first = nullptr;
  require(mem.MEM_StructToPortStr(graph.defs(), graph.rootID(), graph.root(), chunkLen,
                                  scope.heap(), &total, &first) == 0,
          "a valid graph is not written");
  if (textOf(first) != expected) stop("wrote " + textOf(first) + "\nnot " + expected);
  require(total == expected.size(), "wrong total length");
  void *read = nullptr;
  require(mem.MEM_PortStrToStruct(graph.defs(), first, scope.heap(), &read) == 0,
          "a written text is not read");
  const std::string difference =
      portmodel::difference(graph.defs(), graph.rootID(), graph.root(), read);
  if (!difference.empty()) stop("the copy differs: " + difference);
}

// Definitions in one page, structures in others; forbidden pages after each.
class HostileWorld {
 public:
  HostileWorld() : definitions_(2), structures_(kGuards + kPages + kGuards) {
    definitions_.forbid(1);
    for (std::size_t i = 0; i < kGuards; ++i) {
      structures_.forbid(i);
      structures_.forbid(kGuards + kPages + i);
    }
  }

  void make(Random &random) {
    std::memset(definitions_.page(0), 0, GuardPages::pageLength());
    std::memset(structures(), 0, kPages * GuardPages::pageLength());
    const std::size_t rows = random.between(1, kMostRows);
    for (std::size_t i = 0; i < rows; ++i) makeRow(random, i);
    row(rows).StructID = 0;
    makeStructures(random);
  }

  const MEMStructDef *defs() const { return &row(0); }
  const void *root(Random &random) const { return anyPlace(random); }

 private:
  static constexpr std::size_t kPages = 2;
  // Around the structures nothing may be read. What is a field's own storage is the definition's to
  // say, so offsets stay small enough to lead nowhere else: embedded structures add theirs up.
  static constexpr std::size_t kGuards = 1024;
  static_assert(kGuards * 4096 > (MEM_PORT_MAX_NESTING + 2) * std::size_t{0x8000});
  static constexpr std::size_t kMostRows = 4;
  static constexpr std::size_t kMostFields = 6;

  // The rows are at the end of their page, so that a missing end is met at once.
  MEMStructDef &row(std::size_t i) const {
    auto *end = reinterpret_cast<MEMStructDef *>(definitions_.behind(0));
    return (end - (kMostRows + 1))[i];
  }
  MEMFieldDef *fieldsOf(std::size_t i) const {
    return reinterpret_cast<MEMFieldDef *>(definitions_.page(0)) + i * kMostFields;
  }

  std::uint8_t *structures() const { return structures_.page(kGuards); }
  std::uint8_t *behindStructures() const { return structures_.page(kGuards + kPages); }

  static std::int32_t anyShort(Random &random) {
    return random.oneIn(4) ? static_cast<std::int16_t>(random.bits())
                           : static_cast<std::int32_t>(random.below(64));
  }

  static std::int32_t anyNumber(Random &random) {
    switch (random.below(4)) {
      case 0:
        return static_cast<std::int32_t>(random.bits());
      case 1:
        return static_cast<std::int16_t>(random.bits());
      default:
        return static_cast<std::int32_t>(random.below(40));
    }
  }

  // An index of a field in the page of the definitions, or in the forbidden one after it. Further
  // away is storage of others, and of a sanitizer's own.
  static std::int32_t anyCountField(Random &random, std::size_t row) {
    constexpr std::size_t kInPages = 150;
    const auto index = static_cast<std::uint32_t>(anyNumber(random)) % kInPages;
    return static_cast<std::int32_t>(index) - static_cast<std::int32_t>(row * kMostFields);
  }

  void makeRow(Random &random, std::size_t i) {
    const std::size_t fields = random.below(kMostFields + 1);
    MEMStructDef &made = row(i);
    made.StructID = static_cast<std::uint32_t>(i + 1);
    made.Length = anyNumber(random);
    made.CountField = random.oneIn(2) ? MEM_PORT_NO_COUNT : anyCountField(random, i);
    made.FieldCount = random.oneIn(8) ? anyNumber(random) : static_cast<std::int32_t>(fields);
    made.Fields = fieldsOf(i);
    made.CountIsLength = static_cast<std::uint8_t>(random.below(2));
    for (std::size_t k = 0; k < fields; ++k) makeField(random, fieldsOf(i)[k]);
  }

  static void makeField(Random &random, MEMFieldDef &made) {
    made.FieldID = static_cast<std::uint32_t>(random.below(30));
    made.Type = static_cast<std::uint8_t>(random.oneIn(10) ? random.bits() : random.below(18));
    made.Length = anyShort(random);
    made.Offset = anyShort(random);
    made.SubStructID = static_cast<std::uint32_t>(random.below(kMostRows + 2));
    made.NotPorted = static_cast<std::uint8_t>(random.oneIn(8));
  }

  void makeStructures(Random &random) {
    std::uint8_t *bytes = structures();
    const std::size_t length = random.below(256);
    for (std::size_t i = 0; i < length; ++i) {
      bytes[random.below(kPages * GuardPages::pageLength())] =
          static_cast<std::uint8_t>(random.bits());
    }
    const std::size_t pointers = random.below(40);
    for (std::size_t i = 0; i < pointers; ++i) {
      const void *target = random.oneIn(8) ? wildAddress(random) : anyPlace(random);
      // Aligned, so that no two of them make a third that leads to somebody else's storage.
      std::memcpy(structures() + random.below(kPages * GuardPages::pageLength() / 8) * 8, &target,
                  sizeof target);
    }
  }

  const std::uint8_t *anyPlace(Random &random) const {
    const std::size_t step = random.oneIn(4) ? 1 : 8;
    return structures() + random.below(64) * step + random.below(kPages) * GuardPages::pageLength();
  }

  // The lowest and highest pages are nobody's, and so is what follows the structures.
  const void *wildAddress(Random &random) const {
    const std::uint64_t offset = random.below(4096);
    switch (random.below(3)) {
      case 0:
        return reinterpret_cast<const void *>(static_cast<std::uintptr_t>(offset));
      case 1:
        return reinterpret_cast<const void *>(~static_cast<std::uintptr_t>(offset));
      default:
        return behindStructures() + offset;
    }
  }

  GuardPages definitions_;
  GuardPages structures_;
};

void runHostile(refhost::Host &host, std::span<const std::uint8_t> choices, std::int32_t chunkLen) {
  static HostileWorld world;
  Random random(choices);
  world.make(random);
  const Scope scope(host);
  // A repeat count may ask for more text than there is storage.
  refhost::Fault noMore;
  noMore.service = refhost::Service::GetStorage;
  noMore.nth = 64;
  noMore.andAllLater = true;
  host.arm(noMore);
  std::uint32_t total = 0;
  MEMPortChunk *first = nullptr;
  const std::int16_t result = host.vector().MEM_StructToPortStr(
      world.defs(), static_cast<std::uint32_t>(random.between(1, 5)), world.root(random), chunkLen,
      scope.heap(), &total, &first);
  if (result == 0) require(textOf(first).size() == total, "wrong total length");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  static refhost::Session session(ENV_FWV_V00M00_GFunc);
  if (size < 2) return 0;
  constexpr std::int32_t kChunkLens[] = {0, 23, 24, 100, 1000, 22, -1, 30000};
  const std::int32_t chunkLen = kChunkLens[data[0] >> 1 & 7];
  const std::span<const std::uint8_t> choices(data + 1, size - 1);
  if ((data[0] & 1) == 0) {
    runSound(session.host(), choices, chunkLen < 23 ? 0 : chunkLen);
  } else {
    runHostile(session.host(), choices, chunkLen);
  }
  return 0;
}
