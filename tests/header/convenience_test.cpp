// The C++ header's owners and results: what each opens it closes, once; failures carry what the
// thread's error area holds; nothing is left.
#include <array>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "chainwriter.hpp"
#include "conveniencetest.hpp"

namespace memtest {
namespace {

using refhost::Service;

struct Record {
  Record *pNext;
  std::uint32_t id;
  std::uint32_t value;
};

using RecordTable = mem::HashTable<Record, std::uint32_t>;

struct Leaf {
  std::uint32_t id;
};

struct Node {
  Node *pNext;
  const char *pName;
  Leaf leaf;
};

inline constexpr mem::PortTable kNodes{
    mem::structure<Node, 12>(mem::field<1>(MEM_FIELD(Node, pNext)),
                             mem::field<2>(MEM_FIELD(Node, pName)),
                             mem::field<3>(MEM_FIELD(Node, leaf))),
    mem::structure<Leaf, 7>(mem::field<1>(MEM_FIELD(Leaf, id)))};

// --- Every owner -------------------------------------------------------------------------------

// How each kind of owner is opened, and how its handle is closed by hand.
template <class Type>
struct Opening;

template <>
struct Opening<mem::Heap> {
  static auto open(const mem::Context &context) { return mem::Heap::open(context); }
  static void close(MEMFunctionVector &mem, HMEMHEAP handle) { mem.MEM_HeapClose(handle); }
};
template <>
struct Opening<mem::EnhancedHeap> {
  static auto open(const mem::Context &context) { return mem::EnhancedHeap::open(context); }
  static void close(MEMFunctionVector &mem, HMEMHEAP handle) { mem.MEM_EHeapClose(handle); }
};
template <>
struct Opening<mem::CellPool<Record>> {
  static auto open(const mem::Context &context) { return mem::CellPool<Record>::open(context); }
  static void close(MEMFunctionVector &mem, HMEMCELL handle) { mem.MEM_CellClose(handle); }
};
template <>
struct Opening<RecordTable> {
  static auto open(const mem::Context &context) {
    return RecordTable::open<8>(context, MEM_FIELD(Record, id));
  }
  static void close(MEMFunctionVector &mem, HMEMHASH handle) { mem.MEM_HashClose(handle); }
};
template <>
struct Opening<mem::ConcatBuffer> {
  static auto open(const mem::Context &context) { return mem::ConcatBuffer::open(context); }
  static void close(MEMFunctionVector &mem, MEMCatCB handle) { mem.MEM_CatClose(&handle); }
};
template <>
struct Opening<mem::SunkString> {
  static auto open(const mem::Context &context) { return mem::SunkString::sink(context, "text"); }
  static void close(MEMFunctionVector &mem, const char *handle) { mem.MEM_SinkDelete(handle); }
};
template <>
struct Opening<mem::WideSunkString> {
  static auto open(const mem::Context &context) {
    return mem::WideSunkString::sink(context, u"text");
  }
  static void close(MEMFunctionVector &mem, const char16_t *handle) { mem.MEM_WSinkDelete(handle); }
};
template <>
struct Opening<mem::PackedChain> {
  static auto open(const mem::Context &context) {
    static const Item item{nullptr, "name", u"title", nullptr};
    return mem::PackedChain::pack(context, kItems, item);
  }
  template <class Handle>
  static void close(MEMFunctionVector &mem, Handle handle) {
    while (handle.pFirst != nullptr) {
      MemPackBlock *const pNext = handle.pFirst->pNext;
      mem.MEM_Free(handle.pFirst, handle.blockLen, 0);
      handle.pFirst = pNext;
    }
  }
};

template <class Type>
class OwnerTest : public ConvenienceTest {
 protected:
  static_assert(std::is_nothrow_move_constructible_v<Type>);
  static_assert(std::is_nothrow_move_assignable_v<Type>);
  static_assert(!std::is_copy_constructible_v<Type> && !std::is_copy_assignable_v<Type>);

  // All that can be held: storage, gates, uses of sunk texts.
  std::uint64_t held() {
    std::uint64_t uses = 0;
    const MEMProcessBlock &process = *host.anchor();
    for (std::uint32_t slot = process.First; slot <= process.End && process.Act > 0; ++slot) {
      std::uint64_t count = 0;
      std::memcpy(&count, static_cast<const char *>(process.pIndex) + 16 * slot + 8, sizeof count);
      uses += count;
    }
    return host.account().liveCount + host.gateCount() + uses;
  }
};

using OwnerTypes =
    ::testing::Types<mem::Heap, mem::EnhancedHeap, mem::CellPool<Record>, RecordTable,
                     mem::ConcatBuffer, mem::SunkString, mem::WideSunkString, mem::PackedChain>;
TYPED_TEST_SUITE(OwnerTest, OwnerTypes);

TYPED_TEST(OwnerTest, IsEmptyUntilOpened) {
  TypeParam owner;
  EXPECT_FALSE(owner.isOpen());
  expectOk(owner.close());
}

TYPED_TEST(OwnerTest, GivesEverythingBackWhenItDies) {
  const std::uint64_t before = this->held();
  {
    const TypeParam owner = taken(Opening<TypeParam>::open(this->context));
    EXPECT_TRUE(owner.isOpen());
    EXPECT_GT(this->held(), before);
  }
  EXPECT_EQ(this->held(), before);
}

TYPED_TEST(OwnerTest, CloseGivesBackOnceAndLeavesItEmpty) {
  const std::uint64_t before = this->held();
  TypeParam owner = taken(Opening<TypeParam>::open(this->context));
  expectOk(owner.close());
  EXPECT_FALSE(owner.isOpen());
  EXPECT_EQ(this->held(), before);
  expectOk(owner.close());
}

TYPED_TEST(OwnerTest, MovesWithoutOpeningOrClosing) {
  TypeParam first = taken(Opening<TypeParam>::open(this->context));
  const std::uint64_t opened = this->held();
  TypeParam second = std::move(first);
  EXPECT_FALSE(first.isOpen());
  EXPECT_TRUE(second.isOpen());
  first = std::move(second);
  EXPECT_TRUE(first.isOpen());
  EXPECT_FALSE(second.isOpen());
  TypeParam &same = first;
  first = std::move(same);
  EXPECT_TRUE(first.isOpen());
  EXPECT_EQ(this->held(), opened);
}

TYPED_TEST(OwnerTest, AssignmentClosesWhatWasOwned) {
  TypeParam first = taken(Opening<TypeParam>::open(this->context));
  const std::uint64_t opened = this->held();
  TypeParam second = taken(Opening<TypeParam>::open(this->context));
  first = std::move(second);
  EXPECT_EQ(this->held(), opened);
  EXPECT_TRUE(first.isOpen());
}

TYPED_TEST(OwnerTest, ReleaseHandsOutTheHandle) {
  const std::uint64_t before = this->held();
  TypeParam owner = taken(Opening<TypeParam>::open(this->context));
  const auto handle = owner.release();
  EXPECT_FALSE(owner.isOpen());
  EXPECT_GT(this->held(), before);
  Opening<TypeParam>::close(this->mem, handle);
  EXPECT_EQ(this->held(), before);
}

// Storage that fails at any point.
TYPED_TEST(OwnerTest, FailureToOpenIsToldAndLeavesNothing) {
  const std::uint64_t before = this->held();
  sweepFaults(this->host, faultOf(Service::GetStorage), [&](std::uint64_t) {
    const std::uint64_t fired = this->host.faultsFired();
    {
      const auto opened = Opening<TypeParam>::open(this->context);
      const bool hasFailed = this->host.faultsFired() != fired;
      EXPECT_EQ(opened.isOk(), !hasFailed);
      EXPECT_NE(opened.isOk() ? 1U : opened.error().code(), 0U);
    }
    this->host.disarm();
    returnHashTables(this->host);
    EXPECT_EQ(this->held(), before);
  });
}

// --- Errors and results ------------------------------------------------------------------------

using ErrorTest = ConvenienceTest;

TEST_F(ErrorTest, CarriesCodeAndTextsOfTheCall) {
  const auto heap = mem::Heap::open(context, {.areaKb = 257});
  ASSERT_FALSE(heap.isOk());
  const mem::Error error = heap.error();
  EXPECT_STREQ(error.service(), "MEM_HeapOpen");
  EXPECT_EQ(error.result(), kFailed);
  EXPECT_FALSE(error.isRefusal());
  EXPECT_EQ(error.code(), static_cast<std::uint32_t>(MEMERR_HEAPSIZE));
  EXPECT_EQ(error.innerCode(), 0U);
  EXPECT_STREQ(error.nameText(), "Invalid Area Length=257");
  EXPECT_STREQ(error.messageText(), "Invalid Area Length=257");
  EXPECT_STREQ(error.line().text,
               "MEM_HeapOpen failed: 4050 MEMERR_HEAPSIZE, Create size error "
               "(Invalid Area Length=257)");
}

TEST_F(ErrorTest, IsNotChangedByLaterCalls) {
  const auto heap = mem::Heap::open(context, {.areaKb = 0});
  const mem::Heap other = taken(mem::Heap::open(context));
  std::memset(static_cast<void *>(&error()), 'x', sizeof error());
  EXPECT_EQ(failure(heap),
            "MEM_HeapOpen failed: 4050 MEMERR_HEAPSIZE, Create size error "
            "(Invalid Area Length=0)");
}

TEST_F(ErrorTest, TellsOfTheNestedFailure) {
  host.arm(faultOf(Service::CreateGate, 4321));
  const auto heap = mem::EnhancedHeap::open(context);
  ASSERT_EQ(codeOf(heap), MEMERR_HEAPGATE);
  EXPECT_EQ(heap.error().innerCode(), 4321U);
  EXPECT_STREQ(heap.error().innerText(), kHostErrorText);
}

TEST_F(ErrorTest, HasTheResultOnlyWhereThereIsNoThreadEnvironment) {
  for (const mem::Context &blind :
       {mem::Context(mem, nullptr),
        mem::Context(mem, [](void *) -> MEMThreadEnv * { return nullptr; })}) {
    EXPECT_EQ(failure(mem::Heap::open(blind, {.areaKb = 0})),
              "MEM_HeapOpen failed: result -1 without a code");
    const Item item{};
    const auto chain = mem::PackedChain::pack(blind, kItems, item, 900);
    EXPECT_EQ(codeOf(chain), MEMERR_PACKBMIN);
  }
}

TEST_F(ErrorTest, CutsTextsThatAreNotTerminated) {
  const auto fill = [](char(&text)[MEM_NAME_TEXT_LEN]) { std::memset(text, 'n', sizeof text); };
  fill(error().NameText);
  fill(error().InnerText);
  std::memset(env().MessageText, 'm', sizeof env().MessageText);
  error().Code = 8;
  const mem::Error error = mem::Error::ofCall(context, "S", -1);
  EXPECT_EQ(std::string(error.nameText()), std::string(63, 'n'));
  EXPECT_EQ(std::string(error.innerText()), std::string(63, 'n'));
  EXPECT_EQ(std::string(error.messageText()), std::string(255, 'm'));
  EXPECT_EQ(std::string(error.line().text), "S failed: 8 (" + std::string(63, 'n') + ")");
}

TEST_F(ErrorTest, KnowsEveryCodeOfTheMessageTable) {
  for (const MEMMessageRow *row = host.messageTable(); row->Code != 0; ++row) {
    EXPECT_STREQ(mem::codeText(row->Code).name, row->Name);
    EXPECT_STREQ(mem::codeText(row->Code).message, row->Message);
  }
  static_assert(*mem::codeText(1).name == '\0' && *mem::codeText(1).message == '\0');
}

TEST_F(ErrorTest, CallReachesAnySlotAndFollowsReplacedOnes) {
  expectOk(
      mem::call(context, mem::slots::MEM_HeapClose, taken(mem::Heap::open(context)).release()));
  EXPECT_EQ(failure(mem::call(context, mem::slots::MEM_InitQTRFTbls)),
            "MEM_InitQTRFTbls failed: 4096 MEMERR_NOT_SUPPORTED, Function Service not defined "
            "(InitQTRFTbls called in non-ZRX environment)");
  mem.MEM_InitQTRFTbls = []() -> std::int16_t { return 0; };
  expectOk(mem::call(context, mem::slots::MEM_InitQTRFTbls));
}

TEST(ResultTest, HoldsAValueOrAnError) {
  mem::Result<std::string> value = std::string("text");
  ASSERT_TRUE(value.isOk());
  value.value() += "s";
  EXPECT_EQ(std::as_const(value).value(), "texts");
  EXPECT_EQ(std::move(value).value(), "texts");
  const mem::Result<std::string> error = mem::Error::refusal("S", "because");
  ASSERT_FALSE(error.isOk());
  EXPECT_TRUE(error.error().isRefusal());
  EXPECT_STREQ(error.error().line().text, "S failed: because");
  static_assert(!std::is_convertible_v<mem::Result<int *>, bool>);
  static_assert(std::is_same_v<decltype(mem::Result<int>(1).value()), int>);
  static_assert(!std::is_constructible_v<bool, mem::Status>);
}

// What a chain of calls makes of a number, or of the error in place of it.
mem::Result<int> half(int number) {
  if (number % 2 != 0) return mem::Error::refusal("half", "odd");
  return number / 2;
}

TEST(ResultTest, ChainsCalls) {
  EXPECT_EQ(taken(half(12).and_then(half).transform([](int n) { return n + 1; })), 4);
  EXPECT_EQ(failure(half(6).and_then(half).transform([](int) { ADD_FAILURE(); })),
            "half failed: odd");
  EXPECT_EQ(failure(half(3).and_then([](int) { return mem::Status(); })), "half failed: odd");
  const mem::Status done = half(2).transform([](int) {});
  expectOk(done);
  EXPECT_EQ(taken(done.and_then([] { return half(8); })), 4);
  EXPECT_EQ(taken(done.transform([] { return 5; })), 5);
  const mem::Status failed = mem::Error::refusal("S", "because");
  EXPECT_EQ(failure(failed.and_then([] { return half(8); })), "S failed: because");
  EXPECT_EQ(failure(failed.transform([] { ADD_FAILURE(); })), "S failed: because");
  // Members, and values that cannot be copied.
  EXPECT_EQ(taken(half(4)
                      .transform([](int n) { return std::string(3, char('a' + n)); })
                      .transform(&std::string::size)),
            3U);
  mem::Result<std::unique_ptr<int>> owner = std::make_unique<int>(7);
  EXPECT_EQ(taken(owner.transform([](const std::unique_ptr<int> &p) { return *p; })), 7);
  EXPECT_EQ(*taken(std::move(owner).transform([](std::unique_ptr<int> p) { return p; })), 7);
}

TEST(ResultTest, ArrowLeadsToMembers) {
  mem::Result<std::string> text = std::string("text");
  text->push_back('s');
  EXPECT_EQ(std::as_const(text)->size(), 5U);
  Record record{nullptr, 1, 2};
  const mem::Result<Record *> pointer = &record;
  pointer->value = 3;
  EXPECT_EQ(record.value, 3U);
}

mem::Result<int> tried(int first, int second, int &calls) {
  MEM_TRY(const int one, half(first));
  ++calls;
  int two = 0;
  MEM_TRY(two, half(second));
  ++calls;
  MEM_TRY(half(one + two));
  if (two > 0) MEM_TRY(half(one + two).transform([](int) {}));
  ++calls;
  return one + two;
}

TEST(ResultTest, TryLeavesWithTheError) {
  int calls = 0;
  EXPECT_EQ(taken(tried(4, 8, calls)), 6);
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(failure(tried(3, 8, calls)), "half failed: odd");
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(failure(tried(4, 3, calls)), "half failed: odd");
  EXPECT_EQ(calls, 4);
  EXPECT_EQ(failure(tried(4, 2, calls)), "half failed: odd");
  EXPECT_EQ(calls, 6);
}

#ifndef _WIN32
TEST(ResultDeathTest, WrongPartEndsTheProgram) {
  mem::Result<int> value = 1;
  mem::Result<int> error = mem::Error::refusal("S", "because");
  constexpr char kNoError[] = "mem: a result was asked for an error, and has none";
  EXPECT_EXIT(static_cast<void>(value.error()), ::testing::KilledBySignal(SIGABRT), kNoError);
  EXPECT_EXIT(static_cast<void>(error.value()), ::testing::KilledBySignal(SIGABRT),
              "S failed: because");
  EXPECT_EXIT(static_cast<void>(std::move(error).value()), ::testing::KilledBySignal(SIGABRT),
              "S failed: because");
  EXPECT_EXIT(static_cast<void>(mem::Status().error()), ::testing::KilledBySignal(SIGABRT),
              kNoError);
}
#endif

static_assert(!std::is_constructible_v<mem::ContextRef, mem::Context>);
static_assert(std::is_constructible_v<mem::ContextRef, const mem::Context &>);

// --- Process and thread ------------------------------------------------------------------------

class StartTest : public BoundTest {
 protected:
  const mem::Context context = mem::contextOf(host);
};

TEST_F(StartTest, ProcessAndThreadRunWhileTheirOwnersLive) {
  {
    const mem::RunningProcess process = taken(mem::RunningProcess::start(context));
    EXPECT_NE(host.anchor(), nullptr);
    mem::ActiveThread thread = taken(mem::ActiveThread::activate(context));
    EXPECT_NE(env().pMemThreadBlk, nullptr);
    expectOk(thread.close());
    EXPECT_EQ(env().pMemThreadBlk, nullptr);
  }
  EXPECT_EQ(host.anchor(), nullptr);
}

TEST_F(StartTest, FailedStartIsToldByItsInnerCodeAndUndone) {
  host.arm(faultOf(Service::CreateGate));
  EXPECT_EQ(failure(mem::RunningProcess::start(context)),
            "MEM_ProcessInit failed: 4081 MEMERR_SINKLGATE, Sink List Gate error (CreateFailed)");
  EXPECT_EQ(host.anchor(), nullptr);
  EXPECT_EQ(host.leakReport(), "");
}

TEST_F(StartTest, FailedActivationTellsNothingOfEarlierFailures) {
  EXPECT_FALSE(mem::Heap::open(context, {.areaKb = 0}).isOk());
  const auto thread = mem::ActiveThread::activate(context);  // there is no process block
  EXPECT_EQ(failure(thread), "MEM_ThreadAct failed: result -1 without a code");

  const mem::RunningProcess process = taken(mem::RunningProcess::start(context));
  host.arm(faultOf(Service::GetPoolStorage));
  const auto second = mem::ActiveThread::activate(context);
  EXPECT_EQ(codeOf(second), MEMERR_TBLKFAIL);
}

// --- Heaps -------------------------------------------------------------------------------------

using HeapOwnerTest = ConvenienceTest;

TEST_F(HeapOwnerTest, MakesInitialisedRecords) {
  mem::Heap heap = taken(mem::Heap::open(context, {.areaKb = 1, .subPool = 7}));
  EXPECT_EQ(host.account(7).liveBytes, 1024U);
  const Record *const cleared = taken(heap.make<Record>());
  EXPECT_EQ(cleared->pNext, nullptr);
  EXPECT_EQ(cleared->value, 0U);
  Record *const linked = taken(heap.make<Record>(nullptr, 3U, 4U));
  EXPECT_EQ(linked->value, 4U);
  EXPECT_EQ(asNumber(linked) % 8, 0U);
}

TEST_F(HeapOwnerTest, MakesRecordsWithConstantMembers) {
  struct Named {
    Named *pNext;
    const char *const pName;
  };
  mem::Heap heap = taken(mem::Heap::open(context));
  EXPECT_EQ(taken(heap.make<Named>())->pName, nullptr);
  EXPECT_STREQ(taken(heap.make<Named>(nullptr, "name"))->pName, "name");
  EXPECT_EQ(taken(heap.makeChain(MEM_FIELD(Named, pNext), 2))->pNext->pName, nullptr);
  mem::CellPool<Named> pool = taken(mem::CellPool<Named>::open(context));
  EXPECT_EQ(taken(pool.make())->pName, nullptr);
}

TEST_F(HeapOwnerTest, MakesChainsOfInitialisedRecords) {
  mem::Heap heap = taken(mem::Heap::open(context));
  mem::EnhancedHeap enhanced = taken(mem::EnhancedHeap::open(context));
  for (const Record *record : {taken(heap.makeChain(MEM_FIELD(Record, pNext), 100)),
                               taken(enhanced.makeChain(MEM_FIELD(Record, pNext), 100))}) {
    int count = 0;
    for (; record != nullptr; record = record->pNext) {
      EXPECT_EQ(record->id + record->value, 0U);
      ++count;
    }
    EXPECT_EQ(count, 100);
  }
  const auto none = heap.makeChain(MEM_FIELD(Record, pNext), 0);
  EXPECT_EQ(codeOf(none), MEMERR_HEAPNUME);
}

TEST_F(HeapOwnerTest, CopiesTextsWithTheirTerminators) {
  mem::Heap heap = taken(mem::Heap::open(context));
  using namespace std::string_view_literals;
  EXPECT_EQ(std::string_view(taken(heap.copyText("ab\0c"sv)), 5), "ab\0c\0"sv);
  EXPECT_EQ(std::u16string_view(taken(heap.copyText(u"wide"sv)), 5), u"wide\0"sv);
  EXPECT_STREQ(taken(heap.copyText(std::string_view())), "");
  const std::u16string_view tooLong(u"", 0x40000000);
  EXPECT_EQ(failure(heap.copyText(tooLong)), "MEM_HeapAllocEntryLong failed: the text is too long");
}

TEST_F(HeapOwnerTest, FailedAllocationTellsWhy) {
  mem::Heap heap = taken(mem::Heap::open(context, {.areaKb = 1}));
  EXPECT_EQ(failure(heap.allocate(0)),
            "MEM_HeapAllocEntryLong failed: 4051 MEMERR_HEAPEMIN, Create element too small "
            "(Entry Length=0 too small)");
  host.arm(faultOf(Service::GetStorage));
  const auto entry = heap.allocate(5000);
  EXPECT_EQ(codeOf(entry), MEMERR_HEAPAMEM);
  EXPECT_TRUE(heap.allocate(5000).isOk());
}

TEST_F(HeapOwnerTest, EnhancedHeapTakesEntriesBack) {
  mem::EnhancedHeap heap = taken(mem::EnhancedHeap::open(context));
  expectOk(heap.free(taken(heap.make<Record>())));
  expectOk(heap.free(taken(heap.allocate(100)), 100));
  int elsewhere = 0;
  const mem::Status refused = heap.free(&elsewhere, 16);
  EXPECT_EQ(codeOf(refused), MEMERR_HEAPENTRY);
}

TEST_F(HeapOwnerTest, EnhancedHeapServesThreads) {
  mem::EnhancedHeap heap = taken(mem::EnhancedHeap::open(context));
  const auto work = [&] {
    const mem::ActiveThread active = taken(mem::ActiveThread::activate(context));
    for (int i = 0; i < 100; ++i) expectOk(heap.free(taken(heap.make<Record>())));
    EXPECT_EQ(failure(heap.free(&heap, 16)).substr(0, 29), "MEM_EHeapFreeEntry failed: 40");
  };
  std::thread first(work);
  std::thread second(work);
  first.join();
  second.join();
}

TEST_F(HeapOwnerTest, FailedCloseStillOwns) {
  mem::EnhancedHeap heap = taken(mem::EnhancedHeap::open(context));
  host.arm(faultOf(Service::AcquireGate));
  const mem::Status closed = heap.close();
  EXPECT_EQ(codeOf(closed), MEMERR_HEAPGATE);
  EXPECT_TRUE(heap.isOpen());
  expectOk(heap.close());
}

// --- Cell pool ---------------------------------------------------------------------------------

using CellPoolOwnerTest = ConvenienceTest;

TEST_F(CellPoolOwnerTest, MakesAndTakesBackRecords) {
  mem::CellPool<Record> pool = taken(mem::CellPool<Record>::open(context, {.areaLen = 256}));
  Record *const record = taken(pool.make(nullptr, 1U, 2U));
  EXPECT_EQ(record->value, 2U);
  expectOk(pool.free(record));
  Record *const again = taken(pool.make());
  EXPECT_EQ(again, record) << "the cell freed last is used first";
  EXPECT_EQ(again->value, 0U);
}

TEST_F(CellPoolOwnerTest, GrowsAndClears) {
  mem::CellPool<Record> pool =
      taken(mem::CellPool<Record>::open(context, {.areaLen = 256, .subPool = -3}));
  for (std::uint32_t i = 0; i < 100; ++i) {
    EXPECT_EQ(asNumber(taken(pool.make(nullptr, i, i))) % alignof(Record), 0U);
  }
  EXPECT_GT(host.account(3, 2).liveCount, 1U);
  expectOk(pool.clear());
  EXPECT_EQ(host.account(3, 2).liveCount, 1U);
  EXPECT_TRUE(pool.make().isOk());
}

TEST_F(CellPoolOwnerTest, GivesSmallRecordsTheSmallestCell) {
  static_assert(mem::CellPool<Leaf>::kCellLen == 8);
  static_assert(mem::CellPool<Record>::kCellLen == 16);
  mem::CellPool<Leaf> pool = taken(mem::CellPool<Leaf>::open(context));
  EXPECT_EQ(taken(pool.make(5U))->id, 5U);
}

TEST_F(CellPoolOwnerTest, FailuresTellWhy) {
  EXPECT_EQ(failure(mem::CellPool<Record>::open(context, {.areaLen = 255})),
            "MEM_CellOpen failed: 4010 MEMERR_CELLBNDS, Create bounds error "
            "(Invalid area bounds)");
  mem::CellPool<std::array<char, 200>> pool =
      taken(mem::CellPool<std::array<char, 200>>::open(context, {.areaLen = 368}));
  EXPECT_TRUE(pool.make().isOk());
  host.arm(faultOf(Service::GetStorage));
  const auto cell = pool.make();
  EXPECT_EQ(codeOf(cell), MEMERR_CELLAMEM);
  EXPECT_TRUE(pool.make().isOk());
}

// --- Hash table --------------------------------------------------------------------------------

using HashOwnerTest = ConvenienceTest;

TEST_F(HashOwnerTest, DuplicateAndMissingKeysAreAnswers) {
  RecordTable table = taken(RecordTable::open<8>(context, MEM_FIELD(Record, id)));
  const auto first = taken(table.insert({nullptr, 1, 10}));
  EXPECT_FALSE(first.isDuplicate);
  EXPECT_EQ(first.pRecord->value, 10U);
  const auto second = taken(table.insert({nullptr, 1, 20}));
  EXPECT_TRUE(second.isDuplicate);
  EXPECT_EQ(second.pRecord, first.pRecord);
  EXPECT_EQ(second.pRecord->value, 10U);
  EXPECT_EQ(taken(table.find(1)), first.pRecord);
  EXPECT_EQ(taken(table.find(2)), nullptr);
  EXPECT_EQ(taken(table.remove(2)), mem::Removal::kNotFound);
  EXPECT_EQ(taken(table.remove(1)), mem::Removal::kRemoved);
  EXPECT_EQ(taken(table.find(1)), nullptr);
}

TEST_F(HashOwnerTest, HoldsWhatAMapHolds) {
  RecordTable table = taken(RecordTable::open<64>(context, MEM_FIELD(Record, id), {.areaKb = 4}));
  std::map<std::uint32_t, std::uint32_t> model;
  for (std::uint32_t i = 0; i < 2000; ++i) {
    const std::uint32_t id = i * 2654435761U % 500;
    if (i % 3 == 2) {
      EXPECT_EQ(taken(table.remove(id)) == mem::Removal::kRemoved, model.erase(id) == 1);
    } else {
      EXPECT_EQ(taken(table.insert({nullptr, id, i})).isDuplicate, !model.emplace(id, i).second);
    }
  }
  std::map<std::uint32_t, std::uint32_t> found;
  expectOk(table.forEach([&](const Record &record) { found[record.id] = record.value; }));
  EXPECT_EQ(found, model);
}

TEST_F(HashOwnerTest, TakesAHashFunctionOfTheCallers) {
  const auto table = [&](MEMHashFunc pFunc) {
    return taken(RecordTable::open(context, MEM_FIELD(Record, id), 3, pFunc));
  };
  RecordTable good = table([](const void *) -> std::int16_t { return 3; });
  EXPECT_TRUE(good.insert({nullptr, 1, 1}).isOk());
  EXPECT_TRUE(good.insert({nullptr, 2, 2}).isOk());
  EXPECT_EQ(taken(good.find(2))->value, 2U);
  RecordTable wrong = table([](const void *) -> std::int16_t { return 4; });
  EXPECT_EQ(codeOf(wrong.insert({})), MEMERR_HASHFERR);
  EXPECT_EQ(codeOf(wrong.find(1)), MEMERR_HASHFERR);
  EXPECT_EQ(codeOf(wrong.remove(1)), MEMERR_HASHFERR);
}

TEST_F(HashOwnerTest, FailedCloseStillOwns) {
  RecordTable table = taken(RecordTable::open<8>(context, MEM_FIELD(Record, id)));
  mem.MEM_HeapClose = [](HMEMHEAP) -> std::int16_t { return -1; };
  EXPECT_FALSE(table.close().isOk());
  EXPECT_TRUE(table.isOpen());
  host.restoreSlots();
  expectOk(table.close());
}

// --- Concatenation buffer ----------------------------------------------------------------------

using ConcatOwnerTest = ConvenienceTest;

TEST_F(ConcatOwnerTest, CollectsText) {
  mem::ConcatBuffer buffer = taken(mem::ConcatBuffer::open(context));
  EXPECT_TRUE(buffer.text().empty());
  std::u16string expected;
  for (int i = 0; i < 300; ++i) {
    const std::u16string piece = u"\u00E9 piece of text ";
    expectOk(buffer.append(piece));
    expectOk(buffer.append(u"more"));
    expected += piece + u"more";
  }
  using namespace std::string_literals;
  expectOk(buffer.append(u"a\0b"s));
  expectOk(buffer.append(u""));
  EXPECT_EQ(buffer.text(), expected + u"a\0b"s);
  const mem::ConcatBuffer moved = std::move(buffer);
  EXPECT_EQ(moved.text(), expected + u"a\0b"s);
}

TEST_F(ConcatOwnerTest, FailedAppendKeepsTheText) {
  mem::ConcatBuffer buffer = taken(mem::ConcatBuffer::open(context));
  expectOk(buffer.append(u"kept"));
  const std::u16string large(5000, u'x');
  host.arm(faultOf(Service::GetStorage));
  const mem::Status nested = buffer.append(large.c_str());
  ASSERT_EQ(codeOf(nested), MEMERR_CATSTDSTR);
  EXPECT_EQ(nested.error().innerCode(), static_cast<std::uint32_t>(MEMERR_CATAMEM));
  host.arm(faultOf(Service::GetStorage));
  const mem::Status direct = buffer.append(large);
  EXPECT_EQ(codeOf(direct), MEMERR_CATAMEM);
  EXPECT_EQ(buffer.text(), u"kept");
}

// --- String sink -------------------------------------------------------------------------------

using SinkOwnerTest = ConvenienceTest;

TEST_F(SinkOwnerTest, EqualTextsShareOneCopyUntilItsLastUse) {
  mem::SunkString first = taken(mem::SunkString::sink(context, "name"));
  const mem::SunkString second = taken(mem::SunkString::sink(context, "name"));
  EXPECT_STREQ(first.text(), "name");
  EXPECT_EQ(first.text(), second.text());
  expectOk(first.close());
  EXPECT_EQ(first.text(), nullptr);
  EXPECT_EQ(taken(mem::SunkString::find(context, "name")), second.text());
}

TEST_F(SinkOwnerTest, TextThatIsNotSunkIsAnAnswer) {
  EXPECT_EQ(taken(mem::SunkString::find(context, "name")), nullptr);
  EXPECT_EQ(taken(mem::WideSunkString::find(context, u"name")), nullptr);
  const mem::WideSunkString wide = taken(mem::WideSunkString::sink(context, u"name"));
  EXPECT_EQ(taken(mem::WideSunkString::find(context, u"name")), wide.text());
  EXPECT_EQ(taken(mem::SunkString::find(context, "name")), nullptr);
}

TEST_F(SinkOwnerTest, FailuresTellWhy) {
  EXPECT_EQ(failure(mem::SunkString::sink(context, nullptr)),
            "MEM_SinkString failed: 4082 MEMERR_SINKITEXT, Input Text error (InputTextPtrNull)");
  EXPECT_FALSE(mem::WideSunkString::find(context, nullptr).isOk());
  mem::SunkString text = taken(mem::SunkString::sink(context, "name"));
  host.arm(faultOf(Service::AcquireGate));
  const mem::Status closed = text.close();
  ASSERT_FALSE(closed.isOk());
  EXPECT_STREQ(closed.error().service(), "MEM_SinkDelete");
  EXPECT_TRUE(text.isOpen());
}

// The address may belong to another text by the time of a second close().
TEST_F(SinkOwnerTest, ACopyErasedByAFailedCloseIsNotOwned) {
  mem::SunkString text = taken(mem::SunkString::sink(context, "name"));
  const char *const erased = text.text();
  refhost::Fault second = faultOf(Service::ProtectStorage);
  second.nth = 2;
  host.arm(second);
  const mem::Status closed = text.close();
  host.disarm();
  ASSERT_FALSE(closed.isOk());
  EXPECT_STREQ(closed.error().nameText(), "ProtPageErrReadOnly");
  EXPECT_FALSE(text.isOpen());
  const mem::SunkString other = taken(mem::SunkString::sink(context, "four"));
  EXPECT_EQ(other.text(), erased);
  expectOk(text.close());
  EXPECT_STREQ(other.text(), "four");
  EXPECT_EQ(taken(mem::SunkString::find(context, "four")), other.text());
}

// Nothing changes when the copy could not be made writable.
TEST_F(SinkOwnerTest, ACopyThatCouldNotBeErasedIsStillOwned) {
  mem::SunkString text = taken(mem::SunkString::sink(context, "name"));
  host.arm(faultOf(Service::ProtectStorage));
  EXPECT_FALSE(text.close().isOk());
  host.disarm();
  EXPECT_STREQ(text.text(), "name");
  expectOk(text.close());
}

// --- Packed chain ------------------------------------------------------------------------------

class ChainOwnerTest : public ConvenienceTest {
 protected:
  ChainOwnerTest() {
    items[0].pNext = &items[1];
    items[1].pOther = &items[0];
  }

  static std::vector<std::byte> fileOf(const mem::PackedChain &chain) {
    std::vector<std::byte> file;
    for (const std::span<const std::byte> used : chain) {
      file.insert(file.end(), used.begin(), used.end());
    }
    return file;
  }

  std::vector<std::byte> packedFile(std::int32_t blockLen = mem::kPackBlockLen) {
    return fileOf(taken(mem::PackedChain::pack(context, kItems, items[0], blockLen)));
  }

  // The structure that `items` is.
  static void expectItems(const Item *root) {
    const Item first = mem::readRecord(root);
    EXPECT_STREQ(first.pName, "ab");
    EXPECT_EQ(wideAt(first.pTitle), u"Zug");
    EXPECT_EQ(first.pOther, nullptr);
    ASSERT_NE(first.pNext, nullptr);
    const Item second = mem::readRecord(first.pNext);
    EXPECT_STREQ(second.pName, "c");
    EXPECT_EQ(wideAt(second.pTitle), u"\u00E9");
    EXPECT_EQ(second.pOther, root);
    EXPECT_EQ(second.pNext, nullptr);
  }

  static std::u16string wideAt(const void *pText) {
    std::u16string text;
    for (const char *at = static_cast<const char *>(pText);; at += sizeof(char16_t)) {
      char16_t unit = 0;
      std::memcpy(&unit, at, sizeof unit);
      if (unit == 0) return text;
      text.push_back(unit);
    }
  }

  std::array<Item, 2> items{{{nullptr, "ab", u"Zug", nullptr}, {nullptr, "c", u"\u00E9", nullptr}}};
};

TEST_F(ChainOwnerTest, TakesItsFileFormOverToStructures) {
  for (const std::int32_t blockLen : {997, 1064, 32768}) {
    const std::vector<std::byte> file = packedFile(blockLen);
    mem::PackedChain chain = taken(mem::PackedChain::load(context, file));
    EXPECT_EQ(chain.size().bytes, file.size());
    EXPECT_EQ(chain.size().blocks, blockLen == 32768 ? 1U : 2U);
    EXPECT_EQ(fileOf(chain), file);
    expectItems(taken(chain.unpack(kItems)));
  }
}

// Every writer of the version table, of both pointer widths: in place, or laid out anew.
TEST_F(ChainOwnerTest, ReadsWhatAnyWriterWrote) {
  using chainwriter::kNone;
  chainwriter::Tree tree;
  tree.kinds = {{chainwriter::Form::Fixed,
                 {chainwriter::sibling(), chainwriter::child(1), chainwriter::child(2),
                  chainwriter::reference()}},
                {chainwriter::Form::Narrow},
                {chainwriter::Form::Wide}};
  tree.nodes.resize(6);
  tree.nodes[0].targets = {3, 1, 2, kNone};
  tree.nodes[1] = {.kind = 1, .narrow = "ab"};
  tree.nodes[2] = {.kind = 2, .wide = U"Zug"};
  tree.nodes[3].targets = {kNone, 4, 5, 0};
  tree.nodes[4] = {.kind = 1, .narrow = "c"};
  tree.nodes[5] = {.kind = 2, .wide = U"\u00E9"};
  for (const chainwriter::Writer &writer : chainwriter::allWriters()) {
    SCOPED_TRACE(writer.name());
    const Bytes bytes = chainwriter::write(tree, writer, 2000).file();
    mem::PackedChain chain =
        taken(mem::PackedChain::load(context, std::as_bytes(std::span(bytes))));
    EXPECT_EQ(chain.size().bytes, bytes.size());
    const auto root = chain.unpack(kItems);
    // An EBCDIC writer's narrow text is not ASCII, but that is all.
    if (writer.isEbcdic) {
      EXPECT_NE(taken(root), nullptr);
    } else {
      expectItems(taken(root));
    }
  }
}

TEST_F(ChainOwnerTest, RefusesAChainOfOtherStructures) {
  struct Longer {
    Item item;
    std::uint64_t more;
  };
  constexpr auto kLonger = mem::packTable(mem::segment<Longer>(
      mem::sibling(mem::Member<Longer, Longer *, 0>{}), mem::child(MEM_FIELD(Longer, item.pName)),
      mem::child(MEM_FIELD(Longer, item.pTitle))));
  for (const bool isOld : {false, true}) {
    MEMProcOptions options{};
    options.Set = 1;
    options.OldPackCB = isOld ? 1 : 0;
    ASSERT_EQ(mem.MEMSetProcOptions(&options), 0);
    const std::vector<std::byte> file = packedFile();
    mem::PackedChain good = taken(mem::PackedChain::load(context, file));
    expectItems(taken(good.unpack(kItems)));
    mem::PackedChain chain = taken(mem::PackedChain::load(context, file));
    EXPECT_EQ(failure(chain.unpack(kLonger)),
              "PackedChain::unpack failed: the chain describes other structures");
  }
}

// Each number of the control block decides: one that differs is refused, by the library or here.
TEST_F(ChainOwnerTest, ComparesEveryNumberOfTheControlBlock) {
  const std::vector<std::byte> file = packedFile();
  constexpr std::size_t kControlBlock = 6;
  const std::size_t item = kControlBlock + 2;
  for (const std::size_t at :
       {kControlBlock, item, item + 2, item + 4, item + 6, item + 8, item + 10, item + 12,
        item + 14, item + 16, item + 106, item + 122, item + 2 * 122}) {
    std::vector<std::byte> changed = file;
    changed[at] = static_cast<std::byte>(std::to_integer<int>(changed[at]) ^ 1);
    mem::PackedChain chain = taken(mem::PackedChain::load(context, changed));
    EXPECT_FALSE(chain.unpack(kItems).isOk()) << at;
  }
}

// EBCDIC's "F" in a little-endian chain: such segments have their own length at their start.
TEST_F(ChainOwnerTest, RefusesEbcdicLettersOfLittleEndianWriters) {
  struct Told {
    std::uint64_t length;
    const char *pText;
  };
  constexpr auto kTold = mem::packTable(mem::segment<Told>(mem::child(MEM_FIELD(Told, pText))));
  const Told from{2, "text"};
  std::vector<std::byte> file = fileOf(taken(mem::PackedChain::pack(context, kTold, from)));
  file[6 + 2] = std::byte{0xC6};
  mem::PackedChain chain = taken(mem::PackedChain::load(context, file));
  EXPECT_EQ(failure(chain.unpack(kTold)),
            "PackedChain::unpack failed: the chain describes other structures");
}

TEST_F(ChainOwnerTest, RefusesBytesThatAreNoChain) {
  const auto refused = [&](std::vector<std::byte> bytes) {
    const auto chain = mem::PackedChain::load(context, bytes);
    return std::string(chain.isOk() ? "loaded" : chain.error().nameText());
  };
  std::vector<std::byte> file = packedFile(997);
  EXPECT_EQ(refused({}), "it is too short");
  EXPECT_EQ(refused({file.begin(), file.begin() + 5}), "it is too short");
  EXPECT_EQ(refused({file.begin(), file.begin() + 6}), "wrong length of block 0");
  EXPECT_EQ(refused({file.begin(), file.end() - 1}), "wrong length of block 1");
  file.push_back(std::byte{2});
  EXPECT_EQ(refused(file), "wrong length of block 2");
  file.push_back(std::byte{0});
  EXPECT_EQ(refused(file), "loaded");
  file.back() = file.end()[-2] = std::byte{0};
  EXPECT_EQ(refused(file), "wrong length of block 2");
}

TEST_F(ChainOwnerTest, LackOfStorageLeavesNothing) {
  const std::vector<std::byte> file = packedFile(997);
  const std::uint64_t before = host.account().liveCount;
  const std::uint64_t failing = sweepFaults(host, faultOf(Service::GetStorage), [&](std::uint64_t) {
    {
      auto chain = mem::PackedChain::load(context, file);
      if (chain.isOk()) {
        static_cast<void>(chain.value().unpack(kItems));
      } else {
        EXPECT_FALSE(chain.error().isRefusal());
        EXPECT_STREQ(chain.error().service(), "MEM_Alloc");
      }
    }
    EXPECT_EQ(host.account().liveCount, before);
  });
  EXPECT_GE(failing, 2U);
}

TEST_F(ChainOwnerTest, FailedPackReturnsItsBlocks) {
  Item stranger{};
  items[1].pOther = &stranger;
  const std::uint64_t before = host.account().liveCount;
  const auto chain = mem::PackedChain::pack(context, kItems, items[0], 997);
  EXPECT_EQ(codeOf(chain), MEMERR_PACKSPTR);
  EXPECT_EQ(host.account().liveCount, before);
}

// A host whose platform flag is set marks chains as a big-endian writer's, whatever it runs on.
TEST(MarkedChainTest, KnowsItsOwnBlocksUnderThePlatformFlag) {
  refhost::Options options;
  options.bigEndian = true;
  refhost::Session session(library().bindEntry(), options);
  const mem::Context context = mem::contextOf(session.host());
  const Item item{nullptr, "name", u"title", nullptr};
  const mem::PackedChain chain = taken(mem::PackedChain::pack(context, kItems, item));
  EXPECT_EQ(chain.size().blocks, 1U);
  EXPECT_EQ(chain.size().bytes, chain.handle().pFirst->UsedLen);
}

// --- Port strings ------------------------------------------------------------------------------

class PortOwnerTest : public ConvenienceTest {
 protected:
  PortOwnerTest() {
    nodes[0].pNext = &nodes[1];
    nodes[1].pNext = &nodes[0];
  }

  static std::string textOf(const mem::PortString &string) {
    std::string text;
    for (const std::string_view piece : string) text += piece;
    return text;
  }

  mem::PortString written(std::int32_t chunkLen = 0) {
    return taken(mem::PortString::write(context, kNodes, nodes[0], {}, chunkLen));
  }

  static void expectNodes(const Node *first) {
    EXPECT_STREQ(first->pName, "first");
    EXPECT_EQ(first->leaf.id, 305U);
    EXPECT_STREQ(first->pNext->pName, "second");
    EXPECT_EQ(first->pNext->pNext, first);
  }

  std::array<Node, 2> nodes{{{nullptr, "first", {305}}, {nullptr, "second", {0}}}};
};

constexpr char kNodeText[] =
    "(0000000087,0000000002)(21<1S2/2X5\"first\"/3E(7<1N503>)>)(21<1S1/2X6\"second\"/3E(7<1N>)>)";

TEST_F(PortOwnerTest, WritesInPieces) {
  for (const std::int32_t chunkLen : {0, 23, 30}) {
    const mem::PortString string = written(chunkLen);
    EXPECT_EQ(textOf(string), kNodeText);
    EXPECT_EQ(string.length(), sizeof kNodeText - 1);
    EXPECT_EQ(string.structId(), 12U);
  }
}

// The range of a loop lives as long as the loop, but not the temporary that it comes from.
TEST_F(PortOwnerTest, IsGoneThroughWhereItIsWritten) {
  std::string text;
  for (const std::string_view piece :
       mem::PortString::write(context, kNodes, nodes[0], {}, 30).value()) {
    text += piece;
  }
  EXPECT_EQ(text, kNodeText);
}

TEST_F(PortOwnerTest, IsEmptyAfterMoveAndClose) {
  const std::uint64_t before = host.account().liveCount;
  mem::PortString first = written();
  mem::PortString second = std::move(first);
  EXPECT_FALSE(first.isOpen());
  EXPECT_EQ(first.length(), 0U);
  EXPECT_EQ(first.firstChunk(), nullptr);
  EXPECT_EQ(textOf(first), "");
  EXPECT_EQ(textOf(second), kNodeText);
  first = std::move(second);
  EXPECT_EQ(textOf(first), kNodeText);
  first = written(30);
  EXPECT_EQ(textOf(first), kNodeText);
  expectOk(first.close());
  EXPECT_EQ(textOf(first), "");
  EXPECT_EQ(host.account().liveCount, before);
}

TEST_F(PortOwnerTest, ReadsTextAndStringIntoEitherHeap) {
  mem::Heap heap = taken(mem::Heap::open(context));
  mem::EnhancedHeap enhanced = taken(mem::EnhancedHeap::open(context));
  const mem::PortString string = written(23);
  expectNodes(taken(mem::readPortString<Node>(context, heap, kNodes, kNodeText)));
  expectNodes(taken(mem::readPortString<Node>(context, enhanced, kNodes, kNodeText)));
  expectNodes(taken(mem::readPortString<Node>(context, heap, kNodes, string)));
  expectNodes(taken(mem::readPortString<Node>(context, enhanced, kNodes, string)));
}

TEST_F(PortOwnerTest, RefusesAnotherTopLevelStructure) {
  mem::Heap heap = taken(mem::Heap::open(context));
  constexpr char kRefused[] = "MEM_Port1StrToStruct failed: the text begins with another structure";
  const auto read = [&](std::string_view text) {
    return failure(mem::readPortString<Leaf>(context, heap, kNodes, text));
  };
  EXPECT_EQ(read("(0000000031,0000000001)(7<1N1>)"), "succeeded");
  EXPECT_EQ(read(kNodeText), kRefused);
  for (const char *text : {"", "(0000000031,0000000001)", "(0000000031,0000000001)(7",
                           "(0000000031,0000000001)(71<1N1>)", "(0000000031,0000000001)(70<1N1>)",
                           "(0000000031,0000000001)[7<1N1>)"}) {
    EXPECT_EQ(read(text), kRefused) << text;
  }
  EXPECT_EQ(failure(mem::readPortString<Leaf>(context, heap, kNodes, written())),
            "MEM_PortStrToStruct failed: the text begins with another structure");
}

// The reader's last record, as long as nothing is traced over it.
TEST_F(PortOwnerTest, FailuresCarryReasonAndPlace) {
  mem::Heap heap = taken(mem::Heap::open(context));
  const auto read = [&](std::string_view text) {
    return mem::readPortString<Leaf>(context, heap, kNodes, text);
  };
  const auto broken = read("(0000000031,0000000001)(7<1X1>)");
  EXPECT_EQ(failure(broken),
            "MEM_Port1StrToStruct failed: Field conversion failed! (at character 28)");
  EXPECT_STREQ(broken.error().reasonText(), "Field conversion failed!");
  EXPECT_EQ(broken.error().position(), 28);
  EXPECT_STREQ(broken.error().readText(), "(0000000031,0000000001)(7<1X");
  EXPECT_STREQ(broken.error().nextText(), "1>)");

  // No record of this call, and none of an earlier one.
  const auto silent = read("(0000000031,0000000009)(7<1N>)");
  EXPECT_STREQ(silent.error().reasonText(), "End of port string reached!");
  const auto headless = read("(0000000031,9999999999)(7<1N>)");
  EXPECT_EQ(failure(headless), "MEM_Port1StrToStruct failed: result -1 without a code");
  EXPECT_EQ(headless.error().position(), -1);

  // Texts that look like parts of a record.
  const auto misleading = read("(0000000031,0000000001)(7<1N/6\nNext:x\nRead:");
  EXPECT_FALSE(misleading.isOk());

  Leaf leaf{5};
  const auto unknown = mem::PortString::write(context, kNodes.table(), 13, &leaf);
  EXPECT_EQ(failure(unknown), "MEM_StructToPortStr failed: No such StructID:13!");
  EXPECT_EQ(unknown.error().position(), -1);

  const mem::Context blind(mem, nullptr);
  EXPECT_EQ(
      failure(mem::readPortString<Leaf>(blind, heap, kNodes, "(0000000031,0000000001)(7<1X1>)")),
      "MEM_Port1StrToStruct failed: result -1 without a code");
}

TEST_F(PortOwnerTest, TracingTakesThePlaceOfTheReason) {
  mem::Heap heap = taken(mem::Heap::open(context));
  host.setTraceFlags(MEM_TRACE_EXIT);
  EXPECT_EQ(
      failure(mem::readPortString<Leaf>(context, heap, kNodes, "(0000000031,0000000001)(7<1X1>)")),
      "MEM_Port1StrToStruct failed: result -1 without a code");
  host.setTraceFlags(0);
}

TEST_F(PortOwnerTest, LackOfStorageLeavesNothing) {
  const std::uint64_t before = host.account().liveCount;
  const std::uint64_t failing = sweepFaults(host, faultOf(Service::GetStorage), [&](std::uint64_t) {
    {
      const std::uint64_t fired = host.faultsFired();
      const auto string = mem::PortString::write(context, kNodes, nodes[0]);
      EXPECT_EQ(string.isOk(), host.faultsFired() == fired);
    }
    host.disarm();
    returnHashTables(host);
    EXPECT_EQ(host.account().liveCount, before);
  });
  EXPECT_GE(failing, 3U);
}

TEST_F(PortOwnerTest, UnknownStructureIsAFailureWithoutACode) {
  const auto string = mem::PortString::write(context, kNodes.table(), 13, &nodes[0]);
  ASSERT_FALSE(string.isOk());
  EXPECT_EQ(string.error().code(), 0U);
  EXPECT_EQ(string.error().result(), kFailed);
}

}  // namespace
}  // namespace memtest
