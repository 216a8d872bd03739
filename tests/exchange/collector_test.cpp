// The collector: right results are merged, once; everything else is set aside, whatever its bytes.
#include "collector.hpp"

#include <gtest/gtest.h>

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "exchangetest.hpp"
#include "randomrun.hpp"
#include "running_library.hpp"
#include "worker.hpp"

namespace {

using namespace exchangetest;
using exchange::Delivery;
using exchange::JobList;
using exchange::Message;
using exchange::Milliseconds;
using exchange::Stream;
using exchange::Verdict;

std::vector<Message> resultsOf(const JobList &jobs) {
  LocalTransport transport;
  for (std::uint32_t job = 0; job < jobs.count(); ++job) {
    transport.publish(Stream::jobs, jobs.message(job));
  }
  transport.end();
  exchange::work(transport, library(), "worker", exchange::Trouble::none);
  std::vector<Message> results;
  for (const Delivery &delivery : transport.takeAll(Stream::results)) {
    results.push_back(delivery.message);
  }
  return results;
}

class ExchangeCollector : public testing::Test {
 protected:
  explicit ExchangeCollector(JobList jobs = sampleJobs(5, 2))
      : jobs_(std::move(jobs)), results_(resultsOf(jobs_)) {
    host_.emplace();
    running_.emplace(*host_, library().bindEntry());
    collector_.emplace(running_->context(), jobs_, times_);
  }
  ~ExchangeCollector() override {
    collector_.reset();
    running_.reset();
    EXPECT_EQ(host_->account().liveBytes, 0U);
    EXPECT_TRUE(host_->report().empty());
  }

  Verdict take(const Message &result) { return collector_->take(result); }

  void expectSetAside(const Message &result, std::uint32_t code, const std::string &reason) {
    const Verdict verdict = take(result);
    EXPECT_EQ(verdict.kind, Verdict::unusable);
    EXPECT_EQ(verdict.code, code);
    EXPECT_EQ(verdict.reason, reason);
  }

  Message withChain(std::size_t result, const std::string &chain) const {
    Message changed = results_[result];
    changed["chain"] = chain;
    return changed;
  }

  // All that is right is merged.
  void expectCompletes() {
    for (const Message &result : results_) {
      if (!collector_->isComplete()) take(result);
    }
    ASSERT_TRUE(collector_->isComplete());
    const catalog::RecordCounts counts = collector_->finish();
    EXPECT_EQ(counts.packages, jobs_.packages().size());
  }

  JobList jobs_;
  std::vector<Message> results_;
  std::optional<refhost::Host> host_;
  std::optional<catalog::RunningLibrary> running_;
  exchange::WorkTimes times_;
  std::optional<exchange::Collector> collector_;
};

TEST_F(ExchangeCollector, MergesResultsInAnyOrder) {
  ASSERT_EQ(results_.size(), 12U);
  for (auto result = results_.rbegin(); result != results_.rend(); ++result) {
    EXPECT_FALSE(collector_->isComplete());
    EXPECT_EQ(take(*result).kind, Verdict::merged);
  }
  ASSERT_TRUE(collector_->isComplete());
  EXPECT_TRUE(collector_->missing().empty());
  const catalog::RecordCounts counts = collector_->finish();
  EXPECT_EQ(counts.packages, 26U);
  // A shard knows only its own packages; the whole catalogue more.
  std::uint64_t resolved = 0;
  for (const catalog::Package &package : jobs_.packages()) {
    for (const catalog::Dependency &dependency : package.dependencies) {
      for (const catalog::Package &other : jobs_.packages()) {
        if (other.name != catalog::bareName(dependency.name)) continue;
        ++resolved;
        break;
      }
    }
  }
  EXPECT_EQ(counts.references, resolved);
}

TEST_F(ExchangeCollector, RecognisesResultsThatComeTwice) {
  for (const Message &result : results_) {
    EXPECT_EQ(take(result).kind, Verdict::merged);
    EXPECT_EQ(take(result).kind, Verdict::doubled);
  }
  EXPECT_EQ(collector_->mergedCount(), jobs_.count());
  for (const Message &result : results_) EXPECT_EQ(take(result).kind, Verdict::doubled);
  expectCompletes();
}

TEST_F(ExchangeCollector, SetsAsideWhatIsNoResult) {
  expectSetAside({}, 0, "a result without the number of a job");
  expectSetAside({{"job", "0"}}, 0, "a result without a chain");
  Message stranger = results_[0];
  stranger["job"] = std::to_string(jobs_.count());
  expectSetAside(stranger, 0, "a result without the number of a job");
  stranger["job"] = "-1";
  expectSetAside(stranger, 0, "a result without the number of a job");
  stranger["job"] = "1 ";
  expectSetAside(stranger, 0, "a result without the number of a job");
  expectCompletes();
}

TEST_F(ExchangeCollector, SetsAsideBytesThatCannotBeUnpackedWithCodeAndText) {
  const std::string chain = results_[0].at("chain");
  expectSetAside(withChain(0, ""), 0, "PackedChain::load failed: it is too short");
  expectSetAside(withChain(0, "no chain at all"), 0,
                 "PackedChain::load failed: wrong length of block 0");
  expectSetAside(withChain(0, chain.substr(0, chain.size() - 1)), 0,
                 "PackedChain::load failed: wrong length of block 0");
  std::string version = chain;
  version[4] = '9';
  const Verdict verdict = take(withChain(0, version));
  EXPECT_EQ(verdict.code, std::uint32_t{MEMERR_PACKCBVR});
  EXPECT_TRUE(verdict.reason.starts_with("MEM_Unpack failed: 4075 MEMERR_PACKCBVR"))
      << verdict.reason;
  expectSetAside(withChain(0, std::string((std::size_t{16} << 20) + 1, 'x')), 0,
                 "the chain has 16777217 bytes, more than 16777216");
  expectCompletes();
}

TEST_F(ExchangeCollector, SetsAsideAChainThatIsValidAndSaysSomethingElse) {
  const Verdict verdict = take(withChain(0, results_[1].at("chain")));
  EXPECT_EQ(verdict.kind, Verdict::unusable);
  EXPECT_TRUE(
      verdict.reason.starts_with("the chain differs from the catalogue: package base-files"))
      << verdict.reason;
  EXPECT_EQ(verdict.job, 0U);
  expectCompletes();
}

// Where a chain of one block has the first reference that is not null.
std::size_t placeOfReference(const mem::Context &context, const std::string &bytes) {
  mem::PackedChain chain =
      catalog::need(mem::PackedChain::load(context, std::as_bytes(std::span(bytes))));
  const std::byte *const start = (*chain.begin()).data();
  const catalog::PackageRecord *root = catalog::need(chain.unpack(catalog::kPackTable));
  std::size_t place = 0;
  catalog::forEachRecord(root, [&](const catalog::PackageRecord &package) {
    const catalog::DependencyRecord *entry = package.pFirstDependency;
    while (entry != nullptr && place == 0) {
      const catalog::DependencyRecord dependency = mem::readRecord(entry);
      if (dependency.pPackage != nullptr) {
        place = static_cast<std::size_t>(reinterpret_cast<const std::byte *>(entry) - start) +
                offsetof(catalog::DependencyRecord, pPackage);
      }
      entry = dependency.pNext;
    }
  });
  return place;
}

TEST_F(ExchangeCollector, SetsAsideAChainWithAReferenceToNoPackage) {
  std::string chain = results_[0].at("chain");
  const std::size_t place = placeOfReference(running_->context(), chain);
  ASSERT_NE(place, 0U);
  chain[place + 2] = static_cast<char>(chain[place + 2] ^ 4);  // the offset in the block
  expectSetAside(withChain(0, chain), 0,
                 "PackedChain::unpack failed: a reference leads to no segment of its kind");
  expectCompletes();
}

// Nothing that is taken from a stranger breaks the process, and what it takes is right.
TEST_F(ExchangeCollector, SurvivesDamagedChains) {
  const std::uint64_t seed = memtest::firstSeed(1);
  SCOPED_TRACE(memtest::seedNote(seed));
  memtest::Random random(seed);
  std::string reasons;
  for (int i = 0; i < 4000; ++i) {
    const std::size_t which = random.below(results_.size());
    std::string chain = results_[which].at("chain");
    for (std::size_t damages = random.between(1, 4); damages > 0; --damages) {
      const std::size_t at = random.oneIn(4) ? random.below(1000) : random.below(chain.size());
      chain[at % chain.size()] = static_cast<char>(random.below(256));
      if (random.oneIn(20)) chain.resize(random.between(1, chain.size()));
    }
    reasons += take(withChain(which, chain)).reason + '\n';
  }
  for (const char *reason :
       {"PackedChain::load failed: ", "MEM_Unpack failed: ", "the chain differs"}) {
    EXPECT_NE(reasons.find(reason), std::string::npos) << reason;
  }
  expectCompletes();
}

// The process around it.
class ExchangeCollecting : public testing::Test {
 protected:
  exchange::ProcessReport collect(Milliseconds patience = Milliseconds(400)) {
    return exchange::collect(transport_, library(), jobs_, "collector", patience);
  }

  JobList jobs_ = sampleJobs(9);
  std::vector<Message> results_ = resultsOf(jobs_);
  LocalTransport transport_;
};

TEST_F(ExchangeCollecting, PutsBrokenMessagesAsideAndGoesOn) {
  transport_.publish(Stream::results, {{"job", "1"}, {"chain", "garbage"}, {"more", "here"}});
  for (const Message &result : results_) transport_.publish(Stream::results, result);
  const exchange::ProcessReport report = collect();
  EXPECT_EQ(report.problem,
            "all results have come, but some jobs are still open");  // there is no worker
  EXPECT_EQ(report.jobs, jobs_.count());
  EXPECT_EQ(report.setAside, 1U);
  EXPECT_EQ(report.again, 1U);
  EXPECT_EQ(report.liveBytes, 0U);
  const std::vector<Delivery> dead = transport_.takeAll(Stream::dead);
  ASSERT_EQ(dead.size(), 1U);
  EXPECT_EQ(dead[0].message,
            (Message{{"job", "1"},
                     {"chain", "garbage"},
                     {"more", "here"},
                     {"from", "results"},
                     {"code", "0"},
                     {"reason", "PackedChain::load failed: wrong length of block 0"}}));
  EXPECT_EQ(transport_.length(Stream::results), 0U);
}

TEST_F(ExchangeCollecting, PublishesMissingJobsAgainAndAtLastGivesUp) {
  transport_.publish(Stream::results, results_[1]);
  const exchange::ProcessReport report = collect();
  EXPECT_EQ(report.problem, "2 of 3 jobs have no result");
  EXPECT_EQ(report.jobs, 1U);
  EXPECT_EQ(report.liveBytes, 0U);
  EXPECT_GE(report.again, 2U);
  const std::vector<Delivery> again = transport_.takeAll(Stream::jobs);
  ASSERT_EQ(again.size(), report.again);
  EXPECT_EQ(again[0].message, jobs_.message(0));
  EXPECT_EQ(again[1].message, jobs_.message(2));
}

TEST_F(ExchangeCollecting, WaitsForJobsThatAreOpenAndRecognisesTheirResults) {
  for (const Message &result : results_) transport_.publish(Stream::results, result);
  transport_.publish(Stream::results, results_[0]);
  const exchange::ProcessReport report = collect();
  EXPECT_EQ(report.problem, "");
  EXPECT_EQ(report.doubled, 1U);
  EXPECT_EQ(report.jobs, jobs_.count());
  EXPECT_EQ(report.packages, 26U);
}

}  // namespace
