// Reader of port strings: structures are allocated from the caller's heap as their texts come, and
// pointer fields are linked to them, or wait for them.
#pragma once

#include <cstdint>

#include "port/read/port_scanner.h"

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
    bool holds(std::int64_t structOffset, std::int64_t length) const noexcept {
      const std::int64_t start = offset + structOffset;
      return start >= 0 && length >= 0 && start <= entryLen - length;
    }
  };

  // Which fields of a definition were present. Mostly they come one by one from the first to the
  // last, so those at the front are counted and the others, if there are any, marked.
  class SeenFields {
   public:
    SeenFields() noexcept {}  // bits_ is cleared when it is needed

    void add(std::int32_t i) noexcept {
      if (i == front_) {
        ++front_;
      } else if (i > front_) {
        mark(i);
      }
    }
    // Fields from `first` up to the one before `behind`.
    void addRange(std::int32_t first, std::int32_t behind) noexcept {
      if (first <= front_) {
        if (behind > front_) front_ = behind;
      } else {
        for (std::int32_t i = first; i < behind; ++i) mark(i);
      }
    }
    bool has(std::int32_t i) const noexcept {
      return i < front_ || (hasBits_ && (bits_[i / 64] >> (i % 64) & 1) != 0);
    }
    // True when all of the first `count` are known to have been present without a look at each.
    bool hasFront(std::int32_t count) const noexcept { return front_ >= count; }

   private:
    void mark(std::int32_t i) noexcept;

    std::int32_t front_ = 0;  // all fields below were present
    bool hasBits_ = false;
    std::uint64_t bits_[MEM_PORT_MAX_FIELDS / 64];  // fields that came out of turn
  };

  struct StructText {
    const MEMStructDef *pDef = nullptr;
    Place place = {};
    std::int64_t lastCount = 0;  // occurrences of the last field so far
    std::int32_t expected = 0;   // index of the field that comes next in an ordered text
    bool lastIsFirst = false;    // known: no field has the last one's identifier in front of it
    int nesting = 0;
    SeenFields seen;
  };

  // How far field texts were taken.
  enum class Taken {
    all,     // to the ">" that ends them, which is taken, too
    some,    // up to one that has to be looked at character by character
    failed,  // reported
  };

  // What is behind a value that was taken. Null when it was not and nothing was done.
  struct TakenValue {
    const char *pBehind = nullptr;
    bool isFailed = false;  // the value is wrong; not yet reported
  };

  bool readHeader() noexcept;
  bool openIndex() noexcept;
  bool readTop(std::uint32_t index) noexcept;
  bool readEmbedded(const MEMFieldDef &field, const Place &place, int nesting) noexcept;
  bool takeHead(const MEMStructDef *&pDef, std::int64_t &size) noexcept;
  bool readHead(const MEMStructDef *&pDef, std::int64_t &size) noexcept;
  bool readRepeatCount(const MEMStructDef &def, std::int64_t &size) noexcept;
  bool place(std::uint32_t index, std::int64_t size, Place &made) noexcept;
  bool readBody(StructText &text) noexcept;
  bool readFields(StructText &text) noexcept;
  std::int32_t indexOf(StructText &text, std::uint32_t fieldID) const noexcept;
  static std::int64_t startField(StructText &text, std::int32_t fieldIndex) noexcept;
  Taken takeFields(StructText &text) noexcept;
  TakenValue takeValue(const Place &place, const MEMFieldDef &field, std::int64_t offset,
                       const char *p) noexcept;
  MEM_NOINLINE TakenValue takeLongNumber(std::uint8_t type, const char *p,
                                         std::byte *pField) const noexcept;
  TakenValue takePointer(const char *p, std::byte *pField) noexcept;
  TakenValue takeString(const char *p, std::byte *pField) noexcept;
  static bool toNext(StructText &text, const MEMFieldDef *&pField,
                     const MEMFieldDef *pLast) noexcept;
  const char *nextChunk(const char *pEnd) noexcept;
  bool readField(const StructText &text, const MEMFieldDef &field, std::int64_t offset) noexcept;
  bool readValue(const MEMFieldDef &field, const Place &place, std::int64_t offset,
                 int nesting) noexcept;
  bool failField() noexcept;
  bool readPointer(std::byte *pField) noexcept;
  bool link(std::uint32_t number, std::byte *pField) noexcept;
  bool wait(std::uint32_t index, std::byte *pField) noexcept;
  void settle(std::uint32_t index, void *pStruct) noexcept;
  bool skipNewer(const StructText &text, std::uint32_t fieldID) noexcept;
  bool skipRest() noexcept;
  bool skipQuoted() noexcept;
  bool completeAbsent(const StructText &text) noexcept;
  MEM_NOINLINE bool completeDemanded(const StructText &text, std::int32_t first) noexcept;
  static bool giveDefault(const StructText &text, const MEMFieldDef &field) noexcept;
  static bool hasAlternative(const StructText &text, const MEMFieldDef &field) noexcept;
  bool failMissing(const MEMStructDef &def, const MEMFieldDef &field) noexcept;

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
