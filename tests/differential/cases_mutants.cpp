// Damaged inputs: chains and callers' control blocks for the unpacker, control blocks for the
// packer, texts for the readers, definition tables for reader and writer.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "cases.hpp"
#include "chainmutants.hpp"
#include "chainrun.hpp"
#include "chainwriter.hpp"
#include "packgraph.hpp"
#include "portgraph.hpp"
#include "portmutants.hpp"

namespace replay {

namespace {

constexpr std::uint16_t kSubPool = 21;

std::vector<std::string> &soundTexts() {
  static std::vector<std::string> texts;
  return texts;
}

void unpackMutant(Watch &watch, Random &random) {
  watch.note("damaged chain");
  const std::vector<chainwriter::Writer> &writers = chainwriter::allWriters();
  const chainwriter::Writer &writer = writers[random.below(writers.size())];
  const chainwriter::Tree tree =
      random.oneIn(2) ? chainwriter::sampleTree() : chainwriter::randomTree(random.bits());
  const chainwriter::Chain chain = chainwriter::write(
      tree, writer, chainwriter::smallestBlockLen(tree, writer) + 130 + random.below(500));
  const chainwriter::Chain mutant = memtest::ChainMutator(random, tree, chain).next();
  std::optional<chainrun::BlockAreas> areas;
  const bool isSwapped = chainrun::isSwapped(mutant.blocks[0], false);
  makeFixed(areas, mutant.blocks, isSwapped);
  std::optional<chainrun::Bytes> callers;
  copyFixed(callers, memtest::callersControlBlock(random, tree));

  watch.host().setTraceFlags(anyTraceFlags(random));
  MemPackBlock *first = areas->first();
  int untouched = 0;
  void *root = &untouched;
  const std::int16_t result = watch.did(
      "MEM_Unpack",
      watch.mem().MEM_Unpack(&first, &root, reinterpret_cast<const MemPackCB *>(callers->data())));
  watch.log() << "root ";
  watch.log().address(root) << " first ";
  watch.log().address(first).end();
  showChain(watch, "given", areas->first(), 0, isSwapped);
  watch.note("damage " + areas->damage());
  if (first == areas->first()) return;
  showChain(watch, "new", first, MEM_UNPACK_BLOCK_LEN);
  if (result == 0) returnChain(watch, first, MEM_UNPACK_BLOCK_LEN);
}

// Numbers of the descriptors that have a meaning, replaced by others.
void damage(Random &random, memtest::Bytes &controlBlock) {
  const std::size_t kinds = (controlBlock.size() - 2) / memtest::ControlBlock::kDescriptorLen;
  for (std::size_t changes = random.between(1, 3); changes > 0; --changes) {
    const std::size_t field = 2 * random.below(random.oneIn(2) ? 5 : 61);
    const std::size_t at =
        random.oneIn(12) ? 0
                         : 2 + random.below(kinds) * memtest::ControlBlock::kDescriptorLen + field;
    const auto small = static_cast<std::uint16_t>(random.below(90));
    const std::uint16_t number =
        random.oneIn(2) ? small
                        : memtest::kEdgeNumbers[random.below(std::size(memtest::kEdgeNumbers))];
    std::memcpy(controlBlock.data() + at, &number, sizeof number);
  }
}

// A packer believes its caller about storage, so a damaged control block may lead it anywhere: the
// case may end in a fault, which is an outcome like others.
void packMutant(Watch &watch, Random &random) {
  watch.note("damaged control block for the packer");
  std::optional<memtest::RandomStructure> structure;
  makeFixed(structure, random.bits());
  const auto *sound = reinterpret_cast<const std::uint8_t *>(structure->controlBlock());
  const auto length = static_cast<std::size_t>(MEM_PACK_CB_LEN(structure->controlBlock()->Count));
  std::optional<memtest::Bytes> controlBlock;
  makeFixed(controlBlock, sound, sound + length);
  damage(random, *controlBlock);
  setOldControlBlock(watch, structure->settings().oldControlBlock);
  watch.host().setTraceFlags(anyTraceFlags(random));

  MemPackBlock *first = nullptr;
  watch.did("MEM_Pack",
            watch.mem().MEM_Pack(reinterpret_cast<const MemPackCB *>(controlBlock->data()),
                                 structure->root(), structure->blockLen(), &first));
  const auto blockLen = static_cast<std::uint32_t>(structure->blockLen());
  showChain(watch, "packed", first, blockLen);
  returnChain(watch, first, blockLen);
}

void readMutant(Watch &watch, Random &random) {
  watch.note("damaged text");
  const std::vector<std::string> &texts = soundTexts();
  const std::string &text = texts[random.below(texts.size())];
  const std::string made = memtest::mutant(text, texts[random.below(texts.size())], random);
  watch.host().setTraceFlags(anyTraceFlags(random));
  for (const std::size_t chunkLen : {std::size_t{0}, random.between(1, 40)}) {
    CaseHeap heap(watch, 4, kSubPool);
    int untouched = 0;
    void *root = &untouched;
    readText(watch, memtest::richDefs().table(), made, chunkLen, heap, &root);
    heap.show();
  }
}

// A copy of a table with one wrong thing in it.
class WrongTable {
 public:
  WrongTable(const MEMStructDef *defs, Random &random) {
    while (static_cast<std::int32_t>(defs[rows_.size()].StructID) >= 1) {
      rows_.push_back(defs[rows_.size()]);
    }
    const std::size_t wrong = random.below(rows_.size());
    rows_.push_back(defs[rows_.size()]);
    MEMStructDef &row = rows_[wrong];
    fields_.assign(row.Fields, row.Fields + row.FieldCount);
    row.Fields = fields_.data();
    if (random.oneIn(4)) {
      damage(row, random);
    } else {
      damage(fields_[random.below(fields_.size())], random);
    }
  }
  const MEMStructDef *table() const { return rows_.data(); }

 private:
  static void damage(MEMStructDef &row, Random &random) {
    switch (random.below(4)) {
      case 0:
        row.StructID = static_cast<std::uint32_t>(random.below(30));
        break;
      case 1:
        row.Length = static_cast<std::int32_t>(random.below(200)) - 20;
        break;
      case 2:
        row.CountField = static_cast<std::int32_t>(random.below(10)) - 2;
        break;
      default:
        row.CountIsLength ^= 1;
    }
  }

  static void damage(MEMFieldDef &field, Random &random) {
    switch (random.below(6)) {
      case 0:
        field.FieldID = static_cast<std::uint32_t>(random.below(40));
        break;
      case 1:
        field.Type = static_cast<std::uint8_t>(random.oneIn(4) ? random.bits() : random.below(18));
        break;
      case 2:
        field.Length = static_cast<std::int32_t>(random.below(40)) - 2;
        break;
      case 3:
        field.SubStructID = static_cast<std::uint32_t>(random.below(40));
        break;
      case 4:
        field.NoTruncate ^= 1;
        break;
      default:
        field.Required ^= 1;
    }
  }

  std::vector<MEMStructDef> rows_;
  std::vector<MEMFieldDef> fields_;
};

void writeAndReadByWrongTables(Watch &watch, Random &random) {
  watch.note("wrong definition table");
  std::optional<memtest::PortGraph> graph;
  makeFixed(graph, random.bits());
  std::optional<WrongTable> wrong;
  makeFixed(wrong, graph->defs(), random);
  watch.host().setTraceFlags(anyTraceFlags(random));
  CaseHeap heap(watch, 4, kSubPool);
  const bool writesWrong = random.oneIn(2);
  std::uint32_t length = 0;
  MEMPortChunk *first = nullptr;
  watch.did(
      "MEM_StructToPortStr",
      watch.mem().MEM_StructToPortStr(writesWrong ? wrong->table() : graph->defs(), graph->rootID(),
                                      graph->root(), 0, heap.get(), &length, &first));
  watch.note("length " + std::to_string(length));
  if (first != nullptr) {
    int untouched = 0;
    void *root = &untouched;
    watch.did("MEM_PortStrToStruct",
              watch.mem().MEM_PortStrToStruct(writesWrong ? graph->defs() : wrong->table(), first,
                                              heap.get(), &root));
    watch.log() << "root ";
    watch.log().address(root).end();
  }
  heap.show();
}

}  // namespace

void prepareMutants() {
  memtest::richDefs();
  soundTexts() = memtest::soundTexts(2, 64);
  chainwriter::allWriters();
}

void mutantsCase(Watch &watch, Random &random, const Settings &) {
  const std::size_t choice = random.below(12);
  if (choice < 5) return unpackMutant(watch, random);
  if (choice < 6) return packMutant(watch, random);
  if (choice < 11) return readMutant(watch, random);
  writeAndReadByWrongTables(watch, random);
}

}  // namespace replay
