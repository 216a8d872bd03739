#include "tool_json.hpp"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace memtool {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kBuffered = 1 << 16;
constexpr std::size_t kPiece = 1 << 14;  // of text that is escaped at once

bool needsEscape(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == '"' || c == '\\';
}

// The longest piece that ends with a character.
std::string_view pieceOf(std::string_view utf8) {
  if (utf8.size() <= kPiece) return utf8;
  std::size_t end = kPiece;
  while ((static_cast<unsigned char>(utf8[end]) & 0xC0U) == 0x80U) --end;
  return utf8.substr(0, end);
}

}  // namespace

void JsonStream::end() {
  const Open closed = open_.back();
  open_.pop_back();
  if (!closed.isEmpty) breakLine();
  buffer_ += closed.end;
}

void JsonStream::key(std::string_view utf8) {
  text(utf8);
  buffer_ += ": ";
  hasKey_ = true;
}

void JsonStream::literal(std::string_view json) {
  separate();
  write(json);
}

void JsonStream::text(std::string_view utf8) {
  beginText();
  addText(utf8);
  endText();
}

void JsonStream::value(const Json &json) {
  separate();
  for (const char c : json.dump(2)) {
    if (c == '\n') {
      breakLine();
    } else {
      buffer_ += c;
    }
  }
}

void JsonStream::beginText() {
  separate();
  buffer_ += '"';
}

void JsonStream::addText(std::string_view utf8) {
  while (!utf8.empty()) {
    const std::string_view piece = pieceOf(utf8);
    if (std::any_of(piece.begin(), piece.end(), needsEscape)) {
      const std::string quoted = Json(piece).dump();
      write(std::string_view(quoted).substr(1, quoted.size() - 2));
    } else {
      write(piece);
    }
    utf8.remove_prefix(piece.size());
  }
}

void JsonStream::endText() {
  buffer_ += '"';
}

void JsonStream::flush() {
  console_.write(buffer_);
  buffer_.clear();
}

void JsonStream::begin(char mark, char end) {
  separate();
  buffer_ += mark;
  open_.push_back({end, true});
}

// The comma and the line break before a key or an element.
void JsonStream::separate() {
  if (hasKey_ || open_.empty()) {
    hasKey_ = false;
    return;
  }
  if (!open_.back().isEmpty) buffer_ += ',';
  open_.back().isEmpty = false;
  breakLine();
}

void JsonStream::breakLine() {
  buffer_ += '\n';
  buffer_.append(2 * open_.size(), ' ');
}

void JsonStream::write(std::string_view json) {
  buffer_ += json;
  if (buffer_.size() >= kBuffered) flush();
}

}  // namespace memtool
