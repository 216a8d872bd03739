// Random structures for the packer: control blocks of every layout, and the graphs that they
// describe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "packmodel.hpp"
#include "packstruct.hpp"
#include "randomrun.hpp"

namespace memtest {

// One structure. Most can be packed; about one in ten has a defect that packing must refuse: a
// reference to nothing, a segment reached twice, an item that is too long, a level too many.
class RandomStructure {
 public:
  explicit RandomStructure(std::uint64_t seed);

  const MemPackCB *controlBlock() const { return controlBlock_.get(); }
  const void *root() const { return nodes_.front().segment; }
  std::int32_t blockLen() const { return static_cast<std::int32_t>(blockLen_); }
  const packmodel::Settings &settings() const { return settings_; }

  // Every byte that belongs to the caller.
  Bytes callerBytes() const;

 private:
  enum class Defect { None, LostReference, ReachedTwice, LongSegment, LongText, TooDeep };

  // A kind with the length that holds all its pointer fields.
  struct Shape {
    Kind kind;
    std::size_t minLength = 0;
    bool isText() const;
  };
  struct Node {
    std::uint8_t *segment;
    std::size_t kind;
  };
  struct Field {  // an owning pointer that is null so far
    std::uint8_t *segment;
    std::size_t offset;
    std::size_t kind;  // of what it may point to
  };

  void makeShapes();
  std::uint16_t randomType(std::size_t index);
  void makeSegmentShape(Shape &shape);
  std::size_t fewOf(std::size_t most);
  void describe();
  void nameEntries(MemPackDescriptor &text);
  void chooseBlockLen();

  Node makeNode(std::size_t kind);
  std::size_t segmentLength(const Shape &shape);
  std::size_t usualTail(std::size_t minLength);
  void grow(const Node &node, std::size_t level);
  void growChildren(const Node &node, std::size_t level);
  bool wantsNode(std::size_t level);
  const std::uint8_t *makeText(bool isWide);
  std::size_t textRoom();
  void setReferences();
  void setReferencesOf(const Node &node);
  void reachTwice();

  Random random_;
  packmodel::Settings settings_;
  Defect defect_ = Defect::None;
  std::size_t count_;          // descriptors that the control block counts
  std::vector<Shape> shapes_;  // may be more than counted, up to the eight that always have room
  ControlBlock controlBlock_;
  std::size_t blockLen_ = 0;
  bool isRoomy_ = false;  // long items, so that blocks reach the limits of 16-bit numbers
  std::size_t nodesLeft_;
  std::size_t maxLevel_ = MEM_PACK_MAX_LEVELS;

  Items items_;
  std::vector<Node> nodes_;
  std::vector<Field> nullFields_;
  std::vector<const std::uint8_t *> narrowTexts_;
  std::vector<const std::uint8_t *> wideTexts_;
};

}  // namespace memtest
