#include "refhost_storage.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <iterator>
#include <locale>
#include <sstream>
#include <string_view>

#include "refhost_impl.hpp"
#include "refhost_platform.hpp"

namespace refhost {

namespace {

std::size_t roundUpToPages(std::size_t bytes) {
  const std::size_t page = platform::pageSize();
  return (std::max<std::size_t>(bytes, 1) + page - 1) / page * page;
}

bool needsPages(std::uint32_t length, std::uint16_t subPool) {
  return subPool == kProtectedSubPool || length >= kPagedLength;
}

bool isProtectMode(std::uint16_t mode) {
  return mode == MEM_PROTECT_READ_ONLY || mode == MEM_PROTECT_WRITABLE;
}

void add(Account &account, std::uint64_t length) {
  account.liveBytes += length;
  account.liveCount += 1;
  account.totalBytes += length;
  account.totalCount += 1;
  account.peakBytes = std::max(account.peakBytes, account.liveBytes);
}

void subtract(Account &account, std::uint64_t length) {
  account.liveBytes -= length;
  account.liveCount -= 1;
}

}  // namespace

std::string kindName(std::uint16_t kind) {
  return kind == kPoolKind ? "pool" : std::to_string(kind);
}

StorageAccount::~StorageAccount() {
  for (const auto &[address, area] : areas_) {
    if (keepsLeaks_ && !isLibrarys(area)) continue;
    destroyArea(reinterpret_cast<void *>(address), area);
  }
}

// Zero-filled. Every area has at least one byte, so that no other area has its address.
void *StorageAccount::makeArea(Area &area) {
  if (area.mappedBytes == 0) return std::calloc(std::max<std::size_t>(area.length, 1), 1);
  void *const pages = platform::mapPages(area.mappedBytes);
  if (pages != nullptr) area.standIn = std::malloc(1);
  return pages;
}

void StorageAccount::destroyArea(void *address, const Area &area) {
  if (area.mappedBytes != 0) {
    platform::unmapPages(address, area.mappedBytes);
    std::free(area.standIn);
  } else {
    std::free(address);
  }
}

void *StorageAccount::obtain(std::uint32_t length, std::uint16_t subPool, std::uint16_t kind,
                             Origin origin) {
  if (length > kMaxStorage) return nullptr;
  const bool paged = needsPages(length, subPool);
  Area area{length, subPool, kind, paged ? roundUpToPages(length) : 0, std::move(origin)};
  void *address = makeArea(area);
  if (address == nullptr) return nullptr;
  if (dirty_.load(std::memory_order_relaxed)) std::memset(address, dirtyByte_, length);
  const std::uint64_t callNumber =
      enter(reinterpret_cast<std::uintptr_t>(address), std::move(area));
  if (callNumber == stopAtCall_) platform::stopInDebugger();
  return address;
}

template <class Change>
void StorageAccount::changeAccounts(const Area &area, Change change) {
  change(byKind_[{area.subPool, area.kind}], area.length);
  change(bySubPool_[area.subPool], area.length);
  change(all_, area.length);
}

// Returns the call's number.
std::uint64_t StorageAccount::enter(std::uintptr_t address, Area area) {
  const std::lock_guard lock(mutex_);
  changeAccounts(area, add);
  area.callNumber = ++lastCall_;
  areas_.emplace(address, std::move(area));
  return lastCall_;
}

// Takes the area out of the tables; returns an empty node if no area begins at the address.
StorageAccount::Areas::node_type StorageAccount::remove(void *address, const Complain &complain) {
  {
    const std::lock_guard lock(mutex_);
    auto node = areas_.extract(reinterpret_cast<std::uintptr_t>(address));
    if (!node.empty()) {
      changeAccounts(node.mapped(), subtract);
      return node;
    }
  }
  complain(formatText("%p is not a live area (never allocated or already freed)", address),
           nullptr);
  return {};
}

void StorageAccount::giveBack(void *address, std::optional<std::uint32_t> length,
                              std::uint16_t subPool, const Complain &complain) {
  const auto node = remove(address, complain);
  if (node.empty()) return;
  const Area &area = node.mapped();
  const auto complainOfArea = [&](std::string what) {
    const FoundArea asAllocated = found(node.key(), area);
    complain(std::move(what), &asAllocated);
  };
  const bool isPools = area.kind == kPoolKind;
  if (isPools == length.has_value()) {
    complainOfArea(formatText("%p was allocated with %s, free it with %s", address,
                              isPools ? "GetPoolStorage" : "GetStorage",
                              isPools ? "FreePoolStorage" : "FreeStorage"));
  }
  if (length && area.length != *length) {
    complainOfArea(formatText("%p was allocated with length %u, freed with %u", address,
                              area.length, *length));
  }
  if (area.subPool != subPool) {
    complainOfArea(
        formatText("%p was allocated in subpool %u, freed in %u", address, area.subPool, subPool));
  }
  destroyArea(address, area);
}

StorageAccount::Areas::const_iterator StorageAccount::areaAt(std::uintptr_t address) const {
  const auto next = areas_.upper_bound(address);
  if (next == areas_.begin()) return areas_.end();
  const auto candidate = std::prev(next);
  return address - candidate->first <= candidate->second.length ? candidate : areas_.end();
}

bool StorageAccount::isWritable(const void *address, std::uint32_t length) const {
  const auto first = reinterpret_cast<std::uintptr_t>(address);
  const std::lock_guard lock(mutex_);
  const auto found = areaAt(first);
  if (found == areas_.end()) return false;
  const std::uintptr_t offset = first - found->first;
  if (length > found->second.length - offset) return false;
  const std::vector<bool> &readOnly = found->second.readOnlyPages;
  if (readOnly.empty() || length == 0) return true;
  const std::size_t lastPage = (offset + length - 1) / platform::pageSize();
  for (std::size_t page = offset / platform::pageSize(); page <= lastPage; ++page) {
    if (readOnly[page]) return false;
  }
  return true;
}

std::uint16_t StorageAccount::protect(void *address, std::uint32_t length, std::uint16_t subPool,
                                      std::uint16_t mode) {
  if (!isProtectMode(mode)) return kBadArgument;
  const bool readOnly = mode == MEM_PROTECT_READ_ONLY;
  const auto first = reinterpret_cast<std::uintptr_t>(address);
  const std::size_t page = platform::pageSize();

  const std::lock_guard lock(mutex_);
  const auto found = areaAt(first);
  if (found == areas_.end()) return kNotStorage;
  const std::uintptr_t base = found->first;
  Area &area = areas_.at(base);
  if (length > area.length - (first - base)) return kNotStorage;
  if (area.subPool != subPool) return kBadArgument;
  if (area.mappedBytes == 0) return kNotProtectable;

  // Whole pages of the area; its mapping ends on a page boundary, so the widened range stays in it.
  const std::size_t firstPage = (first - base) / page;
  const std::size_t endPage = (first - base + length + page - 1) / page;
  void *pages = reinterpret_cast<void *>(base + firstPage * page);
  if (endPage > firstPage &&
      !platform::protectPages(pages, (endPage - firstPage) * page, readOnly)) {
    return kNotProtectable;
  }
  area.readOnlyPages.resize(area.mappedBytes / page);
  for (std::size_t i = firstPage; i < endPage; ++i) area.readOnlyPages[i] = readOnly;
  return 0;
}

bool StorageAccount::isReadOnly(const void *address) const {
  const auto wanted = reinterpret_cast<std::uintptr_t>(address);
  const std::lock_guard lock(mutex_);
  const auto found = areaAt(wanted);
  if (found == areas_.end()) return false;
  const std::size_t page = (wanted - found->first) / platform::pageSize();
  const std::vector<bool> &pages = found->second.readOnlyPages;
  return page < pages.size() && pages[page];
}

Account StorageAccount::account(std::uint16_t subPool, std::uint16_t kind) const {
  const std::lock_guard lock(mutex_);
  const auto found = byKind_.find({subPool, kind});
  return found == byKind_.end() ? Account{} : found->second;
}

Account StorageAccount::account(std::uint16_t subPool) const {
  const std::lock_guard lock(mutex_);
  const auto found = bySubPool_.find(subPool);
  return found == bySubPool_.end() ? Account{} : found->second;
}

Account StorageAccount::account() const {
  const std::lock_guard lock(mutex_);
  return all_;
}

FoundArea StorageAccount::found(std::uintptr_t address, const Area &area) {
  return {reinterpret_cast<void *>(address),
          area.length,
          area.subPool,
          area.kind,
          area.callNumber,
          area.origin};
}

std::vector<FoundArea> StorageAccount::areas() const {
  const std::lock_guard lock(mutex_);
  std::vector<FoundArea> areas;
  areas.reserve(areas_.size());
  for (const auto &[address, area] : areas_) areas.push_back(found(address, area));
  return areas;
}

bool StorageAccount::isThreadBlock(const Area &area) {
  const ServiceChain &services = *area.origin.services;
  return area.kind == kPoolKind && !services.empty() && services.back() == "MEM_ThreadAct";
}

// The library allocates for itself only in these entry points; for components only in MEM_Alloc.
bool StorageAccount::isLibrarys(const Area &area) {
  const ServiceChain &services = *area.origin.services;
  if (services.empty()) return false;
  const std::string_view innermost = services.back();
  if (area.kind == kPoolKind) return innermost == "MEM_ProcessInit" || innermost == "MEM_ThreadAct";
  return area.subPool == MEM_SINK_SUBPOOL &&
         (innermost.starts_with("MEM_Sink") || innermost.starts_with("MEM_WSink"));
}

std::vector<FoundArea> StorageAccount::takeUnreported(bool (*isWanted)(const Area &)) {
  std::vector<FoundArea> taken;
  {
    const std::lock_guard lock(mutex_);
    for (auto &[address, area] : areas_) {
      if (area.isReported || !isWanted(area)) continue;
      area.isReported = true;
      taken.push_back(found(address, area));
    }
  }
  std::sort(taken.begin(), taken.end(),
            [](const auto &a, const auto &b) { return a.callNumber < b.callNumber; });
  return taken;
}

std::vector<FoundArea> StorageAccount::takeLeaks() {
  return takeUnreported([](const Area &area) { return !isLibrarys(area); });
}

std::vector<FoundArea> StorageAccount::takeThreadBlocks() {
  return takeUnreported(&isThreadBlock);
}

std::optional<FoundArea> StorageAccount::takeThreadBlock(const void *address) {
  const std::lock_guard lock(mutex_);
  const auto area = areas_.find(reinterpret_cast<std::uintptr_t>(address));
  if (area == areas_.end()) return std::nullopt;
  area->second.isReported = true;
  return found(area->first, area->second);
}

std::string StorageAccount::report() const {
  std::ostringstream out;
  out.imbue(std::locale::classic());
  const auto line = [&out](auto subPool, auto kind, auto liveBytes, auto liveCount, auto peakBytes,
                           auto totalBytes, auto totalCount) {
    out << std::setw(7) << subPool << std::setw(6) << kind << std::setw(14) << liveBytes
        << std::setw(12) << liveCount << std::setw(14) << peakBytes << std::setw(16) << totalBytes
        << std::setw(13) << totalCount << '\n';
  };
  line("subpool", "kind", "live bytes", "live areas", "peak bytes", "total bytes", "total areas");
  const auto account = [&line](auto subPool, auto kind, const Account &sums) {
    line(subPool, kind, sums.liveBytes, sums.liveCount, sums.peakBytes, sums.totalBytes,
         sums.totalCount);
  };
  const std::lock_guard lock(mutex_);
  for (const auto &[key, sums] : byKind_) account(key.first, kindName(key.second), sums);
  account("all", "all", all_);
  return out.str();
}

std::string StorageAccount::leakReport() const {
  std::string report;
  for (const FoundArea &area : areas()) {
    report += formatText("%p: %u bytes of subpool %u, kind %s\n", area.address, area.length,
                         area.subPool, kindName(area.kind).c_str());
  }
  return report;
}

namespace services {

std::uint16_t getPoolStorage(std::uint16_t subPool, std::uint32_t length, void **ppArea) {
  Call call(Service::GetPoolStorage, subPool, length, ppArea);
  if (call.faulted()) return call.faultCode();
  void *area = call.host().storage.obtain(length, subPool, kPoolKind, call.origin());
  if (area == nullptr) return call.refuse(kNoStorage, "GetPoolStorage");
  *ppArea = area;
  call.finish(area);
  return 0;
}

void freePoolStorage(std::uint16_t subPool, void *pArea) {
  Call call(Service::FreePoolStorage, subPool, pArea);
  if (call.faulted()) return;
  call.host().storage.giveBack(pArea, std::nullopt, subPool, call.complaints());
}

std::uint16_t getStorage(void **ppArea, std::uint32_t length, std::uint16_t subPool,
                         std::uint16_t kind) {
  Call call(Service::GetStorage, ppArea, length, subPool, kind);
  if (call.faulted()) return call.faultCode();
  if (kind > 2) {
    call.misuse(formatText("storage kind %u is not known: it must be 0, 1 or 2", kind));
    return call.refuse(kBadArgument, "GetStorage");
  }
  void *area = call.host().storage.obtain(length, subPool, kind, call.origin());
  if (area == nullptr) return call.refuse(kNoStorage, "GetStorage");
  *ppArea = area;
  call.finish(area);
  return 0;
}

void freeStorage(void *pArea, std::uint32_t length, std::uint16_t subPool) {
  Call call(Service::FreeStorage, pArea, length, subPool);
  if (call.faulted()) return;
  call.host().storage.giveBack(pArea, length, subPool, call.complaints());
}

std::uint16_t protectStorage(void *pArea, std::uint32_t length, std::uint16_t subPool,
                             std::uint16_t mode) {
  Call call(Service::ProtectStorage, pArea, length, subPool, mode);
  if (call.faulted()) return call.faultCode();
  const std::uint16_t code = call.host().storage.protect(pArea, length, subPool, mode);
  if (code == 0) return call.finish(code);
  if (code == kBadArgument) {
    call.misuse(isProtectMode(mode)
                    ? formatText("%p is not in subpool %u", pArea, subPool)
                    : formatText("protection mode %u is not known: it must be %u or %u", mode,
                                 MEM_PROTECT_READ_ONLY, MEM_PROTECT_WRITABLE));
  }
  return call.finish(call.refuse(code, "ProtectStorage"));
}

std::uint16_t checkStorage(const void *pArea, std::uint32_t length) {
  Call call(Service::CheckStorage, pArea, length);
  if (call.faulted()) return call.faultCode();
  if (call.host().storage.isWritable(pArea, length)) return call.finish<std::uint16_t>(0);
  return call.finish(call.refuse(kNotStorage, "CheckStorage"));
}

}  // namespace services

}  // namespace refhost
