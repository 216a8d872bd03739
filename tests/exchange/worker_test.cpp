// The worker: what it makes of jobs, and when it acknowledges them.
#include "worker.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "exchangetest.hpp"

namespace {

using namespace exchangetest;
using exchange::Delivery;
using exchange::Message;
using exchange::Milliseconds;
using exchange::Stream;

// Writes down what is called in which order.
class RecordingTransport : public exchange::Transport {
 public:
  void publish(Stream stream, const Message &message) override {
    calls.push_back(std::string("publish ") + nameOf(stream));
    streams.publish(stream, message);
  }
  std::optional<Delivery> take(Stream stream, Milliseconds) override {
    return streams.take(stream, Milliseconds(0));
  }
  void acknowledge(Stream stream, const std::string &id) override {
    calls.push_back(std::string("acknowledge ") + nameOf(stream));
    streams.acknowledge(stream, id);
  }
  std::uint64_t length(Stream stream) override { return streams.length(stream); }
  void end() override { streams.end(); }
  bool hasEnded() override { return streams.hasEnded(); }

  LocalTransport streams;
  std::vector<std::string> calls;
};

// Has all jobs done that are in the stream.
exchange::ProcessReport workOn(exchange::Transport &transport) {
  transport.end();
  return exchange::work(transport, library(), "worker", exchange::Trouble::none);
}

TEST(ExchangeWorker, AcknowledgesAJobOnlyAfterItsResultIsPublished) {
  const exchange::JobList jobs = sampleJobs(20);
  RecordingTransport transport;
  for (std::uint32_t job = 0; job < jobs.count(); ++job) {
    transport.streams.publish(Stream::jobs, jobs.message(job));
  }
  ASSERT_EQ(jobs.count(), 2U);
  const exchange::ProcessReport report = workOn(transport);
  const std::vector<std::string> expected = {"publish results", "acknowledge jobs",
                                             "publish results", "acknowledge jobs",
                                             "publish reports"};
  EXPECT_EQ(transport.calls, expected);
  EXPECT_EQ(report.jobs, 2U);
  EXPECT_EQ(transport.length(Stream::jobs), 0U);
}

TEST(ExchangeWorker, ReturnsAllStorageAndReportsIt) {
  const exchange::JobList jobs = sampleJobs(1);
  LocalTransport transport;
  for (std::uint32_t job = 0; job < jobs.count(); ++job) {
    transport.publish(Stream::jobs, jobs.message(job));
  }
  workOn(transport);
  const std::vector<Delivery> reports = transport.takeAll(Stream::reports);
  ASSERT_EQ(reports.size(), 1U);
  const exchange::ProcessReport report = exchange::reportFrom(reports[0].message);
  EXPECT_EQ(report.jobs, jobs.count());
  EXPECT_GT(report.storageBytes, 0U);
  EXPECT_EQ(report.liveBytes, 0U);
  EXPECT_EQ(report.liveCount, 0U);
}

TEST(ExchangeWorker, SetsAsideJobsThatCannotBeDoneAndGoesOn) {
  const exchange::JobList jobs = sampleJobs(26);
  LocalTransport transport;
  transport.publish(Stream::jobs, {{"job", "7"}});
  transport.publish(Stream::jobs, {{"job", "seven"}, {"text", "Package: a\n"}});
  transport.publish(Stream::jobs, {{"job", "4294967296"}, {"text", "Package: a\n"}});
  transport.publish(Stream::jobs, {{"job", "8"}, {"text", "no catalogue\n"}});
  transport.publish(Stream::jobs, {{"job", "9"}, {"text", ""}});
  transport.publish(Stream::jobs, {});
  transport.publish(Stream::jobs, jobs.message(0));
  const exchange::ProcessReport report = workOn(transport);
  EXPECT_EQ(report.setAside, 6U);
  EXPECT_EQ(report.jobs, 1U);
  EXPECT_EQ(report.liveBytes, 0U);
  EXPECT_EQ(transport.length(Stream::jobs), 0U);
  const std::vector<Delivery> dead = transport.takeAll(Stream::dead);
  ASSERT_EQ(dead.size(), 6U);
  EXPECT_EQ(dead[0].message.at("reason"), "a job without a number or a text");
  EXPECT_EQ(dead[3].message.at("reason"),
            "the job, line 1: is not a field (\"Name: value\"), a continuation or a blank line");
  EXPECT_EQ(dead[3].message.at("from"), "jobs");
  EXPECT_EQ(dead[3].message.at("job"), "8");
  EXPECT_EQ(dead[3].message.at("text"), "no catalogue\n");
}

// It may be what its workers die of.
TEST(ExchangeWorker, SetsAsideAJobThatHasBeenHandedOutTooOften) {
  const exchange::JobList jobs = sampleJobs(26);
  exchange::PipeBroker transport({Milliseconds(0), Milliseconds(400)});  // claimed at once
  transport.publish(Stream::jobs, jobs.message(0));
  for (int i = 1; i <= 5; ++i) {
    EXPECT_EQ(transport.take(Stream::jobs, Milliseconds(0))->deliveries, i);
  }
  const exchange::ProcessReport report = workOn(transport);
  EXPECT_EQ(report.setAside, 1U);
  EXPECT_EQ(report.jobs, 0U);
  EXPECT_EQ(transport.length(Stream::jobs), 0U);
}

TEST(ExchangeJobs, ShardsTogetherAreTheCatalogue) {
  for (const std::size_t packages : {1U, 3U, 25U, 26U, 1000U}) {
    const exchange::JobList jobs = sampleJobs(packages, 3);
    EXPECT_EQ(jobs.count(), 3 * jobs.shardCount());
    std::vector<std::string> names;
    for (std::size_t i = 0; i < jobs.shardCount(); ++i) {
      EXPECT_LE(jobs.shard(i).packages.size(), packages);
      for (const catalog::Package &package : jobs.shard(i).packages) names.push_back(package.name);
    }
    ASSERT_EQ(names.size(), jobs.packages().size());
    for (std::size_t i = 0; i < names.size(); ++i) EXPECT_EQ(names[i], jobs.packages()[i].name);
  }
}

TEST(ExchangeJobs, RefusesMoreThanCanBeHeld) {
  EXPECT_THROW(sampleJobs(1, 1000000), catalog::InputError);
}

}  // namespace
