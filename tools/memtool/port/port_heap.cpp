#include "port_heap.hpp"

#include <fmt/format.h>

#include <utility>

namespace memtool {
namespace {

constexpr std::int16_t kAreaKb = 256;
constexpr std::uint16_t kSubPool = 21;  // any number that the host gives the program
constexpr std::int64_t kMostStorage = std::int64_t{1} << 30;

PortHeapWatch *watching = nullptr;

}  // namespace

PortHeap::PortHeap(RunningLibrary &library) : library_(library) {
  library_.check("MEM_HeapOpen", library_.vector().MEM_HeapOpen(&handle_, kAreaKb, kSubPool));
}

PortHeap::~PortHeap() {
  library_.vector().MEM_HeapClose(handle_);
}

PortHeapWatch::PortHeapWatch(RunningLibrary &library, const PortHeap &heap)
    : slot_(&library.vector().MEM_HeapAllocEntryLong), before_(*slot_), heap_(heap.handle()) {
  watching = this;
  *slot_ = allocate;
}

PortHeapWatch::~PortHeapWatch() {
  *slot_ = before_;
  watching = nullptr;
}

std::int16_t PortHeapWatch::allocate(HMEMHEAP hMemHeap, std::int32_t Len, void **ppEntry) {
  return watching->allocateNoting(hMemHeap, Len, ppEntry);
}

// Nothing is thrown through the library.
std::int16_t PortHeapWatch::allocateNoting(HMEMHEAP heap, std::int32_t length, void **entry) {
  if (heap != heap_) return before_(heap, length, entry);
  constexpr std::int16_t kFailed = -1;
  if (length > kMostStorage - total_) return kFailed;
  const std::int16_t result = before_(heap, length, entry);
  if (result != 0) return result;
  total_ += length;
  try {
    entries_.push_back({*entry, length, 0});
  } catch (const std::exception &) {
    return kFailed;
  }
  return result;
}

PortMessages::PortMessages(RunningLibrary &library) : library_(library) {
  library_.host().takeRecords();
  library_.host().keepRecords(true);
}

PortMessages::~PortMessages() {
  library_.host().keepRecords(false);
}

// "(file:line)ERROR:message", for readers followed by lines that begin with "Position: ".
std::string PortMessages::reason(std::string_view service) {
  for (const refhost::TraceRecord &record : library_.host().takeRecords()) {
    constexpr std::string_view kMark = ")ERROR:";
    constexpr std::string_view kPosition = "\nPosition: ";
    const std::size_t mark = record.text.find(kMark);
    if (record.type != "EXCP" || mark == std::string::npos) continue;
    std::string text = record.text.substr(mark + kMark.size());
    const std::size_t lineEnd = text.find(kPosition);
    if (lineEnd == std::string::npos) return text;
    const std::string rest = text.substr(lineEnd + kPosition.size());
    return fmt::format("{} (before character {})", text.substr(0, lineEnd),
                       rest.substr(0, rest.find('\n')));
  }
  return fmt::format("{} failed without a message", service);
}

}  // namespace memtool
