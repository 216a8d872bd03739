// The process that takes results, checks them and merges them into the catalogue.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "catalog_model.hpp"
#include "exchange_jobs.hpp"
#include "process_report.hpp"
#include "refhost.hpp"
#include "transport.hpp"

namespace exchange {

// What the collector has done with a result.
struct Verdict {
  enum Kind { merged, doubled, unusable };

  Kind kind = merged;
  std::uint32_t code = 0;  // if unusable: the library's code; 0: no service has refused it
  std::string reason;      // if unusable
  std::optional<std::uint32_t> job;  // its job; null if the result has no valid number
};

// Merges results, which may come from anybody: none is used before it is unpacked and every field
// is compared with the catalogue.
class Collector {
 public:
  // Throws ServiceError if there is no storage, as do the other functions.
  Collector(const mem::Context &context, const JobList &jobs, WorkTimes &times);

  Verdict take(const Message &result);

  std::uint32_t mergedCount() const { return mergedCount_; }
  bool isComplete() const { return mergedCount_ == jobs_.count(); }
  std::vector<std::uint32_t> missing() const;

  // Links the shards into one catalogue and compares it with the source. REQUIRES: isComplete().
  // Throws DifferenceError.
  catalog::RecordCounts finish();

 private:
  using Records = std::vector<catalog::PackageRecord *>;

  Verdict check(std::uint32_t job, const std::string &chain);
  Records copy(const catalog::PackageRecord *root);
  void link();

  const mem::Context &context_;
  const JobList &jobs_;
  WorkTimes &times_;
  mem::Heap heap_;               // the merged records
  std::vector<Records> shards_;  // empty: no result of the shard is merged
  std::vector<bool> isMerged_;   // by job
  std::uint32_t mergedCount_ = 0;
};

// Collects until each job has a result, and none is open. Publishes a job again if its result could
// not be used or does not arrive, until the time `patience` is over. Then publishes a report.
// Throws TransportError if the streams are gone, ServiceError if the library fails.
ProcessReport collect(Transport &transport, const refhost::Library &library, const JobList &jobs,
                      const std::string &name, Milliseconds patience);

}  // namespace exchange
