// Heaps and cell pools under the standard library's containers.
#include <array>
#include <cstdint>
#include <limits>
#include <map>
#include <memory_resource>
#include <new>
#include <string>
#include <vector>

#include "conveniencetest.hpp"
#include "randomrun.hpp"

namespace memtest {
namespace {

using refhost::Service;

constexpr std::uint16_t kSubPool = 7;

class ResourceTest : public ConvenienceTest {
 protected:
  ~ResourceTest() override { host.restoreSlots(); }

  std::uint64_t liveBytes() { return host.account(kSubPool).liveBytes; }

  template <class HeapType>
  HeapType openHeap() {
    return taken(HeapType::open(context, {.areaKb = 4, .subPool = kSubPool}));
  }
};

template <class HeapType>
class HeapResourceTest : public ResourceTest {};
using HeapTypes = ::testing::Types<mem::Heap, mem::EnhancedHeap>;
TYPED_TEST_SUITE(HeapResourceTest, HeapTypes);

TYPED_TEST(HeapResourceTest, VectorAndMapLiveInAHeap) {
  TypeParam heap = this->template openHeap<TypeParam>();
  {
    mem::HeapResource resource(heap);
    std::pmr::vector<std::uint64_t> numbers(&resource);
    std::pmr::map<std::uint64_t, std::pmr::string> names(&resource);
    for (std::uint64_t i = 0; i < 5000; ++i) {
      numbers.push_back(i * i);
      names.emplace(i * i, std::string(i % 100, 'n'));
    }
    EXPECT_GT(this->liveBytes(), 5000 * (8 + 32 + 50));
    for (std::uint64_t i = 0; i < 5000; ++i) {
      ASSERT_EQ(numbers[i], i * i);
      ASSERT_EQ(names.at(i * i).size(), i % 100);
    }
  }
  expectOk(heap.close());
  EXPECT_EQ(this->liveBytes(), 0U);
}

// A container that is not destroyed costs nothing once the heap is closed.
TYPED_TEST(HeapResourceTest, ClosingTheHeapReturnsWhatContainersHold) {
  TypeParam heap = this->template openHeap<TypeParam>();
  mem::HeapResource resource(heap);
  using Names = std::pmr::vector<std::pmr::string>;
  Names *const names = new (taken(heap.allocate(sizeof(Names)))) Names(&resource);
  names->assign(100, std::pmr::string(1000, 'n', &resource));
  expectOk(heap.close());
  EXPECT_EQ(this->liveBytes(), 0U);
}

TYPED_TEST(HeapResourceTest, AlignsAsItIsAsked) {
  struct alignas(64) Line {
    std::uint8_t bytes[64];
  };
  TypeParam heap = this->template openHeap<TypeParam>();
  mem::HeapResource resource(heap);
  for (std::size_t alignment = 1; alignment <= 4096; alignment *= 2) {
    for (const std::size_t length : {std::size_t{0}, std::size_t{1}, std::size_t{24}}) {
      void *const area = resource.allocate(length, alignment);
      EXPECT_EQ(asNumber(area) % alignment, 0U) << alignment;
      std::memset(area, 0xEE, length);
      resource.deallocate(area, length, alignment);
    }
  }
  std::pmr::vector<Line> lines(&resource);
  for (std::uint8_t i = 0; i < 50; ++i) {
    lines.push_back({{i}});
    ASSERT_EQ(asNumber(lines.data()) % 64, 0U);
  }
  EXPECT_EQ(lines[49].bytes[0], 49);
}

TYPED_TEST(HeapResourceTest, LackOfStorageThrowsAndChangesNothing) {
  TypeParam heap = this->template openHeap<TypeParam>();
  mem::HeapResource resource(heap);
  std::pmr::vector<int> numbers({1, 2, 3}, &resource);
  this->host.arm(faultOf(Service::GetStorage));
  EXPECT_THROW(numbers.resize(100000), std::bad_alloc);
  EXPECT_EQ(numbers, (std::pmr::vector<int>{1, 2, 3}));
  constexpr std::size_t kMost = std::numeric_limits<std::int32_t>::max();
  for (const std::size_t alignment : {kMost + 1, 2 * (kMost + 1)}) {
    EXPECT_THROW(static_cast<void>(resource.allocate(16, alignment)), std::bad_alloc);
  }
  for (const std::size_t length : {kMost, kMost + 1, std::numeric_limits<std::size_t>::max()}) {
    EXPECT_THROW(static_cast<void>(resource.allocate(length)), std::bad_alloc);
  }
}

TYPED_TEST(HeapResourceTest, IsEqualToItselfOnly) {
  TypeParam heap = this->template openHeap<TypeParam>();
  const mem::HeapResource first(heap);
  const mem::HeapResource second(heap);
  EXPECT_EQ(first, first);
  EXPECT_NE(first, second);
}

// A container frees every entry that it takes from an enhanced heap, with the length that it took.
using EnhancedHeapResourceTest = ResourceTest;

std::map<void *, std::int32_t> entries;
MEM_EHeapAllocEntryFn *allocateEntry = nullptr;
MEM_EHeapFreeEntryFn *freeEntry = nullptr;

TEST_F(EnhancedHeapResourceTest, TakesEntriesBack) {
  allocateEntry = mem.MEM_EHeapAllocEntry;
  freeEntry = mem.MEM_EHeapFreeEntry;
  mem.MEM_EHeapAllocEntry = [](HMEMHEAP heap, std::int32_t length, void **ppEntry) {
    const std::int16_t result = allocateEntry(heap, length, ppEntry);
    if (result == 0) entries[*ppEntry] = length;
    return result;
  };
  mem.MEM_EHeapFreeEntry = [](HMEMHEAP heap, std::int32_t length, void *pEntry) {
    EXPECT_EQ(entries.count(pEntry), 1U);
    EXPECT_EQ(entries[pEntry], length);
    entries.erase(pEntry);
    return freeEntry(heap, length, pEntry);
  };
  mem::EnhancedHeap heap = openHeap<mem::EnhancedHeap>();
  mem::HeapResource resource(heap);
  {
    std::pmr::map<int, std::pmr::string> names(&resource);
    for (int i = 0; i < 200; ++i) names.emplace(i, std::string(100, 'n'));
    for (int i = 0; i < 200; i += 2) names.erase(i);
    EXPECT_GE(entries.size(), 200U);
    resource.deallocate(resource.allocate(100, 64), 100, 64);
    resource.deallocate(resource.allocate(0), 0);
  }
  EXPECT_TRUE(entries.empty());
}

// --- Cells -------------------------------------------------------------------------------------

struct Cell {
  std::uint64_t words[8];  // room for a map's node
};

class CellResourceTest : public ResourceTest {
 protected:
  mem::CellPool<Cell> pool =
      taken(mem::CellPool<Cell>::open(context, {.areaLen = 4096, .subPool = kSubPool}));
};

TEST_F(CellResourceTest, HoldsWhatAMapHolds) {
  mem::CellResource resource(pool);
  std::pmr::map<std::uint32_t, std::uint64_t> map(&resource);
  std::map<std::uint32_t, std::uint64_t> model;
  Random random(firstSeed(7500000));
  for (int step = 0; step < 20000; ++step) {
    const auto key = static_cast<std::uint32_t>(random.below(500));
    if (random.oneIn(2)) {
      map[key] = model[key] = random.bits();
    } else {
      EXPECT_EQ(map.erase(key), model.erase(key));
    }
  }
  EXPECT_TRUE(std::equal(map.begin(), map.end(), model.begin(), model.end()));
  map.clear();
  expectOk(pool.close());
  EXPECT_EQ(liveBytes(), 0U);
}

TEST_F(CellResourceTest, CellsServeAgainAtOnce) {
  mem::CellResource resource(pool);
  std::pmr::map<int, int> map(&resource);
  for (int i = 0; i < 100; ++i) map[i] = i;
  const std::uint64_t before = liveBytes();
  for (int round = 0; round < 50; ++round) {
    map.clear();
    for (int i = 0; i < 100; ++i) map[i] = round;
  }
  EXPECT_EQ(liveBytes(), before);
}

TEST_F(CellResourceTest, OtherRequestsGoUpstream) {
  mem::Heap heap = openHeap<mem::Heap>();
  mem::HeapResource upstream(heap);
  mem::CellResource resource(pool, &upstream);
  using Resource = mem::CellResource<Cell>;
  static_assert(Resource::isCell(64, 8) && Resource::isCell(0, 1));
  static_assert(!Resource::isCell(65, 8) && !Resource::isCell(16, 16));
  std::pmr::vector<std::uint64_t> numbers(&resource);
  for (std::uint64_t i = 0; i < 1000; ++i) numbers.push_back(i);
  EXPECT_EQ(numbers[999], 999U);

  mem::CellResource alone(pool);
  EXPECT_THROW(static_cast<void>(alone.allocate(65)), std::bad_alloc);
  EXPECT_NO_THROW(alone.deallocate(alone.allocate(64, 8), 64, 8));
}

// Cells of 12 bytes are at multiples of 4.
TEST_F(CellResourceTest, CellsAreAlignedAsTheirLengthAllows) {
  using Twelve = mem::CellResource<std::array<std::uint32_t, 3>>;
  static_assert(Twelve::isCell(12, 4) && !Twelve::isCell(8, 8));
  using Small = mem::CellResource<char>;
  static_assert(Small::isCell(8, 8));
}

TEST_F(CellResourceTest, LackOfStorageThrows) {
  mem::CellResource resource(pool);
  std::pmr::map<int, int> map(&resource);
  host.arm(faultOf(Service::GetStorage));
  EXPECT_THROW(
      {
        for (int i = 0; i < 1000; ++i) map[i] = i;
      },
      std::bad_alloc);
  for (const auto &[key, value] : map) EXPECT_EQ(key, value);
}

}  // namespace
}  // namespace memtest
