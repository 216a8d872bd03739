// Unpacking: the choice between the ways, and the plain way in place.
#include "pack/unpack/chain_text.h"
#include "pack/unpack/chain_walk.h"
#include "pack/unpack/pointer_fields.h"
#include "pack/unpack/unpack_ways.h"

namespace memlib {

namespace {

constexpr std::int32_t kLineIncompatible = 1122;
constexpr std::int32_t kLineSwitching = 1125;

bool layoutsAgree(const PackControlBlock &file, const PackControlBlock &callers) noexcept {
  if (!callers.exists() || rootChildOffset(file, 0) != rootChildOffset(callers, 0)) return false;
  return file.count() < kSecondChildCompared ||
         rootChildOffset(file, 1) == rootChildOffset(callers, 1);
}

// Pointer fields are claimed and checked when their segment is reached, and resolved when the walk
// follows them. So nothing that was written is read or written again, even if it overlaps other
// items, and a segment's own pointers fail before anything that it leads to.
class InPlaceVisitor {
 public:
  static constexpr char kTooDeep[] = "TraversalStackOverflow";

  explicit InPlaceVisitor(ChainReader &chain) noexcept : chain_(chain), text_(chain) {}

  Outcome visit(std::uint16_t kind, const ContentPlace &place) noexcept;
  Outcome visitText(const TextUse &use) noexcept {
    return use.isWide ? takeWide(use.text) : chain_.takeNarrowText(use.text);
  }
  // Replaces a relative pointer by the address of its target.
  Outcome pointer(const ContentPlace &segment, std::int16_t offset, PointerTarget &target) noexcept;

 private:
  Outcome checkLength(const MemPackDescriptor &descriptor,
                      const ContentPlace &place) const noexcept;
  Outcome claimSegment(const MemPackDescriptor &descriptor, const ContentPlace &place) noexcept;
  Outcome claimField(const ContentPlace &segment, std::int16_t offset) noexcept;
  Outcome checkPointers(const MemPackDescriptor &descriptor,
                        const ContentPlace &segment) const noexcept;
  Outcome takeWide(const ContentPlace &place) noexcept;

  ChainReader &chain_;
  TextConverter text_;
};

Outcome InPlaceVisitor::visit(std::uint16_t kind, const ContentPlace &place) noexcept {
  const MemPackDescriptor &descriptor = chain_.controlBlock().descriptor(kind);
  if (descriptor.Type == MEM_PACK_STRING) return chain_.takeNarrowText(place);
  if (descriptor.Type == MEM_PACK_WIDE_STRING) return takeWide(place);
  // Kinds beyond the count were not checked before the walk.
  if (!chain_.controlBlock().hasValidCounts(descriptor)) return chain_.file().badKind(kind);
  if (Outcome failed = checkLength(descriptor, place)) return failed;
  if (Outcome failed = claimSegment(descriptor, place)) return failed;
  if (Outcome failed = checkPointers(descriptor, place)) return failed;
  for (const std::int16_t offset : references(descriptor)) {
    PointerTarget target;
    if (Outcome failed = pointer(place, offset, target)) return failed;
  }
  return {};
}

// Bytes at the start of a segment that nothing else may overlap: its length word, or one byte to
// detect a segment that is reached twice.
std::uint32_t headLen(const ChainReader &chain, const MemPackDescriptor &descriptor) noexcept {
  if (descriptor.Type == MEM_PACK_FIXED) return descriptor.FixedLen == 0 ? 0 : 1;
  return chain.file().hasForeignLength(descriptor) ? 1 : kLengthWordLen;
}

// Callers read whole segments, so the whole segment must be in its block.
Outcome InPlaceVisitor::checkLength(const MemPackDescriptor &descriptor,
                                    const ContentPlace &place) const noexcept {
  if (chain_.file().hasForeignLength(descriptor)) return {};
  std::uint32_t length = 0;
  return chain_.measureSegment(descriptor, place, length);
}

Outcome InPlaceVisitor::claimSegment(const MemPackDescriptor &descriptor,
                                     const ContentPlace &place) noexcept {
  bool startsWithField = false;
  const auto claim = [&](std::int16_t offset) {
    startsWithField = startsWithField || offset == 0;
    return claimField(place, offset);
  };
  if (Outcome failed = anyPointerField(descriptor, claim)) return failed;
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

Outcome InPlaceVisitor::checkPointers(const MemPackDescriptor &descriptor,
                                      const ContentPlace &segment) const noexcept {
  return anyPointerField(descriptor, [&](std::int16_t offset) {
    ContentPlace target{};
    const std::byte *pField = chain_.at(segment) + offset;
    return loadAs<std::uint64_t>(pField) == 0 ? Outcome{} : chain_.follow(pField, target);
  });
}

Outcome InPlaceVisitor::takeWide(const ContentPlace &place) noexcept {
  std::uint32_t length = 0;
  if (Outcome failed = chain_.measureText(place, chain_.wideSize(), length)) return failed;
  if (!chain_.claim(place, length)) return reachedTwice();
  return text_.convert(chain_.at(place), length);
}

// Null stays null.
Outcome InPlaceVisitor::pointer(const ContentPlace &segment, std::int16_t offset,
                                PointerTarget &target) noexcept {
  std::byte *pField = chain_.at(segment) + offset;
  if (loadAs<std::uint64_t>(pField) == 0) return {};
  ContentPlace place{};
  if (Outcome failed = chain_.follow(pField, place)) return failed;
  storeAs<void *>(pField, chain_.at(place));
  target = place;
  return {};
}

// In place: the blocks themselves become the structure. Replaces every relative pointer that is
// reached from `root` by the real address and converts wide text to native UTF-16. A control block
// of the current layout and the other byte order is swapped. Each segment and each pointer field is
// processed once. A failure leaves the blocks partly converted.
Outcome unpackInPlace(ChainReader &chain, const ContentPlace &root) noexcept {
  chain.file().swap(chain.controlBlock());
  if (unpackInOrder(chain, root)) return {};
  chain.startClaims();
  InPlaceVisitor visitor(chain);
  return ChainWalk(chain, visitor).run(root);
}

}  // namespace

Outcome unpackChain(CallFrame &frame, const PackControlBlock &callers, MemPackBlock *&pFirst,
                    void *&pRoot) noexcept {
  ChainReader chain;
  if (Outcome failed = chain.open(pFirst)) return failed;
  ContentPlace root{};
  if (Outcome failed = chain.locateRoot(root)) return failed;
  if (layoutsAgree(chain.controlBlock(), callers)) {
    if (Outcome failed = unpackInPlace(chain, root)) return failed;
    pRoot = chain.at(root);
    return {};
  }
  frame.trace(kExitRecord, kLineIncompatible,
              "The file written mode and current platform mode is incompatible");
  frame.trace(kExitRecord, kLineSwitching,
              "Switching to imcompatibility mode of processing to unpack the file contents "
              "correctly");
  return repack(frame, chain, root, callers, pFirst, pRoot);
}

}  // namespace memlib
