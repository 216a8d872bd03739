#include "heap_picture.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "tool_svg.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr double kMargin = 20;
constexpr double kBarWidth = 880;  // of the longest area
constexpr double kBarHeight = 34;
constexpr double kTickRow = 16;
constexpr double kLine = 20;
constexpr double kPanelGap = 22;
constexpr double kAreaGap = 10;
constexpr double kTextPad = 2.5;  // beside a label
constexpr std::size_t kEntryColours = 5;

constexpr const char *kStyles =
    "  .part { stroke: #777; stroke-width: 0.7; }\n"
    "  .head { fill: #c9ced6; } .free { fill: #fff; } .rest { fill: #ececec; }\n"
    "  .freed { fill: #f7d9d4; stroke-dasharray: 4 2; }\n"
    "  .entry0 { fill: #cfe2f5; } .entry1 { fill: #d7ecd0; } .entry2 { fill: #f5e6c4; }\n"
    "  .entry3 { fill: #e6d6ee; } .entry4 { fill: #cdebe8; }\n"
    "  .tick { stroke: #777; stroke-width: 0.7; }\n"
    "  .caption { font-size: 14px; font-weight: bold; }\n"
    "  .rule { stroke: #ccc; }\n";

class HeapPicture {
 public:
  explicit HeapPicture(const std::string &name) : svg_("Heaps and pools of " + name, kStyles) {}

  std::string draw(const std::vector<Snapshot> &snapshots);

 private:
  void findScale(const std::vector<Snapshot> &snapshots);
  void drawSnapshot(const Snapshot &snapshot);
  void drawStore(const Store &store);
  void drawArea(const Store &store, const StoreArea &area, std::size_t number);
  bool drawPart(const AreaPart &part, std::size_t number);
  void drawTicks(const std::vector<AreaPart> &parts, std::uint32_t length);
  void drawLegend();

  double xOf(std::uint32_t offset) const { return kMargin + offset * scale_; }

  Svg svg_;
  double scale_ = 1;  // units of a byte
  double y_ = kMargin;
};

std::string classOf(const AreaPart &part, std::size_t number) {
  switch (part.what) {
    case AreaPart::What::Head:
      return "part head";
    case AreaPart::What::Entry:
      return fmt::format("part entry{}", number % kEntryColours);
    case AreaPart::What::Freed:
      return "part freed";
    case AreaPart::What::Free:
      return "part free";
    case AreaPart::What::Rest:
      break;
  }
  return "part rest";
}

void HeapPicture::findScale(const std::vector<Snapshot> &snapshots) {
  std::uint32_t longest = 1;
  for (const Snapshot &snapshot : snapshots) {
    for (const Store &store : snapshot.stores) {
      for (const StoreArea &area : store.areas) longest = std::max(longest, area.length);
    }
  }
  scale_ = kBarWidth / longest;
}

// The label stands in its part, with what else there is to say where it fits. False when not even
// the label does.
bool HeapPicture::drawPart(const AreaPart &part, std::size_t number) {
  const double width = part.length * scale_;
  svg_.rect(xOf(part.offset), y_, width, kBarHeight, classOf(part, number));
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

// Offsets below the bar, as many as have room.
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

void HeapPicture::drawArea(const Store &store, const StoreArea &area, std::size_t number) {
  const std::string what = area.isLarge ? "large block" : fmt::format("area {}", number);
  svg_.text(kMargin, y_ + 12, "dim", fmt::format("{}, {} bytes", what, grouped(area.length)));
  y_ += kLine;
  const std::vector<AreaPart> parts = partsOf(store, area);
  std::string outside;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (drawPart(parts[i], i) || parts[i].what == AreaPart::What::Head) continue;
    outside +=
        fmt::format("{}{}: {}", outside.empty() ? "at " : ", ", parts[i].offset, parts[i].text);
  }
  drawTicks(parts, area.length);
  y_ += kBarHeight + kTickRow;
  if (!outside.empty()) {
    svg_.text(kMargin, y_ + 14, "mono", fitted(outside, columnsIn(kBarWidth)));
    y_ += kTickRow;
  }
  y_ += kAreaGap;
}

void HeapPicture::drawStore(const Store &store) {
  std::string text = fmt::format("{}: {}, areas of {} bytes", store.name, nameOf(store.type),
                                 grouped(store.areaLen));
  if (store.type == StoreType::Pool) {
    text += fmt::format(", cells of {} bytes", grouped(store.cellLen));
  }
  svg_.text(kMargin, y_ + 13, "label", text);
  y_ += kLine;
  std::size_t number = 0;
  for (const StoreArea &area : store.areas) {
    if (!area.isLarge) ++number;
    drawArea(store, area, number);
  }
}

void HeapPicture::drawSnapshot(const Snapshot &snapshot) {
  const double width = kBarWidth + 30;
  if (!snapshot.caption.empty()) {
    svg_.text(kMargin, y_ + 14, "caption", fitted(snapshot.caption, columnsIn(width)));
    y_ += kLine + 6;
  }
  for (const Store &store : snapshot.stores) drawStore(store);
  svg_.line(kMargin, y_, kMargin + width, y_, "rule");
  y_ += kPanelGap;
}

void HeapPicture::drawLegend() {
  constexpr std::pair<const char *, const char *> kLegend[] = {
      {"part head", "what the library keeps"},
      {"part entry0", "an entry or a cell (bytes asked for)"},
      {"part freed", "freed, not used again"},
      {"part free", "free"},
      {"part rest", "too short for a cell"}};
  double x = kMargin;
  for (const auto &[className, text] : kLegend) {
    svg_.rect(x, y_, 16, 12, className);
    svg_.text(x + 22, y_ + 10, "dim", text);
    x += 44 + 6.2 * static_cast<double>(columnsOf(text));
  }
  y_ += kLine + kMargin;
}

std::string HeapPicture::draw(const std::vector<Snapshot> &snapshots) {
  findScale(snapshots);
  for (const Snapshot &snapshot : snapshots) drawSnapshot(snapshot);
  drawLegend();
  return svg_.finish(kBarWidth + 2 * kMargin + 50, y_);
}

}  // namespace

std::string heapPicture(const std::string &name, const std::vector<Snapshot> &snapshots) {
  return HeapPicture(name).draw(snapshots);
}

}  // namespace memtool
