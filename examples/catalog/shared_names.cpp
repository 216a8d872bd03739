#include "shared_names.hpp"

#include <cstring>

#include "running_library.hpp"

namespace catalog {
namespace {

void sinkName(refhost::Host &host, const char *name, NameCounts &counts) {
  if (name == nullptr) return;
  const char *sunk = nullptr;
  check(host, "MEM_SinkString", host.vector().MEM_SinkString(name, &sunk));
  ++counts.names;
  counts.separateBytes += std::strlen(name) + 1;
}

}  // namespace

NameCounts sinkNames(refhost::Host &host, const PackageRecord *root) {
  NameCounts counts;
  for (const PackageRecord *package = root; package != nullptr; package = package->pNext) {
    sinkName(host, package->pName, counts);
    const DependencyRecord *entry = package->pFirstDependency;
    for (; entry != nullptr; entry = entry->pNext) sinkName(host, entry->pName, counts);
  }
  const MEMProcessBlock &process = *host.anchor();
  counts.distinct = process.Act;
  for (const MEMSinkSegment &segment : process.Segments) counts.sinkBytes += segment.UsedLen;
  return counts;
}

}  // namespace catalog
