// Every call of the host's storage service failing in turn, while writing and while reading.

#include <string>

#include "portgraph.hpp"
#include "porttest.hpp"

namespace memtest {
namespace {

using refhost::Service;

// Messages with which a call ends that got no storage. The writer may add the field it was at, the
// reader the field and those around it.
bool isStorageMessage(const std::string &message) {
  constexpr const char *kKnown[] = {"Allocation Failure!", "Allocaton failed in MEM_CHAR2PORT!",
                                    "Pointer to string field allocation failed!",
                                    "Field conversion failed!", "Failed port of FieldID "};
  return std::any_of(std::begin(kKnown), std::end(kKnown),
                     [&](const char *known) { return message.rfind(known, 0) == 0; });
}

// The caller's heap has 1 KB areas, so that storage is asked for again and again.
class PortFaultTest : public PortTest {
 protected:
  PortFaultTest() {
    closeHeap();
    defs_.add(1, 48,
              {Field(1, MEM_PORT_LONG, 4, 0), Field(2, MEM_PORT_PNT, 8, 4).of(1),
               Field(3, MEM_PORT_PNT, 8, 12).of(1), Field(4, MEM_PORT_PSTR, 8, 20),
               Field(5, MEM_PORT_WPSTR, 8, 28), Field(6, MEM_PORT_CHAR, 12, 36)});
    for (int i = 0; i < 60; ++i) records_.emplace_back(48U, static_cast<std::uint8_t>('a'));
    for (std::size_t i = 0; i < records_.size(); ++i) {
      const void *next = i + 1 < records_.size() ? records_[i + 1].data() : nullptr;
      const void *back = records_[i / 2].data();
      records_[i].set(0, static_cast<std::int32_t>(i)).set(4, next).set(12, back);
      records_[i].set(20, narrow_.c_str()).set(28, wide_.c_str());
    }
    text_ = portmodel::write(defs_.table(), 1, records_[0].data());
  }

  // One attempt on a heap of its own. What a failed call leaves in the caller's heap goes with it.
  template <class Call>
  void attempt(Call call) {
    HMEMHEAP made = nullptr;
    // The heap itself is the caller's affair: its first area may be the one that is refused.
    if (mem.MEM_HeapOpen(&made, 1, kSubPool) != 0) return;
    heap = made;
    const std::uint64_t firedBefore = host.faultsFired();
    const std::int16_t result = call();
    const bool failed = host.faultsFired() != firedBefore;
    EXPECT_EQ(result, failed ? -1 : 0);
    for (const std::string &message : messages()) {
      EXPECT_TRUE(failed && isStorageMessage(message)) << message;
    }
    host.disarm();
    if (failed) {
      EXPECT_EQ(error().ReturnCode, kFailedCode);
      EXPECT_NE(error().Code, 0U) << "the error of the heap or the hash table remains";
    }
    returnRegistry();
    EXPECT_EQ(host.account().liveBytes - host.account(kSubPool).liveBytes, outside_)
        << "nothing but the caller's heap may have grown";
    closeHeap();
  }

  // A hash table whose heap could not be opened leaves its control block to the host.
  void returnRegistry() {
    constexpr std::uint32_t kControlBlockLen = 16040;
    for (const refhost::Leak &leak : host.leaks()) {
      if (leak.length == kControlBlockLen) {
        mem.MEM_Free(leak.area, kControlBlockLen, static_cast<std::int16_t>(leak.subPool));
      }
    }
  }

  void SetUp() override { outside_ = host.account().liveBytes; }

  Defs defs_;
  std::vector<Record> records_;
  std::string narrow_ = "a text of some length, so that areas are used up";
  std::u16string wide_ = u"another one \xE9\xD83D\xDE00";
  std::string text_;
  std::uint64_t outside_ = 0;  // bytes of the process and the thread
};

TEST_F(PortFaultTest, WritingFailsCleanly) {
  for (const std::int32_t capacity : {23, 200, 0}) {
    const std::uint64_t calls = sweepFaults(host, faultOf(Service::GetStorage), [&](std::uint64_t) {
      attempt([&] {
        const std::int16_t result = write(defs_.table(), 1, records_[0].data(), capacity);
        if (result == 0) {
          EXPECT_EQ(textOf(firstChunk), text_);
        } else {
          EXPECT_EQ(totalLen, 0U);
        }
        return result;
      });
    });
    EXPECT_GT(calls, 5U);
  }
}

// Wide text is collected in pieces; each of them may find no new chunk.
TEST_F(PortFaultTest, WritingALongTextFailsCleanly) {
  Defs defs;
  defs.add(1, 8, {Field(1, MEM_PORT_WPSTR, 8, 0)});
  const std::u16string text(2000, u'w');
  Record record(8U);
  record.set(0, text.c_str());
  const std::string written = portmodel::write(defs.table(), 1, record.data());
  const std::uint64_t calls = sweepFaults(host, faultOf(Service::GetStorage), [&](std::uint64_t) {
    attempt([&] {
      const std::int16_t result = write(defs.table(), 1, record.data(), 100);
      EXPECT_EQ(result == 0 ? textOf(firstChunk) : written, written);
      return result;
    });
  });
  EXPECT_GT(calls, 4U);
}

TEST_F(PortFaultTest, ReadingFailsCleanly) {
  const Chain chain = Chain::cut(text_, 100);
  const std::uint64_t ofChain = sweepFaults(host, faultOf(Service::GetStorage), [&](std::uint64_t) {
    attempt([&] {
      const std::int16_t result = readChain(defs_.table(), chain.first());
      if (result == 0) {
        EXPECT_EQ(portmodel::difference(defs_.table(), 1, records_[0].data(), read), "");
      }
      return result;
    });
  });
  EXPECT_GT(ofChain, 5U);
  const std::uint64_t ofBlock = sweepFaults(host, faultOf(Service::GetStorage), [&](std::uint64_t) {
    attempt([&] { return readBlock(defs_.table(), text_); });
  });
  EXPECT_EQ(ofBlock, ofChain);
}

// Structures over all forms of text, numbers and structures that a port string has.
class PortPlaceTest : public PortFaultTest {
 protected:
  PortPlaceTest() {
    all_.add(10, 100,
             {Field(1, MEM_PORT_LONG, 4, 0), Field(2, MEM_PORT_BIGINT, 8, 4),
              Field(3, MEM_PORT_CHAR, 4, 12), Field(4, MEM_PORT_CHARSZ, 6, 16),
              Field(5, MEM_PORT_BIN, 5, 22), Field(6, MEM_PORT_BIT, 1, 27),
              Field(7, MEM_PORT_WCHAR, 8, 28), Field(8, MEM_PORT_WCHARSZ, 10, 36),
              Field(9, MEM_PORT_PSTR, 8, 46), Field(10, MEM_PORT_WPSTR, 8, 54),
              Field(11, MEM_PORT_PSTR, 8, 62), Field(12, MEM_PORT_PNT, 8, 70).of(10),
              Field(13, MEM_PORT_USHORT, 2, 78), Field(14, MEM_PORT_SUBSTRUCTURE, 4, 80).of(11)},
             12);
    all_.add(11, 4, {Field(1, MEM_PORT_SHORT, 2, 0), Field(2, MEM_PORT_USHORT, 2, 2)});
    record_.set(0, std::int32_t{-123456789}).set(4, std::int64_t{-5}).setBytes(12, "a\"/", 4);
    record_.setBytes(16, "text", 5).setBytes(22, "\x00\x01\xFE\x80\x7F", 5);
    record_.set(27, std::uint8_t{5}).setBytes(28, u"w\xD83D\xDE00\x4E00", 8);
    record_.setBytes(36, u"w\"/\xFFFF", 10).set(46, shortText_.c_str()).set(54, shortWide_.c_str());
    record_.set(70, record_.data()).set(78, std::uint16_t{3});
    allText_ = portmodel::write(all_.table(), 10, record_.data());
  }

  Defs all_;
  Record record_{100U};
  const std::string shortText_ = "quoted \" and / and \x01";
  const std::u16string shortWide_ = u"\xE9\"\xD83D\xDE00/\xD800";
  std::string allText_;
};

// A chunk of this many characters takes an area of the heap for itself, so that the character
// after it needs storage. Each character of the text is that one for some capacity.
TEST_F(PortPlaceTest, EveryCharacterMayFindNoNewChunk) {
  constexpr std::size_t kFewest = 500;  // half of an area and more
  std::vector<Record> chain;
  constexpr std::size_t kCount = 6;
  for (std::size_t i = 0; i < kCount; ++i) {
    chain.emplace_back(100U);
    chain.back().setBytes(0, record_.data(), record_.size());
  }
  for (std::size_t i = 0; i < kCount; ++i) chain[i].set(70, chain[(i + 1) % kCount].data());
  const std::string text = portmodel::write(all_.table(), 10, chain[0].data());
  const std::size_t each = allText_.size() - MEM_PORT_HEADER_LEN;
  ASSERT_GT(text.size(), kFewest + each);
  for (std::size_t capacity = kFewest; capacity < kFewest + each; ++capacity) {
    SCOPED_TRACE("capacity " + std::to_string(capacity));
    refhost::Fault fault = faultOf(Service::GetStorage);
    fault.nth = 3;  // after the registry and its heap; the first chunk has room in the first area
    const std::uint64_t firedBefore = host.faultsFired();
    attempt([&] {
      host.arm(fault);
      return write(all_.table(), 10, chain[0].data(), static_cast<std::int32_t>(capacity));
    });
    EXPECT_EQ(host.faultsFired(), firedBefore + 1);
    if (HasFailure()) return;
  }
}

// A text that ends anywhere is refused where it ends, in one piece and in chunks.
TEST_F(PortPlaceTest, EveryCutIsRefused) {
  attempt([&] { return readBlock(all_.table(), allText_); });
  for (std::size_t length = 0; length < allText_.size(); ++length) {
    SCOPED_TRACE("cut after " + std::to_string(length));
    const std::string text = allText_.substr(0, length);
    renewHeap();
    EXPECT_EQ(readBlock(all_.table(), text), kFailed);
    EXPECT_FALSE(messages().empty());
    const Chain chain = Chain::cut(text, 7);
    if (chain.first() == nullptr) continue;
    EXPECT_EQ(readChain(all_.table(), chain.first()), kFailed);
    EXPECT_FALSE(messages().empty());
  }
  closeHeap();
}

}  // namespace
}  // namespace memtest
