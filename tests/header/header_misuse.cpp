// Misuses of the C++ header, one a case. header_misuse_test compiles the cases one by one: case 0
// must compile, every other one must fail with the text after its number.
#include "qj7mem00/mem.hpp"
#if CASE >= 83
#include "qj7mem00/mem/defs.hpp"
#endif

struct Leaf {
  std::uint32_t id;
};
struct Node {
  Node *pNext;
  Node *pSecond;
  Leaf *pLeaf;
  const char *pName;
  std::uint32_t id;
  double weight;
  std::int64_t big;
  char text[8];
  Leaf leaf;
  std::uint16_t elements[1];
};
struct Derived : Leaf {
  int more;
};
struct Padded {
  std::uint8_t small;
  std::uint32_t large;
};
struct Keyed {
  Padded key;
};
struct Destroyed {
  ~Destroyed() {}
};

struct alignas(16) Wide {
  Wide *pNext;
  std::uint32_t id;
};
struct Counting {  // is not copied byte by byte
  Counting(const Counting &other) : id(other.id) {}
  Counting *pNext;
  std::uint32_t id;
};
struct Texts {
  const wchar_t *pWide;
  char8_t *pUtf8;
  const char32_t *pUtf32;
  wchar_t wide[8];
  char8_t utf8[8];
};
struct Bytes {
  bool flag;
  struct {
    std::uint32_t number;
    char text[20];
    Node *pNode;
  } pointers;
  struct {
    std::uint16_t numbers[3];
    bool flags[2];
  } truths;
  union {
    std::uint32_t number;
    const char *pText;
  } either;
  struct Hidden {
   private:
    [[maybe_unused]] std::uint32_t number;
  } hidden;
};
struct Packed {
  std::int16_t length;
  union {
    struct {
      Node *pNode;
      Leaf *pLeaf;
    };
    char text[16];
  };
};
struct Early {
  std::uint32_t count;
  std::uint16_t elements[1];
  std::uint16_t behind;
};
struct Long {
  std::uint32_t count;
  std::uint16_t elements[1];
  std::uint16_t undescribed;
  std::uint32_t more;
};
struct Choice {
  std::uint32_t kind;
  union {
    Leaf *pLeaf;
    std::uint64_t number;
  };
};
struct Choosing {
  Choice choice;
  union {
    Choice second;
    char text[16];
  };
};
enum class Color : std::uint32_t { kRed = 65536 };

using mem::child;
using mem::field;
using mem::reference;
using mem::segment;
using mem::sibling;
using mem::structure;

#define NODE(member) MEM_FIELD(Node, member)

[[maybe_unused]] static void use(const mem::Context &context, mem::Heap &heap) {
  static_cast<void>(context);
  static_cast<void>(heap);
#if CASE == 0  // compiles
  constexpr auto table = mem::packTable(segment<Node>(sibling(NODE(pNext)), child(NODE(pLeaf))),
                                        segment<Leaf>());
  static_assert(table.count() == 2);
  static constexpr mem::PortTable kPort{
      structure<Node, 1>(field<1>(NODE(pNext)), field<2>(NODE(leaf)), field<3>(NODE(id))),
      structure<Leaf, 2>(field<1>(MEM_FIELD(Leaf, id)))};
  static_assert(kPort.table()[0].FieldCount == 3);

#elif CASE == 1  // mem: a structure for the library must have standard layout
  static_cast<void>(mem::Member<Derived, int, 4>{});
#elif CASE == 2  // mem: a sibling, child or reference must be a pointer
  static_cast<void>(child(NODE(id)));
#elif CASE == 3  // mem: a segment has one sibling at most
  static_cast<void>(segment<Node>(sibling(NODE(pNext)), sibling(NODE(pSecond))));
#elif CASE == 4  // mem: a sibling points to a structure of its own kind
  static_cast<void>(mem::packTable(segment<Node>(sibling(NODE(pLeaf))), segment<Leaf>()));
#elif CASE == 5  // mem: a child of a kind that the control block does not describe
  static_cast<void>(mem::packTable(segment<Node>(child(NODE(pLeaf)))));
#elif CASE == 6  // mem: a reference to a kind that the control block does not describe
  static_cast<void>(mem::packTable(segment<Node>(reference(NODE(pLeaf)))));
#elif CASE == 7  // mem: a structure is described twice
  static_cast<void>(mem::packTable(segment<Node>(), segment<Node>()));
#elif CASE == 8  // mem: a member of another structure in this segment
  static_cast<void>(segment<Leaf>(sibling(NODE(pNext))));
#elif CASE == 9  // mem: a segment has 24 children at most
  const auto c = child(NODE(pName));
  static_cast<void>(segment<Node>(c, c, c, c, c, c, c, c, c, c, c, c, c, c, c, c, c, c, c, c, c, c,
                                  c, c, c));
#elif CASE == 10  // mem: a segment has 8 references at most
  const auto r = reference(NODE(pNext));
  static_cast<void>(segment<Node>(r, r, r, r, r, r, r, r, r));
#elif CASE == 11  // mem: a segment is 65,535 bytes long at most
  static_cast<void>(segment<std::array<char, 65536>>());
#elif CASE == 12  // mem: the pointer's offset in the structure is too large
  static_cast<void>(child(mem::Member<Node, Node *, 32768>{}));
#elif CASE == 13  // mem: too many descriptors for a control block
  [&]<int... kNumbers>(std::integer_sequence<int, kNumbers...>) {
    static_cast<void>(mem::packTable(segment<std::integral_constant<int, kNumbers>>()...));
  }(std::make_integer_sequence<int, 249>());
#elif CASE == 14  // mem: the count is the first member of its segment
  static_cast<void>(mem::countedSegment(mem::Member<Node, std::int16_t, 2>{}));
#elif CASE == 15  // mem: the length is the first member of its segment
  static_cast<void>(mem::selfSizedSegment<'D'>(NODE(elements[0])));
#elif CASE == 16  // mem: this type letter has a meaning of its own
  static_cast<void>(mem::selfSizedSegment<'S'>(mem::Member<Node, std::uint16_t, 0>{}));
#elif CASE == 17  // mem: a segment's structure is aligned to 8 bytes at most
  static_cast<void>(segment<Wide>());
#elif CASE == 18  // mem: a segment is copied byte by byte (trivially copyable)
  static_cast<void>(segment<Counting>());
#elif CASE == 19  // mem: a pointer of a segment is named twice, or overlaps another or the length
  static_cast<void>(segment<Node>(sibling(NODE(pNext)), reference(NODE(pNext))));
#elif CASE == 60  // mem: a pointer of a segment is named twice, or overlaps another or the length
  static_cast<void>(segment<Node>(child(NODE(pLeaf)), child(mem::Member<Node, Leaf *, 20>{})));
#elif CASE == 61  // mem: a pointer of a segment is named twice, or overlaps another or the length
  static_cast<void>(
      mem::countedSegment(MEM_FIELD(Packed, length), child(mem::Member<Packed, Leaf *, 1>{})));
#elif CASE == 62  // mem: wchar_t differs between platforms: use char16_t
  static_cast<void>(child(MEM_FIELD(Texts, pWide)));
#elif CASE == 63  // mem: the services' text is not char8_t: use char
  static_cast<void>(child(MEM_FIELD(Texts, pUtf8)));
#elif CASE == 64  // mem: the services' text is not char32_t: use char16_t
  static_cast<void>(child(MEM_FIELD(Texts, pUtf32)));
#elif CASE == 65  // mem: this type letter has a meaning of its own
  static_cast<void>(mem::selfSizedSegment<0xE5>(mem::Member<Node, std::uint16_t, 0>{}));

#elif CASE == 20  // mem: this member's type has no type code (use fieldAs to choose one)
  static_cast<void>(field<1>(NODE(weight)));
#elif CASE == 21  // mem: this member cannot hold a field of this type
  static_cast<void>(mem::fieldAs<1, MEM_PORT_SHORT>(NODE(id)));
#elif CASE == 22  // mem: field identifiers are 1 or more and ascend
  static_cast<void>(structure<Node, 1>(field<2>(NODE(id)), field<1>(NODE(text))));
#elif CASE == 23  // mem: field identifiers are 1 or more and ascend
  static_cast<void>(structure<Node, 1>(field<0>(NODE(id))));
#elif CASE == 24  // mem: structure identifiers are 1 to 2,147,483,647
  static_cast<void>(structure<Node, 0x80000000U>(field<1>(NODE(id))));
#elif CASE == 25  // mem: a structure without fields cannot be read back
  static_cast<void>(structure<Node, 1>());
#elif CASE == 26  // mem: a field of another structure
  static_cast<void>(structure<Leaf, 1>(field<1>(NODE(id))));
#elif CASE == 27  // mem: a field refers to a structure that the table does not describe
  static constexpr mem::PortTable kTable{structure<Node, 1>(field<1>(NODE(pLeaf)))};
#elif CASE == 28  // mem: a field refers to a structure that the table does not describe
  static constexpr mem::PortTable kTable{structure<Node, 1>(field<1>(NODE(leaf)))};
#elif CASE == 29  // mem: a structure is described twice
  static constexpr mem::PortTable kTable{structure<Node, 1>(field<1>(NODE(id))),
                                         structure<Node, 2>(field<1>(NODE(id)))};
#elif CASE == 30  // mem: two structures have the same identifier
  static constexpr mem::PortTable kTable{structure<Node, 1>(field<1>(NODE(id))),
                                         structure<Leaf, 1>(field<1>(MEM_FIELD(Leaf, id)))};
#elif CASE == 31  // mem: the repeat field is the last one
  static_cast<void>(structure<Node, 1>(field<1>(NODE(id)),
                                       mem::repeatedField<2, 1>(NODE(elements)),
                                       field<3>(NODE(text))));
#elif CASE == 32  // mem: the count field must be a 16- or 32-bit number of the same structure
  static_cast<void>(structure<Node, 1>(field<1>(NODE(text)),
                                       mem::repeatedField<2, 1>(NODE(elements))));
#elif CASE == 33  // mem: the repeated member's type has no type code
  static_cast<void>(mem::repeatedField<2, 1>(NODE(weight)));
#elif CASE == 34  // mem: the default does not fit its field
  static_cast<void>(field<1>(NODE(elements[0])).defaultNumber<65536>());
#elif CASE == 35  // mem: the default does not fit its field
  static_cast<void>(field<1>(NODE(id)).defaultNumber<-1>());
#elif CASE == 36  // mem: this field has no number as its default
  static_cast<void>(field<1>(NODE(big)).defaultNumber<1>());
#elif CASE == 37  // mem: this field has no narrow text as its default
  static_cast<void>(field<1>(NODE(id)).defaultText("text"));
#elif CASE == 38  // mem: this field has no wide text as its default
  static_cast<void>(field<1>(NODE(pName)).defaultText(u"text"));
#elif CASE == 39  // mem: this field has no bytes as its default
  static_cast<void>(field<1>(NODE(big)).defaultBytes(nullptr));
#elif CASE == 40  // mem: elements of the repeat field would overlap what follows it
  static_cast<void>(structure<Early, 1>(field<1>(MEM_FIELD(Early, count)),
                                        field<2>(MEM_FIELD(Early, behind)),
                                        mem::repeatedField<3, 1>(MEM_FIELD(Early, elements))));
#elif CASE == 41  // mem: elements of the repeat field would overlap what follows it
  static_cast<void>(structure<Long, 1>(field<1>(MEM_FIELD(Long, count)),
                                       mem::repeatedField<2, 1>(MEM_FIELD(Long, elements))));
#elif CASE == 42  // mem: elements of the repeat field would overlap what follows it
  static_cast<void>(
      structure<Early, 1>(field<1>(MEM_FIELD(Early, count)),
                          mem::fieldAs<2, MEM_PORT_BIN>(mem::Member<Early, std::uint32_t, 4>{}),
                          mem::repeatedField<3, 1>(MEM_FIELD(Early, elements))));
#elif CASE == 43  // mem: entries are aligned to 8 bytes
  static_cast<void>(structure<Wide, 1>(field<1>(MEM_FIELD(Wide, id))));
#elif CASE == 44  // mem: entries are aligned to 8 bytes
  using WideField = mem::PortField<Wide, std::uint32_t, 1, MEM_PORT_ULONG, 8>;
  static constexpr mem::PortTable kTable{
      mem::PortStructure<Wide, 1, WideField>{{WideField().def()}}};
  static_cast<void>(mem::readPortString<Wide>(context, heap, kTable, ""));
#elif CASE == 45  // mem: a structure is filled byte by byte (trivially copyable)
  static_cast<void>(structure<Counting, 1>(field<1>(MEM_FIELD(Counting, id))));
#elif CASE == 46  // mem: a field is copied byte by byte (trivially copyable)
  static_cast<void>(field<1>(mem::Member<Node, Counting, 0>{}));
#elif CASE == 47  // mem: two fields are the same pointer
  static_cast<void>(structure<Node, 1>(field<1>(NODE(pLeaf)), field<2>(NODE(pLeaf))));
#elif CASE == 48  // (readPortStringUnchecked takes it)
  static constexpr mem::PortTable kTable{
      structure<Choice, 1>(field<1>(MEM_FIELD(Choice, kind)), field<2>(MEM_FIELD(Choice, pLeaf)),
                           field<3>(MEM_FIELD(Choice, number))),
      structure<Leaf, 2>(field<1>(MEM_FIELD(Leaf, id)))};
  static_cast<void>(mem::readPortString<Leaf>(context, heap, kTable, ""));
#elif CASE == 49  // (readPortStringUnchecked takes it)
  static constexpr mem::PortTable kTable{
      structure<Choosing, 1>(field<1>(MEM_FIELD(Choosing, choice)),
                             field<2>(MEM_FIELD(Choosing, second)),
                             field<3>(MEM_FIELD(Choosing, text))),
      structure<Choice, 2>(field<1>(MEM_FIELD(Choice, pLeaf))),
      structure<Leaf, 3>(field<1>(MEM_FIELD(Leaf, id)))};
  static_cast<void>(mem::readPortString<Leaf>(context, heap, kTable, ""));
#elif CASE == 70  // mem: a text may set bits that bool does not have: use std::uint8_t
  static_cast<void>(mem::fieldAs<1, MEM_PORT_BIT>(MEM_FIELD(Bytes, flag)));
#elif CASE == 71  // mem: a text may set bits that bool does not have: use std::uint8_t
  static_cast<void>(mem::fieldAs<1, MEM_PORT_CHAR>(MEM_FIELD(Bytes, flag)));
#elif CASE == 72  // mem: a text could set pointers or bool in these bytes, or their type is unknown
  static_cast<void>(mem::fieldAs<1, MEM_PORT_BIN>(MEM_FIELD(Bytes, pointers)));
#elif CASE == 73  // mem: a text could set pointers or bool in these bytes, or their type is unknown
  static_cast<void>(mem::fieldAs<1, MEM_PORT_BIN>(MEM_FIELD(Bytes, truths)));
#elif CASE == 74  // mem: a text could set pointers or bool in these bytes, or their type is unknown
  static_cast<void>(mem::fieldAs<1, MEM_PORT_BIN>(MEM_FIELD(Bytes, either)));
#elif CASE == 75  // mem: a text could set pointers or bool in these bytes, or their type is unknown
  static_cast<void>(mem::fieldAs<1, MEM_PORT_BIN>(MEM_FIELD(Bytes, hidden)));
#elif CASE == 76  // mem: wchar_t differs between platforms: use char16_t
  static_cast<void>(field<1>(MEM_FIELD(Texts, pWide)));
#elif CASE == 77  // mem: the services' text is not char8_t: use char
  static_cast<void>(field<1>(MEM_FIELD(Texts, pUtf8)));
#elif CASE == 78  // mem: wchar_t differs between platforms: use char16_t
  static_cast<void>(field<1>(MEM_FIELD(Texts, wide)));
#elif CASE == 79  // mem: the services' text is not char8_t: use char
  static_cast<void>(field<1>(MEM_FIELD(Texts, utf8)));
#elif CASE == 80  // mem: the default does not fit its field
  static_cast<void>(field<1>(NODE(elements[0])).defaultNumber<Color::kRed>());
#elif CASE == 81  // use of deleted function
  const mem::Result<int> (*result)() = nullptr;
  static_cast<void>(result().value());
#elif CASE == 82  // mem: and_then needs a function that returns a Result or a Status
  static_cast<void>(mem::Result<int>(1).and_then([](int number) { return number; }));

#elif CASE == 50  // mem: a key is compared byte by byte and must not have padding
  static_cast<void>(mem::HashTable<Keyed, Padded>());
#elif CASE == 51  // mem: a record of a hash table is at most 32,752 bytes long
  static_cast<void>(mem::HashTable<std::array<char, 32753>, std::uint32_t>());
#elif CASE == 52  // mem: a table has 1 to 32,768 buckets
  static_cast<void>(mem::HashTable<Leaf, std::uint32_t>::open<0>(context, MEM_FIELD(Leaf, id)));
#elif CASE == 53  // mem: a heap or pool is closed as a whole and runs no destructors
  static_cast<void>(heap.make<Destroyed>());
#elif CASE == 54  // mem: entries are aligned to 8 bytes
  struct alignas(16) Aligned {
    char bytes[16];
  };
  static_cast<void>(mem::CellPool<Aligned>::open(context));
#elif CASE == 55  // use of deleted function
  static_cast<void>(mem::Heap::open(mem::contextOf(heap)));
#elif CASE == 56  // mem: a structure that the table does not describe
  static constexpr mem::PortTable kTable{structure<Leaf, 1>(field<1>(MEM_FIELD(Leaf, id)))};
  static_cast<void>(mem::readPortString<Node>(context, heap, kTable, ""));
#elif CASE == 83  // mem: a listed member of a structure that the table does not describe
  static constexpr auto kTable = mem::packTable(segment<Leaf>());
  static_cast<void>(mem::definitionsJson(kTable, NODE(id)));
#elif CASE == 84  // mem: the table describes the pointers; members with other values are listed
  static constexpr auto kTable = mem::packTable(segment<Node>(), segment<Leaf>());
  static_cast<void>(mem::definitionsJson(kTable, NODE(pLeaf)));
#elif CASE == 85  // mem: a segment of fixed length ends with its structure
  static constexpr auto kTable = mem::packTable(segment<Node>());
  static_cast<void>(mem::definitionsJson(kTable, mem::toEnd(NODE(elements))));
#elif CASE == 86  // mem: wchar_t differs between platforms: use char16_t
  static constexpr auto kTable = mem::packTable(segment<Texts>());
  static_cast<void>(mem::definitionsJson(kTable, MEM_FIELD(Texts, wide)));
#else
#error "no such case"
#endif
}
