#include "tool_table.hpp"

#include <algorithm>

#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr std::size_t kGap = 2;

}  // namespace

std::vector<std::size_t> Table::widths() const {
  std::vector<std::size_t> widths;
  for (const Column &column : columns_) widths.push_back(columnsOf(column.title));
  for (const std::vector<Cell> &row : rows_) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], columnsOf(row[i].text));
    }
  }
  return widths;
}

std::string Table::text(const Console &console, std::size_t indent) const {
  const std::vector<std::size_t> widths = this->widths();
  std::string text;
  // Blanks are written only before a cell, so that no line ends with blanks.
  const auto addLine = [&](const std::vector<Cell> &row) {
    std::size_t blanks = indent;
    for (std::size_t i = 0; i < row.size(); ++i) {
      const std::size_t missing = widths[i] - columnsOf(row[i].text);
      if (columns_[i].isRight) blanks += missing;
      if (!row[i].text.empty()) {
        text.append(blanks, ' ');
        text += console.paint(row[i].ink, row[i].text);
        blanks = 0;
      }
      if (!columns_[i].isRight) blanks += missing;
      blanks += kGap;
    }
    text += '\n';
  };
  std::vector<Cell> titles;
  for (const Column &column : columns_) titles.push_back({column.title, Ink::Heading});
  addLine(titles);
  for (const std::vector<Cell> &row : rows_) addLine(row);
  return text;
}

}  // namespace memtool
