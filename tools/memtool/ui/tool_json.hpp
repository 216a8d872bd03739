// JSON that is written as it is made, so that a document of any length takes no memory.
#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "tool_console.hpp"

namespace memtool {

// Writes one document in the form of dump(2). Each begin needs its end, and the document needs a
// flush() at its end.
class JsonStream {
 public:
  explicit JsonStream(Console &console) : console_(console) {}

  void beginObject() { begin('{', '}'); }
  void beginArray() { begin('[', ']'); }
  void end();
  // Of the next value, in an object.
  void key(std::string_view utf8);

  // A value: as JSON text on one line, as text in valid UTF-8, or any that is small.
  void literal(std::string_view json);
  void text(std::string_view utf8);
  void value(const nlohmann::ordered_json &json);

  // A value that is text, in pieces of valid UTF-8.
  void beginText();
  void addText(std::string_view utf8);
  void endText();

  void flush();

 private:
  struct Open {
    char end;
    bool isEmpty;
  };

  void begin(char mark, char end);
  void separate();
  void breakLine();
  void write(std::string_view json);

  Console &console_;
  std::string buffer_;
  std::vector<Open> open_;
  bool hasKey_ = false;  // the next value is that of a key
};

}  // namespace memtool
