#include "tool_svg.hpp"

#include <fmt/format.h>

#include <cstdint>

#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr const char *kBaseStyles =
    "  text { font-family: Helvetica, Arial, sans-serif; font-size: 12px; fill: #222; }\n"
    "  .mono { font-family: 'DejaVu Sans Mono', Consolas, Menlo, monospace; font-size: 11px; }\n"
    "  .label { font-weight: bold; }\n"
    "  .dim { fill: #777; }\n"
    "  .ground { fill: #fff; }\n";

// U+FFFE and U+FFFF, which XML does not allow. (It does not allow control characters either.)
bool isOutsideXml(std::string_view rest) {
  return rest.starts_with("\xEF\xBF\xBE") || rest.starts_with("\xEF\xBF\xBF");
}

// REQUIRES: valid UTF-8.
std::string escaped(std::string_view utf8) {
  std::string xml;
  for (std::size_t i = 0; i < utf8.size(); ++i) {
    const char c = utf8[i];
    if (isOutsideXml(utf8.substr(i))) {
      xml += "\xEF\xBF\xBD";
      i += 2;
    } else if (c == '&') {
      xml += "&amp;";
    } else if (c == '<') {
      xml += "&lt;";
    } else if (c == '>') {
      xml += "&gt;";
    } else if (c == '"') {
      xml += "&quot;";
    } else {
      xml += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
    }
  }
  return xml;
}

bool isTrail(char byte) {
  return (static_cast<std::uint8_t>(byte) & 0xC0U) == 0x80U;
}

// The number of bytes of the first character. REQUIRES: valid UTF-8, not empty.
std::size_t characterBytes(std::string_view utf8) {
  std::size_t bytes = 1;
  while (bytes < utf8.size() && isTrail(utf8[bytes])) ++bytes;
  return bytes;
}

// An approximation: U+1100 to U+113F, U+3000 to U+DFFF, U+F900 to U+FF7F and all characters of 4
// bytes are wide.
std::size_t characterColumns(std::string_view character) {
  const auto lead = static_cast<std::uint8_t>(character[0]);
  const bool isWide = lead >= 0xF0 || (lead >= 0xE3 && lead <= 0xED) ||
                      (lead == 0xE1 && static_cast<std::uint8_t>(character[1]) == 0x84) ||
                      (lead == 0xEF && static_cast<std::uint8_t>(character[1]) >= 0xA4 &&
                       static_cast<std::uint8_t>(character[1]) <= 0xBD);
  return isWide ? 2 : 1;
}

std::string number(double value) {
  std::string text = fmt::format("{:.1f}", value);
  if (text.ends_with(".0")) text.resize(text.size() - 2);
  return text;
}

}  // namespace

std::size_t displayColumns(std::string_view utf8) {
  std::size_t columns = 0;
  while (!utf8.empty()) {
    const std::size_t bytes = characterBytes(utf8);
    columns += characterColumns(utf8.substr(0, bytes));
    utf8.remove_prefix(bytes);
  }
  return columns;
}

std::string fitted(std::string_view utf8, std::size_t columns) {
  if (displayColumns(utf8) <= columns) return std::string(utf8);
  std::string cut;
  std::size_t used = 1;  // of the ellipsis
  while (!utf8.empty()) {
    const std::size_t bytes = characterBytes(utf8);
    used += characterColumns(utf8.substr(0, bytes));
    if (used > columns) break;
    cut += utf8.substr(0, bytes);
    utf8.remove_prefix(bytes);
  }
  return cut + "…";
}

std::size_t columnsIn(double width) {
  return width <= 0 ? 0 : static_cast<std::size_t>(width / kCharWidth);
}

void Svg::rect(double x, double y, double width, double height, std::string_view className) {
  body_ += fmt::format("<rect x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\" class=\"{}\"/>\n",
                       number(x), number(y), number(width), number(height), className);
}

void Svg::text(double x, double y, std::string_view className, std::string_view text) {
  body_ += fmt::format("<text x=\"{}\" y=\"{}\" class=\"{}\">{}</text>\n", number(x), number(y),
                       className, escaped(text));
}

void Svg::line(double x1, double y1, double x2, double y2, std::string_view className) {
  path(fmt::format("M{} {}L{} {}", number(x1), number(y1), number(x2), number(y2)), className,
       false);
}

void Svg::path(std::string_view data, std::string_view className, bool hasArrow) {
  const std::string marker = hasArrow ? fmt::format(" marker-end=\"url(#{})\"", className) : "";
  body_ += fmt::format("<path d=\"{}\" class=\"{}\"{}/>\n", data, className, marker);
}

void Svg::defineArrow(std::string_view className, std::string_view colour) {
  definitions_ += fmt::format(
      "<marker id=\"{}\" viewBox=\"0 0 8 8\" refX=\"7\" refY=\"4\" markerWidth=\"7\" "
      "markerHeight=\"7\" orient=\"auto\"><path d=\"M0 0L8 4L0 8z\" fill=\"{}\"/></marker>\n",
      className, colour);
}

std::string Svg::finish(double width, double height) const {
  return fmt::format(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0}\" height=\"{1}\" "
      "viewBox=\"0 0 {0} {1}\" role=\"img\" "
      "xml:space=\"preserve\">\n"
      "<title>{2}</title>\n<style>\n{3}{4}</style>\n<defs>\n{5}</defs>\n"
      "<rect width=\"{0}\" height=\"{1}\" class=\"ground\"/>\n{6}</svg>\n",
      number(width), number(height), escaped(title_), kBaseStyles, styles_, definitions_, body_);
}

}  // namespace memtool
