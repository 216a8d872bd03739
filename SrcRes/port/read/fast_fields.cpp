// The fast way to read fields. The plain way, PortReader::readFields, handles every text; this one
// stops where it cannot continue. It saves a quarter of the time of a catalogue and half of the
// time of numbers: bench/TRIED.md, "port string reading, fields".
#include "platform/textscan.h"
#include "port/read/from_text.h"
#include "port/read/port_reader.h"
#include "port/words.h"

namespace memlib {

namespace {

// Characters of a field that may be read after a single check for the end: an identifier, the
// value's opening, a sign, and a word that begins with digits.
constexpr std::ptrdiff_t kFieldStartLen = 10 + 1 + 1 + static_cast<std::ptrdiff_t>(kTextWordLen);

// The address after the field's identifier; null when other text is at `p`.
const char *behindIdentifier(const char *p, std::uint32_t fieldID) noexcept {
  for (; fieldID >= 10; fieldID /= 10) {
    if (*p++ != static_cast<char>('0' + fieldID % 10)) return nullptr;
  }
  if (*p++ != static_cast<char>('0' + fieldID)) return nullptr;
  return p;
}

// The readers of values move `p` to the address after the value. They return the same results as
// readFieldsFast().

FastFields readNumber(const char *&p, const char *pEnd, const FieldType &type,
                      std::byte *pField) noexcept {
  const bool isNegative = *p == '-';
  if (isNegative && !type.isSigned) return FastFields::none;
  ReversedDigits digits;
  p = digits.take(isNegative ? p + 1 : p, pEnd);
  if (p == pEnd) return FastFields::none;
  const std::uint64_t value = isNegative ? 0 - digits.value() : digits.value();
  return storeNumber(pField, type.storedLen, value) ? FastFields::some : FastFields::none;
}

FastFields readPointer(PortScanner &scanner, StructIndex &index, const char *&p,
                       std::byte *pField) noexcept {
  const ShortNumber number = shortNumber(p);
  if (number.pBehind == nullptr) return FastFields::none;
  p = number.pBehind;
  if (index.link(number.value, pField)) return FastFields::some;
  scanner.moveTo(p);
  return FastFields::failed;
}

// Copies a string's text if it is contiguous and plain, and moves after its closing quote. False,
// with nothing read, for any other text.
bool copyString(PortScanner &scanner, std::size_t length, std::byte *pText) noexcept {
  const char *const pFrom = scanner.at();
  const auto ahead = static_cast<std::size_t>(scanner.end() - pFrom);
  if (ahead <= length) return false;
  if (!copyPlain(pText, pFrom, length, '"') || pFrom[length] != '"') return false;
  pText[length] = std::byte{0};
  scanner.moveTo(pFrom + length + 1);
  return true;
}

FastFields readString(PortScanner &scanner, const char *&p, std::byte *pField) noexcept {
  if (isFieldEnd(*p)) {
    storeAs<void *>(pField, nullptr);
    return FastFields::some;
  }
  const ShortNumber length = shorterNumber(p);
  if (length.pBehind == nullptr || *length.pBehind != '"') return FastFields::none;
  scanner.moveTo(length.pBehind + 1);
  std::byte *const pText = allocateString(scanner, length.value, pField);
  if (pText == nullptr) return FastFields::failed;
  if (!copyString(scanner, length.value, pText) && !fillString(scanner, length.value, pText)) {
    return FastFields::failed;
  }
  p = scanner.at();
  return FastFields::some;
}

// Reads a value, including its opening.
FastFields readValue(PortScanner &scanner, StructIndex &index, const StructText &text,
                     const MEMFieldDef &field, std::int64_t offset, const char *&p) noexcept {
  const FieldType &type = fieldType(field.Type);
  if (*p != type.first.character || !text.bytes.holds(offset, type.storedLen)) {
    return FastFields::none;
  }
  std::byte *const pField = text.bytes.at(offset);
  switch (*p++) {
    case kNumberOpening:
      return readNumber(p, scanner.end(), type, pField);
    case kPointerOpening:
      return readPointer(scanner, index, p, pField);
    case kStringOpening:
      return readString(scanner, p, pField);
    default:
      return FastFields::none;
  }
}

}  // namespace

// The position in the text is kept in a local variable. A store into a structure could alias the
// scanner's position, so the compiler would reload it after each store.
FastFields readFieldsFast(PortScanner &scanner, StructIndex &index, StructText &text) noexcept {
  const char *p = scanner.at();
  if (!text.isExpectedFirst || scanner.end() - p < kFieldStartLen) return FastFields::none;
  const MEMFieldDef *const pFirst = &text.pDef->Fields[text.expected];
  const MEMFieldDef *const pLast = &text.pDef->Fields[text.fields - 1];
  const MEMFieldDef *pField = pFirst;
  const char *pBehind = nullptr;  // after the last field read
  bool isNextFirst = true;
  for (;; ++p) {
    p = behindIdentifier(p, pField->FieldID);
    if (p == nullptr) break;
    std::int64_t offset = pField->Offset;
    if (pField == pLast) offset += text.lastCount * pField->Length;
    const FastFields read = readValue(scanner, index, text, *pField, offset, p);
    if (read == FastFields::failed) return read;
    if (read == FastFields::none) break;
    pBehind = p;
    if (pField == pLast) {
      ++text.lastCount;
    } else {
      ++pField;
      isNextFirst = pField[-1].FieldID < pField->FieldID;
    }
    if (!isNextFirst || scanner.end() - p <= kFieldStartLen || *p == '>') break;
  }
  if (pBehind == nullptr) return FastFields::none;
  scanner.moveTo(pBehind);
  const std::int32_t next = text.expected + static_cast<std::int32_t>(pField - pFirst);
  const bool isLastSeen = pField == pLast && text.lastCount > 0;
  text.seen.addRange(text.expected, isLastSeen ? text.fields : next);
  text.expected = next;
  text.isExpectedFirst = isNextFirst;
  return FastFields::some;
}

}  // namespace memlib
