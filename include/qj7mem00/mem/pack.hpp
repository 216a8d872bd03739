/** @file pack.hpp
 * Control blocks made from members, and packed chains. Part of mem.hpp, whose conventions apply.
 */
#ifndef QJ7MEM00_MEM_PACK_HPP
#define QJ7MEM00_MEM_PACK_HPP

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <span>
#include <tuple>
#include <type_traits>

#include "chaincheck.hpp"
#include "context.hpp"

namespace mem {

/** @name Pack control blocks from members */
/** @{ */

/** Most descriptors of one table, including those of texts. Compilers nest expansions 256 deep
 * without further options, and a block of 32,768 bytes has room for 268. */
inline constexpr std::size_t kMaxPackDescriptors = 250;

namespace detail {

template <class Type>
using Target = std::remove_cv_t<std::remove_pointer_t<Type>>;

template <class Type>
inline constexpr bool kIsNarrowText = std::is_same_v<Type, char>;
template <class Type>
inline constexpr bool kIsWideText = std::is_same_v<Type, char16_t>;
template <class Type>
inline constexpr bool kIsText = kIsNarrowText<Type> || kIsWideText<Type>;

// Refuses other character types and names the type to use instead.
template <class Type>
constexpr void refuseForeignText() noexcept {
  static_assert(!std::is_same_v<Type, wchar_t>,
                "mem: wchar_t differs between platforms: use char16_t");
  static_assert(!std::is_same_v<Type, char8_t>, "mem: the services' text is not char8_t: use char");
  static_assert(!std::is_same_v<Type, char32_t>,
                "mem: the services' text is not char32_t: use char16_t");
}

inline constexpr std::size_t kMaxOffset = 32767;  // offsets in descriptors have 16 signed bits

// True for types that have a meaning in the chains of big-endian writers.
constexpr bool isEbcdicLetter(std::uint16_t type) noexcept {
  return type == 0xC3 || type == 0xC6 || type == 0xE2 || type == 0xE5 || type == 0xE6 ||
         type == 0xE7;
}

enum class PartRole { kSibling, kChild, kReference };

// One pointer of a segment.
template <PartRole kRole, class Field>
struct Part {
  static constexpr PartRole role = kRole;
  static constexpr const char *name = Field::kName;
  using Struct = typename Field::Struct;
  using Target = detail::Target<typename Field::Type>;
  static constexpr std::int16_t offset = static_cast<std::int16_t>(Field::kOffset);
};

template <PartRole kRole, class Field>
constexpr Part<kRole, Field> makePart() noexcept {
  static_assert(std::is_pointer_v<typename Field::Type>,
                "mem: a sibling, child or reference must be a pointer");
  static_assert(Field::kOffset <= kMaxOffset,
                "mem: the pointer's offset in the structure is too large");
  refuseForeignText<Target<typename Field::Type>>();
  return {};
}

// One kind of segment.
template <class StructType, std::uint16_t kType, class... Parts>
struct SegmentKind {
  using Struct = StructType;
  static constexpr std::uint16_t type = kType;
  static constexpr std::size_t count([[maybe_unused]] PartRole role) noexcept {
    return ((Parts::role == role ? 1U : 0U) + ... + 0U);
  }
  template <class Text>
  static constexpr bool pointsTo() noexcept {
    return (std::is_same_v<typename Parts::Target, Text> || ...);
  }
};

// True when no two pointers share a byte and none overlaps the first `head` bytes.
template <class... Parts>
constexpr bool lieApart(std::int32_t head) noexcept {
  const std::array<std::int32_t, sizeof...(Parts)> offsets{Parts::offset...};
  for (std::size_t i = 0; i < offsets.size(); ++i) {
    if (offsets[i] < head) return false;
    for (std::size_t j = 0; j < i; ++j) {
      const std::int32_t apart = offsets[i] - offsets[j];
      if (apart > -8 && apart < 8) return false;
    }
  }
  return true;
}

template <class Struct, std::uint16_t kType, class... Parts>
constexpr SegmentKind<Struct, kType, Parts...> makeSegment() noexcept {
  using Kind = SegmentKind<Struct, kType, Parts...>;
  static_assert(std::is_trivially_copyable_v<Struct>,
                "mem: a segment is copied byte by byte (trivially copyable)");
  static_assert(alignof(Struct) <= kEntryAlignment,
                "mem: a segment's structure is aligned to 8 bytes at most");
  static_assert((std::is_same_v<typename Parts::Struct, Struct> && ...),
                "mem: a member of another structure in this segment");
  static_assert(Kind::count(PartRole::kSibling) <= 1, "mem: a segment has one sibling at most");
  static_assert(Kind::count(PartRole::kChild) <= MEM_PACK_MAX_CHILDREN,
                "mem: a segment has 24 children at most");
  static_assert(Kind::count(PartRole::kReference) <= MEM_PACK_MAX_REFERENCES,
                "mem: a segment has 8 references at most");
  static_assert(kType != MEM_PACK_FIXED || sizeof(Struct) <= 65535,
                "mem: a segment is 65,535 bytes long at most");
  static_assert(lieApart<Parts...>(kType == MEM_PACK_FIXED ? 0 : 2),
                "mem: a pointer of a segment is named twice, or overlaps another or the length");
  return {};
}

// The kinds of one control block: segments in the given order, then narrow and wide text if a child
// points to them.
template <class... Segments>
struct PackKinds {
  template <class Struct>
  static constexpr std::size_t timesDescribed() noexcept {
    return ((std::is_same_v<typename Segments::Struct, Struct> ? 1U : 0U) + ... + 0U);
  }
  template <class Text>
  static constexpr bool hasText() noexcept {
    return (Segments::template pointsTo<Text>() || ...);
  }

  static constexpr std::size_t kNarrow = sizeof...(Segments);
  static constexpr std::size_t kWide = kNarrow + (hasText<char>() ? 1 : 0);
  static constexpr std::size_t kCount = kWide + (hasText<char16_t>() ? 1 : 0);

  template <class Target>
  static constexpr std::uint16_t indexOf() noexcept {
    if constexpr (kIsNarrowText<Target>) {
      return static_cast<std::uint16_t>(kNarrow);
    } else if constexpr (kIsWideText<Target>) {
      return static_cast<std::uint16_t>(kWide);
    } else {
      std::uint16_t index = 0;
      bool isFound = false;
      ((isFound = isFound || std::is_same_v<typename Segments::Struct, Target>,
        index = static_cast<std::uint16_t>(index + (isFound ? 0 : 1))),
       ...);
      return index;
    }
  }

  template <class ThisPart>
  static constexpr void add(MemPackDescriptor &descriptor) noexcept {
    using Target = typename ThisPart::Target;
    if constexpr (ThisPart::role == PartRole::kSibling) {
      static_assert(std::is_same_v<Target, typename ThisPart::Struct>,
                    "mem: a sibling points to a structure of its own kind");
      descriptor.SiblingOff = ThisPart::offset;
    } else if constexpr (ThisPart::role == PartRole::kChild) {
      static_assert(kIsText<Target> || timesDescribed<Target>() == 1,
                    "mem: a child of a kind that the control block does not describe");
      descriptor.Children[descriptor.ChildCount++] = {indexOf<Target>(), ThisPart::offset};
    } else {
      static_assert(timesDescribed<Target>() == 1,
                    "mem: a reference to a kind that the control block does not describe");
      descriptor.References[descriptor.ReferenceCount++] = ThisPart::offset;
    }
  }

  template <class Struct, std::uint16_t kType, class... Parts>
  static constexpr MemPackDescriptor describe(SegmentKind<Struct, kType, Parts...>) noexcept {
    static_assert(timesDescribed<Struct>() == 1, "mem: a structure is described twice");
    MemPackDescriptor descriptor{};
    descriptor.Type = kType;
    descriptor.FixedLen = kType == MEM_PACK_FIXED ? static_cast<std::uint16_t>(sizeof(Struct)) : 0;
    descriptor.SiblingOff = MEM_PACK_NO_SIBLING;
    (add<Parts>(descriptor), ...);
    return descriptor;
  }

  // Calls use(kind, target's kind) for each reference, in the order of the descriptor.
  template <class Struct, std::uint16_t kType, class... Parts, class Use>
  static constexpr void forEachReference(SegmentKind<Struct, kType, Parts...>,
                                         [[maybe_unused]] Use use) noexcept {
    ((Parts::role == PartRole::kReference
          ? use(indexOf<Struct>(), indexOf<typename Parts::Target>())
          : void()),
     ...);
  }

  static constexpr MemPackDescriptor text(std::uint16_t type) noexcept {
    MemPackDescriptor descriptor{};
    descriptor.Type = type;
    descriptor.SiblingOff = MEM_PACK_NO_SIBLING;
    return descriptor;
  }
};

// The record with further descriptors after the eight that it declares.
template <std::size_t kFurther>
struct PackStorage {
  MemPackCB head{};
  MemPackDescriptor further[kFurther]{};
};
template <>
struct PackStorage<0> {
  MemPackCB head{};
};

constexpr std::size_t furtherDescriptors(std::size_t count) noexcept {
  return count > MEM_PACK_MIN_DESCRIPTORS ? count - MEM_PACK_MIN_DESCRIPTORS : 0;
}

}  // namespace detail

/** A control block of `kCount` descriptors whose root segment is a `RootStruct`, and the kinds of
 * the references' targets, which a control block does not contain. */
template <class RootStruct, std::size_t kCount>
class PackTable {
 public:
  using Root = RootStruct;

  constexpr const MemPackCB &controlBlock() const noexcept { return storage_.head; }
  static constexpr std::size_t count() noexcept { return kCount; }

  /** REQUIRES: index < count(). */
  constexpr const MemPackDescriptor &descriptor(std::size_t index) const noexcept {
    if constexpr (kCount > MEM_PACK_MIN_DESCRIPTORS) {
      if (index >= MEM_PACK_MIN_DESCRIPTORS) {
        return storage_.further[index - MEM_PACK_MIN_DESCRIPTORS];
      }
    }
    return storage_.head.Descriptors[index];
  }

  /** Number of kinds that references point to; and, by descriptor, what must be checked for
   * references. */
  constexpr std::uint16_t targetCount() const noexcept { return targetCount_; }
  constexpr const detail::KindPlan *plans() const noexcept { return plans_.data(); }

 private:
  template <class... Segments>
  friend constexpr auto packTable(Segments... segments) noexcept;

  // Records the kind of the target of a kind's next reference.
  constexpr void addReference(std::uint16_t kind, std::uint16_t targetKind) noexcept {
    detail::KindPlan &target = plans_[targetKind];
    if (target.target == 0) target.target = ++targetCount_;
    detail::KindPlan &plan = plans_[kind];
    const std::uint16_t i = plan.referenceCount++;
    plan.references[i] = {descriptor(kind).References[i], target.target};
  }

  // Finds the kinds that a check must walk through, after all references are added. Works
  // backwards, because children usually come after their parents.
  constexpr void planWalk() noexcept {
    std::array<bool, kCount> isWalked{};
    for (bool hasChanged = true; hasChanged;) {
      hasChanged = false;
      for (std::size_t kind = kCount; kind-- > 0;) {
        if (isWalked[kind] || !leadsToReferences(kind, isWalked)) continue;
        isWalked[kind] = hasChanged = true;
      }
    }
    for (std::size_t kind = 0; kind < kCount; ++kind) {
      const MemPackDescriptor &from = descriptor(kind);
      detail::KindPlan &plan = plans_[kind];
      plan.siblingOff = isWalked[kind] ? from.SiblingOff : std::int16_t{MEM_PACK_NO_SIBLING};
      for (int i = 0; i < from.ChildCount; ++i) {
        if (isWalked[from.Children[i].Descriptor])
          plan.children[plan.childCount++] = from.Children[i];
      }
    }
  }
  constexpr bool leadsToReferences(std::size_t kind,
                                   const std::array<bool, kCount> &isWalked) const noexcept {
    if (plans_[kind].target != 0 || plans_[kind].referenceCount != 0) return true;
    const MemPackDescriptor &from = descriptor(kind);
    for (int i = 0; i < from.ChildCount; ++i) {
      if (isWalked[from.Children[i].Descriptor]) return true;
    }
    return false;
  }

  constexpr void add(const MemPackDescriptor &descriptor) noexcept {
    const auto index = static_cast<std::size_t>(storage_.head.Count++);
    if constexpr (kCount > MEM_PACK_MIN_DESCRIPTORS) {
      if (index >= MEM_PACK_MIN_DESCRIPTORS) {
        storage_.further[index - MEM_PACK_MIN_DESCRIPTORS] = descriptor;
        return;
      }
    }
    storage_.head.Descriptors[index] = descriptor;
  }

  detail::PackStorage<detail::furtherDescriptors(kCount)> storage_;
  std::array<detail::KindPlan, kCount> plans_{};
  std::uint16_t targetCount_ = 0;
};

/** The same, and the kinds as types, from which definitions are made (defs.hpp). */
template <class... Segments>
class PackTableOf
    : public PackTable<typename std::tuple_element_t<0, std::tuple<Segments...>>::Struct,
                       detail::PackKinds<Segments...>::kCount> {};

/** The pointer to the next segment of the same kind. */
template <class Field>
constexpr auto sibling(Field) noexcept {
  return detail::makePart<detail::PartRole::kSibling, Field>();
}

/** A pointer to a segment or text that this segment owns. The kind is the pointer's type: a
 * structure that the control block describes, char or char16_t. */
template <class Field>
constexpr auto child(Field) noexcept {
  return detail::makePart<detail::PartRole::kChild, Field>();
}

/** A pointer to a segment that is packed elsewhere in the same structure. */
template <class Field>
constexpr auto reference(Field) noexcept {
  return detail::makePart<detail::PartRole::kReference, Field>();
}

/** A kind of segment of sizeof(Struct) bytes, with its siblings, children and references. */
template <class Struct, class... Parts>
constexpr auto segment(Parts...) noexcept {
  return detail::makeSegment<Struct, MEM_PACK_FIXED, Parts...>();
}

/** A kind of segment that begins with a signed 16-bit count of the bytes after it. */
template <class Struct, std::size_t kOffset, class... Parts>
constexpr auto countedSegment(Member<Struct, std::int16_t, kOffset>, Parts...) noexcept {
  static_assert(kOffset == 0, "mem: the count is the first member of its segment");
  return detail::makeSegment<Struct, MEM_PACK_COUNTED, Parts...>();
}

/** A kind of segment that begins with its own total length as an unsigned 16-bit number. */
template <std::uint16_t kType, class Struct, std::size_t kOffset, class... Parts>
constexpr auto selfSizedSegment(Member<Struct, std::uint16_t, kOffset>, Parts...) noexcept {
  static_assert(kOffset == 0, "mem: the length is the first member of its segment");
  static_assert(kType != MEM_PACK_FIXED && kType != MEM_PACK_COUNTED && kType != MEM_PACK_STRING &&
                    kType != MEM_PACK_WIDE_STRING && !detail::isEbcdicLetter(kType),
                "mem: this type letter has a meaning of its own");
  return detail::makeSegment<Struct, kType, Parts...>();
}

/** The control block of these segments; the first one is the root's kind. Descriptors have this
 * order; those of narrow and wide text follow if a child needs them. */
template <class... Segments>
constexpr auto packTable(Segments... segments) noexcept {
  static_assert(sizeof...(Segments) + 2 <= kMaxPackDescriptors,
                "mem: too many descriptors for a control block");
  using Kinds = detail::PackKinds<Segments...>;
  PackTableOf<Segments...> table;
  (table.add(Kinds::describe(segments)), ...);
  if constexpr (Kinds::template hasText<char>()) table.add(Kinds::text(MEM_PACK_STRING));
  if constexpr (Kinds::template hasText<char16_t>()) table.add(Kinds::text(MEM_PACK_WIDE_STRING));
  const auto addReference = [&table](std::uint16_t kind, std::uint16_t targetKind) {
    table.addReference(kind, targetKind);
  };
  (Kinds::forEachReference(segments, addReference), ...);
  table.planWalk();
  return table;
}
/** @} */

/** @name Packed chain */
/** @{ */

/** The longest useful block length: offsets within a block are signed 16-bit numbers. */
inline constexpr std::int32_t kPackBlockLen = 32768;

/** A chain of packed blocks. One thread at a time. Unpacking turns it into the structure; after
 * that it only keeps the structure's storage. */
class PackedChain : public Owner<PackedChain, detail::ChainHandle> {
 public:
  /** The used bytes of each block, as in a file, until the chain is unpacked. */
  class Iterator {
   public:
    using value_type = std::span<const std::byte>;
    using difference_type = std::ptrdiff_t;

    Iterator() noexcept = default;
    value_type operator*() const noexcept {
      const std::byte *const pUsed = PackedChain::usedBytes(pBlock_);
      return {pUsed, detail::usedLength(pUsed, isBigEndian_)};
    }
    Iterator &operator++() noexcept {
      pBlock_ = pBlock_->pNext;
      return *this;
    }
    Iterator operator++(int) noexcept {
      const Iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(const Iterator &other) const noexcept { return pBlock_ == other.pBlock_; }

   private:
    friend class PackedChain;
    Iterator(const MemPackBlock *pBlock, bool isBigEndian) noexcept
        : pBlock_(pBlock), isBigEndian_(isBigEndian) {}

    const MemPackBlock *pBlock_ = nullptr;
    bool isBigEndian_ = false;
  };

  struct Size {
    std::uint64_t blocks = 0;
    std::uint64_t bytes = 0;  // used bytes: the length of the file form
  };

  PackedChain() noexcept = default;

  /** Packs the structure at `pRoot`, which `packCB` describes. */
  static Result<PackedChain> pack(ContextRef context, const MemPackCB &packCB, const void *pRoot,
                                  std::int32_t blockLen = kPackBlockLen) noexcept {
    MemPackBlock *pFirst = nullptr;
    const Status packed = call(context.get(), slots::MEM_Pack, &packCB, pRoot, blockLen, &pFirst);
    constexpr bool isBigEndian = std::endian::native == std::endian::big;
    PackedChain chain(context, {pFirst, static_cast<std::uint32_t>(blockLen), isBigEndian});
    if (!packed.isOk()) return packed.error();
    return chain;
  }
  template <class Root, std::size_t kCount>
  static Result<PackedChain> pack(ContextRef context, const PackTable<Root, kCount> &table,
                                  const Root &root,
                                  std::int32_t blockLen = kPackBlockLen) noexcept {
    return pack(context, table.controlBlock(), &root, blockLen);
  }

  /** A chain from its file form, of any writer. Bytes that are not a chain are refused ("it is too
   * short", "wrong length of block 3"); unpack() checks the contents. */
  static Result<PackedChain> load(ContextRef context, std::span<const std::byte> file) noexcept {
    if (file.size() < detail::kLeastChain) return refusal("it is too short");
    const bool isBigEndian = detail::isBigEndianChain(file.data());
    std::size_t longest = 0;
    std::size_t number = 0;
    for (std::size_t at = 0; at < file.size(); ++number) {
      const std::size_t used = usedLengthAt(file, at, isBigEndian);
      if (used == 0) return wrongLength(number);
      longest = used > longest ? used : longest;
      at += used;
    }
    const auto blockLen = static_cast<std::uint32_t>(detail::kBlockHead + longest);
    PackedChain chain(context, {nullptr, blockLen, isBigEndian});
    MemPackBlock **ppEnd = &chain.mutableHandle().pFirst;
    for (std::size_t at = 0; at < file.size();) {
      const std::size_t used = usedLengthAt(file, at, isBigEndian);
      void *const pArea = context->vector().MEM_Alloc(blockLen, detail::kChainSubPool);
      if (pArea == nullptr) {
        return Error::withoutRecord(slots::MEM_Alloc.name, -1, "no storage for a block");
      }
      std::memcpy(static_cast<std::byte *>(pArea) + detail::kBlockHead, &file[at], used);
      *ppEnd = static_cast<MemPackBlock *>(pArea);
      (*ppEnd)->pNext = nullptr;
      ppEnd = &(*ppEnd)->pNext;
      at += used;
    }
    return chain;
  }

  static Status closeHandle(const Context &context, const detail::ChainHandle &chain) noexcept {
    for (MemPackBlock *pBlock = chain.pFirst; pBlock != nullptr;) {
      MemPackBlock *const pNext = pBlock->pNext;
      context.vector().MEM_Free(pBlock, chain.blockLen, detail::kChainSubPool);
      pBlock = pNext;
    }
    return {};
  }

  Iterator begin() const noexcept { return {handle().pFirst, handle().isBigEndian}; }
  Iterator end() const noexcept { return {}; }

  Size size() const noexcept {
    Size size;
    for (const std::span<const std::byte> used : *this) {
      ++size.blocks;
      size.bytes += used.size();
    }
    return size;
  }

  /** Turns the chain into the structures of a table and returns the root. They live in the chain,
   * with segments and texts at any alignment (readRecord). Call it only once; after a failure the
   * chain can only be closed.
   *
   * The writer need not be trusted. A chain of other structures is refused, and so is one in which
   * a reference does not point to the start of a reached segment of its kind. So every pointer in
   * the table is null or points to a segment of its kind or to a text with its terminator. Segments
   * of fixed length can be read whole; others have the length that they contain, in their writer's
   * byte order. The writer chooses all other bytes, including pointers that the table does not
   * describe. Segments may share bytes without pointers: a change of one may change another.
   *
   * References cost a walk through the segments that have references or are their targets, and
   * storage of about a quarter of the chain's length for the time of the call. */
  template <class Root, std::size_t kCount>
  Result<Root *> unpack(const PackTable<Root, kCount> &table) noexcept {
    const MemPackBlock *const pLoaded = handle().pFirst;
    const bool isTables = isDescribedBy(table);
    const std::uint16_t targets = table.targetCount();
    detail::SegmentMap segments(context());
    if (targets != 0 && isTables && !segments.open(handle(), targets)) return noStorage();
    const Result<Root *> root = unpackTable(table, isTables);
    if (!root.isOk() || targets == 0) return root;
    if (handle().pFirst != pLoaded && !segments.open(handle(), targets)) return noStorage();
    if (!detail::ReferenceCheck(table.plans(), segments).run(root.value())) {
      return Error::refusal("PackedChain::unpack", "a reference leads to no segment of its kind");
    }
    return root;
  }

  /** The same without a check of references: they may point to any byte of the chain. */
  template <class Root, std::size_t kCount>
  Result<Root *> unpackUnchecked(const PackTable<Root, kCount> &table) noexcept {
    return unpackTable(table, isDescribedBy(table));
  }

  /** The same for any control block. If MEM_Unpack works in place, the file's own control block and
   * not `packCB` defines the lengths of segments and the offsets of pointers: you must trust the
   * writer for these, too. */
  Result<void *> unpackUnchecked(const MemPackCB &packCB) noexcept {
    MemPackBlock *pFirst = handle().pFirst;
    void *pRoot = nullptr;
    const Status unpacked = call(context(), slots::MEM_Unpack, &pFirst, &pRoot, &packCB);
    if (!unpacked.isOk()) return unpacked.error();
    if (pFirst != handle().pFirst) {  // a new chain, for a writer of another pointer width
      static_cast<void>(closeHandle(context(), handle()));
      constexpr bool isBigEndian = std::endian::native == std::endian::big;
      mutableHandle() = {pFirst, MEM_UNPACK_BLOCK_LEN, isBigEndian};
    }
    return pRoot;
  }

 private:
  PackedChain(ContextRef context, detail::ChainHandle handle) noexcept : Owner(context, handle) {}

  // Call it before the chain is unpacked.
  template <class Table>
  bool isDescribedBy(const Table &table) const noexcept {
    return isOpen() && detail::ChainControlBlock(usedBytes(handle().pFirst), handle().isBigEndian)
                           .isSameAs(table);
  }

  template <class Root, std::size_t kCount>
  Result<Root *> unpackTable(const PackTable<Root, kCount> &table, bool isTables) noexcept {
    const MemPackBlock *const pLoaded = handle().pFirst;
    const Result<void *> root = unpackUnchecked(table.controlBlock());
    if (!root.isOk()) return root.error();
    if (handle().pFirst == pLoaded && !isTables) {
      return Error::refusal("PackedChain::unpack", "the chain describes other structures");
    }
    return static_cast<Root *>(root.value());
  }

  static Error noStorage() noexcept {
    return Error::withoutRecord("PackedChain::unpack", -1, "no storage to check references");
  }

  static const std::byte *usedBytes(const MemPackBlock *pBlock) noexcept {
    return reinterpret_cast<const std::byte *>(pBlock) + detail::kBlockHead;
  }

  // Used length of the block at `at`, 0 when it is not valid.
  static std::size_t usedLengthAt(std::span<const std::byte> file, std::size_t at,
                                  bool isBigEndian) noexcept {
    const std::size_t left = file.size() - at;
    const std::size_t least = at == 0 ? detail::kLeastChain : detail::kUsedLenSize;
    if (left < least) return 0;
    const std::size_t used = detail::usedLength(&file[at], isBigEndian);
    return used < least || used > left ? 0 : used;
  }

  static Error refusal(const char *text) noexcept {
    return Error::refusal("PackedChain::load", text);
  }
  static Error wrongLength(std::size_t number) noexcept {
    char text[MEM_NAME_TEXT_LEN];
    std::snprintf(text, sizeof text, "wrong length of block %llu",
                  static_cast<unsigned long long>(number));
    return refusal(text);
  }
};
/** @} */

}  // namespace mem

#endif
