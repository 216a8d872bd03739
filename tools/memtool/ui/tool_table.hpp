// Formats tables of aligned columns.
#pragma once

#include <string>
#include <vector>

#include "tool_console.hpp"

namespace memtool {

struct Cell {
  std::string text;
  Ink ink = Ink::Plain;
};

struct Column {
  std::string title;
  bool isRight = false;  // aligned to the right, for numbers
};

class Table {
 public:
  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

  // A row may have fewer cells than the table has columns.
  void add(std::vector<Cell> row) { rows_.push_back(std::move(row)); }

  // Titles and rows, each on a line that begins with `indent` blanks and does not end with blanks.
  std::string text(const Console &console, std::size_t indent = 2) const;

 private:
  std::vector<std::size_t> widths() const;

  std::vector<Column> columns_;
  std::vector<std::vector<Cell>> rows_;
};

}  // namespace memtool
