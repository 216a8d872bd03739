// The storage account: every allocated area, by address, and the sums by subpool and kind.
//
// Small areas come from the C++ runtime's allocator one by one, so that memory checkers know their
// bounds and when they are freed. Areas that can be protected are mapped as whole pages. All
// members may be called on any thread; one mutex guards the tables; filling and freeing are done
// without it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "refhost.hpp"
#include "refhost_origin.hpp"

namespace refhost {

// An area of the account, as it was allocated.
struct FoundArea {
  void *address;
  std::uint32_t length;
  std::uint16_t subPool;
  std::uint16_t kind;
  std::uint64_t callNumber;
  Origin origin;
};

// "pool" or the number.
std::string kindName(std::uint16_t kind);

class StorageAccount {
 public:
  explicit StorageAccount(const Options &options)
      : dirty_(options.dirtyStorage),
        dirtyByte_(options.dirtyByte),
        stopAtCall_(options.stopAtCall),
        keepsLeaks_(options.keepLeaks) {}

  // Frees the library's own areas and, without Options::keepLeaks, the leaks.
  ~StorageAccount();
  StorageAccount(const StorageAccount &) = delete;
  StorageAccount &operator=(const StorageAccount &) = delete;

  // A new area of `length` bytes, 16-byte aligned; null if there is no storage. An area of length 0
  // has an address of its own, too.
  void *obtain(std::uint32_t length, std::uint16_t subPool, std::uint16_t kind, Origin origin);

  // Called with what is wrong with a call that frees, and with its area, before that is freed. No
  // lock is held then.
  using Complain = std::function<void(std::string what, const FoundArea *area)>;

  // Frees an area for FreeStorage or, without a length, FreePoolStorage. A known area is freed even
  // if length, subpool or service are wrong, so that one mistake is reported once.
  void giveBack(void *address, std::optional<std::uint32_t> length, std::uint16_t subPool,
                const Complain &complain);

  // Changes the protection of all pages that the range overlaps. Returns 0 or the service's code.
  std::uint16_t protect(void *address, std::uint32_t length, std::uint16_t subPool,
                        std::uint16_t mode);

  // Whether the whole range is in one live area, and no page of it is read-only.
  bool isWritable(const void *address, std::uint32_t length) const;
  bool isReadOnly(const void *address) const;

  void setDirty(bool dirty) { dirty_.store(dirty, std::memory_order_relaxed); }

  Account account(std::uint16_t subPool, std::uint16_t kind) const;
  Account account(std::uint16_t subPool) const;
  Account account() const;
  std::string report() const;
  std::string leakReport() const;

  // All live areas, by address.
  std::vector<FoundArea> areas() const;

  // Live areas that no earlier call has returned, in the order of their call numbers.
  std::vector<FoundArea> takeLeaks();         // of components
  std::vector<FoundArea> takeThreadBlocks();  // of active threads

  // A thread block that the caller reports: the two above leave it out from now on.
  std::optional<FoundArea> takeThreadBlock(const void *address);

 private:
  struct Area {
    std::uint32_t length;
    std::uint16_t subPool;
    std::uint16_t kind;
    std::size_t mappedBytes;  // 0 for an area without pages of its own
    Origin origin;
    std::uint64_t callNumber = 0;
    bool isReported = false;
    // One byte that represents a mapped area for memory checkers, which do not see mapped pages.
    void *standIn = nullptr;
    std::vector<bool> readOnlyPages = {};  // one for each mapped page once protected, else empty
  };
  using Areas = std::map<std::uintptr_t, Area>;  // by address; areas never overlap

  static void *makeArea(Area &area);
  static void destroyArea(void *address, const Area &area);
  static bool isThreadBlock(const Area &area);
  static bool isLibrarys(const Area &area);
  static FoundArea found(std::uintptr_t address, const Area &area);

  std::vector<FoundArea> takeUnreported(bool (*isWanted)(const Area &));

  // The area that contains the address or ends just before it; end() if there is none.
  // REQUIRES: mutex_ held.
  Areas::const_iterator areaAt(std::uintptr_t address) const;

  std::uint64_t enter(std::uintptr_t address, Area area);
  Areas::node_type remove(void *address, const Complain &complain);
  template <class Change>
  void changeAccounts(const Area &area, Change change);

  std::atomic<bool> dirty_;
  const std::uint8_t dirtyByte_;
  const std::uint64_t stopAtCall_;
  const bool keepsLeaks_;

  mutable std::mutex mutex_;
  Areas areas_;
  std::uint64_t lastCall_ = 0;
  std::map<std::pair<std::uint16_t, std::uint16_t>, Account> byKind_;
  std::map<std::uint16_t, Account> bySubPool_;
  Account all_;
};

}  // namespace refhost
