#include "memcport_reader.h"

#include <cstring>

#include "bytes.h"
#include "memcport_defs.h"
#include "memcport_fromwire.h"

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

// First field with the identifier, or -1. Texts mostly name fields in the order of the definition,
// so the one behind the last one found is tried first; identifiers ascend.
std::int32_t findField(const MEMStructDef &def, std::uint32_t fieldID, std::int32_t hint) noexcept {
  const std::int32_t count = fieldCount(def);
  if (hint < count && def.Fields[hint].FieldID == fieldID &&
      (hint == 0 || def.Fields[hint - 1].FieldID < fieldID)) {
    return hint;
  }
  for (std::int32_t i = 0; i < count; ++i) {
    if (def.Fields[i].FieldID == fieldID) return i;
  }
  return -1;
}

}  // namespace

bool PortReader::Place::holds(std::int64_t structOffset, std::int64_t length) const noexcept {
  const std::int64_t start = offset + structOffset;
  return start >= 0 && length >= 0 && start <= entryLen && length <= entryLen - start;
}

bool PortReader::run() noexcept {
  if (!readHeader() || !openIndex()) return false;
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
  StructText text{};
  std::int64_t size = 0;
  if (!readHead(text.pDef, size) || !place(index, size, text.place)) return false;
  return readBody(text);
}

// A structure text inside another one, read in place.
bool PortReader::readEmbedded(const MEMFieldDef &field, const Place &place, int nesting) noexcept {
  StructText text{};
  std::int64_t size = 0;
  if (!readHead(text.pDef, size)) return false;
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
         completeAbsent(text);
}

bool PortReader::readFields(StructText &text) noexcept {
  std::int32_t hint = 0;
  for (;;) {
    std::uint32_t fieldID = 0;
    if (!scanner_.number(fieldID)) return false;
    const std::int32_t fieldIndex = findField(*text.pDef, fieldID, hint);
    if (fieldIndex < 0) return skipNewer(text, fieldID);
    hint = fieldIndex + 1;
    if (!readField(text, fieldIndex)) return false;
    char c = 0;
    if (!scanner_.get(c)) return false;
    if (c == '>') return true;  // any other character separates
  }
}

bool PortReader::readField(StructText &text, std::int32_t fieldIndex) noexcept {
  const MEMFieldDef &field = text.pDef->Fields[fieldIndex];
  text.seen.add(fieldIndex);
  std::int64_t offset = field.Offset;
  if (fieldIndex + 1 == fieldCount(*text.pDef)) {
    offset += text.lastCount++ * field.Length;  // elements land one behind the other
  }
  if (field.Type < MEM_PORT_CHAR || field.Type > MEM_PORT_WPSTR) {
    return scanner_.fail(kPointType, "Unsupported field type!");
  }
  if (field.Type == MEM_PORT_SUBSTRUCTURE) {
    if (!scanner_.expect('E', kPointEmbedded, "Substructure expected!")) return false;
  }
  return readValue(field, text.place, offset, text.nesting) ||
         scanner_.fail(kPointField, "Field conversion failed!");
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

// "S" and the number of a structure: linked at once when the structure is there already.
bool PortReader::readPointer(std::byte *pField) noexcept {
  if (!scanner_.expect('S', kPointPointer, "Not a pointer field!")) return false;
  std::uint32_t number = 0;
  if (!scanner_.number(number)) return false;
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

bool PortReader::completeAbsent(const StructText &text) noexcept {
  const MEMStructDef &def = *text.pDef;
  for (std::int32_t i = 0; i < fieldCount(def); ++i) {
    const MEMFieldDef &field = def.Fields[i];
    if (text.seen.has(i)) continue;
    if (field.Required == 0) {
      const bool exists = text.place.holds(field.Offset, storedLength(field));
      if (exists && !applyDefault(field, text.place.at(field.Offset))) return false;
    } else if (field.NotPorted == 0 && !hasAlternative(text, i)) {
      return scanner_.fail(kPointRequired, ErrorText("FieldID ")
                                               .decimal(asLong(field.FieldID))
                                               .text(" is required in StructID ")
                                               .decimal(asLong(def.StructID))
                                               .text("!")
                                               .c_str());
    }
  }
  return true;
}

// A field of the same offset that was present.
bool PortReader::hasAlternative(const StructText &text, std::int32_t fieldIndex) const noexcept {
  const MEMStructDef &def = *text.pDef;
  for (std::int32_t i = 0; i < fieldCount(def); ++i) {
    if (text.seen.has(i) && def.Fields[i].Offset == def.Fields[fieldIndex].Offset) return true;
  }
  return false;
}

}  // namespace mem
