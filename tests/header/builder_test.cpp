// Tables made from members: equal to tables written by hand, proved by the compiler, and of use for
// packing and for port strings.
#include <array>
#include <cstring>
#include <string>
#include <string_view>

#include "catalog_model.hpp"
#include "conveniencetest.hpp"

namespace memtest {
namespace {

// --- Control blocks ----------------------------------------------------------------------------

constexpr bool isEqual(const MemPackDescriptor &left, const MemPackDescriptor &right) {
  bool equal = left.Type == right.Type && left.FixedLen == right.FixedLen &&
               left.SiblingOff == right.SiblingOff && left.ChildCount == right.ChildCount &&
               left.ReferenceCount == right.ReferenceCount;
  for (int i = 0; i < MEM_PACK_MAX_CHILDREN; ++i) {
    equal = equal && left.Children[i].Descriptor == right.Children[i].Descriptor &&
            left.Children[i].Offset == right.Children[i].Offset;
  }
  for (int i = 0; i < MEM_PACK_MAX_REFERENCES; ++i) {
    equal = equal && left.References[i] == right.References[i];
  }
  return equal;
}

constexpr MemPackDescriptor textDescriptor(std::uint16_t type) {
  MemPackDescriptor descriptor{};
  descriptor.Type = type;
  descriptor.SiblingOff = MEM_PACK_NO_SIBLING;
  return descriptor;
}

// The control block of the packed chain's manual, by hand.
constexpr MemPackDescriptor itemDescriptor() {
  MemPackDescriptor item{};
  item.Type = MEM_PACK_FIXED;
  item.FixedLen = 32;
  item.SiblingOff = 0;
  item.ChildCount = 2;
  item.Children[0] = {1, 8};
  item.Children[1] = {2, 16};
  item.ReferenceCount = 1;
  item.References[0] = 24;
  return item;
}

static_assert(kItems.count() == 3 && kItems.controlBlock().Count == 3);
static_assert(isEqual(kItems.descriptor(0), itemDescriptor()));
static_assert(isEqual(kItems.descriptor(1), textDescriptor(MEM_PACK_STRING)));
static_assert(isEqual(kItems.descriptor(2), textDescriptor(MEM_PACK_WIDE_STRING)));

// The catalogue's, by hand.
MemPackCB catalogueByHand() {
  using catalog::DependencyRecord;
  using catalog::PackageRecord;
  MemPackCB packCB{};
  packCB.Count = 4;
  packCB.Descriptors[0] = {MEM_PACK_FIXED,
                           48,
                           0,
                           4,
                           0,
                           {{2, offsetof(PackageRecord, pName)},
                            {2, offsetof(PackageRecord, pVersion)},
                            {3, offsetof(PackageRecord, pSummary)},
                            {1, offsetof(PackageRecord, pFirstDependency)}},
                           {}};
  packCB.Descriptors[1] = {
      MEM_PACK_FIXED,
      40,
      0,
      2,
      1,
      {{2, offsetof(DependencyRecord, pName)}, {2, offsetof(DependencyRecord, pConstraint)}},
      {offsetof(DependencyRecord, pPackage)}};
  packCB.Descriptors[2] = textDescriptor(MEM_PACK_STRING);
  packCB.Descriptors[3] = textDescriptor(MEM_PACK_WIDE_STRING);
  return packCB;
}

TEST(PackTableTest, IsByteForByteTheOneWrittenByHand) {
  const MemPackCB expected = catalogueByHand();
  const MemPackCB &actual = catalog::kPackTable.controlBlock();
  EXPECT_EQ(changedRanges(bytesOf(&actual, sizeof actual), bytesOf(&expected, sizeof expected)),
            "");
}

// Counted and self-sized segments, embedded members, elements of arrays.
struct Counted {
  std::int16_t count;
  char bytes[6];
};
struct Sized {
  std::uint16_t length;
  std::uint16_t data[3];
  Sized *pNext;
};
struct Whole {
  struct {
    Counted *pCounted;
    const Sized *pSized[2];
  } inner;
  Whole *pSelf;
};

constexpr auto kMixed = mem::packTable(
    mem::segment<Whole>(mem::child(MEM_FIELD(Whole, inner.pCounted)),
                        mem::child(MEM_FIELD(Whole, inner.pSized[1])),
                        mem::reference(MEM_FIELD(Whole, pSelf))),
    mem::countedSegment(MEM_FIELD(Counted, count)),
    mem::selfSizedSegment<'D'>(MEM_FIELD(Sized, length), mem::sibling(MEM_FIELD(Sized, pNext))));

static_assert(kMixed.count() == 3);
static_assert(kMixed.descriptor(0).Children[0].Descriptor == 1);
static_assert(kMixed.descriptor(0).Children[1].Descriptor == 2);
static_assert(kMixed.descriptor(0).Children[1].Offset == 16);
static_assert(kMixed.descriptor(0).SiblingOff == MEM_PACK_NO_SIBLING);
static_assert(kMixed.descriptor(0).References[0] == 24);
static_assert(kMixed.descriptor(1).Type == MEM_PACK_COUNTED && kMixed.descriptor(1).FixedLen == 0);
static_assert(kMixed.descriptor(2).Type == 'D' && kMixed.descriptor(2).SiblingOff == 8);

using PackTableRoundTrip = ConvenienceTest;

TEST_F(PackTableRoundTrip, SegmentsOfEveryFormComeBack) {
  Counted counted{3, {'a', 'b', 'c', 0, 0, 0}};
  Sized last{16, {4, 5, 6}, nullptr};
  Sized first{16, {1, 2, 3}, &last};
  Whole whole{{&counted, {nullptr, &first}}, nullptr};
  whole.pSelf = &whole;
  mem::PackedChain chain = taken(mem::PackedChain::pack(context, kMixed, whole));
  const Whole *const root = taken(chain.unpack(kMixed));
  const Whole back = mem::readRecord(root);
  EXPECT_EQ(back.pSelf, root);
  EXPECT_EQ(std::memcmp(back.inner.pCounted, &counted, 5), 0);
  const Sized firstBack = mem::readRecord(back.inner.pSized[1]);
  EXPECT_EQ(firstBack.data[2], 3U);
  EXPECT_EQ(mem::readRecord(firstBack.pNext).data[0], 4U);
}

// More kinds than the record declares.
template <int kNumber>
struct Link {
  Link<kNumber + 1> *pNext;
  std::uint32_t number;
};
template <>
struct Link<11> {
  const char *pName;
};

template <int... kNumbers>
constexpr auto tableOfLinks(std::integer_sequence<int, kNumbers...>) {
  return mem::packTable(
      mem::segment<Link<kNumbers>>(mem::child(MEM_FIELD(Link<kNumbers>, pNext)))...,
      mem::segment<Link<11>>(mem::child(MEM_FIELD(Link<11>, pName))));
}
constexpr auto kLinks = tableOfLinks(std::make_integer_sequence<int, 11>());
static_assert(kLinks.count() == 13);
static_assert(sizeof(mem::detail::PackStorage<5>) == MEM_PACK_CB_LEN(13));
static_assert(kLinks.descriptor(8).Children[0].Descriptor == 9);
static_assert(kLinks.descriptor(11).Children[0].Descriptor == 12);
static_assert(kLinks.descriptor(12).Type == MEM_PACK_STRING);

const char *nameBehind(const Link<11> *link) {
  return mem::readRecord(link).pName;
}
template <int kNumber>
const char *nameBehind(const Link<kNumber> *link) {
  EXPECT_EQ(mem::readRecord(link).number, static_cast<std::uint32_t>(kNumber));
  return nameBehind(mem::readRecord(link).pNext);
}

TEST_F(PackTableRoundTrip, DescriptorsBehindTheRecordCount) {
  Link<11> l11{"the end"};
  Link<10> l10{&l11, 10};
  Link<9> l9{&l10, 9};
  Link<8> l8{&l9, 8};
  Link<7> l7{&l8, 7};
  Link<6> l6{&l7, 6};
  Link<5> l5{&l6, 5};
  Link<4> l4{&l5, 4};
  Link<3> l3{&l4, 3};
  Link<2> l2{&l3, 2};
  Link<1> l1{&l2, 1};
  const Link<0> l0{&l1, 0};
  mem::PackedChain chain = taken(mem::PackedChain::pack(context, kLinks, l0));
  EXPECT_STREQ(nameBehind(taken(chain.unpack(kLinks))), "the end");
}

// --- Structure definitions ---------------------------------------------------------------------

constexpr bool isField(const MEMFieldDef &def, std::uint32_t id, MEMFieldType type,
                       std::int32_t length, std::int32_t offset, std::uint32_t target = 0) {
  return def.FieldID == id && def.Type == type && def.Length == length && def.Offset == offset &&
         def.SubStructID == target && def.NotPorted == 0 && def.NoTruncate == 0;
}

// The worked example of the port strings' manual.
struct Part {
  std::uint16_t number;
  std::uint8_t bytes[2];
};
struct Order {
  std::int32_t amount;
  char code[8];
  Part *first;
};
inline constexpr mem::PortTable kOrders{
    mem::structure<Order, 12>(mem::field<1>(MEM_FIELD(Order, amount)),
                              mem::field<2>(MEM_FIELD(Order, code)),
                              mem::field<3>(MEM_FIELD(Order, first))),
    mem::structure<Part, 7>(mem::field<1>(MEM_FIELD(Part, number)),
                            mem::field<2>(MEM_FIELD(Part, bytes)))};

constexpr const MEMStructDef *kOrderDefs = kOrders.table();
static_assert(kOrderDefs[0].StructID == 12 && kOrderDefs[0].Length == 24 &&
              kOrderDefs[0].CountField == MEM_PORT_NO_COUNT && kOrderDefs[0].FieldCount == 3 &&
              kOrderDefs[0].CountIsLength == 0);
static_assert(isField(kOrderDefs[0].Fields[0], 1, MEM_PORT_LONG, 4, 0));
static_assert(isField(kOrderDefs[0].Fields[1], 2, MEM_PORT_CHARSZ, 8, 4));
static_assert(isField(kOrderDefs[0].Fields[2], 3, MEM_PORT_PNT, 8, 16, 7));
static_assert(kOrderDefs[1].StructID == 7 && kOrderDefs[1].Length == 4);
static_assert(isField(kOrderDefs[1].Fields[1], 2, MEM_PORT_BIN, 2, 2));
static_assert(kOrderDefs[2].StructID == 0);
static_assert(kOrders.idOf<Part>() == 7 && kOrders.describes<Order>() &&
              !kOrders.describes<Item>());

// The catalogue's, against the table by hand.
constexpr const MEMStructDef *kCatalogDefs = catalog::kPortTable.table();
static_assert(kCatalogDefs[0].StructID == 1 && kCatalogDefs[0].Length == 48 &&
              kCatalogDefs[0].FieldCount == 6);
static_assert(isField(kCatalogDefs[0].Fields[0], 1, MEM_PORT_PNT, 8, 0, 1));
static_assert(isField(kCatalogDefs[0].Fields[1], 2, MEM_PORT_PSTR, 8, 8));
static_assert(isField(kCatalogDefs[0].Fields[3], 4, MEM_PORT_WPSTR, 8, 24));
static_assert(isField(kCatalogDefs[0].Fields[4], 5, MEM_PORT_PNT, 8, 32, 2));
static_assert(isField(kCatalogDefs[0].Fields[5], 6, MEM_PORT_ULONG, 4, 40));
static_assert(kCatalogDefs[0].Fields[5].Required == 1);
static_assert(kCatalogDefs[1].StructID == 2 && kCatalogDefs[1].Length == 40);
static_assert(isField(kCatalogDefs[1].Fields[3], 4, MEM_PORT_PNT, 8, 24, 1));
static_assert(kCatalogDefs[2].StructID == 0);

// Every type code.
enum class Colour : std::uint16_t { kRed = 7, kGreen = 0xFFFF };
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
  char16_t wideText[2];
  char16_t *pWide;
};
inline constexpr Part kNoPart{9, {8, 7}};
inline constexpr char kBlanks[4] = {'*', '*', '*', '*'};
inline constexpr mem::PortTable kEvery{
    mem::structure<Every, 1>(
        mem::fieldAs<1, MEM_PORT_CHAR>(MEM_FIELD(Every, chars)).defaultBytes(&kBlanks),
        mem::field<2>(MEM_FIELD(Every, text)).defaultText("abc").noTruncate(),
        mem::field<3>(MEM_FIELD(Every, pText)).defaultText("default"),
        mem::field<4>(MEM_FIELD(Every, bytes)),
        mem::field<5>(MEM_FIELD(Every, s)).defaultNumber<-5>(),
        mem::field<6>(MEM_FIELD(Every, us)).defaultNumber<65535>(),
        mem::field<7>(MEM_FIELD(Every, l)).defaultNumber<-70000>(),
        mem::field<8>(MEM_FIELD(Every, ul)).defaultNumber<4000000000U>(),
        mem::field<9>(MEM_FIELD(Every, pPart)),
        mem::field<10>(MEM_FIELD(Every, part)).defaultBytes(&kNoPart),
        mem::fieldAs<11, MEM_PORT_BIT>(MEM_FIELD(Every, flags)),
        mem::field<12>(MEM_FIELD(Every, ub)), mem::field<13>(MEM_FIELD(Every, b)).required(),
        mem::fieldAs<14, MEM_PORT_WCHAR>(MEM_FIELD(Every, wide)),
        mem::field<15>(MEM_FIELD(Every, wideText)).defaultText(u"w"),
        mem::field<16>(MEM_FIELD(Every, pWide)).defaultText(u"wide"),
        mem::field<17>(MEM_FIELD(Every, colour)).notPorted().defaultNumber<Colour::kGreen>()),
    mem::structure<Part, 2>(mem::field<1>(MEM_FIELD(Part, number)),
                            mem::field<2>(MEM_FIELD(Part, bytes)))};

constexpr bool hasEveryCode() {
  for (int i = 0; i < 16; ++i) {
    if (kEvery.table()[0].Fields[i].Type != i + 1) return false;
  }
  return kEvery.table()[0].Fields[16].Type == MEM_PORT_USHORT &&
         kEvery.table()[0].Fields[16].NotPorted == 1;
}
static_assert(hasEveryCode());
static_assert(kEvery.table()[0].Fields[4].Default.Short == 0xFFFB);
static_assert(kEvery.table()[0].Fields[7].Default.Long == 4000000000U);
static_assert(kEvery.table()[0].Fields[1].NoTruncate == 1);
static_assert(kEvery.table()[0].Fields[16].Default.Short == 0xFFFF);

// Bytes of what holds numbers only: arrays, structures in one another, classes without
// constructors.
struct Mark {
  struct {
    std::uint16_t numbers[3];
    Colour colour;
  } inner[2];
  float ratio;
  std::byte bytes[100];
};
struct Marked {
  Mark mark;
  std::array<char16_t, 4> units;
  std::uint64_t plain;
  Colour colours[3];
};
inline constexpr mem::PortTable kMarked{
    mem::structure<Marked, 1>(mem::fieldAs<1, MEM_PORT_BIN>(MEM_FIELD(Marked, mark)),
                              mem::fieldAs<2, MEM_PORT_BIN>(MEM_FIELD(Marked, units)),
                              mem::fieldAs<3, MEM_PORT_BIN>(MEM_FIELD(Marked, plain)),
                              mem::fieldAs<4, MEM_PORT_BIN>(MEM_FIELD(Marked, colours)))};
static_assert(kMarked.table()[0].Fields[0].Length == sizeof(Mark));

// Repeat fields, and alternatives that share their place.
struct Counts {
  std::uint32_t count;
  union {
    std::int32_t number;
    char text[4];
  } choice;
  std::uint16_t elements[1];
};
struct Lengths {
  std::int16_t length;
  Part element;
};
inline constexpr mem::PortTable kRepeats{
    mem::structure<Counts, 1>(mem::field<1>(MEM_FIELD(Counts, choice.number)).required(),
                              mem::field<2>(MEM_FIELD(Counts, choice.text)).required(),
                              mem::field<3>(MEM_FIELD(Counts, count)),
                              mem::repeatedField<4, 3>(MEM_FIELD(Counts, elements))),
    mem::structure<Lengths, 2>(mem::field<1>(MEM_FIELD(Lengths, length)),
                               mem::repeatedFieldByLength<2, 1>(MEM_FIELD(Lengths, element))),
    mem::structure<Part, 3>(mem::field<1>(MEM_FIELD(Part, number)))};
static_assert(kRepeats.table()[0].CountField == 2 && kRepeats.table()[0].CountIsLength == 0);
static_assert(isField(kRepeats.table()[0].Fields[3], 4, MEM_PORT_USHORT, 2, 8));
static_assert(kRepeats.table()[0].Fields[0].Offset == kRepeats.table()[0].Fields[1].Offset);
static_assert(kRepeats.table()[1].CountField == 0 && kRepeats.table()[1].CountIsLength == 1);
static_assert(isField(kRepeats.table()[1].Fields[1], 2, MEM_PORT_SUBSTRUCTURE, 4, 2, 3));

class PortTableRoundTrip : public ConvenienceTest {
 protected:
  template <class Struct, class Table>
  std::string written(const Table &table, const Struct &top) {
    std::string text;
    const mem::PortString string = taken(mem::PortString::write(context, table, top));
    for (const std::string_view piece : string) text += piece;
    return text;
  }

  mem::Heap heap = taken(mem::Heap::open(context));
};

TEST_F(PortTableRoundTrip, OrderIsTheManualsText) {
  Part part{40, {0x1F, 0xA0}};
  const Order order{-305, "ab/c", &part};
  const std::string text = written(kOrders, order);
  EXPECT_EQ(text, "(0000000064,0000000002)(21<1N-503/2\"ab//c\"/3S2>)(7<1N04/2H1FA0>)");
  const Order *const back = taken(mem::readPortString<Order>(context, heap, kOrders, text));
  EXPECT_EQ(back->amount, -305);
  EXPECT_STREQ(back->code, "ab/c");
  EXPECT_EQ(back->first->number, 40U);
  EXPECT_EQ(back->first->bytes[1], 0xA0);
}

TEST_F(PortTableRoundTrip, FieldsOfEveryTypeComeBack) {
  Part part{1, {2, 3}};
  char16_t wide[] = u"wide";
  const Every every{{'a', 0, 'b', ' '},
                    "txt",
                    "pointed",
                    {std::byte{1}, std::byte{2}, {}},
                    0x85,
                    -1,
                    2,
                    -3,
                    4,
                    &part,
                    {5, {6, 7}},
                    Colour::kRed,
                    8,
                    -9,
                    {u'x', u'y'},
                    u"z",
                    wide};
  const Every *const back =
      taken(mem::readPortString<Every>(context, heap, kEvery, written(kEvery, every)));
  EXPECT_EQ(std::memcmp(back->chars, every.chars, 4), 0);
  EXPECT_STREQ(back->text, "txt");
  EXPECT_STREQ(back->pText, "pointed");
  EXPECT_EQ(std::memcmp(back->bytes, every.bytes, 3), 0);
  EXPECT_EQ(back->flags, 0x85);
  EXPECT_EQ(back->s, -1);
  EXPECT_EQ(back->us, 2U);
  EXPECT_EQ(back->l, -3);
  EXPECT_EQ(back->ul, 4U);
  EXPECT_EQ(back->pPart->number, 1U);
  EXPECT_EQ(back->part.bytes[1], 7U);
  EXPECT_EQ(back->ub, 8U);
  EXPECT_EQ(back->b, -9);
  EXPECT_EQ(std::u16string_view(back->wide, 2), u"xy");
  EXPECT_EQ(std::u16string(back->wideText), u"z");
  EXPECT_EQ(std::u16string(back->pWide), u"wide");
}

TEST_F(PortTableRoundTrip, AbsentFieldsGetTheirDefaults) {
  const Every *const back =
      taken(mem::readPortString<Every>(context, heap, kEvery, "(0000000033,0000000001)(1<31N1>)"));
  EXPECT_EQ(std::string_view(back->chars, 4), "****");
  EXPECT_STREQ(back->text, "abc");
  EXPECT_STREQ(back->pText, "default");
  EXPECT_EQ(back->s, -5);
  EXPECT_EQ(back->us, 65535U);
  EXPECT_EQ(back->l, -70000);
  EXPECT_EQ(back->ul, 4000000000U);
  EXPECT_EQ(back->colour, Colour::kGreen);
  EXPECT_EQ(back->part.number, 9U);
  EXPECT_EQ(std::u16string(back->wideText), u"w");
  EXPECT_EQ(std::u16string(back->pWide), u"wide");
  EXPECT_FALSE(
      mem::readPortString<Every>(context, heap, kEvery, "(0000000032,0000000001)(1<7N1>)").isOk())
      << "field 13 is required";
  EXPECT_FALSE(mem::readPortString<Every>(context, heap, kEvery,
                                          "(0000000042,0000000001)(1<2\"long\"/31N1>)")
                   .isOk())
      << "field 2 may not be cut";
}

TEST_F(PortTableRoundTrip, RepeatFieldsCarryAllElements) {
  alignas(Counts) std::array<std::uint8_t, sizeof(Counts) + 4> storage{};
  auto *const counts = new (storage.data()) Counts{3, {-4}, {10}};
  for (const std::uint16_t i : {std::uint16_t{1}, std::uint16_t{2}}) {
    const std::uint16_t element = static_cast<std::uint16_t>(10 + i);
    std::memcpy(storage.data() + offsetof(Counts, elements) + 2 * i, &element, sizeof element);
  }
  const std::string text = written(kRepeats, *counts);
  const Counts *const back = taken(mem::readPortString<Counts>(context, heap, kRepeats, text));
  EXPECT_EQ(std::memcmp(back->elements, storage.data() + offsetof(Counts, elements), 6), 0);
  EXPECT_EQ(back->count, 3U);

  const Lengths one{sizeof(Lengths), {5, {}}};
  EXPECT_EQ(written(kRepeats, one), "(0000000044,0000000001)(2,1<1N6/2E(3<1N5>)>)");
}

}  // namespace
}  // namespace memtest
