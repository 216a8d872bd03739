// A watch over the slots through which the packer uses storage and its hash table.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "memtest.hpp"
#include "packstruct.hpp"

namespace memtest {

// Puts forwarders into slots 8 and 20 to 23 and notes every call in order. One at a time; the slots
// keep the forwarders until the host restores them.
class PackWatch {
 public:
  struct Opened {
    std::int16_t keyOff, keyLen, max;
    MEMHashFunc pFunc;
    std::int16_t areaLen;
    std::uint16_t subPool;
  };
  struct Inserted {
    std::int16_t length;
    Bytes record;        // as passed
    const void *stored;  // the table's copy
  };

  explicit PackWatch(MEMFunctionVector &mem) : own_(mem) {
    watch_ = this;
    mem.MEM_Alloc = alloc;
    mem.MEM_HashOpen = open;
    mem.MEM_HashClose = close;
    mem.MEM_HashInsEntry = insert;
    mem.MEM_HashGetEntry = get;
  }
  PackWatch(const PackWatch &) = delete;
  PackWatch &operator=(const PackWatch &) = delete;

  // The slot number of every call, with the arguments of slot 8: "20", "8(1000, 0)", "22". What the
  // hash table itself asks of slot 8 while it runs is left out.
  Lines calls;
  std::vector<Opened> opened;
  std::vector<Inserted> inserted;

  // Asked before a hash slot does its work: a number is the slot's result, and the work is not done
  // (a close is done nevertheless, so that nothing is left). Runs for every call.
  std::function<std::optional<std::int16_t>(int slot)> answer;
  // Runs when a slot is called, before anything else.
  std::function<void(int slot)> onCall;

 private:
  std::optional<std::int16_t> enter(int slot, const std::string &arguments = "") {
    if (onCall) onCall(slot);
    calls.push_back(std::to_string(slot) + arguments);
    return answer ? answer(slot) : std::nullopt;
  }

  // Runs one of the table's own services, whose calls of slot 8 are not the packer's.
  template <class Call>
  std::int16_t nested(Call call) {
    ++depth_;
    const std::int16_t result = call();
    --depth_;
    return result;
  }

  static void *alloc(std::uint32_t size, std::int16_t subPool) {
    if (watch_->depth_ == 0) {
      watch_->enter(8, "(" + std::to_string(size) + ", " + std::to_string(subPool) + ")");
    }
    return watch_->own_.MEM_Alloc(size, subPool);
  }

  static std::int16_t open(HMEMHASH *phHash, std::int16_t keyOff, std::int16_t keyLen,
                           std::int16_t max, MEMHashFunc pFunc, std::int16_t areaLen,
                           std::uint16_t subPool) {
    watch_->opened.push_back({keyOff, keyLen, max, pFunc, areaLen, subPool});
    if (const auto result = watch_->enter(20)) return *result;
    return watch_->nested([&] {
      return watch_->own_.MEM_HashOpen(phHash, keyOff, keyLen, max, pFunc, areaLen, subPool);
    });
  }

  static std::int16_t close(HMEMHASH hMemHash) {
    const std::int16_t closed =
        watch_->nested([&] { return watch_->own_.MEM_HashClose(hMemHash); });
    return watch_->enter(21).value_or(closed);
  }

  static std::int16_t insert(HMEMHASH hMemHash, std::int16_t len, const void *pInputEntry,
                             void **ppNewEntry) {
    const auto *record = static_cast<const std::uint8_t *>(pInputEntry);
    watch_->inserted.push_back({len, Bytes(record, record + len), nullptr});
    if (const auto result = watch_->enter(22)) return *result;
    const std::int16_t result = watch_->nested(
        [&] { return watch_->own_.MEM_HashInsEntry(hMemHash, len, pInputEntry, ppNewEntry); });
    if (result == 0) watch_->inserted.back().stored = *ppNewEntry;
    return result;
  }

  static std::int16_t get(HMEMHASH hMemHash, const void *pKey, void **ppEntry) {
    if (const auto result = watch_->enter(23)) return *result;
    return watch_->own_.MEM_HashGetEntry(hMemHash, pKey, ppEntry);
  }

  inline static PackWatch *watch_ = nullptr;
  const MEMFunctionVector own_;
  int depth_ = 0;
};

}  // namespace memtest
