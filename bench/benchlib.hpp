// Shared by all benchmark programs: the library, loaded once, and the check of a service's result.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "refhost.hpp"

namespace bench {

// What is measured: the library next to the program, or what MEM_BENCH_MODULE in the environment
// names.
inline std::filesystem::path measuredModule() {
  const char *override = std::getenv("MEM_BENCH_MODULE");
  return override == nullptr ? refhost::Library::besideProgram() : override;
}

inline refhost::Library &library() {
  static refhost::Library loaded(measuredModule());
  return loaded;
}

inline void require(std::int16_t result, const char *what) {
  if (result != 0) throw std::runtime_error(std::string(what) + " failed");
}

inline void returnChain(MEMFunctionVector &mem, MemPackBlock *block, std::uint32_t blockLen) {
  while (block != nullptr) {
    MemPackBlock *const next = block->pNext;
    mem.MEM_Free(block, blockLen, 0);
    block = next;
  }
}

// Definitions for port strings: required fields, and structures without a repeat field.
constexpr MEMFieldDef portField(std::uint32_t id, MEMFieldType type, std::int32_t length,
                                std::size_t offset, std::uint32_t target = 0) {
  MEMFieldDef made{};
  made.FieldID = id;
  made.Type = static_cast<std::uint8_t>(type);
  made.Required = 1;
  made.Length = length;
  made.SubStructID = target;
  made.Offset = static_cast<std::int32_t>(offset);
  return made;
}

template <std::size_t count>
constexpr MEMStructDef portStruct(std::uint32_t id, std::size_t length,
                                  const MEMFieldDef (&fields)[count]) {
  MEMStructDef made{};
  made.StructID = id;
  made.Length = static_cast<std::int32_t>(length);
  made.CountField = MEM_PORT_NO_COUNT;
  made.FieldCount = count;
  made.Fields = fields;
  return made;
}

// A heap of the library, closed at the end of its scope.
class OpenHeap {
 public:
  explicit OpenHeap(MEMFunctionVector &mem, std::int16_t areaKb = 256) : mem_(mem) {
    require(mem_.MEM_HeapOpen(&heap_, areaKb, 0), "MEM_HeapOpen");
  }
  ~OpenHeap() { mem_.MEM_HeapClose(heap_); }
  OpenHeap(const OpenHeap &) = delete;
  OpenHeap &operator=(const OpenHeap &) = delete;
  HMEMHEAP get() const { return heap_; }

 private:
  MEMFunctionVector &mem_;
  HMEMHEAP heap_ = nullptr;
};

}  // namespace bench
