#include "pack/unpack/exact.h"

#include "pack/unpack/chain_walk.h"
#include "pack/unpack/in_order.h"
#include "pack/unpack/wide_text.h"

namespace mem {

namespace {

// Pointer fields are claimed when their segment is reached and resolved when the walk follows them,
// so nothing that was written is read or written again, whatever lies over it.
class InPlaceVisitor {
 public:
  static constexpr char kTooDeep[] = "TraversalStackOverflow";

  explicit InPlaceVisitor(PackedChain &chain) noexcept : chain_(chain), text_(chain) {}

  Outcome visit(std::uint16_t kind, const ContentPlace &place) noexcept;
  Outcome visitText(const TextUse &use) noexcept {
    return use.isWide ? takeWide(use.text) : chain_.takeNarrowText(use.text);
  }
  // Replaces a relative pointer by the address that it means. Null stays null.
  Outcome pointer(const ContentPlace &segment, std::int16_t offset, ContentPlace &target,
                  bool &isNull) noexcept;

 private:
  Outcome checkLength(const MemPackDescriptor &descriptor,
                      const ContentPlace &place) const noexcept;
  Outcome claimSegment(const MemPackDescriptor &descriptor, const ContentPlace &place) noexcept;
  Outcome claimField(const ContentPlace &segment, std::int16_t offset) noexcept;
  Outcome takeWide(const ContentPlace &place) noexcept;

  PackedChain &chain_;
  TextConverter text_;
};

Outcome InPlaceVisitor::visit(std::uint16_t kind, const ContentPlace &place) noexcept {
  const MemPackDescriptor &descriptor = chain_.controlBlock().descriptor(kind);
  if (descriptor.Type == MEM_PACK_STRING) return chain_.takeNarrowText(place);
  if (descriptor.Type == MEM_PACK_WIDE_STRING) return takeWide(place);
  // Kinds beyond the count were not looked at before the walk.
  if (!chain_.controlBlock().hasValidCounts(descriptor)) return chain_.badKind(kind);
  if (Outcome failed = checkLength(descriptor, place)) return failed;
  if (Outcome failed = claimSegment(descriptor, place)) return failed;
  for (const std::int16_t offset : references(descriptor)) {
    ContentPlace target{};
    bool isNull = false;
    if (Outcome failed = pointer(place, offset, target, isNull)) return failed;
  }
  return {};
}

// Bytes at the start of a segment that nothing else may lie over: its length word, or the byte by
// which a segment that is reached again is known.
std::uint32_t headLen(const PackedChain &chain, const MemPackDescriptor &descriptor) noexcept {
  if (descriptor.Type == MEM_PACK_FIXED) return descriptor.FixedLen == 0 ? 0 : 1;
  return chain.hasForeignLength(descriptor) ? 1 : sizeof(std::uint16_t);
}

// Callers read a segment whole, so all of it must be there.
Outcome InPlaceVisitor::checkLength(const MemPackDescriptor &descriptor,
                                    const ContentPlace &place) const noexcept {
  if (chain_.hasForeignLength(descriptor)) return {};
  std::uint32_t length = 0;
  return chain_.measureSegment(descriptor, place, length);
}

Outcome InPlaceVisitor::claimSegment(const MemPackDescriptor &descriptor,
                                     const ContentPlace &place) noexcept {
  bool startsWithField = false;
  if (hasSibling(descriptor)) {
    if (Outcome failed = claimField(place, descriptor.SiblingOff)) return failed;
    startsWithField = descriptor.SiblingOff == 0;
  }
  for (const MemPackChild &child : children(descriptor)) {
    if (Outcome failed = claimField(place, child.Offset)) return failed;
    startsWithField = startsWithField || child.Offset == 0;
  }
  for (const std::int16_t offset : references(descriptor)) {
    if (Outcome failed = claimField(place, offset)) return failed;
    startsWithField = startsWithField || offset == 0;
  }
  const std::uint32_t head = headLen(chain_, descriptor);
  const bool isClaimed = head <= 1 && startsWithField;
  return isClaimed || chain_.claim(place, head) ? Outcome{} : reachedTwice();
}

Outcome InPlaceVisitor::claimField(const ContentPlace &segment, std::int16_t offset) noexcept {
  const std::int64_t start = static_cast<std::int64_t>(segment.offset) + offset;
  const ContentPlace field{segment.block, static_cast<std::uint32_t>(start)};
  if (start < 0 || !chain_.holds(field, sizeof(void *))) return badOffset(field.offset);
  return chain_.claim(field, sizeof(void *)) ? Outcome{} : reachedTwice();
}

Outcome InPlaceVisitor::takeWide(const ContentPlace &place) noexcept {
  std::uint32_t length = 0;
  if (Outcome failed = chain_.measureText(place, chain_.version().wideSize, length)) return failed;
  if (!chain_.claim(place, length)) return reachedTwice();
  return text_.convert(chain_.at(place), length);
}

Outcome InPlaceVisitor::pointer(const ContentPlace &segment, std::int16_t offset,
                                ContentPlace &target, bool &isNull) noexcept {
  std::byte *pField = chain_.at(segment) + offset;
  isNull = loadAs<std::uint64_t>(pField) == 0;
  if (isNull) return {};
  if (Outcome failed = chain_.follow(pField, target)) return failed;
  storeAs<void *>(pField, chain_.at(target));
  return {};
}

}  // namespace

Outcome unpackInPlace(PackedChain &chain, const ContentPlace &root) noexcept {
  chain.swapControlBlock();
  if (unpackInOrder(chain, root)) return {};
  chain.startClaims();
  InPlaceVisitor visitor(chain);
  return ChainWalk(chain, visitor).run(root);
}

}  // namespace mem
