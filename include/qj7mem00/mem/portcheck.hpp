/** @file portcheck.hpp
 * Checks that a port string matches its definitions. Part of mem.hpp, whose conventions apply.
 *
 * Readers compare a text with the definitions only as far as the grammar needs: a pointer is a
 * number, and the text chooses the kind of its target. This header parses a text as readers do and
 * compares the rest, once, before they read it.
 */
#ifndef QJ7MEM00_MEM_PORTCHECK_HPP
#define QJ7MEM00_MEM_PORTCHECK_HPP

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string_view>

#include "context.hpp"

namespace mem::detail {

// Eight characters processed together.
class CharacterWord {
 public:
  static constexpr std::ptrdiff_t kLen = 8;

  explicit CharacterWord(const char *p) noexcept { std::memcpy(&word_, p, kLen); }

  // Marks are bits in the bytes of a word; no mark means that there is no such character. Only the
  // mark of the first character in memory is reliable, and it is the lowest mark only on
  // little-endian machines.
  std::uint64_t nonDigits() const noexcept {
    const std::uint64_t values = word_ ^ every('0');
    return (values | (values + every(0x7F - 9))) & every(0x80);
  }
  std::uint64_t specials(char quote) const noexcept {
    return (zeros(word_ ^ every(static_cast<unsigned char>(quote))) | zeros(word_ ^ every('/')));
  }

  static std::ptrdiff_t charactersBelow(std::uint64_t marks) noexcept {
    if constexpr (std::endian::native == std::endian::little) return std::countr_zero(marks) / 8;
    return 0;  // the caller checks them one by one
  }

 private:
  static constexpr std::uint64_t every(std::uint64_t byte) noexcept {
    return byte * 0x0101010101010101;
  }
  static constexpr std::uint64_t zeros(std::uint64_t word) noexcept {
    return (word - every(1)) & ~word & every(0x80);
  }

  std::uint64_t word_ = 0;
};

// The characters of a text, contiguous or in chunks.
class PortCharacters {
 public:
  explicit PortCharacters(std::string_view text) noexcept
      : pNext_(text.data()), pEnd_(text.data() + text.size()), left_(text.size()) {}
  PortCharacters(const MEMPortChunk *pFirst, std::uint64_t length) noexcept
      : pChunk_(pFirst), left_(length) {}

  // Upper bound of the number of characters of the whole text.
  std::uint64_t length() const noexcept { return left_; }

  bool hasMore() noexcept { return pNext_ != pEnd_ || step(); }
  // REQUIRES: hasMore().
  char peek() const noexcept { return *pNext_; }
  bool get(char &c) noexcept {
    if (!hasMore()) return false;
    c = *pNext_++;
    return true;
  }
  bool take(char wanted) noexcept {
    char c = 0;
    return get(c) && c == wanted;
  }
  bool skip(int count) noexcept {
    for (char c = 0; count > 0; --count) {
      if (!get(c)) return false;
    }
    return true;
  }

  static constexpr bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

  // Reads reversed digits; none give 0. Excess digits wrap, as in readers.
  std::uint64_t number() noexcept {
    std::uint64_t value = 0;
    for (std::uint64_t weight = 1; hasMore() && isDigit(*pNext_); weight *= 10) {
      value += weight * static_cast<std::uint64_t>(*pNext_++ - '0');
    }
    return value;
  }

  void skipDigits() noexcept {
    while (hasMore()) {
      while (pEnd_ - pNext_ >= CharacterWord::kLen) {
        const std::uint64_t others = CharacterWord(pNext_).nonDigits();
        pNext_ += others == 0 ? CharacterWord::kLen : CharacterWord::charactersBelow(others);
        if (others != 0) break;
      }
      while (pNext_ != pEnd_ && isDigit(*pNext_)) ++pNext_;
      if (pNext_ != pEnd_) return;
    }
  }

  // Skips text after its opening quote, including the closing one. `hasGroups`: a digit n after a
  // "/" is followed by n characters that belong to it.
  bool skipQuoted(char quote, bool hasGroups) noexcept {
    while (hasMore()) {
      const char *p = pNext_;
      while (pEnd_ - p >= CharacterWord::kLen) {
        const std::uint64_t specials = CharacterWord(p).specials(quote);
        p += specials == 0 ? CharacterWord::kLen : CharacterWord::charactersBelow(specials);
        if (specials != 0) break;
      }
      while (p != pEnd_ && *p != quote && *p != '/') ++p;
      pNext_ = p;
      if (p == pEnd_) continue;
      ++pNext_;
      if (*p == quote) return true;
      char escaped = 0;
      if (!get(escaped)) return false;
      if (hasGroups && escaped >= '0' && escaped <= '9' && !skip(escaped - '0')) return false;
    }
    return false;
  }

 private:
  bool step() noexcept {
    while (pChunk_ != nullptr) {
      const MEMPortChunk &chunk = *pChunk_;
      pChunk_ = chunk.pNext;
      if (chunk.Used <= 0) continue;
      pNext_ = static_cast<const char *>(chunk.Text);
      pEnd_ = pNext_ + chunk.Used;
      return true;
    }
    return false;
  }

  const char *pNext_ = nullptr;
  const char *pEnd_ = nullptr;
  const MEMPortChunk *pChunk_ = nullptr;  // the one after the current one
  std::uint64_t left_;
};

inline constexpr char kOtherStructure[] = "the text begins with another structure";

// Parses a text with the definitions of a PortTable, which are valid.
class PortCheck {
 public:
  PortCheck(const MEMStructDef *pDefs, const PortCharacters &text) noexcept
      : pDefs_(pDefs), text_(text) {}

  // The number of structures in the header, by the rules of readers; 0 if they refuse it.
  std::uint32_t readHeader() noexcept {
    char header[MEM_PORT_HEADER_LEN];
    for (char &c : header) {
      if (!text_.get(c)) return 0;
    }
    const char *p = header + kCountOff;
    const char *const pEnd = p + kCountLen;
    while (p != pEnd && (*p == ' ' || (*p >= '\t' && *p <= '\r'))) ++p;
    if (p != pEnd && *p == '+') ++p;
    std::uint64_t count = 0;
    for (; p != pEnd && *p >= '0' && *p <= '9'; ++p) {
      count = count * 10 + static_cast<std::uint64_t>(*p - '0');
    }
    const bool isPossible = count <= text_.length() && count <= kMostStructures;
    return isPossible ? static_cast<std::uint32_t>(count) : 0;
  }

  // Checks all structures; call it after readHeader(). `pKinds` has a cleared number for each.
  // False for a text that does not match the definitions, or that readers cannot parse.
  bool run(std::uint32_t rootId, std::uint32_t *pKinds, std::uint32_t count) noexcept {
    pKinds_ = pKinds;
    count_ = count;
    pKinds_[0] = rootId;
    for (std::uint32_t i = 0; i < count; ++i) {
      const MEMStructDef *const pDef = takeIdentifier();
      if (pDef == nullptr) return false;
      if (!isKind(i, pDef->StructID)) {
        return refuse(i == 0 ? kOtherStructure : "a pointer leads to a structure of another kind");
      }
      if (!takeBody(*pDef, 0)) return false;
    }
    return true;
  }

  // Why the text was refused; null when a reader will find the error.
  const char *refusal() const noexcept { return pRefusal_; }

 private:
  static constexpr std::size_t kCountOff = 12;
  static constexpr std::size_t kCountLen = 10;
  static constexpr std::uint64_t kMostStructures =
      std::numeric_limits<std::int32_t>::max() / sizeof(void *);

  // The state of checking one structure text.
  struct Progress {
    std::uint32_t elements = 1;  // according to the text
    std::uint64_t lastCount = 0;
    std::int64_t counted = 0;  // value of the count field, if known
    bool hasCounted = false;
    bool isCountThere = false;
  };

  bool refuse(const char *pText) noexcept {
    pRefusal_ = pText;
    return false;
  }

  // Structure `index` has one kind, set by the first pointer to it or by its own text.
  bool isKind(std::uint32_t index, std::uint32_t structId) noexcept {
    if (pKinds_[index] == 0) pKinds_[index] = structId;
    return pKinds_[index] == structId;
  }

  // Reads "(" and the identifier. Null if readers fail.
  const MEMStructDef *takeIdentifier() noexcept {
    if (!text_.take('(')) return nullptr;
    const auto structId = static_cast<std::uint32_t>(text_.number());
    const MEMStructDef *pDef = pDefs_;
    while (pDef->StructID != 0 && pDef->StructID != structId) ++pDef;
    return pDef->StructID == 0 ? nullptr : pDef;
  }

  bool takeBody(const MEMStructDef &def, int nesting) noexcept {
    Progress progress;
    char c = 0;
    if (!text_.get(c)) return false;
    if (c == ',') {
      if (def.CountField == MEM_PORT_NO_COUNT) return false;
      progress.elements = static_cast<std::uint32_t>(text_.number());
      if (progress.elements > text_.length()) return refuse(kOtherCount);
      if (!text_.get(c)) return false;
    }
    if (c != '<') return false;
    if (nesting > 0 && progress.elements != 1) {
      return refuse("an embedded structure has other than one element");
    }
    return takeFields(def, nesting, progress) && text_.take(')') && isCounted(def, progress);
  }

  bool takeFields(const MEMStructDef &def, int nesting, Progress &progress) noexcept {
    const MEMFieldDef *const pLast = def.Fields + def.FieldCount - 1;
    const MEMFieldDef *pExpected = def.Fields;
    for (char separator = 0; separator != '>';) {
      const auto fieldId = static_cast<std::uint32_t>(text_.number());
      const MEMFieldDef *const pField = find(def, pExpected, fieldId);
      if (pField == nullptr) return fieldId > pLast->FieldID && skipNewer();
      if (def.CountField == pField - def.Fields) {
        if (!takeCount(*pField, progress)) return false;
      } else if (!takeValue(*pField, nesting)) {
        return false;
      }
      if (pField == pLast) {
        ++progress.lastCount;
      } else {
        pExpected = pField + 1;
      }
      if (!text_.get(separator)) return false;
    }
    return true;
  }

  // Fields of a PortTable are in ascending order.
  static const MEMFieldDef *find(const MEMStructDef &def, const MEMFieldDef *pExpected,
                                 std::uint32_t fieldId) noexcept {
    if (pExpected->FieldID == fieldId) return pExpected;
    const MEMFieldDef *const pEnd = def.Fields + def.FieldCount;
    const MEMFieldDef *const pFound = std::lower_bound(
        def.Fields, pEnd, fieldId,
        [](const MEMFieldDef &field, std::uint32_t id) noexcept { return field.FieldID < id; });
    return pFound != pEnd && pFound->FieldID == fieldId ? pFound : nullptr;
  }

  // Skips a field that is newer than the definition, and all fields after it in its structure text.
  bool skipNewer() noexcept {
    std::uint64_t depth = 0;
    for (char c = 0; text_.get(c);) {
      if (c == '"') {
        if (!text_.skipQuoted('"', false)) return false;
      } else if (c == '<') {
        ++depth;
      } else if (c == '>' && depth-- == 0) {
        return true;
      }
    }
    return false;
  }

  bool takeValue(const MEMFieldDef &field, int nesting) noexcept {
    char opening = 0;
    if (!text_.get(opening)) return false;
    switch (field.Type) {
      case MEM_PORT_CHAR:
      case MEM_PORT_CHARSZ:
        return opening == '"' && text_.skipQuoted('"', false);
      case MEM_PORT_WCHAR:
      case MEM_PORT_WCHARSZ:
        return (opening == '\'' || opening == '"') && text_.skipQuoted(opening, opening == '\'');
      case MEM_PORT_PSTR:
        return opening == 'X' && takeNarrowString();
      case MEM_PORT_WPSTR:
        return opening == 'X' ? takeNarrowString() : opening == 'x' && takeWideString();
      case MEM_PORT_BIN:
        return opening == 'H' && takeHexadecimal();
      case MEM_PORT_BIT:
        return opening == 'B' && takeBits();
      case MEM_PORT_PNT:
        return opening == 'S' && takePointer(field);
      case MEM_PORT_SUBSTRUCTURE:
        return opening == 'E' && takeEmbedded(field, nesting + 1);
      default:
        return opening == 'N' && takeInteger(field.Type);
    }
  }

  bool isNull() noexcept { return text_.peek() == '/' || text_.peek() == '>'; }

  bool takeNarrowString() noexcept {
    if (!text_.hasMore()) return false;
    if (isNull()) return true;
    text_.skipDigits();
    return text_.take('"') && text_.skipQuoted('"', false);
  }

  bool takeWideString() noexcept {
    if (!text_.hasMore()) return false;
    if (isNull()) return true;
    text_.skipDigits();
    if (!text_.take(';')) return false;
    text_.skipDigits();
    return text_.take('\'') && text_.skipQuoted('\'', true);
  }

  static bool isHexadecimal(char c) noexcept {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
  }
  bool takeHexadecimal() noexcept {
    while (text_.hasMore() && !isNull()) {
      char high = 0;
      char low = 0;
      if (!text_.get(high) || !text_.get(low)) return false;
      if (!isHexadecimal(high) || !isHexadecimal(low)) return false;
    }
    return text_.hasMore();
  }

  bool takeBits() noexcept {
    for (int i = 0; i < 8; ++i) {
      char c = 0;
      if (!text_.get(c) || (c != '0' && c != '1')) return false;
    }
    return true;
  }

  bool takePointer(const MEMFieldDef &field) noexcept {
    const auto number = static_cast<std::uint32_t>(text_.number());
    if (number == 0) return true;
    if (number > count_) return false;
    return isKind(number - 1, field.SubStructID) ||
           refuse("a pointer leads to a structure of another kind");
  }

  bool takeEmbedded(const MEMFieldDef &field, int nesting) noexcept {
    if (nesting > MEM_PORT_MAX_NESTING) return false;
    const MEMStructDef *const pDef = takeIdentifier();
    if (pDef == nullptr) return false;
    if (pDef->StructID != field.SubStructID) {
      return refuse("an embedded structure is of another kind");
    }
    return takeBody(*pDef, nesting);
  }

  static bool isSigned(std::uint8_t type) noexcept {
    return type == MEM_PORT_SHORT || type == MEM_PORT_LONG || type == MEM_PORT_BIGINT;
  }
  bool takeSign(std::uint8_t type) noexcept {
    return isSigned(type) && text_.hasMore() && text_.peek() == '-' && text_.skip(1);
  }
  bool takeInteger(std::uint8_t type) noexcept {
    takeSign(type);
    text_.skipDigits();
    return true;
  }
  bool takeCount(const MEMFieldDef &field, Progress &progress) noexcept {
    if (!text_.take('N')) return false;
    const bool isNegative = takeSign(field.Type);
    const std::uint64_t magnitude = text_.number();
    progress.counted = stored(field.Type, isNegative ? 0 - magnitude : magnitude);
    progress.hasCounted = progress.isCountThere = true;
    return true;
  }

  static std::int64_t stored(std::uint8_t type, std::uint64_t number) noexcept {
    switch (type) {
      case MEM_PORT_SHORT:
        return static_cast<std::int16_t>(number);
      case MEM_PORT_USHORT:
        return static_cast<std::uint16_t>(number);
      case MEM_PORT_LONG:
        return static_cast<std::int32_t>(number);
      default:
        return static_cast<std::uint32_t>(number);
    }
  }

  // True when the last field occurs as often as the text and the count field require.
  bool isCounted(const MEMStructDef &def, Progress &progress) noexcept {
    if (def.CountField == MEM_PORT_NO_COUNT) {
      return progress.lastCount <= 1 || refuse("the last field comes more than once");
    }
    const MEMFieldDef &countField = def.Fields[def.CountField];
    if (!progress.hasCounted && countField.Required == 0) {
      std::uint32_t number = 0;
      std::memcpy(&number, &countField.Default, sizeof number);
      progress.counted = stored(countField.Type, number);
      progress.hasCounted = true;
    }
    const MEMFieldDef &last = def.Fields[def.FieldCount - 1];
    const bool isAll = progress.lastCount == progress.elements;
    const bool isLeftOut = last.NotPorted != 0 && progress.lastCount == 0 && mayBeAny(last.Type);
    return ((isAll || isLeftOut) && isElementCount(def, last, progress)) || refuse(kOtherCount);
  }

  // True when a field may keep the old contents of its storage.
  static bool mayBeAny(std::uint8_t type) noexcept {
    return (type >= MEM_PORT_SHORT && type <= MEM_PORT_ULONG) || type == MEM_PORT_UBIGINT ||
           type == MEM_PORT_BIGINT || type == MEM_PORT_CHAR || type == MEM_PORT_WCHAR ||
           type == MEM_PORT_BIN || type == MEM_PORT_BIT;
  }

  // A count that is absent in the text must not exceed the number of elements. A negative count
  // means no elements, as in writers.
  static bool isElementCount(const MEMStructDef &def, const MEMFieldDef &last,
                             const Progress &progress) noexcept {
    const std::int64_t elements = progress.elements;
    const std::int64_t counted = progress.counted;
    const std::int64_t size = def.Length + (elements - 1) * last.Length;
    const std::int64_t most = def.CountIsLength == 0 ? elements : size;
    if (!progress.isCountThere) return progress.hasCounted && counted <= most;
    if (counted < 0) return elements == 0;
    if (def.CountIsLength == 0) return counted == elements;
    return (counted - def.Length) / last.Length + 1 == elements && counted <= most;
  }

  static constexpr char kOtherCount[] = "the elements are not as many as counted";

  const MEMStructDef *pDefs_;
  PortCharacters text_;
  std::uint32_t *pKinds_ = nullptr;  // StructID of each structure, 0 while it is unknown
  std::uint32_t count_ = 0;
  const char *pRefusal_ = nullptr;
};

// True when the text matches the definitions of a PortTable, starting with a structure `rootId`.
// False, without an error, for a text that readers refuse: they report where and why.
inline Result<bool> isAsDefined(const Context &context, const char *service,
                                const MEMStructDef *pDefs, std::uint32_t rootId,
                                const PortCharacters &text) noexcept {
  PortCheck check(pDefs, text);
  const std::uint32_t count = check.readHeader();
  if (count == 0) return false;
  WorkStorage kinds(context);
  if (!kinds.obtain(count * sizeof(std::uint32_t)))
    return Error::withoutRecord(service, -1, "no storage to check the text");
  if (check.run(rootId, kinds.as<std::uint32_t>(), count)) return true;
  if (check.refusal() != nullptr) return Error::refusal(service, check.refusal());
  return false;
}

}  // namespace mem::detail

#endif
