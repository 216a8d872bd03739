// Layout. Column k has the structures that are k pointers away, by the shortest way; so a pointer
// leads at most one column to the right. Between the columns are gutters, above the boxes are
// lanes:
//
//     lane ───────────────────────────────┐       back over more than one column
//      │  ┌───────┐        ┌───────┐      │  ┌───────┐
//      │  │ 1   ──┼──┐ ┌──►│ 2     │◄──┐  └──┼── 3   │
//      └─►│       │  └─┘   │     ──┼───┘     │       │
//         └───────┘        └───────┘         └───────┘
//
// Every arrow has a track of its own in the gutter where it begins, so that upright parts never
// overlap; arrows over a lane share the lane and the track at its end with those to the same box.
// Level parts that meet in a gutter end at heights that differ by their kind: rows on the right and
// on the left, and the left and the right side of heads.
#include "port_picture.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <deque>
#include <map>
#include <numeric>
#include <set>
#include <utility>
#include <vector>

#include "port_selection.hpp"
#include "port_values.hpp"
#include "tool_svg.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr int kRow = 18;   // height of a row; boxes begin at multiples of it
constexpr int kHead = 36;  // of a structure's head, two rows
constexpr int kGap = 36;   // between boxes of a column
constexpr int kMargin = 18;
constexpr int kTrack = 8;              // between arrows
constexpr int kPad = 9;                // between a box's border and its text
constexpr int kBend = 4;               // radius of an arrow's corners
constexpr std::size_t kMostText = 32;  // characters of a value

// Heights within a row or head; see above.
constexpr int kRowRight = 9;
constexpr int kRowLeft = 13;
constexpr int kHeadLeft = 18;
constexpr int kHeadRight = 23;

constexpr const char *kAheadColour = "#1f5a9c";
constexpr const char *kBackColour = "#b0562a";
constexpr const char *kStyles =
    "  .words { fill: #276738; }\n"
    "  .place { fill: #1f5a9c; }\n"
    "  .box { fill: #fff; stroke: #8895a3; }\n"
    "  .head { fill: #e6edf4; stroke: #8895a3; }\n"
    "  .ahead { fill: none; stroke: #1f5a9c; stroke-width: 1.3; }\n"
    "  .back { fill: none; stroke: #b0562a; stroke-width: 1.3; stroke-dasharray: 5 3; }\n";

struct Row {
  std::string name;
  std::string value;
  const char *inkClass = "mono";
  std::size_t depth = 0;     // in embedded structures
  std::uint32_t target = 0;  // of a pointer; 0 for none
};

struct Box {
  std::string title;
  std::string subtitle;
  std::vector<Row> rows;    // those that are drawn
  std::size_t allRows = 0;  // that it has
  std::size_t column = 0;
  int x = 0;
  int y = 0;
  int width = 0;
  int nameWidth = 0;

  int height() const { return kHead + kRow * static_cast<int>(rows.size()); }
};

struct Arrow {
  std::size_t from = 0;  // boxes
  std::size_t row = 0;
  std::size_t to = 0;
};

struct Point {
  int x;
  int y;
};

int widthOf(std::string_view utf8) {
  return static_cast<int>(std::lround(static_cast<double>(displayColumns(utf8)) * kCharWidth));
}

const char *classOf(Ink ink) {
  switch (ink) {
    case Ink::Text:
      return "mono words";
    case Ink::Dim:
      return "mono dim";
    case Ink::Place:
      return "mono place";
    default:
      return "mono";
  }
}

// A file name may contain any characters.
std::string titleOf(const std::string &name) {
  const std::string shown = inQuotes(validUtf8(name), 60);
  return shown.substr(1, shown.rfind('"') - 1);
}

class Picture {
 public:
  Picture(const std::string &name, const PortDocument &document, std::optional<std::uint32_t> root)
      : name_(name), document_(document), root_(root), svg_(titleOf(name), kStyles) {
    choose();
  }

  std::string draw();

 private:
  struct Lane {
    int y = 0;
    int track = 0;  // where it goes down to the box
  };

  void choose();
  void addBoxes();
  void addRows(Box &box, PortReader &reader, const PortStructure &structure, std::size_t depth);
  Row rowOf(const PortField &field, const std::string &name, std::size_t depth) const;
  void addArrows();
  void setColumns();
  void setPlaces();
  void setArrows();
  bool isLong(const Arrow &arrow) const;
  std::size_t gutterOfStart(const Arrow &arrow) const;
  std::size_t gutterOfEnd(const Arrow &arrow) const;
  int trackIn(std::size_t gutter);
  Lane laneTo(std::size_t box, std::size_t gutter);
  void drawBox(const Box &box);
  void drawArrow(const Arrow &arrow);
  void drawPath(const std::vector<Point> &points, bool leadsBack);
  std::string titleText() const;

  const std::string &name_;
  const PortDocument &document_;
  const std::optional<std::uint32_t> root_;
  std::size_t reached_ = 0;                   // structures that might be drawn
  std::vector<std::size_t> numbers_;          // of the drawn ones
  std::map<std::size_t, std::size_t> boxOf_;  // by number
  std::vector<Box> boxes_;
  std::vector<Arrow> arrows_;
  std::vector<int> gutterX_;  // left edge of gutter k, which is left of column k
  std::vector<int> gutterWidth_;
  std::vector<int> tracksTaken_;                               // by gutter
  std::map<std::pair<std::size_t, std::size_t>, Lane> lanes_;  // by box and gutter of its end
  int top_ = 0;                                                // of the boxes
  int width_ = 0;
  int height_ = 0;
  Svg svg_;
};

// Rows that are not drawn are counted only: there may be more of them than there is memory for.
void Picture::addRows(Box &box, PortReader &reader, const PortStructure &structure,
                      std::size_t depth) {
  PortFieldNames names(structure);
  for (PortFields fields(reader); fields.next();) {
    const PortField &field = fields.field();
    const std::string name = names.next(field);
    if (++box.allRows <= kMostDrawnFields) box.rows.push_back(rowOf(field, name, depth));
    if (const auto *embedded = std::get_if<PortEmbedded>(&field.value)) {
      addRows(box, reader, embedded->structure, depth + 1);
    }
  }
}

Row Picture::rowOf(const PortField &field, const std::string &name, std::size_t depth) const {
  const PortShown shown = showPortValue(field.value, kMostText);
  Row row{(field.definition == nullptr ? "field " : "") + name, shown.text, classOf(shown.ink),
          depth, 0};
  if (const auto *embedded = std::get_if<PortEmbedded>(&field.value)) {
    row.value = portStructureName(embedded->structure);
  }
  const auto *pointer = std::get_if<PortPointer>(&field.value);
  if (pointer == nullptr || pointer->number == 0) return row;
  row.target = pointer->number;
  row.value = fmt::format("→ {}", pointer->number);
  if (boxOf_.count(pointer->number) == 0) row.value += " (not drawn)";
  return row;
}

void Picture::choose() {
  if (root_) {
    numbers_ = reachedStructures(document_, checkedNumber(document_, *root_), {});
  } else {
    numbers_.resize(document_.count());
    std::iota(numbers_.begin(), numbers_.end(), std::size_t{1});
  }
  reached_ = numbers_.size();
  numbers_.resize(std::min(reached_, kMostDrawnStructures));
  for (std::size_t i = 0; i < numbers_.size(); ++i) boxOf_[numbers_[i]] = i;
}

void Picture::addBoxes() {
  boxes_.resize(numbers_.size());
  for (std::size_t i = 0; i < boxes_.size(); ++i) {
    const std::unique_ptr<PortReader> reader = document_.read(numbers_[i]);
    const PortStructure &structure = reader->structure();
    Box &box = boxes_[i];
    box.title = fmt::format("{}  {}", numbers_[i], portStructureName(structure));
    box.subtitle = structure.offset ? fmt::format("at character {}", *structure.offset)
                                    : fmt::format("StructID {}", structure.id);
    if (structure.elements) {
      box.subtitle += fmt::format(", {} element{}", grouped(*structure.elements),
                                  *structure.elements == 1 ? "" : "s");
    }
    addRows(box, *reader, structure, 0);
    if (box.allRows > kMostDrawnFields) {
      const std::size_t more = box.allRows - (kMostDrawnFields - 1);
      box.rows.resize(kMostDrawnFields - 1);
      box.rows.push_back({fmt::format("… {} more", grouped(more)), "", "mono dim", 0, 0});
    }
    int valueWidth = 0;
    for (const Row &row : box.rows) {
      box.nameWidth =
          std::max(box.nameWidth, widthOf(row.name) + kRow * static_cast<int>(row.depth));
      valueWidth = std::max(valueWidth, widthOf(row.value));
    }
    const int head = std::max(widthOf(box.title), widthOf(box.subtitle));
    box.width = std::max(head, box.nameWidth + kRow + valueWidth) + 2 * kPad;
  }
}

void Picture::addArrows() {
  for (std::size_t i = 0; i < boxes_.size(); ++i) {
    for (std::size_t row = 0; row < boxes_[i].rows.size(); ++row) {
      const auto target = boxOf_.find(boxes_[i].rows[row].target);
      if (target != boxOf_.end()) arrows_.push_back({i, row, target->second});
    }
  }
}

// Breadth first along the drawn arrows. A box to which no arrow leads starts in the first column.
void Picture::setColumns() {
  std::vector<bool> isReached(boxes_.size(), false);
  for (std::size_t first = 0; first < boxes_.size(); ++first) {
    if (isReached[first]) continue;
    std::deque<std::size_t> queue{first};
    isReached[first] = true;
    for (; !queue.empty(); queue.pop_front()) {
      for (const Arrow &arrow : arrows_) {
        if (arrow.from != queue.front() || isReached[arrow.to]) continue;
        isReached[arrow.to] = true;
        boxes_[arrow.to].column = boxes_[arrow.from].column + 1;
        queue.push_back(arrow.to);
      }
    }
  }
}

// Back over more than one column, which takes a lane above the boxes. The same to the right, which
// happens to boxes in a column of an earlier start.
bool Picture::isLong(const Arrow &arrow) const {
  return gutterOfStart(arrow) != gutterOfEnd(arrow);
}

// Arrows to the right and within a column leave on the right, others on the left.
std::size_t Picture::gutterOfStart(const Arrow &arrow) const {
  const std::size_t column = boxes_[arrow.from].column;
  return boxes_[arrow.to].column < column ? column : column + 1;
}

// Arrows to the right end at a left side, others at a right one.
std::size_t Picture::gutterOfEnd(const Arrow &arrow) const {
  const std::size_t column = boxes_[arrow.to].column;
  return boxes_[arrow.from].column < column ? column : column + 1;
}

void Picture::setPlaces() {
  std::size_t columns = 1;
  for (const Box &box : boxes_) columns = std::max(columns, box.column + 1);
  std::vector<int> tracks(columns + 1, 0);
  std::set<std::pair<std::size_t, std::size_t>> lanes;
  for (const Arrow &arrow : arrows_) {
    ++tracks[gutterOfStart(arrow)];
    const std::size_t end = gutterOfEnd(arrow);
    if (isLong(arrow) && lanes.insert({arrow.to, end}).second) ++tracks[end];
  }
  std::vector<int> widths(columns, 0);
  for (const Box &box : boxes_) widths[box.column] = std::max(widths[box.column], box.width);

  const int laneRoom = static_cast<int>(lanes.size()) * kTrack;
  top_ = (4 * kRow + laneRoom - 1) / kRow * kRow;  // title, lanes and a row
  int x = kMargin;
  std::vector<int> columnX;
  for (std::size_t k = 0; k <= columns; ++k) {
    const bool isOutside = (k == 0 || k == columns) && tracks[k] == 0;
    gutterX_.push_back(x);
    gutterWidth_.push_back(isOutside ? 0 : 2 * kRow + tracks[k] * kTrack);
    x += gutterWidth_.back();
    columnX.push_back(x);
    if (k < columns) x += widths[k];
  }
  tracksTaken_.assign(columns + 1, 0);
  width_ = std::max(x, kMargin + widthOf(titleText())) + kMargin;

  std::vector<int> nextY(columns, top_);
  for (Box &box : boxes_) {
    box.x = columnX[box.column];
    box.y = nextY[box.column];
    box.width = widths[box.column];
    nextY[box.column] += box.height() + kGap;
    height_ = std::max(height_, box.y + box.height() + kMargin);
  }
  height_ = std::max(height_, top_);
}

int Picture::trackIn(std::size_t gutter) {
  return gutterX_[gutter] + kRow + kTrack * tracksTaken_[gutter]++;
}

// Arrows to one box share the lane and the track at its end.
Picture::Lane Picture::laneTo(std::size_t box, std::size_t gutter) {
  const auto known = lanes_.find({box, gutter});
  if (known != lanes_.end()) return known->second;
  const int y = top_ - kRow - kTrack * static_cast<int>(lanes_.size());
  return lanes_[{box, gutter}] = {y, trackIn(gutter)};
}

// From the row's side over a track, or over a track, a lane and a track, to the head's side.
void Picture::drawArrow(const Arrow &arrow) {
  const Box &from = boxes_[arrow.from];
  const Box &to = boxes_[arrow.to];
  const std::size_t start = gutterOfStart(arrow);
  const std::size_t end = gutterOfEnd(arrow);
  const bool leavesRight = start == from.column + 1;
  const bool entersLeft = end == to.column;
  const int row = from.y + kHead + kRow * static_cast<int>(arrow.row);
  const Point first{leavesRight ? from.x + from.width : from.x,
                    row + (leavesRight ? kRowRight : kRowLeft)};
  const Point last{entersLeft ? to.x : to.x + to.width,
                   to.y + (entersLeft ? kHeadLeft : kHeadRight)};
  const int firstTrack = trackIn(start);
  std::vector<Point> points{first, {firstTrack, first.y}};
  if (isLong(arrow)) {
    const Lane lane = laneTo(arrow.to, end);
    points.insert(points.end(), {{firstTrack, lane.y}, {lane.track, lane.y}, {lane.track, last.y}});
  } else {
    points.push_back({firstTrack, last.y});
  }
  points.push_back(last);
  drawPath(points, !(leavesRight && entersLeft));
}

int signOf(int value) {
  return value == 0 ? 0 : value < 0 ? -1 : 1;
}

// Straight parts with round corners.
void Picture::drawPath(const std::vector<Point> &points, bool leadsBack) {
  std::string data = fmt::format("M{} {}", points[0].x, points[0].y);
  for (std::size_t i = 1; i + 1 < points.size(); ++i) {
    const auto towards = [&points, i](const Point &other) {
      const int dx = other.x - points[i].x;
      const int dy = other.y - points[i].y;
      const int bend = std::min(kBend, (std::abs(dx) + std::abs(dy)) / 2);
      return Point{points[i].x + signOf(dx) * bend, points[i].y + signOf(dy) * bend};
    };
    const Point in = towards(points[i - 1]);
    const Point out = towards(points[i + 1]);
    data += fmt::format("L{} {}Q{} {} {} {}", in.x, in.y, points[i].x, points[i].y, out.x, out.y);
  }
  data += fmt::format("L{} {}", points.back().x, points.back().y);
  svg_.path(data, leadsBack ? "back" : "ahead", true);
}

void Picture::drawBox(const Box &box) {
  svg_.rect(box.x, box.y, box.width, box.height(), "box");
  svg_.rect(box.x, box.y, box.width, kHead, "head");
  svg_.text(box.x + kPad, box.y + 15, "mono label", box.title);
  svg_.text(box.x + kPad, box.y + 30, "mono dim", box.subtitle);
  int y = box.y + kHead + 13;
  for (const Row &row : box.rows) {
    const int x = box.x + kPad;
    svg_.text(x + kRow * static_cast<int>(row.depth), y, "mono", row.name);
    svg_.text(x + box.nameWidth + kRow, y, row.inkClass, row.value);
    y += kRow;
  }
}

std::string Picture::titleText() const {
  std::string text = fmt::format("{}: {} characters, {} structure{}", titleOf(name_),
                                 grouped(document_.characters), grouped(document_.promised),
                                 document_.promised == 1 ? "" : "s");
  if (root_) {
    text += fmt::format("; drawn is what {} leads to, {} of {}", *root_, boxes_.size(),
                        countOf(reached_, "structure"));
  } else if (boxes_.size() < document_.promised) {
    text += fmt::format("; the first {} are drawn", boxes_.size());
  }
  return text;
}

std::string Picture::draw() {
  addBoxes();
  addArrows();
  setColumns();
  setPlaces();
  svg_.defineArrow("ahead", kAheadColour);
  svg_.defineArrow("back", kBackColour);
  svg_.text(kMargin, kMargin + 9, "mono label", titleText());
  for (const Box &box : boxes_) drawBox(box);
  for (const Arrow &arrow : arrows_) drawArrow(arrow);
  return svg_.finish(width_, height_);
}

}  // namespace

std::string portPicture(const std::string &name, const PortDocument &document,
                        std::optional<std::uint32_t> root) {
  return Picture(name, document, root).draw();
}

}  // namespace memtool
