// A component that passes wide texts to every service that looks for their end, each text at the
// end of a block of its own, so that valgrind sees every read beyond. The argument names a mistake
// that it makes as well. The services' own reads must hide none of them.
//
//   wide_texts clean|own-read|own-write|no-end|short-record
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string_view>

#include "refhost.hpp"

#define NOINLINE __attribute__((noinline))

namespace {

constexpr std::size_t kLengths = 100;
constexpr std::size_t kOffsets = 16;
constexpr std::int16_t kSubPool = 7;

// A block of some bytes and no more.
class Block {
 public:
  explicit Block(std::size_t length) : pBytes_(static_cast<std::uint8_t *>(std::malloc(length))) {
    if (pBytes_ == nullptr) throw std::bad_alloc();
  }
  ~Block() { std::free(pBytes_); }
  Block(const Block &) = delete;
  Block &operator=(const Block &) = delete;

  std::uint8_t *bytes() const { return pBytes_; }

  // `length` letters, `offset` units into the block.
  char16_t *putText(std::size_t length, std::size_t offset) const {
    char16_t *const text = reinterpret_cast<char16_t *>(pBytes_) + offset;
    for (std::size_t i = 0; i < length; ++i) text[i] = static_cast<char16_t>(u'a' + i % 26);
    return text;
  }

 private:
  std::uint8_t *pBytes_;
};

struct Record {
  const char16_t *text;
};

// The services. True when all is as it should be.

bool append(const MEMFunctionVector &mem, const char16_t *text, std::size_t length) {
  MEMCatCB buffer{};
  if (mem.MEM_CatOpen(&buffer) != 0) return false;
  const bool isDone = mem.MEM_Cat(&buffer, text) == 0 && buffer.Len == length;
  return mem.MEM_CatClose(&buffer) == 0 && isDone;
}

bool sink(const MEMFunctionVector &mem, const char16_t *text) {
  const char16_t *sunk = nullptr;
  const char16_t *found = nullptr;
  return mem.MEM_WSinkString(text, &sunk) == 0 && mem.MEM_WSinkVerify(text, &found, nullptr) == 0 &&
         found == sunk && mem.MEM_WSinkDelete(sunk) == 0;
}

bool pack(const MEMFunctionVector &mem, const char16_t *text) {
  constexpr std::int32_t kBlockLen = 4096;
  Record record{text};
  MemPackCB kinds{};
  kinds.Count = 2;
  kinds.Descriptors[0].Type = MEM_PACK_FIXED;
  kinds.Descriptors[0].FixedLen = sizeof record;
  kinds.Descriptors[0].SiblingOff = MEM_PACK_NO_SIBLING;
  kinds.Descriptors[0].ChildCount = 1;
  kinds.Descriptors[0].Children[0].Descriptor = 1;
  kinds.Descriptors[1].Type = MEM_PACK_WIDE_STRING;
  MemPackBlock *pFirst = nullptr;
  if (mem.MEM_Pack(&kinds, &record, kBlockLen, &pFirst) != 0) return false;
  mem.MEM_Free(pFirst, kBlockLen, 0);
  return true;
}

// Written from a pointer; read with a definition of a further field, which has it as its default.
bool port(const MEMFunctionVector &mem, const char16_t *text, std::size_t length) {
  struct Longer {
    Record record;
    char16_t copy[kLengths];
  };
  MEMFieldDef fields[2] = {};
  fields[0].FieldID = 1;
  fields[0].Type = MEM_PORT_WPSTR;
  fields[0].Length = sizeof(Record);
  fields[1].FieldID = 2;
  fields[1].Type = MEM_PORT_WCHARSZ;
  fields[1].Length = sizeof(Longer::copy);
  fields[1].Offset = offsetof(Longer, copy);
  fields[1].Default.pWide = text;
  MEMStructDef defs[2] = {};
  defs[0].StructID = 1;
  defs[0].Length = sizeof(Longer);
  defs[0].CountField = MEM_PORT_NO_COUNT;
  defs[0].FieldCount = 1;
  defs[0].Fields = fields;
  const Longer written{{text}, {}};
  HMEMHEAP heap = nullptr;
  MEMPortChunk *pFirst = nullptr;
  std::uint32_t count = 0;
  void *read = nullptr;
  if (mem.MEM_HeapOpen(&heap, 4, kSubPool) != 0) return false;
  bool isDone = mem.MEM_StructToPortStr(defs, 1, &written, 0, heap, &count, &pFirst) == 0;
  defs[0].FieldCount = 2;
  isDone = isDone && mem.MEM_PortStrToStruct(defs, pFirst, heap, &read) == 0 &&
           std::u16string_view(static_cast<const Longer *>(read)->copy).size() == length;
  return mem.MEM_HeapClose(heap) == 0 && isDone;
}

bool passTexts(const MEMFunctionVector &mem) {
  for (std::size_t length = 0; length < kLengths; ++length) {
    for (std::size_t offset = 0; offset < kOffsets; ++offset) {
      const Block block((offset + length + 1) * sizeof(char16_t));
      char16_t *const text = block.putText(length, offset);
      text[length] = 0;
      if (!append(mem, text, length) || !sink(mem, text) || !pack(mem, text) ||
          !port(mem, text, length)) {
        return false;
      }
    }
  }
  return true;
}

// The mistakes.

// Reads 16 bytes at once, as the library does, of which none are the component's.
NOINLINE void readBeyond(const std::uint8_t *end) {
  using Sixteen [[gnu::vector_size(16)]] = std::uint8_t;
  static_cast<void>(*reinterpret_cast<const volatile Sixteen *>(end));
}

NOINLINE void writeBeyond(std::uint8_t *end) {
  *static_cast<volatile std::uint8_t *>(end) = 1;
}

// A text without a terminator.
NOINLINE void passNoEnd(const MEMFunctionVector &mem) {
  constexpr std::size_t kUnits = 24;
  const Block block(kUnits * sizeof(char16_t));
  append(mem, block.putText(kUnits, 0), kUnits);
}

std::int16_t bucketOf(const void *) {
  return 0;
}

// A record of 40 bytes with a length of 64.
NOINLINE void passShortRecord(const MEMFunctionVector &mem) {
  HMEMHASH table = nullptr;
  void *stored = nullptr;
  const Block block(40);
  block.putText(20, 0);
  if (mem.MEM_HashOpen(&table, 0, 8, 0, bucketOf, 4, kSubPool) != 0) return;
  mem.MEM_HashInsEntry(table, 64, block.bytes(), &stored);
  mem.MEM_HashClose(table);
}

bool makeMistake(std::string_view mistake, const MEMFunctionVector &mem) {
  const Block block(32);
  if (mistake == "own-read") {
    readBeyond(block.bytes() + 32);
  } else if (mistake == "own-write") {
    writeBeyond(block.bytes() + 32);
  } else if (mistake == "no-end") {
    passNoEnd(mem);
  } else if (mistake == "short-record") {
    passShortRecord(mem);
  } else {
    return mistake == "clean";
  }
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  const refhost::Library library(refhost::Library::besideProgram());
  refhost::Session session(library.bindEntry());
  if (!passTexts(session.vector())) {
    std::puts("a service has failed");
    return 1;
  }
  if (!makeMistake(argc > 1 ? argv[1] : "clean", session.vector())) return 2;
  return session.close().empty() ? 0 : 1;
}
