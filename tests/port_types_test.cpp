// Every type code with every byte as the opening of its value, read in one piece and character by
// character. Both must agree; only a type's own openings are taken; and no byte but the field's is
// written, whatever follows the opening. It asks the finished library, since what a compiler makes
// of a constant table need not be what it says while it compiles.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "porttest.hpp"

namespace memtest {
namespace {

constexpr std::int32_t kFieldOff = 16;
constexpr std::uint8_t kCanary = 0xA5;

// What a type's field is, how its values open, and what may follow.
struct TypeRow {
  std::int32_t length;
  std::string_view openings;
  std::vector<std::string> values;  // for the openings in turn
};

TypeRow typeRow(std::uint8_t type) {
  switch (type) {
    case MEM_PORT_CHAR:
    case MEM_PORT_CHARSZ:
      return {3, "\"", {"ab\""}};
    case MEM_PORT_PSTR:
      return {8, "X", {"2\"ab\""}};
    case MEM_PORT_BIN:
      return {2, "H", {"1F"}};
    case MEM_PORT_SHORT:
    case MEM_PORT_USHORT:
      return {2, "N", {"503"}};
    case MEM_PORT_LONG:
    case MEM_PORT_ULONG:
      return {4, "N", {"503"}};
    case MEM_PORT_PNT:
      return {8, "S", {"1"}};
    case MEM_PORT_SUBSTRUCTURE:
      return {4, "E", {"(2<1N503>)"}};
    case MEM_PORT_BIT:
      return {1, "B", {"10100000"}};
    case MEM_PORT_UBIGINT:
    case MEM_PORT_BIGINT:
      return {8, "N", {"503"}};
    case MEM_PORT_WCHAR:
    case MEM_PORT_WCHARSZ:
      return {6, "'\"", {"ab'", "ab\""}};
    case MEM_PORT_WPSTR:
      return {8, "xX", {"2;'ab'", "2\"ab\""}};
    default:
      return {1, "", {}};
  }
}

// What may follow any opening: digits that fill eight bytes with an address, and their like.
const std::vector<std::string> kTails = {"3711635474432491074", "5"};
const std::vector<std::string> kFurtherTails = {"", "-3711635474432491074",
                                                "55555555555555555555555555555555"};

// What is to follow the openings of a type. All codes without a type are read alike.
std::vector<std::string> tailsFor(const TypeRow &row) {
  std::vector<std::string> tails = kTails;
  if (row.openings.empty()) return tails;
  tails.insert(tails.end(), kFurtherTails.begin(), kFurtherTails.end());
  tails.insert(tails.end(), row.values.begin(), row.values.end());
  return tails;
}

// Serves slot 14 for the null handle, which stands for the caller's heap, out of one area that is
// filled with canaries: in front of an entry, behind it, and in what the reader leaves alone.
class CanaryHeap {
 public:
  static constexpr std::size_t kGap = 32;

  explicit CanaryHeap(MEMFunctionVector &mem)
      : others_(mem.MEM_HeapAllocEntryLong), area_(4096, kCanary) {
    active_ = this;
    mem.MEM_HeapAllocEntryLong = allocate;
    renew();
  }
  CanaryHeap(const CanaryHeap &) = delete;
  CanaryHeap &operator=(const CanaryHeap &) = delete;

  // All entries go.
  void renew() {
    std::fill(area_.begin(), area_.begin() + static_cast<std::ptrdiff_t>(used_ + kGap), kCanary);
    used_ = kGap;
    entries_.clear();
  }
  // The bytes of entries, one after the other, and whether all between them are as before.
  std::string entries() const {
    std::string bytes;
    for (const Entry &entry : entries_) {
      bytes.append(reinterpret_cast<const char *>(area_.data()) + entry.offset, entry.length);
    }
    return bytes;
  }
  bool isWhole() const {
    std::size_t from = 0;
    for (const Entry &entry : entries_) {
      if (!areCanaries(from, entry.offset)) return false;
      from = entry.offset + entry.length;
    }
    return areCanaries(from, used_ + kGap);
  }
  bool areCanaries(std::size_t from, std::size_t to) const {
    return std::all_of(area_.begin() + static_cast<std::ptrdiff_t>(from),
                       area_.begin() + static_cast<std::ptrdiff_t>(to),
                       [](std::uint8_t byte) { return byte == kCanary; });
  }
  // Where the first entry begins.
  static constexpr std::size_t kFirst = kGap;

 private:
  struct Entry {
    std::size_t offset;
    std::size_t length;
  };

  static std::int16_t allocate(HMEMHEAP handle, std::int32_t length, void **entry) {
    CanaryHeap &heap = *active_;
    if (handle != nullptr) return heap.others_(handle, length, entry);
    const auto size = static_cast<std::size_t>(length);
    if (length < 1 || size > heap.area_.size() - heap.used_ - 2 * kGap) return -1;
    *entry = heap.area_.data() + heap.used_;
    heap.entries_.push_back({heap.used_, size});
    heap.used_ += size + kGap;
    return 0;
  }

  inline static CanaryHeap *active_ = nullptr;
  MEM_HeapAllocEntryLongFn *const others_;
  std::vector<std::uint8_t> area_;
  std::vector<Entry> entries_;
  std::size_t used_ = 0;
};

// A text as one block and as chunks of one character, made anew without asking for storage.
class OneCharacterChunks {
 public:
  OneCharacterChunks() : chunks_(kMost * kStride) {}

  const MEMPortChunk *of(const std::string &text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
      std::uint8_t *chunk = chunks_.data() + i * kStride;
      const std::uint8_t *next = i + 1 < text.size() ? chunk + kStride : nullptr;
      const std::int32_t used = 1;
      std::memcpy(chunk, &next, sizeof next);
      std::memcpy(chunk + sizeof next, &used, sizeof used);
      chunk[sizeof next + sizeof used] = static_cast<std::uint8_t>(text[i]);
    }
    return reinterpret_cast<const MEMPortChunk *>(chunks_.data());
  }

 private:
  static constexpr std::size_t kMost = 256;
  static constexpr std::size_t kStride = 16;
  std::vector<std::uint8_t> chunks_;
};

// How a call ended, with what it stored.
struct Outcome {
  std::int16_t status;
  std::vector<refhost::TraceRecord> records;
  std::string entries;
  bool isWhole;       // nothing was written around the entries
  bool isFieldsOnly;  // nor within the structure, but in the field
};

class PortTypesTest : public BoundTest {
 protected:
  PortTypesTest() : heap_(mem) { host.keepRecords(true); }
  ~PortTypesTest() override { host.restoreSlots(); }

  // A field of the type at the end of its structure, and one that nothing is newer than.
  static Defs defsOf(std::uint8_t type) {
    const std::int32_t length = typeRow(type).length;
    Defs defs;
    defs.add(1, kFieldOff + length,
             {Field(1, MEM_PORT_CHAR, length, kFieldOff).typeCode(type).of(type == 9 ? 1 : 2),
              Field(UINT32_MAX, MEM_PORT_CHAR, 1, 0)});
    defs.add(2, 4, {Field(1, MEM_PORT_LONG, 4, 0)});
    return defs;
  }

  // `call` reads into the cell that it is given.
  template <class Call>
  Outcome run(Call call) {
    heap_.renew();
    host.takeRecords();
    void *root = nullptr;
    Outcome outcome;
    outcome.status = call(&root);
    outcome.records = host.takeRecords();
    outcome.entries = heap_.entries();
    outcome.isWhole = heap_.isWhole();
    outcome.isFieldsOnly = outcome.entries.size() < kFieldOff ||
                           heap_.areCanaries(CanaryHeap::kFirst, CanaryHeap::kFirst + kFieldOff);
    return outcome;
  }
  Outcome readInOnePiece(const Defs &defs, const std::string &text) {
    return run([&](void **out) {
      return mem.MEM_Port1StrToStruct(defs.table(), text.data(),
                                      static_cast<std::uint32_t>(text.size()), nullptr, out);
    });
  }
  Outcome readByCharacters(const Defs &defs, const std::string &text) {
    const MEMPortChunk *first = chunks_.of(text);
    return run(
        [&](void **out) { return mem.MEM_PortStrToStruct(defs.table(), first, nullptr, out); });
  }

  // "" or how two records differ that must tell the same: the excerpts of the chunk are within
  // those of the block, at the same place.
  static std::string difference(const refhost::TraceRecord &block,
                                const refhost::TraceRecord &chunk) {
    if (block.type != chunk.type || block.function != chunk.function ||
        block.source != chunk.source || block.line != chunk.line) {
      return "another place";
    }
    const Parts all(block.text);
    const Parts part(chunk.text);
    if (all.head != part.head) return "another message";
    if (!all.read.ends_with(part.read)) return "another place read";
    return all.next.starts_with(part.next) ? "" : "another place next";
  }
  static std::string difference(const Outcome &block, const Outcome &chunk) {
    if (block.status != chunk.status) return "another status";
    if (block.entries != chunk.entries) return "other bytes";
    if (block.records.size() != chunk.records.size()) return "another number of records";
    for (std::size_t i = 0; i < block.records.size(); ++i) {
      const std::string found = difference(block.records[i], chunk.records[i]);
      if (!found.empty()) return found;
    }
    return "";
  }

  // "" or what is wrong with reading `opening` and `tail` into a field of the type.
  std::string fault(const Defs &defs, const TypeRow &row, char opening, const std::string &tail) {
    // What follows the structure is not read, but lets the field be looked at by words.
    const std::string text =
        portString("(1<1" + std::string(1, opening) + tail + ">)") + std::string(32, 'z');
    const Outcome block = readInOnePiece(defs, text);
    const Outcome chunk = readByCharacters(defs, text);
    const bool isOwn = row.openings.find(opening) != std::string_view::npos;
    for (const Outcome *outcome : {&block, &chunk}) {
      if (!outcome->isWhole) return "writes beyond the entry";
      if (!outcome->isFieldsOnly) return "writes beside the field";
      if (outcome->status == 0 && !isOwn) return "takes an opening that is not the type's";
      if ((outcome->status == 0) != outcome->records.empty()) {
        const bool isSilent = outcome->status == -1 && outcome->records.empty();
        return isSilent ? "fails without a record" : "succeeds with a record";
      }
    }
    return difference(block, chunk);
  }

 private:
  struct Parts {
    explicit Parts(const std::string &text) {
      const std::size_t position = text.find("\nPosition: ");
      const std::size_t readAt = text.find("\nRead:", position);
      const std::size_t nextAt = text.find("\nNext:", readAt);
      head = text.substr(0, position);
      if (nextAt == std::string::npos) return;
      read = text.substr(readAt + 6, nextAt - readAt - 6);
      next = text.substr(nextAt + 6);
    }
    std::string head;
    std::string read;
    std::string next;
  };

  CanaryHeap heap_;
  OneCharacterChunks chunks_;
};

TEST_F(PortTypesTest, EveryOpeningOfEveryType) {
  for (unsigned type = 0; type <= UINT8_MAX; ++type) {
    const TypeRow row = typeRow(static_cast<std::uint8_t>(type));
    const Defs defs = defsOf(static_cast<std::uint8_t>(type));
    for (const std::string &tail : tailsFor(row)) {
      for (unsigned opening = 0; opening <= UINT8_MAX; ++opening) {
        const std::string found = fault(defs, row, static_cast<char>(opening), tail);
        ASSERT_EQ(found, "") << "type " << type << ", opening " << opening << ", then " << tail;
      }
    }
  }
}

TEST_F(PortTypesTest, OwnOpeningsAreTaken) {
  for (std::uint8_t type = MEM_PORT_CHAR; type <= MEM_PORT_WPSTR; ++type) {
    const TypeRow row = typeRow(type);
    const Defs defs = defsOf(type);
    for (std::size_t i = 0; i < row.openings.size(); ++i) {
      const std::string text =
          portString("(1<1" + std::string(1, row.openings[i]) + row.values[i] + ">)");
      EXPECT_EQ(readInOnePiece(defs, text).status, 0) << text;
      EXPECT_EQ(readByCharacters(defs, text).status, 0) << text;
    }
  }
}

// A text that had an address of its choice stored beyond the entry.
TEST_F(PortTypesTest, ZeroByteOpensNothing) {
  Defs defs;
  defs.add(1, 1, {Field(1, MEM_PORT_BIT, 1, 0)});
  const std::string text =
      "(0000000049,0000000001)(1<1" + std::string(1, '\0') + "3711635474432491074>)";
  ASSERT_EQ(text.size(), 49U);
  const Outcome outcome = readInOnePiece(defs, text);
  EXPECT_EQ(outcome.status, -1);
  EXPECT_TRUE(outcome.isWhole);
  EXPECT_EQ(outcome.entries, std::string(1, static_cast<char>(kCanary)));
  EXPECT_EQ(messageHeads(outcome.records), (Lines{"Not a bit field!", "Field conversion failed!"}));
}

}  // namespace
}  // namespace memtest
