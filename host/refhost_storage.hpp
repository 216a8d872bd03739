// The storage account: every area handed out, by address, and the sums by subpool and kind.
//
// Small areas come from the C++ runtime's allocator one by one, so that memory checkers see their
// bounds and their end. Areas that can be protected are mapped as whole pages. All members may be
// called on any thread; one mutex guards the tables, while filling and freeing happen outside it.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "refhost.hpp"
#include "refhost_misuse.hpp"

namespace refhost {

class StorageAccount {
 public:
  StorageAccount(MisuseLog &misuses, bool dirty, std::uint8_t dirtyByte)
      : misuses_(misuses), dirty_(dirty), dirtyByte_(dirtyByte) {}
  ~StorageAccount();
  StorageAccount(const StorageAccount &) = delete;
  StorageAccount &operator=(const StorageAccount &) = delete;

  // A new area of `length` bytes, 16-byte aligned; null when there is none. A length of 0 has an
  // address of its own too.
  void *obtain(std::uint32_t length, std::uint16_t subPool, std::uint16_t kind);

  // Takes back an area that FreeStorage or FreePoolStorage names. Whatever else is wrong with the
  // call, a known area is released, so that one mistake is reported once.
  void giveBack(void *address, std::uint32_t length, std::uint16_t subPool);
  void giveBackPool(void *address, std::uint16_t subPool);

  // Changes the protection of all pages that the range touches. 0 or the service's code.
  std::uint16_t protect(void *address, std::uint32_t length, std::uint16_t subPool,
                        std::uint16_t mode);

  // Whether the whole range lies in one live area.
  bool covers(const void *address, std::uint32_t length) const;
  bool isReadOnly(const void *address) const;

  void setDirty(bool dirty) { dirty_.store(dirty, std::memory_order_relaxed); }

  Account account(std::uint16_t subPool, std::uint16_t kind) const;
  Account account(std::uint16_t subPool) const;
  Account account() const;
  std::vector<Leak> leaks() const;
  std::string report() const;
  std::string leakReport() const;

 private:
  struct Area {
    std::uint32_t length;
    std::uint16_t subPool;
    std::uint16_t kind;
    std::size_t mappedBytes;               // 0 for an area without pages of its own
    std::vector<bool> readOnlyPages = {};  // one for each mapped page once protected, else empty
  };
  using Areas = std::map<std::uintptr_t, Area>;  // by address; areas never overlap

  static void *makeArea(const Area &area);
  static void destroyArea(void *address, const Area &area);

  // The area that holds the address, the byte behind its last one included; end() when none does.
  // REQUIRES: mutex_ held.
  Areas::const_iterator areaAt(std::uintptr_t address) const;

  void enter(std::uintptr_t address, Area area);
  Areas::node_type remove(Service service, void *address);
  template <class Change>
  void changeAccounts(const Area &area, Change change);

  MisuseLog &misuses_;
  std::atomic<bool> dirty_;
  const std::uint8_t dirtyByte_;

  mutable std::mutex mutex_;
  Areas areas_;
  std::map<std::pair<std::uint16_t, std::uint16_t>, Account> byKind_;
  std::map<std::uint16_t, Account> bySubPool_;
  Account all_;
};

}  // namespace refhost
