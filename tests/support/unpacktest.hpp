// Fixture for tests of MEM_Unpack: loads a chain into storage, unpacks it and checks what the call
// has left.
#pragma once

#include <memory>
#include <string>

#include "chainrun.hpp"
#include "chainwriter.hpp"
#include "memtest.hpp"

namespace memtest {

inline const MemPackCB *asControlBlock(const Bytes &bytes) {
  return reinterpret_cast<const MemPackCB *>(bytes.data());
}

// A descriptor of a control block of the caller's.
inline MemPackDescriptor &descriptorOf(Bytes &controlBlock, std::size_t kind) {
  return *reinterpret_cast<MemPackDescriptor *>(controlBlock.data() + 2 + 122 * kind);
}

// Host storage is dirty: what is zero has been made so by the library.
class UnpackTest : public StartedTest {
 protected:
  UnpackTest() : StartedTest(withDirtyStorage()) {}
  ~UnpackTest() override {
    host.disarm();
    host.restoreSlots();
    unload();
  }

  void load(const chainrun::Blocks &blocks, const chainwriter::Writer &writer) {
    unload();
    const bool flag = (host.sysEnv().PlatformFlags & MEM_PLATFORM_BIG_ENDIAN) != 0;
    areas = std::make_unique<chainrun::BlockAreas>(blocks, writer.isBigEndian != flag);
    first = areas->first();
  }
  void load(const chainwriter::Chain &chain) { load(chain.blocks, chain.writer()); }

  std::int16_t unpack(const MemPackCB *callers) {
    root = &sentinel_;
    liveBefore_ = host.account().liveCount;
    std::memset(&error(), 0x5A, sizeof error());
    host.resetCalls();
    return mem.MEM_Unpack(&first, &root, callers);
  }
  std::int16_t unpack(const Bytes &callers) { return unpack(asControlBlock(callers)); }

  bool hasNewChain() const { return areas != nullptr && first != areas->first(); }

  // Success, in place or with a new chain; nothing but that chain was kept.
  void expectUnpacked(std::int16_t result, chainwriter::Became became) {
    ASSERT_EQ(result, 0) << nameText();
    EXPECT_EQ(hasNewChain(), became == chainwriter::Became::NewChain);
    expectNothingRecorded();
    EXPECT_EQ(areas->damage(), "");
    std::uint64_t newBlocks = 0;
    for (const MemPackBlock *block = hasNewChain() ? first : nullptr; block != nullptr;
         block = block->pNext) {
      ++newBlocks;
    }
    EXPECT_EQ(host.account().liveCount, liveBefore_ + newBlocks);
  }

  // A failure: code, text, all of the error area, the call to the host; the cells are as they were
  // and all storage is back.
  void expectRefused(std::int16_t result, std::uint32_t code, const std::string &text) {
    EXPECT_EQ(result, static_cast<std::int16_t>(code));
    expectRecorded(code, text);
    expectCellsUntouched();
  }

  void expectCellsUntouched() {
    EXPECT_EQ(root, &sentinel_);
    if (areas != nullptr) {
      EXPECT_EQ(first, areas->first());
      EXPECT_EQ(areas->damage(), "");
    }
    EXPECT_EQ(host.account().liveCount, liveBefore_);
  }

  // Unpacks what is loaded with the tree's own control block and expects the tree.
  void expectTree(const chainwriter::Tree &tree, const chainwriter::Writer &writer) {
    const auto became =
        writer.pointerWidth == 8 ? chainwriter::Became::Structure : chainwriter::Became::NewChain;
    ASSERT_NO_FATAL_FAILURE(expectUnpacked(unpack(chainwriter::readersControlBlock(tree)), became));
    EXPECT_EQ(chainwriter::difference(tree, writer, became, root), "");
  }

  // Loads a chain with one defect and expects its refusal. The tree's control block is passed.
  void expectRefusal(const chainwriter::Tree &tree, const chainwriter::Chain &chain,
                     std::uint32_t code, const std::string &text) {
    load(chain);
    expectRefused(unpack(chainwriter::readersControlBlock(tree)), code, text);
  }

  const std::uint8_t *blockBytes(std::size_t index) const {
    const MemPackBlock *block = areas->first();
    for (; index > 0; --index) block = block->pNext;
    return reinterpret_cast<const std::uint8_t *>(block);
  }

  std::unique_ptr<chainrun::BlockAreas> areas;
  MemPackBlock *first = nullptr;
  void *root = nullptr;

 private:
  void unload() {
    if (hasNewChain()) chainrun::returnChain(mem, first, MEM_UNPACK_BLOCK_LEN);
    first = nullptr;
    areas.reset();
  }

  int sentinel_ = 0;
  std::uint64_t liveBefore_ = 0;
};

}  // namespace memtest
