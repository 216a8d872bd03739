/** @file hash.hpp
 * Hash tables of records that contain their key. Part of mem.hpp, whose conventions apply.
 */
#ifndef QJ7MEM00_MEM_HASH_HPP
#define QJ7MEM00_MEM_HASH_HPP

#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "heap.hpp"

namespace mem {

/** @name Hash table */
/** @{ */

/** Result of HashTable::insert. */
template <class Record>
struct Insertion {
  Record *pRecord;  /**< the table's own record: the new one or the existing one */
  bool isDuplicate; /**< the table already had the key; nothing was changed */
};

/** Result of HashTable::remove. */
enum class Removal { kRemoved, kNotFound };

/** A table of copies of records, found by a key inside the record. Keys are compared byte by byte.
 * Records live until the table is closed; they may be changed, but not their keys. One thread at a
 * time. */
template <class Record, class Key>
class HashTable : public Owner<HashTable<Record, Key>, HMEMHASH> {
  static_assert(std::is_trivially_copyable_v<Record>, "mem: a record is copied byte by byte");
  static_assert(alignof(Record) <= detail::kEntryAlignment, "mem: entries are aligned to 8 bytes");
  static_assert(sizeof(Record) + 15 <= std::numeric_limits<std::int16_t>::max(),
                "mem: a record of a hash table is at most 32,752 bytes long");
  static_assert(std::has_unique_object_representations_v<Key>,
                "mem: a key is compared byte by byte and must not have padding");
  using Base = Owner<HashTable<Record, Key>, HMEMHASH>;

 public:
  HashTable() noexcept = default;

  /** Opens a table of `kBuckets` buckets, chosen by a hash of the key's bytes. If the table's heap
   * cannot be opened, the library does not free the control block (48 bytes and 8 for each
   * bucket). */
  template <std::int32_t kBuckets, std::size_t kOffset>
  static Result<HashTable> open(ContextRef context, Member<Record, Key, kOffset> key,
                                HeapSettings settings = {}) noexcept {
    static_assert(kBuckets >= 1 && kBuckets <= 32768, "mem: a table has 1 to 32,768 buckets");
    return open(context, key, static_cast<std::int16_t>(kBuckets - 1), &bucketOf<kBuckets>,
                settings);
  }

  /** The same with a hash function of the caller, which returns 0 to `max`. */
  template <std::size_t kOffset>
  static Result<HashTable> open(ContextRef context, Member<Record, Key, kOffset>, std::int16_t max,
                                MEMHashFunc pFunc, HeapSettings settings = {}) noexcept {
    HMEMHASH hMemHash = nullptr;
    const Status opened =
        call(context.get(), slots::MEM_HashOpen, &hMemHash, static_cast<std::int16_t>(kOffset),
             static_cast<std::int16_t>(sizeof(Key)), max, pFunc, settings.areaKb, settings.subPool);
    if (!opened.isOk()) return opened.error();
    return HashTable(context, hMemHash);
  }

  static Status closeHandle(const Context &context, HMEMHASH hMemHash) noexcept {
    return call(context, slots::MEM_HashClose, hMemHash);
  }

  /** Copies the record into the table unless the table already has its key. */
  Result<Insertion<Record>> insert(const Record &record) noexcept {
    void *pStored = nullptr;
    const std::int16_t result = this->context().vector().MEM_HashInsEntry(
        this->handle(), static_cast<std::int16_t>(sizeof(Record)), &record, &pStored);
    if (result != 0 && result != MEMERR_HASHDKEY) return failed(slots::MEM_HashInsEntry, result);
    return Insertion<Record>{static_cast<Record *>(pStored), result != 0};
  }

  /** The record with this key, or null. */
  Result<Record *> find(const Key &key) noexcept {
    void *pStored = nullptr;
    const std::int16_t result =
        this->context().vector().MEM_HashGetEntry(this->handle(), &key, &pStored);
    if (result == MEMERR_HASHNFND) return static_cast<Record *>(nullptr);
    if (result != 0) return failed(slots::MEM_HashGetEntry, result);
    return static_cast<Record *>(pStored);
  }

  /** Removes the record with this key. A later insertion uses its storage. */
  Result<Removal> remove(const Key &key) noexcept {
    const std::int16_t result = this->context().vector().MEM_HashDelEntry(this->handle(), &key);
    if (result == MEMERR_HASHNFND) return Removal::kNotFound;
    if (result != 0) return failed(slots::MEM_HashDelEntry, result);
    return Removal::kRemoved;
  }

  /** Calls `visit(record)` for every record, bucket by bucket. `visit` must not remove records or
   * throw: an exception ends the program. */
  template <class Visit>
  Status forEach(Visit visit) noexcept {
    const MEMScanFunc pFct = [](void *pRecord, void *pVisit) noexcept -> std::int16_t {
      (*static_cast<Visit *>(pVisit))(*static_cast<Record *>(pRecord));
      return 0;
    };
    return call(this->context(), slots::MEM_HashScan, this->handle(), pFct,
                static_cast<void *>(&visit));
  }

 private:
  HashTable(ContextRef context, HMEMHASH hMemHash) noexcept : Base(context, hMemHash) {}

  template <class Service>
  Error failed(Slot<Service> slot, std::int16_t result) const noexcept {
    return Error::ofCall(this->context(), slot.name, result);
  }

  // FNV-1a over the key's bytes.
  template <std::int32_t kBuckets>
  static std::int16_t bucketOf(const void *pKey) noexcept {
    const unsigned char *const pBytes = static_cast<const unsigned char *>(pKey);
    std::uint32_t hash = 2166136261U;
    for (std::size_t i = 0; i < sizeof(Key); ++i) hash = (hash ^ pBytes[i]) * 16777619U;
    return static_cast<std::int16_t>(hash % static_cast<std::uint32_t>(kBuckets));
  }
};
/** @} */

}  // namespace mem

#endif
