// An independent model of the string sink: which copies there are, where they are, how often each
// is used, and from that every byte of the sink's part of the process block, of the maps, of the
// string spaces and of the index. It favours ordered containers over speed and shares no code with
// the library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "memtest.hpp"

namespace sinkmodel {

using memtest::Bytes;

inline constexpr std::uint32_t kMapLen = 16384;
inline constexpr std::uint32_t kSpaceLen = 0x40000;
inline constexpr std::uint32_t kBlockLen = kMapLen + kSpaceLen;
inline constexpr std::size_t kSegments = 64;
inline constexpr std::uint16_t kSubPool = 230;

// A text as callers have it: its bytes without terminator, of an even number when it is wide.
struct Text {
  std::string bytes;
  bool isWide = false;
};

Text narrow(const std::string &text);
Text wide(const std::u16string &text);

// The text at an address of a copy, read as one of the two kinds.
Text textAt(const void *address, bool isWide);

// The bytes that a copy of the text has before its two zero bytes at an even position. Texts with
// equal keys share a copy, and copies are ordered as their keys are.
std::string keyOf(const Text &text);

// What a text takes, computed as callers are promised.
std::uint32_t textLen(const Text &text);      // TLen
std::uint32_t reservedLen(const Text &text);  // GLen

// Where a copy is.
struct Position {
  std::size_t segment = 0;
  std::uint32_t offset = 0;  // in the string space

  bool operator==(const Position &) const = default;
};

struct Answer {
  std::uint32_t code = 0;  // 0, 4084, 4085 or 4086
  Position position;       // with code 0, but for a delete
};

class SinkModel {
 public:
  // What fresh storage of the host holds.
  explicit SinkModel(std::uint8_t freshByte);

  Answer sink(const Text &text);
  Answer verify(const Text &text) const;
  // `isCopy`: whether the address passed is `position`'s.
  Answer remove(const Text &text, bool isCopy, Position position);

  std::size_t copies() const { return entries_.size(); }
  std::size_t segments() const { return segments_.size(); }
  // The copy at a place of the sorted order.
  Position positionAt(std::size_t place) const { return entries_[place].position; }

  std::uint64_t compactions() const { return compactions_; }
  std::uint64_t growths() const { return growths_; }

  // "" when the process block and all that hangs on it is the model's to the bit, else the first
  // difference. The addresses of blocks and index, the gate and the segments' counters are the
  // library's own.
  std::string difference(const MEMProcessBlock &block) const;

 private:
  struct Entry {
    std::string key;
    Position position;
    std::uint64_t uses;
    std::uint32_t textLen;
    std::uint32_t reservedLen;
  };
  struct Segment {
    std::map<std::uint32_t, std::uint32_t> freeRuns;  // offset to length, never adjacent
    std::vector<std::uint8_t> map;
    std::vector<std::uint8_t> space;
    std::uint32_t usedLen = 0;
    std::int32_t freeLen = kSpaceLen;
    std::uint32_t textLen = 0;
  };

  std::size_t placeOf(const std::string &key) const;
  bool isAt(std::size_t place, const std::string &key) const;
  void addSegment();
  bool reserve(std::uint32_t length, Position &position);
  void release(const Entry &entry);
  void mark(Segment &segment, std::uint32_t offset, std::uint32_t length, bool isUsed);
  void makeRoom();
  void indexInsert(std::size_t place);
  void indexRemove(std::size_t place);

  std::string segmentDifference(const MEMSinkSegment &actual, const Segment &expected) const;
  std::string indexDifference(const MEMProcessBlock &block) const;

  const std::uint8_t freshByte_;
  std::vector<Entry> entries_;  // sorted
  std::vector<Segment> segments_;

  // Fields of the index.
  std::uint32_t slotCount_ = 1024;
  std::uint32_t used_ = 0;
  std::uint32_t garbage_ = 0;
  std::uint32_t first_ = 0;
  std::uint32_t end_ = 0;
  std::int32_t free_ = 1023;

  std::uint64_t compactions_ = 0;
  std::uint64_t growths_ = 0;
};

// "" when the sink's state is consistent: segments, maps, lengths, index and copies agree, the
// order is strict and nothing is reserved that belongs to no copy. Needs no model, so it serves
// where threads or failing host calls decide what the sink holds. REQUIRES: no call is running.
std::string unsoundness(const MEMProcessBlock &block);

// The copies of a sink in order: key, address and uses.
struct SunkCopy {
  std::string key;
  const std::uint8_t *address;
  std::uint64_t uses;
};
std::vector<SunkCopy> sunkCopies(const MEMProcessBlock &block);

}  // namespace sinkmodel
