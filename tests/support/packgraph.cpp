#include "packgraph.hpp"

#include <algorithm>
#include <span>
#include <string>

namespace memtest {
namespace {

constexpr std::size_t kPointerLen = 8;
constexpr std::size_t kMaxFixed = 65533;  // no block can use more than 65535 bytes
constexpr std::size_t kMaxCounted = 32767 + 2;
constexpr std::size_t kMaxTextRoom = 65531;
constexpr std::size_t kOverhead = MEM_PACK_BLOCK_OVERHEAD;

// Positions of `count` pointer fields from `start` on, in random order, with gaps that make odd
// offsets. Leaves in `end` where the last field ends.
std::vector<std::int16_t> fieldOffsets(Random &random, std::size_t start, std::size_t count,
                                       std::size_t &end) {
  std::vector<std::int16_t> offsets;
  end = start;
  for (std::size_t i = 0; i < count; ++i) {
    end += random.oneIn(2) ? random.below(6) : 0;
    offsets.push_back(static_cast<std::int16_t>(end));
    end += kPointerLen;
  }
  for (std::size_t i = count; i > 1; --i) std::swap(offsets[i - 1], offsets[random.below(i)]);
  return offsets;
}

// How many of a hundred kinds are of a type.
struct Share {
  std::uint16_t type;
  std::size_t percent;
};

// The last type gets what the others leave of the hundred.
std::uint16_t pick(Random &random, std::span<const Share> shares) {
  std::size_t choice = random.below(100);
  for (const Share &share : shares.first(shares.size() - 1)) {
    if (choice < share.percent) return share.type;
    choice -= share.percent;
  }
  return shares.back().type;
}

std::int16_t takeLast(std::vector<std::int16_t> &offsets) {
  const std::int16_t last = offsets.back();
  offsets.pop_back();
  return last;
}

}  // namespace

bool RandomStructure::Shape::isText() const {
  return kind.type == MEM_PACK_STRING || kind.type == MEM_PACK_WIDE_STRING;
}

RandomStructure::RandomStructure(std::uint64_t seed)
    : random_(seed),
      settings_{.oldControlBlock = random_.oneIn(4), .bigEndian = random_.oneIn(4)},
      count_(random_.between(1, 24)),
      controlBlock_(static_cast<std::int16_t>(count_)),
      nodesLeft_(random_.oneIn(10) ? random_.between(60, 250) : random_.between(1, 30)) {
  if (random_.oneIn(10)) defect_ = static_cast<Defect>(random_.between(1, 5));
  if (defect_ == Defect::TooDeep) {
    maxLevel_ = MEM_PACK_MAX_LEVELS + 2;
    nodesLeft_ = 250;
  }
  makeShapes();
  describe();
  chooseBlockLen();
  grow(makeNode(0), 1);
  setReferences();
  if (defect_ == Defect::ReachedTwice) reachTwice();
}

Bytes RandomStructure::callerBytes() const {
  Bytes all = controlBlock_.bytes();
  const Bytes items = items_.contents();
  all.insert(all.end(), items.begin(), items.end());
  return all;
}

void RandomStructure::makeShapes() {
  const bool describesMore = count_ < 8 && random_.oneIn(4);
  shapes_.resize(describesMore ? random_.between(count_, 8) : count_);
  for (std::size_t i = 0; i < shapes_.size(); ++i) shapes_[i].kind.type = randomType(i);
  for (Shape &shape : shapes_) {
    if (!shape.isText()) makeSegmentShape(shape);
  }
}

std::uint16_t RandomStructure::randomType(std::size_t index) {
  static constexpr Share kRoot[] = {
      {MEM_PACK_FIXED, 50}, {MEM_PACK_COUNTED, 25}, {kSelfDescribing, 23}, {MEM_PACK_STRING, 2}};
  static constexpr Share kOthers[] = {{MEM_PACK_FIXED, 35},
                                      {MEM_PACK_COUNTED, 15},
                                      {kSelfDescribing, 15},
                                      {MEM_PACK_STRING, 18},
                                      {MEM_PACK_WIDE_STRING, 17}};
  return index == 0 ? pick(random_, kRoot) : pick(random_, kOthers);
}

// `most` in one of 30 calls, else the smaller of two random numbers up to it.
std::size_t RandomStructure::fewOf(std::size_t most) {
  if (random_.oneIn(30)) return most;
  return std::min(random_.below(most + 1), random_.below(most + 1));
}

void RandomStructure::makeSegmentShape(Shape &shape) {
  const bool tooManyForOld = settings_.oldControlBlock && random_.oneIn(300);
  const std::size_t mostChildren = settings_.oldControlBlock ? 8 : MEM_PACK_MAX_CHILDREN;
  const std::size_t children = tooManyForOld ? 9 : fewOf(mostChildren);
  const std::size_t references = fewOf(MEM_PACK_MAX_REFERENCES);
  const bool hasSibling = !random_.oneIn(3);
  const std::size_t prefix = shape.kind.type == MEM_PACK_FIXED ? 0 : 2;
  std::vector<std::int16_t> offsets =
      fieldOffsets(random_, prefix, children + references + (hasSibling ? 1 : 0), shape.minLength);
  if (hasSibling) shape.kind.siblingOff = takeLast(offsets);
  for (std::size_t i = 0; i < children; ++i) {
    const auto kind = static_cast<std::uint16_t>(random_.below(shapes_.size()));
    shape.kind.children.push_back({kind, takeLast(offsets)});
  }
  shape.kind.references = offsets;
}

// Whatever no kind defines is random: unused entries, all but the type of texts, and descriptors
// beyond the count. Readers compare the root's first two child entries, used or not.
void RandomStructure::describe() {
  for (std::size_t i = 0; i < std::max<std::size_t>(count_, 8); ++i) {
    std::uint8_t *const descriptor = reinterpret_cast<std::uint8_t *>(&controlBlock_[i]);
    for (std::size_t b = 0; b < ControlBlock::kDescriptorLen; ++b) {
      descriptor[b] = static_cast<std::uint8_t>(random_.bits());
    }
    if (i >= shapes_.size()) continue;
    if (shapes_[i].isText()) {
      controlBlock_[i].Type = shapes_[i].kind.type;
      if (random_.oneIn(4)) nameEntries(controlBlock_[i]);
    } else {
      controlBlock_.set(i, shapes_[i].kind);
    }
  }
  MemPackDescriptor &root = controlBlock_[0];
  const bool usesNone = shapes_[0].isText() || root.ChildCount < 1;
  if (usesNone) root.Children[0] = {};
  if (usesNone || root.ChildCount < 2) root.Children[1] = {};
}

// Gives text counts that are in range. It has no pointers, but conversions take its entries along.
void RandomStructure::nameEntries(MemPackDescriptor &text) {
  text.ChildCount = static_cast<std::int16_t>(random_.below(random_.oneIn(50) ? 10 : 9));
  text.ReferenceCount = static_cast<std::int16_t>(random_.below(9));
  for (MemPackChild &child : text.Children) {
    if (random_.oneIn(2)) child.Descriptor = static_cast<std::uint16_t>(random_.below(8));
  }
}

void RandomStructure::chooseBlockLen() {
  const std::size_t smallest =
      std::max<std::size_t>(1000, ControlBlock::lengthFor(static_cast<std::int32_t>(count_)) + 19);
  const std::size_t choice = random_.below(100);
  if (choice < 55) {
    blockLen_ = smallest + random_.below(300);
  } else if (choice < 90) {
    blockLen_ = random_.between(smallest, 8000);
  } else if (choice < 95) {
    blockLen_ = random_.between(smallest, 32000);
  } else {
    blockLen_ = random_.between(random_.oneIn(2) ? 32000 : 65000, 70000);
    isRoomy_ = true;
    nodesLeft_ = std::min<std::size_t>(nodesLeft_, 25);
  }
  // The fixed length is part of the kind, so it is chosen once for all segments of the kind.
  for (std::size_t i = 0; i < shapes_.size(); ++i) {
    Shape &shape = shapes_[i];
    if (shape.kind.type != MEM_PACK_FIXED) continue;
    const std::size_t length = std::min(kMaxFixed, shape.minLength + usualTail(shape.minLength));
    shape.kind.fixedLen = static_cast<std::uint16_t>(length);
    controlBlock_[i].FixedLen = shape.kind.fixedLen;
  }
}

// Bytes after the pointer fields: few, or all that a block takes.
std::size_t RandomStructure::usualTail(std::size_t minLength) {
  const std::size_t most = blockLen_ - kOverhead - minLength;
  if (random_.oneIn(60)) return most;
  if (isRoomy_ && random_.oneIn(2)) return random_.below(most + 1);
  return random_.below(random_.oneIn(10) ? 400 : 40);
}

std::size_t RandomStructure::segmentLength(const Shape &shape) {
  if (shape.kind.type == MEM_PACK_FIXED) return shape.kind.fixedLen;
  if (defect_ == Defect::LongSegment && random_.oneIn(4)) return blockLen_ - kOverhead + 1;
  return shape.minLength + usualTail(shape.minLength);
}

RandomStructure::Node RandomStructure::makeNode(std::size_t kind) {
  const Shape &shape = shapes_[kind];
  if (nodesLeft_ > 0) --nodesLeft_;
  if (shape.isText()) {
    const std::uint8_t *text = makeText(false);
    nodes_.push_back({const_cast<std::uint8_t *>(text), kind});
    return nodes_.back();
  }
  const bool isCounted = shape.kind.type == MEM_PACK_COUNTED;
  const std::size_t most = isCounted ? kMaxCounted : kMaxFixed;
  const std::size_t length = std::max<std::size_t>(shape.kind.type == MEM_PACK_FIXED ? 0 : 2,
                                                   std::min(most, segmentLength(shape)));
  std::uint8_t *const segment = items_.make(length, 0, random_.below(8));
  for (std::size_t i = 0; i < length; ++i) segment[i] = static_cast<std::uint8_t>(random_.bits());
  if (shape.kind.type != MEM_PACK_FIXED) {
    putNumber(segment, static_cast<std::uint16_t>(isCounted ? length - 2 : length));
  }
  nodes_.push_back({segment, kind});
  return nodes_.back();
}

bool RandomStructure::wantsNode(std::size_t level) {
  return nodesLeft_ > 0 && level <= maxLevel_ && (defect_ == Defect::TooDeep || !random_.oneIn(3));
}

void RandomStructure::grow(const Node &node, std::size_t level) {
  const Shape &shape = shapes_[node.kind];
  if (shape.isText()) return;
  growChildren(node, level);
  if (shape.kind.siblingOff == MEM_PACK_NO_SIBLING) return;
  const auto offset = static_cast<std::size_t>(shape.kind.siblingOff);
  if (!wantsNode(level)) {
    putPointer(node.segment, offset, nullptr);
    nullFields_.push_back({node.segment, offset, node.kind});
    return;
  }
  const Node sibling = makeNode(node.kind);
  putPointer(node.segment, offset, sibling.segment);
  grow(sibling, level);
}

void RandomStructure::growChildren(const Node &node, std::size_t level) {
  for (const MemPackChild &child : shapes_[node.kind].kind.children) {
    const Shape &childShape = shapes_[child.Descriptor];
    const auto offset = static_cast<std::size_t>(child.Offset);
    const void *target = nullptr;
    if (childShape.isText()) {
      if (!random_.oneIn(5)) target = makeText(childShape.kind.type == MEM_PACK_WIDE_STRING);
      putPointer(node.segment, offset, target);
    } else if (wantsNode(level + 1)) {
      const Node made = makeNode(child.Descriptor);
      putPointer(node.segment, offset, made.segment);
      grow(made, level + 1);
    } else {
      putPointer(node.segment, offset, nullptr);
      nullFields_.push_back({node.segment, offset, child.Descriptor});
    }
  }
}

// Bytes that a text takes in a block.
std::size_t RandomStructure::textRoom() {
  const std::size_t most = std::min(kMaxTextRoom, blockLen_ - kOverhead);
  if (defect_ == Defect::LongText && random_.oneIn(20)) return most + 4;
  if (random_.oneIn(60)) return most;
  if (random_.oneIn(isRoomy_ ? 4 : 20)) return random_.between(4, most);
  return random_.between(4, 60);
}

const std::uint8_t *RandomStructure::makeText(bool isWide) {
  std::vector<const std::uint8_t *> &made = isWide ? wideTexts_ : narrowTexts_;
  if (!made.empty() && random_.oneIn(8)) return made[random_.below(made.size())];
  if (isWide) {
    std::u16string units(textRoom() / 4 - 1, u' ');
    for (char16_t &unit : units) unit = static_cast<char16_t>(random_.between(1, 0xFFFF));
    made.push_back(items_.wide(units, random_.below(8)));
  } else {
    std::string characters(random_.oneIn(20) ? 0 : textRoom() - 1, ' ');
    for (char &character : characters) character = static_cast<char>(random_.between(1, 255));
    made.push_back(items_.text(characters, random_.below(8)));
  }
  return made.back();
}

void RandomStructure::setReferences() {
  for (const Node &node : nodes_) setReferencesOf(node);
}

void RandomStructure::setReferencesOf(const Node &node) {
  if (shapes_[node.kind].isText()) return;
  for (const std::int16_t offset : shapes_[node.kind].kind.references) {
    const void *target = nullptr;
    if (!random_.oneIn(3)) target = nodes_[random_.below(nodes_.size())].segment;
    if (defect_ == Defect::LostReference && random_.oneIn(4)) target = node.segment + 1;
    putPointer(node.segment, static_cast<std::size_t>(offset), target);
  }
}

// Lets one more pointer lead to a segment that is packed anyway.
void RandomStructure::reachTwice() {
  if (nullFields_.empty()) return;
  const Field field = nullFields_[random_.below(nullFields_.size())];
  for (const Node &node : nodes_) {
    if (node.kind != field.kind) continue;
    putPointer(field.segment, field.offset, node.segment);
    if (random_.oneIn(2)) return;
  }
}

}  // namespace memtest
