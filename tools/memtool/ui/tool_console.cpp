#include "tool_console.hpp"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <nlohmann/json.hpp>

#include "tool_platform.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

const char *codeOf(Ink ink) {
  switch (ink) {
    case Ink::Heading:
      return "1";
    case Ink::Name:
      return "36";
    case Ink::Place:
      return "33";
    case Ink::Text:
      return "32";
    case Ink::Dim:
      return "2";
    case Ink::Good:
      return "1;32";
    case Ink::Bad:
      return "1;31";
    case Ink::Plain:
      break;
  }
  return nullptr;
}

std::string_view environment(const char *name) {
  const char *const value = std::getenv(name);
  return value == nullptr ? std::string_view() : std::string_view(value);
}

}  // namespace

Console Console::ofProcess() {
  using platform::Stream;
  platform::prepareTerminal();
  Traits traits;
  traits.hasColour = platform::isTerminal(Stream::Out) && environment("NO_COLOR").empty() &&
                     environment("TERM") != "dumb";
  traits.showsProgress = platform::isTerminal(Stream::Err);
  traits.width = platform::terminalWidth();
  return Console(std::cout, std::cerr, traits);
}

std::string Console::paint(Ink ink, std::string_view text) const {
  const char *const code = codeOf(ink);
  if (!traits_.hasColour || code == nullptr || text.empty()) return std::string(text);
  return fmt::format("\x1b[{}m{}\x1b[0m", code, text);
}

void complain(Console &console, ExitCode code, std::string_view text) {
  complain(console, code, text, nlohmann::ordered_json());
}

void complain(Console &console, ExitCode code, std::string_view text,
              const nlohmann::ordered_json &details) {
  if (console.hasJsonErrors()) {
    nlohmann::ordered_json json{{"error", validUtf8(text)}, {"exitCode", static_cast<int>(code)}};
    if (details.is_object()) json.update(details);
    console.err() << json.dump() << std::endl;
    return;
  }
  std::string line(text);
  std::replace_if(
      line.begin(), line.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
  console.err() << "memtool: " << line << std::endl;
}

}  // namespace memtool
