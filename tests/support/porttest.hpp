// Fixture for tests of port strings: a heap of the caller's, chains of chunks, both readers, and
// the messages that a call leaves.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "memtest.hpp"
#include "portdefs.hpp"
#include "portmodel.hpp"

namespace memtest {

// Text in a chain of chunks, each in storage of exactly its size.
class Chain {
 public:
  Chain() = default;
  explicit Chain(const std::vector<std::string> &pieces) {
    for (const std::string &piece : pieces) add(piece);
  }

  // A text cut into pieces of one length.
  static Chain cut(const std::string &text, std::size_t length) {
    Chain chain;
    for (std::size_t at = 0; at < text.size(); at += length) chain.add(text.substr(at, length));
    return chain;
  }

  void add(const std::string &piece) { add(piece, static_cast<std::int32_t>(piece.size())); }

  // A chunk whose used length is not that of its text.
  void add(const std::string &piece, std::int32_t used) {
    auto bytes =
        std::make_unique<std::uint8_t[]>(kTextOff + std::max<std::size_t>(piece.size(), 1));
    std::memcpy(bytes.get() + 8, &used, sizeof used);
    std::memcpy(bytes.get() + kTextOff, piece.data(), piece.size());
    if (!chunks_.empty()) {
      const std::uint8_t *next = bytes.get();
      std::memcpy(chunks_.back().get(), &next, sizeof next);
    }
    chunks_.push_back(std::move(bytes));
  }

  const MEMPortChunk *first() const {
    return chunks_.empty() ? nullptr : reinterpret_cast<const MEMPortChunk *>(chunks_[0].get());
  }

 private:
  static constexpr std::size_t kTextOff = 12;
  std::vector<std::unique_ptr<std::uint8_t[]>> chunks_;
};

inline const char *chunkText(const MEMPortChunk *chunk) {
  return reinterpret_cast<const char *>(chunk) + 12;
}

inline std::vector<std::string> piecesOf(const MEMPortChunk *chunk) {
  std::vector<std::string> pieces;
  for (; chunk != nullptr; chunk = chunk->pNext) {
    pieces.emplace_back(chunkText(chunk), static_cast<std::size_t>(chunk->Used));
  }
  return pieces;
}

inline std::string textOf(const MEMPortChunk *chunk) {
  std::string text;
  for (const std::string &piece : piecesOf(chunk)) text += piece;
  return text;
}

// A port string of these structure texts. The lengths in the header mean nothing to a reader.
inline std::string portString(const std::string &body, std::uint32_t structures = 1) {
  return refhost::formatText("(%010lu,%010lu)", body.size() + 23, structures) + body;
}

// Message texts without the place at their start: "(..\SrcRes\MEMCPORT:2311)ERROR:".
inline Lines messageTexts(const std::vector<refhost::TraceRecord> &records) {
  Lines messages;
  for (const refhost::TraceRecord &record : records) {
    if (record.type != "EXCP") continue;
    const std::string mark = "(" + record.source + ":" + std::to_string(record.line) + ")ERROR:";
    EXPECT_EQ(record.text.compare(0, mark.size(), mark), 0) << record.text;
    EXPECT_EQ(record.source, "..\\SrcRes\\MEMCPORT");
    EXPECT_EQ(record.writtenBy, refhost::Service::WriteException);
    EXPECT_GT(record.line, 0);
    messages.push_back(record.text.substr(std::min(mark.size(), record.text.size())));
  }
  return messages;
}

// The same without position and excerpts.
inline Lines messageHeads(const std::vector<refhost::TraceRecord> &records) {
  Lines heads = messageTexts(records);
  for (std::string &head : heads) head = head.substr(0, head.find('\n'));
  return heads;
}

class PortTest : public StartedTest {
 protected:
  static constexpr std::uint16_t kSubPool = 7;
  static constexpr std::int16_t kAreaKB = 4;
  static constexpr std::uint8_t kDirty = 0xA5;

  explicit PortTest(refhost::Options options = withDirtyStorage()) : StartedTest(options) {
    openHeap();
    host.keepRecords(true);
  }
  ~PortTest() override {
    host.disarm();
    host.restoreSlots();
    closeHeap();
  }

  void openHeap(std::int16_t areaKB = kAreaKB) {
    ASSERT_EQ(mem.MEM_HeapOpen(&heap, areaKB, kSubPool), 0);
  }
  void closeHeap() {
    if (heap == nullptr) return;
    EXPECT_EQ(mem.MEM_HeapClose(std::exchange(heap, nullptr)), 0);
  }
  // Everything that earlier calls left in the caller's heap goes.
  void renewHeap() {
    closeHeap();
    openHeap();
  }

  // Writes; the result cells are dirty before.
  std::int16_t write(const MEMStructDef *defs, std::uint32_t structID, const void *root,
                     std::int32_t capacity) {
    totalLen = 0xDEADBEEF;
    firstChunk = reinterpret_cast<MEMPortChunk *>(this);
    host.takeRecords();
    return mem.MEM_StructToPortStr(defs, structID, root, capacity, heap, &totalLen, &firstChunk);
  }

  std::string written(const Defs &defs, std::uint32_t structID, const void *root,
                      std::int32_t capacity = 0) {
    EXPECT_EQ(write(defs.table(), structID, root, capacity), 0);
    const std::string text = textOf(firstChunk);
    EXPECT_EQ(totalLen, text.size());
    return text;
  }

  std::int16_t readChain(const MEMStructDef *defs, const MEMPortChunk *chunk) {
    read = this;
    host.takeRecords();
    return mem.MEM_PortStrToStruct(defs, chunk, heap, &read);
  }

  // The text is in storage of exactly its length.
  std::int16_t readBlock(const MEMStructDef *defs, const std::string &text) {
    read = this;
    host.takeRecords();
    const std::unique_ptr<char[]> exact(new char[std::max<std::size_t>(text.size(), 1)]);
    std::memcpy(exact.get(), text.data(), text.size());
    return mem.MEM_Port1StrToStruct(defs, exact.get(), static_cast<std::uint32_t>(text.size()),
                                    heap, &read);
  }

  Lines messages() { return messageHeads(host.takeRecords()); }

  template <class T>
  T readAt(std::size_t offset) const {
    T value;
    std::memcpy(&value, static_cast<const std::uint8_t *>(read) + offset, sizeof value);
    return value;
  }

  HMEMHEAP heap = nullptr;
  std::uint32_t totalLen = 0;
  MEMPortChunk *firstChunk = nullptr;
  void *read = nullptr;
};

}  // namespace memtest
