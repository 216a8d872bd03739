#include "port/read/from_text.h"

#include <algorithm>

#include "base/bytes.h"
#include "base/textparts.h"
#include "port/words.h"

namespace mem {

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

constexpr char kTooLarge[] = "String too large for this field marked as NoTruncate";
constexpr char kInconsistent[] = "Inconsistent pointer to string data!";
constexpr char kAllocationFailed[] = "Pointer to string field allocation failed!";
constexpr char kMissingQuote[] = "Missing quote at the start of a string field!";

// What happens to characters beyond the room.
enum class Excess { dropped, tooLarge, inconsistent };

// Where text goes: `room` units of a field or of a fresh string.
template <class Unit>
class TextTarget {
 public:
  TextTarget(std::byte *pText, std::size_t room, Excess excess) noexcept
      : pText_(pText), room_(room), excess_(excess) {}

  std::size_t stored() const noexcept { return stored_; }

  // Characters of `count` that may be read before one is found to be too many, that one included.
  std::size_t readable(std::size_t count) const noexcept {
    const std::size_t left = room_ - stored_;
    return excess_ == Excess::dropped || count <= left ? count : left + 1;
  }

  // Stores what fits. False when there is an excess that must not be.
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
  // REQUIRES: there is one unit more than the room.
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

// Text behind its opening quote, up to the closing one. `readEscaped` reads the unit behind a "/".
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

// Narrow text, into bytes or widened into units. Behind a "/", "0" is a zero byte and any other
// character itself.
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

// The unit behind a "/": n characters of 6 bits each after a digit n, else the character itself.
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

// Ends a zero-terminated field, where it has room for anything at all.
template <class Unit>
void terminateField(const MEMFieldDef &field, TextTarget<Unit> &target) noexcept {
  if (field.Length >= static_cast<std::int32_t>(sizeof(Unit))) target.terminate();
}

bool MEM_PortStr2Char(PortScanner &scanner, const MEMFieldDef &field, std::byte *pField) noexcept {
  if (!scanner.expect('"', kPointChar, "Missing  at the start of a string field")) return false;
  auto target = fieldTarget<char>(field, pField, 0);
  if (!readQuoted(scanner, kPointChar, target)) return false;
  target.padWithBlanks();
  return true;
}

bool MEM_PortStr2CharSZ(PortScanner &scanner, const MEMFieldDef &field,
                        std::byte *pField) noexcept {
  if (!scanner.expect('"', kPointCharSZ, kMissingQuote)) return false;
  auto target = fieldTarget<char>(field, pField, 1);
  if (!readQuoted(scanner, kPointCharSZ, target)) return false;
  terminateField(field, target);
  return true;
}

// Opening quote of a wide field. A double quote announces narrow text.
bool readWideQuote(PortScanner &scanner, const MessagePoint &point, bool &isNarrow) noexcept {
  char c = 0;
  if (!scanner.get(c)) return false;
  isNarrow = c == '"';
  return isNarrow || c == '\'' || scanner.fail(point, "Missing  at the start of a string field!");
}

// Text of either form into a wide field: MEM_PortStr2CharW and MEM_PortStr2CharSZW for narrow text.
bool readIntoWide(PortScanner &scanner, const MessagePoint &point,
                  TextTarget<char16_t> &target) noexcept {
  bool isNarrow = false;
  if (!readWideQuote(scanner, point, isNarrow)) return false;
  return isNarrow ? readQuoted(scanner, point, target) : readWideQuoted(scanner, point, target);
}

bool MEM_PortStr2WChar(PortScanner &scanner, const MEMFieldDef &field, std::byte *pField) noexcept {
  auto target = fieldTarget<char16_t>(field, pField, 0);
  if (!readIntoWide(scanner, kPointWChar, target)) return false;
  target.padWithBlanks();
  return true;
}

bool MEM_PortStr2WCharSZ(PortScanner &scanner, const MEMFieldDef &field,
                         std::byte *pField) noexcept {
  auto target = fieldTarget<char16_t>(field, pField, 1);
  if (!readIntoWide(scanner, kPointWCharSZ, target)) return false;
  terminateField(field, target);
  return true;
}

// `length` bytes in the caller's heap, their address stored in the field. Null, reported, on
// failure.
std::byte *allocateBytes(PortScanner &scanner, const MessagePoint &point, std::uint64_t length,
                         std::byte *pField) noexcept {
  void *pText = scanner.allocate(static_cast<std::int64_t>(length));
  if (pText == nullptr) {
    scanner.fail(point, kAllocationFailed);
    return nullptr;
  }
  storeAs(pField, pText);
  return static_cast<std::byte *>(pText);
}

// The same for a string of `units`, which cannot be longer than the input.
template <class Unit>
std::byte *allocateText(PortScanner &scanner, const MessagePoint &point, std::uint64_t units,
                        std::byte *pField) noexcept {
  if (units > scanner.inputLength()) {
    scanner.fail(point, kInconsistent);
    return nullptr;
  }
  return allocateBytes(scanner, point, (units + 1) * sizeof(Unit), pField);
}

// The quoted text of a fresh string, which must have exactly the string's length.
template <class Unit>
bool fillString(PortScanner &scanner, const MessagePoint &point, std::byte *pText,
                std::uint32_t length) noexcept {
  TextTarget<Unit> target(pText, length, Excess::inconsistent);
  if (!readQuoted(scanner, point, target)) return false;
  if (target.stored() != length) return scanner.fail(point, kInconsistent);
  target.terminate();
  return true;
}

template <class Unit>
bool readNarrowString(PortScanner &scanner, const MessagePoint &point, std::byte *pField) noexcept {
  char c = 0;
  bool isNull = false;
  if (!scanner.get(c) || !scanner.atFieldEnd(c, isNull)) return false;
  if (isNull) {
    storeAs<void *>(pField, nullptr);
    return true;
  }
  std::uint32_t length = 0;
  if (!scanner.unget() || !scanner.number(length)) return false;
  if (!scanner.expect('"', point, kMissingQuote)) return false;
  std::byte *pText = allocateText<Unit>(scanner, point, length, pField);
  return pText != nullptr && fillString<Unit>(scanner, point, pText, length);
}

bool MEM_PortStr2PStr(PortScanner &scanner, std::byte *pField) noexcept {
  return scanner.expect('X', kPointPStr, "Not a pointer to string field!") &&
         readNarrowString<char>(scanner, kPointPStr, pField);
}

bool readWideString(PortScanner &scanner, std::byte *pField) noexcept {
  char c = 0;
  bool isNull = false;
  if (!scanner.get(c) || !scanner.atFieldEnd(c, isNull)) return false;
  if (isNull) {
    storeAs<void *>(pField, nullptr);
    return true;
  }
  std::uint32_t codePoints = 0;
  std::uint32_t pairs = 0;
  if (!scanner.unget() || !scanner.number(codePoints)) return false;
  if (!scanner.expect(';', kPointWPStr,
                      "Missing code point count at the start of a string field!")) {
    return false;
  }
  if (!scanner.number(pairs)) return false;
  if (!scanner.expect('\'', kPointWPStr, kMissingQuote)) return false;
  const std::uint64_t units = std::uint64_t{codePoints} + pairs;
  std::byte *pText = allocateText<char16_t>(scanner, kPointWPStr, units, pField);
  if (pText == nullptr) return false;
  TextTarget<char16_t> target(pText, static_cast<std::size_t>(units), Excess::inconsistent);
  if (!readWideQuoted(scanner, kPointWPStr, target)) return false;
  if (target.stored() != units) return scanner.fail(kPointWPStr, kInconsistent);
  target.terminate();
  return true;
}

// "X" is narrow text for a wide string: MEM_PortStr2PStrW.
bool MEM_PortStr2WPStr(PortScanner &scanner, std::byte *pField) noexcept {
  char c = 0;
  if (!scanner.get(c)) return false;
  if (c == 'X') return readNarrowString<char16_t>(scanner, kPointWPStr, pField);
  if (c == 'x') return readWideString(scanner, pField);
  return scanner.fail(kPointWPStr, "Not a pointer to string field!");
}

constexpr std::uint32_t kNoHexDigit = 1000;

std::uint32_t hexDigit(char c) noexcept {
  if (c >= '0' && c <= '9') return static_cast<std::uint32_t>(c - '0');
  if (c >= 'A' && c <= 'F') return static_cast<std::uint32_t>(c - 'A') + 10;
  return kNoHexDigit;
}

bool MEM_PortStr2Bin(PortScanner &scanner, const MEMFieldDef &field, std::byte *pField) noexcept {
  if (!scanner.expect('H', kPointBin, "Not a hex field!")) return false;
  for (std::int32_t stored = 0;;) {
    char high = 0;
    char low = 0;
    bool isEnd = false;
    if (!scanner.get(high) || !scanner.atFieldEnd(high, isEnd)) return false;
    if (isEnd) return true;
    if (!scanner.get(low)) return false;
    const std::uint32_t value = hexDigit(high) * 16 + hexDigit(low);
    if (value >= 256) return false;
    if (stored < field.Length) {
      pField[stored++] = static_cast<std::byte>(value);
    } else if (field.NoTruncate != 0) {
      return scanner.fail(kPointBin, "Hex string too large for this field marked as NoTruncate");
    }
  }
}

// `Number` is as wide as the arithmetic, `Stored` as the field. Excess digits wrap.
template <class Number, class Stored>
bool readNumber(PortScanner &scanner, bool isSigned, std::byte *pField) noexcept {
  if (!scanner.expect('N', kPointNumber, "Not a numeric field!")) return false;
  char c = 0;
  if (!scanner.get(c)) return false;
  const bool isNegative = isSigned && c == '-';
  if (!isNegative && !scanner.unget()) return false;
  Number magnitude = 0;
  if (!scanner.number(magnitude)) return false;
  storeAs(pField, static_cast<Stored>(isNegative ? Number{0} - magnitude : magnitude));
  return true;
}

bool MEM_PortStr2Bit(PortScanner &scanner, const MEMFieldDef &field, std::byte *pField) noexcept {
  if (!scanner.expect('B', kPointBit, "Not a bit field!")) return false;
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

}  // namespace

bool readFieldValue(PortScanner &scanner, const MEMFieldDef &field, std::byte *pField) noexcept {
  switch (field.Type) {
    case MEM_PORT_CHAR:
      return MEM_PortStr2Char(scanner, field, pField);
    case MEM_PORT_CHARSZ:
      return MEM_PortStr2CharSZ(scanner, field, pField);
    case MEM_PORT_PSTR:
      return MEM_PortStr2PStr(scanner, pField);
    case MEM_PORT_BIN:
      return MEM_PortStr2Bin(scanner, field, pField);
    case MEM_PORT_SHORT:
      return readNumber<std::uint32_t, std::uint16_t>(scanner, true, pField);
    case MEM_PORT_USHORT:
      return readNumber<std::uint32_t, std::uint16_t>(scanner, false, pField);
    case MEM_PORT_LONG:
      return readNumber<std::uint32_t, std::uint32_t>(scanner, true, pField);
    case MEM_PORT_ULONG:
      return readNumber<std::uint32_t, std::uint32_t>(scanner, false, pField);
    case MEM_PORT_UBIGINT:
      return readNumber<std::uint64_t, std::uint64_t>(scanner, false, pField);
    case MEM_PORT_BIGINT:
      return readNumber<std::uint64_t, std::uint64_t>(scanner, true, pField);
    case MEM_PORT_BIT:
      return MEM_PortStr2Bit(scanner, field, pField);
    case MEM_PORT_WCHAR:
      return MEM_PortStr2WChar(scanner, field, pField);
    case MEM_PORT_WCHARSZ:
      return MEM_PortStr2WCharSZ(scanner, field, pField);
    default:
      return MEM_PortStr2WPStr(scanner, pField);
  }
}

bool readStringText(PortScanner &scanner, std::uint32_t length, std::byte *pField) noexcept {
  const char *const pFrom = scanner.at();
  std::byte *pText = allocateBytes(scanner, kPointPStr, std::uint64_t{length} + 1, pField);
  if (pText == nullptr) return false;
  if (!copyPlain(pText, pFrom, length, '"') || pFrom[length] != '"') {
    return fillString<char>(scanner, kPointPStr, pText, length);
  }
  pText[length] = std::byte{0};
  scanner.moveTo(pFrom + length + 1);
  return true;
}

}  // namespace mem
