/** @file port.hpp
 * Definition tables made from members, and port strings. Part of mem.hpp, whose conventions hold.
 */
#ifndef QJ7MEM00_MEM_PORT_HPP
#define QJ7MEM00_MEM_PORT_HPP

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>
#include <type_traits>
#include <utility>

#include "heap.hpp"
#include "pack.hpp"

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

// Characters and truth values are integers for the language only.
template <class Type>
inline constexpr bool kIsInteger =
    std::is_integral_v<Type> && !std::is_same_v<Type, bool> && !std::is_same_v<Type, char> &&
    !std::is_same_v<Type, wchar_t> && !std::is_same_v<Type, char8_t> &&
    !std::is_same_v<Type, char16_t> && !std::is_same_v<Type, char32_t>;

template <class Type>
inline constexpr bool kIsByte =
    std::is_same_v<Type, unsigned char> || std::is_same_v<Type, std::byte>;

// The type code of a member; 0 where its type leaves it open.
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

// Whether a member can hold a field of this code.
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

// The number that an enumerator stands for; other numbers themselves.
template <class Type>
constexpr auto numberOf(Type value) noexcept {
  if constexpr (std::is_enum_v<Type>) {
    return static_cast<std::underlying_type_t<Type>>(value);
  } else {
    return value;
  }
}

// Whether a field of this type can hold the number.
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

// One element of a repeat field, which is declared as such or as an array of one.
template <class Type>
using RepeatElement = std::conditional_t<std::is_array_v<Type> && std::extent_v<Type> == 1,
                                         std::remove_extent_t<Type>, Type>;

}  // namespace detail

/** One field of a definition: MEM_FIELD's member with identifier, type code and options. */
template <class StructType, class FieldType, std::uint32_t kId, MEMFieldType kCode,
          detail::Repeat kRepeat = detail::Repeat::kNone, std::uint32_t kCountId = 0>
class PortField {
 public:
  using Struct = StructType;
  using Target = detail::PortTarget<FieldType, kCode>;
  static constexpr std::uint32_t kFieldId = kId;
  static constexpr MEMFieldType kFieldCode = kCode;
  static constexpr detail::Repeat kRepeats = kRepeat;
  static constexpr std::uint32_t kCountFieldId = kCountId;

  constexpr explicit PortField(std::size_t offset) noexcept {
    def_.FieldID = kId;
    def_.Type = static_cast<std::uint8_t>(kCode);
    def_.Length = static_cast<std::int32_t>(sizeof(FieldType));
    def_.Offset = static_cast<std::int32_t>(offset);
  }

  /** A text without the field is refused. */
  constexpr PortField required() const noexcept {
    PortField changed = *this;
    changed.def_.Required = 1;
    return changed;
  }
  /** Text that is longer than the field is refused instead of being cut. */
  constexpr PortField noTruncate() const noexcept {
    PortField changed = *this;
    changed.def_.NoTruncate = 1;
    return changed;
  }
  /** Never written, and not demanded. */
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
    return changed;
  }
  constexpr PortField defaultText(const char16_t *pText) const noexcept {
    static_assert(detail::isPortWideText(kCode), "mem: this field has no wide text as its default");
    PortField changed = *this;
    changed.def_.Default.pWide = pText;
    return changed;
  }
  /** For numbers and enumerators of 16 and 32 bits. Of a 64-bit field readers set half only, so it
   * has no default. */
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
    return changed;
  }

  constexpr const MEMFieldDef &def() const noexcept { return def_; }

 private:
  MEMFieldDef def_{};
};

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
template <std::uint32_t kId, class Struct, class Type, std::size_t kOffset>
constexpr auto field(Member<Struct, Type, kOffset>) noexcept {
  static_assert(detail::portCode<Type>() != MEMFieldType{},
                "mem: this member's type has no type code (use fieldAs to choose one)");
  return PortField<Struct, Type, kId, detail::portCode<Type>()>(kOffset);
}

/** The same with a type code of the caller's: Char, WChar, Bin and Bit, which no type tells. */
template <std::uint32_t kId, MEMFieldType kCode, class Struct, class Type, std::size_t kOffset>
constexpr auto fieldAs(Member<Struct, Type, kOffset>) noexcept {
  static_assert(detail::canHold<Type, kCode>(),
                "mem: this member cannot hold a field of this type");
  return PortField<Struct, Type, kId, kCode>(kOffset);
}

/** The repeat field, the last one of its structure: an element, or an array of one, of which there
 * are as many as the field `kCountId` says. */
template <std::uint32_t kId, std::uint32_t kCountId, class Struct, class Type, std::size_t kOffset>
constexpr auto repeatedField(Member<Struct, Type, kOffset>) noexcept {
  using Element = detail::RepeatElement<Type>;
  static_assert(detail::portCode<Element>() != MEMFieldType{},
                "mem: the repeated member's type has no type code");
  return PortField<Struct, Element, kId, detail::portCode<Element>(), detail::Repeat::kByCount,
                   kCountId>(kOffset);
}

/** The same where the field `kLengthId` holds the structure's bytes. */
template <std::uint32_t kId, std::uint32_t kLengthId, class Struct, class Type, std::size_t kOffset>
constexpr auto repeatedFieldByLength(Member<Struct, Type, kOffset>) noexcept {
  using Element = detail::RepeatElement<Type>;
  static_assert(detail::portCode<Element>() != MEMFieldType{},
                "mem: the repeated member's type has no type code");
  return PortField<Struct, Element, kId, detail::portCode<Element>(), detail::Repeat::kByLength,
                   kLengthId>(kOffset);
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

  std::array<MEMFieldDef, kFieldCount> fields;
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

template <class Structure, class... Fields>
constexpr void checkRepeat() noexcept {
  static_assert(repeatsOnlyLast<Fields...>(), "mem: the repeat field is the last one");
  static_assert(!((Fields::kRepeats != Repeat::kNone) || ...) ||
                    hasCountField<Structure::countFieldId(), Fields...>(),
                "mem: the count field must be a 16- or 32-bit number of the same structure");
}

}  // namespace detail

/** The structure `kId` of a table, with its fields in ascending order of their identifiers. Clang
 * takes more than 256 fields with -fbracket-depth only. */
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
  detail::checkRepeat<Structure, Fields...>();
  return Structure{{fields.def()...}};
}

/** A table of structure definitions, complete and checked: every pointer and embedded structure
 * leads to a structure of the same table. It holds addresses of its own parts, so it is made in
 * place (a constant of static storage duration) and not copied:
 *
 *     inline constexpr mem::PortTable kTable{mem::structure<…>(…), …};
 */
template <class... Structures>
class PortTable {
 public:
  constexpr explicit PortTable(const Structures &...structures) noexcept { (add(structures), ...); }
  PortTable(const PortTable &) = delete;
  PortTable &operator=(const PortTable &) = delete;

  /** As the services take it, ended by a record with identifier 0. */
  constexpr const MEMStructDef *table() const noexcept { return defs_.data(); }

  template <class Struct>
  static constexpr bool describes() noexcept {
    return timesDescribed<Struct>() == 1;
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
                    "mem: a field leads to a structure that the table does not describe");
      return idOf<Target>();
    }
  }

  template <class Struct, std::uint32_t kId, class... Members>
  constexpr void add(const PortStructure<Struct, kId, Members...> &added) noexcept {
    using Structure = PortStructure<Struct, kId, Members...>;
    static_assert(timesDescribed<Struct>() == 1, "mem: a structure is described twice");
    static_assert(timesUsed(kId) == 1, "mem: two structures have one identifier");
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

  /** Writes the structure at `pStruct`, of kind `structId`, and all that it reaches. The heap of
   * `settings` takes the text. `chunkLen` is the capacity of a chunk, 0 for what fills an area. The
   * error has no code of its own; a failing heap's stands there. */
  static Result<PortString> write(ContextRef context, const MEMStructDef *pDefs,
                                  std::uint32_t structId, const void *pStruct,
                                  HeapSettings settings = {}, std::int32_t chunkLen = 0) noexcept {
    Result<Heap> heap = Heap::open(context, settings);
    if (!heap.isOk()) return heap.error();
    PortString string(std::move(heap).value(), structId);
    const Status written = call(context.get(), slots::MEM_StructToPortStr, pDefs, structId, pStruct,
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

// Whether the first structure text is of this kind. A reader would store whatever comes first.
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
  void *pTop = nullptr;
  const Status read = call(context, slot, pDefs, input..., heap.handle(), &pTop);
  if (!read.isOk()) return read.error();
  return static_cast<Struct *>(pTop);
}

inline constexpr char kOtherStructure[] = "the text begins with another structure";

}  // namespace detail

/** Reads a port string into structures in the caller's heap, of either kind, and hands out the
 * top-level one, which has to be a `Struct`. The text need not be trusted. On failure what was made
 * so far stays in the heap. */
template <class Struct, class Heap, class... Structures>
Result<Struct *> readPortString(ContextRef context, Heap &heap,
                                const PortTable<Structures...> &table,
                                std::string_view text) noexcept {
  const auto slot = slots::MEM_Port1StrToStruct;
  constexpr std::uint32_t kStructId = PortTable<Structures...>::template idOf<Struct>();
  if (!detail::beginsWith(text, kStructId)) {
    return Error::refusal(slot.name, detail::kOtherStructure);
  }
  if (text.size() > std::numeric_limits<std::uint32_t>::max()) {
    return Error::refusal(slot.name, "the text is too long");
  }
  return detail::readPort<Struct>(heap, context.get(), slot, table.table(), text.data(),
                                  static_cast<std::uint32_t>(text.size()));
}

/** The same from a string that was written here. */
template <class Struct, class Heap, class... Structures>
Result<Struct *> readPortString(ContextRef context, Heap &heap,
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
