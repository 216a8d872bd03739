// Makes SVG pictures: shapes with classes of one style sheet, on a white ground.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace memtool {

// Width of a character in texts of class "mono", in the picture's units.
inline constexpr double kCharWidth = 6.7;

// The columns of valid UTF-8 in a font with fixed widths. East Asian characters and emoji take two.
std::size_t displayColumns(std::string_view utf8);

// The text, cut to `columns` with an ellipsis if it is longer.
std::string fitted(std::string_view utf8, std::size_t columns);

// How many characters of class "mono" fit.
std::size_t columnsIn(double width);

class Svg {
 public:
  // `styles` are CSS rules for the classes; "mono", "label" and "dim" are predefined.
  Svg(std::string title, std::string styles)
      : title_(std::move(title)), styles_(std::move(styles)) {}

  void rect(double x, double y, double width, double height, std::string_view className);
  // `y` is the base line.
  void text(double x, double y, std::string_view className, std::string_view text);
  void line(double x1, double y1, double x2, double y2, std::string_view className);
  // Draws path data, with the class's arrow head if `hasArrow`.
  void path(std::string_view data, std::string_view className, bool hasArrow);
  // Defines the arrow head of a class.
  void defineArrow(std::string_view className, std::string_view colour);

  std::string finish(double width, double height) const;

 private:
  std::string title_;
  std::string styles_;
  std::string definitions_;
  std::string body_;
};

}  // namespace memtool
