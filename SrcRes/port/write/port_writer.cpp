#include "port/write/port_writer.h"

#include "base/bytes.h"
#include "hash/owned_table.h"
#include "heap/heapblocks.h"
#include "platform/platform.h"
#include "port/port_defs.h"
#include "port/write/to_text.h"

namespace mem {

namespace {

// Arguments of the registry.
constexpr std::int16_t kRegistryMax = 1998;
constexpr std::int16_t kRegistryAreaKB = 10;

// 0..1998 from an 8-byte address.
std::int16_t MEM_PortHash(const void *pKey) noexcept {
  constexpr std::uint64_t kModulus = kRegistryMax + 1;
  const auto address = loadAs<std::uint64_t>(pKey);
  const std::uint64_t hashed = address % 8 == 0 ? address / 8 : address;
  return static_cast<std::int16_t>(hashed % kModulus);
}

// What a heap area offers behind the header of a standard heap, less a chunk's own bytes.
constexpr std::int32_t kAreaOverhead = 72;

// A graph with more structures than this leaves the processor's near caches.
constexpr std::uint32_t kMostInCaches = 8192;

constexpr MessagePoint kPointCapacity{"MEM_StructToPortStr", 412};
constexpr MessagePoint kPointAppend{"MEM_CHAR2PORT", 498};
constexpr MessagePoint kPointStruct{"MEM_Struct2Port", 561};
constexpr MessagePoint kPointCount{"MEM_Struct2Port", 604};
constexpr MessagePoint kPointType{"MEM_Struct2Port", 688};
constexpr MessagePoint kPointField{"MEM_Struct2Port", 731};

}  // namespace

// The structure's entry, made at its first mention.
inline std::int16_t PortWriter::enter(const void *pStruct, std::uint32_t structID,
                                      MEMPortRef *&pRef) noexcept {
  fresh_.pStruct = pStruct;
  fresh_.StructID = structID;
  void *pStored = nullptr;
  const std::int16_t status = functionVector().MEM_HashInsEntry(
      hRegistry_, static_cast<std::int16_t>(sizeof fresh_), &fresh_, &pStored);
  if (status != 0 && status != MEMERR_HASHDKEY) return status;
  pRef = static_cast<MEMPortRef *>(pStored);
  if (status == 0) {
    ++fresh_.sequence;
    if (pTail_ != nullptr) pTail_->pNext = pRef;
    pTail_ = pRef;
  }
  return 0;
}

std::int16_t PortWriter::run() noexcept {
  if (pRef_ == nullptr) {
    if (const std::int16_t status = start(); status != 0) return status;
    if (const std::int16_t status = enter(pStruct_, structID_, pRef_); status != 0) return status;
  }
  const std::int16_t status = writeAll();
  output_.clearSpill();
  if (status != 0) return status;
  output_.writeHeader(structures());
  *pTotalLen_ = output_.total();
  return 0;
}

bool PortWriter::canGoOn() noexcept {
  if (!lookahead_.isAsking()) return false;
  lookahead_.giveUp();
  return true;
}

// What the caller asks for or what fills an area of its heap, whose size lies at different places
// in the two kinds of heap. Without a heap any capacity does: the heap's own services refuse the
// handle, unless the host has replaced them.
std::int32_t PortWriter::chunkCapacity() const noexcept {
  if (chunkLen_ != 0) return chunkLen_;
  if (hMemHeap_ == nullptr) return MEM_PORT_HEADER_LEN;
  if (hasEyecatcher(hMemHeap_, kEHeapEye)) {
    return areaSizeAt(offsetof(MEMEHeapHeader, AreaSize)) - kAreaOverhead;
  }
  if (hasEyecatcher(hMemHeap_, kHeapEye)) {
    return areaSizeAt(offsetof(MEMHeapHeader, AreaSize)) - kAreaOverhead;
  }
  return MEM_PORT_HEADER_LEN;
}

std::int32_t PortWriter::areaSizeAt(std::size_t offset) const noexcept {
  return loadAs<std::int32_t>(bytesAt(hMemHeap_, offset));
}

std::int16_t PortWriter::start() noexcept {
  *pTotalLen_ = 0;
  *ppFirstChunk_ = nullptr;
  const std::int32_t capacity = chunkCapacity();
  if (capacity < MEM_PORT_HEADER_LEN) {
    return report(kPointCapacity, "Chunk capacity too small!");
  }
  if (!output_.start(hMemHeap_, capacity)) {
    frame_.traceExit("HeapAllocEntry Return=FAILED");
    return -1;
  }
  *ppFirstChunk_ = output_.first();
  constexpr char kBlankHeader[] = "                       ";
  static_assert(sizeof kBlankHeader == MEM_PORT_HEADER_LEN + 1);
  output_.append(kBlankHeader);  // fits: the capacity was checked

  HMEMHASH hRegistry = nullptr;
  if (functionVector().MEM_HashOpen(&hRegistry, offsetof(MEMPortRef, pStruct), sizeof(void *),
                                    kRegistryMax, MEM_PortHash, kRegistryAreaKB, 0) != 0) {
    frame_.traceExit("MEM_HashOpen Return=FAILED");
    return -1;
  }
  hRegistry_ = hRegistry;
  allowIndex(frame_, hRegistry, MEM_PortHash);
  lookahead_.lookInto(hRegistry);
  return 0;
}

// The queue grows at its tail while it is walked: structures are written in the order in which
// pointers to them are met. writeSteps may take several of them at once.
std::int16_t PortWriter::writeAll() noexcept {
  for (; pRef_ != nullptr; pRef_ = pRef_->pNext) {
    askAhead();
    if (const std::int16_t status = MEM_Struct2Port(*pRef_, 0); status != 0) return status;
  }
  return 0;
}

// In a small graph most of what comes next is in the near caches, but not the structures.
void PortWriter::askAhead() noexcept {
  if (structures() > kMostInCaches) {
    lookahead_.ask(*pRef_);
  } else if (pRef_->pNext != nullptr) {
    MEM_PREFETCH(pRef_->pNext->pStruct);
  }
}

// The plan of the next structure in the queue, which becomes the one that is written, when a row is
// all that it takes. Else null, and nothing changes.
const StructPlan *PortWriter::goOn() noexcept {
  MEMPortRef *pNext = pRef_->pNext;
  if (pNext == nullptr) return nullptr;
  const StructPlan *pPlan = plans_.find(pNext->StructID);
  if (pPlan == nullptr || !pPlan->isOneRow()) return nullptr;
  pRef_ = pNext;
  askAhead();
  return pPlan;
}

std::int16_t PortWriter::MEM_Struct2Port(const MEMPortRef &ref, int nesting) noexcept {
  const auto *pStruct = static_cast<const std::byte *>(ref.pStruct);
  const StructPlan *pPlan = plans_.find(ref.StructID);
  if (pPlan != nullptr) return writePlanned(*pPlan, pStruct, nesting);
  const MEMStructDef *pDef = MEM_Find_Struct_Def(pDefs_, ref.StructID);
  if (pDef == nullptr) {
    const ErrorText text =
        ErrorText("No such StructID:").decimal(static_cast<std::int32_t>(ref.StructID)).text("!");
    return report(kPointStruct, text.c_str());
  }
  const std::int16_t status = writeUnplanned(*pDef, pStruct, nesting);
  if (status == 0) plans_.add(*pDef);
  return status;
}

std::int16_t PortWriter::writeUnplanned(const MEMStructDef &def, const std::byte *pStruct,
                                        int nesting) noexcept {
  std::uint32_t elements = 1;
  std::int16_t status = append('(');
  if (status == 0) status = appendReversed(def.StructID);
  if (status == 0 && hasRepeatField(def)) {
    status = append(',');
    if (status == 0) status = writeCount(def, pStruct, elements);
  }
  if (status == 0) status = append('<');
  if (status == 0) status = writeFields(def, pStruct, elements, nesting);
  if (status == 0) status = append(">)");
  return status;
}

std::int16_t PortWriter::writePlanned(const StructPlan &plan, const std::byte *pStruct,
                                      int nesting) noexcept {
  std::int16_t status = 0;
  std::uint32_t elements = 0;
  if (plan.pHead != nullptr) {
    status = writeSteps(&plan, plan.pHead, pStruct, nesting);
    if (status == 0) status = writeCount(*plan.pDef, pStruct, elements);
  }
  if (status == 0) status = writeSteps(&plan, plan.pSteps, pStruct, nesting);
  if (plan.pRepeated == nullptr || status != 0) return status;
  for (std::uint32_t k = 0; status == 0 && k < elements; ++k) {
    const std::int64_t offset = std::int64_t{k} * plan.pRepeated->pField->Length;
    status = writeSteps(&plan, plan.pRepeated, pStruct + offset, nesting);
  }
  return status == 0 ? append(">)") : status;
}

// Writes a row of steps. With room for any prefix, number or sequence their characters are stored
// without further checks, numbers as putNumber does. They are appended in front of every read that
// may fault.
//
// The row that closes a structure of the queue leads on to that of the next one, if it has no
// other: then pRef_ has moved to the last one that was written.
std::int16_t PortWriter::writeSteps(const StructPlan *pPlan, const FieldStep *pStep,
                                    const std::byte *pStruct, int nesting) noexcept {
  constexpr std::size_t kMost = FieldStep::kPrefixLen + kMostNumber;
  std::int16_t status = 0;
  char *pTo = output_.next();
  while (status == 0) {
    const FieldStep &step = *pStep++;
    const std::byte *pField = pStruct + step.offset;
    if (output_.roomAt(pTo) >= kMost) {
      std::memcpy(pTo, step.prefix, FieldStep::kPrefixLen);
      output_.advanceTo(pTo + step.readyLen);
      pTo += step.prefixLen;
    } else {
      output_.advanceTo(pTo);
      status = writeStep(*pPlan, step, pField, nesting);
      if (status != 0) return status;
      pTo = output_.next();
      if (step.pField != nullptr) continue;
    }
    switch (step.kind) {
      case StepKind::end:
        return 0;
      case StepKind::close:
        pPlan = nesting == 0 ? goOn() : nullptr;
        if (pPlan == nullptr) return 0;
        pStep = pPlan->pSteps;
        pStruct = static_cast<const std::byte *>(pRef_->pStruct);
        break;
      case StepKind::fixed:
        break;
      case StepKind::int16:
        pTo = putSigned(pTo, loadAs<std::int16_t>(pField));
        break;
      case StepKind::uint16:
        pTo = putReversed(pTo, loadAs<std::uint16_t>(pField));
        break;
      case StepKind::int32:
        pTo = putSigned(pTo, loadAs<std::int32_t>(pField));
        break;
      case StepKind::uint32:
        pTo = putReversed(pTo, loadAs<std::uint32_t>(pField));
        break;
      case StepKind::int64:
        pTo = putSigned(pTo, loadAs<std::int64_t>(pField));
        break;
      case StepKind::uint64:
        pTo = putReversed(pTo, loadAs<std::uint64_t>(pField));
        break;
      case StepKind::pointer:
        status = putSequence(pTo, *step.pField, loadAs<const void *>(pField));
        break;
      case StepKind::text:
        status = putText(pTo, *pPlan, *step.pField, loadAs<const char *>(pField));
        break;
      case StepKind::other:
        status = writeValue(*pPlan->pDef, *step.pField, pField, nesting);
        pTo = output_.next();
    }
  }
  return status;
}

// A step for which the chunk may have no room.
std::int16_t PortWriter::writeStep(const StructPlan &plan, const FieldStep &step,
                                   const std::byte *pField, int nesting) noexcept {
  const std::int16_t status = append(std::string_view(step.prefix, step.fixedLen));
  if (status != 0 || step.pField == nullptr) return status;
  return writeValue(*plan.pDef, *step.pField, pField, nesting);
}

// The sequence number of a structure that is pointed to. REQUIRES: room for it.
std::int16_t PortWriter::putSequence(char *&pTo, const MEMFieldDef &field,
                                     const void *pTarget) noexcept {
  if (pTarget == nullptr) return 0;
  output_.advanceTo(pTo);
  MEMPortRef *pRef = nullptr;
  const std::int16_t status = enter(pTarget, field.SubStructID, pRef);
  if (status == 0) pTo = putReversed(pTo, pRef->sequence);
  return status;
}

// A text that is pointed to. REQUIRES: room for its length.
std::int16_t PortWriter::putText(char *&pTo, const StructPlan &plan, const MEMFieldDef &field,
                                 const char *pText) noexcept {
  if (pText == nullptr) return 0;
  output_.advanceTo(pTo);
  const bool isAppended = appendText(output_, pText);
  pTo = output_.next();
  if (isAppended) return 0;
  checked(false);
  return reportField(*plan.pDef, field);
}

// The number of elements of a structure with a repeat field. A negative count writes no digits and
// no elements.
std::int16_t PortWriter::writeCount(const MEMStructDef &def, const std::byte *pStruct,
                                    std::uint32_t &elements) noexcept {
  const bool isField = def.CountField >= 0 && def.CountField < fieldCount(def);
  const MEMFieldDef *pField = isField ? &def.Fields[def.CountField] : nullptr;
  std::int64_t count = 0;
  switch (isField ? pField->Type : 0) {
    case MEM_PORT_SHORT:
      count = loadAs<std::int16_t>(pStruct + pField->Offset);
      break;
    case MEM_PORT_USHORT:
      count = loadAs<std::uint16_t>(pStruct + pField->Offset);
      break;
    case MEM_PORT_LONG:
      count = loadAs<std::int32_t>(pStruct + pField->Offset);
      break;
    case MEM_PORT_ULONG:
      count = loadAs<std::uint32_t>(pStruct + pField->Offset);
      break;
    default:
      return report(kPointCount, "Unsupported repeat field type!");
  }
  if (count < 0) {
    elements = 0;
    return 0;
  }
  const std::int32_t elementLen = def.Fields[fieldCount(def) - 1].Length;
  if (def.CountIsLength != 0 && elementLen != 0) {
    count = (count - def.Length) / elementLen + 1;
  }
  elements = count > 0 ? static_cast<std::uint32_t>(count) : 0;
  return appendReversed(elements);
}

std::int16_t PortWriter::writeFields(const MEMStructDef &def, const std::byte *pStruct,
                                     std::uint32_t elements, int nesting) noexcept {
  bool isFirst = true;
  for (std::int32_t i = 0; i < fieldCount(def); ++i) {
    const MEMFieldDef &field = def.Fields[i];
    if (field.NotPorted != 0) continue;
    const bool isRepeated = hasRepeatField(def) && i + 1 == fieldCount(def);
    const std::uint32_t times = isRepeated ? elements : 1;
    for (std::uint32_t k = 0; k < times; ++k) {
      const std::int64_t offset = field.Offset + std::int64_t{k} * field.Length;
      const std::int16_t status = writeField(def, field, pStruct + offset, isFirst, nesting);
      if (status != 0) return status;
      isFirst = false;
    }
  }
  return 0;
}

std::int16_t PortWriter::writeField(const MEMStructDef &def, const MEMFieldDef &field,
                                    const std::byte *pField, bool isFirst, int nesting) noexcept {
  std::int16_t status = isFirst ? std::int16_t{0} : append('/');
  if (status == 0) status = appendReversed(field.FieldID);
  if (status == 0) status = writeValue(def, field, pField, nesting);
  return status;
}

// Numbers, pointers and embedded structures are written here, all else by a converter.
std::int16_t PortWriter::writeValue(const MEMStructDef &def, const MEMFieldDef &field,
                                    const std::byte *pField, int nesting) noexcept {
  switch (field.Type) {
    case MEM_PORT_SHORT:
    case MEM_PORT_USHORT:
    case MEM_PORT_LONG:
    case MEM_PORT_ULONG:
    case MEM_PORT_UBIGINT:
    case MEM_PORT_BIGINT:
      return checked(appendNumber(output_, field.Type, pField));
    case MEM_PORT_PNT:
      return writePointer(field, loadAs<const void *>(pField));
    case MEM_PORT_SUBSTRUCTURE:
      return writeEmbedded(field, pField, nesting);
    default:
      return convert(def, field, pField);
  }
}

std::int16_t PortWriter::writeEmbedded(const MEMFieldDef &field, const std::byte *pField,
                                       int nesting) noexcept {
  if (nesting == MEM_PORT_MAX_NESTING) return -1;
  if (const std::int16_t status = append('E'); status != 0) return status;
  const MEMPortRef embedded{
      .pStruct = pField, .StructID = field.SubStructID, .sequence = 0, .pNext = nullptr};
  return MEM_Struct2Port(embedded, nesting + 1);
}

std::int16_t PortWriter::writePointer(const MEMFieldDef &field, const void *pTarget) noexcept {
  if (const std::int16_t status = append('S'); status != 0) return status;
  if (pTarget == nullptr) return 0;
  MEMPortRef *pRef = nullptr;
  if (const std::int16_t status = enter(pTarget, field.SubStructID, pRef); status != 0) {
    return status;
  }
  return appendReversed(pRef->sequence);
}

std::int16_t PortWriter::convert(const MEMStructDef &def, const MEMFieldDef &field,
                                 const std::byte *pField) noexcept {
  std::int16_t status = 0;
  switch (field.Type) {
    case MEM_PORT_CHAR:
      status = checked(MEM_Char2PortStr(output_, field.Length, pField));
      break;
    case MEM_PORT_CHARSZ:
      status = checked(MEM_CharSZ2PortStr(output_, field.Length, pField));
      break;
    case MEM_PORT_PSTR:
      status = checked(MEM_PStr2PortStr(output_, loadAs<const char *>(pField)));
      break;
    case MEM_PORT_BIN:
      status = checked(MEM_Bin2PortStr(output_, field.Length, pField));
      break;
    case MEM_PORT_BIT:
      status = field.Length == 1 ? checked(MEM_Bit2PortStr(output_, pField)) : std::int16_t{-1};
      break;
    case MEM_PORT_WCHAR:
      status = checked(MEM_WChar2PortStr(output_, field.Length, pField));
      break;
    case MEM_PORT_WCHARSZ:
      status = checked(MEM_WCharSZ2PortStr(output_, field.Length, pField));
      break;
    case MEM_PORT_WPSTR:
      status = checked(MEM_WPStr2PortStr(output_, loadAs<const char16_t *>(pField)));
      break;
    default:
      return report(kPointType, "Unknown field type!");
  }
  return status == 0 ? status : reportField(def, field);
}

std::int16_t PortWriter::reportField(const MEMStructDef &def, const MEMFieldDef &field) noexcept {
  const ErrorText text = ErrorText("Failed port of FieldID ")
                             .decimal(static_cast<std::int32_t>(field.FieldID))
                             .text(", StructureID ")
                             .decimal(static_cast<std::int32_t>(def.StructID))
                             .text("!");
  return report(kPointField, text.c_str());
}

std::int16_t PortWriter::append(std::string_view text) noexcept {
  return checked(output_.append(text));
}

std::int16_t PortWriter::append(char c) noexcept {
  return checked(output_.append(c));
}

std::int16_t PortWriter::appendReversed(std::uint64_t value) noexcept {
  return checked(output_.appendReversed(value));
}

std::int16_t PortWriter::checked(bool isAppended) noexcept {
  return isAppended ? std::int16_t{0} : report(kPointAppend, "Allocaton failed in MEM_CHAR2PORT!");
}

std::int16_t PortWriter::report(const MessagePoint &point, const char *pMessage) noexcept {
  reportWriting(frame_, point, pMessage);
  return -1;
}

}  // namespace mem
