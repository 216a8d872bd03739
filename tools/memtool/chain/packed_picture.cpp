#include "packed_picture.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <utility>
#include <vector>

#include "packed_head.hpp"
#include "packed_report.hpp"
#include "packed_selection.hpp"
#include "tool_errors.hpp"
#include "tool_svg.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr double kMargin = 20;
constexpr double kRow = 18;          // height of a row
constexpr double kColumn = 290;      // width of a block
constexpr double kBlockHead = 40;    // above a block's rows
constexpr double kItemGap = 3;       // between two items
constexpr double kBandGap = 30;      // between two rows of blocks
constexpr double kLane = 8;          // between two parallel arrows
constexpr double kLaneMargin = 16;   // between a block and the nearest arrow
constexpr double kTitleHeight = 62;  // of the lines above the blocks
constexpr double kLegendRow = 20;
constexpr std::size_t kBandBlocks = 4;  // blocks side by side
constexpr std::size_t kMostLanes = 16;
constexpr std::size_t kKindColours = 6;

constexpr const char *kStyles =
    "  .block { fill: #fafafa; stroke: #888; }\n"
    "  .bar { fill: #ddd; } .used { fill: #7a8fa6; }\n"
    "  .item { stroke: #999; stroke-width: 0.7; }\n"
    "  .head { fill: #e4e4e4; } .string { fill: #fff; }\n"
    "  .kind0 { fill: #dbe9f6; } .kind1 { fill: #e3f1dd; } .kind2 { fill: #f6ecd6; }\n"
    "  .kind3 { fill: #eee1f3; } .kind4 { fill: #d9f0ee; } .kind5 { fill: #f7e1dd; }\n"
    "  .child, .text, .sibling, .reference { fill: none; stroke-width: 1.3; }\n"
    "  .child { stroke: #1f5fa8; } .text { stroke: #8a8a8a; }\n"
    "  .sibling { stroke: #2d8a3e; } .reference { stroke: #c76a12; stroke-dasharray: 5 3; }\n"
    "  .fault { fill: #b00020; }\n";

struct ArrowClass {
  const char *name;
  const char *colour;
  const char *legend;
};
constexpr ArrowClass kArrows[] = {{"child", "#1f5fa8", "child"},
                                  {"text", "#8a8a8a", "text"},
                                  {"sibling", "#2d8a3e", "sibling"},
                                  {"reference", "#c76a12", "reference"}};

// A row of a block, and the pointer that it shows, if any.
struct Row {
  std::string text;
  std::string className = "mono";
  const Pointer *pointer = nullptr;
};

// A segment, a text or a block's head: some rows in one box.
struct Item {
  std::uint32_t offset = 0;
  std::string className;
  std::vector<Row> rows;
};

struct Arrow {
  const char *className;
  std::size_t fromBlock;
  std::size_t toBlock;
  double fromY;
  double toY;
  std::size_t lane = 0;
};

// The space for arrows between a block and the next one of its band.
struct Gutter {
  std::vector<Arrow> arrows;
  std::size_t lanes = 0;

  double width() const { return 2 * kLaneMargin + static_cast<double>(lanes) * kLane; }
};

constexpr std::size_t kNotDrawn = static_cast<std::size_t>(-1);

class ChainPicture {
 public:
  ChainPicture(const std::string &name, const PackedChain &chain, const PictureStart &start)
      : name_(name.substr(name.find_last_of("/\\") + 1)),
        chain_(chain),
        end_(chain.segments.size()),
        svg_("Packed chain " + name_, kStyles) {
    choose(start);
  }

  std::string draw();

 private:
  void choose(const PictureStart &start);
  void findReached(std::uint32_t firstBlock);
  void collectItems();
  void addHead();
  void addSegment(const Segment &segment);
  Row pointerRow(const Pointer &pointer) const;
  void addTexts();
  void cutItems();
  void placeRows();
  void placeArrows();
  void addArrow(std::size_t block, double y, const Pointer &pointer);
  static bool assignLanes(Gutter &gutter);
  void placeColumns();

  void drawTitle();
  void drawBlock(std::size_t block);
  void drawItem(std::size_t block, const Item &item, double &y);
  void drawArrow(const Arrow &arrow, const Gutter &gutter, double gutterX);
  double drawLegend(double y);
  std::string chosenNote() const;

  const char *arrowClass(const Pointer &pointer) const;
  bool isDrawn(std::uint32_t number) const { return indices_[number] != kNotDrawn; }
  // These identify a block by its index among the drawn ones.
  std::size_t columnOf(std::size_t block) const { return block % kBandBlocks; }
  double topOf(std::size_t block) const { return bandTops_[block / kBandBlocks]; }
  double leftOf(std::size_t block) const { return columnLefts_[columnOf(block)]; }

  const std::string name_;  // of the file, without its folder
  const PackedChain &chain_;
  std::optional<std::size_t> root_;  // segment where the drawn walk begins
  std::size_t first_ = 0;            // the range of segments that may be drawn
  std::size_t end_;
  std::vector<bool> isReachedText_;    // of each text, if only a walk is drawn
  std::size_t reachedBlocks_ = 0;      // blocks with items of the walk
  std::vector<std::uint32_t> blocks_;  // numbers of the drawn ones
  std::vector<std::size_t> indices_;   // of each block of the chain
  std::size_t drawn_ = 0;
  Svg svg_;
  std::vector<std::vector<Item>> items_;  // of each drawn block, by offset
  std::vector<std::size_t> hidden_;       // items of each that are only counted
  std::vector<double> heights_;           // of each drawn block
  std::vector<double> bandTops_;
  std::vector<double> columnLefts_;
  std::map<Place, double> targetYs_;  // of the items that arrows lead to
  std::vector<Gutter> gutters_;       // right of each drawn block
  std::size_t writtenOnly_ = 0;       // pointers without an arrow
  double width_ = 0;
};

const char *ChainPicture::arrowClass(const Pointer &pointer) const {
  switch (pointer.field) {
    case Field::Sibling:
      return "sibling";
    case Field::Reference:
      return "reference";
    case Field::Child:
      break;
  }
  return isText(chain_.kinds[pointer.kind].form) ? "text" : "child";
}

void ChainPicture::choose(const PictureStart &start) {
  const std::uint32_t firstBlock = start.block.value_or(0);
  if (start.block && firstBlock >= chain_.blocks.size()) {
    throw UnknownValue(fmt::format("--block: there is no block {}; the chain has {}", firstBlock,
                                   countOf(chain_.blocks.size(), "block")));
  }
  indices_.assign(chain_.blocks.size(), kNotDrawn);
  if (start.root.empty()) {
    const std::size_t count = std::min(chain_.blocks.size() - firstBlock, kMostDrawnBlocks);
    for (std::size_t i = 0; i < count; ++i) {
      blocks_.push_back(firstBlock + static_cast<std::uint32_t>(i));
    }
  } else {
    root_ = segmentAt(chain_, start.root, "--root");
    first_ = *root_;
    end_ = walkEnd(chain_, first_);
    findReached(firstBlock);
  }
  drawn_ = blocks_.size();
  for (std::size_t i = 0; i < drawn_; ++i) indices_[blocks_[i]] = i;
}

// Chooses the first blocks that the walk reaches, so that its start is drawn wherever it is.
void ChainPicture::findReached(std::uint32_t firstBlock) {
  isReachedText_.assign(chain_.texts.size(), false);
  std::vector<bool> isReached(chain_.blocks.size(), false);
  const auto reach = [&](std::uint32_t block) {
    if (isReached[block]) return;
    isReached[block] = true;
    ++reachedBlocks_;
    if (block >= firstBlock && blocks_.size() < kMostDrawnBlocks) blocks_.push_back(block);
  };
  for (std::size_t i = first_; i < end_; ++i) {
    const Segment &segment = chain_.segments[i];
    reach(segment.place.block);
    for (std::size_t k = 0; k < segment.pointerCount; ++k) {
      const std::uint32_t text = chain_.pointers[segment.firstPointer + k].text;
      if (text == kNoText) continue;
      isReachedText_[text] = true;
      reach(chain_.texts[text].place.block);
    }
  }
  std::sort(blocks_.begin(), blocks_.end());
}

void ChainPicture::addHead() {
  const Version &version = *chain_.version;
  Item head{2, "head", {}};
  head.rows.push_back(
      {fmt::format("{:>5}  version {}{}", 2, version.text, version.isEbcdic ? " in EBCDIC" : "")});
  if (chain_.kindCount > 0) {
    head.rows.push_back(
        {fmt::format("{:>5}  control block, {} kind{}, {} bytes", kHeadLen, chain_.kindCount,
                     chain_.kindCount == 1 ? "" : "s", chain_.controlBlockLen)});
  }
  items_[0].push_back(std::move(head));
}

Row ChainPicture::pointerRow(const Pointer &pointer) const {
  const bool isTextField = pointer.field == Field::Child && isText(chain_.kinds[pointer.kind].form);
  const std::string name = isTextField ? "text" : nameOf(pointer.field);
  const std::string target = pointer.isNull ? "null" : "→ " + targetText(pointer);
  const char *const style = pointer.isFaulty ? "mono fault" : pointer.isNull ? "mono dim" : "mono";
  return {fmt::format("{:>9} {:<9} {}", fmt::format("+{}", pointer.offset), name, target), style,
          pointer.isNull || pointer.isFaulty ? nullptr : &pointer};
}

void ChainPicture::addSegment(const Segment &segment) {
  if (!isDrawn(segment.place.block)) return;
  Item item{segment.place.offset, fmt::format("kind{}", segment.kind % kKindColours), {}};
  item.rows.push_back({fmt::format("{:>5}  kind {}, {} bytes", segment.place.offset, segment.kind,
                                   segment.length)});
  for (std::size_t i = 0; i < segment.pointerCount; ++i) {
    item.rows.push_back(pointerRow(chain_.pointers[segment.firstPointer + i]));
  }
  items_[indices_[segment.place.block]].push_back(std::move(item));
}

void ChainPicture::addTexts() {
  const std::size_t columns = columnsIn(kColumn) + 1;  // as much as may be seen of a text
  for (std::size_t i = 0; i < chain_.texts.size(); ++i) {
    const Text &text = chain_.texts[i];
    if (!isDrawn(text.place.block) || (root_ && !isReachedText_[i])) continue;
    const std::string shown = inQuotes(chain_.utf8Of(text), columns);
    items_[indices_[text.place.block]].push_back(
        {text.place.offset,
         "string",
         {{fmt::format("{:>5}  {}{}", text.place.offset, text.isWide ? "wide " : "", shown)}}});
  }
}

void ChainPicture::collectItems() {
  items_.resize(drawn_);
  hidden_.resize(drawn_);
  gutters_.resize(drawn_);
  if (!blocks_.empty() && blocks_.front() == 0) addHead();
  for (std::size_t i = first_; i < end_; ++i) addSegment(chain_.segments[i]);
  addTexts();
  for (std::vector<Item> &items : items_) {
    std::stable_sort(items.begin(), items.end(),
                     [](const Item &a, const Item &b) { return a.offset < b.offset; });
  }
}

// Keeps the items that fit in kMostDrawnRows rows.
void ChainPicture::cutItems() {
  for (std::size_t block = 0; block < drawn_; ++block) {
    std::vector<Item> &items = items_[block];
    std::size_t rows = 0;
    std::size_t kept = 0;
    while (kept < items.size() && (kept == 0 || rows + items[kept].rows.size() <= kMostDrawnRows)) {
      rows += items[kept++].rows.size();
    }
    hidden_[block] = items.size() - kept;
    items.resize(kept);
  }
}

void ChainPicture::placeRows() {
  double bandTop = kMargin + kTitleHeight;
  for (std::size_t first = 0; first < drawn_; first += kBandBlocks) {
    bandTops_.push_back(bandTop);
    double tallest = 0;
    for (std::size_t block = first; block < std::min(first + kBandBlocks, drawn_); ++block) {
      double y = bandTop + kBlockHead;
      for (const Item &item : items_[block]) {
        targetYs_[{blocks_[block], item.offset}] = y + kRow / 2;
        y += static_cast<double>(item.rows.size()) * kRow + kItemGap;
      }
      if (hidden_[block] > 0) y += kRow + kItemGap;
      heights_.push_back(y - bandTop + kItemGap);
      tallest = std::max(tallest, heights_.back());
    }
    bandTop += tallest + kBandGap;
  }
  bandTops_.push_back(bandTop);  // where the legend begins
}

// An arrow is drawn to an item of the same block and of its neighbours in the band.
void ChainPicture::addArrow(std::size_t block, double y, const Pointer &pointer) {
  const auto target = targetYs_.find(pointer.target);
  const std::size_t to = indices_[pointer.target.block];
  const bool isNear = target != targetYs_.end() && block / kBandBlocks == to / kBandBlocks &&
                      (block == to || block + 1 == to || to + 1 == block);
  if (!isNear) {
    ++writtenOnly_;
    return;
  }
  // Arrows leave a little below the middle of their row and arrive a little above it, so that they
  // never overlap.
  gutters_[std::min(block, to)].arrows.push_back(
      {arrowClass(pointer), block, to, y + 3, target->second - 3});
}

void ChainPicture::placeArrows() {
  for (std::size_t block = 0; block < drawn_; ++block) {
    double y = topOf(block) + kBlockHead + kRow / 2;
    for (const Item &item : items_[block]) {
      for (const Row &row : item.rows) {
        if (row.pointer != nullptr) addArrow(block, y, *row.pointer);
        y += kRow;
      }
      y += kItemGap;
    }
  }
  for (Gutter &gutter : gutters_) {
    const std::size_t before = gutter.arrows.size();
    while (!assignLanes(gutter)) {
    }
    writtenOnly_ += before - gutter.arrows.size();
  }
}

// Arrows that would touch get different lanes, short ones the lanes next to the block. False when
// there were too few lanes and the longest arrow was dropped.
bool ChainPicture::assignLanes(Gutter &gutter) {
  const auto lengthOf = [](const Arrow &arrow) { return std::abs(arrow.fromY - arrow.toY); };
  std::stable_sort(gutter.arrows.begin(), gutter.arrows.end(),
                   [&](const Arrow &a, const Arrow &b) { return lengthOf(a) < lengthOf(b); });
  std::vector<std::vector<std::pair<double, double>>> lanes;
  for (Arrow &arrow : gutter.arrows) {
    const double top = std::min(arrow.fromY, arrow.toY) - 2;
    const double bottom = std::max(arrow.fromY, arrow.toY) + 2;
    const auto isFree = [&](const std::vector<std::pair<double, double>> &taken) {
      return std::none_of(taken.begin(), taken.end(), [&](const std::pair<double, double> &range) {
        return top <= range.second && range.first <= bottom;
      });
    };
    arrow.lane =
        static_cast<std::size_t>(std::find_if(lanes.begin(), lanes.end(), isFree) - lanes.begin());
    if (arrow.lane == lanes.size()) lanes.emplace_back();
    lanes[arrow.lane].emplace_back(top, bottom);
  }
  gutter.lanes = lanes.size();
  if (lanes.size() <= kMostLanes) return true;
  gutter.arrows.pop_back();
  return false;
}

void ChainPicture::placeColumns() {
  double x = kMargin;
  for (std::size_t column = 0; column < std::min(kBandBlocks, drawn_); ++column) {
    columnLefts_.push_back(x);
    double gutter = 0;
    for (std::size_t block = column; block < drawn_; block += kBandBlocks) {
      gutter = std::max(gutter, gutters_[block].width());
    }
    x += kColumn + gutter;
  }
  width_ = std::max(x + kMargin, 640.0);
}

void ChainPicture::drawTitle() {
  const std::size_t columns = columnsIn(width_ - 2 * kMargin);
  svg_.text(kMargin, kMargin + 12, "label", fitted(name_, columns));
  svg_.text(
      kMargin, kMargin + 30, "mono",
      fitted(fmt::format("version {}: {}", chain_.version->text, writerText(chain_)), columns));
  if (!chain_.isSound()) {
    const std::size_t more = chain_.faults.size() - 1;
    const std::string first = "Fault: " + chain_.faults.front().text();
    const std::string rest = more == 0 ? "" : fmt::format(" (and {} more)", grouped(more));
    svg_.text(kMargin, kMargin + 48, "mono fault",
              fitted(first, columns - std::min(columns, rest.size())) + rest);
  }
}

void ChainPicture::drawItem(std::size_t block, const Item &item, double &y) {
  const double x = leftOf(block) + kItemGap;
  const double width = kColumn - 2 * kItemGap;
  svg_.rect(x, y, width, static_cast<double>(item.rows.size()) * kRow, "item " + item.className);
  for (const Row &row : item.rows) {
    svg_.text(x + 4, y + 13, row.className, fitted(row.text, columnsIn(width - 8)));
    y += kRow;
  }
  y += kItemGap;
}

void ChainPicture::drawBlock(std::size_t block) {
  const double x = leftOf(block);
  double y = topOf(block);
  svg_.rect(x, y, kColumn, heights_[block], "block");
  const auto byUsed = [](const Block &a, const Block &b) { return a.used < b.used; };
  const double most = std::max_element(chain_.blocks.begin(), chain_.blocks.end(), byUsed)->used;
  svg_.text(x + 6, y + 17, "label", fmt::format("Block {}", blocks_[block]));
  const std::uint32_t used = chain_.blocks[blocks_[block]].used;
  svg_.text(x + 80, y + 17, "mono dim", grouped(used) + " bytes used");
  svg_.rect(x + 6, y + 25, kColumn - 12, 6, "bar");
  svg_.rect(x + 6, y + 25, (kColumn - 12) * used / most, 6, "used");
  y += kBlockHead;
  for (const Item &item : items_[block]) drawItem(block, item, y);
  if (hidden_[block] > 0) {
    svg_.text(x + 12, y + 13, "mono dim", fmt::format("… and {} more", grouped(hidden_[block])));
  }
}

void ChainPicture::drawArrow(const Arrow &arrow, const Gutter &gutter, double gutterX) {
  const std::size_t left = std::min(arrow.fromBlock, arrow.toBlock);
  const double laneX = gutterX + kLaneMargin + static_cast<double>(arrow.lane) * kLane;
  const double rightX = left + 1 < drawn_ ? leftOf(left + 1) : gutterX + gutter.width();
  const double fromX = arrow.fromBlock == left ? gutterX : rightX;
  const double toX = arrow.toBlock == left ? gutterX : rightX;
  svg_.path(
      fmt::format("M{:.0f} {:.0f}H{:.0f}V{:.0f}H{:.0f}", fromX, arrow.fromY, laneX, arrow.toY, toX),
      arrow.className, true);
}

// Which part of the chain is drawn; "" for all of its blocks.
std::string ChainPicture::chosenNote() const {
  if (root_) {
    const bool isCut = drawn_ < reachedBlocks_;
    return fmt::format("Only what a walk from {} reaches is drawn: {} of {} segments, in {}{}.",
                       textOf(chain_.segments[*root_].place), grouped(end_ - first_),
                       grouped(chain_.segments.size()), countOf(reachedBlocks_, "block"),
                       isCut ? fmt::format(", of which {} are drawn", drawn_) : "");
  }
  if (drawn_ == chain_.blocks.size()) return "";
  return fmt::format("Blocks {} to {} of {} are drawn.", blocks_.front(), blocks_.back(),
                     grouped(chain_.blocks.size()));
}

// Returns where the picture ends.
double ChainPicture::drawLegend(double y) {
  double x = kMargin;
  for (const ArrowClass &arrow : kArrows) {
    svg_.path(fmt::format("M{:.0f} {:.0f}H{:.0f}", x, y, x + 34), arrow.name, true);
    svg_.text(x + 40, y + 4, "legend", arrow.legend);
    x += 120;
  }
  y += kLegendRow;
  const auto note = [&](const std::string &text) {
    svg_.text(kMargin, y + 4, "dim", text);
    y += kLegendRow;
  };
  note("Rows begin with offsets as in relative pointers; +n is a field of the segment.");
  if (writtenOnly_ > 0) {
    note(writtenOnly_ == 1
             ? "1 pointer has no arrow: its target is too far away."
             : grouped(writtenOnly_) + " pointers have no arrow: their targets are too far away.");
  }
  if (const std::string chosen = chosenNote(); !chosen.empty()) note(chosen);
  if (std::any_of(hidden_.begin(), hidden_.end(), [](std::size_t count) { return count > 0; })) {
    note(fmt::format("Of each block the first {} rows are drawn.", kMostDrawnRows));
  }
  return y;
}

std::string ChainPicture::draw() {
  for (const ArrowClass &arrow : kArrows) svg_.defineArrow(arrow.name, arrow.colour);
  collectItems();
  cutItems();
  placeRows();
  placeArrows();
  placeColumns();
  drawTitle();
  for (std::size_t block = 0; block < drawn_; ++block) drawBlock(block);
  for (std::size_t block = 0; block < drawn_; ++block) {
    for (const Arrow &arrow : gutters_[block].arrows) {
      drawArrow(arrow, gutters_[block], leftOf(block) + kColumn);
    }
  }
  return svg_.finish(width_, drawLegend(bandTops_.back()) + kMargin);
}

}  // namespace

std::string chainPicture(const std::string &name, const PackedChain &chain,
                         const PictureStart &start) {
  return ChainPicture(name, chain, start).draw();
}

}  // namespace memtool
