#include "pack/unpack/restore.h"

#include <algorithm>

#include "pack/unpack/chain_walk.h"
#include "pack/unpack/text_length.h"
#include "pack/unpack/wide_text.h"

namespace mem {

namespace {

// Blocks with content by their addresses, to tell the place that an address means.
class BlockFinder {
 public:
  explicit BlockFinder(const PackedChain &chain) noexcept
      : chain_(chain), pOrder_(chain.scratchByBlock<std::int32_t>()) {
    for (std::int32_t i = 0; i < chain.blockCount(); ++i) {
      if (chain.usedLen(i) != 0) pOrder_[count_++] = i;
    }
    std::sort(pOrder_, pOrder_ + count_,
              [this](std::int32_t one, std::int32_t other) { return start(one) < start(other); });
  }

  // REQUIRES: `address` is that of a content byte.
  ContentPlace placeOf(std::uintptr_t address) const noexcept {
    const std::int32_t *pBehind = std::upper_bound(
        pOrder_, pOrder_ + count_, address,
        [this](std::uintptr_t wanted, std::int32_t block) { return wanted < start(block); });
    const std::int32_t block = pBehind[-1];
    return {block, static_cast<std::uint32_t>(address - start(block))};
  }

 private:
  std::uintptr_t start(std::int32_t block) const noexcept {
    return reinterpret_cast<std::uintptr_t>(chain_.at({block, 0}));
  }

  const PackedChain &chain_;
  std::int32_t *pOrder_;
  std::size_t count_ = 0;
};

// Goes the way of the walk once more and takes its steps back, as many as there were.
class Restorer {
 public:
  static constexpr char kTooDeep[] = "";  // nobody reads it

  Restorer(const PackedChain &chain, std::uint64_t steps) noexcept
      : chain_(chain), finder_(chain), text_(chain), left_(steps) {}

  Outcome visit(std::uint16_t kind, const ContentPlace &place) noexcept;
  Outcome visitText(const TextUse &use) noexcept;
  Outcome pointer(const ContentPlace &segment, std::int16_t offset, ContentPlace &target,
                  bool &isNull) noexcept;

 private:
  // Ends the walk. Nobody reads it.
  static Outcome allRestored() noexcept { return failure(0, ErrorText()); }

  const PackedChain &chain_;
  const BlockFinder finder_;
  TextConverter text_;
  std::uint64_t left_;
};

Outcome Restorer::visit(std::uint16_t kind, const ContentPlace &place) noexcept {
  if (left_ == 0) return allRestored();
  for (const std::int16_t offset : references(chain_.controlBlock().descriptor(kind))) {
    ContentPlace target{};
    bool isNull = false;
    if (Outcome over = pointer(place, offset, target, isNull)) return over;
  }
  return {};
}

Outcome Restorer::visitText(const TextUse &use) noexcept {
  if (left_ == 0) return allRestored();
  if (!use.isWide || !chain_.isSwapped()) return {};
  --left_;
  std::byte *pText = chain_.at(use.text);
  const std::uint32_t room = chain_.usedLen(use.text.block) - use.text.offset;
  // Swapping the bytes of each unit is undone by doing it again.
  return text_.convert(pText, textLength<std::uint16_t>(pText, room));
}

Outcome Restorer::pointer(const ContentPlace &segment, std::int16_t offset, ContentPlace &target,
                          bool &isNull) noexcept {
  std::byte *pField = chain_.at(segment) + offset;
  if (left_ == 0) return allRestored();
  --left_;
  isNull = loadAs<std::uint64_t>(pField) == 0;
  if (isNull) return {};
  target = finder_.placeOf(loadAs<std::uintptr_t>(pField));
  chain_.storeRelative(pField, target);
  return {};
}

}  // namespace

void restoreChain(const PackedChain &chain, const ContentPlace &root,
                  std::uint64_t steps) noexcept {
  if (steps == 0) return;
  Restorer restorer(chain, steps);
  static_cast<void>(ChainWalk(chain, restorer).run(root));
}

}  // namespace mem
