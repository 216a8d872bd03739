#include "packed_verdict.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "packed_head.hpp"

namespace memtool {
namespace {

constexpr std::size_t kContentOff = offsetof(MemPackBlock, UsedLen);  // of what a file contains
constexpr std::size_t kMostBlocks = std::size_t{MEM_PACK_MAX_BLOCKS} + 1;
constexpr std::size_t kMostUsed = 0xFFFF;
constexpr std::int32_t kNativeWidth = 8;
constexpr std::int32_t kLengthWord = 2;
constexpr std::int32_t kMostOffset = 0x7FFF;

using Contents = std::vector<std::string_view>;

// The contents of the blocks. None when the file does not form blocks or has no whole head.
std::optional<Contents> contentsOf(const PackedChain &chain) {
  const std::string_view bytes = chain.bytes;
  if (bytes.size() < kHeadLen) return {};
  // The library checks the version first.
  if (!chain.version) return Contents{bytes.substr(0, kMostUsed)};
  Contents contents;
  for (std::size_t at = 0; at < bytes.size() && contents.size() < kMostBlocks;) {
    const std::size_t left = bytes.size() - at;
    const std::uint32_t used = left < kFirstContent ? 0 : chain.number(at);
    if (used < (at == 0 ? kHeadLen : kFirstContent) || used > left) return {};
    contents.push_back(bytes.substr(at, used));
    at += used;
  }
  return contents;
}

// Copies of the blocks, each between guard bytes.
class GuardedBlocks {
 public:
  explicit GuardedBlocks(const Contents &contents) {
    for (const std::string_view content : contents) add(content);
    for (std::size_t i = 0; i + 1 < areas_.size(); ++i) {
      const std::byte *const next = block(i + 1);
      std::memcpy(block(i), &next, sizeof next);
    }
  }

  MemPackBlock *first() { return reinterpret_cast<MemPackBlock *>(block(0)); }

  bool isWhole() const {
    return std::all_of(areas_.begin(), areas_.end(), [](const Area &area) {
      const auto isGuard = [](std::byte byte) { return byte == kGuard; };
      const std::byte *const start = area.bytes.get();
      const std::byte *const end = start + kGuardLen + area.length;
      return std::all_of(start, start + kGuardLen, isGuard) &&
             std::all_of(end, end + kGuardLen, isGuard);
    });
  }

 private:
  static constexpr std::size_t kGuardLen = 64;
  static constexpr std::byte kGuard{0xD7};

  struct Area {
    std::unique_ptr<std::byte[]> bytes;
    std::size_t length;  // of the block
  };

  void add(std::string_view content) {
    const std::size_t length = kContentOff + content.size();
    Area area{std::make_unique<std::byte[]>(length + 2 * kGuardLen), length};
    std::fill_n(area.bytes.get(), kGuardLen, kGuard);
    std::fill_n(area.bytes.get() + kGuardLen + length, kGuardLen, kGuard);
    std::memcpy(area.bytes.get() + kGuardLen + kContentOff, content.data(), content.size());
    areas_.push_back(std::move(area));
  }
  std::byte *block(std::size_t index) { return areas_[index].bytes.get() + kGuardLen; }

  std::vector<Area> areas_;
};

// A caller's control block, of any number of kinds.
class CallersKinds {
 public:
  explicit CallersKinds(std::size_t count)
      : bytes_(static_cast<std::size_t>(MEM_PACK_CB_LEN(count)), std::byte{0}) {
    const auto number = static_cast<std::int16_t>(count);
    std::memcpy(bytes_.data(), &number, sizeof number);
  }

  void set(std::size_t kind, const MemPackDescriptor &descriptor) {
    std::memcpy(bytes_.data() + offsetof(MemPackCB, Descriptors) + kind * sizeof descriptor,
                &descriptor, sizeof descriptor);
  }
  const MemPackCB *get() const { return reinterpret_cast<const MemPackCB *>(bytes_.data()); }

 private:
  std::vector<std::byte> bytes_;
};

// The offset in the root's k-th child entry as the library compares it: used entries in this
// machine's byte order, others as they are stored, or zero for the old layout.
std::int16_t storedRootOffset(const PackedChain &chain, std::uint32_t k) {
  const bool isOld = chain.version->isOldLayout;
  const DescriptorLayout &layout = descriptorLayout(isOld);
  const std::size_t root = chain.fileOffset({0, kHeadLen + kFirstContent});
  const std::int16_t used = chain.signedNumber(root + offsetof(MemPackDescriptor, ChildCount));
  const std::size_t at = root + layout.childrenOff + std::size_t{k} * sizeof(MemPackChild) +
                         offsetof(MemPackChild, Offset);
  if (used >= 0 && used <= layout.maxChildren && k < static_cast<std::uint32_t>(used)) {
    return chain.signedNumber(at);
  }
  std::int16_t stored = 0;
  if (!isOld) std::memcpy(&stored, chain.bytes.data() + at, sizeof stored);
  return stored;
}

// A caller whose first child pointers have the offsets of the file: the library then unpacks in
// place and reads nothing else of the caller's control block.
CallersKinds callersInPlace(const PackedChain &chain) {
  CallersKinds callers(1);
  MemPackDescriptor root{};
  if (!chain.kinds.empty()) {
    for (std::uint32_t k = 0; k < 2; ++k) root.Children[k].Offset = storedRootOffset(chain, k);
  }
  callers.set(0, root);
  return callers;
}

// The layout of a kind for a caller with 8-byte pointers: `start` bytes, then the pointer fields in
// the file's order without gaps.
class NewLayout {
 public:
  NewLayout(const Kind &kind, std::int32_t start)
      : kind_(kind), start_(start), order_(kind.pointerOffsets()) {}

  // Fields with the same offset in the file get different ones here.
  MemPackDescriptor descriptor() {
    MemPackDescriptor made{};
    made.Type = nativeType(kind_);
    made.FixedLen = static_cast<std::uint16_t>(start_ + kNativeWidth * count());
    made.SiblingOff = MEM_PACK_NO_SIBLING;
    if (kind_.hasSibling()) made.SiblingOff = takePlace(kind_.siblingOff);
    made.ChildCount = static_cast<std::int16_t>(kind_.children.size());
    for (std::size_t i = 0; i < kind_.children.size(); ++i) {
      made.Children[i] = {kind_.children[i].Descriptor, takePlace(kind_.children[i].Offset)};
    }
    made.ReferenceCount = static_cast<std::int16_t>(kind_.references.size());
    for (std::size_t i = 0; i < kind_.references.size(); ++i) {
      made.References[i] = takePlace(kind_.references[i]);
    }
    return made;
  }

 private:
  std::int32_t count() const { return static_cast<std::int32_t>(order_.size()); }

  std::int16_t takePlace(std::int16_t offset) {
    const auto first = std::find(order_.begin(), order_.end(), offset);
    const auto index = static_cast<std::int32_t>(first - order_.begin());
    *first = kTaken;
    return static_cast<std::int16_t>(start_ + kNativeWidth * index);
  }

  static constexpr std::int32_t kTaken = -0x10000;  // not the offset of a field

  const Kind &kind_;
  std::int32_t start_;
  std::vector<std::int32_t> order_;  // offsets in the file; kTaken after they have a new one
};

// A caller with the same kinds and 8-byte pointers. None when the library could not recognise that
// the writer had 4-byte pointers: for that the root's first child pointer must have a higher offset
// in the caller's layout than in the file.
std::optional<CallersKinds> callersOfNewChain(const PackedChain &chain) {
  CallersKinds callers(chain.kindCount);
  for (std::size_t i = 0; i < chain.kinds.size(); ++i) {
    const Kind &kind = chain.kinds[i];
    MemPackDescriptor made{};
    made.SiblingOff = MEM_PACK_NO_SIBLING;
    const std::int32_t file = storedRootOffset(chain, 0);
    if (kind.isDescribed && !isText(kind.form)) {
      const std::int32_t start = i == 0 ? std::max(file + 1, kLengthWord) : kLengthWord;
      made = NewLayout(kind, start).descriptor();
      if (i == 0 && start + kNativeWidth * 33 > kMostOffset) return {};
    } else if (kind.isDescribed) {
      made.Type = nativeType(kind);
    }
    if (i == 0 && made.ChildCount == 0) {
      if (file >= kMostOffset) return {};
      made.Children[0].Offset = static_cast<std::int16_t>(file + 1);
    }
    callers.set(i, made);
  }
  return callers;
}

// Texts that name a place in the blocks end with its address, which differs from run to run.
std::string withoutAddress(std::string text) {
  constexpr std::size_t kDigits = 16;
  const std::size_t equals = text.rfind('=');
  if (equals != std::string::npos && text.size() - equals - 1 == kDigits) text.resize(equals);
  return text;
}

Verdict notAsked(std::string why) {
  Verdict verdict;
  verdict.whyNot = std::move(why);
  return verdict;
}

Verdict unpack(RunningLibrary &library, const Contents &contents, const MemPackCB *callers) {
  GuardedBlocks blocks(contents);
  MemPackBlock *first = blocks.first();
  void *root = nullptr;
  MEMFunctionVector &vector = library.vector();
  Verdict verdict;
  verdict.wasAsked = true;
  verdict.code = static_cast<std::uint16_t>(vector.MEM_Unpack(&first, &root, callers));
  if (verdict.code != 0) verdict.text = withoutAddress(library.host().thread().Error.NameText);
  for (MemPackBlock *made = first == blocks.first() ? nullptr : first; made != nullptr;) {
    MemPackBlock *const next = made->pNext;
    vector.MEM_Free(made, MEM_UNPACK_BLOCK_LEN, 0);
    made = next;
  }
  if (!blocks.isWhole()) throw ToolError("the library wrote outside of the chain's blocks");
  return verdict;
}

}  // namespace

const char *nameOfCode(std::uint32_t code) {
  switch (code) {
#define MEM_NAME_OF_CODE(name, number, message) \
  case number:                                  \
    return #name;
    MEMERR_LIST(MEM_NAME_OF_CODE)
#undef MEM_NAME_OF_CODE
    default:
      return "";
  }
}

std::string remarkOf(const Verdict &verdict) {
  if (!verdict.wasAsked) return fmt::format(" (the library was not asked: {})", verdict.whyNot);
  if (verdict.code == 0) return " (the library accepts it)";
  return fmt::format(" (the library's code is {} {}: {})", verdict.code, nameOfCode(verdict.code),
                     verdict.text);
}

Verdict askLibrary(RunningLibrary &library, const PackedChain &chain) {
  const std::optional<Contents> contents = contentsOf(chain);
  if (!contents) return notAsked("the file does not form blocks");
  if (chain.pointerWidth != 4 || !chain.isHeadSound) {
    return unpack(library, *contents, callersInPlace(chain).get());
  }
  const std::optional<CallersKinds> callers = callersOfNewChain(chain);
  if (!callers)
    return notAsked("no caller's layout can have the root's first pointer at a higher offset");
  return unpack(library, *contents, callers->get());
}

}  // namespace memtool
