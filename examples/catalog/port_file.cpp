#include "port_file.hpp"

#include <cstddef>
#include <string_view>

#include "binary_file.hpp"
#include "running_library.hpp"
#include "utf_text.hpp"

namespace catalog {
namespace {

constexpr std::int16_t kHeapAreaKb = 256;
constexpr std::uint16_t kHeapSubPool = 21;  // any number that the host gives the program

// Identifiers in the text. They keep their meaning for as long as files are read.
enum : std::uint32_t { kPackageStruct = 1, kDependencyStruct = 2 };

constexpr MEMFieldDef field(std::uint32_t id, MEMFieldType type, std::size_t offset,
                            std::int32_t length, std::uint32_t target = 0) {
  MEMFieldDef made{};
  made.FieldID = id;
  made.Type = static_cast<std::uint8_t>(type);
  made.Required = 1;
  made.Length = length;
  made.SubStructID = target;
  made.Offset = static_cast<std::int32_t>(offset);
  return made;
}

constexpr MEMFieldDef kPackageFields[] = {
    field(1, MEM_PORT_PNT, offsetof(PackageRecord, pNext), 8, kPackageStruct),
    field(2, MEM_PORT_PSTR, offsetof(PackageRecord, pName), 8),
    field(3, MEM_PORT_PSTR, offsetof(PackageRecord, pVersion), 8),
    field(4, MEM_PORT_WPSTR, offsetof(PackageRecord, pSummary), 8),
    field(5, MEM_PORT_PNT, offsetof(PackageRecord, pFirstDependency), 8, kDependencyStruct),
    field(6, MEM_PORT_ULONG, offsetof(PackageRecord, DependencyCount), 4),
};

constexpr MEMFieldDef kDependencyFields[] = {
    field(1, MEM_PORT_PNT, offsetof(DependencyRecord, pNext), 8, kDependencyStruct),
    field(2, MEM_PORT_PSTR, offsetof(DependencyRecord, pName), 8),
    field(3, MEM_PORT_PSTR, offsetof(DependencyRecord, pConstraint), 8),
    field(4, MEM_PORT_PNT, offsetof(DependencyRecord, pPackage), 8, kPackageStruct),
    field(5, MEM_PORT_ULONG, offsetof(DependencyRecord, Flags), 4),
};

template <std::size_t count>
constexpr MEMStructDef structure(std::uint32_t id, std::size_t length,
                                 const MEMFieldDef (&fields)[count]) {
  MEMStructDef made{};
  made.StructID = id;
  made.Length = static_cast<std::int32_t>(length);
  made.CountField = MEM_PORT_NO_COUNT;
  made.FieldCount = count;
  made.Fields = fields;
  return made;
}

constexpr MEMStructDef kDefinitions[] = {
    structure(kPackageStruct, sizeof(PackageRecord), kPackageFields),
    structure(kDependencyStruct, sizeof(DependencyRecord), kDependencyFields),
    MEMStructDef{},  // the end
};

HMEMHEAP openHeap(refhost::Host &host) {
  HMEMHEAP heap = nullptr;
  check(host, "MEM_HeapOpen", host.vector().MEM_HeapOpen(&heap, kHeapAreaKb, kHeapSubPool));
  return heap;
}

// The port string calls leave no code; the heap's, where one failed, stands in the error area.
std::string writeText(refhost::Host &host, const PackageRecord *root, HMEMHEAP heap) {
  std::uint32_t length = 0;
  MEMPortChunk *chunk = nullptr;
  check(host, "MEM_StructToPortStr",
        host.vector().MEM_StructToPortStr(kDefinitions, kPackageStruct, root, 0, heap, &length,
                                          &chunk));
  std::string text;
  text.reserve(length);
  for (; chunk != nullptr; chunk = chunk->pNext) {
    text.append(static_cast<const char *>(chunk->Text), static_cast<std::size_t>(chunk->Used));
  }
  return text;
}

}  // namespace

std::uint64_t writePortFile(refhost::Host &host, const PackageRecord *root,
                            const std::filesystem::path &path) {
  const HMEMHEAP heap = openHeap(host);
  std::string text;
  try {
    text = writeText(host, root, heap);
  } catch (...) {
    host.vector().MEM_HeapClose(heap);
    throw;
  }
  check(host, "MEM_HeapClose", host.vector().MEM_HeapClose(heap));
  writeBytes(path, text);
  return text.size();
}

PortRecords::PortRecords(refhost::Host &host, const std::filesystem::path &path) : host_(host) {
  const std::string text = readBytes(path);
  characters_ = text.size();
  heap_ = openHeap(host_);
  void *root = nullptr;
  const std::int16_t result = host_.vector().MEM_Port1StrToStruct(
      kDefinitions, text.data(), static_cast<std::uint32_t>(text.size()), heap_, &root);
  if (result != 0) {
    host_.vector().MEM_HeapClose(heap_);
    throw InputError(utf8FromPath(path) + " is no port string of a catalogue");
  }
  root_ = static_cast<PackageRecord *>(root);
}

PortRecords::~PortRecords() {
  host_.vector().MEM_HeapClose(heap_);
}

}  // namespace catalog
