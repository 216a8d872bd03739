// The time line of the reference host: JSON that any reader takes, whose begins and ends nest on
// each thread whatever happens.
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "memtest.hpp"

namespace memtest {
namespace {

using nlohmann::json;
using refhost::Service;

std::string readAll(const std::filesystem::path &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

class HostTimelineTest : public StartedTest {
 protected:
  ~HostTimelineTest() override {
    host.timelineToFile({});
    std::filesystem::remove(path_);
  }

  void begin() { host.timelineToFile(path_); }

  void mark(const std::string &text) {
    MEMTraceBuf *const buffer = env().pTraceBuf;
    std::memcpy(buffer->Text, text.data(), text.size());
    buffer->TextLen = static_cast<std::uint32_t>(text.size());
    host.trace().WriteRecord(MEM_COMPONENT, 0, "STDE", "source", "function", 1);
  }

  // The events of the time line, which ends. Each has what readers need.
  std::vector<json> events() {
    host.timelineToFile({});
    const json parsed = json::parse(readAll(path_));
    EXPECT_TRUE(parsed.is_array());
    std::vector<json> events(parsed.begin(), parsed.end());
    double last = 0;
    for (const json &event : events) {
      EXPECT_EQ(event.at("pid"), 1);
      EXPECT_GE(event.at("tid"), 1);
      EXPECT_GE(event.at("ts").get<double>(), last) << "in the order of time";
      last = event.at("ts").get<double>();
    }
    return events;
  }

  const std::filesystem::path path_ =
      std::filesystem::path(::testing::TempDir()) / "host_timeline_test.json";
};

// The spans as an indented text, with the texts of trace records; checks that they nest. Threads in
// the order of their numbers.
Lines spansOf(const std::vector<json> &events) {
  std::map<int, Lines> open;
  std::map<int, Lines> lines;
  for (const json &event : events) {
    const std::string phase = event.at("ph");
    const int thread = event.at("tid");
    if (phase == "B") {
      lines[thread].push_back(std::string(open[thread].size(), ' ') +
                              event.at("name").get<std::string>());
      open[thread].push_back(event.at("name"));
    } else if (phase == "i") {
      lines[thread].push_back(std::string(open[thread].size(), ' ') +
                              event.at("args").at("text").get<std::string>());
    } else if (phase == "E") {
      EXPECT_FALSE(open[thread].empty()) << "an end without a begin";
      if (!open[thread].empty()) open[thread].pop_back();
    }
  }
  Lines all;
  for (const auto &[thread, names] : open) EXPECT_EQ(names, Lines{}) << "begins without ends";
  for (const auto &[thread, own] : lines) all.insert(all.end(), own.begin(), own.end());
  return all;
}

TEST_F(HostTimelineTest, ShowsEntryPointsAndServicesNested) {
  begin();
  HMEMHEAP heap = nullptr;
  ASSERT_EQ(mem.MEM_EHeapOpen(&heap, 4, 7), 0);
  void *entry = nullptr;
  ASSERT_EQ(mem.MEM_EHeapAllocEntry(heap, 100, &entry), 0);
  ASSERT_EQ(mem.MEM_EHeapClose(heap), 0);
  EXPECT_EQ(spansOf(events()),
            (Lines{"MEM_EHeapOpen", " CreateGate", " MemAlloc", "  GetAnchor", "  GetStorage",
                   "MEM_EHeapAllocEntry", " AcquireGate", " ReleaseGate", "MEM_EHeapClose",
                   " AcquireGate", " MEM_Free", "  GetAnchor", "  FreeStorage", " ReleaseGate",
                   " DeleteGate"}));
}

// The results that ends have, in the order of time.
std::vector<int> resultsOf(const std::vector<json> &events) {
  std::vector<int> results;
  for (const json &event : events) {
    if (event.at("ph") == "E" && event.contains("args")) {
      results.push_back(event.at("args").at("result"));
    }
  }
  return results;
}

TEST_F(HostTimelineTest, EndsCarryTheResult) {
  begin();
  EXPECT_EQ(mem.MEM_HeapClose(nullptr), kFailed);
  mem.MEM_Free(mem.MEM_Alloc(10, 7), 10, 7);
  EXPECT_EQ(resultsOf(events()), (std::vector<int>{0xFFFF, 0, 0}));
}

TEST_F(HostTimelineTest, ThreadsHaveLinesAndNamesOfTheirOwn) {
  constexpr int kThreads = 4;
  begin();
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      EXPECT_EQ(mem.MEM_ThreadAct(), 0);
      for (int round = 0; round < 50; ++round) {
        const char *sunk = nullptr;
        EXPECT_EQ(mem.MEM_SinkString("a text that all threads sink", &sunk), 0);
        EXPECT_EQ(mem.MEM_SinkDelete(sunk), 0);
      }
      EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
    });
  }
  for (std::thread &thread : threads) thread.join();
  const std::vector<json> all = events();
  const Lines spans = spansOf(all);
  EXPECT_EQ(std::count(spans.begin(), spans.end(), "MEM_SinkString"), kThreads * 50);
  std::map<int, std::string> names;
  for (const json &event : all) {
    if (event.at("ph") != "M") continue;
    EXPECT_EQ(event.at("name"), "thread_name");
    EXPECT_EQ(names.count(event.at("tid")), 0U) << "once";
    names[event.at("tid")] = event.at("args").at("name");
  }
  EXPECT_EQ(names.size(), std::size_t{kThreads});
  for (const auto &[thread, name] : names) EXPECT_EQ(name, "thread " + std::to_string(thread));
}

TEST_F(HostTimelineTest, TraceRecordsAreInstants) {
  begin();
  host.setTraceFlags(MEM_TRACE_ENTRY | MEM_TRACE_EXIT);
  mem.MEM_Free(mem.MEM_Alloc(10, 7), 10, 7);
  host.setTraceFlags(0);
  Lines marks;
  for (const json &event : events()) {
    if (event.at("ph") != "i") continue;
    EXPECT_EQ(event.at("s"), "t");
    const json &args = event.at("args");
    marks.push_back(
        event.at("name").get<std::string>() + " " + args.at("function").get<std::string>() + " " +
        args.at("source").get<std::string>() + ":" + std::to_string(args.at("line").get<int>()));
    EXPECT_NE(args.at("text"), "");
  }
  EXPECT_EQ(
      marks,
      (Lines{"STDE MemAlloc ..\\SrcRes\\MEMCSERV:117", "STDX MemAlloc ..\\SrcRes\\MEMCSERV:133",
             "STDE MEM_Free ..\\SrcRes\\MEMCSERV:175", "STDX MEM_Free ..\\SrcRes\\MEMCSERV:182"}));
}

TEST_F(HostTimelineTest, AnyTextIsShown) {
  begin();
  const Lines texts = {"plain", "\"quoted\"", "\\", "\n", "\x01", "\x7F", "w\xC3\xA4", ""};
  for (const std::string &text : texts) mark(text);
  mark("invalid \xFF end");
  Lines shown;
  for (const json &event : events()) {
    if (event.at("ph") == "i") shown.push_back(event.at("args").at("text"));
  }
  EXPECT_EQ(shown.back(), "invalid \xEF\xBF\xBD end");
  shown.pop_back();
  EXPECT_EQ(shown, texts);
}

TEST_F(HostTimelineTest, BeginsAndEndsInTheMiddleOfCalls) {
  MEMTraceFrame outer{};
  MEMTraceFrame inner{};
  MEMTraceFrame innermost{};
  outer.pName = "outer";
  inner.pName = "inner";
  innermost.pName = "innermost";
  const auto enter = [&](MEMTraceFrame &frame) { host.runtime().EnterFrame(&frame, 3); };
  const auto leave = [&](MEMTraceFrame &frame) { host.runtime().LeaveFrame(&frame, 3); };
  enter(outer);
  begin();
  enter(inner);
  enter(innermost);
  EXPECT_EQ(spansOf(events()), (Lines{"inner", " innermost"}));
  begin();
  leave(innermost);
  leave(inner);
  enter(inner);
  leave(inner);
  leave(outer);
  EXPECT_EQ(spansOf(events()), Lines{"inner"});
}

// Calls that a fault has cut off end then, without a result.
TEST_F(HostTimelineTest, CallsThatAreCutOffEnd) {
  begin();
  MEMTraceFrame frames[3] = {};
  const char *const names[3] = {"first", "second", "third"};
  const auto enterAll = [&] {
    for (int i = 0; i < 3; ++i) {
      frames[i].pName = names[i];
      frames[i].Result = static_cast<std::uint32_t>(i + 1);
      host.runtime().EnterFrame(&frames[i], MEM_COMPONENT);
    }
  };
  enterAll();
  EXPECT_EQ(host.text().FilterException(nullptr, &frames[0]), 1);
  mark("cut off");
  mem.MEM_HeapClose(nullptr);
  host.runtime().LeaveFrame(&frames[0], MEM_COMPONENT);
  enterAll();
  host.runtime().LeaveFrame(&frames[1], MEM_COMPONENT);  // before the third
  host.runtime().LeaveFrame(&frames[0], MEM_COMPONENT);
  EXPECT_EQ(host.takeMisuses().size(), 1U);
  const std::vector<json> all = events();
  EXPECT_EQ(resultsOf(all), (std::vector<int>{0xFFFF, 1, 2, 1}));
  EXPECT_EQ(spansOf(all),
            (Lines{"first", " second", "  third", "   FilterException", " cut off",
                   " MEM_HeapClose", "  ReportError", "first", " second", "  third"}));
}

TEST_F(HostTimelineTest, CallsOfAnEndedThreadEnd) {
  begin();
  MEMTraceFrame frame{};
  frame.pName = "open";
  std::thread([&] { host.runtime().EnterFrame(&frame, MEM_COMPONENT); }).join();
  mark("joined");
  const std::vector<json> all = events();
  EXPECT_EQ(spansOf(all), (Lines{"joined", "open"}));
  ASSERT_GE(all.size(), 2U);
  EXPECT_EQ(all.back().at("ph"), "i") << "the end is not put off until the time line's";
  EXPECT_EQ(host.takeMisuses().size(), 1U);
}

// Readers take a file without its end, too: the calls up to a crash.
TEST_F(HostTimelineTest, LacksItsEndOnlyWhileItIsWritten) {
  begin();
  mem.MEM_HeapClose(nullptr);
  const auto other = std::filesystem::path(::testing::TempDir()) / "host_timeline_test2.json";
  host.timelineToFile(other);
  mem.MEM_HeapClose(nullptr);
  const std::string first = readAll(path_);
  EXPECT_EQ(first.substr(0, 2), "[\n");
  EXPECT_EQ(first.substr(first.size() - 3), "\n]\n");
  EXPECT_EQ(json::parse(first).size(), 5U);
  host.timelineToFile({});
  EXPECT_EQ(json::parse(readAll(other)).size(), 5U) << "with the thread's name";
  std::filesystem::remove(other);
}

TEST_F(HostTimelineTest, AnEmptyOneIsValid) {
  begin();
  EXPECT_EQ(events().size(), 0U);
}

TEST_F(HostTimelineTest, AFileThatCannotBeWrittenIsRefused) {
  EXPECT_THROW(host.timelineToFile(std::filesystem::path("no such folder") / "timeline"),
               std::runtime_error);
}

TEST(HostTimeline, EndsWithTheHost) {
  const auto path = std::filesystem::path(::testing::TempDir()) / "host_timeline_end.json";
  {
    refhost::Session session(library().bindEntry());
    session.host().timelineToFile(path);
  }
  const json parsed = json::parse(readAll(path));
  EXPECT_EQ(spansOf({parsed.begin(), parsed.end()}).at(0), "MEM_ThreadTerm");
  std::filesystem::remove(path);
}

}  // namespace
}  // namespace memtest
