// Structures packed and unpacked in place, and the chains of all foreign writers.
#include <cstddef>
#include <string>
#include <vector>

#include "cases.hpp"
#include "chainrun.hpp"
#include "chainwriter.hpp"
#include "packgraph.hpp"

namespace replay {

namespace {

using memtest::RandomStructure;
using refhost::Fault;
using refhost::Service;

void setPlatform(Watch &watch, bool isBigEndian) {
  watch.host().sysEnv().PlatformFlags = isBigEndian ? MEM_PLATFORM_BIG_ENDIAN : 0;
}

void failOnce(Watch &watch, Random &random, Service service, std::size_t atMost) {
  Fault fault;
  fault.service = service;
  fault.nth = random.between(1, atMost);
  watch.note("fault " + std::string(refhost::serviceName(service)) + " " +
             std::to_string(fault.nth));
  watch.host().arm(fault);
}

std::int16_t unpack(Watch &watch, MemPackBlock *&first, const MemPackCB *controlBlock) {
  int untouched = 0;
  void *root = &untouched;
  const std::int16_t result =
      watch.did("MEM_Unpack", watch.mem().MEM_Unpack(&first, &root, controlBlock));
  watch.log() << "root ";
  watch.log().address(root) << " first ";
  watch.log().address(first).end();
  return result;
}

void packAndUnpack(Watch &watch, Random &random, const Settings &settings) {
  watch.note("packed here");
  std::optional<RandomStructure> structure;
  makeFixed(structure, random.bits());
  setOldControlBlock(watch, structure->settings().oldControlBlock || settings.oldControlBlock);
  setPlatform(watch, structure->settings().bigEndian);
  watch.host().setTraceFlags(anyTraceFlags(random));
  if (random.oneIn(10)) failOnce(watch, random, Service::GetStorage, 12);

  MemPackBlock *first = nullptr;
  const std::int16_t result =
      watch.did("MEM_Pack", watch.mem().MEM_Pack(structure->controlBlock(), structure->root(),
                                                 structure->blockLen(), &first));
  watch.host().disarm();
  const auto blockLen = static_cast<std::uint32_t>(structure->blockLen());
  showChain(watch, "packed", first, blockLen);
  const memtest::Bytes callers = structure->callerBytes();
  watch.log().bytes("caller's", callers.data(), callers.size());
  if (result == 0) {
    unpack(watch, first, structure->controlBlock());
    showChain(watch, "unpacked", first, blockLen);
  }
  returnChain(watch, first, blockLen);
}

void packLeaves(Watch &watch, Random &random) {
  watch.note("many leaves, packed here");
  std::optional<Leaves> leaves;
  makeFixed(leaves, random);
  MemPackCB controlBlock{};
  controlBlock.Count = 2;
  MemPackDescriptor &branch = controlBlock.Descriptors[0];
  branch.Type = MEM_PACK_FIXED;
  branch.FixedLen = sizeof(Leaves::Branch);
  branch.SiblingOff = offsetof(Leaves::Branch, next);
  branch.ChildCount = Leaves::kOfBranch;
  for (std::size_t i = 0; i < Leaves::kOfBranch; ++i) {
    branch.Children[i] = {
        1, static_cast<std::int16_t>(offsetof(Leaves::Branch, leaves) + i * sizeof(void *))};
  }
  branch.ReferenceCount = 1;
  branch.References[0] = offsetof(Leaves::Branch, seen);
  controlBlock.Descriptors[1].Type = MEM_PACK_FIXED;
  controlBlock.Descriptors[1].FixedLen = 1;
  controlBlock.Descriptors[1].SiblingOff = MEM_PACK_NO_SIBLING;

  if (random.oneIn(6)) watch.host().setTraceFlags(anyTraceFlags(random));
  if (random.oneIn(4)) failOnce(watch, random, Service::GetStorage, 30);
  const auto blockLen = static_cast<std::int32_t>(random.between(1200, 33000));
  MemPackBlock *first = nullptr;
  const std::int16_t result =
      watch.did("MEM_Pack", watch.mem().MEM_Pack(&controlBlock, leaves->root(), blockLen, &first));
  watch.host().disarm();
  showChain(watch, "packed", first, static_cast<std::size_t>(blockLen));
  if (result == 0) {
    unpack(watch, first, &controlBlock);
    showChain(watch, "unpacked", first, static_cast<std::size_t>(blockLen));
  }
  returnChain(watch, first, static_cast<std::uint32_t>(blockLen));
}

void unpackForeign(Watch &watch, Random &random) {
  const std::vector<chainwriter::Writer> &writers = chainwriter::allWriters();
  const chainwriter::Writer &writer = writers[random.below(writers.size())];
  const chainwriter::Tree tree =
      random.oneIn(8) ? chainwriter::sampleTree() : chainwriter::randomTree(random.bits());
  const std::size_t blockLen = chainwriter::smallestBlockLen(tree, writer) + 130 +
                               random.below(random.oneIn(8) ? 9000 : 500);
  const chainwriter::Chain chain = chainwriter::write(tree, writer, blockLen);
  const bool isBigEndian = random.oneIn(16);  // what the platform says, not what it is
  const bool isSwapped = writer.isBigEndian != isBigEndian;
  std::optional<chainrun::BlockAreas> areas;
  makeFixed(areas, chain.blocks, isSwapped);
  std::optional<chainrun::Bytes> callers;
  copyFixed(callers, chainwriter::readersControlBlock(tree));

  setPlatform(watch, isBigEndian);
  watch.host().setTraceFlags(anyTraceFlags(random));
  if (random.oneIn(6)) watch.host().runtime().ConvertText = nullptr;
  if (random.oneIn(12)) {
    failOnce(watch, random, random.oneIn(2) ? Service::GetStorage : Service::ConvertText, 4);
  }
  watch.note("writer " + writer.name());
  MemPackBlock *first = areas->first();
  const auto *controlBlock = reinterpret_cast<const MemPackCB *>(callers->data());
  const std::int16_t result = unpack(watch, first, random.oneIn(30) ? nullptr : controlBlock);
  watch.host().disarm();
  showChain(watch, "given", areas->first(), 0, isSwapped);
  watch.note("damage " + areas->damage());
  if (first == areas->first()) return;
  showChain(watch, "new", first, MEM_UNPACK_BLOCK_LEN);
  if (result == 0) returnChain(watch, first, MEM_UNPACK_BLOCK_LEN);
}

}  // namespace

void graphsCase(Watch &watch, Random &random, const Settings &settings) {
  if (random.oneIn(300)) {
    packLeaves(watch, random);
  } else if (random.oneIn(2)) {
    packAndUnpack(watch, random, settings);
  } else {
    unpackForeign(watch, random);
  }
}

}  // namespace replay
