// Every type code with every byte as the opening of its value, read in one piece and character by
// character. Both must agree; only a type's own openings are taken; and no byte but the field's is
// written, whatever follows the opening. Nor does an absent field's default write beyond the
// structure. It asks the finished library, since what a compiler makes of a constant table need not
// be what it says while it compiles.

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "portmutants.hpp"
#include "porttest.hpp"

namespace memtest {
namespace {

constexpr std::int32_t kFieldOff = 16;

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

class PortTypesTest : public BoundTest {
 protected:
  PortTypesTest() { host.keepRecords(true); }
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

  // True when nothing was stored in the structure but in its field.
  static bool isFieldsOnly(const ReadOutcome &outcome) {
    return outcome.entries.size() > kStructure &&
           outcome.entries[kStructure].compare(0, kFieldOff, std::string(kFieldOff, kUntouched)) ==
               0;
  }
  // "" or what is wrong with reading `opening` and `tail` into a field of the type.
  static std::string fault(HostileReader &reader, const TypeRow &row, char opening,
                           const std::string &tail) {
    // What follows the structure is not read, but lets the field be looked at by words.
    const std::string text = kHeader + "(1<1" + opening + tail + ">)" + std::string(32, 'z');
    const ReadOutcome block = reader.readBlock(text);
    const ReadOutcome chain = reader.readChain(text, 1);
    const bool isOwn = row.openings.find(opening) != std::string_view::npos;
    for (const ReadOutcome *outcome : {&block, &chain}) {
      const std::string found = HostileReader::fault(*outcome);
      if (!found.empty()) return found;
      if (!isFieldsOnly(*outcome)) return "writes outside the field";
      if (outcome->status == 0 && !isOwn) return "takes an opening that is not the type's";
      if (outcome->status != 0 && outcome->records.empty()) return "fails without a record";
    }
    return HostileReader::difference(block, chain, text, 1);
  }

  static constexpr std::size_t kStructure = 2;  // after the entries of the reader's two tables
  static constexpr char kUntouched = static_cast<char>(FencedStorage::kFill);
  static inline const std::string kHeader = "(0000000000,0000000001)";
};

TEST_F(PortTypesTest, EveryOpeningOfEveryType) {
  for (unsigned type = 0; type <= UINT8_MAX; ++type) {
    const TypeRow row = typeRow(static_cast<std::uint8_t>(type));
    const Defs defs = defsOf(static_cast<std::uint8_t>(type));
    HostileReader reader(host, defs);
    for (const std::string &tail : tailsFor(row)) {
      for (unsigned opening = 0; opening <= UINT8_MAX; ++opening) {
        const std::string found = fault(reader, row, static_cast<char>(opening), tail);
        ASSERT_EQ(found, "") << "type " << type << ", opening " << opening << ", then " << tail;
      }
    }
  }
}

TEST_F(PortTypesTest, OwnOpeningsAreTaken) {
  for (std::uint8_t type = MEM_PORT_CHAR; type <= MEM_PORT_WPSTR; ++type) {
    const TypeRow row = typeRow(type);
    const Defs defs = defsOf(type);
    HostileReader reader(host, defs);
    for (std::size_t i = 0; i < row.openings.size(); ++i) {
      const std::string text = kHeader + "(1<1" + row.openings[i] + row.values[i] + ">)";
      EXPECT_EQ(reader.readBlock(text).status, 0) << text;
      EXPECT_EQ(reader.readChain(text, 1).status, 0) << text;
    }
  }
}

// A text that had an address of its choice stored beyond the entry.
TEST_F(PortTypesTest, ZeroByteOpensNothing) {
  Defs defs;
  defs.add(1, 1, {Field(1, MEM_PORT_BIT, 1, 0)});
  HostileReader reader(host, defs);
  const std::string text =
      "(0000000049,0000000001)(1<1" + std::string(1, '\0') + "3711635474432491074>)";
  ASSERT_EQ(text.size(), 49U);
  const ReadOutcome outcome = reader.readBlock(text);
  EXPECT_EQ(outcome.status, -1);
  EXPECT_TRUE(outcome.isWhole);
  EXPECT_EQ(outcome.entries.at(kStructure), std::string(1, kUntouched));
  EXPECT_EQ(messageHeads(outcome.records), (Lines{"Not a bit field!", "Field conversion failed!"}));
}

// Absent fields of every type at the end of a structure, alone and embedded at the end of another.
class PortTypesDefaultTest : public PortTypesTest {
 protected:
  static constexpr std::int32_t kEmbeddedOff = 8;

  PortTypesDefaultTest() : reader_(host, defs_) {}

  static Defs emptyDefs() {
    Defs defs;
    defs.add(1, kFieldOff, {Field(1, MEM_PORT_CHAR, 0, kFieldOff), Field(2, MEM_PORT_CHAR, 1, 0)});
    defs.add(2, 0, {Field(1, MEM_PORT_SUBSTRUCTURE, 0, kEmbeddedOff).of(1)});
    return defs;
  }

  static bool isNumber(std::uint8_t type) {
    return (type >= MEM_PORT_SHORT && type <= MEM_PORT_ULONG) || type == MEM_PORT_UBIGINT ||
           type == MEM_PORT_BIGINT;
  }
  static bool hasOwnLength(std::uint8_t type) {
    return isNumber(type) || type == MEM_PORT_PSTR || type == MEM_PORT_WPSTR;
  }
  // Bytes that the structure must have for the field to get its default.
  static std::int32_t needed(std::uint8_t type, std::int32_t length) {
    if (hasOwnLength(type)) return typeRow(type).length;
    return type == MEM_PORT_PNT ? std::max(typeRow(type).length, length) : length;
  }
  static bool isGiven(std::uint8_t type, std::int32_t length, std::int32_t room) {
    const std::int32_t least = type == MEM_PORT_WCHARSZ ? 2 : 1;
    return needed(type, length) <= room && (hasOwnLength(type) || length >= least);
  }

  void describe(std::uint8_t type, std::int32_t length, std::int32_t room) {
    MEMFieldDef &field = defs_.field(0, 0);
    field.Type = type;
    field.Length = length;
    field.Default.pWide = kText.c_str();
    if (isNumber(type)) field.Default.Long = 0x44444444;
    defs_.row(0).Length = kFieldOff + room;
    defs_.field(1, 0).Length = kFieldOff + room;
    defs_.row(1).Length = kEmbeddedOff + kFieldOff + room;
  }

  // "" or what is wrong with the structure at `offset` of the first entry.
  std::string fault(const std::string &text, std::size_t offset, bool given,
                    std::size_t neededBytes) {
    const ReadOutcome outcome = reader_.readBlock(kHeader + text);
    const std::string found = HostileReader::fault(outcome);
    if (!found.empty()) return found;
    if (outcome.status != 0) return "fails";
    const std::string &entry = outcome.entries.at(kStructure);
    const std::string before(offset, kUntouched);
    const std::string first = "x" + std::string(kFieldOff - 1, kUntouched);
    if (entry.compare(0, offset + kFieldOff, before + first) != 0) return "writes before the field";
    const std::string field = entry.substr(offset + kFieldOff);
    const std::size_t changed = field.find_last_not_of(kUntouched) + 1;
    if (changed > (given ? neededBytes : 0)) return "writes outside the field";
    return given == (changed > 0) ? "" : "gives no default";
  }

  void expectWithin(std::uint8_t type, std::int32_t length, std::int32_t room) {
    describe(type, length, room);
    const bool given = isGiven(type, length, room);
    const auto bytes = static_cast<std::size_t>(std::max(needed(type, length), 0));
    const auto place = [&] {
      return "type " + std::to_string(type) + ", length " + std::to_string(length) + ", room " +
             std::to_string(room);
    };
    ASSERT_EQ(fault("(1<2\"x\">)", 0, given, bytes), "") << place();
    ASSERT_EQ(fault("(2<1E(1<2\"x\">)>)", kEmbeddedOff, given, bytes), "") << place();
  }

  static constexpr std::int32_t kMost = 65535;
  // Text of both widths, and more bytes than any default here.
  static inline const std::u16string kText = std::u16string(kMost, u'\x4444');

 private:
  Defs defs_ = emptyDefs();
  HostileReader reader_;
};

TEST_F(PortTypesDefaultTest, StaysInTheStructure) {
  constexpr std::int32_t kLengths[] = {24, 0,  1,  2,  4,     7,         8,        9,
                                       16, 23, 25, -1, kMost, INT32_MIN, INT32_MAX};
  for (unsigned type = 0; type <= UINT8_MAX; ++type) {
    for (const std::int32_t length : kLengths) {
      std::vector<std::int32_t> rooms = {0, 1, 2, 3, 4, 7, 8, 23, 24};
      if (length > 24 && length <= kMost) rooms.insert(rooms.end(), {length - 1, length});
      for (const std::int32_t room : rooms) {
        expectWithin(static_cast<std::uint8_t>(type), length, room);
        if (HasFatalFailure()) return;
      }
    }
  }
}

}  // namespace
}  // namespace memtest
