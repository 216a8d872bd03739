// Random definition tables and random graphs of structures that they describe.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "portdefs.hpp"
#include "randomrun.hpp"

namespace memtest {

// A definition table over all field types and a graph with shared structures and cycles. What a
// reader cannot restore is left out: full CharSZ fields, unions of different storage.
class PortGraph {
 public:
  explicit PortGraph(std::uint64_t seed) : PortGraph(Random(seed)) {}
  explicit PortGraph(Random random);

  const MEMStructDef *defs() const { return defs_.table(); }
  std::uint32_t rootID() const { return kinds_[rootKind_].structID; }
  const void *root() const { return nodes_.at(rootKind_).front().data(); }

  // What the table holds: proof that a run has seen everything.
  bool hasType(std::uint8_t type) const { return types_[type]; }
  bool hasUnion() const { return hasUnion_; }
  bool hasRepeat(bool countIsLength) const { return hasRepeat_[countIsLength ? 1 : 0]; }

 private:
  struct Slot {
    Field field;
    std::size_t embeddedKind = 0;
    std::int32_t embeddedCount = 1;
  };
  struct Kind {
    std::uint32_t structID = 0;
    std::int32_t length = 0;
    std::vector<Slot> slots;
    std::int32_t countField = kNoRepeat;
    bool countIsLength = false;

    bool repeats() const { return countField != kNoRepeat; }
    std::int32_t elementLen() const { return slots.back().field.get().Length; }
    std::int32_t lengthWith(std::int32_t count) const {
      return repeats() ? length + (count - 1) * elementLen() : length;
    }
  };

  void makeKind(std::size_t index);
  Slot makeSlot(std::size_t kind, std::uint32_t fieldID, std::int32_t offset);
  MEMFieldType pickType(std::size_t kind);
  std::int32_t lengthFor(MEMFieldType type);
  void addUnion(Kind &kind, std::uint32_t &fieldID, std::int32_t &end);
  void addCount(Kind &kind, std::uint32_t &fieldID, std::int32_t &end);
  void addRepeated(std::size_t index, Kind &kind, std::uint32_t &fieldID, std::int32_t &end);

  void makeNodes();
  void fill(std::size_t kind, std::uint8_t *place, std::int32_t count);
  void fillField(const Slot &slot, std::uint8_t *place);
  void fillCount(const Kind &kind, std::uint8_t *place, std::int32_t count);
  void fillBytes(std::uint8_t *place, std::size_t length);
  const void *anyNode(std::uint32_t structID);
  const char *anyText();
  const char16_t *anyWideText();
  std::uint8_t anyByte();
  char16_t anyUnit();
  std::uint64_t anyNumber();
  std::uint32_t nextID(std::uint32_t last) {
    return last + static_cast<std::uint32_t>(random_.between(1, random_.oneIn(6) ? 1000 : 4));
  }
  std::int32_t gap() { return static_cast<std::int32_t>(random_.oneIn(3) ? random_.below(8) : 0); }

  Random random_;
  Defs defs_;
  std::vector<Kind> kinds_;
  std::size_t rootKind_ = 0;
  std::map<std::size_t, std::vector<Record>> nodes_;
  std::deque<std::string> texts_;
  std::deque<std::u16string> wideTexts_;
  bool types_[17] = {};
  bool hasUnion_ = false;
  bool hasRepeat_[2] = {};
};

}  // namespace memtest
