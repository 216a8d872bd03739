#include "port/read/port_reader.h"

#include <algorithm>
#include <cstring>

#include "heap/heapblocks.h"
#include "port/read/from_text.h"

namespace memlib {

namespace {

// Offset of the structure count in the header.
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
constexpr MessagePoint kPointField{"MEM_Port2Struct", 2560};
constexpr MessagePoint kPointClose{"MEM_Port2Struct", 2583};
constexpr MessagePoint kPointRequired{"MEM_Port2Struct", 2617};

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
std::int32_t findField(const StructText &text, std::uint32_t fieldID) noexcept {
  for (std::int32_t i = 0; i < text.fields; ++i) {
    if (text.pDef->Fields[i].FieldID == fieldID) return i;
  }
  return -1;
}

// True for a field that must be present in a text.
bool isDemanded(const MEMFieldDef &field) noexcept {
  return field.Required != 0 && field.NotPorted == 0;
}

// Bytes that a field needs for its default. A pointer's default is copied with the `Length` of the
// definition, which may be more than a pointer has.
std::int64_t defaultLength(const MEMFieldDef &field) noexcept {
  const std::int64_t stored = storedLength(field);
  return field.Type == MEM_PORT_PNT ? std::max<std::int64_t>(stored, field.Length) : stored;
}

}  // namespace

bool PortReader::run() noexcept {
  if (!readHeader()) return false;
  readHandle(scanner_.heap());
  if (!index_.open(count_)) return scanner_.fail(kPointIndex, "Allocation Failure!");
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
  if (count < 1 || !scanner_.inputHasAtLeast(static_cast<std::uint64_t>(count))) return false;
  if (count > INT32_MAX / static_cast<std::int64_t>(sizeof(void *))) return false;
  count_ = static_cast<std::uint32_t>(count);
  return true;
}

// Reads one structure text of the top level: allocates the structure, links the fields that wait
// for it, and fills it.
bool PortReader::readTop(std::uint32_t index) noexcept {
  StructText text;
  return readHead(text) && allocateTop(index, text) && readBody(text);
}

// Reads an embedded structure text in place.
bool PortReader::readEmbedded(const MEMFieldDef &field, const StructBytes &bytes,
                              int nesting) noexcept {
  StructText text;
  if (!readHead(text)) return false;
  if (field.Length > text.size) {
    const ErrorText message = ErrorText("Size mismatch between field length (")
                                  .decimal(field.Length)
                                  .text(") and StructID ")
                                  .decimal(asLong(text.pDef->StructID))
                                  .text(" length (")
                                  .decimal(text.size)
                                  .text(")!");
    return scanner_.fail(kPointMismatch, message.c_str());
  }
  text.bytes = bytes;
  text.nesting = nesting;
  return readBody(text);
}

// Reads "(", the identifier, an element count and "<".
bool PortReader::readHead(StructText &text) noexcept {
  if (!scanner_.expect('(', kPointOpen, "Cannot find ( beginning a structure!")) return false;
  std::uint32_t structID = 0;
  if (!scanner_.number(structID)) return false;
  const MEMStructDef *const pDef = findStructDef(pDefs_, structID);
  if (pDef == nullptr) return failStruct(kPointStructID, "Unknown StructID: ", structID, "!");
  text.pDef = pDef;
  text.size = pDef->Length;
  text.fields = fieldCount(*pDef);
  text.isExpectedFirst = text.fields > 0;
  char c = 0;
  if (!scanner_.get(c)) return false;
  if (c == ',') {
    if (!readRepeatCount(text) || !scanner_.get(c)) return false;
  }
  return c == '<' ||
         failStruct(kPointBody, "Cannot find < at the beginning of StructID ", structID, "!");
}

bool PortReader::readRepeatCount(StructText &text) noexcept {
  const MEMStructDef &def = *text.pDef;
  if (!hasRepeatField(def) || text.fields == 0) {
    return failStruct(kPointRepeat, "StructureID ", def.StructID, " does not have a repeat field!");
  }
  std::uint32_t count = 0;
  if (!scanner_.number(count)) return false;
  text.size += (std::int64_t{count} - 1) * def.Fields[text.fields - 1].Length;
  return true;
}

bool PortReader::allocateTop(std::uint32_t index, StructText &text) noexcept {
  void *pEntry = scanner_.allocate(text.size);
  if (pEntry == nullptr) return scanner_.fail(kPointAllocate, "Allocation Failure!");
  text.bytes = {static_cast<std::byte *>(pEntry), text.size, 0};
  if (index == 0) *ppStruct_ = pEntry;
  index_.settle(index, pEntry);
  return true;
}

// Reads field texts up to ">", then ")", then completes the absent fields.
bool PortReader::readBody(StructText &text) noexcept {
  if (text.fields > MEM_PORT_MAX_FIELDS) {
    return scanner_.fail(kPointFieldCount, "Maximum no. of fields exceeded!");
  }
  return readFields(text) &&
         scanner_.expect(')', kPointClose, "Closing ) expected at the end of a structure!") &&
         (text.seen.hasFront(text.fields) || completeAbsent(text));
}

bool PortReader::readFields(StructText &text) noexcept {
  for (;;) {
    char separator = 0;  // ">" ends the fields
    const FastFields fast = readFieldsFast(scanner_, index_, text);
    if (fast == FastFields::failed) return failConversion();
    if (fast == FastFields::some) {
      if (!scanner_.get(separator)) return false;
      if (separator == '>') return true;
    }
    std::uint32_t fieldID = 0;
    if (!scanner_.number(fieldID)) return false;
    const std::int32_t fieldIndex = indexOf(text, fieldID);
    if (fieldIndex < 0) return skipNewer(text, fieldID);
    const std::int64_t offset = startField(text, fieldIndex);
    if (!readField(text, text.pDef->Fields[fieldIndex], offset)) return false;
    if (!scanner_.get(separator)) return false;
    if (separator == '>') return true;
  }
}

// First field with the identifier, or -1. Texts usually name fields in the order of the definition,
// so the search begins at the expected one and continues while identifiers ascend.
std::int32_t PortReader::indexOf(StructText &text, std::uint32_t fieldID) noexcept {
  const MEMFieldDef *const pFields = text.pDef->Fields;
  if (text.isExpectedFirst) {
    const MEMFieldDef *const pLast = &pFields[text.fields - 1];
    const MEMFieldDef *pField = &pFields[text.expected];
    std::uint32_t id = pField->FieldID;
    while (id < fieldID && pField != pLast && id < pField[1].FieldID) id = (++pField)->FieldID;
    if (id == fieldID) return static_cast<std::int32_t>(pField - pFields);
  }
  const std::int32_t found = findField(text, fieldID);
  if (found >= text.expected) text.isExpectedFirst = false;
  return found;
}

// Marks a field as present and returns its offset. Each element of the last field is stored after
// the previous one.
std::int64_t PortReader::startField(StructText &text, std::int32_t fieldIndex) noexcept {
  const MEMFieldDef *const pField = &text.pDef->Fields[fieldIndex];
  text.seen.add(fieldIndex);
  text.expected = fieldIndex;
  if (fieldIndex + 1 == text.fields) return pField->Offset + text.lastCount++ * pField->Length;
  ++text.expected;
  if (pField[0].FieldID >= pField[1].FieldID) text.isExpectedFirst = false;
  return pField->Offset;
}

bool PortReader::failConversion() noexcept {
  return scanner_.fail(kPointField, "Field conversion failed!");
}

bool PortReader::failStruct(const MessagePoint &point, const char *pBefore, std::uint32_t structID,
                            const char *pBehind) noexcept {
  return scanner_.fail(point, ErrorText(pBefore).decimal(asLong(structID)).text(pBehind).c_str());
}

bool PortReader::failField(const MessagePoint &point, std::uint32_t fieldID, const char *pWhat,
                           const MEMStructDef &def) noexcept {
  const ErrorText message = ErrorText("FieldID ")
                                .decimal(asLong(fieldID))
                                .text(pWhat)
                                .decimal(asLong(def.StructID))
                                .text("!");
  return scanner_.fail(point, message.c_str());
}

bool PortReader::readField(const StructText &text, const MEMFieldDef &field,
                           std::int64_t offset) noexcept {
  if (!isFieldType(field.Type)) return scanner_.fail(kPointType, "Unsupported field type!");
  const bool isEmbedded = field.Type == MEM_PORT_SUBSTRUCTURE;
  if (isEmbedded && !readOpening(scanner_, fieldType(field.Type))) return false;
  return readValue(text, field, offset) || failConversion();
}

// Writes only bytes of the structure's own entry, even if the definition is wrong.
bool PortReader::readValue(const StructText &text, const MEMFieldDef &field,
                           std::int64_t offset) noexcept {
  const StructBytes &bytes = text.bytes;
  if (field.Type == MEM_PORT_SUBSTRUCTURE) {
    const StructBytes inner{bytes.pEntry, bytes.entryLen, bytes.offset + offset};
    return text.nesting < MEM_PORT_MAX_NESTING && inner.holds(0, 0) &&
           readEmbedded(field, inner, text.nesting + 1);
  }
  if (!bytes.holds(offset, storedLength(field))) return false;
  std::byte *const pField = bytes.at(offset);
  return field.Type == MEM_PORT_PNT ? readPointer(pField) : readFieldValue(scanner_, field, pField);
}

// Reads "S" and the number of a structure.
bool PortReader::readPointer(std::byte *pField) noexcept {
  std::uint32_t number = 0;
  return readOpening(scanner_, fieldType(MEM_PORT_PNT)) && scanner_.number(number) &&
         index_.link(number, pField);
}

// Handles an unknown field. If its identifier is above the last known one, the text is newer than
// the definition and the rest of its fields are skipped; otherwise it is an error.
bool PortReader::skipNewer(const StructText &text, std::uint32_t fieldID) noexcept {
  const MEMStructDef &def = *text.pDef;
  const std::uint32_t lastID = text.fields == 0 ? 0 : def.Fields[text.fields - 1].FieldID;
  constexpr char kNotFound[] = " cannot be found in StructID ";
  if (fieldID <= lastID) return failField(kPointUnknownField, fieldID, kNotFound, def);
  if (scanner_.tracesSkipped()) failField(kPointSkipped, fieldID, kNotFound, def);
  return skipRest();
}

// Skips up to the ">" that ends the structure text. Recognises only double-quoted text.
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

// Stores the defaults of absent fields. A required field may have an alternative instead.
bool PortReader::completeAbsent(const StructText &text) noexcept {
  const MEMFieldDef *const pFields = text.pDef->Fields;
  const std::int32_t count = text.fields;
  PresentOffsets present(text);
  for (std::int32_t i = 0; i < count; ++i) {
    if (text.seen.has(i)) continue;
    const MEMFieldDef &field = pFields[i];
    if (!isDemanded(field)) {
      if (!giveDefault(text, field)) return false;
    } else if (!present.has(field.Offset)) {
      return failField(kPointRequired, field.FieldID, " is required in StructID ", *text.pDef);
    }
  }
  return true;
}

// False when a text is too long for a field that must not be truncated. A field that is not wholly
// in the entry gets no default.
bool PortReader::giveDefault(const StructText &text, const MEMFieldDef &field) noexcept {
  if (field.Required != 0) return true;
  const bool exists = text.bytes.holds(field.Offset, defaultLength(field));
  return !exists || applyDefault(field, text.bytes.at(field.Offset));
}

}  // namespace memlib
