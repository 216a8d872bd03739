// MEM_Pack with the host's services and the hash table's slots failing in turn, at every call.

#include <algorithm>

#include "packgraph.hpp"
#include "packtest.hpp"
#include "packwatch.hpp"

namespace memtest {
namespace {

using refhost::Service;

constexpr std::uint32_t kHashTableLen = 1072;  // control block of a hash table for addresses
constexpr std::uint32_t kHashAreaLen = 4096;   // one area of its heap
constexpr std::uint32_t kHostError = 4711;     // left by a failing host service

class PackFaultTest : public PackTest {
 protected:
  static constexpr std::int32_t kBlockLen = 1300;
  static constexpr std::size_t kSegments = 180;  // more than two areas of the hash table's heap

  // A sibling chain with texts of both kinds and references all over.
  PackFaultTest() {
    std::vector<std::uint8_t *> chain;
    for (std::size_t i = 0; i < kSegments; ++i) chain.push_back(items.make(32));
    for (std::size_t i = 0; i < kSegments; ++i) {
      if (i + 1 < kSegments) putPointer(chain[i], 0, chain[i + 1]);
      putPointer(chain[i], 8, items.text("narrow"));
      if (i % 20 == 0) putPointer(chain[i], 16, items.wide(std::u16string(200, u'w')));
      putPointer(chain[i], 24, chain[i * 7 % kSegments]);
    }
    root = chain[0];
    expected = packmodel::pack(controlBlock.get(), root, kBlockLen).blocks;
  }

  std::int16_t run() { return pack(controlBlock, root, kBlockLen); }

  // A hash table whose heap could not be opened keeps its control block; the host sees to that.
  void returnHashTable() {
    for (const refhost::Leak &leak : host.leaks()) {
      if (leak.subPool == 0 && leak.length == kHashTableLen) {
        host.runtime().FreeStorage(leak.area, kHashTableLen, 0);
      }
    }
  }

  // Nothing is left but the chain, the chain can be returned, and the next call does its work.
  void expectUsable() {
    host.disarm();
    freeChain();
    EXPECT_EQ(host.account(0).liveCount, 0U) << host.leakReport();
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(blockDifference(blocks(), expected), "");
    freeChain();
  }

  // Lengths of all storage that a call asks for, in order.
  std::vector<std::uint32_t> requests() {
    host.recordCalls(true);
    EXPECT_EQ(run(), 0);
    host.recordCalls(false);
    std::vector<std::uint32_t> lengths;
    for (const refhost::HostCall &call : host.takeCalls()) {
      if (call.service == Service::GetStorage) {
        lengths.push_back(static_cast<std::uint32_t>(call.args[1]));
      }
    }
    return lengths;
  }

  void expectOutcome(std::int16_t result, std::uint32_t code, const std::string &name) {
    const bool isPackers = code == MEMERR_PACKAMEM;
    EXPECT_EQ(result, isPackers ? static_cast<std::int16_t>(code) : kFailed);
    EXPECT_EQ(error().Code, code);
    EXPECT_EQ(error().ReturnCode, kFailedCode);
    EXPECT_EQ(nameText(), name);
    EXPECT_EQ(host.calls(Service::ReportError), 1U);
    EXPECT_EQ(host.lastReportedText(), name);
  }

  // What the n-th of these requests leads to when it fails.
  void expectOutcomeOf(const std::vector<std::uint32_t> &lengths, std::size_t nth,
                       std::int16_t result) {
    const std::uint32_t length = lengths[nth - 1];
    const auto before = lengths.begin() + static_cast<std::ptrdiff_t>(nth) - 1;
    const bool isFirst = std::find(lengths.begin(), before, length) == before;
    const auto blocksBefore = static_cast<std::size_t>(
        std::count(lengths.begin(), before, static_cast<std::uint32_t>(kBlockLen)));
    if (length == kHashTableLen) {
      expectOutcome(result, MEMERR_HASHAMEM, "HashCBAllocFail");
    } else if (length == kHashAreaLen) {
      expectOutcome(result, MEMERR_HEAPAMEM, isFirst ? "MemAllocFail" : "MemAllocAreaFail");
    } else {
      expectOutcome(result, MEMERR_PACKAMEM, isFirst ? "1stBlkMemAllocFail" : "NthBlkMemAllocFail");
    }
    EXPECT_EQ(blocks().size(), blocksBefore);
  }

  const ControlBlock controlBlock{
      {.fixedLen = 32, .siblingOff = 0, .children = {{1, 8}, {2, 16}}, .references = {24}},
      stringKind(),
      wideKind()};
  const std::uint8_t *root = nullptr;
  Blocks expected;
};

TEST_F(PackFaultTest, EveryStorageRequestFails) {
  const std::vector<std::uint32_t> lengths = requests();
  ASSERT_GE(std::count(lengths.begin(), lengths.end(), kHashAreaLen), 3);
  ASSERT_GE(lengths.size(), 10U);
  const Bytes before = items.contents();
  for (const std::uint32_t hostError : {0U, kHostError}) {
    const std::uint64_t failed =
        sweepFaults(host, faultOf(Service::GetStorage, hostError), [&](std::uint64_t nth) {
          const std::int16_t result = run();
          if (nth > lengths.size()) {
            EXPECT_EQ(result, 0);
          } else {
            expectOutcomeOf(lengths, static_cast<std::size_t>(nth), result);
          }
          returnHashTable();
          expectUsable();
        });
    EXPECT_EQ(failed, lengths.size());
  }
  EXPECT_EQ(items.contents(), before);
}

// Which control block is written depends on the process option alone, and without the anchor there
// is none.
TEST_F(PackFaultTest, EveryAnchorRequestFails) {
  setOldControlBlock(mem, true);
  expected = packmodel::pack(controlBlock.get(), root, kBlockLen, {.oldControlBlock = true}).blocks;
  int withoutOption = 0;
  const std::uint64_t failed =
      sweepFaults(host, faultOf(Service::GetAnchor, kHostError), [&](std::uint64_t) {
        EXPECT_EQ(run(), 0);
        const std::string version = versionOf(blocks());
        EXPECT_TRUE(version == "0100" || version == "0220") << version;
        if (version == "0220") ++withoutOption;
        expectUsable();
      });
  EXPECT_GE(failed, 1U);
  EXPECT_GE(withoutOption, 1);
}

TEST_F(PackFaultTest, TraceServicesDoNothing) {
  host.setTraceFlags(MEM_TRACE_ENTRY | MEM_TRACE_EXIT | MEM_TRACE_STORAGE);
  for (const Service service : {Service::WriteRecord, Service::Format}) {
    refhost::Fault fault = faultOf(service, kHostError);
    fault.andAllLater = true;
    host.arm(fault);
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(blockDifference(blocks(), expected), "");
  }
  host.setTraceFlags(0);
}

// The hash table's slots.

class PackHashFaultTest : public PackFaultTest {
 protected:
  // From the n-th call on, or only there, a slot fails and leaves a record of its own.
  void failSlot(int slot, int nth, bool andAllLater) {
    calls = 0;
    watch.answer = [=, this](int called) -> std::optional<std::int16_t> {
      if (called != slot) return std::nullopt;
      ++calls;
      if (calls != nth && !(andAllLater && calls > nth)) return std::nullopt;
      error().Code = kHostError;
      error().ReturnCode = kFailedCode;
      const std::string text = "slot " + std::to_string(slot) + " call " + std::to_string(calls);
      std::memcpy(error().NameText, text.c_str(), text.size() + 1);
      recorded = errorBytes(env());
      return kFailed;
    };
  }

  // Every call of a slot fails in turn. Returns how many there are.
  template <class Check>
  int sweepSlot(int slot, Check check) {
    int failing = 0;
    for (const bool andAllLater : {false, true}) {
      for (int nth = 1;; ++nth) {
        SCOPED_TRACE("slot " + std::to_string(slot) + " call " + std::to_string(nth) +
                     (andAllLater ? " and all later fail" : " fails"));
        failSlot(slot, nth, andAllLater);
        const std::int16_t result = run();
        if (calls < nth) {
          EXPECT_EQ(result, 0);
          break;
        }
        failing = nth;
        check(result);
        watch.answer = nullptr;
        expectUsable();
        if (HasFailure()) return failing;
      }
    }
    return failing;
  }

  void expectPassedUp(std::int16_t result) {
    EXPECT_EQ(result, kFailed);
    EXPECT_EQ(changedRanges(errorBytes(env()), recorded), "");
    EXPECT_EQ(host.calls(Service::ReportError), 0U);
  }

  PackWatch watch{mem};
  int calls = 0;
  Bytes recorded;
};

TEST_F(PackHashFaultTest, EveryOpenFails) {
  EXPECT_EQ(sweepSlot(20,
                      [&](std::int16_t result) {
                        expectPassedUp(result);
                        EXPECT_EQ(first, nullptr);
                      }),
            1);
}

TEST_F(PackHashFaultTest, EveryInsertFails) {
  EXPECT_EQ(sweepSlot(22, [&](std::int16_t result) { expectPassedUp(result); }),
            static_cast<int>(kSegments));
}

TEST_F(PackHashFaultTest, EveryLookupFails) {
  EXPECT_EQ(sweepSlot(23, [&](std::int16_t result) { expectPassedUp(result); }),
            static_cast<int>(2 * kSegments - 1));
}

TEST_F(PackHashFaultTest, EveryCloseFails) {
  EXPECT_EQ(sweepSlot(21,
                      [&](std::int16_t result) {
                        EXPECT_EQ(result, 0);
                        EXPECT_EQ(blockDifference(blocks(), expected), "");
                      }),
            1);
}

// Structures of any kind, each with every storage request failing in turn.
class PackAnyFaultTest : public PackFaultTest {
 protected:
  // True when all storage requests that failed were for an index of the hash table, which an insert
  // requests itself. All other storage of the table is requested by the heap's services.
  static bool onlyIndexesFailed(const std::vector<refhost::HostCall> &calls) {
    std::vector<std::string> open;  // the entry points, the innermost last
    for (const refhost::HostCall &call : calls) {
      if (call.service == Service::EnterFrame) {
        open.push_back(call.frame);
      } else if (call.service == Service::LeaveFrame) {
        open.pop_back();
      } else if (call.service == Service::GetStorage && call.result == kHostCode) {
        if (open.size() < 2 || open[open.size() - 2] != "MEM_HashInsEntry") return false;
      }
    }
    return true;
  }

  void sweep(const MemPackCB *pDescription, const void *pRoot, std::int32_t blockLen) {
    const packmodel::Outcome outcome = packmodel::pack(pDescription, pRoot, blockLen);
    const auto packStructure = [&] { return pack(pDescription, pRoot, blockLen); };
    sweepFaults(host, faultOf(Service::GetStorage, kHostError), [&](std::uint64_t) {
      const std::uint64_t firedBefore = host.faultsFired();
      host.recordCalls(true);
      const std::int16_t result = packStructure();
      host.recordCalls(false);
      const bool hasFailed = host.faultsFired() != firedBefore;
      if (onlyIndexesFailed(host.takeCalls())) {  // chains are walked instead
        EXPECT_EQ(result, outcome.result);
        EXPECT_EQ(outcome.result == 0 ? blockDifference(blocks(), outcome.blocks) : "", "");
        if (hasFailed) ++refusedIndexes;
      } else {
        EXPECT_TRUE(hasFailed);
        EXPECT_TRUE(result == kFailed || result == MEMERR_PACKAMEM) << result;
        EXPECT_NE(error().Code, kHostError);
      }
      host.disarm();
      returnHashTable();
      freeChain();
      EXPECT_EQ(host.account(0).liveCount, 0U) << host.leakReport();
    });
    EXPECT_EQ(packStructure(), outcome.result);
    EXPECT_EQ(outcome.result == 0 ? blockDifference(blocks(), outcome.blocks) : "", "");
  }

  int refusedIndexes = 0;
};

TEST_F(PackAnyFaultTest, EveryStorageRequestOfRandomStructuresFails) {
  constexpr std::uint64_t kStructures = 150;
  const std::uint64_t begin = firstSeed(19991231);
  for (std::uint64_t seed = begin; seed < begin + kStructures; ++seed) {
    SCOPED_TRACE(seedNote(seed));
    const RandomStructure structure(seed);
    sweep(structure.controlBlock(), structure.root(), structure.blockLen());
    if (HasFailure()) return;
  }
}

// The hash table of so many segments gets an index, whatever their addresses are.
TEST_F(PackAnyFaultTest, EveryStorageRequestOfALargeStructureFails) {
  constexpr std::size_t kLarge = 2100;
  std::vector<std::uint8_t *> chain;
  for (std::size_t i = 0; i < kLarge; ++i) chain.push_back(items.make(32));
  for (std::size_t i = 0; i + 1 < kLarge; ++i) {
    putPointer(chain[i], 0, chain[i + 1]);
    putPointer(chain[i], 24, chain[i * 7 % kLarge]);
  }
  sweep(controlBlock.get(), chain[0], 30000);
  EXPECT_GT(refusedIndexes, 0);
}

}  // namespace
}  // namespace memtest
