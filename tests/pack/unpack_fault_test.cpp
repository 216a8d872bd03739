// Every host service that MEM_Unpack uses failing in turn, at every call.

#include <set>

#include "unpacktest.hpp"

namespace memtest {
namespace {

using chainwriter::Chain;
using chainwriter::readersControlBlock;
using chainwriter::Tree;
using chainwriter::Writer;
using chainwriter::writerOf;
using refhost::Service;

class UnpackFaultTest : public UnpackTest {
 protected:
  void loadWritten(const Writer &writer) {
    load(chainwriter::write(tree, writer, chainwriter::smallestBlockLen(tree, writer) + 100));
  }

  // Texts of the failures that storage calls ended with, in the order of the calls.
  std::vector<std::string> storageTexts(const Writer &writer) {
    std::vector<std::string> texts;
    const std::uint64_t failing =
        sweepFaults(host, faultOf(Service::GetStorage, 77), [&](std::uint64_t call) {
          loadWritten(writer);
          const std::uint64_t fired = host.faultsFired();
          const std::int16_t result = unpack(readersControlBlock(tree));
          if (host.faultsFired() == fired) {
            EXPECT_EQ(result, 0);
            return;
          }
          expectRefused(result, MEMERR_PACKAMEM, nameText());
          if (texts.size() < call) texts.push_back(nameText());
          EXPECT_EQ(texts[call - 1], nameText());
        });
    EXPECT_EQ(failing, texts.size());
    return texts;
  }

  Tree tree = chainwriter::sampleTree();
};

TEST_F(UnpackFaultTest, StorageInPlace) {
  const std::vector<std::string> expected{"BlockPtrTblCallocFail", "UnpackBlkMemAllocFail"};
  EXPECT_EQ(storageTexts(writerOf("0220")), expected);
  EXPECT_EQ(storageTexts(writerOf("0101")), expected);
  // The work area of the conversion.
  EXPECT_EQ(storageTexts(writerOf("0241")),
            (std::vector<std::string>{expected[0], expected[1], "UnpackBlkMemAllocFail"}));
}

TEST_F(UnpackFaultTest, StorageOfANewChain) {
  for (const char *version : {"0220", "0241", "0100"}) {
    SCOPED_TRACE(version);
    std::vector<std::string> expected{"BlockPtrTblCallocFail",      "UnpackBlkMemAllocFail",
                                      "PrevBlkOffsetTblCallocFail", "UnpackBlkMemAllocFail",
                                      "NewBlockTblCallocFail",      "NthBlkMemAllocFail"};
    if (writerOf(version).wideSize == 4) expected.push_back("UnpackBlkMemAllocFail");
    EXPECT_EQ(storageTexts(writerOf(version, 4)), expected);
  }
}

// What failed for lack of storage before blocks were changed can be called again.
TEST_F(UnpackFaultTest, CallsWithoutStorageCanBeRepeated) {
  for (const Writer &writer : chainwriter::allWriters()) {
    SCOPED_TRACE(writer.name());
    const std::size_t blockLen = chainwriter::smallestBlockLen(tree, writer) + 100;
    const Chain chain = chainwriter::write(tree, writer, blockLen);
    const auto expectUnchanged = [&] {
      for (std::size_t i = 0; i < chain.blocks.size(); ++i) {
        EXPECT_EQ(
            changedRanges(bytesOf(blockBytes(i) + 8, chain.blocks[i].size()), chain.blocks[i]), "")
            << "block " << i;
      }
    };
    // In place, the third allocation comes after the work has begun.
    const bool isInPlace = writer.pointerWidth == 8;
    sweepFaults(host, faultOf(Service::GetStorage, 77), [&](std::uint64_t call) {
      load(chain);
      const std::uint64_t fired = host.faultsFired();
      const std::int16_t result = unpack(readersControlBlock(tree));
      const bool hasFailed = host.faultsFired() != fired;
      host.disarm();
      EXPECT_EQ(result, hasFailed ? MEMERR_PACKAMEM : 0);
      if (!isInPlace) expectUnchanged();
      if (!hasFailed || (isInPlace && call > 2)) return;
      expectUnchanged();
      expectTree(tree, writer);
    });
  }
}

TEST_F(UnpackFaultTest, CallsWithoutAControlBlockCanBeRepeated) {
  for (const Writer &writer : chainwriter::allWriters()) {
    SCOPED_TRACE(writer.name());
    loadWritten(writer);
    expectRefused(unpack(nullptr), MEMERR_PACKAMEM, "NewPackCBInvalid");
    expectTree(tree, writer);
  }
}

TEST_F(UnpackFaultTest, EveryFurtherBlockOfANewChain) {
  const std::size_t last = tree.nodes.size();
  tree.nodes[3].targets[0] = last;
  for (std::size_t i = 0; i < 1000; ++i) {
    tree.nodes.push_back(tree.nodes[3]);
    tree.nodes.back().targets = {i + 1 < 1000 ? last + i + 1 : chainwriter::kNone, 7,
                                 chainwriter::kNone, chainwriter::kNone, chainwriter::kNone};
  }
  const std::vector<std::string> texts = storageTexts(writerOf("0221", 4));
  ASSERT_GE(texts.size(), 7U);
  for (std::size_t i = 5; i < texts.size(); ++i) EXPECT_EQ(texts[i], "NthBlkMemAllocFail");
}

TEST_F(UnpackFaultTest, Conversion) {
  for (const std::size_t width : {std::size_t{8}, std::size_t{4}}) {
    const std::uint64_t failing =
        sweepFaults(host, faultOf(Service::ConvertText, 77), [&](std::uint64_t) {
          loadWritten(writerOf("0241", width));
          const std::uint64_t fired = host.faultsFired();
          const std::int16_t result = unpack(readersControlBlock(tree));
          if (host.faultsFired() == fired) {
            EXPECT_EQ(result, 0);
            return;
          }
          expectRefused(result, MEMERR_PACKUTF, "UTF32 to UTF16 Conversion err=8");
        });
    EXPECT_EQ(failing, 4U);
  }
}

// Services without a say in the result.
TEST_F(UnpackFaultTest, OthersDoNotMatter) {
  host.setTraceFlags(MEM_TRACE_ENTRY | MEM_TRACE_EXIT);
  for (const Service service :
       {Service::GetAnchor, Service::Format, Service::WriteRecord, Service::CheckStorage}) {
    sweepFaults(host, faultOf(service), [&](std::uint64_t) {
      loadWritten(writerOf("0241", 4));
      expectTree(tree, writerOf("0241", 4));
    });
  }
  host.setTraceFlags(0);
}

}  // namespace
}  // namespace memtest
