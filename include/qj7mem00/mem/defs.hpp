/** @file defs.hpp
 * Tables of mem.hpp as definitions in JSON, which memtool and the Python package read. Not part of
 * mem.hpp: a program that writes definitions includes it. Unlike mem.hpp it makes strings, which
 * allocate.
 */
#ifndef QJ7MEM00_MEM_DEFS_HPP
#define QJ7MEM00_MEM_DEFS_HPP

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "pack.hpp"
#include "port.hpp"

namespace mem {

namespace detail {

// Written as JSON. Names are what a compiler takes for an identifier or the name of a type.
inline std::string inJson(std::string_view text) {
  std::string json = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') json += '\\';
    json += c;
  }
  return json + '"';
}

inline std::string inHex(const unsigned char *pBytes, std::size_t length) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string digits;
  for (std::size_t i = 0; i < length; ++i) {
    digits += kDigits[pBytes[i] >> 4];
    digits += kDigits[pBytes[i] & 0xF];
  }
  return digits;
}

constexpr bool isPlainAscii(std::uint16_t unit) noexcept {
  return unit >= 0x20 && unit < 0x7F;
}

// Text of plain ASCII as such, other text as its bytes.
inline std::string narrowInJson(std::string_view text) {
  const auto isPlain = [](char c) { return isPlainAscii(static_cast<unsigned char>(c)); };
  if (std::all_of(text.begin(), text.end(), isPlain)) return inJson(text);
  std::vector<unsigned char> bytes(text.begin(), text.end());
  return "{\"hex\": \"" + inHex(bytes.data(), bytes.size()) + "\"}";
}

inline std::string wideInJson(std::u16string_view text) {
  if (std::all_of(text.begin(), text.end(), isPlainAscii)) {
    return inJson(std::string(text.begin(), text.end()));
  }
  std::string units;
  for (const char16_t unit : text) {
    units += (units.empty() ? "" : ", ") + std::to_string(unsigned{unit});
  }
  return "{\"units\": [" + units + "]}";
}

// The compiler's spelling of a function that has the type in its name; "" where none is known.
template <class Type>
constexpr std::string_view spellingOf() noexcept {
#if defined(__GNUC__) || defined(__clang__)
  return __PRETTY_FUNCTION__;
#else
  return "";
#endif
}

// The name of a structure without the namespaces around it; "" if it is not known.
template <class Struct>
std::string structName() {
  constexpr std::string_view kBefore = "Type = ";
  std::string_view name = spellingOf<Struct>();
  const std::size_t begin = name.find(kBefore);
  if (begin == std::string_view::npos) return "";
  name.remove_prefix(begin + kBefore.size());
  name = name.substr(0, std::min(name.find(';'), name.rfind(']')));
  const std::size_t scope = name.substr(0, name.find('<')).rfind("::");
  if (scope != std::string_view::npos) name.remove_prefix(scope + 2);
  return std::string(name);
}

// Names, each once: a name that is used already, and an empty one, get the number.
class Names {
 public:
  const std::string &add(std::string name, const char *pKind, std::uint32_t number) {
    if (name.empty()) name = pKind + std::to_string(number);
    while (std::find(names_.begin(), names_.end(), name) != names_.end()) {
      name += '_' + std::to_string(number);
    }
    names_.push_back(std::move(name));
    return names_.back();
  }
  const std::string &operator[](std::size_t index) const { return names_[index]; }

 private:
  std::vector<std::string> names_;
};

// The keys of an object as JSON, on one line.
class Keys {
 public:
  Keys &add(const char *pKey, const std::string &json) {
    text_ += (text_.empty() ? "\"" : ", \"") + std::string(pKey) + "\": " + json;
    return *this;
  }
  Keys &add(const char *pKey, std::size_t number) { return add(pKey, std::to_string(number)); }
  Keys &addText(const char *pKey, std::string_view text) { return add(pKey, inJson(text)); }
  Keys &addFlag(const char *pKey, bool isSet) { return isSet ? add(pKey, "true") : *this; }
  const std::string &text() const { return text_; }

 private:
  std::string text_;
};

inline std::string structureInJson(const Keys &head, const std::vector<Keys> &fields) {
  std::string json = "    {\n      " + head.text() + ",\n      \"fields\": [";
  for (const Keys &field : fields) {
    json += (&field == fields.data() ? "\n        {" : ",\n        {") + field.text() + '}';
  }
  return json + "\n      ]\n    }";
}

inline std::string documentOf(const std::vector<std::string> &structures) {
  std::string json = "{\n  \"structures\": [";
  for (const std::string &structure : structures) {
    json += (&structure == structures.data() ? "\n" : ",\n") + structure;
  }
  return json + "\n  ]\n}\n";
}

// Names of type codes, from 1.
inline constexpr std::array<const char *, 16> kPortTypeNames{
    "Char", "CharSZ",       "PStr", "Bin",     "Short",  "UShort", "Long",    "ULong",
    "Pnt",  "Substructure", "Bit",  "UBigInt", "BigInt", "WChar",  "WCharSZ", "WPStr"};

constexpr bool hasPortLength(std::uint8_t type) noexcept {
  return type == MEM_PORT_CHAR || type == MEM_PORT_CHARSZ || type == MEM_PORT_BIN ||
         type == MEM_PORT_WCHAR || type == MEM_PORT_WCHARSZ;
}

// The number that an absent field gets; of numbers without a default it is 0.
inline std::int64_t defaultNumberOf(const MEMFieldDef &field) noexcept {
  switch (field.Type) {
    case MEM_PORT_SHORT:
      return static_cast<std::int16_t>(field.Default.Short);
    case MEM_PORT_USHORT:
      return static_cast<std::uint16_t>(field.Default.Short);
    case MEM_PORT_LONG:
      return static_cast<std::int32_t>(field.Default.Long);
    case MEM_PORT_ULONG:
      return static_cast<std::uint32_t>(field.Default.Long);
    default:
      return 0;
  }
}

// A default of bytes at an address.
inline std::string bytesInJson(const MEMFieldDef &field) {
  const auto length = static_cast<std::size_t>(field.Length);
  const auto *const pBytes = static_cast<const unsigned char *>(field.Default.pBytes);
  switch (field.Type) {
    case MEM_PORT_CHAR:
      return narrowInJson({static_cast<const char *>(field.Default.pBytes), length});
    case MEM_PORT_WCHAR: {
      std::u16string units(length / sizeof(char16_t), u'\0');
      std::memcpy(units.data(), pBytes, units.size() * sizeof(char16_t));
      return wideInJson(units);
    }
    case MEM_PORT_BIT:
      return std::to_string(unsigned{*pBytes});
    default:
      return inJson(inHex(pBytes, length));
  }
}

// Whether a structure of the table `pDefs` has a pointer that is not null, itself or in a structure
// that it embeds.
inline bool hasAddress(const MEMStructDef *pDefs, std::uint32_t id, const unsigned char *pBytes) {
  const MEMStructDef *pDef = pDefs;
  while (pDef->StructID != id) ++pDef;
  for (std::int32_t i = 0; i < pDef->FieldCount; ++i) {
    const MEMFieldDef &field = pDef->Fields[i];
    const unsigned char *const pField = pBytes + field.Offset;
    const bool isPointer =
        field.Type == MEM_PORT_PNT || field.Type == MEM_PORT_PSTR || field.Type == MEM_PORT_WPSTR;
    if (isPointer && std::any_of(pField, pField + 8, [](unsigned char c) { return c != 0; })) {
      return true;
    }
    if (field.Type == MEM_PORT_SUBSTRUCTURE && hasAddress(pDefs, field.SubStructID, pField)) {
      return true;
    }
  }
  return false;
}

// Adds the default if the field has one that JSON can say: pointers have null only, those of an
// embedded structure too.
inline void addDefault(Keys &keys, const MEMFieldDef &field, const MEMStructDef *pDefs) {
  switch (field.Type) {
    case MEM_PORT_CHARSZ:
    case MEM_PORT_PSTR:
      if (field.Default.pText != nullptr) keys.add("default", narrowInJson(field.Default.pText));
      return;
    case MEM_PORT_WCHARSZ:
    case MEM_PORT_WPSTR:
      if (field.Default.pWide != nullptr) keys.add("default", wideInJson(field.Default.pWide));
      return;
    case MEM_PORT_SUBSTRUCTURE:
      if (field.Default.pBytes != nullptr &&
          hasAddress(pDefs, field.SubStructID,
                     static_cast<const unsigned char *>(field.Default.pBytes))) {
        return;
      }
      [[fallthrough]];
    case MEM_PORT_CHAR:
    case MEM_PORT_BIN:
    case MEM_PORT_BIT:
    case MEM_PORT_WCHAR:
      if (field.Default.pBytes != nullptr) keys.add("default", bytesInJson(field));
      return;
    default:
      const std::int64_t number = defaultNumberOf(field);
      if (number != 0) keys.add("default", std::to_string(number));
  }
}

inline Keys portFieldInJson(const MEMFieldDef &field, const std::string &name,
                            const std::string &target, const MEMStructDef *pDefs) {
  Keys keys;
  keys.add("id", field.FieldID).addText("name", name);
  keys.addText("type", kPortTypeNames[field.Type - 1U]);
  keys.add("offset", static_cast<std::size_t>(field.Offset));
  if (hasPortLength(field.Type)) keys.add("length", static_cast<std::size_t>(field.Length));
  if (!target.empty()) keys.addText("structure", target);
  keys.addFlag("required", field.Required != 0).addFlag("noTruncate", field.NoTruncate != 0);
  keys.addFlag("notPorted", field.NotPorted != 0);
  addDefault(keys, field, pDefs);
  return keys;
}

// One structure of a table of port strings; `names` are those of the table `pDefs`.
template <class Struct, std::uint32_t kId, class... Members>
std::string portStructureInJson(const PortStructure<Struct, kId, Members...> *,
                                const MEMStructDef *pDefs, const Names &structures) {
  const auto indexOf = [pDefs](std::uint32_t id) {
    std::size_t index = 0;
    while (pDefs[index].StructID != id) ++index;
    return index;
  };
  const MEMStructDef &def = pDefs[indexOf(kId)];
  const std::array<const char *, sizeof...(Members)> members{Members::kName...};
  Names names;
  std::vector<Keys> fields;
  for (std::size_t i = 0; i < members.size(); ++i) {
    const MEMFieldDef &field = def.Fields[i];
    const std::uint32_t target = field.SubStructID;
    const std::string &name = names.add(members[i], "field", field.FieldID);
    const std::string &targetName = target == 0 ? std::string() : structures[indexOf(target)];
    fields.push_back(portFieldInJson(field, name, targetName, pDefs));
  }
  Keys head;
  head.add("id", kId).addText("name", structures[indexOf(kId)]);
  head.add("length", static_cast<std::size_t>(def.Length));
  if (def.CountField != MEM_PORT_NO_COUNT) {
    head.addText("countField", names[static_cast<std::size_t>(def.CountField)]);
    head.addFlag("countIsLength", def.CountIsLength != 0);
  }
  return structureInJson(head, fields);
}

// A member goes on to the end of its segment.
template <class Field>
struct ToEnd : Field {
  static constexpr bool kGoesOn = true;
};
template <class Field>
inline constexpr bool kGoesOn = requires {
  Field::kGoesOn;
};

// What definitions of chains say about a member that is no pointer.
struct PlainType {
  const char *pName;
  std::size_t length;  // 0: the type has only one
  std::size_t count;   // 0: no array
};

template <class Number>
constexpr const char *numberName() noexcept {
  if constexpr (std::is_enum_v<Number>) {
    return numberName<std::underlying_type_t<Number>>();
  } else if constexpr (std::is_floating_point_v<Number>) {
    return sizeof(Number) == 4 ? "Float" : sizeof(Number) == 8 ? "Double" : nullptr;
  } else if constexpr (std::is_integral_v<Number> || std::is_same_v<Number, std::byte>) {
    if (sizeof(Number) == 1) return std::is_signed_v<Number> ? "SByte" : "UByte";
    return kPortTypeNames[integerCode<Number>() - 1U];
  } else {
    return nullptr;
  }
}

template <class FieldType>
constexpr PlainType plainType() noexcept {
  using Type = std::remove_cv_t<FieldType>;
  using Element = std::remove_cv_t<std::remove_all_extents_t<Type>>;
  static_assert(!std::is_pointer_v<Element>,
                "mem: the table describes the pointers; members with other values are listed");
  refuseForeignText<Element>();
  constexpr bool kIsArray = std::is_array_v<Type>;
  if constexpr (kIsText<Element>) {
    if constexpr (std::rank_v < Type >> 1) return {"Bin", sizeof(Type), 0};
    constexpr bool kIsNarrow = kIsNarrowText<Element>;
    if (kIsArray) return {kIsNarrow ? "CharSZ" : "WCharSZ", sizeof(Type), 0};
    return {kIsNarrow ? "Char" : "WChar", sizeof(Type), 0};
  } else if constexpr ((kIsArray && kIsByte<Element>) || numberName<Element>() == nullptr) {
    return {"Bin", sizeof(Type), 0};
  } else {
    return {numberName<Element>(), 0, kIsArray ? sizeof(Type) / sizeof(Element) : 0};
  }
}

// One field of a segment, which gets its identifier when all are in order.
struct SegmentField {
  std::size_t offset;
  const char *pName;
  const char *pType;
  const char *pTarget = nullptr;
  bool isNext = false;
  bool isReference = false;
  bool goesOn = false;
  std::size_t length = 0;
  std::size_t count = 0;
};

template <class Kinds, class ThisPart>
SegmentField segmentPointer(const Names &structures) {
  using Target = typename ThisPart::Target;
  SegmentField field{static_cast<std::size_t>(ThisPart::offset), ThisPart::name, "Pnt"};
  if constexpr (kIsText<Target>) {
    field.pType = kIsNarrowText<Target> ? "PStr" : "WPStr";
  } else {
    field.pTarget = structures[Kinds::template indexOf<Target>()].c_str();
  }
  field.isNext = ThisPart::role == PartRole::kSibling;
  field.isReference = ThisPart::role == PartRole::kReference;
  return field;
}

// Adds a listed member if it is one of this segment.
template <class Segment, class Field>
void addPlain(std::vector<SegmentField> &fields) {
  if constexpr (std::is_same_v<typename Segment::Struct, typename Field::Struct>) {
    static_assert(!kGoesOn<Field> || Segment::type != MEM_PACK_FIXED,
                  "mem: a segment of fixed length ends with its structure");
    constexpr PlainType kType = plainType<typename Field::Type>();
    SegmentField field{Field::kOffset, Field::kName, kType.pName};
    field.goesOn = kGoesOn<Field>;
    field.length = kType.length;
    field.count = kType.count;
    fields.push_back(field);
  }
}

inline Keys segmentFieldInJson(const SegmentField &field, std::size_t id, const std::string &name) {
  Keys keys;
  keys.add("id", id).addText("name", name).addText("type", field.pType).add("offset", field.offset);
  if (!field.goesOn && field.length != 0) keys.add("length", field.length);
  if (!field.goesOn && field.count != 0) keys.add("count", field.count);
  if (field.pTarget != nullptr) keys.addText("structure", field.pTarget);
  return keys.addFlag("reference", field.isReference);
}

inline void addSegmentType(Keys &keys, std::uint16_t type) {
  if (type == MEM_PACK_FIXED) return;
  if (!isPlainAscii(type)) {
    keys.add("segment", std::size_t{type});
  } else {
    keys.addText("segment", std::string(1, static_cast<char>(type)));
  }
}

inline std::string segmentInJson(Keys head, std::vector<SegmentField> members) {
  std::stable_sort(members.begin(), members.end(),
                   [](const SegmentField &left, const SegmentField &right) {
                     return left.offset < right.offset;
                   });
  Names names;
  std::vector<Keys> fields;
  for (const SegmentField &member : members) {
    const std::size_t id = fields.size() + 1;
    const std::string &name = names.add(member.pName, "field", static_cast<std::uint32_t>(id));
    if (member.isNext) head.addText("next", name);
    fields.push_back(segmentFieldInJson(member, id, name));
    // Bytes at the end go on without the key.
    const bool isBytesAtEnd = id == members.size() && member.pType == std::string_view("Bin");
    if (member.goesOn && !isBytesAtEnd) fields.back().addFlag("toEnd", true);
  }
  return structureInJson(head, fields);
}

template <class Kinds, class... Members, class Struct, std::uint16_t kType, class... Parts>
std::string segmentInJson(const SegmentKind<Struct, kType, Parts...> *, const Names &structures) {
  using Segment = SegmentKind<Struct, kType, Parts...>;
  const std::size_t index = Kinds::template indexOf<Struct>();
  std::vector<SegmentField> fields{segmentPointer<Kinds, Parts>(structures)...};
  (addPlain<Segment, Members>(fields), ...);
  Keys head;
  head.add("id", index + 1).addText("name", structures[index]);
  addSegmentType(head, kType);
  if (sizeof(Struct) <= 65535) head.add("length", sizeof(Struct));
  return segmentInJson(head, std::move(fields));
}

}  // namespace detail

/** @name Definitions from tables */
/** @{ */

/** Lets a listed member go on to the end of its segment, which has its own length: the last
 * member, an array that is declared with as few elements as there may be. */
template <class Field>
constexpr auto toEnd(Field) noexcept {
  return detail::ToEnd<Field>{};
}

/** The definitions of a table as JSON, which `memtool port --defs` reads
 * (docs/memtool-port.md). Structures and fields have the names that they have in the program;
 * structures are named after their identifiers where the compiler does not provide their names. */
template <class... Structures>
std::string definitionsJson(const PortTable<Structures...> &table) {
  detail::Names names;
  (names.add(detail::structName<typename Structures::Struct>(), "structure", Structures::kStructId),
   ...);
  return detail::documentOf({detail::portStructureInJson(static_cast<const Structures *>(nullptr),
                                                         table.table(), names)...});
}

/** The definitions of a table as JSON, which `memtool chain --defs` reads
 * (docs/memtool-chain-names.md). The table describes the pointers; of the other members those that
 * are listed get names and types:
 *
 *     mem::definitionsJson(kTable, MEM_FIELD(Order, number), MEM_FIELD(Order, code))
 */
template <class... Segments, class... Members>
std::string definitionsJson(const PackTableOf<Segments...> &, Members...) {
  using Kinds = detail::PackKinds<Segments...>;
  static_assert(((Kinds::template timesDescribed<typename Members::Struct>() == 1) && ...),
                "mem: a listed member of a structure that the table does not describe");
  detail::Names names;
  std::uint32_t id = 0;
  (names.add(detail::structName<typename Segments::Struct>(), "structure", ++id), ...);
  return detail::documentOf(
      {detail::segmentInJson<Kinds, Members...>(static_cast<const Segments *>(nullptr), names)...});
}
/** @} */

}  // namespace mem

#endif
