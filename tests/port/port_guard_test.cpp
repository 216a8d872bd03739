// Faults inside the port string calls: wild addresses in what the caller passes. The call ends,
// everything that it opened is closed again, and the process goes on.

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "guardpages.hpp"
#include "heaptest.hpp"
#include "porttest.hpp"

#if defined(_WIN32)
#include <windows.h>
#else
#include <setjmp.h>
#include <signal.h>
#include <unistd.h>
#endif

namespace memtest {
namespace {

using refhost::Service;

// Page 0 can be used, page 1 faults.
class PortGuardTest : public PortTest {
 protected:
  PortGuardTest() : pages_(2) {
    pages_.forbid(1);
    test_ = this;
    own_ = mem;
    mem.MEM_HashOpen = [](HMEMHASH *hash, std::int16_t keyOff, std::int16_t keyLen,
                          std::int16_t max, MEMHashFunc function, std::int16_t areaLen,
                          std::uint16_t subPool) {
      ++test_->open_;
      return own_.MEM_HashOpen(hash, keyOff, keyLen, max, function, areaLen, subPool);
    };
    mem.MEM_HashClose = [](HMEMHASH hash) {
      --test_->open_;
      return own_.MEM_HashClose(hash);
    };
    mem.MEM_HeapOpen = [](HMEMHEAP *handle, std::int16_t areaLen, std::uint16_t subPool) {
      ++test_->open_;
      return own_.MEM_HeapOpen(handle, areaLen, subPool);
    };
    mem.MEM_HeapClose = [](HMEMHEAP handle) {
      --test_->open_;
      return own_.MEM_HeapClose(handle);
    };
  }
  ~PortGuardTest() override {
    host.restoreSlots();
    EXPECT_EQ(open_, 0);
  }

  // An address that faults, as any type of pointer.
  template <class T>
  T *wild() {
    return reinterpret_cast<T *>(pages_.page(1));
  }
  // The last `length` bytes before the fault.
  std::uint8_t *edge(std::size_t length) { return pages_.behind(0) - length; }

  static Defs list() {
    Defs defs;
    defs.add(1, 12, {Field(1, MEM_PORT_LONG, 4, 0), Field(2, MEM_PORT_PNT, 8, 4).of(1)});
    return defs;
  }

  void expectNextCallWorks() {
    Record record(12);
    record.set(0, std::int32_t{5});
    const Defs defs = list();
    EXPECT_EQ(written(defs, 1, record.data()), portString("(1<1N5/2S>)"));
    EXPECT_EQ(readChain(defs.table(), firstChunk), 0);
    EXPECT_EQ(readBlock(defs.table(), portString("(1<1N5/2S>)")), 0);
    EXPECT_EQ(readAt<std::int32_t>(0), 5);
  }

  // The call faults once, fails with this status, and leaves nothing open.
  void expectFault(const std::function<std::int16_t()> &call, std::int16_t status = -1) {
    const int openBefore = open_;
    host.resetCalls();
    EXPECT_EQ(call(), status);
    EXPECT_EQ(host.calls(Service::FilterException), 1U);
    EXPECT_EQ(host.calls(Service::ReportError), 0U);
    EXPECT_EQ(open_, openBefore) << "something is still open";
    EXPECT_EQ(host.takeMisuses().size(), 0U);
    EXPECT_EQ(messages(), Lines());
    expectNextCallWorks();
  }
  void expectWriteFaults(const Defs &defs, const void *root) {
    expectFault([&] { return write(defs.table(), 1, root, 50); });
    EXPECT_EQ(open_, 0);
  }
  void expectReadFaults(const Defs &defs, const std::string &text) {
    expectFault([&] { return readBlock(defs.table(), text); });
    expectFault([&] { return readChain(defs.table(), Chain::cut(text, 5).first()); });
  }

  GuardPages pages_;
  int open_ = 0;  // hash tables and heaps of the library

  inline static PortGuardTest *test_ = nullptr;
  inline static MEMFunctionVector own_;
};

// Writing.

TEST_F(PortGuardTest, WildPointersInFields) {
  for (const MEMFieldType type : {MEM_PORT_PNT, MEM_PORT_PSTR, MEM_PORT_WPSTR}) {
    SCOPED_TRACE(type);
    Defs defs;
    defs.add(1, 12, {Field(1, MEM_PORT_LONG, 4, 0), Field(2, type, 8, 4).of(1)});
    Record record(12);
    record.set(4, wild<void>());
    expectWriteFaults(defs, record.data());
    record.set(4, std::uint64_t{16});
    expectWriteFaults(defs, record.data());
  }
}

TEST_F(PortGuardTest, TextsWithoutEnd) {
  std::memset(edge(100), 'x', 100);
  for (const MEMFieldType type : {MEM_PORT_PSTR, MEM_PORT_WPSTR}) {
    Defs defs;
    defs.add(1, 8, {Field(1, type, 8, 0)});
    Record record(8);
    record.set(0, edge(100));
    expectWriteFaults(defs, record.data());
  }
}

// Where a text may end and nothing after it can be read, the text of the second structure as well.
TEST_F(PortGuardTest, TextsInFrontOfAFault) {
  Defs defs;
  defs.add(1, 16, {Field(1, MEM_PORT_PSTR, 8, 0), Field(2, MEM_PORT_PNT, 8, 8).of(1)});
  for (std::size_t length = 0; length <= 70; ++length) {
    for (std::size_t behind = 0; behind <= 70; ++behind) {
      std::uint8_t *text = edge(length + 1 + behind);
      std::memset(text, 'x', length);
      text[length] = 0;
      Record second(16);
      second.set(0, text);
      Record first(16);
      first.set(0, text).set(8, static_cast<const void *>(second.data()));
      ASSERT_EQ(written(defs, 1, first.data()), portmodel::write(defs.table(), 1, first.data()))
          << length << ", " << behind;
    }
  }
  EXPECT_EQ(host.calls(Service::FilterException), 0U);
}

TEST_F(PortGuardTest, TopLevelStructureThatEndsTooEarly) {
  expectWriteFaults(list(), wild<void>());
  expectWriteFaults(list(), edge(8));
  Defs defs;
  defs.add(1, 8, {Field(1, MEM_PORT_SHORT, 2, 0), Field(2, MEM_PORT_SHORT, 2, 2)}, 0);
  store(edge(8), 0, std::int16_t{4});
  expectWriteFaults(defs, edge(8));
}

TEST_F(PortGuardTest, TableThatLiesAboutLengthsWhileWriting) {
  for (const MEMFieldType type : {MEM_PORT_CHAR, MEM_PORT_BIN, MEM_PORT_WCHAR}) {
    SCOPED_TRACE(type);
    Defs defs;
    defs.add(1, 8, {Field(1, type, 100000, 0)});
    expectWriteFaults(defs, edge(8));
  }
  std::memset(edge(8), 'x', 8);
  for (const MEMFieldType type : {MEM_PORT_CHARSZ, MEM_PORT_WCHARSZ}) {
    Defs defs;
    defs.add(1, 8, {Field(1, type, 100000, 0)});
    expectWriteFaults(defs, edge(8));
  }
}

// A graph so large that the writer looks ahead in it. It must not show.
class PortAheadTest : public PortGuardTest {
 protected:
  static constexpr std::size_t kCount = 40000;
  static constexpr std::size_t kWild = 33000;
  static constexpr std::int32_t kLength = 28;

  // A tree, written level by level: structure i points to 2i + 1 and 2i + 2. Number kWild is wild.
  PortAheadTest() { makeTree(wild<const void>()); }
  void makeTree(const void *wildPlace) {
    wild_ = wildPlace;
    records_.clear();
    defs_ = Defs();
    defs_.add(1, kLength,
              {Field(1, MEM_PORT_LONG, 4, 0), Field(2, MEM_PORT_PNT, 8, 4).of(1),
               Field(3, MEM_PORT_PNT, 8, 12).of(1), Field(4, MEM_PORT_PSTR, 0, 20)});
    for (std::size_t i = 0; i < kCount; ++i) records_.emplace_back(std::size_t{kLength});
    for (std::size_t i = 0; i < kCount; ++i) {
      records_[i].set(0, static_cast<std::int32_t>(i)).set(4, at(2 * i + 1)).set(12, at(2 * i + 2));
    }
  }

  const void *at(std::size_t i) {
    if (i >= kCount) return nullptr;
    return i == kWild ? wild_ : records_[i].data();
  }
  static std::string reversed(std::size_t number) {
    std::string digits = number == 0 ? "" : std::to_string(number);
    std::reverse(digits.begin(), digits.end());
    return digits;
  }
  static std::string pointer(std::size_t i) { return i < kCount ? reversed(i + 1) : ""; }
  // The structure texts before number `end`.
  static std::string bodyUpTo(std::size_t end) {
    std::string body;
    for (std::size_t i = 0; i < end; ++i) {
      body +=
          "(1<1N" + reversed(i) + "/2S" + pointer(2 * i + 1) + "/3S" + pointer(2 * i + 2) + "/4X>)";
    }
    return body;
  }

  const void *wild_ = nullptr;
  Defs defs_;
  std::vector<Record> records_;
};

TEST_F(PortAheadTest, FaultComesInItsTurn) {
  static std::size_t inserts;
  inserts = 0;
  mem.MEM_HashInsEntry = [](HMEMHASH hash, std::int16_t length, const void *entry, void **stored) {
    ++inserts;
    return own_.MEM_HashInsEntry(hash, length, entry, stored);
  };
  expectFault([&] {
    const std::int16_t result = write(defs_.table(), 1, records_[0].data(), 1000);
    EXPECT_EQ(textOf(firstChunk), std::string(23, ' ') + bodyUpTo(kWild) + "(1<1N");
    EXPECT_EQ(inserts, 1 + kCount - 1) << "all but the last level have been met";
    return result;
  });
}

// What comes before a field's value is written before the field is read.
TEST_F(PortAheadTest, FaultInALaterField) {
  store(edge(4), 0, std::int32_t{305});
  makeTree(edge(4));
  expectFault([&] {
    const std::int16_t result = write(defs_.table(), 1, records_[0].data(), 1000);
    EXPECT_EQ(textOf(firstChunk), std::string(23, ' ') + bodyUpTo(kWild) + "(1<1N503/2");
    return result;
  });
  defs_.field(0, 1).Type = MEM_PORT_CHAR;
  defs_.field(0, 1).Length = 1;
  Record second(std::size_t{kLength});
  Record first(std::size_t{kLength});
  first.set(12, static_cast<const void *>(second.data()));
  second.set(12, static_cast<const void *>(edge(4)));
  expectFault([&] {
    const std::int16_t result = write(defs_.table(), 1, first.data(), 1000);
    EXPECT_EQ(textOf(firstChunk),
              std::string(23, ' ') + "(1<1N/2\"/0\"/3S2/4X>)(1<1N/2\"/0\"/3S3/4X>)(1<1N503/2\"");
    return result;
  });
}

TEST_F(PortAheadTest, FaultThatDoesNotComeToItsTurnIsNone) {
  static std::int32_t left;
  left = 1;
  mem.MEM_HeapAllocEntryLong = [](HMEMHEAP handle, std::int32_t length, void **entry) {
    if (length < 100000 || left-- > 0) return own_.MEM_HeapAllocEntryLong(handle, length, entry);
    return std::int16_t{-1};
  };
  host.resetCalls();
  const std::string body = bodyUpTo(kWild - 1) + "(1<";
  EXPECT_EQ(
      write(defs_.table(), 1, records_[0].data(), static_cast<std::int32_t>(23 + body.size())), -1);
  EXPECT_EQ(messages(), Lines{"Allocaton failed in MEM_CHAR2PORT!"});
  EXPECT_EQ(textOf(firstChunk), std::string(23, ' ') + body);
  EXPECT_EQ(host.calls(Service::FilterException), 0U);
}

// With the library's own table, whose index is looked into as well.
TEST_F(PortAheadTest, FaultIsMendedInItsTurn) {
  static GuardPages *pages;
  static std::string written;
  static MEMPortChunk **chunk;
  pages = &pages_;
  chunk = &firstChunk;
  mem.MEM_HashOpen = own_.MEM_HashOpen;
  mem.MEM_HashClose = own_.MEM_HashClose;
  mem.MEM_HeapOpen = own_.MEM_HeapOpen;
  mem.MEM_HeapClose = own_.MEM_HeapClose;
  host.text().FilterException = [](void *, MEMTraceFrame *) -> std::int32_t {
    pages->allow(1);
    written = textOf(*chunk);
    return -1;
  };
  pages_.allow(1);
  std::memcpy(pages_.page(1), records_[kWild].data(), kLength);
  pages_.forbid(1);
  EXPECT_EQ(write(defs_.table(), 1, records_[0].data(), 1000), 0);
  EXPECT_EQ(textOf(firstChunk), portString(bodyUpTo(kCount), kCount));
  EXPECT_EQ(written, std::string(23, ' ') + bodyUpTo(kWild) + "(1<1N");
}

TEST_F(PortGuardTest, WildTables) {
  Record record(12);
  const std::string text = portString("(1<1N5/2S>)");
  const auto *defs = wild<const MEMStructDef>();
  expectFault([&] { return write(defs, 1, record.data(), 0); });
  expectFault([&] { return readBlock(defs, text); });
  Defs wildFields = list();
  wildFields.row(0).Fields = wild<const MEMFieldDef>();
  expectWriteFaults(wildFields, record.data());
  expectReadFaults(wildFields, text);
}

TEST_F(PortGuardTest, TableWithMoreFieldsThanThereAre) {
  Defs defs = list();
  MEMFieldDef field = defs.field(0, 0);
  auto *fields = reinterpret_cast<MEMFieldDef *>(edge(2 * sizeof field));
  std::memcpy(static_cast<void *>(fields), &field, sizeof field);
  std::memcpy(static_cast<void *>(fields + 1), &field, sizeof field);
  defs.row(0).Fields = fields;
  defs.row(0).FieldCount = 3;
  const Record record(12);
  expectWriteFaults(defs, record.data());
  expectReadFaults(defs, portString("(1<9N5>)"));
}

TEST_F(PortGuardTest, WildResultCells) {
  const Record record(12);
  const Defs defs = list();
  expectFault([&] {
    return mem.MEM_StructToPortStr(defs.table(), 1, record.data(), 0, heap, wild<std::uint32_t>(),
                                   &firstChunk);
  });
  expectFault([&] {
    return mem.MEM_StructToPortStr(defs.table(), 1, record.data(), 0, heap, &totalLen,
                                   wild<MEMPortChunk *>());
  });
  const std::string text = portString("(1<1N5/2S>)");
  expectFault([&] {
    return mem.MEM_Port1StrToStruct(defs.table(), text.data(),
                                    static_cast<std::uint32_t>(text.size()), heap, wild<void *>());
  });
}

// A handle that cannot be read is found out before a heap's service is entered.
class PortHandleTest : public PortGuardTest {
 protected:
  ~PortHandleTest() override { heap = own_; }

  // Writes and reads with another handle than the fixture's own.
  std::int16_t writeWith(const void *handle, std::int32_t capacity) {
    const Record record(12);
    heap = asHandle(handle);
    const std::int16_t result = write(list().table(), 1, record.data(), capacity);
    heap = own_;
    return result;
  }
  std::int16_t readWith(const void *handle) {
    heap = asHandle(handle);
    const std::int16_t result = readBlock(list().table(), portString("(1<1N5/2S>)"));
    heap = own_;
    return result;
  }

  void expectFoundOut(const void *handle) {
    entered_ = 0;
    mem.MEM_HeapAllocEntryLong = [](HMEMHEAP called, std::int32_t length, void **entry) {
      entered_ += called == found_ ? 1 : 0;
      return PortGuardTest::own_.MEM_HeapAllocEntryLong(called, length, entry);
    };
    found_ = asHandle(handle);
    for (const std::int32_t capacity : {0, 50}) {
      expectFault([&] { return leavingAllFrames([&] { return writeWith(handle, capacity); }); });
    }
    expectFault([&] { return leavingAllFrames([&] { return readWith(handle); }); });
    EXPECT_EQ(entered_, 0);
    EXPECT_EQ(host.heldGateCount(), 0U);
  }

 private:
  static HMEMHEAP asHandle(const void *handle) {
    return reinterpret_cast<HMEMHEAP>(const_cast<void *>(handle));
  }
  template <class Call>
  std::int16_t leavingAllFrames(Call call) {
    const std::uint64_t before = host.calls(Service::EnterFrame) - host.calls(Service::LeaveFrame);
    const std::int16_t result = call();
    EXPECT_EQ(host.calls(Service::EnterFrame) - host.calls(Service::LeaveFrame), before);
    return result;
  }

  const HMEMHEAP own_ = heap;
  inline static int entered_;
  inline static HMEMHEAP found_;
};

TEST_F(PortHandleTest, WildHandle) {
  expectFoundOut(wild<void>());
}

TEST_F(PortHandleTest, HeaderThatCannotBeReadWhole) {
  HMEMHEAP enhanced = nullptr;
  ASSERT_EQ(mem.MEM_EHeapOpen(&enhanced, 1, 0), 0);
  for (const std::size_t length : {8U, 24U, 48U}) {
    std::memcpy(edge(length), heap, length);
    expectFoundOut(edge(length));
  }
  for (const std::size_t length : {8U, 56U}) {
    std::memcpy(edge(length), enhanced, length);
    expectFoundOut(edge(length));
  }
  EXPECT_EQ(mem.MEM_EHeapClose(enhanced), 0);
}

// Of what is no heap only the eye-catcher is read. The heap's service refuses it.
TEST_F(PortHandleTest, ReadableHandleOfNoHeap) {
  std::memcpy(edge(8), "QQQHEAPN", 8);
  host.resetCalls();
  for (const void *handle :
       {static_cast<const void *>(edge(8)), static_cast<const void *>(nullptr)}) {
    for (const std::int32_t capacity : {0, 50}) EXPECT_EQ(writeWith(handle, capacity), -1);
    EXPECT_EQ(readWith(handle), -1);
    EXPECT_EQ(error().Code, MEMERR_HEAPBHDL);
  }
  EXPECT_EQ(host.calls(Service::FilterException), 0U);
}

// Reading.

TEST_F(PortGuardTest, UnreadableChunks) {
  const Defs defs = list();
  expectFault([&] { return readChain(defs.table(), wild<const MEMPortChunk>()); });
  Chain chain;
  chain.add(portString("(1<1N5/2"));
  const auto *next = wild<const MEMPortChunk>();
  std::memcpy(const_cast<MEMPortChunk *>(chain.first()), &next, sizeof next);
  expectFault([&] { return readChain(defs.table(), chain.first()); });
}

// Nor does a chain without end keep the reader from its own end.
TEST_F(PortGuardTest, ChunksAfterTheEndOfTheTextAreNotRead) {
  const Defs defs = list();
  Chain chain;
  chain.add(portString("(1<1N5>)"));
  for (const MEMPortChunk *next : {wild<const MEMPortChunk>(), chain.first()}) {
    std::memcpy(const_cast<MEMPortChunk *>(chain.first()), &next, sizeof next);
    EXPECT_EQ(readChain(defs.table(), chain.first()), 0);
  }
}

TEST_F(PortGuardTest, ChunkShorterThanItsUsedLength) {
  const std::string text = portString("(1<1N5/2");
  std::uint8_t *chunk = edge(12 + text.size());
  store(chunk, 0, std::uint64_t{0});
  store(chunk, 8, INT32_MAX);
  std::memcpy(chunk + 12, text.data(), text.size());
  const Defs defs = list();
  expectFault(
      [&] { return readChain(defs.table(), reinterpret_cast<const MEMPortChunk *>(chunk)); });
  expectFault([&] {
    return mem.MEM_Port1StrToStruct(defs.table(), reinterpret_cast<const char *>(chunk + 12),
                                    UINT32_MAX, heap, &read);
  });
}

TEST_F(PortGuardTest, WildDefaults) {
  const std::string text = portString("(1<1N5>)");
  for (const MEMFieldType type : {MEM_PORT_CHAR, MEM_PORT_CHARSZ, MEM_PORT_BIN, MEM_PORT_WCHARSZ}) {
    SCOPED_TRACE(type);
    Defs defs;
    defs.add(1, 16,
             {Field(1, MEM_PORT_LONG, 4, 0), Field(2, type, 12, 4).byDefault(wild<const void>())});
    expectReadFaults(defs, text);
  }
}

// The host's filter.

class PortFilterTest : public PortGuardTest {
 protected:
  std::int16_t faultingWrite() {
    Record record(12);
    record.set(4, wild<void>());
    return write(list().table(), 1, record.data(), 50);
  }
  std::int16_t faultingRead() { return readChain(list().table(), wild<const MEMPortChunk>()); }
};

TEST_F(PortFilterTest, SeesTheExceptionAndTheCallsFrame) {
  static void *exception;
  static MEMTraceFrame *frame;
  static std::string name;
  static MEMThreadEnv *thread;
  thread = &env();
  host.text().FilterException = [](void *seen, MEMTraceFrame *pFrame) -> std::int32_t {
    exception = seen;
    frame = pFrame;
    name = pFrame->pName;
    EXPECT_EQ(pFrame->pThreadEnv, thread);
    return 1;
  };
  EXPECT_EQ(faultingWrite(), -1);
  EXPECT_NE(exception, nullptr);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(name, "MEM_StructToPortStr");
}

TEST_F(PortFilterTest, StoredResultBecomesTheCalls) {
  for (const int stored : {1, 0x1234, 0xFFFF}) {
    const auto result = static_cast<std::uint16_t>(stored);
    host.setFilterAnswer(1, result);
    expectFault([&] { return faultingWrite(); }, static_cast<std::int16_t>(result));
    expectFault([&] { return faultingRead(); }, static_cast<std::int16_t>(result));
  }
  host.setFilterAnswer(1, 0);
  expectFault([&] { return faultingWrite(); });
}

TEST_F(PortFilterTest, NullSlotEndsTheCall) {
  host.text().FilterException = nullptr;
  EXPECT_EQ(faultingWrite(), -1);
  EXPECT_EQ(faultingRead(), -1);
  expectNextCallWorks();
}

// The filter makes the page readable, and the call goes on as if nothing had been.
TEST_F(PortFilterTest, MendedFaultGoesOn) {
  static GuardPages *pages;
  static int times;
  pages = &pages_;
  times = 0;
  host.text().FilterException = [](void *, MEMTraceFrame *) -> std::int32_t {
    ++times;
    pages->allow(1);
    return -1;
  };
  Record record(12);
  record.set(0, std::int32_t{5}).set(4, wild<void>());
  pages_.allow(1);
  store(pages_.page(1), 0, std::int32_t{6});
  pages_.forbid(1);
  EXPECT_EQ(written(list(), 1, record.data(), 50), portString("(1<1N5/2S2>)(1<1N6/2S>)", 2));
  EXPECT_EQ(times, 1);
  EXPECT_EQ(open_, 0);

  pages_.allow(1);
  const std::string text = portString("(1<1N5/2S>)");
  std::memcpy(pages_.page(1), text.data(), text.size());
  pages_.forbid(1);
  EXPECT_EQ(mem.MEM_Port1StrToStruct(list().table(), wild<const char>(),
                                     static_cast<std::uint32_t>(text.size()), heap, &read),
            0);
  EXPECT_EQ(readAt<std::int32_t>(0), 5);
  EXPECT_EQ(times, 2);
  expectNextCallWorks();
}

// One call may fault and be mended again and again, and end at last.
TEST_F(PortFilterTest, EachFaultOfACallIsShown) {
  static GuardPages *pages;
  static std::size_t times;
  GuardPages several(4);
  pages = &several;
  times = 0;
  host.text().FilterException = [](void *, MEMTraceFrame *) -> std::int32_t {
    if (++times == 4) return 1;
    pages->allow(times - 1);
    return -1;
  };
  for (std::size_t i = 0; i < 4; ++i) {
    store(several.page(i), 4, static_cast<const void *>(several.page((i + 1) % 4)));
    several.forbid(i);
  }
  EXPECT_EQ(write(list().table(), 1, several.page(0), 50), -1);
  EXPECT_EQ(times, 4U);
  EXPECT_EQ(open_, 0);
}

// What the process does with a fault that is not the library's.
constexpr int kExitOfHandler = 77;

void leaveFromHandler() {
#if defined(_WIN32)
  SetUnhandledExceptionFilter([](EXCEPTION_POINTERS *) -> LONG {
    TerminateProcess(GetCurrentProcess(), kExitOfHandler);
    return 0;
  });
#else
  signal(SIGSEGV, [](int) { _exit(kExitOfHandler); });
#endif
}

using PortFilterDeathTest = PortFilterTest;

TEST_F(PortFilterDeathTest, FaultThatIsNotOursGoesToTheProcess) {
  host.setFilterAnswer(0);
  EXPECT_EXIT(
      {
        leaveFromHandler();
        faultingWrite();
      },
      ::testing::ExitedWithCode(kExitOfHandler), "");
  EXPECT_EXIT(
      {
        leaveFromHandler();
        faultingRead();
      },
      ::testing::ExitedWithCode(kExitOfHandler), "");
}

#if defined(_WIN32)

// A function of its own: nothing in it has a destructor.
bool catchesFault(const std::function<void()> &call) {
  __try {
    call();
  } __except (EXCEPTION_EXECUTE_HANDLER) {
    return true;
  }
  return false;
}

// The host unwinds the call itself: what the call has opened is closed on the way.
TEST_F(PortFilterTest, FaultThatIsCaughtAroundTheCall) {
  const Defs defs = list();
  Record record(12);
  record.set(4, wild<void>());
  Defs wildFields = list();
  wildFields.row(0).Fields = wild<const MEMFieldDef>();
  host.setFilterAnswer(0);
  host.resetCalls();
  EXPECT_TRUE(catchesFault([&] { write(defs.table(), 1, record.data(), 50); }));
  EXPECT_EQ(open_, 0);
  EXPECT_TRUE(catchesFault([&] { readChain(defs.table(), wild<const MEMPortChunk>()); }));
  EXPECT_TRUE(catchesFault([&] { readBlock(wildFields.table(), portString("(1<1N5/2S>)")); }));
  EXPECT_EQ(open_, 0);
  EXPECT_EQ(host.calls(Service::FilterException), 3U);
  EXPECT_EQ(host.calls(Service::EnterFrame), host.calls(Service::LeaveFrame));
  EXPECT_EQ(host.takeMisuses().size(), 0U);
  host.setFilterAnswer(1);
  expectFault([&] { return faultingWrite(); });
}

#else

TEST_F(PortFilterDeathTest, FaultThatIsNotOursEndsAProcessWithoutHandler) {
  host.setFilterAnswer(0);
  EXPECT_EXIT(
      {
        signal(SIGSEGV, SIG_DFL);
        faultingWrite();
      },
      ::testing::KilledBySignal(SIGSEGV), "");
}

// The process's own signal handlers.

constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};

class PortSignalTest : public PortGuardTest {
 protected:
  PortSignalTest() {
    for (std::size_t i = 0; i < 4; ++i) sigaction(kSignals[i], nullptr, &before_[i]);
  }
  ~PortSignalTest() override {
    for (std::size_t i = 0; i < 4; ++i) sigaction(kSignals[i], &before_[i], nullptr);
  }

  struct Handler {
    void *address;
    int flags;
    bool operator==(const Handler &) const = default;
  };
  static Handler current(int signal) {
    struct sigaction now;
    sigaction(signal, nullptr, &now);
    return {reinterpret_cast<void *>(now.sa_sigaction), now.sa_flags};
  }

  // A handler that goes back to where `recovery` was set on its thread.
  static void install() {
    struct sigaction ours {};
    ours.sa_sigaction = [](int, siginfo_t *info, void *) {
      faultAddress = info->si_addr;
      siglongjmp(recovery, 1);
    };
    ours.sa_flags = SA_SIGINFO | SA_NODEFER;
    sigemptyset(&ours.sa_mask);
    sigaction(SIGSEGV, &ours, nullptr);
  }
  // Faults and comes back through that handler.
  static bool recovers(volatile std::uint8_t *address) {
    faultAddress = nullptr;
    if (sigsetjmp(recovery, 1) == 0) {
      *address = 1;
      return false;
    }
    return faultAddress == address;
  }

  // Runs `during` inside a writing call, on its thread, before `target` is met.
  std::int16_t writeAnd(std::function<void()> during, const void *target = nullptr) {
    static std::function<void()> run;
    static MEM_HeapAllocEntryLongFn *own;
    run = std::move(during);
    own = mem.MEM_HeapAllocEntryLong;
    mem.MEM_HeapAllocEntryLong = [](HMEMHEAP handle, std::int32_t length, void **entry) {
      run();
      return own(handle, length, entry);
    };
    Record record(12);
    record.set(4, target);
    const std::int16_t result = write(list().table(), 1, record.data(), 1000);
    mem.MEM_HeapAllocEntryLong = own;
    return result;
  }

  inline static thread_local sigjmp_buf recovery;
  inline static thread_local void *volatile faultAddress = nullptr;

 private:
  struct sigaction before_[4];
};

TEST_F(PortSignalTest, HandlersAreTheProcesssOwnBeforeAndAfter) {
  install();
  Handler before[4];
  for (std::size_t i = 0; i < 4; ++i) before[i] = current(kSignals[i]);
  Record record(12);
  record.set(4, wild<void>());
  const auto expectUnchanged = [&] {
    for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(current(kSignals[i]), before[i]) << kSignals[i];
    EXPECT_TRUE(recovers(pages_.page(1)));
  };
  expectUnchanged();
  EXPECT_EQ(write(list().table(), 1, record.data(), 0), -1);
  expectUnchanged();
  EXPECT_EQ(readBlock(list().table(), portString("(1<1N5/2S>)")), 0);
  expectUnchanged();
  EXPECT_EQ(readBlock(list().table(), portString("(1<1N")), -1);
  expectUnchanged();
}

TEST_F(PortSignalTest, OtherThreadsFaultIntoTheirOwnHandlerDuringACall) {
  install();
  int recovered = 0;
  EXPECT_EQ(writeAnd([&] {
              std::thread other([&] {
                for (int i = 0; i < 3; ++i) recovered += recovers(pages_.page(1)) ? 1 : 0;
              });
              other.join();
            }),
            0);
  EXPECT_GE(recovered, 3);
  EXPECT_EQ(host.calls(Service::FilterException), 0U);
}

TEST_F(PortSignalTest, HandlerInstalledDuringACallStays) {
  EXPECT_EQ(writeAnd([] { install(); }), 0);
  EXPECT_TRUE(recovers(pages_.page(1)));
}

// A handler of the process may run before the library's, with signals blocked.
TEST_F(PortSignalTest, SignalMaskIsAsBeforeAfterAFault) {
  static struct sigaction librarys;
  bool isInFront = false;
  const auto standInFront = [&isInFront] {
    if (std::exchange(isInFront, true)) return;
    struct sigaction ours {};
    ours.sa_sigaction = [](int signal, siginfo_t *info, void *machine) {
      librarys.sa_sigaction(signal, info, machine);
    };
    ours.sa_flags = SA_SIGINFO;
    sigfillset(&ours.sa_mask);
    sigaction(SIGSEGV, &ours, &librarys);
  };
  EXPECT_EQ(writeAnd(standInFront, wild<void>()), -1);
  sigset_t blocked;
  pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  for (const int signal : kSignals) EXPECT_EQ(sigismember(&blocked, signal), 0) << signal;
}

// Calls that are left by a jump. Each in a process of its own, where their frames stay entered.

class PortJumpTest : public PortSignalTest {
 protected:
  template <class Body>
  void inChild(Body body) {
    EXPECT_EXIT(
        {
          install();
          for (std::size_t i = 0; i < 4; ++i) processs_[i] = current(kSignals[i]);
          body();
          _exit(HasFailure() ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), "");
  }
  void expectNothingInstalled() {
    for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(current(kSignals[i]), processs_[i]);
    EXPECT_TRUE(recovers(pages_.page(1)));
  }
  template <class Call>
  static bool jumpsOut(Call call) {
    if (sigsetjmp(recovery, 1) != 0) return true;
    call();
    return false;
  }
  void faultingWrite() {
    Record record(12);
    record.set(4, wild<void>());
    write(list().table(), 1, record.data(), 50);
  }
  void faultingRead() { readChain(list().table(), wild<const MEMPortChunk>()); }

 private:
  Handler processs_[4];
};

TEST_F(PortJumpTest, FromADeclinedFault) {
  inChild([&] {
    host.setFilterAnswer(0);
    host.resetCalls();
    for (int round = 0; round < 3; ++round) {
      EXPECT_TRUE(jumpsOut([&] { faultingWrite(); }));
      expectNothingInstalled();
      EXPECT_TRUE(jumpsOut([&] { faultingRead(); }));
      expectNothingInstalled();
    }
    EXPECT_EQ(host.calls(Service::FilterException), 6U);
    host.setFilterAnswer(1);
    faultingWrite();
    expectNothingInstalled();
    expectNextCallWorks();
  });
}

// Then the library is unbound and might be unloaded.
TEST_F(PortJumpTest, FromTheFilter) {
  inChild([&] {
    host.text().FilterException = [](void *, MEMTraceFrame *) -> std::int32_t {
      siglongjmp(recovery, 1);
    };
    EXPECT_TRUE(jumpsOut([&] { faultingWrite(); }));
    expectNothingInstalled();
    EXPECT_TRUE(jumpsOut([&] { faultingRead(); }));
    host.unbind(library().bindEntry());
    expectNothingInstalled();
  });
}

// Out of a service of the host's. Unbinding takes away what is left, whichever thread has left it.
TEST_F(PortJumpTest, FromAServiceOfTheHosts) {
  inChild([&] {
    const auto leave = [&] { writeAnd([] { siglongjmp(recovery, 1); }); };
    EXPECT_TRUE(jumpsOut(leave));
    std::thread other([&] { jumpsOut(leave); });
    other.join();
    EXPECT_TRUE(recovers(pages_.page(1)));
    host.unbind(library().bindEntry());
    expectNothingInstalled();
  });
}

TEST_F(PortJumpTest, SentSignalIsNoFaultOfTheCall) {
  inChild([&] {
    signal(SIGSEGV, SIG_IGN);
    host.resetCalls();
    EXPECT_EQ(writeAnd([] { raise(SIGSEGV); }), 0);
    EXPECT_EQ(host.calls(Service::FilterException), 0U);
  });
}

#endif

// Several threads at once, each on its own heap.

TEST_F(PortGuardTest, ThreadsFaultIndependently) {
  host.restoreSlots();  // the counters of this fixture are for one thread
  host.keepRecords(false);
  constexpr int kThreads = 4;
  constexpr int kRounds = 50;
  const Defs defs = list();
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      const auto check = [&](bool isRight) { wrong += isRight ? 0 : 1; };
      check(mem.MEM_ThreadAct() == 0);
      HMEMHEAP own = nullptr;
      check(mem.MEM_HeapOpen(&own, 4, 0) == 0);
      Record good(12);
      good.set(0, i);
      Record bad(12);
      bad.set(4, wild<void>());
      for (int round = 0; round < kRounds; ++round) {
        std::uint32_t length = 0;
        MEMPortChunk *chunk = nullptr;
        void *copy = nullptr;
        check(mem.MEM_StructToPortStr(defs.table(), 1, bad.data(), 50, own, &length, &chunk) == -1);
        check(mem.MEM_StructToPortStr(defs.table(), 1, good.data(), 50, own, &length, &chunk) == 0);
        check(mem.MEM_PortStrToStruct(defs.table(), wild<const MEMPortChunk>(), own, &copy) == -1);
        check(mem.MEM_PortStrToStruct(defs.table(), chunk, own, &copy) == 0);
        check(load<std::int32_t>(copy, 0) == i);
      }
      check(mem.MEM_HeapClose(own) == 0);
      check(mem.MEM_ThreadTerm() == 0);
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace memtest
