// Reader of port strings: allocates structures from the caller's heap as their texts come, and
// links pointer fields to them, or lets the fields wait for them.
#pragma once

#include <cstdint>

#include "port/read/port_scanner.h"
#include "port/read/struct_index.h"
#include "port/read/struct_text.h"

namespace memlib {

// The fast way to read fields (fast_fields.cpp). The plain way, PortReader::readFields, handles
// every text.
enum class FastFields {
  none,    // nothing was read
  some,    // fields were read; the text after the last one was not checked
  failed,  // the last value is invalid
};

// Reads fields in the form that writers produce: in the order of the definition, the start of each
// contiguous in one chunk. Stops before any other field, without reading any of it or calling the
// host.
FastFields readFieldsFast(PortScanner &scanner, StructIndex &index, StructText &text) noexcept;

// One call of MEM_PortStrToStruct or MEM_Port1StrToStruct. Without a destructor: a fault may end
// run() anywhere, so the caller closes the index heap.
class PortReader {
 public:
  PortReader(CallFrame &frame, const MEMStructDef *pDefs, const PortInput &input, HMEMHEAP hMemHeap,
             void **ppStruct) noexcept
      : pDefs_(pDefs), ppStruct_(ppStruct), scanner_(frame, input, hMemHeap) {}

  bool run() noexcept;

  // The heap of the index table while it is open, else null.
  HMEMHEAP indexHeap() const noexcept { return index_.heap(); }

 private:
  bool readHeader() noexcept;
  bool readTop(std::uint32_t index) noexcept;
  bool readEmbedded(const MEMFieldDef &field, const StructBytes &bytes, int nesting) noexcept;
  bool readHead(StructText &text) noexcept;
  MEM_NOINLINE bool readRepeatCount(StructText &text) noexcept;
  bool allocateTop(std::uint32_t index, StructText &text) noexcept;
  bool readBody(StructText &text) noexcept;
  bool readFields(StructText &text) noexcept;
  static std::int32_t indexOf(StructText &text, std::uint32_t fieldID) noexcept;
  static std::int64_t startField(StructText &text, std::int32_t fieldIndex) noexcept;
  MEM_NOINLINE bool readField(const StructText &text, const MEMFieldDef &field,
                              std::int64_t offset) noexcept;
  bool readValue(const StructText &text, const MEMFieldDef &field, std::int64_t offset) noexcept;
  bool failConversion() noexcept;
  MEM_NOINLINE bool failStruct(const MessagePoint &point, const char *pBefore,
                               std::uint32_t structID, const char *pBehind) noexcept;
  MEM_NOINLINE bool failField(const MessagePoint &point, std::uint32_t fieldID, const char *pWhat,
                              const MEMStructDef &def) noexcept;
  bool readPointer(std::byte *pField) noexcept;
  bool skipNewer(const StructText &text, std::uint32_t fieldID) noexcept;
  bool skipRest() noexcept;
  bool skipQuoted() noexcept;
  MEM_NOINLINE bool completeAbsent(const StructText &text) noexcept;
  static bool giveDefault(const StructText &text, const MEMFieldDef &field) noexcept;

  const MEMStructDef *const pDefs_;
  void **const ppStruct_;
  PortScanner scanner_;

  StructIndex index_;
  std::uint32_t count_ = 0;  // structures according to the header
};

}  // namespace memlib
