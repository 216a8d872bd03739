/** @file port.hpp
 * Definition tables made from members, and port strings. Part of mem.hpp, whose conventions apply.
 */
#ifndef QJ7MEM00_MEM_PORT_HPP
#define QJ7MEM00_MEM_PORT_HPP

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>
#include <type_traits>
#include <utility>

#include "heap.hpp"
#include "pack.hpp"
#include "portcheck.hpp"

namespace mem {

/** @name Structure definitions from members */
/** @{ */

namespace detail {

template <class Type>
constexpr MEMFieldType integerCode() noexcept {
  constexpr bool isSigned = std::is_signed_v<Type>;
  switch (sizeof(Type)) {
    case 2:
      return isSigned ? MEM_PORT_SHORT : MEM_PORT_USHORT;
    case 4:
      return isSigned ? MEM_PORT_LONG : MEM_PORT_ULONG;
    case 8:
      return isSigned ? MEM_PORT_BIGINT : MEM_PORT_UBIGINT;
    default:
      return MEMFieldType{};
  }
}

// Excludes characters and bool, which the language counts as integers.
template <class Type>
inline constexpr bool kIsInteger =
    std::is_integral_v<Type> && !std::is_same_v<Type, bool> && !std::is_same_v<Type, char> &&
    !std::is_same_v<Type, wchar_t> && !std::is_same_v<Type, char8_t> &&
    !std::is_same_v<Type, char16_t> && !std::is_same_v<Type, char32_t>;

template <class Type>
inline constexpr bool kIsByte =
    std::is_same_v<Type, unsigned char> || std::is_same_v<Type, std::byte>;

// The type code of a member; 0 if its type does not determine one.
template <class FieldType>
constexpr MEMFieldType portCode() noexcept {
  using Type = std::remove_cv_t<FieldType>;
  using Element = std::remove_cv_t<std::remove_extent_t<Type>>;
  if constexpr (std::is_array_v<Type>) {
    if (kIsNarrowText<Element>) return MEM_PORT_CHARSZ;
    if (kIsWideText<Element>) return MEM_PORT_WCHARSZ;
    return kIsByte<Element> ? MEM_PORT_BIN : MEMFieldType{};
  } else if constexpr (std::is_pointer_v<Type>) {
    if (kIsNarrowText<Target<Type>>) return MEM_PORT_PSTR;
    if (kIsWideText<Target<Type>>) return MEM_PORT_WPSTR;
    return std::is_class_v<Target<Type>> ? MEM_PORT_PNT : MEMFieldType{};
  } else if constexpr (std::is_enum_v<Type>) {
    return integerCode<std::underlying_type_t<Type>>();
  } else if constexpr (std::is_class_v<Type>) {
    return MEM_PORT_SUBSTRUCTURE;
  } else {
    return kIsInteger<Type> ? integerCode<Type>() : MEMFieldType{};
  }
}

// Placeholders that convert to any number type, or to any scalar type.
struct AnyNumber {
  template <class Type>
  requires((std::is_arithmetic_v<Type> && !std::is_same_v<Type, bool>) || std::is_enum_v<Type>)
  operator Type() const noexcept;
};
struct AnyScalar {
  template <class Type>
  requires(std::is_scalar_v<Type>) operator Type() const noexcept;
};

// True when an aggregate can be initialised with `kCount` numbers and one value after them. Braces
// of embedded structures and arrays are elided.
template <class Type, class Last, std::size_t... kIndexes>
constexpr bool takesBehind(std::index_sequence<kIndexes...>) noexcept {
  return requires {
    Type{(static_cast<void>(kIndexes), AnyNumber{})..., Last{}};
  };
}
template <class Type, class Last, std::size_t kCount>
inline constexpr bool kTakesBehind = takesBehind<Type, Last>(std::make_index_sequence<kCount>{});

// The number of leading numbers of an aggregate: at least `kFew`, fewer than `kMany`.
template <class Type, std::size_t kFew, std::size_t kMany>
constexpr std::size_t leadingNumbers() noexcept {
  constexpr std::size_t kMiddle = kFew + (kMany - kFew) / 2;
  if constexpr (kMiddle == kFew) {
    return kFew;
  } else if constexpr (kTakesBehind<Type, AnyNumber, kMiddle - 1>) {
    return leadingNumbers<Type, kMiddle, kMany>();
  } else {
    return leadingNumbers<Type, kFew, kMiddle>();
  }
}

// True when any bytes are a valid value of the type, because it has only numbers. False also for
// types that cannot be inspected: classes that are not aggregates. The count is limited to keep
// compile times short.
template <class Type>
constexpr bool isPlainBytes() noexcept {
  constexpr std::size_t kMostNumbers = 4096;
  if constexpr (!std::is_class_v<Type> && !std::is_union_v<Type>) {
    return std::is_convertible_v<AnyNumber, Type>;
  } else if constexpr (!std::is_aggregate_v<Type> || std::is_union_v<Type>) {
    return false;
  } else {
    constexpr std::size_t kLimit = sizeof(Type) < kMostNumbers ? sizeof(Type) : kMostNumbers;
    constexpr std::size_t kNumbers = leadingNumbers<Type, 0, kLimit + 1>();
    return !kTakesBehind<Type, AnyScalar, kNumbers>;
  }
}

// True when a member can hold a field of this code.
template <class FieldType, MEMFieldType kCode>
constexpr bool canHold() noexcept {
  using Type = std::remove_cv_t<FieldType>;
  using Element = std::remove_cv_t<std::remove_all_extents_t<Type>>;
  switch (kCode) {
    case MEM_PORT_CHAR:
      return sizeof(Element) == 1 && std::is_trivially_copyable_v<Type>;
    case MEM_PORT_BIN:
      return !std::is_pointer_v<Element> && std::is_trivially_copyable_v<Type>;
    case MEM_PORT_BIT:
      return sizeof(Type) == 1 && std::is_trivially_copyable_v<Type>;
    case MEM_PORT_WCHAR:
      return kIsWideText<Element>;
    default:
      return portCode<FieldType>() == kCode;
  }
}

constexpr bool isPortText(MEMFieldType code) noexcept {
  return code == MEM_PORT_CHARSZ || code == MEM_PORT_PSTR;
}
constexpr bool isPortWideText(MEMFieldType code) noexcept {
  return code == MEM_PORT_WCHARSZ || code == MEM_PORT_WPSTR;
}
constexpr bool isPortNumber(MEMFieldType code) noexcept {
  return code >= MEM_PORT_SHORT && code <= MEM_PORT_ULONG;
}
constexpr bool isPortPointer(MEMFieldType code) noexcept {
  return code == MEM_PORT_PNT || code == MEM_PORT_PSTR || code == MEM_PORT_WPSTR;
}

template <std::size_t kLength>
inline constexpr std::array<std::byte, kLength> kZeros{};

// An object with a different address for each type.
template <class Type>
inline constexpr char kTypeMark = 0;

// The underlying number of an enumerator; other numbers unchanged.
template <class Type>
constexpr auto numberOf(Type value) noexcept {
  if constexpr (std::is_enum_v<Type>) {
    return static_cast<std::underlying_type_t<Type>>(value);
  } else {
    return value;
  }
}

// True when a field of this type can hold the number.
template <class FieldType, auto kValue>
constexpr bool fits() noexcept {
  using Number = decltype(numberOf(kValue));
  using Field = decltype(numberOf(std::remove_cv_t<FieldType>{}));
  constexpr Number number = numberOf(kValue);
  return number == static_cast<Number>(static_cast<Field>(number)) &&
         (number < Number{}) == (static_cast<Field>(number) < Field{});
}

enum class Repeat { kNone, kByCount, kByLength };

// The structure that a field points to or embeds; void for other fields.
template <class Type, MEMFieldType kCode>
using PortTarget =
    std::conditional_t<kCode == MEM_PORT_PNT || kCode == MEM_PORT_SUBSTRUCTURE, Target<Type>, void>;

// Refuses members that can be no field with any code.
template <class FieldType>
constexpr void checkMember() noexcept {
  static_assert(std::is_trivially_copyable_v<FieldType>,
                "mem: a field is copied byte by byte (trivially copyable)");
  using Type = std::remove_cv_t<FieldType>;
  refuseForeignText<std::remove_cv_t<std::remove_all_extents_t<Type>>>();
  refuseForeignText<Target<Type>>();
}

// Refuses fields of bytes whose type does not allow all values, because a text may set any bits.
template <class FieldType, MEMFieldType kCode>
constexpr void checkBytes() noexcept {
  if constexpr (kCode == MEM_PORT_CHAR || kCode == MEM_PORT_BIN || kCode == MEM_PORT_BIT) {
    using Element = std::remove_cv_t<std::remove_all_extents_t<std::remove_cv_t<FieldType>>>;
    static_assert(!std::is_same_v<Element, bool>,
                  "mem: a text may set bits that bool does not have: use std::uint8_t");
    static_assert(
        std::is_same_v<Element, bool> || isPlainBytes<Element>(),
        "mem: a text could set pointers or bool in these bytes, or their type is unknown");
  }
}

// One element of a repeat field, which is declared as one element or as an array of one.
template <class Type>
using RepeatElement = std::conditional_t<std::is_array_v<Type> && std::extent_v<Type> == 1,
                                         std::remove_extent_t<Type>, Type>;

// The place of a field in its structure.
struct FieldExtent {
  std::size_t offset;
  std::size_t end;
  std::size_t index;
};

// For each field: true when another field shares bytes with it.
template <class... Fields>
constexpr std::array<bool, sizeof...(Fields)> sharedFields() noexcept {
  std::array<FieldExtent, sizeof...(Fields)> extents{
      FieldExtent{Fields::kOffset, Fields::kOffset + sizeof(typename Fields::Type), 0}...};
  for (std::size_t i = 0; i < extents.size(); ++i) extents[i].index = i;
  std::sort(extents.begin(), extents.end(), [](const FieldExtent &left, const FieldExtent &right) {
    return left.offset < right.offset;
  });
  std::array<bool, sizeof...(Fields)> areShared{};
  std::size_t furthest = 0;  // the field with the last end so far
  for (std::size_t i = 1; i < extents.size(); ++i) {
    const FieldExtent &before = extents[furthest];
    if (extents[i].offset < before.end) {
      areShared[extents[i].index] = areShared[before.index] = true;
    }
    if (extents[i].end > before.end) furthest = i;
  }
  return areShared;
}

}  // namespace detail

/** One field of a definition: a MEM_FIELD member with identifier, type code and options. */
template <class StructType, class FieldType, std::uint32_t kId, MEMFieldType kCode,
          std::size_t kFieldOffset, detail::Repeat kRepeat = detail::Repeat::kNone,
          std::uint32_t kCountId = 0, class From = Member<StructType, FieldType, kFieldOffset>>
class PortField {
 public:
  using Struct = StructType;
  using Type = FieldType;
  using Target = detail::PortTarget<FieldType, kCode>;
  static constexpr std::uint32_t kFieldId = kId;
  static constexpr MEMFieldType kFieldCode = kCode;
  static constexpr std::size_t kOffset = kFieldOffset;
  static constexpr detail::Repeat kRepeats = kRepeat;
  static constexpr std::uint32_t kCountFieldId = kCountId;
  static constexpr const char *kName = From::kName;

  constexpr PortField() noexcept {
    def_.FieldID = kId;
    def_.Type = static_cast<std::uint8_t>(kCode);
    def_.Length = static_cast<std::int32_t>(sizeof(FieldType));
    def_.Offset = static_cast<std::int32_t>(kOffset);
  }

  /** Refuses a text without the field. */
  constexpr PortField required() const noexcept {
    PortField changed = *this;
    changed.def_.Required = 1;
    return changed;
  }
  /** Refuses text that is longer than the field instead of truncating it. */
  constexpr PortField noTruncate() const noexcept {
    PortField changed = *this;
    changed.def_.NoTruncate = 1;
    return changed;
  }
  /** The field is never written, and not required when reading. */
  constexpr PortField notPorted() const noexcept {
    PortField changed = *this;
    changed.def_.NotPorted = 1;
    return changed;
  }

  /** The value of an absent field. Readers share the text of a pointer field; it must live as long
   * as the table. */
  constexpr PortField defaultText(const char *pText) const noexcept {
    static_assert(detail::isPortText(kCode), "mem: this field has no narrow text as its default");
    PortField changed = *this;
    changed.def_.Default.pText = pText;
    changed.hasDefault_ = true;
    return changed;
  }
  constexpr PortField defaultText(const char16_t *pText) const noexcept {
    static_assert(detail::isPortWideText(kCode), "mem: this field has no wide text as its default");
    PortField changed = *this;
    changed.def_.Default.pWide = pText;
    changed.hasDefault_ = true;
    return changed;
  }
  /** For numbers and enumerators of 16 and 32 bits. A 64-bit field has no default, because readers
   * set only half of it. */
  template <auto kValue>
  constexpr PortField defaultNumber() const noexcept {
    static_assert(detail::isPortNumber(kCode), "mem: this field has no number as its default");
    if constexpr (detail::isPortNumber(kCode)) {
      static_assert(detail::fits<FieldType, kValue>(), "mem: the default does not fit its field");
    }
    PortField changed = *this;
    if constexpr (sizeof(FieldType) == 2) {
      changed.def_.Default.Short = static_cast<std::uint16_t>(kValue);
    } else {
      changed.def_.Default.Long = static_cast<std::uint32_t>(kValue);
    }
    return changed;
  }
  /** For all other types: the field's bytes, which must live as long as the table. */
  constexpr PortField defaultBytes(const FieldType *pField) const noexcept {
    static_assert(!detail::isPortText(kCode) && !detail::isPortWideText(kCode) &&
                      !detail::isPortNumber(kCode) && kCode != MEM_PORT_UBIGINT &&
                      kCode != MEM_PORT_BIGINT,
                  "mem: this field has no bytes as its default");
    PortField changed = *this;
    changed.def_.Default.pBytes = pField;
    changed.hasDefault_ = true;
    return changed;
  }

  constexpr const MEMFieldDef &def() const noexcept { return def_; }

  /** The same for a field that overlaps no other: if it is absent and has no default, it becomes
   * null or empty instead of keeping the old contents of its storage. */
  constexpr MEMFieldDef completeDef() const noexcept {
    MEMFieldDef def = def_;
    if constexpr (kIsBound) {
      if (def.NotPorted != 0) def.Required = 0;
    }
    if constexpr (kCode == MEM_PORT_CHARSZ) {
      if (!hasDefault_) def.Default.pText = "";
    } else if constexpr (kCode == MEM_PORT_WCHARSZ) {
      if (!hasDefault_) def.Default.pWide = u"";
    } else if constexpr (kCode == MEM_PORT_PNT || kCode == MEM_PORT_SUBSTRUCTURE) {
      if (!hasDefault_) def.Default.pBytes = detail::kZeros<sizeof(FieldType)>.data();
    }
    return def;
  }

 private:
  // True for pointers, text with a terminator and embedded structures, which may contain them:
  // their values affect which storage a program reads.
  static constexpr bool kIsBound = detail::isPortPointer(kCode) || detail::isPortText(kCode) ||
                                   detail::isPortWideText(kCode) || kCode == MEM_PORT_SUBSTRUCTURE;

  MEMFieldDef def_{};
  bool hasDefault_ = false;
};

namespace detail {

// The field that a MEM_FIELD member becomes.
template <class From, class Type, std::uint32_t kId, MEMFieldType kCode,
          Repeat kRepeat = Repeat::kNone, std::uint32_t kCountId = 0>
using PortFieldFrom =
    PortField<typename From::Struct, Type, kId, kCode, From::kOffset, kRepeat, kCountId, From>;

}  // namespace detail

/** The field `kId` of a structure, its type code taken from the member's type:
 *
 *  | member                                   | type code                  |
 *  |------------------------------------------|----------------------------|
 *  | integer or enumeration of 16, 32, 64 bits| Short … UBigInt            |
 *  | char[n], char16_t[n]                     | CharSZ, WCharSZ            |
 *  | char *, char16_t *                       | PStr, WPStr                |
 *  | std::uint8_t[n], std::byte[n]            | Bin                        |
 *  | pointer to a described structure         | Pnt                        |
 *  | described structure                      | Substructure               |
 */
template <std::uint32_t kId, class From>
constexpr auto field(From) noexcept {
  using Type = typename From::Type;
  detail::checkMember<Type>();
  static_assert(detail::portCode<Type>() != MEMFieldType{},
                "mem: this member's type has no type code (use fieldAs to choose one)");
  return detail::PortFieldFrom<From, Type, kId, detail::portCode<Type>()>();
}

/** The same with an explicit type code: Char, WChar, Bin and Bit, which no type determines. */
template <std::uint32_t kId, MEMFieldType kCode, class From>
constexpr auto fieldAs(From) noexcept {
  using Type = typename From::Type;
  static_assert(detail::canHold<Type, kCode>(),
                "mem: this member cannot hold a field of this type");
  detail::checkMember<Type>();
  detail::checkBytes<Type, kCode>();
  return detail::PortFieldFrom<From, Type, kId, kCode>();
}

/** The repeat field, the last one of its structure: an element or an array of one. The field
 * `kCountId` has the number of elements. */
template <std::uint32_t kId, std::uint32_t kCountId, class From>
constexpr auto repeatedField(From) noexcept {
  using Element = detail::RepeatElement<typename From::Type>;
  detail::checkMember<Element>();
  static_assert(detail::portCode<Element>() != MEMFieldType{},
                "mem: the repeated member's type has no type code");
  return detail::PortFieldFrom<From, Element, kId, detail::portCode<Element>(),
                               detail::Repeat::kByCount, kCountId>();
}

/** The same, but the field `kLengthId` has the structure's length in bytes. */
template <std::uint32_t kId, std::uint32_t kLengthId, class From>
constexpr auto repeatedFieldByLength(From) noexcept {
  using Element = detail::RepeatElement<typename From::Type>;
  detail::checkMember<Element>();
  static_assert(detail::portCode<Element>() != MEMFieldType{},
                "mem: the repeated member's type has no type code");
  return detail::PortFieldFrom<From, Element, kId, detail::portCode<Element>(),
                               detail::Repeat::kByLength, kLengthId>();
}

/** One structure with its fields. */
template <class StructType, std::uint32_t kId, class... Fields>
struct PortStructure {
  using Struct = StructType;
  static constexpr std::uint32_t kStructId = kId;
  static constexpr std::size_t kFieldCount = sizeof...(Fields);

  /** Index of the field that counts the repeat field, or MEM_PORT_NO_COUNT. */
  static constexpr std::int32_t countField() noexcept {
    if (countFieldId() == 0) return MEM_PORT_NO_COUNT;
    std::int32_t index = 0;
    bool isFound = false;
    ((isFound = isFound || Fields::kFieldId == countFieldId(), index += isFound ? 0 : 1), ...);
    return index;
  }
  static constexpr std::uint32_t countFieldId() noexcept {
    return ((Fields::kRepeats == detail::Repeat::kNone ? 0U : Fields::kCountFieldId) + ... + 0U);
  }
  static constexpr bool isCountLength() noexcept {
    return ((Fields::kRepeats == detail::Repeat::kByLength) || ...);
  }

  /** True when the structure, or one embedded in it, has fields that determine which other storage
   * a program reads: pointers and counts. */
  template <class Table>
  static constexpr bool leadsOn() noexcept {
    return (leadsOn<Table, Fields>() || ...);
  }
  /** True when another field shares bytes with such a field, so that a text can set one through the
   * other. */
  template <class Table>
  static constexpr bool isAmbiguous() noexcept {
    const auto areShared = detail::sharedFields<Fields...>();
    std::size_t i = 0;
    return ((areShared[i++] && leadsOn<Table, Fields>()) || ...);
  }

  std::array<MEMFieldDef, kFieldCount> fields;

 private:
  template <class Table, class Field>
  static constexpr bool leadsOn() noexcept {
    if constexpr (Field::kFieldCode == MEM_PORT_SUBSTRUCTURE) {
      return Table::template leadsOn<typename Field::Target>();
    } else {
      return detail::isPortPointer(Field::kFieldCode) || Field::kFieldId == countFieldId();
    }
  }
};

namespace detail {

template <class... Fields>
constexpr bool areIdsAscending() noexcept {
  std::uint32_t last = 0;
  bool isAscending = true;
  ((isAscending = isAscending && Fields::kFieldId > last, last = Fields::kFieldId), ...);
  return isAscending;
}

template <class... Fields>
constexpr bool repeatsOnlyLast() noexcept {
  std::size_t index = 0;
  bool isOnlyLast = true;
  ((isOnlyLast =
        isOnlyLast && (Fields::kRepeats == Repeat::kNone || index + 1 == sizeof...(Fields)),
    ++index),
   ...);
  return isOnlyLast;
}

template <std::uint32_t kCountId, class... Fields>
constexpr bool hasCountField() noexcept {
  return ((Fields::kFieldId == kCountId && Fields::kRepeats == Repeat::kNone &&
           isPortNumber(Fields::kFieldCode)) ||
          ...);
}

// True when the elements, which continue after the declared one, overlap nothing else: no other
// field ends after the first element begins, and the structure ends with it.
template <class Struct, class... Fields>
constexpr bool repeatsAtTheEnd() noexcept {
  std::size_t othersEnd = 0;
  std::size_t first = sizeof(Struct);
  std::size_t end = sizeof(Struct);
  const auto look = [&](Repeat repeat, std::size_t offset, std::size_t length) {
    if (repeat == Repeat::kNone) {
      if (offset + length > othersEnd) othersEnd = offset + length;
    } else {
      first = offset;
      end = offset + length;
    }
  };
  (look(Fields::kRepeats, Fields::kOffset, sizeof(typename Fields::Type)), ...);
  return othersEnd <= first && sizeof(Struct) - end < alignof(Struct);
}

// True when no two fields are the same pointer.
template <class... Fields>
constexpr bool namesPointersOnce() noexcept {
  const std::array<bool, sizeof...(Fields)> isPointer{isPortPointer(Fields::kFieldCode)...};
  const std::array<std::size_t, sizeof...(Fields)> offsets{Fields::kOffset...};
  const std::array<const void *, sizeof...(Fields)> types{&kTypeMark<typename Fields::Type>...};
  const auto areShared = sharedFields<Fields...>();
  for (std::size_t i = 0; i < offsets.size(); ++i) {
    if (!isPointer[i] || !areShared[i]) continue;
    for (std::size_t j = 0; j < i; ++j) {
      if (offsets[i] == offsets[j] && types[i] == types[j]) return false;
    }
  }
  return true;
}

template <class... Fields>
constexpr std::array<MEMFieldDef, sizeof...(Fields)> completeFields(
    const Fields &...fields) noexcept {
  const auto areShared = sharedFields<Fields...>();
  std::size_t i = 0;
  return {(areShared[i++] ? fields.def() : fields.completeDef())...};
}

template <class Structure, class... Fields>
constexpr void checkRepeat() noexcept {
  static_assert(repeatsOnlyLast<Fields...>(), "mem: the repeat field is the last one");
  static_assert(!((Fields::kRepeats != Repeat::kNone) || ...) ||
                    hasCountField<Structure::countFieldId(), Fields...>(),
                "mem: the count field must be a 16- or 32-bit number of the same structure");
  static_assert(!((Fields::kRepeats != Repeat::kNone) || ...) ||
                    repeatsAtTheEnd<typename Structure::Struct, Fields...>(),
                "mem: elements of the repeat field would overlap what follows it");
}

}  // namespace detail

/** The structure `kId` of a table, with its fields in ascending order of their identifiers. Clang
 * accepts more than 256 fields only with -fbracket-depth. */
template <class Struct, std::uint32_t kId, class... Fields>
constexpr auto structure(const Fields &...fields) noexcept {
  using Structure = PortStructure<Struct, kId, Fields...>;
  static_assert(kId >= 1 && kId <= 0x7FFFFFFFU,
                "mem: structure identifiers are 1 to 2,147,483,647");
  static_assert(sizeof...(Fields) >= 1, "mem: a structure without fields cannot be read back");
  static_assert(sizeof...(Fields) <= MEM_PORT_MAX_FIELDS,
                "mem: a structure has 1,024 fields at most");
  static_assert((std::is_same_v<typename Fields::Struct, Struct> && ...),
                "mem: a field of another structure");
  static_assert(detail::areIdsAscending<Fields...>(),
                "mem: field identifiers are 1 or more and ascend");
  static_assert(sizeof(Struct) <= std::numeric_limits<std::int32_t>::max(),
                "mem: the structure is too long");
  static_assert(std::is_trivially_copyable_v<Struct>,
                "mem: a structure is filled byte by byte (trivially copyable)");
  static_assert(alignof(Struct) <= detail::kEntryAlignment, "mem: entries are aligned to 8 bytes");
  static_assert(detail::namesPointersOnce<Fields...>(), "mem: two fields are the same pointer");
  detail::checkRepeat<Structure, Fields...>();
  return Structure{detail::completeFields(fields...)};
}

/** A table of structure definitions, complete and checked: every pointer and embedded structure
 * refers to a structure of the same table. It contains addresses of its own parts, so define it in
 * place (a constant of static storage duration) and do not copy it:
 *
 *     inline constexpr mem::PortTable kTable{mem::structure<…>(…), …};
 */
template <class... Structures>
class PortTable {
 public:
  constexpr explicit PortTable(const Structures &...structures) noexcept { (add(structures), ...); }
  PortTable(const PortTable &) = delete;
  PortTable &operator=(const PortTable &) = delete;

  /** The table for the services, ended by a record with identifier 0. */
  constexpr const MEMStructDef *table() const noexcept { return defs_.data(); }

  template <class Struct>
  static constexpr bool describes() noexcept {
    return timesDescribed<Struct>() == 1;
  }
  /** True when the structure, or one embedded in it, has pointers or counts. */
  template <class Struct>
  static constexpr bool leadsOn() noexcept {
    return ((std::is_same_v<typename Structures::Struct, Struct> &&
             Structures::template leadsOn<PortTable>()) ||
            ...);
  }
  /** True when a text can set pointers and counts to any value, because some share bytes with other
   * fields. */
  static constexpr bool isAmbiguous() noexcept {
    return (Structures::template isAmbiguous<PortTable>() || ...);
  }
  /** Identifier of a structure. */
  template <class Struct>
  static constexpr std::uint32_t idOf() noexcept {
    static_assert(describes<Struct>(), "mem: a structure that the table does not describe");
    return ((std::is_same_v<typename Structures::Struct, Struct> ? Structures::kStructId : 0U) +
            ... + 0U);
  }

 private:
  template <class Struct>
  static constexpr std::size_t timesDescribed() noexcept {
    return ((std::is_same_v<typename Structures::Struct, Struct> ? 1U : 0U) + ... + 0U);
  }
  static constexpr std::size_t timesUsed(std::uint32_t id) noexcept {
    return ((Structures::kStructId == id ? 1U : 0U) + ... + 0U);
  }

  template <class Field>
  static constexpr std::uint32_t targetId() noexcept {
    using Target = typename Field::Target;
    if constexpr (std::is_void_v<Target>) {
      return 0;
    } else {
      static_assert(timesDescribed<Target>() == 1,
                    "mem: a field refers to a structure that the table does not describe");
      return idOf<Target>();
    }
  }

  template <class Struct, std::uint32_t kId, class... Members>
  constexpr void add(const PortStructure<Struct, kId, Members...> &added) noexcept {
    using Structure = PortStructure<Struct, kId, Members...>;
    static_assert(timesDescribed<Struct>() == 1, "mem: a structure is described twice");
    static_assert(timesUsed(kId) == 1, "mem: two structures have the same identifier");
    const std::array<std::uint32_t, Structure::kFieldCount> targets = {targetId<Members>()...};
    MEMStructDef &def = defs_[defCount_++];
    def.StructID = kId;
    def.Length = static_cast<std::int32_t>(sizeof(Struct));
    def.CountField = Structure::countField();
    def.FieldCount = static_cast<std::int32_t>(Structure::kFieldCount);
    def.Fields = fields_.data() + fieldCount_;
    def.CountIsLength = Structure::isCountLength() ? 1 : 0;
    for (std::size_t i = 0; i < Structure::kFieldCount; ++i) {
      fields_[fieldCount_] = added.fields[i];
      fields_[fieldCount_++].SubStructID = targets[i];
    }
  }

  std::array<MEMFieldDef, (Structures::kFieldCount + ... + 0U)> fields_{};
  std::array<MEMStructDef, sizeof...(Structures) + 1> defs_{};
  std::size_t fieldCount_ = 0;
  std::size_t defCount_ = 0;
};
/** @} */

/** @name Port strings: any number of threads, each on its own object */
/** @{ */

namespace detail {

// Calls a service that reports its failure in a record.
template <class Service, class... Args>
Status callPort(const Context &context, Slot<Service> slot, Args... args) noexcept {
  Error::forgetRecord(context);
  const std::int16_t result = (context.vector().*slot.entry)(args...);
  if (result != 0) return Error::ofPortCall(context, slot.name, result);
  return {};
}

}  // namespace detail

/** A port string in a heap of its own. */
class PortString {
 public:
  /** The characters, chunk by chunk. */
  class Iterator {
   public:
    using value_type = std::string_view;
    using difference_type = std::ptrdiff_t;

    Iterator() noexcept = default;
    value_type operator*() const noexcept {
      return {static_cast<const char *>(pChunk_->Text), static_cast<std::size_t>(pChunk_->Used)};
    }
    Iterator &operator++() noexcept {
      pChunk_ = pChunk_->pNext;
      return *this;
    }
    Iterator operator++(int) noexcept {
      const Iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(const Iterator &other) const noexcept = default;

   private:
    friend class PortString;
    explicit Iterator(const MEMPortChunk *pChunk) noexcept : pChunk_(pChunk) {}

    const MEMPortChunk *pChunk_ = nullptr;
  };

  PortString() noexcept = default;

  /** Writes the structure at `pStruct`, of kind `structId`, and all that it reaches. The text is in
   * a heap with `settings`. `chunkLen` is the capacity of a chunk; 0 selects the one that fills an
   * area. The error has no code of its own, but that of a heap that failed. */
  static Result<PortString> write(ContextRef context, const MEMStructDef *pDefs,
                                  std::uint32_t structId, const void *pStruct,
                                  HeapSettings settings = {}, std::int32_t chunkLen = 0) noexcept {
    Result<Heap> heap = Heap::open(context, settings);
    if (!heap.isOk()) return heap.error();
    PortString string(std::move(heap).value(), structId);
    const Status written =
        detail::callPort(context.get(), slots::MEM_StructToPortStr, pDefs, structId, pStruct,
                         chunkLen, string.heap_.handle(), &string.length_, &string.pFirst_);
    if (!written.isOk()) return written.error();
    return string;
  }
  template <class Struct, class... Structures>
  static Result<PortString> write(ContextRef context, const PortTable<Structures...> &table,
                                  const Struct &top, HeapSettings settings = {},
                                  std::int32_t chunkLen = 0) noexcept {
    return write(context, table.table(), PortTable<Structures...>::template idOf<Struct>(), &top,
                 settings, chunkLen);
  }

  bool isOpen() const noexcept { return heap_.isOpen(); }
  Status close() noexcept { return heap_.close(); }

  /** Identifier of the top-level structure. */
  std::uint32_t structId() const noexcept { return structId_; }
  std::uint32_t length() const noexcept { return isOpen() ? length_ : 0; }
  const MEMPortChunk *firstChunk() const noexcept { return isOpen() ? pFirst_ : nullptr; }
  Iterator begin() const noexcept { return Iterator(firstChunk()); }
  Iterator end() const noexcept { return {}; }

 private:
  PortString(Heap heap, std::uint32_t structId) noexcept
      : heap_(std::move(heap)), structId_(structId) {}

  Heap heap_;  // the other members count only while it is open
  MEMPortChunk *pFirst_ = nullptr;
  std::uint32_t length_ = 0;
  std::uint32_t structId_ = 0;
};

namespace detail {

// True when the first structure text is of this kind. A reader would accept any kind.
inline bool beginsWith(std::string_view text, std::uint32_t structId) noexcept {
  constexpr std::size_t kMostDigits = 10;
  char digits[kMostDigits + 1] = {'('};
  std::size_t length = 1;
  for (; structId != 0; structId /= 10) digits[length++] = static_cast<char>('0' + structId % 10);
  constexpr std::size_t kHeader = MEM_PORT_HEADER_LEN;
  if (text.size() < kHeader) return false;
  const std::string_view body = text.substr(kHeader);
  if (!body.starts_with(std::string_view(digits, length)) || body.size() == length) return false;
  return body[length] == '<' || body[length] == ',';
}

template <class Struct, class Heap, class Slot, class... Input>
Result<Struct *> readPort(Heap &heap, const Context &context, Slot slot, const MEMStructDef *pDefs,
                          Input... input) noexcept {
  checkEntryType<Struct>();
  void *pTop = nullptr;
  const Status read = callPort(context, slot, pDefs, input..., heap.handle(), &pTop);
  if (!read.isOk()) return read.error();
  return static_cast<Struct *>(pTop);
}

// Checks the text first. A text that the check cannot parse is passed to the reader, which reports
// where it fails.
template <class Struct, class Table, class Heap, class Slot, class... Input>
Result<Struct *> readPortChecked(Heap &heap, const Context &context, Slot slot, const Table &table,
                                 const PortCharacters &text, Input... input) noexcept {
  static_assert(!Table::isAmbiguous(),
                "mem: a field shares bytes with a pointer or a count, so that a text decides what "
                "these are (readPortStringUnchecked takes it)");
  const Result<bool> isGood =
      isAsDefined(context, slot.name, table.table(), Table::template idOf<Struct>(), text);
  if (!isGood.isOk()) return isGood.error();
  const Result<Struct *> read = readPort<Struct>(heap, context, slot, table.table(), input...);
  if (!read.isOk() || isGood.value()) return read;
  return Error::refusal(slot.name, "the text is not what the definitions say");
}

// Why the contiguous readers refuse a text before they check the whole text; null if they do not.
inline const char *refusalOf(std::string_view text, std::uint32_t structId) noexcept {
  if (!beginsWith(text, structId)) return kOtherStructure;
  const bool isLong = text.size() > std::numeric_limits<std::uint32_t>::max();
  return isLong ? "the text is too long" : nullptr;
}

}  // namespace detail

/** Reads a port string into structures in the caller's heap, of either kind, and returns the
 * top-level one, which must be a `Struct`. The text need not be trusted: it is checked first, and
 * refused unless
 *  - every pointer refers to a structure of its type, and every embedded structure is of its type;
 *  - the number of elements matches the text and the count field, and after the last field only a
 *    repeat field occurs again.
 * So every structure can be read as its type, every pointer in it is null or points to such a
 * structure or to a text with its terminator, and every array of text that shares no bytes with
 * another field has a terminator, too. Numbers, enumerations and bytes may have any value, and the
 * text chooses which of several fields in a union was stored. Members that the table does not
 * describe, and bytes that alternatives do not store, have the old contents of the storage. A
 * structure without elements ends where the first one would be.
 *
 * On failure all that was made so far stays in the heap. The check takes 4 bytes for each
 * structure, and time proportional to the length of the text. */
template <class Struct, class Heap, class... Structures>
Result<Struct *> readPortString(ContextRef context, Heap &heap,
                                const PortTable<Structures...> &table,
                                std::string_view text) noexcept {
  const auto slot = slots::MEM_Port1StrToStruct;
  constexpr std::uint32_t kStructId = PortTable<Structures...>::template idOf<Struct>();
  const char *const pRefusal = detail::refusalOf(text, kStructId);
  if (pRefusal != nullptr) return Error::refusal(slot.name, pRefusal);
  return detail::readPortChecked<Struct>(heap, context.get(), slot, table,
                                         detail::PortCharacters(text), text.data(),
                                         static_cast<std::uint32_t>(text.size()));
}

/** The same from a string that this program wrote, possibly with another table. */
template <class Struct, class Heap, class... Structures>
Result<Struct *> readPortString(ContextRef context, Heap &heap,
                                const PortTable<Structures...> &table,
                                const PortString &string) noexcept {
  const auto slot = slots::MEM_PortStrToStruct;
  constexpr std::uint32_t kStructId = PortTable<Structures...>::template idOf<Struct>();
  if (string.structId() != kStructId) return Error::refusal(slot.name, detail::kOtherStructure);
  const detail::PortCharacters text(string.firstChunk(), string.length());
  return detail::readPortChecked<Struct>(heap, context.get(), slot, table, text,
                                         string.firstChunk());
}

/** Reads a text from a writer that is trusted to have used this table: compares only the kind of
 * the top-level structure. The text decides what its pointers refer to (docs/port-strings.md,
 * "Check a text from elsewhere"). */
template <class Struct, class Heap, class... Structures>
Result<Struct *> readPortStringUnchecked(ContextRef context, Heap &heap,
                                         const PortTable<Structures...> &table,
                                         std::string_view text) noexcept {
  const auto slot = slots::MEM_Port1StrToStruct;
  constexpr std::uint32_t kStructId = PortTable<Structures...>::template idOf<Struct>();
  const char *const pRefusal = detail::refusalOf(text, kStructId);
  if (pRefusal != nullptr) return Error::refusal(slot.name, pRefusal);
  return detail::readPort<Struct>(heap, context.get(), slot, table.table(), text.data(),
                                  static_cast<std::uint32_t>(text.size()));
}

/** The same from a string that this program wrote with this table. */
template <class Struct, class Heap, class... Structures>
Result<Struct *> readPortStringUnchecked(ContextRef context, Heap &heap,
                                         const PortTable<Structures...> &table,
                                         const PortString &string) noexcept {
  const auto slot = slots::MEM_PortStrToStruct;
  constexpr std::uint32_t kStructId = PortTable<Structures...>::template idOf<Struct>();
  if (string.structId() != kStructId) return Error::refusal(slot.name, detail::kOtherStructure);
  return detail::readPort<Struct>(heap, context.get(), slot, table.table(), string.firstChunk());
}
/** @} */

}  // namespace mem

#endif
