// A driver of enhanced heaps: makes each call on the real heap and on the model of heaps and
// compares, the gate and check services that the call used included, in their order. Services of
// the host may fail at any call; their faults leave kHostError.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "heapmodel.hpp"

namespace memtest {

// The calls of gate and check services that a call of the library has made, taken one by one.
// Needs a host that records its calls.
class GateTrail {
 public:
  explicit GateTrail(refhost::Host &host) {
    for (const refhost::HostCall &call : host.takeCalls()) {
      if (isWatched(call.service)) calls_.push_back(call);
    }
  }
  ~GateTrail() { EXPECT_EQ(next_, calls_.size()) << "more gate or check calls than needed"; }
  GateTrail(const GateTrail &) = delete;
  GateTrail &operator=(const GateTrail &) = delete;

  // The service's code. Trailing arguments that do not count are left out.
  std::uint64_t take(refhost::Service service, std::initializer_list<std::uint64_t> args) {
    if (next_ == calls_.size()) {
      ADD_FAILURE() << refhost::serviceName(service) << " was not called";
      return 0;
    }
    const refhost::HostCall &call = calls_[next_++];
    EXPECT_EQ(refhost::serviceName(call.service), refhost::serviceName(service));
    std::size_t i = 0;
    for (const std::uint64_t arg : args) EXPECT_EQ(call.args[i++], arg);
    return call.result;
  }

 private:
  static bool isWatched(refhost::Service service) {
    using refhost::Service;
    return service == Service::CreateGate || service == Service::DeleteGate ||
           service == Service::AcquireGate || service == Service::ReleaseGate ||
           service == Service::CheckStorage;
  }

  std::vector<refhost::HostCall> calls_;
  std::size_t next_ = 0;
};

// Which slot serves a call: the enhanced heap's own or a standard heap's.
enum class Door { kOwnShort, kOwnLong, kStandardShort, kStandardLong };

class CheckedEHeap : public HeapDriver {
 public:
  // REQUIRES: the stage's host records its calls.
  CheckedEHeap(Stage &stage, std::int16_t areaLen, std::uint16_t subPool)
      : HeapDriver(stage, kEnhancedKind) {
    begin();
    auto *handle = static_cast<HMEMHEAP>(untouched());
    const std::int16_t result = stage_.mem.MEM_EHeapOpen(&handle, areaLen, subPool);
    GateTrail gates(stage_.host);
    if (gates.take(Service::CreateGate, {}) != 0) {
      const StorageTrail none(stage_);
      expectOutcome(stage_, result, noGate("CreateGate"));
      EXPECT_EQ(handle, untouched());
      return;
    }
    recordOpen(result, handle, areaLen, subPool, kHostMarks);
    if (isOpen()) {
      gate_ = load<std::uint32_t>(handle_, 24);
    } else {
      gates.take(Service::DeleteGate, {});
    }
  }

  // REQUIRES for all below: isOpen(), and that lengths and counts fit in what the door takes.

  void alloc(std::int32_t len, Door door) {
    begin();
    void *entry = untouched();
    const std::int16_t result = allocThrough(door, len, &entry);
    GateTrail gates(stage_.host);
    recordAlloc(result, entry, len, entryOfModel(len, gates));
  }

  void chain(std::int32_t len, std::int32_t count, std::int16_t linkOff, Door door) {
    begin();
    void *first = untouched();
    const std::int16_t result = chainThrough(door, len, count, linkOff, &first);
    GateTrail gates(stage_.host);
    recordChain(result, first, len, count, linkOff, entryOfModel(len, gates));
  }

  // Frees the entry of this number, which may have been freed before.
  void giveBack(std::size_t number) {
    Entry &entry = entries_[number];
    begin();
    const std::int16_t result =
        stage_.mem.MEM_EHeapFreeEntry(handle_, entry.askedLen, entry.address);
    Outcome outcome = expectedFree(entry.askedLen, entry.address);
    expectOutcome(stage_, result, outcome);
    if (outcome.code != 0 || model().isLarge(entry.askedLen)) {
      expectIntact(entry);
      return;
    }
    entry.isFreed = true;
    expectFreed(entry);
  }

  // Frees what is no entry of this length: the end of the heap's first area.
  void giveBackWrong(std::int32_t len) {
    begin();
    std::uint8_t *wrong = model().header() + load<std::uint32_t>(handle_, 56) - 8;
    const std::int16_t result = stage_.mem.MEM_EHeapFreeEntry(handle_, len, wrong);
    const Outcome outcome = expectedFree(len, wrong);
    EXPECT_EQ(outcome.code, 4058U);
    expectOutcome(stage_, result, outcome);
  }

  std::uint32_t gate() const { return gate_; }

  void check() const {
    expectIntact();
    EXPECT_EQ(load<std::uint32_t>(handle_, 24), gate_);
    EXPECT_EQ(load<std::uint8_t>(handle_, 30), model().blockCount() == 0 ? 0 : 2);
    EXPECT_EQ(load<void *>(handle_, 32), nullptr) << "nothing fills the free list";
  }

  // False when the host refuses the gate; the heap stays as it is then.
  bool close() {
    check();
    begin();
    const Lines expected = beginClose();
    const std::int16_t result = stage_.mem.MEM_EHeapClose(handle_);
    GateTrail gates(stage_.host);
    if (gates.take(Service::AcquireGate, {gate_}) != 0) {
      expectOutcome(stage_, result, noGate("AcquireGate"));
      EXPECT_TRUE(stage_.watch.takeUsesOf(9).empty());
      check();
      return false;
    }
    EXPECT_EQ(result, 0);
    gates.take(Service::ReleaseGate, {gate_});
    gates.take(Service::DeleteGate, {gate_});
    endClose(expected);
    return true;
  }

 private:
  using Service = refhost::Service;

  void begin() {
    stage_.watch.uses.clear();
    stage_.host.takeCalls();
  }

  Outcome noGate(const char *service) {
    ++stage_.tally.refused;
    return {4057, service, kHostMarks};
  }

  std::int16_t allocThrough(Door door, std::int32_t len, void **ppEntry) {
    MEMFunctionVector &mem = stage_.mem;
    switch (door) {
      case Door::kStandardShort:
        return mem.MEM_HeapAllocEntry(handle_, static_cast<std::int16_t>(len), ppEntry);
      case Door::kStandardLong:
        return mem.MEM_HeapAllocEntryLong(handle_, len, ppEntry);
      default:
        return mem.MEM_EHeapAllocEntry(handle_, len, ppEntry);
    }
  }

  std::int16_t chainThrough(Door door, std::int32_t len, std::int32_t count, std::int16_t linkOff,
                            void **ppEntry) {
    MEMFunctionVector &mem = stage_.mem;
    const auto shortCount = static_cast<std::int16_t>(count);
    switch (door) {
      case Door::kStandardShort:
        return mem.MEM_HeapAllocMultEntries(handle_, static_cast<std::int16_t>(len), shortCount,
                                            linkOff, ppEntry);
      case Door::kStandardLong:
        return mem.MEM_HeapAllocLongMultEntries(handle_, len, count, linkOff, ppEntry);
      case Door::kOwnShort:
        return mem.MEM_EHeapAllocMultEntries(handle_, len, shortCount, linkOff, ppEntry);
      default:
        return mem.MEM_EHeapAllocLongMultEntries(handle_, len, count, linkOff, ppEntry);
    }
  }

  // The gate is taken and released for each entry, whatever becomes of it.
  EntryOfModel entryOfModel(std::int32_t len, GateTrail &gates) {
    return [this, len, &gates](StorageTrail &trail, Outcome &outcome) -> std::uint8_t * {
      if (gates.take(Service::AcquireGate, {gate_}) != 0) {
        outcome = noGate("AcquireGate");
        return nullptr;
      }
      std::uint8_t *entry = model().alloc(len, trail, outcome);
      gates.take(Service::ReleaseGate, {gate_});
      return entry;
    };
  }

  // How freeing is to end. Only area entries need the gate.
  Outcome expectedFree(std::int32_t len, std::uint8_t *address) {
    const StorageTrail none(stage_);
    GateTrail gates(stage_.host);
    const bool isLarge = model().isLarge(len);
    const std::uint32_t header = isLarge ? kBlockHeaderLen : 0;
    const std::uint64_t refusal = gates.take(
        Service::CheckStorage, {asNumber(address - header), model().rounded(len) + header});
    if (refusal != 0) {
      ++stage_.tally.refused;
      return {4058, "BuffPtr=" + hex16(address), kOwnMarks};
    }
    if (isLarge) return {};
    if (gates.take(Service::AcquireGate, {gate_}) != 0) return noGate("AcquireGate");
    gates.take(Service::ReleaseGate, {gate_});
    return {};
  }

  std::uint32_t gate_ = 0;
};

}  // namespace memtest
