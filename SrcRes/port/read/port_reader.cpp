#include "port/read/port_reader.h"

#include <cstring>

#include "base/bytes.h"
#include "heap/heapblocks.h"
#include "port/port_defs.h"
#include "port/read/field_offsets.h"
#include "port/read/from_text.h"
#include "port/words.h"

namespace mem {

namespace {

constexpr std::int16_t kIndexAreaKB = 10;
constexpr std::uint16_t kIndexSubPool = 0;

// Place of the structure count in the header.
constexpr std::size_t kCountOff = 12;
constexpr std::size_t kCountLen = 10;

constexpr MessagePoint kPointIndex{"MEM_PortStrToStruct", 2204};
constexpr MessagePoint kPointOpen{"MEM_Port2Struct", 2311};
constexpr MessagePoint kPointStructID{"MEM_Port2Struct", 2324};
constexpr MessagePoint kPointRepeat{"MEM_Port2Struct", 2340};
constexpr MessagePoint kPointBody{"MEM_Port2Struct", 2358};
constexpr MessagePoint kPointAllocate{"MEM_Port2Struct", 2377};
constexpr MessagePoint kPointMismatch{"MEM_Port2Struct", 2402};
constexpr MessagePoint kPointFieldCount{"MEM_Port2Struct", 2418};
constexpr MessagePoint kPointUnknownField{"MEM_Port2Struct", 2443};
constexpr MessagePoint kPointSkipped{"MEM_Port2Struct", 2449};
constexpr MessagePoint kPointType{"MEM_Port2Struct", 2511};
constexpr MessagePoint kPointEmbedded{"MEM_Port2Struct", 2529};
constexpr MessagePoint kPointField{"MEM_Port2Struct", 2560};
constexpr MessagePoint kPointClose{"MEM_Port2Struct", 2583};
constexpr MessagePoint kPointRequired{"MEM_Port2Struct", 2617};
constexpr MessagePoint kPointPointer{"MEM_PortStr2Pnt", 2702};

std::int64_t asLong(std::uint32_t value) noexcept {
  return static_cast<std::int32_t>(value);
}

// The number at the start of the text by the rules of a standard decimal conversion.
std::int64_t decimal(const char *pText) noexcept {
  while (*pText == ' ' || (*pText >= '\t' && *pText <= '\r')) ++pText;
  const bool isNegative = *pText == '-';
  if (isNegative || *pText == '+') ++pText;
  std::int64_t value = 0;
  for (; *pText >= '0' && *pText <= '9'; ++pText) value = value * 10 + (*pText - '0');
  return isNegative ? -value : value;
}

// First field with the identifier, or -1.
std::int32_t findField(const MEMStructDef &def, std::uint32_t fieldID) noexcept {
  for (std::int32_t i = 0; i < fieldCount(def); ++i) {
    if (def.Fields[i].FieldID == fieldID) return i;
  }
  return -1;
}

// True when a field is surely the first with its identifier, since identifiers ascend.
bool isFirst(const MEMStructDef &def, std::int32_t fieldIndex) noexcept {
  const MEMFieldDef *const pField = &def.Fields[fieldIndex];
  return fieldIndex == 0 || pField[-1].FieldID < pField->FieldID;
}

// What may be looked at of a field text without a further look at the end: an identifier, the
// value's opening, a sign, and a word that begins with digits.
constexpr std::ptrdiff_t kFieldStartLen = 10 + 1 + 1 + static_cast<std::ptrdiff_t>(kTextWordLen);

// How a value of a type begins, and the bytes of a number, 0 for other values. No default values
// here: compilers have left them out of elements that nothing was assigned to.
struct TakenType {
  std::int16_t opening;
  std::uint8_t numberLen;
};
struct TakenTypes {
  TakenType of[UINT8_MAX + 1];
};
constexpr std::int16_t kNoCharacter = 0x100;
constexpr TakenTypes kTakenTypes = [] {
  TakenTypes types{};
  for (TakenType &type : types.of) type = {kNoCharacter, 0};
  types.of[MEM_PORT_PNT] = {'S', 0};
  types.of[MEM_PORT_PSTR] = {'X', 0};
  types.of[MEM_PORT_SHORT] = types.of[MEM_PORT_USHORT] = {'N', 2};
  types.of[MEM_PORT_LONG] = types.of[MEM_PORT_ULONG] = {'N', 4};
  types.of[MEM_PORT_BIGINT] = types.of[MEM_PORT_UBIGINT] = {'N', 8};
  return types;
}();

// Behind an identifier and the opening of the value, as a writer puts them; null when there is
// anything else at `p`.
const char *behindStart(const char *p, const MEMFieldDef &field) noexcept {
  std::uint32_t number = field.FieldID;
  for (; number >= 10; number /= 10) {
    if (*p++ != static_cast<char>('0' + number % 10)) return nullptr;
  }
  if (*p++ != static_cast<char>('0' + number)) return nullptr;
  return *p == kTakenTypes.of[field.Type].opening ? p + 1 : nullptr;
}

// Fields that are looked through as quickly as a table of them is made.
constexpr std::int32_t kFewFields = 16;

// True for a field that a text must not leave out.
bool isDemanded(const MEMFieldDef &field) noexcept {
  return field.Required != 0 && field.NotPorted == 0;
}

bool isSignedNumber(std::uint8_t type) noexcept {
  return type == MEM_PORT_SHORT || type == MEM_PORT_LONG || type == MEM_PORT_BIGINT;
}

// False, with nothing stored, for a length that no number has.
bool storeNumber(std::byte *pField, std::int64_t length, std::uint64_t value) noexcept {
  switch (length) {
    case 2:
      storeAs(pField, static_cast<std::uint16_t>(value));
      return true;
    case 4:
      storeAs(pField, static_cast<std::uint32_t>(value));
      return true;
    case 8:
      storeAs(pField, value);
      return true;
    default:
      return false;
  }
}

}  // namespace

void PortReader::SeenFields::mark(std::int32_t i) noexcept {
  if (!hasBits_) std::memset(bits_, 0, sizeof bits_);
  hasBits_ = true;
  bits_[i / 64] |= std::uint64_t{1} << (i % 64);
}

bool PortReader::run() noexcept {
  if (!readHeader()) return false;
  readHandle(scanner_.heap());
  if (!openIndex()) return false;
  *ppStruct_ = nullptr;
  for (std::uint32_t i = 0; i < count_; ++i) {
    if (!readTop(i)) return false;
  }
  return true;
}

bool PortReader::readHeader() noexcept {
  char header[MEM_PORT_HEADER_LEN];
  for (char &c : header) {
    if (!scanner_.get(c)) return false;
  }
  char number[kCountLen + 1] = {};
  std::memcpy(number, header + kCountOff, kCountLen);
  const std::int64_t count = decimal(number);
  // A text cannot hold more structures than characters.
  if (count < 1 || static_cast<std::uint64_t>(count) > scanner_.inputLength()) return false;
  if (count > INT32_MAX / static_cast<std::int64_t>(sizeof(void *))) return false;
  count_ = static_cast<std::uint32_t>(count);
  return true;
}

// An entry of the index heap, or null.
void *PortReader::indexEntry(std::int64_t length) noexcept {
  void *pEntry = nullptr;
  const std::int16_t status = functionVector().MEM_HeapAllocEntryLong(
      hIndexHeap_, static_cast<std::int32_t>(length), &pEntry);
  return status == 0 ? pEntry : nullptr;
}

bool PortReader::openIndex() noexcept {
  HMEMHEAP hIndexHeap = nullptr;
  if (functionVector().MEM_HeapOpen(&hIndexHeap, kIndexAreaKB, kIndexSubPool) != 0) {
    return scanner_.fail(kPointIndex, "Allocation Failure!");
  }
  hIndexHeap_ = hIndexHeap;
  const std::int64_t length = std::int64_t{count_} * static_cast<std::int64_t>(sizeof(void *));
  pIndex_ = static_cast<void **>(indexEntry(length));
  if (pIndex_ == nullptr) return scanner_.fail(kPointIndex, "Allocation Failure!");
  pWaiting_ = static_cast<WaitingField **>(indexEntry(length));
  if (pWaiting_ == nullptr) return scanner_.fail(kPointIndex, "Allocation Failure!");
  std::memset(pIndex_, 0, static_cast<std::size_t>(length));
  std::memset(pWaiting_, 0, static_cast<std::size_t>(length));
  return true;
}

// One structure text of the top level: allocated, announced to the fields that wait for it, filled.
bool PortReader::readTop(std::uint32_t index) noexcept {
  StructText text;
  std::int64_t size = 0;
  if (!takeHead(text.pDef, size) && !readHead(text.pDef, size)) return false;
  if (!place(index, size, text.place)) return false;
  return readBody(text);
}

// A structure text inside another one, read in place.
bool PortReader::readEmbedded(const MEMFieldDef &field, const Place &place, int nesting) noexcept {
  StructText text;
  std::int64_t size = 0;
  if (!takeHead(text.pDef, size) && !readHead(text.pDef, size)) return false;
  if (field.Length > size) {
    const ErrorText message = ErrorText("Size mismatch between field length (")
                                  .decimal(field.Length)
                                  .text(") and StructID ")
                                  .decimal(asLong(text.pDef->StructID))
                                  .text(" length (")
                                  .decimal(size)
                                  .text(")!");
    return scanner_.fail(kPointMismatch, message.c_str());
  }
  text.place = place;
  text.nesting = nesting;
  return readBody(text);
}

// Takes "(", an identifier of one digit and "<" in one chunk. False, with nothing read, when
// anything else stands there.
bool PortReader::takeHead(const MEMStructDef *&pDef, std::int64_t &size) noexcept {
  const char *p = scanner_.at();
  if (scanner_.end() - p < 3 || p[0] != '(' || !isDigit(p[1]) || p[2] != '<') return false;
  pDef = MEM_Find_Struct_Def(pDefs_, static_cast<std::uint32_t>(p[1] - '0'));
  if (pDef == nullptr) return false;
  size = pDef->Length;
  scanner_.moveTo(p + 3);
  return true;
}

// "(", the identifier, an element count and "<". `size` is that of the structure with its elements.
bool PortReader::readHead(const MEMStructDef *&pDef, std::int64_t &size) noexcept {
  if (!scanner_.expect('(', kPointOpen, "Cannot find ( beginning a structure!")) return false;
  std::uint32_t structID = 0;
  if (!scanner_.number(structID)) return false;
  pDef = MEM_Find_Struct_Def(pDefs_, structID);
  if (pDef == nullptr) {
    return scanner_.fail(
        kPointStructID,
        ErrorText("Unknown StructID: ").decimal(asLong(structID)).text("!").c_str());
  }
  size = pDef->Length;
  char c = 0;
  if (!scanner_.get(c)) return false;
  if (c == ',') {
    if (!readRepeatCount(*pDef, size) || !scanner_.get(c)) return false;
  }
  if (c == '<') return true;
  return scanner_.fail(kPointBody, ErrorText("Cannot find < at the beginning of StructID ")
                                       .decimal(asLong(structID))
                                       .text("!")
                                       .c_str());
}

bool PortReader::readRepeatCount(const MEMStructDef &def, std::int64_t &size) noexcept {
  if (!hasRepeatField(def) || fieldCount(def) == 0) {
    return scanner_.fail(kPointRepeat, ErrorText("StructureID ")
                                           .decimal(asLong(def.StructID))
                                           .text(" does not have a repeat field!")
                                           .c_str());
  }
  std::uint32_t count = 0;
  if (!scanner_.number(count)) return false;
  size += (std::int64_t{count} - 1) * def.Fields[fieldCount(def) - 1].Length;
  return true;
}

bool PortReader::place(std::uint32_t index, std::int64_t size, Place &made) noexcept {
  void *pEntry = scanner_.allocate(size);
  if (pEntry == nullptr) return scanner_.fail(kPointAllocate, "Allocation Failure!");
  made = {static_cast<std::byte *>(pEntry), size, 0};
  if (index == 0) *ppStruct_ = pEntry;
  current_ = index;
  settle(index, pEntry);
  return true;
}

// Field texts up to ">", then ")", then what the text left out.
bool PortReader::readBody(StructText &text) noexcept {
  if (text.pDef->FieldCount > MEM_PORT_MAX_FIELDS) {
    return scanner_.fail(kPointFieldCount, "Maximum no. of fields exceeded!");
  }
  return readFields(text) &&
         scanner_.expect(')', kPointClose, "Closing ) expected at the end of a structure!") &&
         (text.seen.hasFront(fieldCount(*text.pDef)) || completeAbsent(text));
}

bool PortReader::readFields(StructText &text) noexcept {
  for (;;) {
    const Taken taken = takeFields(text);
    if (taken != Taken::some) return taken == Taken::all;
    std::uint32_t fieldID = 0;
    if (!scanner_.number(fieldID)) return false;
    const std::int32_t fieldIndex = indexOf(text, fieldID);
    if (fieldIndex < 0) return skipNewer(text, fieldID);
    const std::int64_t offset = startField(text, fieldIndex);
    if (!readField(text, text.pDef->Fields[fieldIndex], offset)) return false;
    char c = 0;
    if (!scanner_.get(c)) return false;
    if (c == '>') return true;  // any other character separates
  }
}

// First field with the identifier, or -1. Texts mostly name fields in the order of the definition,
// so the expected one is tried first. What is learned of the last field is noted.
std::int32_t PortReader::indexOf(StructText &text, std::uint32_t fieldID) const noexcept {
  const MEMStructDef &def = *text.pDef;
  const std::int32_t expected = text.expected;
  if (expected < fieldCount(def) && def.Fields[expected].FieldID == fieldID &&
      isFirst(def, expected)) {
    return expected;
  }
  const std::int32_t found = findField(def, fieldID);
  if (found + 1 == fieldCount(def)) text.lastIsFirst = true;
  return found;
}

// Notes that a field is present. Returns its offset: elements of the last field land one behind the
// other.
std::int64_t PortReader::startField(StructText &text, std::int32_t fieldIndex) noexcept {
  const MEMFieldDef &field = text.pDef->Fields[fieldIndex];
  const bool isLast = fieldIndex + 1 == fieldCount(*text.pDef);
  text.seen.add(fieldIndex);
  text.expected = isLast && text.lastIsFirst ? fieldIndex : fieldIndex + 1;
  return isLast ? field.Offset + text.lastCount++ * field.Length : field.Offset;
}

// Takes field texts as a writer puts them: in the order of the definition, each with the start of
// its value in one chunk. In front of any other it stops, with nothing of it read and no host
// called, so that readFields() finds whatever is wrong with it. The position in the text is kept in
// a local variable: a store into a structure could alias the scanner's own position, so the
// compiler would load that again after each store.
PortReader::Taken PortReader::takeFields(StructText &text) noexcept {
  const MEMStructDef &def = *text.pDef;
  const std::int32_t last = fieldCount(def) - 1;
  if (scanner_.end() - scanner_.at() < kFieldStartLen) return Taken::some;
  if (text.expected > last || !isFirst(def, text.expected)) return Taken::some;
  const MEMFieldDef *pField = &def.Fields[text.expected];
  const MEMFieldDef *const pLast = &def.Fields[last];
  const char *p = scanner_.at();
  Taken taken = Taken::some;
  while (scanner_.end() - p >= kFieldStartLen) {
    const char *const pValue = behindStart(p, *pField);
    if (pValue == nullptr) break;
    std::int64_t offset = pField->Offset;
    if (pField == pLast) offset += text.lastCount * pField->Length;
    const TakenValue value = takeValue(text.place, *pField, offset, pValue);
    if (value.isFailed) {
      failField();
      return Taken::failed;
    }
    if (value.pBehind == nullptr) break;
    p = value.pBehind;
    if (p == scanner_.end()) {
      p = nextChunk(p);
      if (p == nullptr) return Taken::failed;
    }
    const char separator = *p++;
    const bool hasNext = toNext(text, pField, pLast);
    if (separator == '>') {
      taken = Taken::all;
      break;
    }
    if (!hasNext) break;
  }
  scanner_.moveTo(p);
  const auto expected = static_cast<std::int32_t>(pField - def.Fields);
  text.seen.addRange(text.expected, expected);
  text.expected = expected;
  return taken;
}

// From a field that was taken to the one that comes next. False when there is none that surely
// does.
bool PortReader::toNext(StructText &text, const MEMFieldDef *&pField,
                        const MEMFieldDef *pLast) noexcept {
  if (pField != pLast) {
    ++pField;
    return pField[-1].FieldID < pField->FieldID;
  }
  ++text.lastCount;
  if (!text.lastIsFirst) ++pField;
  return text.lastIsFirst;
}

// From the end of a chunk to the next one's first character. Null, reported, at the end of the
// input.
const char *PortReader::nextChunk(const char *pEnd) noexcept {
  char c = 0;
  scanner_.moveTo(pEnd);
  return scanner_.get(c) && scanner_.unget() ? scanner_.at() : nullptr;
}

// Takes many digits. What wraps in 64 bits is right in fewer, too.
PortReader::TakenValue PortReader::takeLongNumber(std::uint8_t type, const char *p,
                                                  std::byte *pField) const noexcept {
  const bool isNegative = p[-1] == '-';
  ReversedDigits<std::uint64_t> magnitude;
  p = magnitude.take(p, scanner_.end());
  if (p == scanner_.end()) return {};
  const std::uint64_t value = isNegative ? 0 - magnitude.value() : magnitude.value();
  if (!storeNumber(pField, kTakenTypes.of[type].numberLen, value)) return {};
  return {p};
}

// Takes a value behind its opening. REQUIRES: a type of kTakenTypes, kFieldStartLen characters from
// the field text's start.
PortReader::TakenValue PortReader::takeValue(const Place &place, const MEMFieldDef &field,
                                             std::int64_t offset, const char *p) noexcept {
  if (field.Type == MEM_PORT_PNT || field.Type == MEM_PORT_PSTR) {
    if (!place.holds(offset, sizeof(void *))) return {};
    return field.Type == MEM_PORT_PNT ? takePointer(p, place.at(offset))
                                      : takeString(p, place.at(offset));
  }
  const std::int64_t length = kTakenTypes.of[field.Type].numberLen;
  const bool isNegative = *p == '-';
  if (length == 0 || !place.holds(offset, length)) return {};
  if (isNegative && !isSignedNumber(field.Type)) return {};
  const ShortNumber number = shortNumber(isNegative ? p + 1 : p);
  if (number.pBehind == nullptr) {
    return takeLongNumber(field.Type, isNegative ? p + 1 : p, place.at(offset));
  }
  const std::uint64_t magnitude = number.value;
  if (!storeNumber(place.at(offset), length, isNegative ? 0 - magnitude : magnitude)) return {};
  return {number.pBehind};
}

PortReader::TakenValue PortReader::takePointer(const char *p, std::byte *pField) noexcept {
  const ShortNumber number = shortNumber(p);
  if (number.pBehind == nullptr) return {};
  if (number.value <= current_) {
    storeAs<void *>(pField, number.value == 0 ? nullptr : pIndex_[number.value - 1]);
    return {number.pBehind};
  }
  scanner_.moveTo(number.pBehind);
  return {number.pBehind, !link(number.value, pField)};
}

PortReader::TakenValue PortReader::takeString(const char *p, std::byte *pField) noexcept {
  if (isFieldEnd(*p)) {
    storeAs<void *>(pField, nullptr);
    return {p};
  }
  const ShortNumber length = shorterNumber(p);
  if (length.pBehind == nullptr || *length.pBehind != '"') return {};
  const char *const pText = length.pBehind + 1;
  const auto ahead = static_cast<std::size_t>(scanner_.end() - pText);
  if (length.value >= ahead || ahead < kTextWordLen) return {};
  scanner_.moveTo(pText);
  const bool isRead = readStringText(scanner_, length.value, pField);
  return {scanner_.at(), !isRead};
}

bool PortReader::failField() noexcept {
  return scanner_.fail(kPointField, "Field conversion failed!");
}

bool PortReader::readField(const StructText &text, const MEMFieldDef &field,
                           std::int64_t offset) noexcept {
  if (field.Type < MEM_PORT_CHAR || field.Type > MEM_PORT_WPSTR) {
    return scanner_.fail(kPointType, "Unsupported field type!");
  }
  if (field.Type == MEM_PORT_SUBSTRUCTURE) {
    if (!scanner_.expect('E', kPointEmbedded, "Substructure expected!")) return false;
  }
  return readValue(field, text.place, offset, text.nesting) || failField();
}

// Whatever the definition says, only bytes of the structure's own entry are written.
bool PortReader::readValue(const MEMFieldDef &field, const Place &place, std::int64_t offset,
                           int nesting) noexcept {
  if (field.Type == MEM_PORT_SUBSTRUCTURE) {
    const Place inner{place.pEntry, place.entryLen, place.offset + offset};
    return nesting < MEM_PORT_MAX_NESTING && inner.holds(0, 0) &&
           readEmbedded(field, inner, nesting + 1);
  }
  if (!place.holds(offset, storedLength(field))) return false;
  std::byte *pField = place.at(offset);
  return field.Type == MEM_PORT_PNT ? readPointer(pField) : readFieldValue(scanner_, field, pField);
}

// "S" and the number of a structure.
bool PortReader::readPointer(std::byte *pField) noexcept {
  if (!scanner_.expect('S', kPointPointer, "Not a pointer field!")) return false;
  std::uint32_t number = 0;
  return scanner_.number(number) && link(number, pField);
}

// Links to a structure by its number: at once when the structure is there already.
bool PortReader::link(std::uint32_t number, std::byte *pField) noexcept {
  if (number == 0) {
    storeAs<void *>(pField, nullptr);
    return true;
  }
  const std::uint32_t index = number - 1;
  if (index >= count_) return false;
  if (index > current_) return wait(index, pField);
  storeAs(pField, pIndex_[index]);
  return true;
}

// The field holds the address of the next waiting one, the table entry its own.
bool PortReader::wait(std::uint32_t index, std::byte *pField) noexcept {
  auto *pNode = static_cast<WaitingField *>(indexEntry(sizeof(WaitingField)));
  if (pNode == nullptr) return false;
  *pNode = {pField, pWaiting_[index]};
  pWaiting_[index] = pNode;
  storeAs(pField, pIndex_[index]);
  pIndex_[index] = pField;
  return true;
}

void PortReader::settle(std::uint32_t index, void *pStruct) noexcept {
  for (const WaitingField *pNode = pWaiting_[index]; pNode != nullptr; pNode = pNode->pNext) {
    storeAs(pNode->pField, pStruct);
  }
  pIndex_[index] = pStruct;
}

// An unknown field. Above the last one known, the text is newer than the definition and the rest of
// its fields are dropped; otherwise it is an error.
bool PortReader::skipNewer(const StructText &text, std::uint32_t fieldID) noexcept {
  const MEMStructDef &def = *text.pDef;
  const ErrorText message = ErrorText("FieldID ")
                                .decimal(asLong(fieldID))
                                .text(" cannot be found in StructID ")
                                .decimal(asLong(def.StructID))
                                .text("!");
  const std::uint32_t lastID = fieldCount(def) == 0 ? 0 : def.Fields[fieldCount(def) - 1].FieldID;
  if (fieldID <= lastID) return scanner_.fail(kPointUnknownField, message.c_str());
  if (scanner_.tracesSkipped()) scanner_.fail(kPointSkipped, message.c_str());
  return skipRest();
}

// Up to the ">" that ends the structure text. Only double-quoted text is recognised.
bool PortReader::skipRest() noexcept {
  std::uint64_t depth = 0;
  for (char c = 0; scanner_.get(c);) {
    if (c == '"') {
      if (!skipQuoted()) return false;
    } else if (c == '<') {
      ++depth;
    } else if (c == '>' && depth-- == 0) {
      return true;
    }
  }
  return false;
}

bool PortReader::skipQuoted() noexcept {
  for (char c = 0; scanner_.get(c);) {
    if (c == '"') return true;
    if (c != '/') continue;
    if (!scanner_.get(c)) return false;
    if (c != '/' && c != '"' && !scanner_.unget()) return false;
  }
  return false;
}

// Defaults for what the text left out. Where many fields could be an alternative of one that must
// be there, the offsets of those that are there are put into a table first.
bool PortReader::completeAbsent(const StructText &text) noexcept {
  const MEMStructDef &def = *text.pDef;
  for (std::int32_t i = 0; i < fieldCount(def); ++i) {
    const MEMFieldDef &field = def.Fields[i];
    if (text.seen.has(i)) continue;
    if (!isDemanded(field)) {
      if (!giveDefault(text, field)) return false;
    } else if (fieldCount(def) > kFewFields) {
      return completeDemanded(text, i);
    } else if (!hasAlternative(text, field)) {
      return failMissing(def, field);
    }
  }
  return true;
}

// The same from a field on that must be there, with the table.
bool PortReader::completeDemanded(const StructText &text, std::int32_t first) noexcept {
  const MEMStructDef &def = *text.pDef;
  OffsetSet present(def.Fields, fieldCount(def));
  for (std::int32_t i = 0; i < fieldCount(def); ++i) {
    if (text.seen.has(i)) present.add(i);
  }
  for (std::int32_t i = first; i < fieldCount(def); ++i) {
    const MEMFieldDef &field = def.Fields[i];
    if (text.seen.has(i)) continue;
    if (!isDemanded(field)) {
      if (!giveDefault(text, field)) return false;
    } else if (!present.has(field.Offset)) {
      return failMissing(def, field);
    }
  }
  return true;
}

// A field of the same offset that was present.
bool PortReader::hasAlternative(const StructText &text, const MEMFieldDef &field) noexcept {
  const MEMStructDef &def = *text.pDef;
  for (std::int32_t i = 0; i < fieldCount(def); ++i) {
    if (text.seen.has(i) && def.Fields[i].Offset == field.Offset) return true;
  }
  return false;
}

bool PortReader::failMissing(const MEMStructDef &def, const MEMFieldDef &field) noexcept {
  return scanner_.fail(kPointRequired, ErrorText("FieldID ")
                                           .decimal(asLong(field.FieldID))
                                           .text(" is required in StructID ")
                                           .decimal(asLong(def.StructID))
                                           .text("!")
                                           .c_str());
}

// False when a text is too long for a field that must not be truncated.
bool PortReader::giveDefault(const StructText &text, const MEMFieldDef &field) noexcept {
  if (field.Required != 0) return true;
  const bool exists = text.place.holds(field.Offset, storedLength(field));
  return !exists || applyDefault(field, text.place.at(field.Offset));
}

}  // namespace mem
