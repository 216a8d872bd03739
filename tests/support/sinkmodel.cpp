#include "sinkmodel.hpp"

#include <algorithm>
#include <iterator>

namespace sinkmodel {

namespace {

// An index slot, read in place.
struct Slot {
  const std::uint8_t *address;
  std::uint64_t uses;
};

Slot slotAt(const MEMProcessBlock &block, std::uint32_t slot) {
  Slot read;
  static_assert(sizeof read == 16);
  std::memcpy(&read, static_cast<const std::uint8_t *>(block.pIndex) + std::size_t{slot} * 16, 16);
  return read;
}

bool isUsedGranule(const MEMSinkSegment &segment, std::uint32_t granule) {
  return (segment.pMap[granule / 8] & (0x80U >> granule % 8)) != 0;
}

template <class... Values>
std::string say(const char *format, Values... values) {
  return refhost::formatText(format, values...);
}

}  // namespace

Text narrow(const std::string &text) {
  return {text, false};
}

Text wide(const std::u16string &text) {
  return {std::string(reinterpret_cast<const char *>(text.data()), text.size() * 2), true};
}

Text textAt(const void *address, bool isWide) {
  const char *const bytes = static_cast<const char *>(address);
  std::size_t length = 0;
  if (isWide) {
    while (bytes[length] != 0 || bytes[length + 1] != 0) length += 2;
  } else {
    while (bytes[length] != 0) ++length;
  }
  return {std::string(bytes, length), isWide};
}

std::string keyOf(const Text &text) {
  std::string key = text.bytes;
  if (key.size() % 2 != 0) key.push_back('\0');
  return key;
}

std::uint32_t textLen(const Text &text) {
  return static_cast<std::uint32_t>(text.bytes.size() + 2);
}

std::uint32_t reservedLen(const Text &text) {
  return (textLen(text) + 2) / 2 * 2;
}

SinkModel::SinkModel(std::uint8_t freshByte) : freshByte_(freshByte) {
  addSegment();
}

void SinkModel::addSegment() {
  Segment &segment = segments_.emplace_back();
  segment.freeRuns.emplace(0, kSpaceLen);
  segment.map.assign(kMapLen, 0);
  segment.space.assign(kSpaceLen, freshByte_);
}

std::size_t SinkModel::placeOf(const std::string &key) const {
  // std::string compares as unsigned bytes, a prefix first.
  const auto before = [](const Entry &entry, const std::string &wanted) {
    return entry.key < wanted;
  };
  const auto found = std::lower_bound(entries_.begin(), entries_.end(), key, before);
  return static_cast<std::size_t>(found - entries_.begin());
}

bool SinkModel::isAt(std::size_t place, const std::string &key) const {
  return place < entries_.size() && entries_[place].key == key;
}

Answer SinkModel::sink(const Text &text) {
  const std::string key = keyOf(text);
  const std::size_t place = placeOf(key);
  if (isAt(place, key)) {
    ++entries_[place].uses;
    return {0, entries_[place].position};
  }
  Position position;
  const std::uint32_t length = reservedLen(text);
  if (length > kSpaceLen || !reserve(length, position)) return {4085, {}};

  Segment &segment = segments_[position.segment];
  std::fill_n(segment.space.begin() + position.offset, length, std::uint8_t{0});
  std::copy(text.bytes.begin(), text.bytes.end(), segment.space.begin() + position.offset);
  segment.textLen += textLen(text);
  segment.usedLen += length;
  segment.freeLen -= static_cast<std::int32_t>(length);
  makeRoom();
  indexInsert(place);
  entries_.insert(entries_.begin() + static_cast<std::ptrdiff_t>(place),
                  Entry{key, position, 1, textLen(text), length});
  return {0, position};
}

Answer SinkModel::verify(const Text &text) const {
  const std::string key = keyOf(text);
  const std::size_t place = placeOf(key);
  if (!isAt(place, key)) return {4084, {}};
  return {0, entries_[place].position};
}

Answer SinkModel::remove(const Text &text, bool isCopy, Position position) {
  const std::string key = keyOf(text);
  const std::size_t place = placeOf(key);
  if (!isAt(place, key)) return {4084, {}};
  Entry &entry = entries_[place];
  if (!isCopy || entry.position != position) return {4086, {}};
  if (--entry.uses == 0) {
    release(entry);
    indexRemove(place);
    entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(place));
  }
  return {};
}

// First fit, in the order of segments and addresses.
bool SinkModel::reserve(std::uint32_t length, Position &position) {
  for (std::size_t i = 0; i < kSegments; ++i) {
    if (i == segments_.size()) addSegment();
    Segment &segment = segments_[i];
    const auto fits = [length](const auto &run) { return run.second >= length; };
    const auto found = std::find_if(segment.freeRuns.begin(), segment.freeRuns.end(), fits);
    if (found == segment.freeRuns.end()) continue;
    const auto [offset, runLength] = *found;
    segment.freeRuns.erase(found);
    if (runLength > length) segment.freeRuns.emplace(offset + length, runLength - length);
    mark(segment, offset, length, true);
    position = {i, offset};
    return true;
  }
  return false;
}

void SinkModel::release(const Entry &entry) {
  Segment &segment = segments_[entry.position.segment];
  std::uint32_t from = entry.position.offset;
  std::uint32_t length = entry.reservedLen;
  mark(segment, from, length, false);
  std::fill_n(segment.space.begin() + from, length, std::uint8_t{0});
  segment.textLen -= entry.textLen;
  segment.usedLen -= length;
  segment.freeLen += static_cast<std::int32_t>(length);

  const auto next = segment.freeRuns.lower_bound(from);
  if (next != segment.freeRuns.begin()) {
    const auto previous = std::prev(next);
    if (previous->first + previous->second == from) {
      from = previous->first;
      length += previous->second;
    }
  }
  if (next != segment.freeRuns.end() && next->first == from + length) {
    length += next->second;
    segment.freeRuns.erase(next);
  }
  segment.freeRuns[from] = length;
}

void SinkModel::mark(Segment &segment, std::uint32_t offset, std::uint32_t length, bool isUsed) {
  for (std::uint32_t granule = offset / 2; granule < (offset + length) / 2; ++granule) {
    const auto bit = static_cast<std::uint8_t>(0x80U >> granule % 8);
    std::uint8_t &byte = segment.map[granule / 8];
    byte = static_cast<std::uint8_t>(isUsed ? byte | bit : byte & ~bit);
  }
}

// Before a new entry: a full index is compacted, or grows by 512 slots.
void SinkModel::makeRoom() {
  if (used_ < slotCount_) return;
  if (garbage_ >= 10) {
    ++compactions_;
  } else {
    ++growths_;
    slotCount_ += 512;
  }
  const auto active = static_cast<std::uint32_t>(entries_.size());
  garbage_ = 0;
  used_ = active;
  first_ = slotCount_ - active;
  end_ = slotCount_ - 1;
  free_ = static_cast<std::int32_t>(first_) - 1;
}

// The entry takes `place` in the order.
void SinkModel::indexInsert(std::size_t place) {
  const std::size_t above = entries_.size() - place;
  if (entries_.empty()) {
    first_ = end_ = slotCount_ - 1;
    free_ = static_cast<std::int32_t>(slotCount_) - 2;
    used_ = 1;
  } else if (place != 0 && garbage_ > 0 && above <= place) {
    ++end_;
    --garbage_;
  } else {
    --first_;
    --free_;
    ++used_;
  }
}

void SinkModel::indexRemove(std::size_t place) {
  if (entries_.size() == 1) {
    used_ = garbage_ = 0;
    free_ = static_cast<std::int32_t>(slotCount_) - 1;
  } else if (place == 0) {
    free_ = static_cast<std::int32_t>(first_);
    ++first_;
    --used_;
  } else {
    --end_;
    ++garbage_;
  }
}

std::string SinkModel::segmentDifference(const MEMSinkSegment &actual,
                                         const Segment &expected) const {
  if (actual.pBase == nullptr) return "no block";
  if (actual.pSpace != actual.pBase + kMapLen || actual.pLast != actual.pBase + kBlockLen - 1 ||
      actual.pMap != actual.pBase) {
    return "addresses";
  }
  if (actual.UsedLen != expected.usedLen) {
    return say("used length %u, not %u", actual.UsedLen, expected.usedLen);
  }
  if (actual.FreeLen != expected.freeLen) {
    return say("free length %d, not %d", actual.FreeLen, expected.freeLen);
  }
  if (actual.TextLen != expected.textLen) {
    return say("text length %u, not %u", actual.TextLen, expected.textLen);
  }
  if (std::memcmp(actual.pMap, expected.map.data(), kMapLen) != 0) {
    return "map bytes " +
           memtest::changedRanges(expected.map, memtest::bytesOf(actual.pMap, kMapLen));
  }
  if (std::memcmp(actual.pSpace, expected.space.data(), kSpaceLen) != 0) {
    return "string space bytes " +
           memtest::changedRanges(expected.space, memtest::bytesOf(actual.pSpace, kSpaceLen));
  }
  return "";
}

std::string SinkModel::indexDifference(const MEMProcessBlock &block) const {
  const auto active = static_cast<std::uint32_t>(entries_.size());
  const std::string expected =
      say("IndexLen=%u SlotCount=%u Used=%u Act=%u Garbage=%u Free=%d First=%u End=%u",
          slotCount_ * 16, slotCount_, used_, active, garbage_, free_, first_, end_);
  const std::string actual = say(
      "IndexLen=%u SlotCount=%u Used=%u Act=%u Garbage=%u Free=%d First=%u End=%u", block.IndexLen,
      block.SlotCount, block.Used, block.Act, block.Garbage, block.Free, block.First, block.End);
  if (actual != expected) return actual + ", not " + expected;
  for (std::uint32_t i = 0; i < active; ++i) {
    const Entry &entry = entries_[i];
    const Slot slot = slotAt(block, first_ + i);
    const std::uint8_t *const address =
        block.Segments[entry.position.segment].pSpace + entry.position.offset;
    if (slot.address != address || slot.uses != entry.uses) {
      return say("slot %u holds %p with %llu uses, not %p with %llu", first_ + i, slot.address,
                 slot.uses, address, entry.uses);
    }
  }
  return "";
}

std::string SinkModel::difference(const MEMProcessBlock &block) const {
  if (block.SegmentCount != static_cast<std::int32_t>(segments_.size())) {
    return say("%d segments, not %u", block.SegmentCount, segments_.size());
  }
  for (std::size_t i = 0; i < segments_.size(); ++i) {
    const std::string different = segmentDifference(block.Segments[i], segments_[i]);
    if (!different.empty()) return say("segment %u: ", i) + different;
  }
  for (std::size_t i = segments_.size(); i < kSegments; ++i) {
    if (memtest::bytesOf(&block.Segments[i], 48) != Bytes(48)) {
      return say("segment %u is not clear", i);
    }
  }
  return indexDifference(block);
}

std::vector<SunkCopy> sunkCopies(const MEMProcessBlock &block) {
  std::vector<SunkCopy> copies;
  copies.reserve(block.Act);
  for (std::uint32_t i = 0; i < block.Act; ++i) {
    const Slot slot = slotAt(block, block.First + i);
    copies.push_back({textAt(slot.address, true).bytes, slot.address, slot.uses});
  }
  return copies;
}

namespace {

// The walk of `unsoundness()`. Each step throws nothing and returns its finding.
class SoundnessWalk {
 public:
  explicit SoundnessWalk(const MEMProcessBlock &block) : block_(block) {}

  std::string run() {
    for (const auto step : {&SoundnessWalk::checkSegments, &SoundnessWalk::checkIndexFields,
                            &SoundnessWalk::checkOrder, &SoundnessWalk::checkRuns}) {
      const std::string finding = (this->*step)();
      if (!finding.empty()) return finding;
    }
    return "";
  }

 private:
  std::string checkSegments() {
    if (block_.SegmentCount < 1 || block_.SegmentCount > MEM_SINK_SEGMENTS) {
      return say("%d segments", block_.SegmentCount);
    }
    for (std::int32_t i = 0; i < MEM_SINK_SEGMENTS; ++i) {
      const MEMSinkSegment &segment = block_.Segments[i];
      if (i >= block_.SegmentCount) {
        if (memtest::bytesOf(&segment, 48) != Bytes(48)) return say("segment %d is not clear", i);
      } else if (segment.pBase == nullptr || segment.pSpace != segment.pBase + kMapLen ||
                 segment.pLast != segment.pBase + kBlockLen - 1 || segment.pMap != segment.pBase) {
        return say("addresses of segment %d", i);
      }
    }
    return "";
  }

  std::string checkIndexFields() {
    if (block_.pIndex == nullptr || block_.IndexLen < 16384 || block_.IndexLen % 8192 != 0 ||
        block_.SlotCount != block_.IndexLen / 16) {
      return say("index of %u bytes and %u slots", block_.IndexLen, block_.SlotCount);
    }
    if (block_.Used != block_.Act + block_.Garbage || block_.Used > block_.SlotCount) {
      return say("Used=%u Act=%u Garbage=%u", block_.Used, block_.Act, block_.Garbage);
    }
    if (block_.Act == 0) {
      const bool isClear = block_.Garbage == 0 && block_.Free == lastSlot();
      return isClear ? "" : say("empty index with Garbage=%u Free=%d", block_.Garbage, block_.Free);
    }
    const bool isPlaced = block_.End - block_.First + 1 == block_.Act &&
                          block_.End + block_.Garbage + 1 == block_.SlotCount &&
                          block_.Free + 1 == static_cast<std::int32_t>(block_.First);
    return isPlaced ? ""
                    : say("Act=%u Garbage=%u Free=%d First=%u End=%u of %u slots", block_.Act,
                          block_.Garbage, block_.Free, block_.First, block_.End, block_.SlotCount);
  }

  std::string checkOrder() {
    for (std::uint32_t i = 0; i < block_.Act; ++i) {
      const Slot slot = slotAt(block_, block_.First + i);
      if (segmentOf(slot.address) == nullptr) return say("slot %u is outside", block_.First + i);
      if (slot.uses == 0) return say("copy %p without use", slot.address);
    }
    copies_ = sunkCopies(block_);
    for (std::size_t i = 1; i < copies_.size(); ++i) {
      if (copies_[i - 1].key >= copies_[i].key) {
        return say("copies %p and %p out of order", copies_[i - 1].address, copies_[i].address);
      }
    }
    return "";
  }

  // Copies in the order of addresses must tile exactly what the maps call used.
  std::string checkRuns() {
    const auto byAddress = [](const SunkCopy &a, const SunkCopy &b) {
      return a.address < b.address;
    };
    std::sort(copies_.begin(), copies_.end(), byAddress);
    const auto segments = static_cast<std::size_t>(block_.SegmentCount);
    std::vector<std::uint32_t> usedLens(segments), textLens(segments);
    std::vector<Bytes> maps(segments, Bytes(kMapLen));
    for (std::size_t i = 0; i < copies_.size(); ++i) {
      const MEMSinkSegment &segment = *segmentOf(copies_[i].address);
      const auto number = static_cast<std::size_t>(&segment - block_.Segments);
      const std::uint8_t *const next = i + 1 < copies_.size() ? copies_[i + 1].address : nullptr;
      const Run run = runOf(segment, copies_[i], next);
      if (!run.finding.empty()) return run.finding;
      usedLens[number] += run.reservedLen;
      textLens[number] += run.textLen;
      const auto first = static_cast<std::uint32_t>(copies_[i].address - segment.pSpace) / 2;
      for (std::uint32_t granule = first; granule < first + run.reservedLen / 2; ++granule) {
        std::uint8_t &byte = maps[number][granule / 8];
        const auto bit = static_cast<std::uint8_t>(0x80U >> granule % 8);
        if ((byte & bit) != 0) return say("copy %p overlaps another one", copies_[i].address);
        byte = static_cast<std::uint8_t>(byte | bit);
      }
    }
    for (std::size_t i = 0; i < segments; ++i) {
      const std::string finding = checkMap(block_.Segments[i], maps[i], usedLens[i], textLens[i]);
      if (!finding.empty()) return say("segment %u: ", i) + finding;
    }
    return "";
  }

  struct Run {
    std::string finding;
    std::uint32_t textLen = 0;
    std::uint32_t reservedLen = 0;
  };

  // What the copy must have reserved. Only a text whose last byte pair ends with zero can be of two
  // lengths: odd and narrow, or even and wide with one more granule.
  Run runOf(const MEMSinkSegment &segment, const SunkCopy &copy, const std::uint8_t *next) const {
    const auto end = static_cast<std::uint32_t>(copy.key.size());
    const bool canBeOdd = end != 0 && copy.key.back() == '\0';
    const std::uint8_t *const extra = copy.address + end + 2;
    const bool hasExtra =
        extra < segment.pLast && extra != next &&
        isUsedGranule(segment, static_cast<std::uint32_t>(extra - segment.pSpace) / 2);
    Run run{"", end + 2, end + 4};
    if (canBeOdd && !hasExtra) run = {"", end + 1, end + 2};
    if (copy.address + run.reservedLen > segment.pLast + 1) run.finding = "copy leaves its segment";
    for (std::uint32_t i = end; run.finding.empty() && i < run.reservedLen; ++i) {
      if (copy.address[i] != 0) run.finding = say("copy %p is not closed", copy.address);
    }
    return run;
  }

  static std::string checkMap(const MEMSinkSegment &segment, const Bytes &map,
                              std::uint32_t usedLen, std::uint32_t textLen) {
    if (std::memcmp(segment.pMap, map.data(), kMapLen) != 0) {
      return "map bytes " + memtest::changedRanges(map, memtest::bytesOf(segment.pMap, kMapLen));
    }
    const auto freeLen = static_cast<std::int32_t>(kSpaceLen - usedLen);
    if (segment.UsedLen != usedLen || segment.FreeLen != freeLen || segment.TextLen != textLen) {
      return say("lengths %u, %d, %u, not %u, %d, %u", segment.UsedLen, segment.FreeLen,
                 segment.TextLen, usedLen, freeLen, textLen);
    }
    return "";
  }

  std::int32_t lastSlot() const { return static_cast<std::int32_t>(block_.SlotCount) - 1; }

  const MEMSinkSegment *segmentOf(const std::uint8_t *address) const {
    for (std::int32_t i = 0; i < block_.SegmentCount; ++i) {
      const MEMSinkSegment &segment = block_.Segments[i];
      if (address >= segment.pSpace && address <= segment.pLast) return &segment;
    }
    return nullptr;
  }

  const MEMProcessBlock &block_;
  std::vector<SunkCopy> copies_;
};

}  // namespace

std::string unsoundness(const MEMProcessBlock &block) {
  return SoundnessWalk(block).run();
}

}  // namespace sinkmodel
