// Fixture for tests of the packer: packs, reads the chain as bytes, checks what a call has left
// and returns the chain.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "chainrun.hpp"
#include "memtest.hpp"
#include "packmodel.hpp"
#include "packstruct.hpp"

namespace memtest {

using Blocks = std::vector<Bytes>;  // from content offset 0, the used length, to the block's end

inline constexpr std::size_t kHeadEnd = 984;  // content offset after a control block of 978 bytes
inline constexpr std::int32_t kSmallestBlock = 997;  // the shortest block that takes this head

struct RelPtr {
  std::int16_t block = 0;
  std::int16_t offset = 0;
  bool operator==(const RelPtr &) const = default;
};

inline void PrintTo(const RelPtr &pointer, std::ostream *out) {
  *out << "block " << pointer.block << " offset " << pointer.offset;
}

inline Bytes relBytes(std::int16_t block, std::int16_t offset) {
  Bytes bytes(8);
  putNumber(bytes.data(), block);
  putNumber(bytes.data() + 2, offset);
  return bytes;
}

inline Bytes cut(const Bytes &from, std::size_t offset, std::size_t length) {
  if (offset > from.size() || length > from.size() - offset) return {};
  const auto start = from.begin() + static_cast<std::ptrdiff_t>(offset);
  return Bytes(start, start + static_cast<std::ptrdiff_t>(length));
}

inline std::uint16_t usedLen(const Bytes &block) {
  return numberAt<std::uint16_t>(block.data());
}

inline std::string versionOf(const Blocks &blocks) {
  return blocks.empty() ? "" : std::string(blocks[0].begin() + 2, blocks[0].begin() + 6);
}

// "" when equal, else the first difference.
inline std::string blockDifference(const Blocks &actual, const Blocks &expected) {
  const std::size_t common = std::min(actual.size(), expected.size());
  for (std::size_t i = 0; i < common; ++i) {
    if (actual[i] == expected[i]) continue;
    return "block " + std::to_string(i) + " differs at " + changedRanges(actual[i], expected[i]);
  }
  if (actual.size() == expected.size()) return "";
  return std::to_string(actual.size()) + " blocks instead of " + std::to_string(expected.size());
}

// A chain as bytes. A caller's chain ends in a null link; its length is bounded here so that a loop
// shows as a failure.
inline Blocks blocksOf(const MemPackBlock *first, std::int32_t blockLen) {
  constexpr std::size_t kMost = 40000;
  Blocks blocks;
  for (const MemPackBlock *block = first; block != nullptr; block = block->pNext) {
    if (blocks.size() == kMost) {
      ADD_FAILURE() << "the chain does not end";
      return blocks;
    }
    blocks.push_back(bytesOf(&block->UsedLen, static_cast<std::size_t>(blockLen - 8)));
  }
  return blocks;
}

using chainrun::returnChain;

inline void setOldControlBlock(MEMFunctionVector &mem, bool wanted) {
  MEMProcOptions options{};
  options.Set = 1;
  options.OldPackCB = wanted ? 1 : 0;
  EXPECT_EQ(mem.MEMSetProcOptions(&options), 0);
}

// Host storage is dirty: a chain that is as expected has been cleared by the packer.
class PackTest : public StartedTest {
 protected:
  explicit PackTest(refhost::Options options = withDirtyStorage()) : StartedTest(options) {}

  ~PackTest() override {
    host.disarm();
    host.restoreSlots();
    freeChain();
  }

  // Packs into `first`; a chain of an earlier call is returned before. The cell is null, the error
  // area full of traces of other calls.
  std::int16_t pack(const MemPackCB *controlBlock, const void *root, std::int32_t blockLen) {
    freeChain();
    blockLen_ = blockLen;
    std::memset(&error(), 0x5A, sizeof error());
    host.resetCalls();
    return mem.MEM_Pack(controlBlock, root, blockLen, &first);
  }
  std::int16_t pack(const ControlBlock &controlBlock, const void *root, std::int32_t blockLen) {
    return pack(controlBlock.get(), root, blockLen);
  }

  void freeChain() {
    returnChain(mem, first, blockLen_);
    first = nullptr;
  }

  Blocks blocks() const { return blocksOf(first, blockLen_); }

  // Packs, expects success and what the model says, and returns the blocks for closer looks.
  Blocks packed(const ControlBlock &controlBlock, const void *root, std::int32_t blockLen) {
    expectPacked(pack(controlBlock, root, blockLen));
    const packmodel::Outcome expected =
        packmodel::pack(controlBlock.get(), root, blockLen, settings());
    EXPECT_EQ(expected.name, "");
    Blocks actual = blocks();
    EXPECT_EQ(blockDifference(actual, expected.blocks), "");
    return actual;
  }

  packmodel::Settings settings() {
    const MEMProcessBlock *process = host.anchor();
    return {.oldControlBlock = process != nullptr && process->OldPackCB != 0,
            .bigEndian = (host.sysEnv().PlatformFlags & MEM_PLATFORM_BIG_ENDIAN) != 0};
  }

  void expectPacked(std::int16_t result) {
    EXPECT_EQ(result, 0) << nameText();
    EXPECT_NE(first, nullptr);
    expectNothingRecorded();
  }

  void expectRefused(std::int16_t result, std::uint32_t code, const std::string &name) {
    EXPECT_EQ(result, static_cast<std::int16_t>(code));
    expectRecorded(code, name);
  }

  MemPackBlock *first = nullptr;
  Items items;

 private:
  std::int32_t blockLen_ = 0;
};

}  // namespace memtest
