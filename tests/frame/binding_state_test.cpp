// What binding keeps and unbinding forgets. Most of it cannot be seen through the vector, so this
// program links the library's objects and looks at the kept state itself.

#include <cstddef>
#include <initializer_list>
#include <iterator>

#include "binding/entrypoints.h"
#include "frame/hostaccess.h"
#include "memtest.hpp"

namespace memtest {
namespace {

Bytes keptBytes() {
  return bytesOf(&memlib::binding, sizeof memlib::binding);
}

class BindingStateTest : public ::testing::Test {
 protected:
  BindingStateTest() {
    for (std::size_t i = 0; i < std::size(hostCells); ++i) {
      hostCells[i] = &targets[i];
      hostList[i] = &hostCells[i];
    }
    for (std::size_t i = 0; i < std::size(serviceCells); ++i) {
      serviceCells[i] = &targets[std::size(hostCells) + i];
      serviceList[i] = &serviceCells[i];
    }
    hostCells[MEM_HOST_RUNTIME] = &host.runtime();
    hostCells[MEM_HOST_TRACE] = &host.trace();
    hostCells[MEM_HOST_TEXT] = &host.text();
    hostCells[MEM_HOST_VECTOR] = &host.vector();
  }

  ~BindingStateTest() override { ENV_FWV_V00M00_GFunc(nullptr, nullptr, nullptr, 0, 0); }

  void bind(std::uint32_t sysFlags) {
    ENV_FWV_V00M00_GFunc(hostList, serviceList, &host.sysEnv(), sysFlags, MEM_MODE_BIND);
  }

  refhost::Host host;
  std::uint64_t targets[MEM_HOST_VECTORS + MEM_SERVICE_VECTORS] = {};
  void *hostCells[MEM_HOST_VECTORS];
  void *serviceCells[MEM_SERVICE_VECTORS];
  void **hostList[MEM_HOST_VECTORS];
  void **serviceList[MEM_SERVICE_VECTORS];
};

TEST_F(BindingStateTest, NothingIsKeptBeforeTheFirstBind) {
  EXPECT_EQ(changedRanges(Bytes(sizeof memlib::binding), keptBytes()), "");
}

TEST_F(BindingStateTest, BindKeepsAll80VectorsAndBothArguments) {
  bind(0x89ABCDEFU);
  EXPECT_EQ(memlib::binding.SysFlags, 0x89ABCDEFU);
  EXPECT_EQ(memlib::binding.pSysEnv, &host.sysEnv());
  for (std::size_t i = 0; i < std::size(hostCells); ++i) {
    EXPECT_EQ(memlib::binding.HostVector[i], hostCells[i]) << i;
  }
  for (std::size_t i = 0; i < std::size(serviceCells); ++i) {
    EXPECT_EQ(memlib::binding.ServiceVector[i], serviceCells[i]) << i;
  }
}

TEST_F(BindingStateTest, ASecondBindReplacesAllThatWasKept) {
  bind(1);
  hostCells[31] = nullptr;
  serviceCells[0] = &targets[5];
  serviceCells[47] = nullptr;
  ENV_FWV_V00M00_GFunc(hostList, serviceList, nullptr, 2, MEM_MODE_BIND);
  EXPECT_EQ(memlib::binding.SysFlags, 2U);
  EXPECT_EQ(memlib::binding.pSysEnv, nullptr);
  EXPECT_EQ(memlib::binding.HostVector[31], nullptr);
  EXPECT_EQ(memlib::binding.ServiceVector[0], &targets[5]);
  EXPECT_EQ(memlib::binding.ServiceVector[47], nullptr);
}

TEST_F(BindingStateTest, UnbindForgetsAllThatWasKept) {
  for (const std::int16_t mode : std::initializer_list<std::int16_t>{0, 2, -1}) {
    bind(0xFFFFFFFFU);
    ENV_FWV_V00M00_GFunc(hostList, serviceList, &host.sysEnv(), 0xFFFFFFFFU, mode);
    EXPECT_EQ(changedRanges(Bytes(sizeof memlib::binding), keptBytes()), "") << "mode " << mode;
  }
}

}  // namespace
}  // namespace memtest
