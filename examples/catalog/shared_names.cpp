#include "shared_names.hpp"

#include <cstring>

#include "catalog_errors.hpp"

namespace catalog {

NameCounts sinkNames(const mem::Context &context, const MEMProcessBlock &process,
                     const PackageRecord *root) {
  NameCounts counts;
  const auto sinkName = [&](const char *name) {
    if (name == nullptr) return;
    static_cast<void>(need(mem::SunkString::sink(context, name)).release());
    ++counts.names;
    counts.separateBytes += std::strlen(name) + 1;
  };
  forEachRecord(root, [&](const PackageRecord &package) {
    sinkName(package.pName);
    forEachRecord(package.pFirstDependency,
                  [&](const DependencyRecord &dependency) { sinkName(dependency.pName); });
  });
  counts.distinct = process.Act;
  for (const MEMSinkSegment &segment : process.Segments) counts.sinkBytes += segment.UsedLen;
  return counts;
}

}  // namespace catalog
