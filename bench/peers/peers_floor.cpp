// The floor of the contract: the cost of the host's services and of clearing the error area,
// without the library. An entry point cannot be cheaper than the host calls that its contract
// requires.
#include <emmintrin.h>

#include <cstring>

#include "peers_clear.hpp"
#include "peers_tables.hpp"
#include "peers_work.hpp"

namespace bench {

namespace {

constexpr std::int64_t kBatch = 10000;

// The host's tables as the library uses them: through a pointer that may change at any time.
const MEMRuntimeServices *volatile hostTable = nullptr;

// Called through pointers, as a component calls the library and the library calls memset: the
// compiler must not know which functions they are.
using Clear = void (*)(void *pArea);
void *(*volatile clearService)(void *, int, std::size_t) = std::memset;

void clearByCall(void *pArea) {
  clearService(pArea, 0, sizeof(MEMErrorArea));
}

void clearByCompiler(void *pArea) {
  std::memset(pArea, 0, sizeof(MEMErrorArea));
}

void clearByVectorStores(void *pArea) {
  storeZeros<__m128i>(pArea, [](char *at) {
    _mm_storeu_si128(reinterpret_cast<__m128i *>(at), _mm_setzero_si128());
  });
}

// The fastest way, because a floor must be a lower bound.
const Clear fastestClear = hasWideStores() ? clearByWideStores : clearByCall;

// An entry point that does only what every entry point must do.
std::int16_t emptyEntryPoint() {
  MEMTraceFrame frame{};
  frame.pName = "floor";
  hostTable->EnterFrame(&frame, MEM_COMPONENT);
  fastestClear(&frame.pThreadEnv->Error);
  hostTable->LeaveFrame(&frame, MEM_COMPONENT);
  return 0;
}

std::int16_t (*volatile entryPoint)() = emptyEntryPoint;

class FloorWork {
 public:
  explicit FloorWork(BenchSession &session) : session_(session) { hostTable = &session.runtime(); }

 protected:
  const MEMRuntimeServices &runtime() { return session_.runtime(); }
  BenchSession &session_;
};

class Frame : public FloorWork {
 public:
  using FloorWork::FloorWork;
  std::int64_t run() {
    for (std::int64_t i = 0; i < kBatch; ++i) entryPoint();
    return kBatch;
  }
};

// The library's frame: for a null cell the service does nothing else.
class LibraryFrame : public FloorWork {
 public:
  explicit LibraryFrame(BenchSession &session) : FloorWork(session), mem_(session.mem()) {
    require(mem_.MEM_CellOpen(&pool_, 256, 8, 0), "MEM_CellOpen");
  }
  ~LibraryFrame() { mem_.MEM_CellClose(pool_); }
  LibraryFrame(const LibraryFrame &) = delete;
  LibraryFrame &operator=(const LibraryFrame &) = delete;
  std::int64_t run() {
    for (std::int64_t i = 0; i < kBatch; ++i) mem_.MEM_CellFreeEntry(pool_, nullptr);
    return kBatch;
  }

 private:
  MEMFunctionVector &mem_;
  HMEMCELL pool_ = nullptr;
};

class EnterLeave : public FloorWork {
 public:
  using FloorWork::FloorWork;
  std::int64_t run() {
    for (std::int64_t i = 0; i < kBatch; ++i) {
      MEMTraceFrame frame{};
      hostTable->EnterFrame(&frame, MEM_COMPONENT);
      hostTable->LeaveFrame(&frame, MEM_COMPONENT);
    }
    return kBatch;
  }
};

class Anchor : public FloorWork {
 public:
  using FloorWork::FloorWork;
  std::int64_t run() {
    for (std::int64_t i = 0; i < kBatch; ++i) {
      void *pAnchor = nullptr;
      hostTable->GetAnchor(0, MEM_COMPONENT, &pAnchor);
      benchmark::DoNotOptimize(pAnchor);
    }
    return kBatch;
  }
};

class GatePair : public FloorWork {
 public:
  explicit GatePair(BenchSession &session) : FloorWork(session) {
    demand(runtime().CreateGate(&gate_) == 0, "CreateGate failed");
  }
  ~GatePair() { runtime().DeleteGate(gate_); }
  GatePair(const GatePair &) = delete;
  GatePair &operator=(const GatePair &) = delete;
  std::int64_t run() {
    for (std::int64_t i = 0; i < kBatch; ++i) {
      hostTable->AcquireGate(gate_);
      hostTable->ReleaseGate(gate_);
    }
    return kBatch;
  }

 private:
  std::uint32_t gate_ = 0;
};

// The two changes around the write of a string of the usual length. In the middle of protected
// pages they cost more than at a border: the system splits one mapping into three and joins them
// again.
class ProtectionPair : public FloorWork {
 public:
  explicit ProtectionPair(BenchSession &session) : FloorWork(session) {
    runtime().GetAnchor(0, MEM_COMPONENT, &pAnchor_);
    pSpace_ = static_cast<const MEMProcessBlock *>(pAnchor_)->Segments[0].pSpace;
  }
  std::int64_t run() {
    constexpr std::int64_t kPairs = 100;
    constexpr std::int64_t kSpaceLen = 0x40000;
    for (std::int64_t i = 0; i < kPairs; ++i) {
      std::uint8_t *const pPlace = pSpace_ + i * (kSpaceLen / kPairs);
      hostTable->ProtectStorage(pPlace, 24, MEM_SINK_SUBPOOL, MEM_PROTECT_WRITABLE);
      *pPlace = 0;
      hostTable->ProtectStorage(pPlace, 24, MEM_SINK_SUBPOOL, MEM_PROTECT_READ_ONLY);
    }
    return kPairs;
  }

 private:
  void *pAnchor_ = nullptr;
  std::uint8_t *pSpace_ = nullptr;
};

class StoragePair : public FloorWork {
 public:
  using FloorWork::FloorWork;
  std::int64_t run() {
    constexpr std::uint32_t kArea = 65536;
    constexpr std::int64_t kPairs = 1000;
    for (std::int64_t i = 0; i < kPairs; ++i) {
      void *pArea = nullptr;
      hostTable->GetStorage(&pArea, kArea, 0, 1);
      hostTable->FreeStorage(pArea, kArea, 0);
    }
    return kPairs;
  }
};

class ClearWork {
 public:
  explicit ClearWork(Clear clear) : clear_(clear) {}
  std::int64_t run() {
    const Clear volatile clear = clear_;
    for (std::int64_t i = 0; i < kBatch; ++i) {
      clear(&area_);
      benchmark::ClobberMemory();
    }
    return kBatch;
  }
  void check() {
    std::memset(&area_, 1, sizeof area_);
    clear_(&area_);
    const MEMErrorArea zero{};
    demand(std::memcmp(&area_, &zero, sizeof zero) == 0, "the error area is not clear");
  }

 private:
  Clear clear_;
  alignas(64) MEMErrorArea area_;
};

template <class Work>
void addFloor(const std::string &row) {
  addLibraryUnderBothHosts("floor/" + row, [](BenchSession &session) { return Work(session); });
}

void addClear(const std::string &row, Clear clear) {
  addPeer("floor/" + row, [clear] { return ClearWork(clear); });
}

}  // namespace

void addFloors() {
  addFloor<Frame>("frame");
  addFloor<LibraryFrame>("a call of the library without work");
  addFloor<EnterLeave>("enter and leave");
  addClear("clear, call of memset", clearByCall);
  addClear("clear, explicit 16-byte stores", clearByVectorStores);
  if (hasWideStores()) addClear("clear, explicit 32-byte stores", clearByWideStores);
  addClear("clear, memset expanded by the compiler", clearByCompiler);
  addFloor<Anchor>("anchor");
  addFloor<GatePair>("gate pair");
  addFloor<ProtectionPair>("protection pair");
  addFloor<StoragePair>("storage pair");
}

}  // namespace bench
