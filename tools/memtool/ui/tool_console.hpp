// Where the program writes, and whether a person reads it.
#pragma once

#include <fmt/format.h>

#include <nlohmann/json_fwd.hpp>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

#include "tool_errors.hpp"

namespace memtool {

// What a piece of text is; each kind has its colour.
enum class Ink { Plain, Heading, Name, Place, Text, Dim, Good, Bad };

// One thread at a time.
class Console {
 public:
  struct Traits {
    bool hasColour = false;      // stdout shows colours
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

  // Failures are written as JSON from now on.
  void useJsonErrors() { hasJsonErrors_ = true; }
  bool hasJsonErrors() const { return hasJsonErrors_; }

  // `text` in its kind's colour where the terminal shows colours.
  std::string paint(Ink ink, std::string_view text) const;

 private:
  std::ostream &out_;
  std::ostream &err_;
  Traits traits_;
  bool hasJsonErrors_ = false;
};

// A failure: one line on stderr, whatever the text quotes. As JSON it is an object with the text,
// the exit code and `details`.
void complain(Console &console, ExitCode code, std::string_view text);
void complain(Console &console, ExitCode code, std::string_view text,
              const nlohmann::ordered_json &details);

}  // namespace memtool
