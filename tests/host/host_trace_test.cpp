// Trace records of the reference host and the places where they go.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "refhost.hpp"

namespace {

using refhost::Service;
using refhost::TraceRecord;

class HostTraceTest : public ::testing::Test {
 protected:
  void write(const std::string &text) {
    MEMTraceBuf *const buffer = host_.thread().pTraceBuf;
    std::memcpy(buffer->Text, text.data(), text.size());
    buffer->TextLen = static_cast<std::uint32_t>(text.size());
    host_.trace().WriteRecord(MEM_COMPONENT, 0, "STDE", "..\\SrcRes\\MEMCHEAP", "MEM_HeapOpen",
                              101);
  }

  refhost::Host host_;
};

TEST_F(HostTraceTest, KeepsRecordsWithCopiedText) {
  write("not kept");
  host_.keepRecords(true);
  write("first");
  write("second");
  host_.trace().WriteException(MEM_COMPONENT, 0, "EXCP", "source", "function", 7);
  host_.trace().WriteWideRecord(MEM_COMPONENT, 0, "STDE", "source", "function", 8, u"w\u00E4");

  const std::vector<TraceRecord> records = host_.takeRecords();
  ASSERT_EQ(records.size(), 4U);
  EXPECT_EQ(records[0].type, "STDE");
  EXPECT_EQ(records[0].source, "..\\SrcRes\\MEMCHEAP");
  EXPECT_EQ(records[0].function, "MEM_HeapOpen");
  EXPECT_EQ(records[0].line, 101);
  EXPECT_EQ(records[0].text, "first");
  EXPECT_EQ(records[0].writtenBy, Service::WriteRecord);
  EXPECT_EQ(records[1].text, "second");
  EXPECT_EQ(records[2].text, "second");
  EXPECT_EQ(records[2].writtenBy, Service::WriteException);
  EXPECT_EQ(records[3].text, "w\xC3\xA4");
  EXPECT_EQ(records[3].writtenBy, Service::WriteWideRecord);
  EXPECT_TRUE(host_.takeRecords().empty());
}

TEST_F(HostTraceTest, ARecordIsOneLine) {
  TraceRecord record;
  record.type = "STDX";
  record.source = "..\\SrcRes\\MEMCHEAP";
  record.function = "MEM_HeapOpen";
  record.line = 101;
  record.text = "a\nb\x7F";
  EXPECT_EQ(refhost::traceLine(record), "STDX MEM_HeapOpen(..\\SrcRes\\MEMCHEAP:101) a\\x0Ab\\x7F");
}

TEST_F(HostTraceTest, ALineMayCarryTimeThreadAndDepth) {
  TraceRecord record;
  record.type = "STDX";
  record.source = "source";
  record.function = "function";
  record.line = 7;
  record.text = "text";
  record.time = 12'000'345'999;
  record.thread = 3;
  record.depth = 3;
  const std::string plain = "STDX function(source:7) text";
  EXPECT_EQ(refhost::traceLine(record), plain);
  EXPECT_EQ(refhost::traceLine(record, {.time = true}), "   12.000345 " + plain);
  EXPECT_EQ(refhost::traceLine(record, {.thread = true}), "T3 " + plain);
  EXPECT_EQ(refhost::traceLine(record, {.depth = true}), "    " + plain);
  EXPECT_EQ(refhost::traceLine(record, {true, true, true}), "   12.000345 T3     " + plain);
  record.depth = 0;  // outside of any entry point
  EXPECT_EQ(refhost::traceLine(record, {.depth = true}), plain);
}

TEST_F(HostTraceTest, RecordsHaveTimeThreadAndDepth) {
  host_.keepRecords(true);
  write("outside");
  MEMTraceFrame outer{};
  MEMTraceFrame inner{};
  host_.runtime().EnterFrame(&outer, MEM_COMPONENT);
  host_.runtime().EnterFrame(&inner, MEM_COMPONENT);
  write("inside");
  host_.runtime().LeaveFrame(&inner, MEM_COMPONENT);
  std::thread([this] { write("on another thread"); }).join();
  host_.runtime().LeaveFrame(&outer, MEM_COMPONENT);
  write("outside again");
  const std::vector<TraceRecord> records = host_.takeRecords();
  ASSERT_EQ(records.size(), 4U);
  EXPECT_EQ(records[0].depth, 0U);
  EXPECT_EQ(records[1].depth, 2U);
  EXPECT_EQ(records[2].depth, 0U);
  EXPECT_EQ(records[3].depth, 0U);
  EXPECT_EQ(records[0].thread, records[1].thread);
  EXPECT_NE(records[0].thread, records[2].thread);
  for (std::size_t i = 1; i < records.size(); ++i) {
    EXPECT_GE(records[i].time, records[i - 1].time);
  }
}

TEST_F(HostTraceTest, StreamsAndFilesFollowTheStyle) {
  std::ostringstream stream;
  host_.traceToStream(&stream);
  host_.setTraceLines({.thread = true});
  write("one");
  host_.setTraceLines({});
  write("two");
  host_.traceToStream(nullptr);
  host_.keepRecords(true);
  write("three");
  const std::string thread = std::to_string(host_.takeRecords().at(0).thread);
  EXPECT_EQ(stream.str(), "T" + thread +
                              " STDE MEM_HeapOpen(..\\SrcRes\\MEMCHEAP:101) one\n"
                              "STDE MEM_HeapOpen(..\\SrcRes\\MEMCHEAP:101) two\n");
}

TEST(HostTraceLines, AreAnOption) {
  refhost::Host host({.traceLines = {.thread = true}});
  std::ostringstream stream;
  host.traceToStream(&stream);
  host.trace().WriteException(MEM_COMPONENT, 0, "EXCP", "source", "function", 7);
  EXPECT_EQ(stream.str()[0], 'T');
}

TEST_F(HostTraceTest, WritesToAStreamUntilItIsTakenAway) {
  std::ostringstream stream;
  host_.traceToStream(&stream);
  write("one");
  write("two");
  host_.traceToStream(nullptr);
  write("three");
  EXPECT_EQ(stream.str(),
            "STDE MEM_HeapOpen(..\\SrcRes\\MEMCHEAP:101) one\n"
            "STDE MEM_HeapOpen(..\\SrcRes\\MEMCHEAP:101) two\n");
}

TEST_F(HostTraceTest, WritesToAFileLineByLine) {
  const std::filesystem::path path =
      std::filesystem::path(::testing::TempDir()) / "host_trace_test.txt";
  host_.traceToFile(path);
  write("one");
  std::string line;
  std::getline(std::ifstream(path) >> std::ws, line);
  EXPECT_EQ(line, "STDE MEM_HeapOpen(..\\SrcRes\\MEMCHEAP:101) one");
  host_.traceToFile({});
  std::filesystem::remove(path);
}

TEST_F(HostTraceTest, AFileThatCannotBeWrittenIsRefused) {
  EXPECT_THROW(host_.traceToFile(std::filesystem::path("no such folder") / "trace"),
               std::runtime_error);
}

TEST_F(HostTraceTest, ACallbackMayTraceItself) {
  std::vector<std::string> texts;
  host_.onTrace([&](const TraceRecord &record) {
    texts.push_back(record.text);
    if (record.text == "outer") write("inner");
  });
  write("outer");
  host_.onTrace({});
  write("later");
  EXPECT_EQ(texts, (std::vector<std::string>{"outer", "inner"}));
}

TEST_F(HostTraceTest, TextBeyondTheBufferIsReportedAndCut) {
  host_.keepRecords(true);
  host_.thread().pTraceBuf->TextLen = 100000;
  host_.trace().WriteRecord(MEM_COMPONENT, 0, "STDE", "source", "function", 1);
  EXPECT_EQ(host_.takeRecords().at(0).text.size(), refhost::kTraceTextRoom);
  const auto misuses = host_.takeMisuses();
  ASSERT_EQ(misuses.size(), 1U);
  EXPECT_EQ(misuses[0].what,
            "the trace text of 100000 bytes is longer than the buffer of 8192 bytes");
}

TEST_F(HostTraceTest, AMissingBufferGivesAnEmptyText) {
  host_.keepRecords(true);
  host_.thread().pTraceBuf = nullptr;
  host_.trace().WriteRecord(MEM_COMPONENT, 0, "STDE", "source", "function", 1);
  EXPECT_EQ(host_.takeRecords().at(0).text, "");
}

}  // namespace
