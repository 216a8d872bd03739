#include "heap_picture.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <utility>

#include "tool_svg.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr double kMargin = 20;
constexpr double kBarWidth = 880;  // of the longest area
constexpr double kBarHeight = 34;
constexpr double kTickRow = 16;
constexpr double kCutWidth = 20;  // by which a large block may be longer
constexpr double kLine = 20;
constexpr double kPanelGap = 22;
constexpr double kAreaGap = 10;
constexpr double kTextPad = 2.5;     // on each side of a label
constexpr double kLeastWidth = 1.5;  // of a part that is drawn separately

constexpr const char *kStyles =
    "  .part { stroke: #777; stroke-width: 0.7; }\n"
    "  .head { fill: #c9ced6; } .free { fill: #fff; } .rest { fill: #ececec; }\n"
    "  .freed { fill: #f7d9d4; stroke-dasharray: 4 2; }\n"
    "  .dim { fill: #555; }\n"
    "  .zone { fill: #e9a9a0; } .unknown { fill: #bdb7a6; }\n"
    "  .tick { stroke: #777; stroke-width: 0.7; }\n"
    "  .caption { font-size: 14px; font-weight: bold; }\n"
    "  .rule { stroke: #ccc; }\n";

class HeapPicture {
 public:
  HeapPicture(const std::string &name, const std::vector<Snapshot> &snapshots, ColourBy colour)
      : colours_(colour, snapshots),
        svg_("Heaps and pools of " + name, std::string(kStyles) + colours_.styles()) {}

  std::string draw(const std::vector<Snapshot> &snapshots);

 private:
  void findScale(const std::vector<Snapshot> &snapshots);
  void drawSnapshot(const Snapshot &snapshot);
  void drawStore(const Store &store, bool isOfProgram);
  void drawArea(const Store &store, const StoreArea &area, const std::string &what,
                bool isOfProgram);
  std::string classOf(const AreaPart &part);
  bool drawPart(const AreaPart &part);
  std::string drawParts(const std::vector<AreaPart> &parts);
  void drawTicks(const std::vector<AreaPart> &parts, std::uint32_t length);
  void drawLegend();
  void drawMeaning(const std::string &className, const std::string &text);

  // A large block that is longer than the bar is cut.
  double xOf(std::uint32_t offset) const {
    return kMargin + std::min(offset * scale_, kBarWidth + kCutWidth);
  }

  EntryColours colours_;
  std::set<AreaPart::What> drawn_;
  double legendX_ = kMargin;
  Svg svg_;
  double scale_ = 1;  // units of a byte
  double y_ = kMargin;
};

const char *plainClassOf(AreaPart::What what) {
  switch (what) {
    case AreaPart::What::Head:
      return "part head";
    case AreaPart::What::Freed:
      return "part freed";
    case AreaPart::What::Zone:
      return "part zone";
    case AreaPart::What::Unknown:
      return "part unknown";
    case AreaPart::What::Free:
      return "part free";
    default:
      break;
  }
  return "part rest";
}

std::string HeapPicture::classOf(const AreaPart &part) {
  drawn_.insert(part.what);
  return part.entry == nullptr ? plainClassOf(part.what) : colours_.classOf(*part.entry);
}

std::uint32_t longestArea(const Store &store, bool withLarge) {
  std::uint32_t longest = 0;
  for (const StoreArea &area : store.areas) {
    if (withLarge || !area.isLarge) longest = std::max(longest, area.length);
  }
  return longest;
}

// Uses one scale for all snapshots of a script.
void HeapPicture::findScale(const std::vector<Snapshot> &snapshots) {
  std::uint32_t longest = 1;
  for (const Snapshot &snapshot : snapshots) {
    for (const Store &store : snapshot.stores) {
      longest = std::max(longest, longestArea(store, true));
    }
  }
  scale_ = kBarWidth / longest;
}

// Writes the label into its part, with details if they fit. False when the label does not fit.
bool HeapPicture::drawPart(const AreaPart &part) {
  const double width = xOf(part.offset + part.length) - xOf(part.offset);
  svg_.rect(xOf(part.offset), y_, width, kBarHeight, classOf(part));
  const std::size_t columns = columnsIn(width - 2 * kTextPad);
  const std::string length = grouped(part.length);
  const std::string &text = displayColumns(part.text) <= columns ? part.text : part.label;
  const bool fits = displayColumns(text) <= columns;
  if (fits) svg_.text(xOf(part.offset) + kTextPad, y_ + 14, "mono", text);
  if (length.size() <= columns) {
    svg_.text(xOf(part.offset) + kTextPad, y_ + 28, "mono dim", length);
  }
  return fits;
}

// Neighbours of one class that are too narrow to be distinguished are drawn as one. Returns the
// labels that did not fit.
std::string HeapPicture::drawParts(const std::vector<AreaPart> &parts) {
  std::string outside;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    const auto isNarrow = [&](const AreaPart &part) { return part.length * scale_ < kLeastWidth; };
    AreaPart part = parts[i];
    while (i + 1 < parts.size() && isNarrow(parts[i]) && isNarrow(parts[i + 1]) &&
           classOf(parts[i]) == classOf(parts[i + 1])) {
      part.length += parts[++i].length;
    }
    if (drawPart(part) || part.what == AreaPart::What::Head) continue;
    outside += fmt::format("{}{}: {}", outside.empty() ? "at " : ", ", part.offset, part.text);
  }
  return outside;
}

// Writes offsets below the bar, as many as fit.
void HeapPicture::drawTicks(const std::vector<AreaPart> &parts, std::uint32_t length) {
  const double top = y_ + kBarHeight;
  const std::string last = grouped(length);
  const double lastX = xOf(length);
  double free = 0;  // where the next number may begin
  for (const AreaPart &part : parts) {
    const double x = xOf(part.offset);
    const std::string text = grouped(part.offset);
    const double width = static_cast<double>(text.size() + 1) * kCharWidth;
    if (x < free || x + width > lastX) continue;
    svg_.line(x, top, x, top + 4, "tick");
    svg_.text(x, top + 14, "mono dim", text);
    free = x + width;
  }
  svg_.line(lastX, top, lastX, top + 4, "tick");
  svg_.text(lastX, top + 14, "mono dim", last);
}

// Labels that do not fit are written below the bar, except for a program, which has too many.
void HeapPicture::drawArea(const Store &store, const StoreArea &area, const std::string &what,
                           bool isOfProgram) {
  const bool isCut = area.length * scale_ > kBarWidth + kCutWidth;
  svg_.text(kMargin, y_ + 12, "dim",
            fmt::format("{}, {} bytes{}", what, grouped(area.length),
                        isCut ? ", not drawn to its end" : ""));
  y_ += kLine;
  const std::vector<AreaPart> parts = partsOf(store, area);
  const std::string outside = drawParts(parts);
  if (!isCut) drawTicks(parts, area.length);
  y_ += kBarHeight + (isCut ? 4 : kTickRow);
  if (!outside.empty() && !isOfProgram) {
    svg_.text(kMargin, y_ + 14, "mono", fitted(outside, columnsIn(kBarWidth)));
    y_ += kTickRow;
  }
  y_ += kAreaGap;
}

void HeapPicture::drawStore(const Store &store, bool isOfProgram) {
  std::string text = fmt::format("{}: {}, areas of {} bytes", store.name, nameOf(store.type),
                                 grouped(store.areaLen));
  if (store.type == StoreType::Pool) {
    text += fmt::format(", cells of {} bytes", grouped(store.cellLen));
  }
  svg_.text(kMargin, y_ + 13, "label", text);
  y_ += kLine;
  if (!store.note.empty()) {
    svg_.text(kMargin, y_ + 12, "dim", store.note);
    y_ += kLine;
  }
  if (isOfProgram) scale_ = kBarWidth / std::max(longestArea(store, false), 1U);
  std::size_t number = 0;
  std::size_t drawn = 0;
  for (const StoreArea &area : store.areas) {
    if (!area.isLarge) ++number;
    if (isOfProgram && drawn == kMostAreas) continue;
    drawArea(store, area, area.isLarge ? "large block" : fmt::format("area {}", number),
             isOfProgram);
    ++drawn;
  }
  if (drawn == store.areas.size()) return;
  svg_.text(kMargin, y_ + 12, "dim",
            fmt::format("{} more areas and large blocks are not drawn",
                        grouped(store.areas.size() - drawn)));
  y_ += kLine + kAreaGap;
}

void HeapPicture::drawSnapshot(const Snapshot &snapshot) {
  const double width = kBarWidth + 30;
  if (!snapshot.caption.empty()) {
    svg_.text(kMargin, y_ + 14, "caption", fitted(snapshot.caption, columnsIn(width)));
    y_ += kLine + 6;
  }
  for (const Store &store : snapshot.stores) drawStore(store, snapshot.isOfProgram);
  svg_.line(kMargin, y_, kMargin + width, y_, "rule");
  y_ += kPanelGap;
}

// On the same line as the previous meaning if it fits.
void HeapPicture::drawMeaning(const std::string &className, const std::string &text) {
  const double width = 44 + 6.8 * static_cast<double>(columnsOf(text));
  if (legendX_ > kMargin && legendX_ + width > kMargin + kBarWidth) {
    legendX_ = kMargin;
    y_ += kLine;
  }
  svg_.rect(legendX_, y_, 16, 12, className);
  svg_.text(legendX_ + 22, y_ + 10, "dim", text);
  legendX_ += width;
}

void HeapPicture::drawLegend() {
  using What = AreaPart::What;
  constexpr std::pair<What, const char *> kLegend[] = {{What::Head, "used by the library"},
                                                       {What::Freed, "freed, not used again"},
                                                       {What::Zone, "red zone"},
                                                       {What::Unknown, "unknown"},
                                                       {What::Free, "free"},
                                                       {What::Rest, "too short for a cell"}};
  for (const auto &[what, text] : kLegend) {
    if (drawn_.contains(what)) drawMeaning(plainClassOf(what), text);
  }
  y_ += kLine;
  if (!colours_.meanings().empty()) {
    y_ += kLine - 6;
    svg_.text(kMargin, y_, "label", colours_.title());
    y_ += 8;
    legendX_ = kMargin;
    for (const auto &[className, text] : colours_.meanings()) {
      drawMeaning("part " + className, text);
    }
    y_ += kLine;
  }
  y_ += kMargin;
}

std::string HeapPicture::draw(const std::vector<Snapshot> &snapshots) {
  findScale(snapshots);
  for (const Snapshot &snapshot : snapshots) drawSnapshot(snapshot);
  drawLegend();
  return svg_.finish(kBarWidth + 2 * kMargin + 50, y_);
}

}  // namespace

std::string heapPicture(const std::string &name, const std::vector<Snapshot> &snapshots,
                        ColourBy colour) {
  return HeapPicture(name, snapshots, colour).draw(snapshots);
}

}  // namespace memtool
