// What tests of the packer build structures and control blocks from.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "qj7mem00/qj7mem00.h"

namespace memtest {

using Bytes = std::vector<std::uint8_t>;

// One kind of segment, as a descriptor defines it.
struct Kind {
  std::uint16_t type = MEM_PACK_FIXED;
  std::uint16_t fixedLen = 0;
  std::int16_t siblingOff = MEM_PACK_NO_SIBLING;
  std::vector<MemPackChild> children = {};
  std::vector<std::int16_t> references = {};
};

inline constexpr std::uint16_t kSelfDescribing = 'D';  // a type that has no letter of its own

inline Kind stringKind() {
  return {.type = MEM_PACK_STRING};
}
inline Kind wideKind() {
  return {.type = MEM_PACK_WIDE_STRING};
}
inline Kind fixedKind(std::size_t length) {
  return {.fixedLen = static_cast<std::uint16_t>(length)};
}

// A caller's pack control block, of exactly the length that its count asks for. What no kind
// defines is not zero, so that a packer that relies on it shows.
class ControlBlock {
 public:
  static constexpr std::uint8_t kUndefined = 0xEE;
  static constexpr std::size_t kDescriptorLen = 122;

  explicit ControlBlock(std::int16_t count, std::uint8_t undefined = kUndefined)
      : bytes_(lengthFor(count), undefined) {
    setCount(count);
  }
  ControlBlock(std::initializer_list<Kind> kinds)
      : ControlBlock(static_cast<std::int16_t>(kinds.size())) {
    std::size_t index = 0;
    for (const Kind &kind : kinds) set(index++, kind);
  }

  static std::size_t lengthFor(std::int32_t count) {
    return count > 8 ? 978 + kDescriptorLen * static_cast<std::size_t>(count - 8) : 978;
  }

  // Changes the number in the block only, not the room after it.
  void setCount(std::int16_t count) { std::memcpy(bytes_.data(), &count, sizeof count); }

  void set(std::size_t index, const Kind &kind) {
    MemPackDescriptor &descriptor = (*this)[index];
    descriptor.Type = kind.type;
    descriptor.FixedLen = kind.fixedLen;
    descriptor.SiblingOff = kind.siblingOff;
    descriptor.ChildCount = static_cast<std::int16_t>(kind.children.size());
    descriptor.ReferenceCount = static_cast<std::int16_t>(kind.references.size());
    for (std::size_t i = 0; i < kind.children.size(); ++i) {
      descriptor.Children[i] = kind.children[i];
    }
    for (std::size_t i = 0; i < kind.references.size(); ++i) {
      descriptor.References[i] = kind.references[i];
    }
  }

  // REQUIRES: room for the descriptor. By address, because the record declares eight only.
  MemPackDescriptor &operator[](std::size_t index) {
    return *reinterpret_cast<MemPackDescriptor *>(bytes_.data() + 2 + kDescriptorLen * index);
  }

  const MemPackCB *get() const { return reinterpret_cast<const MemPackCB *>(bytes_.data()); }
  const Bytes &bytes() const { return bytes_; }

 private:
  Bytes bytes_;
};

// Storage of a caller's structure: every segment and text in an area of its own that ends exactly
// where the item ends, at an address of any alignment.
class Items {
 public:
  // `length` bytes, all `filler`.
  std::uint8_t *make(std::size_t length, std::uint8_t filler = 0, std::size_t misalignment = 0) {
    areas_.push_back(
        {std::make_unique<std::uint8_t[]>(misalignment + length), misalignment, length});
    std::uint8_t *const item = areas_.back().item();
    std::memset(item, filler, length);
    return item;
  }

  std::uint8_t *copy(const void *from, std::size_t length, std::size_t misalignment = 0) {
    std::uint8_t *const item = make(length, 0, misalignment);
    std::memcpy(item, from, length);
    return item;
  }

  // Texts with their terminators.
  std::uint8_t *text(std::string_view characters, std::size_t misalignment = 0) {
    std::uint8_t *const item = make(characters.size() + 1, 0, misalignment);
    std::memcpy(item, characters.data(), characters.size());
    return item;
  }
  std::uint8_t *wide(std::u16string_view units, std::size_t misalignment = 0) {
    std::uint8_t *const item = make(2 * units.size() + 2, 0, misalignment);
    std::memcpy(item, units.data(), 2 * units.size());
    return item;
  }

  // All bytes of all items, in the order in which they were made.
  Bytes contents() const {
    Bytes all;
    for (const Area &area : areas_) all.insert(all.end(), area.item(), area.item() + area.length);
    return all;
  }

 private:
  struct Area {
    std::unique_ptr<std::uint8_t[]> storage;
    std::size_t misalignment;
    std::size_t length;
    std::uint8_t *item() const { return storage.get() + misalignment; }
  };
  std::vector<Area> areas_;
};

inline void putPointer(std::uint8_t *segment, std::size_t offset, const void *target) {
  std::memcpy(segment + offset, &target, sizeof target);
}

inline const std::uint8_t *getPointer(const std::uint8_t *segment, std::size_t offset) {
  const std::uint8_t *target;
  std::memcpy(&target, segment + offset, sizeof target);
  return target;
}

// A number at any address, in the machine's byte order.
template <class Number>
Number numberAt(const std::uint8_t *from) {
  Number number;
  std::memcpy(&number, from, sizeof number);
  return number;
}

template <class Number>
void putNumber(std::uint8_t *to, Number number) {
  std::memcpy(to, &number, sizeof number);
}

}  // namespace memtest
