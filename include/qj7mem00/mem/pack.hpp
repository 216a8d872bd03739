/** @file pack.hpp
 * Control blocks made from members, and packed chains. Part of mem.hpp, whose conventions hold.
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

#include "context.hpp"

namespace mem {

/** @name Pack control blocks from members */
/** @{ */

/** Descriptors of one table, texts' included. Compilers nest expansions 256 deep without further
 * options, and a block of 32,768 bytes has room for 268. */
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

// Other types of characters, with what to use instead.
template <class Type>
constexpr void refuseForeignText() noexcept {
  static_assert(!std::is_same_v<Type, wchar_t>,
                "mem: wchar_t differs between platforms: use char16_t");
  static_assert(!std::is_same_v<Type, char8_t>, "mem: the services' text is no char8_t: use char");
  static_assert(!std::is_same_v<Type, char32_t>,
                "mem: the services' text is no char32_t: use char16_t");
}

inline constexpr std::size_t kMaxOffset = 32767;  // offsets in descriptors have 16 signed bits

// Types that have a meaning in the chains of big-endian writers.
constexpr bool isEbcdicLetter(std::uint16_t type) noexcept {
  return type == 0xC3 || type == 0xC6 || type == 0xE2 || type == 0xE5 || type == 0xE6 ||
         type == 0xE7;
}

enum class PartRole { kSibling, kChild, kReference };

// One pointer of a segment.
template <PartRole kRole, class Field>
struct Part {
  static constexpr PartRole role = kRole;
  using Struct = typename Field::Struct;
  using Target = detail::Target<typename Field::Type>;
  static constexpr std::int16_t offset = static_cast<std::int16_t>(Field::kOffset);
};

template <PartRole kRole, class Field>
constexpr Part<kRole, Field> makePart() noexcept {
  static_assert(std::is_pointer_v<typename Field::Type>,
                "mem: a sibling, child or reference must be a pointer");
  static_assert(Field::kOffset <= kMaxOffset, "mem: the pointer lies too far into the structure");
  refuseForeignText<Target<typename Field::Type>>();
  return {};
}

// One kind of segment.
template <class StructType, std::uint16_t kType, class... Parts>
struct SegmentKind {
  using Struct = StructType;
  static constexpr std::size_t count([[maybe_unused]] PartRole role) noexcept {
    return ((Parts::role == role ? 1U : 0U) + ... + 0U);
  }
  template <class Text>
  static constexpr bool pointsTo() noexcept {
    return (std::is_same_v<typename Parts::Target, Text> || ...);
  }
};

// Whether no two pointers share a byte, and none has one of the `head` bytes in front.
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
                "mem: a pointer of a segment is named twice, or lies over another or the length");
  return {};
}

// The kinds of one control block: segments in the order given, then narrow and wide text where a
// child points to them.
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

  static constexpr MemPackDescriptor text(std::uint16_t type) noexcept {
    MemPackDescriptor descriptor{};
    descriptor.Type = type;
    descriptor.SiblingOff = MEM_PACK_NO_SIBLING;
    return descriptor;
  }
};

// Descriptors behind the record, which declares eight.
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

/** A control block of `kCount` descriptors whose root segment is a `RootStruct`. */
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

 private:
  template <class... Segments>
  friend constexpr auto packTable(Segments... segments) noexcept;

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
};

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

/** A kind of segment that begins with a signed 16-bit count of the bytes behind it. */
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

/** The control block of these segments; the first one is the root's kind. Descriptors stand in this
 * order, those of narrow and of wide text behind them where a child needs them. */
template <class... Segments>
constexpr auto packTable(Segments... segments) noexcept {
  static_assert(sizeof...(Segments) + 2 <= kMaxPackDescriptors,
                "mem: too many descriptors for a control block");
  using Kinds = detail::PackKinds<Segments...>;
  using Root = typename std::tuple_element_t<0, std::tuple<Segments...>>::Struct;
  PackTable<Root, Kinds::kCount> table;
  (table.add(Kinds::describe(segments)), ...);
  if constexpr (Kinds::template hasText<char>()) table.add(Kinds::text(MEM_PACK_STRING));
  if constexpr (Kinds::template hasText<char16_t>()) table.add(Kinds::text(MEM_PACK_WIDE_STRING));
  return table;
}
/** @} */

/** @name Packed chain */
/** @{ */

/** The longest blocks of use: offsets within a block have 16 signed bits. */
inline constexpr std::int32_t kPackBlockLen = 32768;

namespace detail {

struct ChainHandle {
  MemPackBlock *pFirst = nullptr;
  std::uint32_t blockLen = 0;  // of every block, as it was obtained
  bool isBigEndian = false;    // order of the used lengths
  explicit operator bool() const noexcept { return pFirst != nullptr; }
};

inline constexpr std::int16_t kChainSubPool = 0;
inline constexpr std::size_t kBlockHead = offsetof(MemPackBlock, UsedLen);  // not in the file form
inline constexpr std::size_t kUsedLenSize = 2;
inline constexpr std::size_t kVersionOff = 2;  // in the file form of the first block
inline constexpr std::size_t kLeastChain = 6;  // used length and version

inline unsigned byteAt(const std::byte *pBytes, std::size_t index) noexcept {
  return std::to_integer<unsigned>(pBytes[index]);
}

// The version's last character tells the order; EBCDIC versions are big-endian throughout.
inline bool isBigEndianChain(const std::byte *pFirstUsed) noexcept {
  return byteAt(pFirstUsed, kVersionOff) >= 0xF0 || byteAt(pFirstUsed, kVersionOff + 3) == '1';
}

inline std::size_t usedLength(const std::byte *pUsed, bool isBigEndian) noexcept {
  const unsigned first = byteAt(pUsed, 0);
  const unsigned second = byteAt(pUsed, 1);
  return isBigEndian ? first * 256 + second : second * 256 + first;
}

// The control block of an unpacked chain, in either layout. One of the current layout is in the
// machine's order by then, one of the old layout still in its writer's.
class ChainControlBlock {
 public:
  ChainControlBlock(const std::byte *pFirstUsed, bool isSwapped) noexcept
      : pBytes_(pFirstUsed + kLeastChain),
        isOld_((byteAt(pFirstUsed, kVersionOff + 1) & 0x0F) == 1),  // in ASCII and in EBCDIC
        isBigEndian_(isBigEndianChain(pFirstUsed)),
        isSwapped_(isSwapped) {}

  bool isOld() const noexcept { return isOld_; }

  template <class Table>
  bool isSameAs(const Table &table) const noexcept {
    if (numberAt(0) != Table::count()) return false;
    for (std::size_t i = 0; i < Table::count(); ++i) {
      if (!isSame(2 + i * (isOld_ ? kOldDescriptorLen : sizeof(MemPackDescriptor)),
                  table.descriptor(i))) {
        return false;
      }
    }
    return true;
  }

 private:
  static constexpr std::size_t kOldDescriptorLen = 58;
  static constexpr std::size_t kOldReferences = 42;

  unsigned numberAt(std::size_t at) const noexcept {
    std::uint16_t number = 0;
    std::memcpy(&number, pBytes_ + at, sizeof number);
    return isSwapped_ ? (number & 0xFFU) << 8 | unsigned{number} >> 8 : number;
  }

  // EBCDIC letters are those of big-endian writers; elsewhere they are numbers like others.
  unsigned asciiType(unsigned type) const noexcept {
    if (!isBigEndian_) return type;
    switch (type) {
      case 0xC6:
        return MEM_PACK_FIXED;
      case 0xC3:
        return MEM_PACK_COUNTED;
      case 0xE2:
        return MEM_PACK_STRING;
      case 0xE6:
        return MEM_PACK_WIDE_STRING;
      default:
        return type;
    }
  }

  bool isSigned(std::size_t at, std::int16_t expected) const noexcept {
    return numberAt(at) == static_cast<std::uint16_t>(expected);
  }

  // What a kind does not use, writers may fill as they like: all of a text's but its type.
  bool isSame(std::size_t at, const MemPackDescriptor &expected) const noexcept {
    if (asciiType(numberAt(at)) != expected.Type) return false;
    if (expected.Type == MEM_PACK_STRING || expected.Type == MEM_PACK_WIDE_STRING) return true;
    if ((expected.Type == MEM_PACK_FIXED && numberAt(at + 2) != expected.FixedLen) ||
        !isSigned(at + 4, expected.SiblingOff) || !isSigned(at + 6, expected.ChildCount) ||
        !isSigned(at + 8, expected.ReferenceCount)) {
      return false;
    }
    for (int i = 0; i < expected.ChildCount; ++i) {
      const std::size_t entry = at + 10 + 4 * static_cast<std::size_t>(i);
      if (numberAt(entry) != expected.Children[i].Descriptor ||
          !isSigned(entry + 2, expected.Children[i].Offset)) {
        return false;
      }
    }
    const std::size_t references =
        at + (isOld_ ? kOldReferences : offsetof(MemPackDescriptor, References));
    for (int i = 0; i < expected.ReferenceCount; ++i) {
      if (!isSigned(references + 2 * static_cast<std::size_t>(i), expected.References[i])) {
        return false;
      }
    }
    return true;
  }

  const std::byte *pBytes_;
  bool isOld_;
  bool isBigEndian_;
  bool isSwapped_;
};

template <class Table>
bool describesSame(const std::byte *pFirstUsed, const Table &table) noexcept {
  const ChainControlBlock native(pFirstUsed, false);
  return native.isSameAs(table) ||
         (native.isOld() && ChainControlBlock(pFirstUsed, true).isSameAs(table));
}

}  // namespace detail

/** A chain of packed blocks. One thread at a time. Unpacking makes it the structure itself: from
 * then on it is kept for its lifetime only. */
class PackedChain : public Owner<PackedChain, detail::ChainHandle> {
 public:
  /** The used bytes of each block, as they stand in a file, until the chain is unpacked. */
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
    std::uint64_t bytes = 0;  // used ones: the length of the file form
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

  /** A chain from its file form, of any writer. Bytes that are none are refused ("it is too short",
   * "wrong length of block 3"); whether they make sense is for unpack() to tell. */
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

  /** Turns the chain into linked structures and hands out the root. They live in the chain, at any
   * alignment (readRecord). Once only; after a failure the chain can only be closed.
   *
   * Where MEM_Unpack works in place, segments are as long and pointers lie where the file's own
   * control block says, not `packCB`: the caller has to trust the writer for that. */
  Result<void *> unpack(const MemPackCB &packCB) noexcept {
    MemPackBlock *pFirst = handle().pFirst;
    void *pRoot = nullptr;
    const Status unpacked = call(context(), slots::MEM_Unpack, &pFirst, &pRoot, &packCB);
    if (!unpacked.isOk()) return unpacked.error();
    if (pFirst != handle().pFirst) {  // laid out anew, for a writer of another pointer width
      static_cast<void>(closeHandle(context(), handle()));
      mutableHandle() = {pFirst, MEM_UNPACK_BLOCK_LEN, false};
    }
    return pRoot;
  }

  /** The same for structures of a table. A chain of any other control block is refused, so records
   * of fixed length can be read without trust in the writer. */
  template <class Root, std::size_t kCount>
  Result<Root *> unpack(const PackTable<Root, kCount> &table) noexcept {
    const MemPackBlock *const pLoaded = handle().pFirst;
    const Result<void *> root = unpack(table.controlBlock());
    if (!root.isOk()) return root.error();
    const bool isInPlace = handle().pFirst == pLoaded;
    if (isInPlace && !detail::describesSame(usedBytes(pLoaded), table)) {
      return Error::refusal("PackedChain::unpack", "the chain describes other structures");
    }
    return static_cast<Root *>(root.value());
  }

 private:
  PackedChain(ContextRef context, detail::ChainHandle handle) noexcept : Owner(context, handle) {}

  static const std::byte *usedBytes(const MemPackBlock *pBlock) noexcept {
    return reinterpret_cast<const std::byte *>(pBlock) + detail::kBlockHead;
  }

  // Used length of the block at `at`, 0 when it cannot be one.
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
