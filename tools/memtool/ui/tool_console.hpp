// The program's output: its streams, and whether they are terminals.
#pragma once

#include <fmt/format.h>

#include <nlohmann/json_fwd.hpp>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

#include "tool_errors.hpp"

namespace memtool {

// The kind of a piece of text; each kind has its colour.
enum class Ink { Plain, Heading, Name, Place, Text, Dim, Good, Bad };

// For one thread at a time.
class Console {
 public:
  struct Traits {
    bool hasColour = false;      // stdout is a terminal with colours
    bool showsProgress = false;  // stderr is a terminal
    int width = 80;              // columns of that terminal
  };

  // The streams must outlive the console.
  Console(std::ostream &out, std::ostream &err, Traits traits)
      : out_(out), err_(err), traits_(traits) {}

  // The console of this process: its streams, its terminal, and NO_COLOR.
  static Console ofProcess();

  template <class... Args>
  void print(fmt::format_string<Args...> format, Args &&...args) {
    out_ << fmt::format(format, std::forward<Args>(args)...);
  }
  void write(std::string_view text) { out_ << text; }
  std::ostream &out() { return out_; }
  std::ostream &err() { return err_; }
  const Traits &traits() const { return traits_; }

  // From now on failures are written as JSON.
  void useJsonErrors() { hasJsonErrors_ = true; }
  bool hasJsonErrors() const { return hasJsonErrors_; }

  // `text` in its kind's colour if stdout shows colours.
  std::string paint(Ink ink, std::string_view text) const;

 private:
  std::ostream &out_;
  std::ostream &err_;
  Traits traits_;
  bool hasJsonErrors_ = false;
};

// Writes a failure as one line on stderr, whatever the text contains. As JSON it is an object with
// the text, the exit code and `details`.
void complain(Console &console, ExitCode code, std::string_view text);
void complain(Console &console, ExitCode code, std::string_view text,
              const nlohmann::ordered_json &details);

}  // namespace memtool
