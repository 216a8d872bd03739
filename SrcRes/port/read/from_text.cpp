#include "port/read/from_text.h"

#include <algorithm>

#include "base/bytes.h"
#include "port/words.h"

namespace memlib {

namespace {

constexpr MessagePoint kPointChar{"MEM_PortStr2Char", 1402};
constexpr MessagePoint kPointCharSZ{"MEM_PortStr2CharSZ", 1476};
constexpr MessagePoint kPointPStr{"MEM_PortStr2PStr", 1551};
constexpr MessagePoint kPointBin{"MEM_PortStr2Bin", 1648};
constexpr MessagePoint kPointNumber{"MEM_PortStr2Long", 1733};
constexpr MessagePoint kPointBit{"MEM_PortStr2Bit", 1810};
constexpr MessagePoint kPointWChar{"MEM_PortStr2WChar", 1874};
constexpr MessagePoint kPointWCharSZ{"MEM_PortStr2WCharSZ", 1962};
constexpr MessagePoint kPointWPStr{"MEM_PortStr2WPStr", 2057};
constexpr MessagePoint kPointEmbedded{"MEM_Port2Struct", 2529};
constexpr MessagePoint kPointPointer{"MEM_PortStr2Pnt", 2702};

constexpr char kTooLarge[] = "String too large for this field marked as NoTruncate";
constexpr char kInconsistent[] = "Inconsistent pointer to string data!";
constexpr char kMissingPaddedQuote[] = "Missing  at the start of a string field";
constexpr char kMissingQuote[] = "Missing quote at the start of a string field!";
constexpr char kMissingWideQuote[] = "Missing  at the start of a string field!";
constexpr char kNotANumber[] = "Not a numeric field!";
constexpr char kNotAString[] = "Not a pointer to string field!";

// How characters that do not fit are handled.
enum class Excess { dropped, tooLarge, inconsistent };

// The target of text: `room` units of a field or of a new string.
template <class Unit>
class TextTarget {
 public:
  TextTarget(std::byte *pText, std::size_t room, Excess excess) noexcept
      : pText_(pText), room_(room), excess_(excess) {}

  std::size_t stored() const noexcept { return stored_; }

  // How many of `count` characters may be read, up to and including the first one that does not
  // fit.
  std::size_t readable(std::size_t count) const noexcept {
    const std::size_t left = room_ - stored_;
    return excess_ == Excess::dropped || count <= left ? count : left + 1;
  }

  // Stores the characters that fit. False when there are more and that is an error.
  bool put(std::string_view text) noexcept {
    const std::size_t count = std::min(text.size(), room_ - stored_);
    if constexpr (sizeof(Unit) == 1) {
      if (count > 0) std::memcpy(pText_ + stored_, text.data(), count);
      stored_ += count;
    } else {
      for (std::size_t i = 0; i < count; ++i) putUnit(static_cast<unsigned char>(text[i]));
    }
    return count == text.size() || excess_ == Excess::dropped;
  }
  bool put(Unit unit) noexcept {
    if (stored_ == room_) return excess_ == Excess::dropped;
    putUnit(unit);
    return true;
  }

  void padWithBlanks() noexcept {
    while (stored_ < room_) putUnit(Unit{0x20});
  }
  // REQUIRES: one unit after the room.
  void terminate() noexcept { storeAs(pText_ + stored_ * sizeof(Unit), Unit{0}); }

  bool report(PortScanner &scanner, const MessagePoint &point) const noexcept {
    return scanner.fail(point, excess_ == Excess::tooLarge ? kTooLarge : kInconsistent);
  }

 private:
  void putUnit(Unit unit) noexcept { storeAs(pText_ + stored_++ * sizeof(Unit), unit); }

  std::byte *pText_;
  std::size_t room_;
  Excess excess_;
  std::size_t stored_ = 0;
};

// Reads text after its opening quote, up to the closing one. `readEscaped` reads the unit after a
// "/".
template <class Unit, class ReadEscaped>
bool readText(PortScanner &scanner, const MessagePoint &point, char quote, TextTarget<Unit> &target,
              ReadEscaped readEscaped) noexcept {
  for (;;) {
    const std::string_view text = scanner.run();
    if (text.empty()) return false;
    const std::size_t plain = plainLength(text, quote);
    const std::size_t read = target.readable(plain);
    scanner.skip(read);
    if (!target.put(firstOf(text, read))) return target.report(scanner, point);
    if (plain == text.size()) continue;
    scanner.skip(1);
    if (text[plain] == quote) return true;
    Unit unit{};
    if (!readEscaped(scanner, unit)) return false;
    if (!target.put(unit)) return target.report(scanner, point);
  }
}

// Reads narrow text, into bytes or widened into units. After a "/", "0" means a zero byte and any
// other character means itself.
template <class Unit>
bool readQuoted(PortScanner &scanner, const MessagePoint &point,
                TextTarget<Unit> &target) noexcept {
  return readText(scanner, point, '"', target, [](PortScanner &from, Unit &unit) noexcept {
    char c = 0;
    if (!from.get(c)) return false;
    unit = static_cast<Unit>(static_cast<unsigned char>(c == '0' ? '\0' : c));
    return true;
  });
}

// Reads the unit after a "/": a digit n is followed by n characters of 6 bits each; any other
// character means itself.
bool readEscapedUnit(PortScanner &scanner, char16_t &unit) noexcept {
  char c = 0;
  if (!scanner.get(c)) return false;
  if (c < '0' || c > '9') {
    unit = static_cast<unsigned char>(c);
    return true;
  }
  std::uint32_t value = 0;
  for (int groups = c - '0'; groups > 0; --groups) {
    if (!scanner.get(c)) return false;
    value = value * 64 + static_cast<std::uint32_t>(static_cast<unsigned char>(c)) - '0';
  }
  unit = static_cast<char16_t>(value);
  return true;
}

bool readWideQuoted(PortScanner &scanner, const MessagePoint &point,
                    TextTarget<char16_t> &target) noexcept {
  return readText(scanner, point, '\'', target, readEscapedUnit);
}

template <class Unit>
TextTarget<Unit> fieldTarget(const MEMFieldDef &field, std::byte *pField,
                             std::size_t reserved) noexcept {
  const std::size_t units =
      field.Length > 0 ? static_cast<std::size_t>(field.Length) / sizeof(Unit) : 0;
  return {pField, units > reserved ? units - reserved : 0,
          field.NoTruncate != 0 ? Excess::tooLarge : Excess::dropped};
}

// Reads the text of a field, in the narrow or the wide form.
template <class Unit>
using ReadText = bool(PortScanner &, const MessagePoint &, TextTarget<Unit> &) noexcept;

template <class Unit, ReadText<Unit> *kRead>
bool readPadded(PortScanner &scanner, const MessagePoint &point, const MEMFieldDef &field,
                std::byte *pField) noexcept {
  auto target = fieldTarget<Unit>(field, pField, 0);
  if (!kRead(scanner, point, target)) return false;
  target.padWithBlanks();
  return true;
}

template <class Unit, ReadText<Unit> *kRead>
bool readTerminated(PortScanner &scanner, const MessagePoint &point, const MEMFieldDef &field,
                    std::byte *pField) noexcept {
  auto target = fieldTarget<Unit>(field, pField, 1);
  if (!kRead(scanner, point, target)) return false;
  // A field without room for one unit is not changed.
  if (field.Length >= static_cast<std::int32_t>(sizeof(Unit))) target.terminate();
  return true;
}

// Allocates a string of `units` in the caller's heap and stores its address in the field. It cannot
// be longer than the input. Null, reported, on failure.
template <class Unit>
std::byte *allocateText(PortScanner &scanner, const MessagePoint &point, std::uint64_t units,
                        std::byte *pField) noexcept {
  if (!scanner.inputHasAtLeast(units)) {
    scanner.fail(point, kInconsistent);
    return nullptr;
  }
  void *pText = scanner.allocate(static_cast<std::int64_t>((units + 1) * sizeof(Unit)));
  if (pText == nullptr) {
    scanner.fail(point, "Pointer to string field allocation failed!");
    return nullptr;
  }
  storeAs(pField, pText);
  return static_cast<std::byte *>(pText);
}

// Reads the text of a new string, which must have exactly its length.
template <class Unit, ReadText<Unit> *kRead>
bool fillText(PortScanner &scanner, const MessagePoint &point, std::uint64_t units,
              std::byte *pText) noexcept {
  TextTarget<Unit> target(pText, static_cast<std::size_t>(units), Excess::inconsistent);
  if (!kRead(scanner, point, target)) return false;
  if (target.stored() != units) return scanner.fail(point, kInconsistent);
  target.terminate();
  return true;
}

// Reads a string of `units` after its opening quote.
template <class Unit, ReadText<Unit> *kRead>
bool readString(PortScanner &scanner, const MessagePoint &point, std::uint64_t units,
                std::byte *pField) noexcept {
  std::byte *pText = allocateText<Unit>(scanner, point, units, pField);
  return pText != nullptr && fillText<Unit, kRead>(scanner, point, units, pText);
}

// Stores null in the pointer field and sets `isNull` when no string follows.
bool readNull(PortScanner &scanner, std::byte *pField, bool &isNull) noexcept {
  const std::string_view text = scanner.run();
  if (text.empty()) return false;
  isNull = isFieldEnd(text.front());
  if (isNull) storeAs<void *>(pField, nullptr);
  return true;
}

template <class Unit>
bool readNarrowString(PortScanner &scanner, const MessagePoint &point, const MEMFieldDef &,
                      std::byte *pField) noexcept {
  bool isNull = false;
  if (!readNull(scanner, pField, isNull) || isNull) return isNull;
  std::uint32_t length = 0;
  return scanner.number(length) && scanner.expect('"', point, kMissingQuote) &&
         readString<Unit, readQuoted<Unit>>(scanner, point, length, pField);
}

bool readWPStr(PortScanner &scanner, const MessagePoint &point, const MEMFieldDef &,
               std::byte *pField) noexcept {
  bool isNull = false;
  if (!readNull(scanner, pField, isNull) || isNull) return isNull;
  std::uint32_t codePoints = 0;
  std::uint32_t pairs = 0;
  return scanner.number(codePoints) &&
         scanner.expect(';', point, "Missing code point count at the start of a string field!") &&
         scanner.number(pairs) && scanner.expect('\'', point, kMissingQuote) &&
         readString<char16_t, readWideQuoted>(scanner, point, std::uint64_t{codePoints} + pairs,
                                              pField);
}

constexpr std::uint32_t kNoHexDigit = 1000;

std::uint32_t hexDigit(char c) noexcept {
  if (c >= '0' && c <= '9') return static_cast<std::uint32_t>(c - '0');
  if (c >= 'A' && c <= 'F') return static_cast<std::uint32_t>(c - 'A') + 10;
  return kNoHexDigit;
}

bool readBin(PortScanner &scanner, const MessagePoint &point, const MEMFieldDef &field,
             std::byte *pField) noexcept {
  for (std::int32_t stored = 0;;) {
    char high = 0;
    char low = 0;
    if (!scanner.get(high)) return false;
    if (isFieldEnd(high)) return scanner.unget();
    if (!scanner.get(low)) return false;
    const std::uint32_t value = hexDigit(high) * 16 + hexDigit(low);
    if (value >= 256) return false;
    if (stored < field.Length) {
      pField[stored++] = static_cast<std::byte>(value);
    } else if (field.NoTruncate != 0) {
      return scanner.fail(point, "Hex string too large for this field marked as NoTruncate");
    }
  }
}

// A value that wraps in 64 bits is right in fewer bits, too.
bool readNumber(PortScanner &scanner, const MessagePoint &, const MEMFieldDef &field,
                std::byte *pField) noexcept {
  const FieldType &type = fieldType(field.Type);
  char c = 0;
  if (!scanner.get(c)) return false;
  const bool isNegative = type.isSigned && c == '-';
  if (!isNegative && !scanner.unget()) return false;
  std::uint64_t magnitude = 0;
  if (!scanner.number(magnitude)) return false;
  return storeNumber(pField, type.storedLen, isNegative ? 0 - magnitude : magnitude);
}

bool readBit(PortScanner &scanner, const MessagePoint &, const MEMFieldDef &field,
             std::byte *pField) noexcept {
  if (field.Length < 1) return false;
  for (std::uint32_t bit = 0; bit < 8; ++bit) {
    char c = 0;
    if (!scanner.get(c)) return false;
    if (c != '0' && c != '1') return false;
    const auto mask = static_cast<std::byte>(1U << bit);
    *pField = c == '1' ? *pField | mask : *pField & ~mask;
  }
  return true;
}

constexpr auto readChar = readPadded<char, readQuoted<char>>;
constexpr auto readCharSZ = readTerminated<char, readQuoted<char>>;
constexpr auto readPStr = readNarrowString<char>;
constexpr auto readWChar = readPadded<char16_t, readWideQuoted>;
constexpr auto readNarrowWChar = readPadded<char16_t, readQuoted<char16_t>>;
constexpr auto readWCharSZ = readTerminated<char16_t, readWideQuoted>;
constexpr auto readNarrowWCharSZ = readTerminated<char16_t, readQuoted<char16_t>>;
constexpr auto readNarrowWPStr = readNarrowString<char16_t>;

constexpr FieldType::Opening kNone{kNoCharacter, nullptr};
constexpr FieldType::Opening kNumber{kNumberOpening, readNumber};
constexpr std::uint8_t kAsDefined = 0;
constexpr bool kSigned = true;
constexpr bool kUnsigned = false;

}  // namespace

// In the order of MEMFieldType. Each row gives all its values, because compilers have dropped
// default member initialisers in such tables.
constexpr FieldType kFieldTypes[] = {
    {kNone, kNone, kAsDefined, kUnsigned, {nullptr, 0}, nullptr},  // no type
    {{'"', readChar}, kNone, kAsDefined, kUnsigned, kPointChar, kMissingPaddedQuote},
    {{'"', readCharSZ}, kNone, kAsDefined, kUnsigned, kPointCharSZ, kMissingQuote},
    {{kStringOpening, readPStr}, kNone, 8, kUnsigned, kPointPStr, kNotAString},
    {{'H', readBin}, kNone, kAsDefined, kUnsigned, kPointBin, "Not a hex field!"},
    {kNumber, kNone, 2, kSigned, kPointNumber, kNotANumber},
    {kNumber, kNone, 2, kUnsigned, kPointNumber, kNotANumber},
    {kNumber, kNone, 4, kSigned, kPointNumber, kNotANumber},
    {kNumber, kNone, 4, kUnsigned, kPointNumber, kNotANumber},
    {{kPointerOpening, nullptr}, kNone, 8, kUnsigned, kPointPointer, "Not a pointer field!"},
    {{'E', nullptr}, kNone, kAsDefined, kUnsigned, kPointEmbedded, "Substructure expected!"},
    {{'B', readBit}, kNone, kAsDefined, kUnsigned, kPointBit, "Not a bit field!"},
    {kNumber, kNone, 8, kUnsigned, kPointNumber, kNotANumber},
    {kNumber, kNone, 8, kSigned, kPointNumber, kNotANumber},
    {{'\'', readWChar},
     {'"', readNarrowWChar},
     kAsDefined,
     kUnsigned,
     kPointWChar,
     kMissingWideQuote},
    {{'\'', readWCharSZ},
     {'"', readNarrowWCharSZ},
     kAsDefined,
     kUnsigned,
     kPointWCharSZ,
     kMissingWideQuote},
    {{'x', readWPStr}, {'X', readNarrowWPStr}, 8, kUnsigned, kPointWPStr, kNotAString},
};
static_assert(std::size(kFieldTypes) == MEM_PORT_WPSTR + 1);

bool readFieldValue(PortScanner &scanner, const MEMFieldDef &field, std::byte *pField) noexcept {
  const FieldType &type = fieldType(field.Type);
  MEM_ASSERT(type.first.pRead != nullptr);
  char c = 0;
  if (!scanner.get(c)) return false;
  for (const FieldType::Opening *pOpening : {&type.first, &type.second}) {
    if (c == pOpening->character) return pOpening->pRead(scanner, type.point, field, pField);
  }
  return scanner.fail(type.point, type.pNotOpened);
}

std::byte *allocateString(PortScanner &scanner, std::uint32_t length, std::byte *pField) noexcept {
  return allocateText<char>(scanner, kPointPStr, length, pField);
}

bool fillString(PortScanner &scanner, std::uint32_t length, std::byte *pText) noexcept {
  return fillText<char, readQuoted<char>>(scanner, kPointPStr, length, pText);
}

}  // namespace memlib
