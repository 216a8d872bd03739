#include "cases.hpp"

#include <algorithm>
#include <cstring>
#include <vector>

#include "portdefs.hpp"

namespace replay {

CaseHeap::CaseHeap(Watch &watch, std::int16_t areaKb, std::uint16_t subPool)
    : watch_(watch), subPool_(subPool) {
  watch_.did("MEM_HeapOpen", watch_.mem().MEM_HeapOpen(&heap_, areaKb, subPool_));
}

CaseHeap::~CaseHeap() {
  if (isOpen()) watch_.did("MEM_HeapClose", watch_.mem().MEM_HeapClose(heap_));
}

Leaves::Leaves(Random &random) {
  constexpr std::size_t kStrides[] = {1, 1, 2, 3, 8, 16, 24, 64};
  const std::size_t count = random.between(500, random.oneIn(4) ? 12000 : 3000);
  const std::size_t stride = kStrides[random.below(std::size(kStrides))];
  storage_.resize(count * stride);
  branches_.resize((count + kOfBranch - 1) / kOfBranch);
  const auto leafAt = [&](std::size_t i) { return &storage_[i * stride]; };
  for (std::uint8_t &byte : storage_) byte = static_cast<std::uint8_t>(random.bits());
  for (std::size_t i = 0; i < branches_.size(); ++i) {
    branches_[i].next = i + 1 < branches_.size() ? &branches_[i + 1] : nullptr;
    branches_[i].seen = random.oneIn(3) ? nullptr : leafAt(random.below(count));
  }
  for (std::size_t i = 0; i < count; ++i) {
    branches_[i / kOfBranch].leaves[i % kOfBranch] = leafAt(i);
  }
}

void showChain(Watch &watch, std::string_view what, const MemPackBlock *first, std::size_t blockLen,
               bool isSwapped) {
  constexpr int kMost = 40000;
  int shown = 0;
  for (const MemPackBlock *block = first; block != nullptr && shown < kMost;
       block = block->pNext, ++shown) {
    std::size_t length = blockLen;
    if (length == 0) {
      const std::uint16_t used = block->UsedLen;
      length = 8U + (isSwapped ? static_cast<std::uint16_t>(used << 8 | used >> 8) : used);
    }
    watch.log() << what << " block ";
    watch.log().address(block) << " next ";
    watch.log().address(block->pNext).end();
    watch.log().bytes("  from 8 on", &block->UsedLen, std::max<std::size_t>(length, 10) - 8);
  }
}

void returnChain(Watch &watch, MemPackBlock *first, std::uint32_t blockLen) {
  while (first != nullptr) {
    MemPackBlock *const next = first->pNext;
    watch.mem().MEM_Free(first, blockLen, 0);
    first = next;
  }
  watch.did("MEM_Free of the chain");
}

void setOldControlBlock(Watch &watch, bool isOld) {
  MEMProcOptions options{};
  options.Set = 1;
  options.OldPackCB = isOld ? 1 : 0;
  watch.mem().MEMSetProcOptions(&options);
}

namespace {

// A text in chunks, each at the end of storage of exactly its size.
class Chunks {
 public:
  Chunks(std::string_view text, std::size_t chunkLen) {
    constexpr std::size_t kTextOff = 12;
    for (std::size_t at = 0; at == 0 || at < text.size(); at += chunkLen) {
      const std::string_view piece = text.substr(at, chunkLen);
      memtest::Record &chunk = chunks_.emplace_back(kTextOff + piece.size());
      chunk.set(8, static_cast<std::int32_t>(piece.size()));
      chunk.setBytes(kTextOff, piece.data(), piece.size());
    }
    for (std::size_t i = 0; i + 1 < chunks_.size(); ++i) {
      chunks_[i].set(0, static_cast<const void *>(chunks_[i + 1].data()));
    }
  }
  const MEMPortChunk *first() const {
    return reinterpret_cast<const MEMPortChunk *>(chunks_[0].data());
  }

 private:
  std::vector<memtest::Record> chunks_;
};

}  // namespace

std::int16_t readText(Watch &watch, const MEMStructDef *defs, std::string_view text,
                      std::size_t chunkLen, const CaseHeap &heap, void **ppRoot) {
  std::optional<Chunks> chunks;
  makeFixed(chunks, text, chunkLen == 0 ? std::max<std::size_t>(text.size(), 1) : chunkLen);
  std::int16_t result = 0;
  if (chunkLen == 0) {
    result = watch.did("MEM_Port1StrToStruct",
                       watch.mem().MEM_Port1StrToStruct(
                           defs, reinterpret_cast<const char *>(chunks->first()) + 12,
                           static_cast<std::uint32_t>(text.size()), heap.get(), ppRoot));
  } else {
    result = watch.did("MEM_PortStrToStruct",
                       watch.mem().MEM_PortStrToStruct(defs, chunks->first(), heap.get(), ppRoot));
  }
  watch.log() << "root ";
  watch.log().address(*ppRoot).end();
  return result;
}

}  // namespace replay
