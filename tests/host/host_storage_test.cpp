// Storage of the reference host: account, misuse, protection and storage check.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>

#include "refhost.hpp"

namespace {

using refhost::Service;

class HostStorageTest : public ::testing::Test {
 protected:
  explicit HostStorageTest(refhost::Options options = {}) : host_(options) {}

  ~HostStorageTest() override { EXPECT_TRUE(host_.takeMisuses().empty()); }

  unsigned char *get(std::uint32_t length, std::uint16_t subPool = 5, std::uint16_t kind = 1) {
    void *area = nullptr;
    EXPECT_EQ(host_.runtime().GetStorage(&area, length, subPool, kind), 0);
    return static_cast<unsigned char *>(area);
  }

  void free(void *area, std::uint32_t length, std::uint16_t subPool = 5) {
    host_.runtime().FreeStorage(area, length, subPool);
  }

  // The one misuse reported since the last look.
  std::string misuse(Service service) {
    const auto misuses = host_.takeMisuses();
    if (misuses.size() != 1) return std::to_string(misuses.size()) + " misuses";
    EXPECT_EQ(misuses[0].service, service);
    return misuses[0].what;
  }

  refhost::Host host_;
};

bool holdsOnly(const unsigned char *area, std::size_t length, unsigned char byte) {
  return std::all_of(area, area + length, [byte](unsigned char b) { return b == byte; });
}

bool contains(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

TEST_F(HostStorageTest, AccountFollowsEverySubpoolAndKind) {
  unsigned char *const a = get(100, 5, 1);
  unsigned char *const b = get(50, 5, 2);
  unsigned char *const c = get(7, 6, 1);
  free(a, 100, 5);

  const refhost::Account kind1 = host_.account(5, 1);
  EXPECT_EQ(kind1.liveBytes, 0U);
  EXPECT_EQ(kind1.liveCount, 0U);
  EXPECT_EQ(kind1.peakBytes, 100U);
  EXPECT_EQ(kind1.totalBytes, 100U);
  EXPECT_EQ(kind1.totalCount, 1U);

  const refhost::Account pool5 = host_.account(5);
  EXPECT_EQ(pool5.liveBytes, 50U);
  EXPECT_EQ(pool5.peakBytes, 150U);
  EXPECT_EQ(pool5.totalCount, 2U);

  const refhost::Account all = host_.account();
  EXPECT_EQ(all.liveBytes, 57U);
  EXPECT_EQ(all.liveCount, 2U);
  EXPECT_EQ(all.peakBytes, 157U);
  EXPECT_EQ(host_.account(99).totalCount, 0U);
  EXPECT_EQ(host_.account(5, 0).totalCount, 0U);

  free(b, 50, 5);
  free(c, 7, 6);
}

TEST_F(HostStorageTest, PoolServicesHaveTheirOwnKind) {
  void *area = nullptr;
  ASSERT_EQ(host_.runtime().GetPoolStorage(1, 3248, &area), 0);
  EXPECT_EQ(host_.account(1, refhost::kPoolKind).liveBytes, 3248U);
  EXPECT_TRUE(holdsOnly(static_cast<unsigned char *>(area), 3248, 0));
  host_.runtime().FreePoolStorage(1, area);
  EXPECT_EQ(host_.account(1).liveCount, 0U);
}

TEST_F(HostStorageTest, ReportsNameSubpoolKindAndLength) {
  unsigned char *const a = get(100, 5, 2);
  void *pool = nullptr;
  host_.runtime().GetPoolStorage(1, 24, &pool);

  const auto leaks = host_.leaks();
  ASSERT_EQ(leaks.size(), 2U);
  const std::string report = host_.leakReport();
  EXPECT_TRUE(contains(report, refhost::formatText("%p: 100 bytes of subpool 5, kind 2\n", a)))
      << report;
  EXPECT_TRUE(contains(report, refhost::formatText("%p: 24 bytes of subpool 1, kind pool\n", pool)))
      << report;
  EXPECT_TRUE(contains(host_.accountReport(), "      5     2           100           1"))
      << host_.accountReport();

  free(a, 100);
  host_.runtime().FreePoolStorage(1, pool);
  EXPECT_EQ(host_.leakReport(), "");
}

TEST_F(HostStorageTest, StorageIsZeroFilledUnlessDirtyIsAskedFor) {
  unsigned char *const clean = get(200);
  EXPECT_TRUE(holdsOnly(clean, 200, 0));
  host_.setDirtyStorage(true);
  unsigned char *const dirty = get(200);
  EXPECT_TRUE(holdsOnly(dirty, 200, 0xA5));
  unsigned char *const dirtyPages = get(0x44000, refhost::kProtectedSubPool, 0);
  EXPECT_TRUE(holdsOnly(dirtyPages, 0x44000, 0xA5));
  free(clean, 200);
  free(dirty, 200);
  free(dirtyPages, 0x44000, refhost::kProtectedSubPool);
}

TEST(HostDirtyStorage, IsAnOptionWithAByteOfChoice) {
  refhost::Host host({.dirtyStorage = true, .dirtyByte = 0x11});
  void *area = nullptr;
  ASSERT_EQ(host.runtime().GetPoolStorage(3, 64, &area), 0);
  EXPECT_TRUE(holdsOnly(static_cast<unsigned char *>(area), 64, 0x11));
  host.runtime().FreePoolStorage(3, area);
}

TEST_F(HostStorageTest, AreasAreAligned) {
  for (const std::uint32_t length : {1U, 7U, 24U, 100U}) {
    unsigned char *const area = get(length);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(area) % 16, 0U);
    free(area, length);
  }
  for (const std::uint16_t subPool : {refhost::kProtectedSubPool, std::uint16_t{5}}) {
    unsigned char *const area = get(refhost::kPagedLength, subPool, 0);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(area) % 4096, 0U);
    free(area, refhost::kPagedLength, subPool);
  }
}

TEST_F(HostStorageTest, EmptyAreasHaveAddressesOfTheirOwn) {
  std::set<unsigned char *> areas;
  for (int i = 0; i < 10; ++i) areas.insert(get(0));
  areas.insert(get(0, refhost::kProtectedSubPool, 0));
  EXPECT_EQ(areas.size(), 11U);
  EXPECT_EQ(host_.account().liveCount, 11U);
  EXPECT_EQ(host_.account().liveBytes, 0U);
  for (const refhost::Leak &leak : host_.leaks()) free(leak.area, 0, leak.subPool);
}

TEST_F(HostStorageTest, RequestsBeyondTheLimitFail) {
  void *area = nullptr;
  EXPECT_EQ(host_.runtime().GetStorage(&area, refhost::kMaxStorage + 1, 5, 1), refhost::kNoStorage);
  EXPECT_EQ(host_.runtime().GetPoolStorage(5, 0xFFFFFFFF, &area), refhost::kNoStorage);
  EXPECT_EQ(area, nullptr);
  EXPECT_EQ(host_.account().totalCount, 0U);
  EXPECT_EQ(host_.thread().Error.Code, refhost::kNoStorage);
  EXPECT_STREQ(host_.thread().Error.NameText, "GetPoolStorage");
}

TEST_F(HostStorageTest, UnknownKindIsRefused) {
  void *area = nullptr;
  EXPECT_EQ(host_.runtime().GetStorage(&area, 8, 5, 3), refhost::kBadArgument);
  EXPECT_EQ(area, nullptr);
  EXPECT_EQ(misuse(Service::GetStorage), "storage kind 3 is not known: it must be 0, 1 or 2");
}

TEST_F(HostStorageTest, WrongReturnsAreReportedOnceEach) {
  unsigned char *area = get(100);
  free(area, 99);
  EXPECT_TRUE(contains(misuse(Service::FreeStorage), "with length 100, freed with 99"));
  area = get(100);
  free(area, 100, 6);
  EXPECT_TRUE(contains(misuse(Service::FreeStorage), "in subpool 5, freed in 6"));
  area = get(100);
  free(area, 100);
  free(area, 100);
  EXPECT_TRUE(contains(misuse(Service::FreeStorage), "is not a live area"));
  area = get(100);
  free(area + 16, 84);
  EXPECT_TRUE(contains(misuse(Service::FreeStorage), "is not a live area"));
  free(area, 100);
  free(nullptr, 0);
  EXPECT_TRUE(contains(misuse(Service::FreeStorage), "is not a live area"));
  EXPECT_EQ(host_.leakReport(), "");
}

TEST_F(HostStorageTest, EachPairOfServicesTakesBackItsOwnStorageOnly) {
  unsigned char *const area = get(100);
  host_.runtime().FreePoolStorage(5, area);
  EXPECT_TRUE(contains(misuse(Service::FreePoolStorage),
                       "was allocated with GetStorage, free it with FreeStorage"));
  void *pool = nullptr;
  host_.runtime().GetPoolStorage(5, 100, &pool);
  free(pool, 100);
  EXPECT_TRUE(contains(misuse(Service::FreeStorage),
                       "was allocated with GetPoolStorage, free it with FreePoolStorage"));
  host_.runtime().GetPoolStorage(5, 100, &pool);
  host_.runtime().FreePoolStorage(6, pool);
  EXPECT_TRUE(contains(misuse(Service::FreePoolStorage), "in subpool 5, freed in 6"));
  host_.runtime().FreePoolStorage(5, pool);
  EXPECT_TRUE(contains(misuse(Service::FreePoolStorage), "is not a live area"));
}

TEST_F(HostStorageTest, CheckAcceptsRangesInsideOneArea) {
  unsigned char *const area = get(100);
  const auto check = [this](const void *at, std::uint32_t length) {
    return host_.runtime().CheckStorage(at, length);
  };
  EXPECT_EQ(check(area, 100), 0);
  EXPECT_EQ(check(area + 99, 1), 0);
  EXPECT_EQ(check(area + 100, 0), 0);
  EXPECT_EQ(check(area, 101), refhost::kNotStorage);
  EXPECT_EQ(check(area + 100, 1), refhost::kNotStorage);
  EXPECT_EQ(check(area + 1, 0xFFFFFFFF), refhost::kNotStorage);
  EXPECT_EQ(check(area - 1, 2), refhost::kNotStorage);
  EXPECT_EQ(check(nullptr, 1), refhost::kNotStorage);
  free(area, 100);
  EXPECT_EQ(check(area, 1), refhost::kNotStorage);
}

class HostProtectionTest : public HostStorageTest {
 protected:
  static constexpr std::uint16_t kSubPool = refhost::kProtectedSubPool;
  static constexpr std::uint32_t kLength = 0x44000;

  HostProtectionTest() : area_(get(kLength, kSubPool, 0)) {}
  ~HostProtectionTest() override { free(area_, kLength, kSubPool); }

  std::uint16_t protect(void *at, std::uint32_t length, std::uint16_t mode) {
    return host_.runtime().ProtectStorage(at, length, kSubPool, mode);
  }

  unsigned char *const area_;
};

TEST_F(HostProtectionTest, CheckRefusesReadOnlyPages) {
  const auto check = [this](std::uint32_t offset, std::uint32_t length) {
    return host_.runtime().CheckStorage(area_ + offset, length);
  };
  ASSERT_EQ(protect(area_ + 0x10000, 0x10000, MEM_PROTECT_READ_ONLY), 0);
  EXPECT_EQ(check(0, 0x10000), 0);
  EXPECT_EQ(check(0, 0x10001), refhost::kNotStorage);
  EXPECT_EQ(check(0x1FFFF, 1), refhost::kNotStorage);
  EXPECT_EQ(check(0x20000, kLength - 0x20000), 0);
  EXPECT_EQ(check(0x10000, 0), 0);
  ASSERT_EQ(protect(area_ + 0x10000, 0x10000, MEM_PROTECT_WRITABLE), 0);
  EXPECT_EQ(check(0, kLength), 0);
}

TEST_F(HostProtectionTest, CoversAllPagesThatTheRangeTouches) {
  ASSERT_EQ(protect(area_ + 16384, 0x40000, MEM_PROTECT_READ_ONLY), 0);
  EXPECT_FALSE(host_.isReadOnly(area_));
  EXPECT_FALSE(host_.isReadOnly(area_ + 16383));
  EXPECT_TRUE(host_.isReadOnly(area_ + 16384));
  EXPECT_TRUE(host_.isReadOnly(area_ + kLength - 1));

  ASSERT_EQ(protect(area_ + 16384 + 0x10000 - 2, 4, MEM_PROTECT_WRITABLE), 0);
  area_[16384 + 0x10000 - 2] = 'a';
  area_[16384 + 0x10000 + 1] = 'b';
  EXPECT_TRUE(host_.isReadOnly(area_ + 16384));
  EXPECT_FALSE(host_.isReadOnly(area_ + 16384 + 0x10000 - 1));
  EXPECT_FALSE(host_.isReadOnly(area_ + 16384 + 0x10000));
  EXPECT_TRUE(host_.isReadOnly(area_ + 16384 + 0x20000));

  ASSERT_EQ(protect(area_ + 16384, 0x40000, MEM_PROTECT_WRITABLE), 0);
  std::memset(area_, 0x33, kLength);
}

TEST_F(HostProtectionTest, AnAreaMayBeReturnedWhileItIsProtected) {
  unsigned char *const other = get(kLength, kSubPool, 0);
  ASSERT_EQ(protect(other, kLength, MEM_PROTECT_READ_ONLY), 0);
  free(other, kLength, kSubPool);
  EXPECT_FALSE(host_.isReadOnly(other));
}

TEST_F(HostProtectionTest, AnEmptyRangeChangesNothing) {
  ASSERT_EQ(protect(area_, 0, MEM_PROTECT_READ_ONLY), 0);
  EXPECT_FALSE(host_.isReadOnly(area_));
}

TEST_F(HostProtectionTest, WrongRangesAndModesAreRefused) {
  EXPECT_EQ(protect(area_ + 1, kLength, MEM_PROTECT_READ_ONLY), refhost::kNotStorage);
  EXPECT_EQ(protect(nullptr, 1, MEM_PROTECT_READ_ONLY), refhost::kNotStorage);
  EXPECT_EQ(host_.thread().Error.Code, refhost::kNotStorage);
  unsigned char *const small = get(100);
  EXPECT_EQ(host_.runtime().ProtectStorage(small, 100, 5, MEM_PROTECT_READ_ONLY),
            refhost::kNotProtectable);
  free(small, 100);
  EXPECT_TRUE(host_.takeMisuses().empty());

  EXPECT_EQ(protect(area_, 1, 17), refhost::kBadArgument);
  EXPECT_EQ(misuse(Service::ProtectStorage),
            "protection mode 17 is not known: it must be 16 or 32");
  EXPECT_EQ(host_.runtime().ProtectStorage(area_, 1, 5, MEM_PROTECT_READ_ONLY),
            refhost::kBadArgument);
  EXPECT_TRUE(contains(misuse(Service::ProtectStorage), " is not in subpool 5"));
  EXPECT_FALSE(host_.isReadOnly(area_));
}

using HostProtectionDeathTest = HostProtectionTest;

TEST_F(HostProtectionDeathTest, WritingToProtectedStorageFaults) {
  volatile unsigned char *const target = area_ + 16384;
  ASSERT_EQ(protect(area_ + 16384, 0x40000, MEM_PROTECT_READ_ONLY), 0);
  EXPECT_EQ(*target, 0);
  EXPECT_DEATH(*target = 1, "");
}

}  // namespace
