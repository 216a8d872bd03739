// Layout. Column k holds the structures that k pointers lead to, at the least; so a pointer leads
// at most one column to the right. Between the columns are gutters, above the boxes are lanes:
//
//     lane ───────────────────────────────┐       back over more than one column
//      │  ┌───────┐        ┌───────┐      │  ┌───────┐
//      │  │ 1   ──┼──┐ ┌──►│ 2     │◄──┐  └──┼── 3   │
//      └─►│       │  └─┘   │     ──┼───┘     │       │
//         └───────┘        └───────┘         └───────┘
//
// Every arrow has a track of its own in each gutter that it passes, so that upright parts never
// overlap. Level parts that meet in a gutter end at heights that differ by their kind: rows on
// the right and on the left, and the left and the right side of heads.
#include "port_picture.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <deque>
#include <utility>
#include <vector>

#include "port_defs.hpp"
#include "port_values.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr int kRow = 18;   // height of a row; boxes stand on multiples of it
constexpr int kHead = 36;  // of a structure's head, two rows
constexpr int kGap = 36;   // between boxes of a column
constexpr int kMargin = 18;
constexpr int kTrack = 8;  // between arrows
constexpr int kPad = 9;    // between a box's border and its text
constexpr int kBend = 4;   // radius of an arrow's corners
constexpr double kLetter = 7.3;
constexpr std::size_t kMostText = 32;  // characters of a value

// Heights within a row or head; see above.
constexpr int kRowRight = 9;
constexpr int kRowLeft = 13;
constexpr int kHeadLeft = 18;
constexpr int kHeadRight = 23;

struct Row {
  std::string name;
  std::string value;
  std::string inkClass;
  std::size_t depth = 0;     // in embedded structures
  std::uint32_t target = 0;  // of a pointer; 0 for none
};

struct Box {
  std::string title;
  std::string subtitle;
  std::vector<Row> rows;
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

// Letters of other scripts may take the room of two.
int widthOf(std::string_view utf8) {
  std::size_t cells = 0;
  for (const char byte : utf8) {
    const auto value = static_cast<std::uint8_t>(byte);
    if ((value & 0xC0U) != 0x80) cells += value >= 0xE1 ? 2U : 1U;
  }
  return static_cast<int>(std::lround(static_cast<double>(cells) * kLetter));
}

std::string escaped(std::string_view utf8) {
  std::string made;
  for (std::size_t i = 0; i < utf8.size(); ++i) {
    const char c = utf8[i];
    const bool isNonCharacter = utf8.substr(i, 3) == "\xEF\xBF\xBE" ||
                                utf8.substr(i, 3) == "\xEF\xBF\xBF";  // XML has no U+FFFE, U+FFFF
    if (isNonCharacter) {
      made += "\xEF\xBF\xBD";
      i += 2;
    } else if (c == '&') {
      made += "&amp;";
    } else if (c == '<') {
      made += "&lt;";
    } else if (c == '>') {
      made += "&gt;";
    } else {
      made += c;
    }
  }
  return made;
}

std::string rowName(const PortField &field) {
  return field.definition == nullptr ? fmt::format("field {}", field.id) : field.definition->name;
}

const char *classOf(Ink ink) {
  switch (ink) {
    case Ink::Text:
      return " class=\"t\"";
    case Ink::Dim:
      return " class=\"d\"";
    case Ink::Place:
      return " class=\"p\"";
    default:
      return "";
  }
}

std::string structureName(const PortStructure &structure) {
  const bool isNamed =
      structure.definition != nullptr && structure.definition->name != std::to_string(structure.id);
  return isNamed ? structure.definition->name : fmt::format("StructID {}", structure.id);
}

class Picture {
 public:
  Picture(const std::string &name, const PortDocument &document)
      : name_(name), document_(document) {}

  std::string draw();

 private:
  void addBoxes();
  void addRows(Box &box, const PortStructure &structure, std::size_t depth);
  void addArrows();
  void setColumns();
  void setPlaces();
  void setArrows();
  int laneCount() const;
  bool isLong(const Arrow &arrow) const;
  std::size_t gutterOfStart(const Arrow &arrow) const;
  std::size_t gutterOfEnd(const Arrow &arrow) const;
  int trackIn(std::size_t gutter);
  void drawBox(const Box &box);
  void drawArrow(const Arrow &arrow);
  void drawPath(const std::vector<Point> &points, bool leadsBack);
  std::string titleText() const;

  const std::string &name_;
  const PortDocument &document_;
  std::vector<Box> boxes_;
  std::vector<Arrow> arrows_;
  std::vector<int> gutterX_;  // left edge of gutter k, which is left of column k
  std::vector<int> gutterWidth_;
  std::vector<int> tracksTaken_;  // by gutter
  int lanesTaken_ = 0;
  int top_ = 0;  // of the boxes
  int width_ = 0;
  int height_ = 0;
  std::string svg_;
};

void Picture::addRows(Box &box, const PortStructure &structure, std::size_t depth) {
  for (const PortField &field : structure.fields) {
    const auto *embedded = std::get_if<PortEmbedded>(&field.value);
    const auto *pointer = std::get_if<PortPointer>(&field.value);
    PortShown shown = showPortValue(field.value, kMostText);
    if (embedded != nullptr) shown.text = structureName(*embedded->structure);
    Row row{rowName(field), shown.text, classOf(shown.ink), depth, 0};
    if (pointer != nullptr && pointer->number != 0) {
      row.target = pointer->number;
      row.value = fmt::format("→ {}", pointer->number);
      if (pointer->number > boxes_.size()) row.value += " (not drawn)";
    }
    box.rows.push_back(std::move(row));
    if (embedded != nullptr) addRows(box, *embedded->structure, depth + 1);
  }
}

void Picture::addBoxes() {
  boxes_.resize(std::min(document_.structures.size(), kMostDrawnStructures));
  for (std::size_t i = 0; i < boxes_.size(); ++i) {
    const PortStructure &structure = document_.structures[i];
    Box &box = boxes_[i];
    box.title = fmt::format("{}  {}", i + 1, structureName(structure));
    box.subtitle = structure.offset ? fmt::format("at character {}", *structure.offset)
                                    : fmt::format("StructID {}", structure.id);
    if (structure.elements) {
      box.subtitle += fmt::format(", {} element{}", grouped(*structure.elements),
                                  *structure.elements == 1 ? "" : "s");
    }
    addRows(box, structure, 0);
    if (box.rows.size() > kMostDrawnFields) {
      const std::size_t more = box.rows.size() - (kMostDrawnFields - 1);
      box.rows.resize(kMostDrawnFields - 1);
      box.rows.push_back({fmt::format("… {} more", grouped(more)), "", " class=\"d\"", 0, 0});
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
      const std::size_t target = boxes_[i].rows[row].target;
      if (target != 0 && target <= boxes_.size()) arrows_.push_back({i, row, target - 1});
    }
  }
}

// Breadth first along the drawn arrows. What no arrow leads to begins anew in the first column.
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
// happens to boxes that stand in a column of an earlier start.
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

int Picture::laneCount() const {
  return static_cast<int>(std::count_if(arrows_.begin(), arrows_.end(),
                                        [this](const Arrow &arrow) { return isLong(arrow); }));
}

void Picture::setPlaces() {
  std::size_t columns = 1;
  for (const Box &box : boxes_) columns = std::max(columns, box.column + 1);
  std::vector<int> tracks(columns + 1, 0);
  for (const Arrow &arrow : arrows_) {
    ++tracks[gutterOfStart(arrow)];
    if (isLong(arrow)) ++tracks[gutterOfEnd(arrow)];
  }
  std::vector<int> widths(columns, 0);
  for (const Box &box : boxes_) widths[box.column] = std::max(widths[box.column], box.width);

  const int lanes = laneCount();
  top_ = (kMargin + 2 * kRow + lanes * kTrack + kRow + kRow - 1) / kRow * kRow;
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
    const int lane = top_ - kRow - kTrack * ++lanesTaken_;
    const int lastTrack = trackIn(end);
    points.insert(points.end(), {{firstTrack, lane}, {lastTrack, lane}, {lastTrack, last.y}});
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
  svg_ +=
      fmt::format("<path class=\"{}\" d=\"M{} {}", leadsBack ? "b" : "a", points[0].x, points[0].y);
  for (std::size_t i = 1; i + 1 < points.size(); ++i) {
    const auto towards = [&points, i](const Point &other) {
      const int dx = other.x - points[i].x;
      const int dy = other.y - points[i].y;
      const int bend = std::min(kBend, (std::abs(dx) + std::abs(dy)) / 2);
      return Point{points[i].x + signOf(dx) * bend, points[i].y + signOf(dy) * bend};
    };
    const Point in = towards(points[i - 1]);
    const Point out = towards(points[i + 1]);
    svg_ += fmt::format("L{} {}Q{} {} {} {}", in.x, in.y, points[i].x, points[i].y, out.x, out.y);
  }
  svg_ += fmt::format("L{} {}\" marker-end=\"url(#{})\"/>\n", points.back().x, points.back().y,
                      leadsBack ? "mb" : "ma");
}

void Picture::drawBox(const Box &box) {
  svg_ += fmt::format("<rect class=\"f\" x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\" rx=\"4\"/>\n",
                      box.x, box.y, box.width, box.height());
  svg_ += fmt::format("<rect class=\"h\" x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\" rx=\"4\"/>\n",
                      box.x, box.y, box.width, kHead);
  svg_ += fmt::format("<text class=\"n\" x=\"{}\" y=\"{}\">{}</text>\n", box.x + kPad, box.y + 15,
                      escaped(box.title));
  svg_ += fmt::format("<text class=\"d\" x=\"{}\" y=\"{}\">{}</text>\n", box.x + kPad, box.y + 30,
                      escaped(box.subtitle));
  int y = box.y + kHead + 13;
  for (const Row &row : box.rows) {
    const int x = box.x + kPad;
    svg_ += fmt::format("<text x=\"{}\" y=\"{}\">{}</text>", x + kRow * static_cast<int>(row.depth),
                        y, escaped(row.name));
    svg_ += fmt::format("<text{} x=\"{}\" y=\"{}\">{}</text>\n", row.inkClass,
                        x + box.nameWidth + kRow, y, escaped(row.value));
    y += kRow;
  }
}

std::string Picture::titleText() const {
  const std::string shown = inQuotes(validUtf8(name_), 60);
  std::string text =
      fmt::format("{}: {} characters, {} structure{}", shown.substr(1, shown.rfind('"') - 1),
                  grouped(document_.characters), grouped(document_.promised),
                  document_.promised == 1 ? "" : "s");
  if (boxes_.size() < document_.promised) {
    text += fmt::format("; the first {} are drawn", boxes_.size());
  }
  return text;
}

std::string Picture::draw() {
  addBoxes();
  addArrows();
  setColumns();
  setPlaces();
  svg_ = fmt::format(
      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0}\" height=\"{1}\" "
      "viewBox=\"0 0 {0} {1}\">\n",
      width_, height_);
  svg_ +=
      "<style>text{font:12px monospace;fill:#222;white-space:pre}.n{font-weight:bold}"
      ".d{fill:#666}.t{fill:#276738}.p{fill:#1f5a9c}.f{fill:#fff;stroke:#8895a3}"
      ".h{fill:#e6edf4;stroke:#8895a3}.a,.b{fill:none;stroke-width:1.3}.a{stroke:#1f5a9c}"
      ".b{stroke:#b0562a;stroke-dasharray:5 3}</style>\n"
      "<defs><marker id=\"ma\" markerWidth=\"8\" markerHeight=\"8\" refX=\"7\" refY=\"4\" "
      "orient=\"auto\"><path d=\"M0 1L7 4L0 7z\" fill=\"#1f5a9c\"/></marker>"
      "<marker id=\"mb\" markerWidth=\"8\" markerHeight=\"8\" refX=\"7\" refY=\"4\" "
      "orient=\"auto\"><path d=\"M0 1L7 4L0 7z\" fill=\"#b0562a\"/></marker></defs>\n"
      "<rect width=\"100%\" height=\"100%\" fill=\"#fff\"/>\n";
  svg_ += fmt::format("<text class=\"n\" x=\"{}\" y=\"{}\">{}</text>\n", kMargin, kMargin + 9,
                      escaped(titleText()));
  for (const Box &box : boxes_) drawBox(box);
  for (const Arrow &arrow : arrows_) drawArrow(arrow);
  svg_ += "</svg>\n";
  return std::move(svg_);
}

}  // namespace

std::string portPicture(const std::string &name, const PortDocument &document) {
  return Picture(name, document).draw();
}

}  // namespace memtool
