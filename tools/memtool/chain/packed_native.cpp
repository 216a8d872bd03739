#include "packed_native.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <utility>
#include <vector>

#include "packed_head.hpp"
#include "packed_reader.hpp"
#include "tool_progress.hpp"

namespace memtool {
namespace {

constexpr std::int16_t kChainSubPool = 0;  // where MEM_Pack and MEM_Unpack allocate blocks
constexpr std::size_t kContentOff = offsetof(MemPackBlock, UsedLen);  // of what a file contains
constexpr std::uint32_t kNativeWidth = 8;

template <class Number>
void store(std::string &bytes, std::size_t at, Number value) {
  std::memcpy(bytes.data() + at, &value, sizeof value);
}

// The offsets of a kind's pointer fields when they are 8 bytes wide. The fields keep their order
// and the number of bytes between them. If a fixed kind has its 4-byte pointers at multiples of 4,
// as compilers place them, the new ones are at multiples of 8.
class WideLayout {
 public:
  WideLayout(const Kind &kind, std::uint32_t width) : offsets_(kind.pointerOffsets()) {
    const auto oldWidth = static_cast<std::int32_t>(width);
    const auto grown = static_cast<std::int32_t>(kNativeWidth) - oldWidth;
    const auto isAligned = [](std::int32_t offset) { return offset % 4 == 0; };
    const bool aligns = grown > 0 && kind.form == Form::Fixed && isAligned(kind.fixedLen) &&
                        std::all_of(offsets_.begin(), offsets_.end(), isAligned);
    for (const std::int32_t offset : offsets_) {
      if (aligns) shift_ += (8 - (offset + shift_) % 8) % 8;
      newOffsets_.push_back(offset + shift_);
      shift_ += grown;
    }
    if (aligns && !offsets_.empty()) shift_ += (8 - (kind.fixedLen + shift_) % 8) % 8;
  }

  std::int16_t offset(std::int32_t old) const {
    const auto at = std::find(offsets_.begin(), offsets_.end(), old) - offsets_.begin();
    return checked(newOffsets_[static_cast<std::size_t>(at)], 0x7FFF);
  }
  std::uint16_t length(std::uint16_t old) const {
    return static_cast<std::uint16_t>(checked(old + shift_, 0xFFFF));
  }

 private:
  static std::int16_t checked(std::int32_t value, std::int32_t most) {
    if (value <= most) return static_cast<std::int16_t>(value);
    throw ToolError("with pointers of 8 bytes a segment of this chain would be too long");
  }

  std::vector<std::int32_t> offsets_;
  std::vector<std::int32_t> newOffsets_;
  std::int32_t shift_ = 0;
};

MemPackDescriptor nativeDescriptor(const Kind &kind, std::uint32_t width) {
  MemPackDescriptor native{};
  native.SiblingOff = MEM_PACK_NO_SIBLING;
  if (!kind.isDescribed) return native;
  native.Type = nativeType(kind);
  if (isText(kind.form)) return native;
  const WideLayout layout(kind, width);
  if (kind.form == Form::Fixed) native.FixedLen = layout.length(kind.fixedLen);
  if (kind.hasSibling()) native.SiblingOff = layout.offset(kind.siblingOff);
  native.ChildCount = static_cast<std::int16_t>(kind.children.size());
  for (std::size_t i = 0; i < kind.children.size(); ++i) {
    native.Children[i] = {kind.children[i].Descriptor, layout.offset(kind.children[i].Offset)};
  }
  native.ReferenceCount = static_cast<std::int16_t>(kind.references.size());
  for (std::size_t i = 0; i < kind.references.size(); ++i) {
    native.References[i] = layout.offset(kind.references[i]);
  }
  return native;
}

// True when a child of a kind within the count is of a kind beyond it.
bool usesUncounted(const std::vector<Kind> &kinds, std::size_t count) {
  const auto isBeyond = [count](const MemPackChild &child) { return child.Descriptor >= count; };
  return std::any_of(kinds.begin(), kinds.begin() + static_cast<std::ptrdiff_t>(count),
                     [&isBeyond](const Kind &kind) {
                       return std::any_of(kind.children.begin(), kind.children.end(), isBeyond);
                     });
}

// A control block as callers pass it, of any number of kinds. Kinds beyond the count are left out
// unless a child is of such a kind.
class NativeControlBlock {
 public:
  NativeControlBlock(const std::vector<Kind> &kinds, std::size_t count, std::uint32_t width)
      : bytes_(static_cast<std::size_t>(MEM_PACK_CB_LEN(count)), '\0') {
    store(bytes_, 0, static_cast<std::int16_t>(count));
    const std::size_t present = usesUncounted(kinds, count) ? kinds.size() : count;
    for (std::size_t i = 0; i < present; ++i) {
      store(bytes_, offsetof(MemPackCB, Descriptors) + i * sizeof(MemPackDescriptor),
            nativeDescriptor(kinds[i], width));
    }
  }

  const MemPackCB *get() const { return reinterpret_cast<const MemPackCB *>(bytes_.data()); }
  std::size_t length() const { return bytes_.size(); }

 private:
  std::string bytes_;
};

// Writes numbers in the byte order of a chain's writer.
class WriterBytes {
 public:
  explicit WriterBytes(bool isBigEndian) : isBigEndian_(isBigEndian) {}

  void put(std::uint32_t value) {
    const auto high = static_cast<char>(value >> 8 & 0xFF);
    const auto low = static_cast<char>(value & 0xFF);
    bytes += isBigEndian_ ? high : low;
    bytes += isBigEndian_ ? low : high;
  }
  void putAt(std::size_t at, std::uint32_t value) {
    WriterBytes number(isBigEndian_);
    number.put(value);
    bytes.replace(at, 2, number.bytes);
  }

  std::string bytes;

 private:
  bool isBigEndian_;
};

// The library recognises a writer with 4-byte pointers by the root's first child pointer, which has
// a lower offset in the file than in the caller's layout. If the offsets do not show it, the chain
// gets an additional root: four bytes and then a pointer to the real root.
class AddedRoot {
 public:
  explicit AddedRoot(const PackedChain &chain) : chain_(chain) {}

  static Kind kind(std::uint32_t width) {
    Kind made;
    made.typeCode = MEM_PACK_FIXED;
    made.fixedLen = static_cast<std::uint16_t>(4 + width);
    made.children.push_back({1, 4});
    return made;
  }

  // The kinds, the added root's first.
  std::vector<Kind> kinds() const {
    std::vector<Kind> all{kind(chain_.pointerWidth)};
    all.insert(all.end(), chain_.kinds.begin(), chain_.kinds.end());
    for (std::size_t i = 1; i < all.size(); ++i) {
      for (MemPackChild &child : all[i].children) ++child.Descriptor;
    }
    return all;
  }

  // The blocks' contents: one with the control block, one with the added root, then those of the
  // chain. Its first block keeps its old head as bytes that no pointer leads to.
  std::vector<std::string> contents() const {
    if (chain_.blocks.size() + kNewBlocks > MEM_PACK_MAX_BLOCKS) {
      throw ToolError(
          fmt::format("the chain has {} blocks, too many to rewrite it for this platform",
                      chain_.blocks.size()));
    }
    const bool isBigEndian = chain_.version->isBigEndian;
    WriterBytes root(isBigEndian);
    root.put(kFirstContent + 4 + chain_.pointerWidth);
    root.bytes.append(4, '\0');
    root.put(chain_.root->block + kNewBlocks);
    root.put(chain_.root->offset);
    root.bytes.append(chain_.pointerWidth - 4, '\0');

    std::vector<std::string> all{head(), root.bytes};
    for (std::size_t i = 0; i < chain_.blocks.size(); ++i) all.emplace_back(chain_.content(i));
    for (const Segment &segment : chain_.segments) moveTargets(segment, all);
    return all;
  }

 private:
  static constexpr std::uint32_t kNewBlocks = 2;

  std::string head() const {
    const std::vector<Kind> kinds = this->kinds();
    const std::size_t count = chain_.kindCount + std::size_t{1};
    const bool isOld = chain_.version->isOldLayout;
    const DescriptorLayout &layout = descriptorLayout(isOld);
    const std::uint32_t length = controlBlockLength(static_cast<std::int32_t>(count), isOld);
    WriterBytes writer(chain_.version->isBigEndian);
    writer.put(kHeadLen + length);
    writer.bytes += chain_.bytes.substr(2, 4);
    writer.put(static_cast<std::uint32_t>(count));
    writer.bytes.append(length - 2, '\0');
    const std::size_t present = (length - 2) / layout.length;
    for (std::size_t i = 0; i < present && i < kinds.size(); ++i) {
      putKind(writer, kHeadLen + 2 + i * layout.length, layout, kinds[i]);
    }
    return writer.bytes;
  }

  static std::uint32_t unsignedOf(std::int16_t value) { return static_cast<std::uint16_t>(value); }

  static void putKind(WriterBytes &writer, std::size_t at, const DescriptorLayout &layout,
                      const Kind &kind) {
    writer.putAt(at, kind.typeCode);
    writer.putAt(at + 2, kind.fixedLen);
    writer.putAt(at + 4, unsignedOf(kind.siblingOff));
    writer.putAt(at + 6, static_cast<std::uint32_t>(kind.children.size()));
    writer.putAt(at + 8, static_cast<std::uint32_t>(kind.references.size()));
    for (std::size_t i = 0; i < kind.children.size(); ++i) {
      writer.putAt(at + layout.childrenOff + i * 4, kind.children[i].Descriptor);
      writer.putAt(at + layout.childrenOff + i * 4 + 2, unsignedOf(kind.children[i].Offset));
    }
    for (std::size_t i = 0; i < kind.references.size(); ++i) {
      writer.putAt(at + layout.referencesOff + i * 2, unsignedOf(kind.references[i]));
    }
  }

  void moveTargets(const Segment &segment, std::vector<std::string> &contents) const {
    for (std::size_t i = 0; i < segment.pointerCount; ++i) {
      const Pointer &pointer = chain_.pointers[segment.firstPointer + i];
      if (pointer.isNull) continue;
      WriterBytes block(chain_.version->isBigEndian);
      block.put(pointer.target.block + kNewBlocks);
      const std::size_t at = segment.place.offset + static_cast<std::size_t>(pointer.offset);
      contents[segment.place.block + kNewBlocks].replace(at, 2, block.bytes);
    }
  }

  const PackedChain &chain_;
};

// A chain in storage of the host. The destructor frees everything.
class StoredChain {
 public:
  StoredChain(RunningLibrary &library, const std::vector<std::string> &contents)
      : library_(library) {
    for (const std::string &content : contents) {
      const auto length = static_cast<std::uint32_t>(
          std::max<std::size_t>(kContentOff + content.size(), blocks_.empty() ? 14 : 10));
      auto *const block =
          static_cast<MemPackBlock *>(library_.vector().MEM_Alloc(length, kChainSubPool));
      if (block == nullptr) throw ToolError("there is not enough storage for the chain");
      block->pNext = nullptr;
      content.copy(reinterpret_cast<char *>(block) + kContentOff, content.size());
      if (!blocks_.empty()) blocks_.back().first->pNext = block;
      blocks_.emplace_back(block, length);
    }
  }
  ~StoredChain() {
    for (const auto &[block, length] : blocks_) {
      library_.vector().MEM_Free(block, length, kChainSubPool);
    }
    while (made_ != nullptr) {
      MemPackBlock *const next = made_->pNext;
      library_.vector().MEM_Free(made_, MEM_UNPACK_BLOCK_LEN, kChainSubPool);
      made_ = next;
    }
  }
  StoredChain(const StoredChain &) = delete;
  StoredChain &operator=(const StoredChain &) = delete;

  void *unpack(const MemPackCB *controlBlock) {
    MemPackBlock *first = blocks_.front().first;
    void *root = nullptr;
    library_.check("MEM_Unpack", library_.vector().MEM_Unpack(&first, &root, controlBlock));
    if (first != blocks_.front().first) made_ = first;
    return root;
  }

  bool isInPlace() const { return made_ == nullptr; }
  char *at(Place place) {
    return reinterpret_cast<char *>(blocks_[place.block].first) + kContentOff + place.offset;
  }

 private:
  RunningLibrary &library_;
  std::vector<std::pair<MemPackBlock *, std::uint32_t>> blocks_;
  MemPackBlock *made_ = nullptr;  // the chain that MEM_Unpack made
};

// Shows the progress of MEM_Pack, which inserts each segment into a hash table through the vector.
// Services have no context argument, so only one object may exist at a time.
class PackProgress {
 public:
  PackProgress(RunningLibrary &library, std::uint64_t segments, Console &console)
      : vector_(library.vector()), progress_(console, "packing", segments) {
    active_ = this;
    insert_ = vector_.MEM_HashInsEntry;
    vector_.MEM_HashInsEntry = &PackProgress::insertEntry;
  }
  ~PackProgress() {
    vector_.MEM_HashInsEntry = insert_;
    active_ = nullptr;
  }
  PackProgress(const PackProgress &) = delete;
  PackProgress &operator=(const PackProgress &) = delete;

 private:
  static std::int16_t insertEntry(HMEMHASH table, std::int16_t length, const void *record,
                                  void **copy) {
    active_->progress_.update(++active_->done_);
    return active_->insert_(table, length, record, copy);
  }

  static constinit PackProgress *active_;

  MEMFunctionVector &vector_;
  Progress progress_;
  MEM_HashInsEntryFn *insert_ = nullptr;
  std::uint64_t done_ = 0;
};

constinit PackProgress *PackProgress::active_ = nullptr;

// The longest item with its wider pointers, and the control block, must fit a block.
std::int32_t sufficientBlockLen(const PackedChain &chain) {
  constexpr std::uint32_t kMostGrowth =
      4 * 2 * (1 + MEM_PACK_MAX_CHILDREN + MEM_PACK_MAX_REFERENCES);
  std::uint32_t longest = MEM_PACK_CB_LEN(std::uint32_t{chain.kindCount}) + 4;
  for (const Segment &segment : chain.segments) {
    longest = std::max(longest, segment.length + kMostGrowth);
  }
  for (const Text &text : chain.texts) {
    longest = std::max(longest, text.isWide ? 2 * text.length : text.length);
  }
  return std::max(kUsualBlockLen, static_cast<std::int32_t>(longest) + MEM_PACK_BLOCK_OVERHEAD);
}

// The length of a chain's longest item, with the room that the packer reserves for wide text.
// REQUIRES: a chain of this platform.
std::size_t longestItem(const PackedChain &chain) {
  std::size_t longest = 0;
  for (const Segment &segment : chain.segments) {
    longest = std::max<std::size_t>(longest, segment.length);
  }
  for (const Text &text : chain.texts) {
    longest = std::max<std::size_t>(longest, text.isWide ? 2 * text.length : text.length);
  }
  return longest;
}

void refuseUnknownKinds(const PackedChain &chain) {
  for (const Segment &segment : chain.segments) {
    const Kind &kind = chain.kinds[segment.kind];
    if (kind.form != Form::Unknown) continue;
    throw ToolError(fmt::format(
        "segments of type 0x{:02X} cannot be rewritten: only their writer knows their length",
        kind.typeCode));
  }
}

// After unpacking in place, the length that a segment begins with is still in the writer's byte
// order.
void reverseLengths(const PackedChain &chain, StoredChain &stored) {
  for (const Segment &segment : chain.segments) {
    const Form form = chain.kinds[segment.kind].form;
    if (form != Form::Counted && form != Form::SelfDescribing) continue;
    const std::uint32_t length = form == Form::Counted ? segment.length - 2 : segment.length;
    const auto number = static_cast<std::uint16_t>(length);
    std::memcpy(stored.at(segment.place), &number, sizeof number);
  }
}

const PackedChain &checkedLike(const PackedChain &chain, const PackedChain &like) {
  if (chain.pointerWidth == kNativeWidth) {
    throw ToolError("--like is for chains with 4-byte pointers; this chain keeps its own layout");
  }
  if (like.pointerWidth != kNativeWidth || like.kindCount != chain.kindCount) {
    throw ToolError(fmt::format(
        "--like needs a chain with 8-byte pointers and {} kinds of segments", chain.kindCount));
  }
  return like;
}

bool isTurned(const PackedChain &chain) {
  const std::uint16_t one = 1;
  char first = 0;
  std::memcpy(&first, &one, 1);
  return chain.version->isBigEndian == (first == 1);
}

std::string remarkOn(const PackedChain &chain) {
  if (chain.version->isEbcdic) {
    return "Narrow text is still EBCDIC, and numbers within segments are still big-endian.";
  }
  return isTurned(chain) ? "Numbers within segments are still in the writer's byte order." : "";
}

// The library compares the root's first two child entries as they are stored, even unused ones.
// Unused entries are zero in the control blocks made here, so they must be zero in the chain.
void clearUnusedRootEntries(const PackedChain &chain, std::string &firstBlock) {
  constexpr std::size_t kCompared = 2;
  constexpr std::size_t kEntryLen = 4;
  const std::size_t entries =
      kHeadLen + 2 + descriptorLayout(chain.version->isOldLayout).childrenOff;
  for (std::size_t i = chain.kinds[0].children.size(); i < kCompared; ++i) {
    firstBlock.replace(entries + i * kEntryLen, kEntryLen, kEntryLen, '\0');
  }
}

std::int16_t firstChildOffset(const std::vector<Kind> &kinds) {
  return kinds[0].children.empty() ? std::int16_t{0} : kinds[0].children[0].Offset;
}

// A structure of the program that is to be packed.
struct Packable {
  const NativeControlBlock &controlBlock;
  const void *root;
  std::int32_t sufficient;  // a block length that is long enough for all items
};

// With the user's block length. If an item needs more, a chain of longer blocks shows how much.
NativeChain packAsAsked(RunningLibrary &library, const Packable &made, std::int32_t blockLength,
                        Console &console) {
  refuseShortBlocks(blockLength, made.controlBlock.length(), 0);
  try {
    return packNative(library, made.controlBlock.get(), made.root, blockLength);
  } catch (const ServiceError &error) {
    if (error.code != MEMERR_PACKBMIN) throw;
    const NativeChain longer =
        packNative(library, made.controlBlock.get(), made.root, made.sufficient);
    const PackedChain chain = readChain(longer.bytes, kNativeWidth, console);
    refuseShortBlocks(blockLength, made.controlBlock.length(), longestItem(chain));
    throw;
  }
}

}  // namespace

std::int32_t leastBlockLength(std::size_t controlBlockLength, std::size_t longestItem) {
  constexpr std::size_t kVersionLen = 4;  // before the control block
  return static_cast<std::int32_t>(std::max(controlBlockLength + kVersionLen, longestItem)) +
         MEM_PACK_BLOCK_OVERHEAD;
}

void refuseShortBlocks(std::int32_t blockLength, std::size_t controlBlockLength,
                       std::size_t longestItem) {
  const std::int32_t least = leastBlockLength(controlBlockLength, longestItem);
  if (blockLength >= least) return;
  const bool isForItem = least > leastBlockLength(controlBlockLength, 0);
  throw ToolError(
      fmt::format("--block-length: {} is too short for {}; at least {} is needed", blockLength,
                  isForItem ? "the longest segment or text" : "this control block", least));
}

NativeChain packNative(RunningLibrary &library, const MemPackCB *controlBlock, const void *root,
                       std::int32_t blockLength) {
  MemPackBlock *first = nullptr;
  const std::int16_t result = library.vector().MEM_Pack(controlBlock, root, blockLength, &first);
  NativeChain native;
  native.blockLength = blockLength;
  while (first != nullptr) {  // a failed call may leave blocks
    MemPackBlock *const next = first->pNext;
    native.bytes.append(reinterpret_cast<const char *>(first) + kContentOff, first->UsedLen);
    ++native.blocks;
    library.vector().MEM_Free(first, static_cast<std::uint32_t>(blockLength), kChainSubPool);
    first = next;
  }
  library.check("MEM_Pack", result);
  native.version = native.bytes.substr(2, 4);
  return native;
}

NativeChain toNative(RunningLibrary &library, const PackedChain &chain,
                     const NativeRequest &request, Console &console) {
  refuseUnknownKinds(chain);
  const PackedChain &layout = request.like ? checkedLike(chain, *request.like) : chain;
  const NativeControlBlock packCB(layout.kinds, layout.kindCount, layout.pointerWidth);
  const bool looksNative =
      chain.pointerWidth != kNativeWidth &&
      packCB.get()->Descriptors[0].Children[0].Offset <= firstChildOffset(chain.kinds);

  const AddedRoot added(chain);
  std::vector<std::string> contents;
  std::vector<Kind> kinds = layout.kinds;
  std::size_t kindCount = layout.kindCount;
  if (looksNative) {
    contents = added.contents();
    kinds = AddedRoot(layout).kinds();
    ++kindCount;
  } else {
    for (std::size_t i = 0; i < chain.blocks.size(); ++i) contents.emplace_back(chain.content(i));
    clearUnusedRootEntries(chain, contents[0]);
  }
  const NativeControlBlock unpackCB(kinds, kindCount, layout.pointerWidth);
  StoredChain stored(library, contents);
  void *root = stored.unpack(unpackCB.get());
  if (looksNative) {
    const auto *const pointer =
        static_cast<const char *>(root) + unpackCB.get()->Descriptors[0].Children[0].Offset;
    std::memcpy(&root, pointer, sizeof root);
  }
  if (stored.isInPlace() && isTurned(chain)) reverseLengths(chain, stored);

  const PackProgress progress(library, chain.segments.size(), console);
  const std::int32_t sufficient = sufficientBlockLen(chain);
  const std::int32_t asked = request.blockLength;
  NativeChain native = asked == 0
                           ? packNative(library, packCB.get(), root, sufficient)
                           : packAsAsked(library, {packCB, root, sufficient}, asked, console);
  native.remark = remarkOn(chain);
  return native;
}

}  // namespace memtool
