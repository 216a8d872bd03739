// Workloads that only some users have, each compared with similar work that should not be much
// cheaper: wide unions, texts of newer writers under tracing, structures packed densely in storage,
// small catalogues, chains of the other byte order. Only the library, under the bench host.
// bench/performance.py makes the table of workloads in docs/performance.md from the figures.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "benchchain.hpp"
#include "benchlib.hpp"
#include "chainwriter.hpp"
#include "peers_host.hpp"
#include "peers_records.hpp"
#include "peers_work.hpp"

namespace bench {

namespace {

constexpr std::int32_t kBlockLen = 32768;

std::string textOf(const MEMPortChunk *chunk) {
  std::string text;
  for (; chunk != nullptr; chunk = chunk->pNext) {
    text.append(reinterpret_cast<const char *>(chunk) + offsetof(MEMPortChunk, Text),
                static_cast<std::size_t>(chunk->Used));
  }
  return text;
}

// A table of one structure.
class OneStructTable {
 public:
  OneStructTable(std::int32_t length, std::vector<MEMFieldDef> fields)
      : fields_(std::move(fields)) {
    rows_[0].StructID = 1;
    rows_[0].Length = length;
    rows_[0].CountField = MEM_PORT_NO_COUNT;
    rows_[0].FieldCount = static_cast<std::int32_t>(fields_.size());
    rows_[0].Fields = fields_.data();
  }
  const MEMStructDef *get() const { return rows_; }

 private:
  std::vector<MEMFieldDef> fields_;
  MEMStructDef rows_[2] = {};
};

// ---- One structure whose only field has many required alternatives; the text has the last one.

class ReadAlternatives {
 public:
  ReadAlternatives(BenchSession &session, std::uint32_t count)
      : mem_(session.mem()), all_(kLength, alternatives(1, count)) {
    const OneStructTable last(kLength, alternatives(count, count));
    const OpenHeap heap(mem_);
    std::uint32_t length = 0;
    MEMPortChunk *first = nullptr;
    require(mem_.MEM_StructToPortStr(last.get(), 1, &kValue, 0, heap.get(), &length, &first),
            "MEM_StructToPortStr");
    text_ = textOf(first);
  }

  std::int64_t run() {
    constexpr std::int64_t kReads = 100;
    const OpenHeap heap(mem_);
    for (std::int64_t i = 0; i < kReads; ++i) benchmark::DoNotOptimize(read(heap));
    return kReads;
  }
  void check() {
    const OpenHeap heap(mem_);
    demand(std::memcmp(read(heap), &kValue, sizeof kValue) == 0, "the value differs");
  }

 private:
  static constexpr std::int32_t kLength = 4;
  static constexpr std::int32_t kValue = 1234567;

  static std::vector<MEMFieldDef> alternatives(std::uint32_t from, std::uint32_t to) {
    std::vector<MEMFieldDef> fields;
    for (std::uint32_t id = from; id <= to; ++id) {
      fields.push_back(portField(id, MEM_PORT_LONG, kLength, 0));
    }
    return fields;
  }

  const void *read(const OpenHeap &heap) {
    void *root = nullptr;
    require(mem_.MEM_Port1StrToStruct(all_.get(), text_.data(),
                                      static_cast<std::uint32_t>(text_.size()), heap.get(), &root),
            "MEM_Port1StrToStruct");
    return root;
  }

  MEMFunctionVector &mem_;
  const OneStructTable all_;
  std::string text_;
};

// ---- A list of structures of a newer writer, whose last fields the reader does not know. It skips
// them and traces that, for every structure.

class ReadSkipping {
 public:
  ReadSkipping(BenchSession &session, std::size_t count)
      : session_(session), text_(session.mem()), nodes_(count) {
    for (std::size_t i = 0; i < count; ++i) {
      nodes_[i] = {i + 1 < count ? &nodes_[i + 1] : nullptr, "a text that only newer readers know",
                   static_cast<std::int32_t>(i)};
    }
    std::uint32_t length = 0;
    require(session.mem().MEM_StructToPortStr(newer_.get(), 1, nodes_.data(), kChunkLen,
                                              text_.get(), &length, &first_),
            "MEM_StructToPortStr");
    session_.host().setTraceFlags(MEM_TRACE_SKIPPED);
  }
  ~ReadSkipping() { session_.host().setTraceFlags(0); }
  ReadSkipping(const ReadSkipping &) = delete;
  ReadSkipping &operator=(const ReadSkipping &) = delete;

  std::int64_t run() {
    const OpenHeap heap(session_.mem());
    benchmark::DoNotOptimize(read(heap));
    return 1;
  }
  void check() {
    const std::uint64_t before = session_.host().calls(refhost::Service::WriteException);
    const OpenHeap heap(session_.mem());
    const Node *node = read(heap);
    std::size_t found = 0;
    for (; node != nullptr; node = node->next) ++found;
    demand(found == nodes_.size(), "structures are missing");
    demand(session_.host().calls(refhost::Service::WriteException) - before == found,
           "not every skip is traced");
  }

 private:
  static constexpr std::int32_t kChunkLen = 1000;
  struct Node {
    Node *next;
    const char *text;
    std::int32_t number;
  };

  static std::vector<MEMFieldDef> fields(std::size_t count) {
    std::vector<MEMFieldDef> made = {portField(1, MEM_PORT_PNT, 8, offsetof(Node, next), 1),
                                     portField(2, MEM_PORT_LONG, 4, offsetof(Node, number)),
                                     portField(3, MEM_PORT_PSTR, 8, offsetof(Node, text))};
    made.resize(count);
    return made;
  }

  const Node *read(const OpenHeap &heap) {
    void *root = nullptr;
    require(session_.mem().MEM_PortStrToStruct(older_.get(), first_, heap.get(), &root),
            "MEM_PortStrToStruct");
    return static_cast<const Node *>(root);
  }

  BenchSession &session_;
  const OneStructTable newer_{sizeof(Node), fields(3)};
  const OneStructTable older_{sizeof(Node), fields(2)};
  const OpenHeap text_;
  std::vector<Node> nodes_;
  MEMPortChunk *first_ = nullptr;
};

// ---- Leaves of one byte each, at addresses `stride` bytes apart, children of a list of branches.

class Leaves {
 public:
  static constexpr std::size_t kOfBranch = 24;
  struct Branch {
    Branch *next;
    const std::uint8_t *leaves[kOfBranch];
  };

  Leaves(std::size_t count, std::size_t stride)
      : count_(count), storage_(count * stride), branches_((count + kOfBranch - 1) / kOfBranch) {
    for (std::size_t i = 0; i < branches_.size(); ++i) {
      branches_[i].next = i + 1 < branches_.size() ? &branches_[i + 1] : nullptr;
    }
    for (std::size_t i = 0; i < count; ++i) {
      storage_[i * stride] = valueOf(i);
      branches_[i / kOfBranch].leaves[i % kOfBranch] = &storage_[i * stride];
    }
  }

  static std::uint8_t valueOf(std::size_t leaf) { return static_cast<std::uint8_t>(leaf * 7); }
  const Branch *root() const { return branches_.data(); }
  std::size_t count() const { return count_; }
  std::size_t structures() const { return count_ + branches_.size(); }

 private:
  std::size_t count_;
  std::vector<std::uint8_t> storage_;
  std::vector<Branch> branches_;
};

class PackLeaves {
 public:
  PackLeaves(BenchSession &session, std::size_t count, std::size_t stride)
      : mem_(session.mem()), leaves_(count, stride) {
    description_.Count = 2;
    MemPackDescriptor &branch = description_.Descriptors[0];
    branch.Type = MEM_PACK_FIXED;
    branch.FixedLen = sizeof(Leaves::Branch);
    branch.SiblingOff = offsetof(Leaves::Branch, next);
    branch.ChildCount = Leaves::kOfBranch;
    for (std::size_t i = 0; i < Leaves::kOfBranch; ++i) {
      branch.Children[i] = {
          1, static_cast<std::int16_t>(offsetof(Leaves::Branch, leaves) + i * sizeof(void *))};
    }
    description_.Descriptors[1].Type = MEM_PACK_FIXED;
    description_.Descriptors[1].FixedLen = 1;
    description_.Descriptors[1].SiblingOff = MEM_PACK_NO_SIBLING;
  }

  std::int64_t run() {
    returnChain(mem_, pack(), kBlockLen);
    return static_cast<std::int64_t>(leaves_.count());
  }

  // Every leaf is unpacked.
  void check() {
    MemPackBlock *first = pack();
    void *root = nullptr;
    require(mem_.MEM_Unpack(&first, &root, &description_), "MEM_Unpack");
    std::size_t leaf = 0;
    for (const auto *at = static_cast<const Leaves::Branch *>(root); at != nullptr;) {
      const Leaves::Branch branch = recordAt(at);
      for (const std::uint8_t *value : branch.leaves) {
        if (value == nullptr) continue;
        demand(*value == Leaves::valueOf(leaf), "a leaf differs");
        ++leaf;
      }
      at = branch.next;
    }
    demand(leaf == leaves_.count(), "leaves are missing");
    returnChain(mem_, first, kBlockLen);
  }

 private:
  MemPackBlock *pack() {
    MemPackBlock *first = nullptr;
    require(mem_.MEM_Pack(&description_, leaves_.root(), kBlockLen, &first), "MEM_Pack");
    return first;
  }

  MEMFunctionVector &mem_;
  Leaves leaves_;
  MemPackCB description_{};
};

class WriteLeaves {
 public:
  WriteLeaves(BenchSession &session, std::size_t count, std::size_t stride)
      : mem_(session.mem()), leaves_(count, stride) {
    branchFields_.push_back(
        portField(1, MEM_PORT_PNT, sizeof(void *), offsetof(Leaves::Branch, next), 1));
    for (std::size_t i = 0; i < Leaves::kOfBranch; ++i) {
      branchFields_.push_back(portField(static_cast<std::uint32_t>(2 + i), MEM_PORT_PNT,
                                        sizeof(void *),
                                        offsetof(Leaves::Branch, leaves) + i * sizeof(void *), 2));
    }
    table_[0].StructID = 1;
    table_[0].Length = sizeof(Leaves::Branch);
    table_[0].CountField = MEM_PORT_NO_COUNT;
    table_[0].FieldCount = static_cast<std::int32_t>(branchFields_.size());
    table_[0].Fields = branchFields_.data();
    table_[1] = portStruct(2, 1, leafFields_);
  }

  std::int64_t run() {
    const OpenHeap heap(mem_);
    benchmark::DoNotOptimize(write(heap));
    return static_cast<std::int64_t>(leaves_.count());
  }

  // The header contains the number of structures.
  void check() {
    constexpr std::size_t kNumberAt = 12;
    constexpr std::size_t kDigits = 10;
    const OpenHeap heap(mem_);
    const std::string number = textOf(write(heap)).substr(kNumberAt, kDigits);
    demand(std::stoul(number) == leaves_.structures(), "structures are missing");
  }

 private:
  const MEMPortChunk *write(const OpenHeap &heap) {
    std::uint32_t length = 0;
    MEMPortChunk *first = nullptr;
    require(mem_.MEM_StructToPortStr(table_, 1, leaves_.root(), 0, heap.get(), &length, &first),
            "MEM_StructToPortStr");
    return first;
  }

  MEMFunctionVector &mem_;
  Leaves leaves_;
  std::vector<MEMFieldDef> branchFields_;
  const MEMFieldDef leafFields_[1] = {portField(1, MEM_PORT_BIT, 1, 0)};
  MEMStructDef table_[3] = {};
};

// ---- Small catalogues.

class PackCatalogue {
 public:
  PackCatalogue(BenchSession &session, std::size_t packages)
      : mem_(session.mem()), graph_(Graph::ofPackages(packages)) {}

  std::int64_t run() {
    returnChain(mem_, pack(), kBlockLen);
    return static_cast<std::int64_t>(graph_.count());
  }

  void check() {
    Digest expected;
    visitRecords(graph_.root(), expected);
    MemPackBlock *first = pack();
    void *root = nullptr;
    require(mem_.MEM_Unpack(&first, &root, &description_), "MEM_Unpack");
    Digest digest;
    visitRecords(static_cast<const PackageRecord *>(root), digest);
    returnChain(mem_, first, kBlockLen);
    demand(digest.result() == expected.result(), "the catalogue differs");
  }

 private:
  MemPackBlock *pack() {
    MemPackBlock *first = nullptr;
    require(mem_.MEM_Pack(&description_, graph_.root(), kBlockLen, &first), "MEM_Pack");
    return first;
  }

  MEMFunctionVector &mem_;
  const Graph &graph_;
  const MemPackCB description_ = packDescription();
};

// ---- A text of 16,000 units, appended in pieces; slot 28 finds the length of a piece itself.

enum class Length { told, found };

template <Length kLength>
class Append {
 public:
  Append(BenchSession &session, std::size_t units) : mem_(session.mem()), piece_(units, u'x') {}

  std::int64_t run() {
    const std::size_t count = kUnits / piece_.size();
    MEMCatCB buffer{};
    require(mem_.MEM_CatOpen(&buffer), "MEM_CatOpen");
    for (std::size_t i = 0; i < count; ++i) append(buffer);
    demand(buffer.Len == kUnits, "the text has another length");
    require(mem_.MEM_CatClose(&buffer), "MEM_CatClose");
    return static_cast<std::int64_t>(count);
  }

 private:
  static constexpr std::size_t kUnits = 16000;

  void append(MEMCatCB &buffer) {
    if constexpr (kLength == Length::told) {
      mem_.MEM_MemCat(&buffer, piece_.c_str(), static_cast<std::int32_t>(piece_.size()));
    } else {
      mem_.MEM_Cat(&buffer, piece_.c_str());
    }
  }

  MEMFunctionVector &mem_;
  const std::u16string piece_;
};

// ---- Chains in place, of a writer of this platform and of one of the other byte order.

class UnpackInPlace {
 public:
  UnpackInPlace(BenchSession &session, const char *version)
      : mem_(session.mem()),
        writer_(chainwriter::writerOf(version)),
        tree_(recordsFor(kBlocks, writer_)),
        loaded_(chainwriter::write(tree_, writer_, kForeignBlockLen)),
        callers_(chainwriter::readersControlBlock(tree_)) {}

  void prepare() { loaded_.restore(); }
  std::int64_t run() {
    benchmark::DoNotOptimize(unpack());
    return static_cast<std::int64_t>(tree_.nodes.size());
  }
  void check() {
    prepare();
    const std::string difference =
        chainwriter::difference(tree_, writer_, chainwriter::Became::Structure, unpack());
    demand(difference.empty(), "the structure differs");
  }

 private:
  static constexpr std::size_t kBlocks = 100;

  const void *unpack() {
    MemPackBlock *first = loaded_.first();
    void *root = nullptr;
    require(mem_.MEM_Unpack(&first, &root, reinterpret_cast<const MemPackCB *>(callers_.data())),
            "MEM_Unpack");
    demand(first == loaded_.first(), "the chain was not unpacked in place");
    return root;
  }

  MEMFunctionVector &mem_;
  const chainwriter::Writer writer_;
  const chainwriter::Tree tree_;
  LoadedChain loaded_;
  const chainwriter::Bytes callers_;
};

template <class Work, class... Args>
void add(const std::string &name, Args... args) {
  addLibrary(name, HostKind::bench,
             [args...](BenchSession &session) { return Work(session, args...); });
}

void addAll() {
  for (const std::uint32_t count : {256U, 1024U}) {
    add<ReadAlternatives>("alternatives/MEM_Port1StrToStruct/" + std::to_string(count), count);
  }
  for (const std::size_t count : {10000U, 20000U}) {
    addLibrary("skips/MEM_PortStrToStruct/" + std::to_string(count), HostKind::reference,
               [count](BenchSession &session) { return ReadSkipping(session, count); });
  }
  for (const std::size_t count : {20000U, 400000U}) {
    for (const std::size_t stride : {1U, 16U}) {
      const std::string apart = std::to_string(stride) + " apart/" + std::to_string(count);
      add<PackLeaves>("pack-leaves/" + apart, count, stride);
      add<WriteLeaves>("write-leaves/" + apart, count, stride);
    }
  }
  for (const std::size_t packages : {50U, 100U, 125U, 150U, 200U}) {
    add<PackCatalogue>("pack-catalogue/MEM_Pack/" + std::to_string(packages), packages);
  }
  for (const std::size_t units : {10U, 1000U}) {
    add<Append<Length::found>>("append/MEM_Cat/" + std::to_string(units), units);
    add<Append<Length::told>>("append/MEM_MemCat/" + std::to_string(units), units);
  }
  add<UnpackInPlace>("unpack/other order", "0221");
  add<UnpackInPlace>("unpack/native", "0220");
}

}  // namespace

}  // namespace bench

int main(int argc, char **argv) {
  return bench::runBenchmarks(argc, argv, "workloadbench", bench::addAll);
}
