// Definitions that programs write from their tables (mem/defs.hpp), as memtool reads them.

#include <cstring>
#include <fstream>
#include <span>

#include "catalog_model.hpp"
#include "memtooltest.hpp"
#include "port_defs.hpp"
#include "qj7mem00/mem/defs.hpp"
#include "refhost.hpp"

namespace memtest {
namespace {

using memtool::PortDefinitions;

std::filesystem::path fixture(const std::string &name) {
  return std::filesystem::path(MEM_FIXTURES) / name;
}

// The values of each structure in their order, without their names and without bytes that have
// none.
Json valuesOf(const Json &graph) {
  Json all = Json::array();
  for (const Json &structure : graph["structures"]) {
    Json values = Json::array();
    for (const auto &[name, value] : structure["fields"].items()) {
      if (!name.starts_with('+')) values.push_back(value);
    }
    all.push_back({structure["label"], values});
  }
  return all;
}

class MemtoolDefinitionsTest : public ToolTest {
 protected:
  static Json graphOf(const char *command, const std::string &file, const std::string &defs) {
    return Json::parse(outputOf({command, file, "--defs", defs, "--json"}));
  }
};

TEST_F(MemtoolDefinitionsTest, ChainOfTheCatalogueHasTheNamesOfItsMembers) {
  writeBytes("made.json", mem::definitionsJson(catalog::kPackTable,
                                               MEM_FIELD(catalog::PackageRecord, DependencyCount),
                                               MEM_FIELD(catalog::DependencyRecord, Flags)));
  const std::string chain = fixture("catalog-sample.chain").string();
  const Json graph = graphOf("chain", chain, "made.json");
  ASSERT_EQ(graph["structures"].size(), 72U);
  const Json &package = graph["structures"][0];
  EXPECT_EQ(package["structure"], "PackageRecord");
  EXPECT_EQ(package["fields"]["pName"], "base-files");
  EXPECT_EQ(package["fields"]["DependencyCount"], 1);
  EXPECT_EQ(package["fields"]["+44"], "00000000");
  const std::filesystem::path byHand = std::filesystem::path(MEM_EXAMPLES) / "catalog.chain.json";
  EXPECT_EQ(valuesOf(graph), valuesOf(graphOf("chain", chain, byHand.string())));
}

TEST_F(MemtoolDefinitionsTest, PortStringOfTheCatalogueHasTheNamesOfItsMembers) {
  writeBytes("made.json", mem::definitionsJson(catalog::kPortTable));
  const std::string file = fixture("catalog-sample.chain.port").string();
  const Json graph = graphOf("port", file, "made.json");
  const Json &package = graph["structures"][0];
  EXPECT_EQ(package["structure"], "PackageRecord");
  EXPECT_EQ(package["fields"]["pName"], "base-files");
  EXPECT_EQ(package["fields"]["DependencyCount"], 1);
  const std::string byHand = fixture("memtool/port/catalog.defs.json").string();
  EXPECT_EQ(valuesOf(graph), valuesOf(graphOf("port", file, byHand)));
}

// A port string's structures with every type, every option and every form of default.
enum class Colour : std::uint16_t { kRed = 7, kGreen = 0xFFFF };
struct Part {
  std::uint16_t number;
  std::uint8_t bytes[2];
};
struct Every {
  char chars[4];
  char text[4];
  const char *pText;
  std::byte bytes[3];
  std::uint8_t flags;
  std::int16_t s;
  std::uint16_t us;
  std::int32_t l;
  std::uint32_t ul;
  Part *pPart;
  Part part;
  Colour colour;
  std::uint64_t ub;
  std::int64_t b;
  char16_t wide[2];
  char16_t wideText[4];
  char16_t *pWide;
  char latin[4];
  Part plain;
  Part *pPlain;
};
inline constexpr Part kPart{0x0909, {8, 7}};
inline constexpr char kStars[4] = {'*', '"', '\\', '*'};
inline constexpr std::byte kBytes[3] = {std::byte{0}, std::byte{0xAB}, std::byte{0x0C}};
inline constexpr std::uint8_t kFlags = 0x81;
inline constexpr char16_t kUnits[2] = {u'a', u'\u00E9'};
inline constexpr mem::PortTable kEvery{
    mem::structure<Every, 5>(
        mem::fieldAs<1, MEM_PORT_CHAR>(MEM_FIELD(Every, chars)).defaultBytes(&kStars),
        mem::field<2>(MEM_FIELD(Every, text)).defaultText("abc").noTruncate(),
        mem::field<3>(MEM_FIELD(Every, pText)).defaultText("a\nb"),
        mem::field<4>(MEM_FIELD(Every, bytes)).defaultBytes(&kBytes),
        mem::field<5>(MEM_FIELD(Every, s)).defaultNumber<-5>(),
        mem::field<6>(MEM_FIELD(Every, us)).defaultNumber<65535>(),
        mem::field<7>(MEM_FIELD(Every, l)).defaultNumber<-70000>(),
        mem::field<8>(MEM_FIELD(Every, ul)).defaultNumber<4000000000U>(),
        mem::field<9>(MEM_FIELD(Every, pPart)).required(),
        mem::field<10>(MEM_FIELD(Every, part)).defaultBytes(&kPart),
        mem::fieldAs<11, MEM_PORT_BIT>(MEM_FIELD(Every, flags)).defaultBytes(&kFlags),
        mem::field<12>(MEM_FIELD(Every, ub)), mem::field<13>(MEM_FIELD(Every, b)).required(),
        mem::fieldAs<14, MEM_PORT_WCHAR>(MEM_FIELD(Every, wide)).defaultBytes(&kUnits),
        mem::field<15>(MEM_FIELD(Every, wideText)).defaultText(u"w\"x"),
        mem::field<16>(MEM_FIELD(Every, pWide)).defaultText(u"\xD834"),
        mem::field<17>(MEM_FIELD(Every, colour)).notPorted().defaultNumber<Colour::kGreen>(),
        mem::field<18>(MEM_FIELD(Every, latin)).defaultText("\xE9"),
        mem::field<20>(MEM_FIELD(Every, plain)), mem::field<21>(MEM_FIELD(Every, pPlain))),
    mem::structure<Part, 2>(mem::field<1>(MEM_FIELD(Part, number)),
                            mem::field<2>(MEM_FIELD(Part, bytes)))};

// Repeat fields, alternatives, members of members, and a structure with a name that another has.
namespace other {
struct Part {
  std::int16_t length;
  memtest::Part element;
};
}  // namespace other
struct Counts {
  std::uint32_t count;
  union {
    std::int32_t number;
    char text[4];
  } choice;
  std::uint16_t elements[1];
};
inline constexpr mem::PortTable kRepeats{
    mem::structure<Counts, 1>(mem::field<1>(MEM_FIELD(Counts, choice.number)),
                              mem::field<2>(MEM_FIELD(Counts, choice.text)),
                              mem::field<3>(MEM_FIELD(Counts, count)),
                              mem::repeatedField<4, 3>(MEM_FIELD(Counts, elements))),
    mem::structure<other::Part, 2>(
        mem::field<1>(MEM_FIELD(other::Part, length)),
        mem::repeatedFieldByLength<2, 1>(MEM_FIELD(other::Part, element))),
    mem::structure<Part, 3>(mem::field<1>(MEM_FIELD(Part, number)),
                            mem::field<7>(mem::Member<Part, std::uint8_t[2], 2>()))};

void expectSameDefault(const MEMFieldDef &made, const MEMFieldDef &field) {
  switch (field.Type) {
    case MEM_PORT_CHARSZ:
    case MEM_PORT_PSTR:
      ASSERT_EQ(made.Default.pText != nullptr, field.Default.pText != nullptr);
      if (made.Default.pText == nullptr) return;
      EXPECT_STREQ(made.Default.pText, field.Default.pText);
      return;
    case MEM_PORT_WCHARSZ:
    case MEM_PORT_WPSTR: {
      ASSERT_EQ(made.Default.pWide != nullptr, field.Default.pWide != nullptr);
      if (made.Default.pWide == nullptr) return;
      EXPECT_EQ(std::u16string(made.Default.pWide), std::u16string(field.Default.pWide));
      return;
    }
    case MEM_PORT_SHORT:
    case MEM_PORT_USHORT:
      EXPECT_EQ(made.Default.Short, field.Default.Short);
      return;
    case MEM_PORT_LONG:
    case MEM_PORT_ULONG:
      EXPECT_EQ(made.Default.Long, field.Default.Long);
      return;
    case MEM_PORT_PNT:  // null, with and without one
      return;
    default:
      ASSERT_EQ(made.Default.pBytes != nullptr, field.Default.pBytes != nullptr);
      if (made.Default.pBytes == nullptr) return;
      EXPECT_EQ(std::memcmp(made.Default.pBytes, field.Default.pBytes,
                            static_cast<std::size_t>(field.Length)),
                0);
  }
}

void expectSameField(const MEMFieldDef &made, const MEMFieldDef &field) {
  EXPECT_EQ(made.FieldID, field.FieldID);
  EXPECT_EQ(made.Type, field.Type);
  EXPECT_EQ(made.Offset, field.Offset);
  EXPECT_EQ(made.Length, field.Length);
  EXPECT_EQ(made.SubStructID, field.SubStructID);
  EXPECT_EQ(made.Required, field.Required);
  EXPECT_EQ(made.NoTruncate, field.NoTruncate);
  EXPECT_EQ(made.NotPorted, field.NotPorted);
  expectSameDefault(made, field);
}

// What memtool makes of the JSON is the table again.
void expectSameTable(const std::string &json, const MEMStructDef *defs) {
  const PortDefinitions definitions("made.json", json);
  const MEMStructDef *made = definitions.table();
  for (; defs->StructID != 0; ++defs, ++made) {
    SCOPED_TRACE(defs->StructID);
    ASSERT_EQ(made->StructID, defs->StructID);
    EXPECT_EQ(made->Length, defs->Length);
    EXPECT_EQ(made->CountField, defs->CountField);
    EXPECT_EQ(made->CountIsLength, defs->CountIsLength);
    ASSERT_EQ(made->FieldCount, defs->FieldCount);
    for (std::int32_t i = 0; i < defs->FieldCount; ++i) {
      SCOPED_TRACE(defs->Fields[i].FieldID);
      expectSameField(made->Fields[i], defs->Fields[i]);
    }
  }
  EXPECT_EQ(made->StructID, 0U);
}

TEST(DefinitionsOfPortTables, SayWhatTheTableSays) {
  expectSameTable(mem::definitionsJson(kEvery), kEvery.table());
  expectSameTable(mem::definitionsJson(kRepeats), kRepeats.table());
  expectSameTable(mem::definitionsJson(catalog::kPortTable), catalog::kPortTable.table());
}

TEST(DefinitionsOfPortTables, HaveARowForEachType) {
  const Json json = Json::parse(mem::definitionsJson(kEvery));
  const Json &every = json["structures"][0];
  EXPECT_EQ(every["name"], "Every");
  EXPECT_EQ(every["id"], 5);
  const Json wanted = Json::parse(R"([
    {"id": 1, "name": "chars", "type": "Char", "offset": 0, "length": 4, "default": "*\"\\*"},
    {"id": 2, "name": "text", "type": "CharSZ", "offset": 4, "length": 4, "noTruncate": true,
     "default": "abc"},
    {"id": 3, "name": "pText", "type": "PStr", "offset": 8, "default": {"hex": "610A62"}},
    {"id": 4, "name": "bytes", "type": "Bin", "offset": 16, "length": 3, "default": "00AB0C"},
    {"id": 5, "name": "s", "type": "Short", "offset": 20, "default": -5},
    {"id": 6, "name": "us", "type": "UShort", "offset": 22, "default": 65535},
    {"id": 7, "name": "l", "type": "Long", "offset": 24, "default": -70000},
    {"id": 8, "name": "ul", "type": "ULong", "offset": 28, "default": 4000000000},
    {"id": 9, "name": "pPart", "type": "Pnt", "offset": 32, "structure": "Part", "required": true},
    {"id": 10, "name": "part", "type": "Substructure", "offset": 40, "structure": "Part",
     "default": "09090807"},
    {"id": 11, "name": "flags", "type": "Bit", "offset": 19, "default": 129},
    {"id": 12, "name": "ub", "type": "UBigInt", "offset": 48},
    {"id": 13, "name": "b", "type": "BigInt", "offset": 56, "required": true},
    {"id": 14, "name": "wide", "type": "WChar", "offset": 64, "length": 4,
     "default": {"units": [97, 233]}},
    {"id": 15, "name": "wideText", "type": "WCharSZ", "offset": 68, "length": 8,
     "default": "w\"x"},
    {"id": 16, "name": "pWide", "type": "WPStr", "offset": 80, "default": {"units": [55348]}},
    {"id": 17, "name": "colour", "type": "UShort", "offset": 44, "notPorted": true,
     "default": 65535},
    {"id": 18, "name": "latin", "type": "CharSZ", "offset": 88, "length": 4,
     "default": {"hex": "E9"}},
    {"id": 20, "name": "plain", "type": "Substructure", "offset": 92, "structure": "Part",
     "default": "00000000"},
    {"id": 21, "name": "pPlain", "type": "Pnt", "offset": 96, "structure": "Part"}])");
  ASSERT_EQ(every["fields"].size(), wanted.size());
  for (std::size_t i = 0; i < wanted.size(); ++i) EXPECT_EQ(every["fields"][i], wanted[i]);
}

TEST(DefinitionsOfPortTables, NamesAreDistinct) {
  const Json json = Json::parse(mem::definitionsJson(kRepeats));
  const Json &counts = json["structures"][0];
  EXPECT_EQ(counts["name"], "Counts");
  EXPECT_EQ(counts["countField"], "count");
  EXPECT_FALSE(counts.contains("countIsLength"));
  EXPECT_EQ(counts["fields"][0]["name"], "choice.number");
  EXPECT_EQ(counts["fields"][3]["name"], "elements");
  const Json &part = json["structures"][1];
  EXPECT_EQ(part["name"], "Part");
  EXPECT_EQ(part["countField"], "length");
  EXPECT_EQ(part["countIsLength"], true);
  EXPECT_EQ(part["fields"][1]["structure"], "Part_3");
  EXPECT_EQ(json["structures"][2]["name"], "Part_3");
  EXPECT_EQ(json["structures"][2]["fields"][1]["name"], "field7") << "a member without a name";
}

// Segments of every form, and members of every type.
struct Tail;
struct Sized;
enum class Small : std::int8_t { kLow = -3 };
struct Plain {
  Plain *pNext;
  char *pText;
  char16_t *pWide;
  Tail *pTail;
  Sized *pSized;
  Plain *pOther;
  signed char sbyte;
  std::uint8_t ubyte;
  bool flag;
  Small small;
  std::int16_t shortNumber;
  std::uint16_t ushortNumber;
  std::int32_t longNumber;
  std::uint32_t ulongNumber;
  std::int64_t bigint;
  std::uint64_t ubigint;
  float ratio;
  Colour colour;
  char letter;
  std::byte single;
  double exact;
  char name[6];
  char16_t unit;
  char16_t wideName[4];
  std::uint8_t bytes[3];
  char names[2][3];
  std::int16_t numbers[3];
  Part part;
  std::uint32_t unlisted;
};
struct Tail {
  std::int16_t length;
  std::uint16_t kind;
  std::uint32_t first;
  Plain *pOwner;
  std::uint8_t rest[2];
};
struct Sized {
  std::uint16_t length;
  std::uint16_t kind;
  std::uint32_t numbers[1];
};
inline constexpr auto kSegments = mem::packTable(
    mem::segment<Plain>(mem::sibling(MEM_FIELD(Plain, pNext)), mem::child(MEM_FIELD(Plain, pText)),
                        mem::child(MEM_FIELD(Plain, pWide)), mem::child(MEM_FIELD(Plain, pTail)),
                        mem::child(MEM_FIELD(Plain, pSized)),
                        mem::reference(MEM_FIELD(Plain, pOther))),
    mem::countedSegment(MEM_FIELD(Tail, length), mem::reference(MEM_FIELD(Tail, pOwner))),
    mem::selfSizedSegment<'D'>(MEM_FIELD(Sized, length)));

std::string segmentsJson() {
  return mem::definitionsJson(
      kSegments, MEM_FIELD(Plain, part), MEM_FIELD(Plain, sbyte), MEM_FIELD(Plain, ubyte),
      MEM_FIELD(Plain, flag), MEM_FIELD(Plain, small), MEM_FIELD(Plain, shortNumber),
      MEM_FIELD(Plain, ushortNumber), MEM_FIELD(Plain, longNumber), MEM_FIELD(Plain, ulongNumber),
      MEM_FIELD(Plain, bigint), MEM_FIELD(Plain, ubigint), MEM_FIELD(Plain, ratio),
      MEM_FIELD(Plain, colour), MEM_FIELD(Plain, letter), MEM_FIELD(Plain, single),
      MEM_FIELD(Plain, exact), MEM_FIELD(Plain, name), MEM_FIELD(Plain, unit),
      MEM_FIELD(Plain, wideName), MEM_FIELD(Plain, bytes), MEM_FIELD(Plain, names),
      MEM_FIELD(Plain, numbers), MEM_FIELD(Tail, length), MEM_FIELD(Tail, kind),
      mem::toEnd(MEM_FIELD(Tail, rest)), mem::toEnd(MEM_FIELD(Sized, numbers)),
      MEM_FIELD(Sized, kind));
}

TEST(DefinitionsOfPackTables, HaveARowForEachKindAndType) {
  const Json wanted = Json::parse(R"({"structures": [
    {"id": 1, "name": "Plain", "length": 136, "next": "pNext", "fields": [
      {"id": 1, "name": "pNext", "type": "Pnt", "offset": 0, "structure": "Plain"},
      {"id": 2, "name": "pText", "type": "PStr", "offset": 8},
      {"id": 3, "name": "pWide", "type": "WPStr", "offset": 16},
      {"id": 4, "name": "pTail", "type": "Pnt", "offset": 24, "structure": "Tail"},
      {"id": 5, "name": "pSized", "type": "Pnt", "offset": 32, "structure": "Sized"},
      {"id": 6, "name": "pOther", "type": "Pnt", "offset": 40, "structure": "Plain",
       "reference": true},
      {"id": 7, "name": "sbyte", "type": "SByte", "offset": 48},
      {"id": 8, "name": "ubyte", "type": "UByte", "offset": 49},
      {"id": 9, "name": "flag", "type": "UByte", "offset": 50},
      {"id": 10, "name": "small", "type": "SByte", "offset": 51},
      {"id": 11, "name": "shortNumber", "type": "Short", "offset": 52},
      {"id": 12, "name": "ushortNumber", "type": "UShort", "offset": 54},
      {"id": 13, "name": "longNumber", "type": "Long", "offset": 56},
      {"id": 14, "name": "ulongNumber", "type": "ULong", "offset": 60},
      {"id": 15, "name": "bigint", "type": "BigInt", "offset": 64},
      {"id": 16, "name": "ubigint", "type": "UBigInt", "offset": 72},
      {"id": 17, "name": "ratio", "type": "Float", "offset": 80},
      {"id": 18, "name": "colour", "type": "UShort", "offset": 84},
      {"id": 19, "name": "letter", "type": "Char", "offset": 86, "length": 1},
      {"id": 20, "name": "single", "type": "UByte", "offset": 87},
      {"id": 21, "name": "exact", "type": "Double", "offset": 88},
      {"id": 22, "name": "name", "type": "CharSZ", "offset": 96, "length": 6},
      {"id": 23, "name": "unit", "type": "WChar", "offset": 102, "length": 2},
      {"id": 24, "name": "wideName", "type": "WCharSZ", "offset": 104, "length": 8},
      {"id": 25, "name": "bytes", "type": "Bin", "offset": 112, "length": 3},
      {"id": 26, "name": "names", "type": "Bin", "offset": 115, "length": 6},
      {"id": 27, "name": "numbers", "type": "Short", "offset": 122, "count": 3},
      {"id": 28, "name": "part", "type": "Bin", "offset": 128, "length": 4}]},
    {"id": 2, "name": "Tail", "segment": "C", "length": 24, "fields": [
      {"id": 1, "name": "length", "type": "Short", "offset": 0},
      {"id": 2, "name": "kind", "type": "UShort", "offset": 2},
      {"id": 3, "name": "pOwner", "type": "Pnt", "offset": 8, "structure": "Plain",
       "reference": true},
      {"id": 4, "name": "rest", "type": "Bin", "offset": 16}]},
    {"id": 3, "name": "Sized", "segment": "D", "length": 8, "fields": [
      {"id": 1, "name": "kind", "type": "UShort", "offset": 2},
      {"id": 2, "name": "numbers", "type": "ULong", "offset": 4, "toEnd": true}]}]})");
  const Json made = Json::parse(segmentsJson());
  ASSERT_EQ(made["structures"].size(), wanted["structures"].size());
  for (std::size_t i = 0; i < wanted["structures"].size(); ++i) {
    EXPECT_EQ(made["structures"][i], wanted["structures"][i]);
  }
}

// A chain that the library packs with the table, read with the table's definitions.
TEST_F(MemtoolDefinitionsTest, PackedMembersComeBackByName) {
  struct alignas(8) {
    Sized head{16, 9, {7}};
    std::uint32_t more[2] = {8, 0xFFFFFFFF};
  } sized;
  Plain plain{};
  struct alignas(8) {
    Tail tail{16, 3, 0, nullptr, {0xA1}};
  } counted;
  char text[] = "text";
  char16_t wide[] = u"w\u00E9";
  plain.pText = text;
  plain.pWide = wide;
  plain.pTail = &counted.tail;
  plain.pSized = &sized.head;
  plain.pOther = &plain;
  counted.tail.pOwner = &plain;
  plain.small = Small::kLow;
  plain.flag = true;
  plain.ubigint = 0xFFFFFFFFFFFFFFFF;
  plain.ratio = 0.5F;
  plain.colour = Colour::kGreen;
  plain.letter = 'x';
  std::memcpy(plain.name, "abc", 4);
  plain.unit = u'\u00E9';
  plain.wideName[0] = u'z';
  plain.numbers[2] = -4;
  plain.part = kPart;
  {
    const refhost::Library library(refhost::Library::besideProgram());
    refhost::Session session(library.bindEntry());
    const mem::Context context = mem::contextOf(session.host());
    auto chain = mem::PackedChain::pack(context, kSegments, plain);
    ASSERT_TRUE(chain.isOk()) << chain.error().line().text;
    std::string file;
    for (const std::span<const std::byte> used : chain.value()) {
      file.append(reinterpret_cast<const char *>(used.data()), used.size());
    }
    writeBytes("made.chain", file);
  }
  writeBytes("made.json", segmentsJson());
  const Json graph = graphOf("chain", "made.chain", "made.json");
  const Json wanted = Json::parse(R"({
    "pText": "text", "pWide": "wé", "pOther": "1", "small": -3, "flag": 1,
    "ubigint": "18446744073709551615", "ratio": 0.5, "colour": 65535, "letter": "x",
    "name": "abc", "unit": "é", "wideName": "z", "numbers": [0, 0, -4], "part": "09090807",
    "single": 0, "pNext": null})");
  const Json &fields = graph["structures"][0]["fields"];
  for (const auto &[name, value] : wanted.items()) {
    EXPECT_EQ(fields[name], value) << name;
  }
  const Json &tail = graph["structures"][1];
  EXPECT_EQ(tail["structure"], "Tail");
  EXPECT_EQ(tail["fields"]["pOwner"], "1");
  EXPECT_EQ(tail["fields"]["kind"], 3);
  EXPECT_EQ(tail["fields"]["rest"], "A100");
  const Json &numbers = graph["structures"][2];
  EXPECT_EQ(numbers["structure"], "Sized");
  EXPECT_EQ(numbers["fields"]["numbers"], Json::parse("[7, 8, 4294967295]"));
}

// A default with a pointer is an address of this program, which means nothing to others.
struct Label {
  const char *pText;
  std::int64_t number;
};
struct Sign {
  Label label;
};
struct Street {
  Sign sign;
};
inline constexpr Street kStreet{{{"north", 5}}};
inline constexpr Sign kBlank{{nullptr, 5}};
struct Streets {
  Street street;
  Sign blank;
};
inline constexpr mem::PortTable kStreets{
    mem::structure<Streets, 1>(mem::field<1>(MEM_FIELD(Streets, street)).defaultBytes(&kStreet),
                               mem::field<2>(MEM_FIELD(Streets, blank)).defaultBytes(&kBlank)),
    mem::structure<Street, 2>(mem::field<1>(MEM_FIELD(Street, sign))),
    mem::structure<Sign, 3>(mem::field<1>(MEM_FIELD(Sign, label))),
    mem::structure<Label, 4>(mem::field<1>(MEM_FIELD(Label, pText)),
                             mem::field<2>(MEM_FIELD(Label, number)))};

TEST_F(MemtoolDefinitionsTest, DefaultsWithPointersAreLeftOut) {
  const Json fields = Json::parse(mem::definitionsJson(kStreets))["structures"][0]["fields"];
  EXPECT_FALSE(fields[0].contains("default")) << fields[0];
  EXPECT_EQ(fields[1]["default"], "00000000000000000500000000000000");
}

// What `memtool defs` writes of definitions that it finds valid.
class MemtoolDefsTest : public MemtoolDefinitionsTest {};

TEST_F(MemtoolDefsTest, WritesWhatProgramsWriteAgain) {
  const std::string all[] = {mem::definitionsJson(kEvery), mem::definitionsJson(kRepeats),
                             mem::definitionsJson(catalog::kPortTable),
                             mem::definitionsJson(catalog::kPackTable), segmentsJson()};
  for (const std::string &json : all) {
    writeBytes("made.json", json);
    EXPECT_EQ(outputOf({"defs", "made.json"}), json);
  }
}

TEST_F(MemtoolDefsTest, OrdersKeysAndLeavesOutWhatSaysNothing) {
  writeBytes("wild.json", R"({"structures": [{"fields": [{"offset": 0, "type": 7, "id": 1,
    "required": false, "default": null, "name": "n"}, {"length": 3, "offset": 4, "id": 2,
    "type": "CharSZ", "default": {"hex": "E9"}}], "length": 8, "countField": null, "id": 4}]})");
  EXPECT_EQ(outputOf({"defs", "wild.json"}), R"({
  "structures": [
    {
      "id": 4, "length": 8,
      "fields": [
        {"id": 1, "name": "n", "type": "Long", "offset": 0},
        {"id": 2, "type": "CharSZ", "offset": 4, "length": 3, "default": {"hex": "E9"}}
      ]
    }
  ]
}
)");
  writeBytes("chain.json", R"({"structures": [{"id": 1, "fields": [{"id": 1, "offset": 0,
    "type": "PStr"}], "length": 8, "segment": "F"}, {"segment": "S", "id": 2}], "pointers": 8})");
  EXPECT_EQ(outputOf({"defs", "chain.json"}), R"({
  "pointers": 8,
  "structures": [
    {
      "id": 1, "length": 8,
      "fields": [
        {"id": 1, "type": "PStr", "offset": 0}
      ]
    },
    {
      "id": 2, "segment": "S"
    }
  ]
}
)");
}

TEST_F(MemtoolDefsTest, FaultsHaveTheirPlace) {
  struct Row {
    const char *json;
    const char *what;
    const char *subject;
  };
  const Row rows[] = {
      {"{\n \"structures\": []}", "no structure is defined", ""},
      {"{\n \"structures\": [}", "line 2, column 17", ""},
      {"[]", "line 1, column 1", ""},
      {"{\"structures\": [{\"id\": 1,\n\"length\": 4, \"fields\": 7}]}", "line 2, column 24", ""},
      {"{\"structures\": [{\"id\": 1, \"next\": 5,\n\"length\": 4, \"fields\": 7}]}",
       "line 2, column 24", ""},
      {"{\"structures\": 5}", "line 1, column 16", ""},
      {"{\"structures\": [{\"id\": 1, \"length\": 4, \"fields\": [\n{\"id\": 1, \"offset\": 2, "
       "\"type\": \"Float\"}]}]}",
       "line 2, column", ""},
      {"{\"structures\": [{\"id\": 1, \"length\": 4, \"fields\": [\n{\"id\": 1, \"offset\": 0, "
       "\"type\": \"Bit\", \"count\": 2}]}]}",
       "line 2, column", ""},
      {"{\"pointers\": 8, \"structures\": [{\"id\": 1, \"length\": 4, \"fields\": []}]}",
       "line 1, column 1", "port"},
      {"{\"structures\": [{\"id\": 1, \"length\": 4, \"countField\": 1, \"fields\": []}]}",
       "line 1, column", "chain"}};
  for (const Row &row : rows) {
    SCOPED_TRACE(row.json);
    writeBytes("wrong.json", row.json);
    std::vector<std::string> words{"defs", "wrong.json"};
    if (*row.subject != 0) words.insert(words.end(), {"--for", row.subject});
    expectRefused(memtool::kExitFault, row.what, words);
    EXPECT_EQ(runTool(words).out, "");
  }
  const std::size_t deep = 200000;
  for (const std::string key : {"default", "required"}) {
    writeBytes("deep.json", R"({"structures": [{"id": 1, "segment": "F", "length": 8, "fields": [
      {"id": 1, "type": "Bit", "offset": 0, ")" +
                                key + "\": " + std::string(deep, '[') + std::string(deep, ']') +
                                "}]}]}");
    expectRefused(memtool::kExitFault, "nested too deeply for a field (line 2, column",
                  {"defs", "deep.json"});
  }
  expectRefused(memtool::kExitFile, "absent.json", {"defs", "absent.json"});
  expectRefused(memtool::kExitUsage, "--for", {"defs", "wrong.json", "--for", "heap"});
  expectRefused(memtool::kExitUsage, "FILE", {"defs"});
}

}  // namespace
}  // namespace memtest
