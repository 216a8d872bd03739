#include "port/write/port_writer.h"

#include "base/bytes.h"
#include "hash/owned_table.h"
#include "heap/heapblocks.h"
#include "platform/platform.h"
#include "port/write/fast_steps.h"
#include "port/write/to_text.h"

namespace memlib {

namespace {

// Arguments of the registry.
constexpr std::int16_t kRegistryMax = 1998;
constexpr std::int16_t kRegistryAreaKB = 10;

// MEM_PortHash: 0..1998 from an 8-byte address.
std::int16_t portHash(const void *pKey) noexcept {
  constexpr std::uint64_t kModulus = kRegistryMax + 1;
  const auto address = loadAs<std::uint64_t>(pKey);
  const std::uint64_t hashed = address % 8 == 0 ? address / 8 : address;
  return static_cast<std::int16_t>(hashed % kModulus);
}

// Bytes of a heap area that text cannot use: the header of a standard heap and a chunk's own bytes.
constexpr std::int32_t kAreaOverhead = kAreaEntryOverhead + MEM_PORT_CHUNK_OVERHEAD;
static_assert(kAreaOverhead == 72);

// A graph with more structures than this exceeds the processor's near caches.
constexpr std::uint32_t kMostInCaches = 8192;

constexpr MessagePoint kPointCapacity{"MEM_StructToPortStr", 412};
constexpr MessagePoint kPointAppend{"MEM_CHAR2PORT", 498};
constexpr MessagePoint kPointStruct{"MEM_Struct2Port", 561};
constexpr MessagePoint kPointCount{"MEM_Struct2Port", 604};
constexpr MessagePoint kPointType{"MEM_Struct2Port", 688};
constexpr MessagePoint kPointField{"MEM_Struct2Port", 731};

}  // namespace

// The structure's entry, made when the first pointer to it is found.
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
  if (isAhead()) {
    lookahead_.stop();
  } else {
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

// The capacity that the caller passes, or the one that fills an area of its heap. The two kinds of
// heap have the area size at different offsets. Without a heap any capacity will do: the heap's
// services refuse the handle, unless the host has replaced them.
std::int32_t PortWriter::chunkCapacity() const noexcept {
  if (chunkLen_ != 0) return chunkLen_;
  if (hMemHeap_ == nullptr) return MEM_PORT_HEADER_LEN;
  const bool isEnhanced = hasEyecatcher(hMemHeap_, kEHeapEye);
  if (!isEnhanced && !hasEyecatcher(hMemHeap_, kHeapEye)) return MEM_PORT_HEADER_LEN;
  const std::size_t sizeOff =
      isEnhanced ? offsetof(MEMEHeapHeader, AreaSize) : offsetof(MEMHeapHeader, AreaSize);
  return loadAs<std::int32_t>(bytesAt(hMemHeap_, sizeOff)) - kAreaOverhead;
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
                                    kRegistryMax, portHash, kRegistryAreaKB, 0) != 0) {
    frame_.traceExit("MEM_HashOpen Return=FAILED");
    return -1;
  }
  hRegistry_ = hRegistry;
  allowIndex(frame_, hRegistry, portHash);
  lookahead_.lookInto(hRegistry);
  return 0;
}

// Inlined, with the steps of most structures, into the loop over all structures.
MEM_INLINE std::int16_t PortWriter::writeStructure(const MEMPortRef &ref, int nesting) noexcept {
  const StructPlan *pPlan = plans_.find(ref.StructID);
  if (pPlan == nullptr) return writeUnplanned(ref, nesting);
  const auto *pStruct = static_cast<const std::byte *>(ref.pStruct);
  if (!pPlan->head.empty()) return writeCounted(*pPlan, pStruct, nesting);
  return writeStepsFast(*pPlan->pDef, pPlan->fields, pStruct, nesting);
}

// The queue grows at its tail while it is walked: structures are written in the order in which
// pointers to them are found.
std::int16_t PortWriter::writeAll() noexcept {
  for (; pRef_ != nullptr; pRef_ = pRef_->pNext) {
    askAhead();
    if (const std::int16_t status = writeStructure(*pRef_, 0); status != 0) return status;
  }
  return 0;
}

// In a small graph the near caches hold most of what comes next, but not the structures.
void PortWriter::askAhead() noexcept {
  if (structures() > kMostInCaches) {
    lookahead_.ask(*pRef_);
  } else if (pRef_->pNext != nullptr) {
    MEM_PREFETCH(pRef_->pNext->pStruct);
  }
}

std::int16_t PortWriter::writeUnplanned(const MEMPortRef &ref, int nesting) noexcept {
  const MEMStructDef *pDef = findStructDef(pDefs_, ref.StructID);
  if (pDef == nullptr) {
    const ErrorText text =
        ErrorText("No such StructID:").decimal(static_cast<std::int32_t>(ref.StructID)).text("!");
    return report(kPointStruct, text.c_str());
  }
  const auto *pStruct = static_cast<const std::byte *>(ref.pStruct);
  std::uint32_t elements = 1;
  std::int16_t status = checked(output_.append('(') && output_.appendReversed(pDef->StructID));
  if (status == 0 && hasRepeatField(*pDef)) {
    status = append(',');
    if (status == 0) status = writeCount(*pDef, pStruct, elements);
  }
  if (status == 0) status = append('<');
  if (status == 0) status = writeFields(*pDef, pStruct, elements, nesting);
  if (status == 0) status = append(">)");
  if (status == 0) plans_.add(*pDef);
  return status;
}

// Writes a structure with a number of elements before its fields.
std::int16_t PortWriter::writeCounted(const StructPlan &plan, const std::byte *pStruct,
                                      int nesting) noexcept {
  const MEMStructDef &def = *plan.pDef;
  std::uint32_t elements = 0;
  std::int16_t status = writeSteps(def, plan.head, pStruct, nesting);
  if (status == 0) status = writeCount(def, pStruct, elements);
  if (status == 0) status = writeSteps(def, plan.fields, pStruct, nesting);
  if (plan.repeated.empty() || status != 0) return status;
  for (std::uint32_t k = 0; status == 0 && k < elements; ++k) {
    const std::int64_t offset = std::int64_t{k} * plan.repeated.front().pField->Length;
    status = writeSteps(def, plan.repeated, pStruct + offset, nesting);
  }
  return status == 0 ? append(">)") : status;
}

// Out of line, for structures with a count or without a plan.
std::int16_t PortWriter::writeSteps(const MEMStructDef &def, StructPlan::Row row,
                                    const std::byte *pStruct, int nesting) noexcept {
  return writeStepsFast(def, row, pStruct, nesting);
}

MEM_NOINLINE std::int16_t PortWriter::writeStep(const MEMStructDef &def, const FieldStep &step,
                                                const std::byte *pField, int nesting) noexcept {
  const std::int16_t status = append(std::string_view(step.prefix, step.prefixLen));
  return status == 0 ? writeValue(def, step, pField, nesting) : status;
}

// Writes numbers, pointers and embedded structures; a converter writes all other values.
MEM_NOINLINE std::int16_t PortWriter::writeValue(const MEMStructDef &def, const FieldStep &step,
                                                 const std::byte *pField, int nesting) noexcept {
  switch (step.type) {
    case FieldStep::kNoField:
      return 0;
    case MEM_PORT_SHORT:
      return checked(output_.appendSigned(loadAs<std::int16_t>(pField)));
    case MEM_PORT_USHORT:
      return checked(output_.appendReversed(loadAs<std::uint16_t>(pField)));
    case MEM_PORT_LONG:
      return checked(output_.appendSigned(loadAs<std::int32_t>(pField)));
    case MEM_PORT_ULONG:
      return checked(output_.appendReversed(loadAs<std::uint32_t>(pField)));
    case MEM_PORT_BIGINT:
      return checked(output_.appendSigned(loadAs<std::int64_t>(pField)));
    case MEM_PORT_UBIGINT:
      return checked(output_.appendReversed(loadAs<std::uint64_t>(pField)));
    case MEM_PORT_PNT:
      return writePointer(*step.pField, loadAs<const void *>(pField));
    case MEM_PORT_SUBSTRUCTURE:
      return writeEmbedded(*step.pField, pField, nesting);
    case MEM_PORT_PSTR:
      return ported(appendPStr(output_, loadAs<const char *>(pField)), def, step);
    case MEM_PORT_WPSTR:
      return ported(appendWPStr(output_, loadAs<const char16_t *>(pField)), def, step);
    case MEM_PORT_CHAR:
      return ported(appendChar(output_, step.pField->Length, pField), def, step);
    case MEM_PORT_CHARSZ:
      return ported(appendCharSZ(output_, step.pField->Length, pField), def, step);
    case MEM_PORT_WCHAR:
      return ported(appendWChar(output_, step.pField->Length, pField), def, step);
    case MEM_PORT_WCHARSZ:
      return ported(appendWCharSZ(output_, step.pField->Length, pField), def, step);
    case MEM_PORT_BIN:
      return ported(appendBin(output_, step.pField->Length, pField), def, step);
    case MEM_PORT_BIT:
      if (step.pField->Length != 1) return reportField(def, step);
      return ported(appendBit(output_, pField), def, step);
    default:
      return report(kPointType, "Unknown field type!");
  }
}

std::int16_t PortWriter::writePointer(const MEMFieldDef &field, const void *pTarget) noexcept {
  if (const std::int16_t status = append('S'); status != 0) return status;
  if (pTarget == nullptr) return 0;
  MEMPortRef *pRef = nullptr;
  if (const std::int16_t status = enter(pTarget, field.SubStructID, pRef); status != 0) {
    return status;
  }
  return checked(output_.appendReversed(pRef->sequence));
}

// Writes the number of elements of a structure with a repeat field. A negative count writes no
// digits and no elements.
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
    const auto length = static_cast<std::int32_t>(count);  // of an unsigned field, too
    count = (std::int64_t{length} - def.Length) / elementLen + 1;
  }
  elements = count > 0 ? static_cast<std::uint32_t>(count) : 0;
  return checked(output_.appendReversed(elements));
}

// Writes the fields of a structure without a plan, read one by one.
std::int16_t PortWriter::writeFields(const MEMStructDef &def, const std::byte *pStruct,
                                     std::uint32_t elements, int nesting) noexcept {
  bool isFirst = true;
  for (std::int32_t i = 0; i < fieldCount(def); ++i) {
    const MEMFieldDef &field = def.Fields[i];
    if (field.NotPorted != 0) continue;
    const bool isRepeated = hasRepeatField(def) && i + 1 == fieldCount(def);
    const std::uint32_t times = isRepeated ? elements : 1;
    FieldStep step;
    for (std::uint32_t k = 0; k < times; ++k) {
      if (k < 2) step = makeStep(field, isFirst ? "" : "/");  // later ones are like the second
      const std::int64_t offset = std::int64_t{k} * field.Length;
      const std::int16_t status = writeSteps(def, {&step, 1}, pStruct + offset, nesting);
      if (status != 0) return status;
      isFirst = false;
    }
  }
  return 0;
}

MEM_NOINLINE std::int16_t PortWriter::writeEmbedded(const MEMFieldDef &field,
                                                    const std::byte *pField, int nesting) noexcept {
  if (nesting == MEM_PORT_MAX_NESTING) return -1;
  if (const std::int16_t status = append('E'); status != 0) return status;
  const MEMPortRef embedded{
      .pStruct = pField, .StructID = field.SubStructID, .sequence = 0, .pNext = nullptr};
  return writeStructure(embedded, nesting + 1);
}

// The status of a field after its converter ran.
std::int16_t PortWriter::ported(bool isAppended, const MEMStructDef &def,
                                const FieldStep &step) noexcept {
  if (isAppended) return 0;
  checked(false);
  return reportField(def, step);
}

std::int16_t PortWriter::reportField(const MEMStructDef &def, const FieldStep &step) noexcept {
  const ErrorText text = ErrorText("Failed port of FieldID ")
                             .decimal(static_cast<std::int32_t>(step.pField->FieldID))
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

std::int16_t PortWriter::checked(bool isAppended) noexcept {
  return isAppended ? std::int16_t{0} : report(kPointAppend, "Allocaton failed in MEM_CHAR2PORT!");
}

std::int16_t PortWriter::report(const MessagePoint &point, const char *pMessage) noexcept {
  frame_.traceException(point.routine, point.line, "(%s:%d)ERROR:%s", kSourcePort, point.line,
                        pMessage);
  return -1;
}

}  // namespace memlib
