#include "collector.hpp"

#include <span>
#include <string_view>
#include <unordered_map>

#include "catalog_support.hpp"
#include "running_library.hpp"

namespace exchange {
namespace {

using catalog::DependencyRecord;
using catalog::need;
using catalog::PackageRecord;

constexpr mem::HeapSettings kMergedHeap = {.areaKb = 256, .subPool = 20};

// The longest chain that is unpacked. The table's segments have at most 48 bytes, so what unpacking
// allocates is proportional to it.
constexpr std::size_t kMostChainBytes = std::size_t{16} << 20;

constexpr Milliseconds kWait{100};  // for a result
constexpr Milliseconds kBetweenProgress{250};
constexpr int kMostTries = 4;  // of a job: once, and three more times

Verdict refused(std::uint32_t job, const mem::Error &error) {
  return {Verdict::unusable, error.code(), error.line().text, job};
}

Verdict refused(std::optional<std::uint32_t> job, const std::string &reason) {
  return {Verdict::unusable, 0, reason, job};
}

}  // namespace

Collector::Collector(const mem::Context &context, const JobList &jobs, WorkTimes &times)
    : context_(context),
      jobs_(jobs),
      times_(times),
      heap_(need(mem::Heap::open(context, kMergedHeap))),
      shards_(jobs.shardCount()),
      isMerged_(jobs.count()) {}

Verdict Collector::take(const Message &result) {
  const std::optional<std::uint32_t> job = jobOf(result);
  const std::string *const chain = fieldOf(result, kChainField);
  if (!job || *job >= jobs_.count()) {
    return refused(std::nullopt, "a result without the number of a job");
  }
  if (isMerged_[*job]) return {Verdict::doubled, 0, "", job};
  if (chain == nullptr) return refused(job, "a result without a chain");
  if (chain->size() > kMostChainBytes) {
    return refused(job, "the chain has " + std::to_string(chain->size()) + " bytes, more than " +
                            std::to_string(kMostChainBytes));
  }
  const Verdict verdict = check(*job, *chain);
  if (verdict.kind == Verdict::merged) {
    isMerged_[*job] = true;
    ++mergedCount_;
  }
  return verdict;
}

// Unpacking checks the form of a chain; only the comparison shows that its contents are right.
Verdict Collector::check(std::uint32_t job, const std::string &bytes) {
  mem::Result<mem::PackedChain> chain = times_.measure(Work::unpack, [&] {
    return mem::PackedChain::load(context_, std::as_bytes(std::span(bytes)));
  });
  if (!chain.isOk()) return refused(job, chain.error());
  const mem::Result<PackageRecord *> root =
      times_.measure(Work::unpack, [&] { return chain.value().unpack(catalog::kPackTable); });
  if (!root.isOk()) return refused(job, root.error());

  const std::size_t shard = jobs_.shardOf(job);
  try {
    times_.measure(Work::check,
                   [&] { catalog::checkRecords(root.value(), jobs_.shard(shard).packages); });
  } catch (const catalog::DifferenceError &difference) {
    return refused(job, difference.what());
  }
  if (shards_[shard].empty()) {
    times_.measure(Work::merge, [&] { shards_[shard] = copy(root.value()); });
  }
  return {Verdict::merged, 0, "", job};
}

// Copies records out of a chain, which is then freed: in the chain of another process, segments may
// overlap. link() sets the references later.
Collector::Records Collector::copy(const PackageRecord *root) {
  Records copies;
  const auto text = [&](auto *from) {
    using View = std::basic_string_view<std::remove_pointer_t<decltype(from)>>;
    return from == nullptr ? from : need(heap_.copyText(View(from)));
  };
  catalog::forEachRecord(root, [&](PackageRecord package) {
    const DependencyRecord *const first = package.pFirstDependency;
    package.pNext = nullptr;
    package.pName = text(package.pName);
    package.pVersion = text(package.pVersion);
    package.pSummary = text(package.pSummary);
    package.pFirstDependency = nullptr;
    copies.push_back(need(heap_.make<PackageRecord>(package)));
    DependencyRecord **ppNext = &copies.back()->pFirstDependency;
    catalog::forEachRecord(first, [&](DependencyRecord dependency) {
      dependency.pNext = nullptr;
      dependency.pName = text(dependency.pName);
      dependency.pConstraint = text(dependency.pConstraint);
      dependency.pPackage = nullptr;
      *ppNext = need(heap_.make<DependencyRecord>(dependency));
      ppNext = &(*ppNext)->pNext;
    });
  });
  return copies;
}

std::vector<std::uint32_t> Collector::missing() const {
  std::vector<std::uint32_t> jobs;
  for (std::uint32_t job = 0; job < jobs_.count(); ++job) {
    if (!isMerged_[job]) jobs.push_back(job);
  }
  return jobs;
}

// Links the records of all shards in one list, with references between the shards.
void Collector::link() {
  std::unordered_map<std::string_view, PackageRecord *> byName;
  PackageRecord *last = nullptr;
  for (const Records &shard : shards_) {
    for (PackageRecord *const package : shard) {
      if (last != nullptr) last->pNext = package;
      last = package;
      byName.emplace(package->pName, package);  // of packages with the same name the first is used
    }
  }
  for (const Records &shard : shards_) {
    for (const PackageRecord *const package : shard) {
      for (DependencyRecord *entry = package->pFirstDependency; entry != nullptr;
           entry = entry->pNext) {
        const auto found = byName.find(catalog::bareName(entry->pName));
        entry->pPackage = found == byName.end() ? nullptr : found->second;
      }
    }
  }
}

catalog::RecordCounts Collector::finish() {
  times_.measure(Work::merge, [&] { link(); });
  const PackageRecord *const root = shards_.front().empty() ? nullptr : shards_.front().front();
  times_.measure(Work::check, [&] { catalog::checkRecords(root, jobs_.packages()); });
  return catalog::countRecords(root);
}

namespace {

// Takes results as they arrive.
class Collecting {
 public:
  Collecting(Transport &transport, const mem::Context &context, const JobList &jobs,
             Milliseconds patience, ProcessReport &report)
      : transport_(transport),
        jobs_(jobs),
        patience_(patience),
        report_(report),
        collector_(context, jobs, report.times),
        tries_(jobs.count(), 1) {}

  void run() {
    lastResult_ = lastAgain_ = Clock::now();
    while (!isOver()) {
      const std::optional<Delivery> result = report_.times.measure(
          Work::transport, [&] { return transport_.take(Stream::results, kWait); });
      if (result) {
        lastResult_ = lastAgain_ = Clock::now();
        handle(*result);
      } else if (!isQuiet()) {
        return;
      }
      tellProgress();
    }
    const catalog::RecordCounts counts = collector_.finish();
    report_.packages = counts.packages;
    report_.references = counts.references;
  }

 private:
  // If a job is still open, its result may arrive a second time.
  bool isOver() {
    if (!collector_.isComplete()) return false;
    return transport_.length(Stream::jobs) == 0 && transport_.length(Stream::results) == 0;
  }

  // A message is acknowledged only after it has been handled completely.
  void handle(const Delivery &delivery) {
    const Verdict verdict = collector_.take(delivery.message);
    if (const std::string *const chain = fieldOf(delivery.message, kChainField)) {
      report_.chainBytes += chain->size();
    }
    report_.jobs = collector_.mergedCount();
    if (verdict.kind == Verdict::unusable) {
      ++report_.setAside;
      if (verdict.job) publishAgain(*verdict.job);
      setAside(transport_, Stream::results, delivery, verdict.code, verdict.reason);
      return;
    }
    if (verdict.kind == Verdict::doubled) ++report_.doubled;
    report_.times.measure(Work::transport,
                          [&] { transport_.acknowledge(Stream::results, delivery.id); });
  }

  void publishAgain(std::uint32_t job) {
    if (tries_[job] >= kMostTries) return;
    ++tries_[job];
    ++report_.again;
    transport_.publish(Stream::jobs, jobs_.message(job));
  }

  // Nothing has arrived: a server that failed may have lost its last second of messages, so missing
  // jobs are published again. False if the time is over.
  bool isQuiet() {
    const Clock::time_point now = Clock::now();
    const std::vector<std::uint32_t> missing = collector_.missing();
    if (now - lastResult_ >= patience_) {
      report_.problem = std::to_string(missing.size()) + " of " + std::to_string(jobs_.count()) +
                        " jobs have no result";
      if (missing.empty()) report_.problem = "all results have come, but some jobs are still open";
      return false;
    }
    if (now - lastAgain_ >= patience_ / kMostTries) {
      lastAgain_ = now;
      for (const std::uint32_t job : missing) publishAgain(job);
    }
    return true;
  }

  void tellProgress() {
    if (Clock::now() - lastProgress_ < kBetweenProgress) return;
    lastProgress_ = Clock::now();
    transport_.publish(Stream::reports, messageOf(report_));
  }

  Transport &transport_;
  const JobList &jobs_;
  Milliseconds patience_;
  ProcessReport &report_;
  Collector collector_;
  std::vector<int> tries_;  // by job
  Clock::time_point lastResult_ = {};
  Clock::time_point lastAgain_ = {};
  Clock::time_point lastProgress_ = {};
};

}  // namespace

ProcessReport collect(Transport &transport, const refhost::Library &library, const JobList &jobs,
                      const std::string &name, Milliseconds patience) {
  ProcessReport report;
  report.role = Role::collector;
  report.name = name;
  refhost::Host host;
  try {
    const catalog::RunningLibrary running(host, library.bindEntry());
    Collecting(transport, running.context(), jobs, patience, report).run();
  } catch (const catalog::DifferenceError &difference) {
    report.problem = difference.what();
  }
  report.isFinal = true;
  report.storageBytes = host.account().totalBytes;
  report.liveBytes = host.account().liveBytes;
  report.liveCount = host.account().liveCount;
  transport.publish(Stream::reports, messageOf(report));
  return report;
}

}  // namespace exchange
