// What the manual's pictures show is so: each test makes what a picture has drawn, and compares it
// with the picture's text in docs/pictures.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <span>
#include <string>
#include <vector>

#include "conveniencetest.hpp"
#include "sinktest.hpp"

namespace {

class Picture {
 public:
  explicit Picture(const std::string &name) {
    std::ifstream file(std::string(PICTURES) + "/" + name + ".dot", std::ios::binary);
    text_.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    std::erase(text_, '\r');
  }
  const std::string &text() const { return text_; }

  // A row, or the first line of one, has this text and no other.
  void expectRow(const std::string &row) const {
    EXPECT_TRUE(text_.find(">" + row + "<") != std::string::npos) << row;
  }
  void expectText(const std::string &words) const {
    EXPECT_TRUE(text_.find(words) != std::string::npos) << words;
  }
  // An arrow from one port to another, "first:next -> second:eye".
  void expectArrow(const std::string &from, const std::string &to) const {
    const std::regex arrow("\n  " + from + "(:[ew])? -> " + to + "(:[ew])?[ ;]");
    EXPECT_TRUE(std::regex_search(text_, arrow)) << from << " -> " << to;
  }

 private:
  std::string text_;
};

template <class Value>
Value valueAt(const void *block, std::size_t offset) {
  Value value;
  std::memcpy(&value, static_cast<const char *>(block) + offset, sizeof value);
  return value;
}
const std::byte *pointerAt(const void *block, std::size_t offset) {
  return valueAt<const std::byte *>(block, offset);
}
std::string numberAt(const void *block, std::size_t offset) {
  return std::to_string(valueAt<std::uint32_t>(block, offset));
}
std::string textAt(const void *block) {
  return "+0  “" + std::string(static_cast<const char *>(block), 8) + "”";
}
std::string place(const void *block, const void *entry) {
  return "+" + std::to_string(static_cast<const char *>(entry) - static_cast<const char *>(block));
}

class PictureFacts : public memtest::ConvenienceTest {
 protected:
  void *entry(HMEMHEAP heap, std::int32_t length) {
    void *made = nullptr;
    EXPECT_EQ(mem.MEM_HeapAllocEntryLong(heap, length, &made), 0);
    return made;
  }
  void *cell(HMEMCELL pool) {
    void *made = nullptr;
    EXPECT_EQ(mem.MEM_CellAllocEntry(pool, &made), 0);
    return made;
  }
};

TEST_F(PictureFacts, Heap) {
  const Picture picture("heap");
  HMEMHEAP heap = nullptr;
  ASSERT_EQ(mem.MEM_HeapOpen(&heap, 1, 20), 0);
  const void *const first = heap;
  const std::vector<void *> entries = {entry(heap, 400), entry(heap, 400), entry(heap, 600),
                                       entry(heap, 2000), entry(heap, 969)};
  const std::byte *const second = pointerAt(first, 8);
  const std::byte *const latest = pointerAt(first, 32);
  const std::byte *const earlier = pointerAt(latest, 8);
  EXPECT_EQ(pointerAt(first, 24), second);
  EXPECT_EQ(pointerAt(second, 8), nullptr);
  EXPECT_EQ(pointerAt(earlier, 8), nullptr);
  picture.expectArrow("handle", "first:eye");
  picture.expectArrow("first:next", "second:eye");
  picture.expectArrow("first:current", "second:eye");
  picture.expectArrow("first:large", "latest:eye");
  picture.expectArrow("latest:next", "earlier:eye");
  for (const void *block :
       {first, static_cast<const void *>(second), static_cast<const void *>(latest),
        static_cast<const void *>(earlier)}) {
    picture.expectRow(textAt(block));
  }
  for (const void *area : {first, static_cast<const void *>(second)}) {
    picture.expectRow("+16  offset of the free part: " + numberAt(area, 16));
    picture.expectRow("+20  bytes free: " + numberAt(area, 20));
  }
  picture.expectRow("+40  area size: " + numberAt(first, 40) + ", subpool");
  picture.expectRow("+" + numberAt(first, 16) + "  " + numberAt(first, 20) +
                    " bytes, never used again");
  picture.expectRow("+" + numberAt(second, 16) + "  " + numberAt(second, 20) +
                    " bytes, the next entries’");
  picture.expectRow(place(first, entries[0]) + "  entry of 400 bytes");
  picture.expectRow(place(first, entries[1]) + "  entry of 400 bytes");
  picture.expectRow(place(second, entries[2]) + "  entry of 600 bytes");
  picture.expectRow(place(earlier, entries[3]) + "  entry of 2,000 bytes");
  picture.expectRow(place(latest, entries[4]) + "  entry of 969 bytes");
  picture.expectRow("+16  bytes allocated: " + numberAt(latest, 16));
  picture.expectRow("+16  bytes allocated: " + numberAt(earlier, 16));
  EXPECT_EQ(mem.MEM_HeapClose(heap), 0);
}

// What the picture's last line says of the other kind.
TEST_F(PictureFacts, EnhancedHeap) {
  const Picture picture("heap");
  HMEMHEAP heap = nullptr;
  ASSERT_EQ(mem.MEM_EHeapOpen(&heap, 1, 20), 0);
  const void *const small = entry(heap, 16);
  const auto *const large = static_cast<const std::byte *>(entry(heap, 2000));
  EXPECT_EQ(place(heap, small), "+64");
  EXPECT_EQ(pointerAt(heap, 40), reinterpret_cast<const std::byte *>(heap));
  EXPECT_EQ(pointerAt(heap, 48), large - 24);
  EXPECT_NE(valueAt<std::uint32_t>(heap, 24), 0U);
  picture.expectText("header of 64 bytes: current area at +40, large blocks at +48, gate at +24.");
  EXPECT_EQ(mem.MEM_EHeapClose(heap), 0);
}

TEST_F(PictureFacts, CellPool) {
  const Picture picture("cell-pool");
  HMEMCELL pool = nullptr;
  ASSERT_EQ(mem.MEM_CellOpen(&pool, 1024, 100, 20), 0);
  const void *const first = pool;
  std::vector<void *> cells(9);
  for (void *&made : cells) made = cell(pool);
  ASSERT_EQ(mem.MEM_CellFreeEntry(pool, cells[1]), 0);

  picture.expectRow(textAt(first));
  picture.expectRow("+8  location nodes: " + place(first, pointerAt(first, 8)));
  picture.expectRow("+24  AreaLen: " + numberAt(first, 24) + ", CellLen: " + numberAt(first, 28) +
                    ", SubPool");
  const std::byte *const second = pointerAt(first, 56 + 8);
  std::vector<std::string> vacant;
  const std::byte *node = pointerAt(first, 8);
  for (; pointerAt(node, 8) == nullptr; node = pointerAt(node, 0))
    vacant.push_back(place(first, node));
  EXPECT_EQ(vacant.size(), 9U);
  picture.expectRow(vacant.back() + " to " + vacant.front() + "  nine nodes without an area yet;");
  const std::byte *const last = pointerAt(node, 0);
  picture.expectRow(place(first, node) + "  node: next " + place(first, last) + "; area");
  picture.expectRow(place(first, last) + "  node: next null; area: this one");
  EXPECT_EQ(pointerAt(node, 8), second);
  EXPECT_EQ(pointerAt(last, 0), nullptr);
  EXPECT_EQ(pointerAt(last, 8), first);
  picture.expectArrow("first:node1", "second:begin");

  picture.expectRow(place(first, cells[0]) + "  cell, allocated");
  picture.expectRow(place(first, cells[1]) + "  cell, free: next");
  picture.expectRow(place(first, cells[2]) + " to " + place(first, cells[7]) +
                    "  six cells, allocated");
  picture.expectRow(place(first, static_cast<char *>(cells[7]) + 100) + "  8 bytes left over");
  picture.expectRow(place(second, cells[8]) + "  cell, allocated");
  EXPECT_EQ(pointerAt(first, 16), cells[1]);
  EXPECT_EQ(pointerAt(cells[1], 0), second + 100);
  std::size_t free = 0;
  const std::byte *lastFree = nullptr;
  for (const std::byte *at = second + 100; at != nullptr; at = pointerAt(at, 0)) {
    EXPECT_EQ(at, second + 100 * ++free);
    lastFree = at;
  }
  EXPECT_EQ(free, 9U);
  picture.expectArrow("first:free", "first:cell1");
  picture.expectArrow("first:cell1", "second:cell1");
  picture.expectRow("+100  cell, free: next +200");
  picture.expectRow("+200 to +800  seven cells, free;");
  picture.expectRow(place(second, lastFree) + "  cell, free: next null");
  picture.expectRow(place(second, lastFree + 100) + "  24 bytes left over");
  EXPECT_EQ(mem.MEM_CellClose(pool), 0);
}

// Rows of a block: "+992 (984)  ", and what a relative pointer holds.
std::string row(std::size_t offset) {
  return "+" + std::to_string(offset + 8) + " (" + std::to_string(offset) + ")  ";
}
std::string relative(const std::byte *used, std::size_t offset) {
  const auto block = valueAt<std::int16_t>(used, offset);
  const auto to = valueAt<std::int16_t>(used, offset + 2);
  return block == 0 && to == 0 ? " null" : " " + std::to_string(block) + " : " + std::to_string(to);
}

TEST_F(PictureFacts, PackedChain) {
  const Picture picture("packed-chain");
  memtest::Item first{nullptr, "ab", u"Zug", nullptr};
  memtest::Item second{nullptr, "c", u"\u00E9", &first};
  first.pNext = &second;
  const mem::PackedChain chain =
      memtest::taken(mem::PackedChain::pack(context, memtest::kItems, first, 1064));
  std::vector<std::span<const std::byte>> blocks(chain.begin(), chain.end());
  ASSERT_EQ(blocks.size(), 2U);
  for (std::size_t number = 0; number < 2; ++number) {
    const std::byte *const used = blocks[number].data();
    const std::size_t item = number == 0 ? 984 : 2;
    picture.expectRow(row(0) + "used length: " + std::to_string(blocks[number].size()));
    picture.expectRow(row(item) + "pNext" + relative(used, item));
    picture.expectRow(row(item + 8) + "pName" + relative(used, item + 8));
    picture.expectRow(row(item + 16) + "pTitle" + relative(used, item + 16));
    picture.expectRow(row(item + 24) + "pOther" + relative(used, item + 24));
    const auto name = valueAt<std::uint16_t>(used, item + 10);
    const std::string text = reinterpret_cast<const char *>(used + name);
    picture.expectRow(row(name) + "“" + text + "”, " + std::to_string(text.size() + 1) + " bytes");
  }
  picture.expectRow(row(2) + "version “" +
                    std::string(reinterpret_cast<const char *>(blocks[0].data() + 2), 4) + "”");
  picture.expectRow(row(6) + "control block, " + std::to_string(MEM_PACK_CB_LEN(3)) + " bytes");
  picture.expectRow(row(valueAt<std::uint16_t>(blocks[0].data(), 984 + 18)) +
                    "wide “Zug”, 8 of 16 bytes");
  picture.expectRow(row(valueAt<std::uint16_t>(blocks[1].data(), 2 + 18)) +
                    "wide “é”, 4 of 8 bytes");
  picture.expectRow("+" + std::to_string(8 + blocks[0].size()) + "  20 bytes, not used");
  picture.expectRow("+" + std::to_string(8 + blocks[1].size()) + "  1,012 bytes, not used");
  EXPECT_EQ(1064 - 8 - blocks[0].size(), 20U);
  EXPECT_EQ(1064 - 8 - blocks[1].size(), 1012U);
  picture.expectArrow("block0:next", "block1:top");
  picture.expectArrow("block0:sibling", "block1:item");
  picture.expectArrow("block0:name", "block0:text");
  picture.expectArrow("block0:title", "block0:wide");
  picture.expectArrow("block1:name", "block1:text");
  picture.expectArrow("block1:title", "block1:wide");
  picture.expectArrow("block1:other", "block0:item");
}

class SinkPictureFacts : public memtest::SinkTest {};

TEST_F(SinkPictureFacts, Sink) {
  const Picture picture("string-sink");
  const void *const libc = sink(std::string("libc6"));
  EXPECT_EQ(sink(std::string("libc6")), libc);
  const char *const dpkg = sink(std::string("dpkg"));
  const void *const bash = sink(std::string("bash"));
  ASSERT_EQ(mem.MEM_SinkDelete(dpkg), 0);

  const MEMProcessBlock &state = block();
  const auto number = [](auto value) { return std::to_string(value); };
  picture.expectRow("+96  SegmentCount: " + number(state.SegmentCount));
  picture.expectRow("+3196  SlotCount: " + number(state.SlotCount));
  picture.expectRow("+3200  Used: " + number(state.Used) + ", Act: " + number(state.Act) +
                    ", Garbage: " + number(state.Garbage));
  picture.expectRow("+3212  Free: " + number(state.Free) + ", First: " + number(state.First) +
                    ", End: " + number(state.End));
  static_assert(offsetof(MEMProcessBlock, Segments) == 104 && offsetof(MEMSinkSegment, pMap) == 24);
  static_assert(offsetof(MEMSinkSegment, pSpace) == 8 && sizeof(MEMSinkSegment) == 152 - 104);
  const MEMSinkSegment &segment = state.Segments[0];
  EXPECT_EQ(segment.pMap, segment.pBase);
  EXPECT_EQ(segment.pSpace, segment.pBase + 0x4000);
  EXPECT_EQ(segment.pLast, segment.pBase + 0x43FFF);
  picture.expectArrow("process:base", "block:map");
  picture.expectArrow("process:space", "block:space");
  picture.expectArrow("process:index", "index:begin");

  const auto *const space = reinterpret_cast<const std::byte *>(segment.pSpace);
  EXPECT_EQ(libc, space);
  EXPECT_EQ(static_cast<const void *>(dpkg), space + 8);
  EXPECT_EQ(bash, space + 0x10);
  EXPECT_EQ(segment.pMap[0], 0b11110000);
  EXPECT_EQ(segment.pMap[1], 0b11110000);
  EXPECT_EQ(segment.pMap[2], 0);
  picture.expectRow("+0  allocation map: 11110000 11110000 …");
  picture.expectRow("+0x4000  “libc6”, 8 bytes with its zeros");
  picture.expectRow("+0x4008  8 bytes free, cleared");
  picture.expectRow("+0x4010  “bash”, 8 bytes with its zeros");

  const auto slot = [&state](std::size_t index) {
    return static_cast<const char *>(state.pIndex) + 16 * index;
  };
  EXPECT_EQ(pointerAt(slot(1021), 0), bash);
  EXPECT_EQ(pointerAt(slot(1022), 0), libc);
  picture.expectRow("0 to " + number(state.Free) + "  free");
  picture.expectRow("1021  " + number(valueAt<std::uint64_t>(slot(1021), 8)) + " use");
  picture.expectRow("1022  " + number(valueAt<std::uint64_t>(slot(1022), 8)) + " uses");
  picture.expectRow("1023  garbage");
  picture.expectArrow("index:bash", "block:bash");
  picture.expectArrow("index:libc", "block:space");
}

TEST_F(PictureFacts, Binding) {
  const Picture picture("binding");
  picture.expectRow(MEM_BIND_ENTRY_NAME);
  picture.expectRow(std::to_string(MEM_HOST_VECTORS) + " addresses of cells");
  picture.expectRow(std::to_string(MEM_SERVICE_VECTORS) + " addresses of cells");
  picture.expectRow("[4] to [" + std::to_string(MEM_HOST_VECTORS - 1) + "]: kept, not called");
  picture.expectRow("[0] to [" + std::to_string(MEM_SERVICE_VECTORS - 1) + "]: kept, not called");
  const std::string last = std::to_string(MEM_VECTOR_LEN - 1);
  picture.expectText("MEM function vector, " + std::to_string(MEM_VECTOR_LEN) + " slots\\n0 to " +
                     std::to_string(MEM_VECTOR_HOST_SLOTS - 1) + ": the host’s own\\n" +
                     std::to_string(MEM_VECTOR_HOST_SLOTS) + " to " + last +
                     ": filled by the library");
  const char *const tables[] = {"runtime", "trace", "text", "vector"};
  for (std::size_t i = 0; i < std::size(tables); ++i) {
    const std::string n = std::to_string(i);
    picture.expectText("  hosts:c" + n + ":e -> cell" + n + " -> " + tables[i] + ";");
  }
}

TEST_F(PictureFacts, Call) {
  const Picture picture("call");
  // Arrows to the host's services by their numbers: whose they are, and which service.
  std::map<int, std::string> drawn;
  const std::regex arrow(R"re((open|alloc):\w+:e -> services:(\w+):w \[label="(\d+)"\])re");
  const std::sregex_iterator arrows(picture.text().begin(), picture.text().end(), arrow);
  for (std::sregex_iterator at = arrows; at != std::sregex_iterator(); ++at) {
    const std::map<std::string, std::string> names = {{"enter", "EnterFrame"},
                                                      {"leave", "LeaveFrame"},
                                                      {"anchor", "GetAnchor"},
                                                      {"get", "GetStorage"}};
    drawn[std::stoi((*at)[3])] =
        ((*at)[1] == "open" ? "MEM_HeapOpen: " : "MemAlloc: ") + names.at((*at)[2]);
  }
  memtest::Lines expected;
  for (const auto &[number, line] : drawn) expected.push_back(line);

  HMEMHEAP heap = nullptr;
  host.recordCalls(true);
  ASSERT_EQ(mem.MEM_HeapOpen(&heap, 1, 20), 0);
  host.recordCalls(false);
  memtest::Lines made;
  for (const refhost::HostCall &call : host.takeCalls()) {
    made.push_back(call.frame + ": " + std::string(refhost::serviceName(call.service)));
  }
  EXPECT_EQ(made, expected);
  EXPECT_EQ(mem.MEM_HeapClose(heap), 0);

  const auto slot = [](std::size_t offset) { return "slot " + std::to_string(offset / 8) + ": "; };
  picture.expectRow(slot(offsetof(MEMFunctionVector, MEM_Alloc)) + "MEM_Alloc");
  picture.expectRow(slot(offsetof(MEMFunctionVector, MEM_HeapOpen)) + "MEM_HeapOpen");
  picture.expectRow(slot(offsetof(MEMRuntimeServices, GetAnchor)) + "GetAnchor");
  picture.expectRow(slot(offsetof(MEMRuntimeServices, GetStorage)) + "GetStorage");
  picture.expectRow(slot(offsetof(MEMRuntimeServices, EnterFrame)) + "EnterFrame");
  picture.expectRow(slot(offsetof(MEMRuntimeServices, LeaveFrame)) + "LeaveFrame");
}

}  // namespace
