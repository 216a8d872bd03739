// The library's two forms: the packed chain and the port string.
#include <cstddef>

#include "peers_forms.hpp"

namespace bench {

namespace {

// The largest block whose offsets fit 16 signed bits.
constexpr std::int32_t kBlockLen = 32768;

// A chain that MEM_Pack made.
class Chain {
 public:
  Chain(MEMFunctionVector &mem, MemPackBlock *first) : mem_(mem), first_(first) {}
  ~Chain() { returnChain(mem_, first_, kBlockLen); }
  Chain(const Chain &) = delete;
  Chain &operator=(const Chain &) = delete;

  const MemPackBlock *first() const { return first_; }
  std::size_t size() const {
    std::size_t bytes = 0;
    for (const MemPackBlock *block = first_; block != nullptr; block = block->pNext) {
      bytes += block->UsedLen;
    }
    return bytes;
  }

 private:
  MEMFunctionVector &mem_;
  MemPackBlock *first_;
};

// The blocks as a reader has them, in one area.
class LoadedChain {
 public:
  explicit LoadedChain(const Chain &chain) {
    for (const MemPackBlock *block = chain.first(); block != nullptr; block = block->pNext) {
      starts_.push_back(fresh_.size());
      fresh_.resize(fresh_.size() + (8U + block->UsedLen + 7U) / 8);
      std::memcpy(&fresh_[starts_.back()], block, 8U + block->UsedLen);
    }
    area_.resize(fresh_.size());
  }

  void refresh() {
    std::memcpy(area_.data(), fresh_.data(), area_.size() * 8);
    for (std::size_t i = 0; i < starts_.size(); ++i) {
      const bool isLast = i + 1 == starts_.size();
      blockAt(i)->pNext = isLast ? nullptr : blockAt(i + 1);
    }
  }
  MemPackBlock *first() { return blockAt(0); }

 private:
  MemPackBlock *blockAt(std::size_t i) {
    return reinterpret_cast<MemPackBlock *>(&area_[starts_[i]]);
  }

  std::vector<std::uint64_t> area_;
  std::vector<std::uint64_t> fresh_;
  std::vector<std::size_t> starts_;
};

class PackedChain {
 public:
  explicit PackedChain(BenchSession &session) : mem_(session.mem()) {}

  Chain encode(const Graph &graph) {
    MemPackBlock *first = nullptr;
    require(mem_.MEM_Pack(&description_, graph.root(), kBlockLen, &first), "MEM_Pack");
    return Chain(mem_, first);
  }
  static LoadedChain load(const Chain &chain) { return LoadedChain(chain); }

  template <class Visitor>
  void decode(LoadedChain &chain, Visitor &visitor) {
    MemPackBlock *first = chain.first();
    void *root = nullptr;
    require(mem_.MEM_Unpack(&first, &root, &description_), "MEM_Unpack");
    demand(first == chain.first(), "the chain was not unpacked in place");
    visitRecords(static_cast<const PackageRecord *>(root), visitor);
  }

 private:
  MEMFunctionVector &mem_;
  const MemPackCB description_ = packDescription();
};

// A port string in the heap that it was written to.
class PortText {
 public:
  PortText(MEMFunctionVector &mem, const Graph &graph) : heap_(mem) {
    require(mem.MEM_StructToPortStr(portDescription(), kPackageStruct, graph.root(), 0, heap_.get(),
                                    &length_, &first_),
            "MEM_StructToPortStr");
  }
  const MEMPortChunk *first() const { return first_; }
  std::size_t size() const { return length_; }

 private:
  OpenHeap heap_;
  std::uint32_t length_ = 0;
  MEMPortChunk *first_ = nullptr;
};

class PortString {
 public:
  explicit PortString(BenchSession &session) : mem_(session.mem()) {}

  PortText encode(const Graph &graph) { return PortText(mem_, graph); }

  static InputBytes load(const PortText &text) {
    std::string joined;
    for (const MEMPortChunk *chunk = text.first(); chunk != nullptr; chunk = chunk->pNext) {
      joined.append(reinterpret_cast<const char *>(chunk) + offsetof(MEMPortChunk, Text),
                    static_cast<std::size_t>(chunk->Used));
    }
    return InputBytes(Bytes(joined.data(), joined.size()));
  }

  template <class Visitor>
  void decode(InputBytes &input, Visitor &visitor) {
    const OpenHeap heap(mem_);
    void *root = nullptr;
    require(mem_.MEM_Port1StrToStruct(portDescription(), input.bytes().text(),
                                      static_cast<std::uint32_t>(input.bytes().size()), heap.get(),
                                      &root),
            "MEM_Port1StrToStruct");
    visitRecords(static_cast<const PackageRecord *>(root), visitor);
  }

 private:
  MEMFunctionVector &mem_;
};

}  // namespace

void addPackedChain() {
  addLibraryForm<PackedChain>("graph", "MEM_Pack", "MEM_Unpack in place");
}

void addPortString() {
  addLibraryForm<PortString>("text", "MEM_StructToPortStr", "MEM_Port1StrToStruct");
}

}  // namespace bench
