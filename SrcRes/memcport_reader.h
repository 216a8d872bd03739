// Reader of port strings: structures are allocated from the caller's heap as their texts come, and
// pointer fields are linked to them, or wait for them.
#pragma once

#include <cstdint>

#include "memcport_scanner.h"

namespace mem {

// A pointer field that waits for its structure. The field itself holds the address of the next
// waiting field meanwhile, but it may be written over by hostile text, so that nothing is ever
// followed through it.
struct WaitingField {
  std::byte *pField;
  WaitingField *pNext;
};

// One call of MEM_PortStrToStruct or MEM_Port1StrToStruct. Without a destructor: a fault may end
// run() anywhere, so the caller closes the index heap.
class PortReader {
 public:
  PortReader(CallFrame &frame, const MEMStructDef *pDefs, const PortInput &input, HMEMHEAP hMemHeap,
             void **ppStruct) noexcept
      : pDefs_(pDefs), ppStruct_(ppStruct), scanner_(frame, input, hMemHeap) {}

  bool run() noexcept;

  // The heap of the index table while it is open, else null.
  HMEMHEAP indexHeap() const noexcept { return hIndexHeap_; }

 private:
  // What is read into: bytes of one entry of the caller's heap. An embedded structure lies within
  // the entry of the structure around it.
  struct Place {
    std::byte *pEntry;
    std::int64_t entryLen;
    std::int64_t offset;  // of the structure in the entry

    std::byte *at(std::int64_t structOffset) const noexcept {
      return pEntry + offset + structOffset;
    }
    // True when `length` bytes at an offset of the structure lie in the entry.
    bool holds(std::int64_t structOffset, std::int64_t length) const noexcept;
  };

  // Which fields of a definition were present.
  class SeenFields {
   public:
    void add(std::int32_t i) noexcept { bits_[i / 64] |= std::uint64_t{1} << (i % 64); }
    bool has(std::int32_t i) const noexcept { return (bits_[i / 64] >> (i % 64) & 1) != 0; }

   private:
    std::uint64_t bits_[MEM_PORT_MAX_FIELDS / 64] = {};
  };

  struct StructText {
    const MEMStructDef *pDef;
    Place place;
    SeenFields seen;
    std::int64_t lastCount;  // occurrences of the last field so far
    int nesting;
  };

  bool readHeader() noexcept;
  bool openIndex() noexcept;
  bool readTop(std::uint32_t index) noexcept;
  bool readEmbedded(const MEMFieldDef &field, const Place &place, int nesting) noexcept;
  bool readHead(const MEMStructDef *&pDef, std::int64_t &size) noexcept;
  bool readRepeatCount(const MEMStructDef &def, std::int64_t &size) noexcept;
  bool place(std::uint32_t index, std::int64_t size, Place &made) noexcept;
  bool readBody(StructText &text) noexcept;
  bool readFields(StructText &text) noexcept;
  bool readField(StructText &text, std::int32_t fieldIndex) noexcept;
  bool readValue(const MEMFieldDef &field, const Place &place, std::int64_t offset,
                 int nesting) noexcept;
  bool readPointer(std::byte *pField) noexcept;
  bool wait(std::uint32_t index, std::byte *pField) noexcept;
  void settle(std::uint32_t index, void *pStruct) noexcept;
  bool skipNewer(const StructText &text, std::uint32_t fieldID) noexcept;
  bool skipRest() noexcept;
  bool skipQuoted() noexcept;
  bool completeAbsent(const StructText &text) noexcept;
  bool hasAlternative(const StructText &text, std::int32_t fieldIndex) const noexcept;

  void *indexEntry(std::int64_t length) noexcept;

  const MEMStructDef *const pDefs_;
  void **const ppStruct_;
  PortScanner scanner_;

  HMEMHEAP hIndexHeap_ = nullptr;
  std::uint32_t count_ = 0;            // structures that the header promises
  std::uint32_t current_ = 0;          // top-level structure being read
  void **pIndex_ = nullptr;            // address of each structure, or its chain's first field
  WaitingField **pWaiting_ = nullptr;  // the reader's own record of the chains
};

}  // namespace mem
