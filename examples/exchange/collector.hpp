// The process that takes results, checks them and puts the catalogue together.
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

// What became of a result.
struct Verdict {
  enum Kind { merged, doubled, unusable };

  Kind kind = merged;
  std::uint32_t code = 0;            // the library's, of an unusable one; 0: it was not asked
  std::string reason;                // of an unusable one
  std::optional<std::uint32_t> job;  // that the result is of, where it tells one that there is
};

// Merges results, from whomever they come: a result is bytes until it has been unpacked and
// compared with the catalogue in every field.
class Collector {
 public:
  // Throws ServiceError when there is no storage; so do the others.
  Collector(const mem::Context &context, const JobList &jobs, WorkTimes &times);

  Verdict take(const Message &result);

  std::uint32_t mergedCount() const { return mergedCount_; }
  bool isComplete() const { return mergedCount_ == jobs_.count(); }
  std::vector<std::uint32_t> missing() const;

  // Links the shards to one catalogue and compares it with the source. REQUIRES: isComplete().
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
  std::vector<Records> shards_;  // empty: none of the shard's results has come
  std::vector<bool> isMerged_;   // by job
  std::uint32_t mergedCount_ = 0;
};

// Collects until each job has a result, and none is open. Publishes jobs again whose results could
// not be used or do not come, at last gives up, and publishes a report. Throws TransportError when
// the streams are gone, ServiceError when the library fails.
ProcessReport collect(Transport &transport, const refhost::Library &library, const JobList &jobs,
                      const std::string &name, Milliseconds patience);

}  // namespace exchange
