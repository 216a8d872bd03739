#include "error_report.hpp"

#include <nlohmann/json.hpp>

#include "tool_table.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr std::size_t kWidth = 100;
constexpr std::size_t kIndent = 14;  // of texts after their titles

// The words in lines of at most kWidth columns; all lines except the first are indented.
std::string wrapped(std::string_view text) {
  std::string lines;
  std::size_t column = kIndent;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(' '), text.size());
    const std::string_view word = text.substr(0, end);
    const bool isFirst = column == kIndent;
    if (!isFirst && column + 1 + columnsOf(word) > kWidth) {
      lines += "\n" + std::string(kIndent, ' ');
      column = kIndent;
    } else if (!isFirst) {
      lines += ' ';
      ++column;
    }
    lines += word;
    column += columnsOf(word);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

void printPart(Console &console, std::string_view title, std::string_view text) {
  if (text.empty()) return;
  const std::string blanks(kIndent - 2 - title.size(), ' ');
  console.print("  {}{}{}\n", console.paint(Ink::Dim, title), blanks, wrapped(plainText(text)));
}

std::string seenSentence(Seen seen) {
  const SeenText text = seenText(seen);
  if (seen == Seen::Never) return std::string(text.record);
  return fmt::format("the result is {}; {}", text.result, text.record);
}

void printCase(Console &console, const ErrorCase &known) {
  const std::string text = known.text.empty() ? "no text" : fmt::format("\"{}\"", known.text);
  console.print("\n{}\n", console.paint(Ink::Text, text));
  printPart(console, "from", known.services);
  printPart(console, "passed on", known.passedOnBy);
  printPart(console, "seen", seenSentence(known.seen));
  printPart(console, "cause", known.cause);
  printPart(console, "what to do", known.remedy);
}

nlohmann::ordered_json caseJson(const ErrorCase &known) {
  return {{"text", known.text},
          {"from", namesIn(known.services)},
          {"passedOnBy", namesIn(known.passedOnBy)},
          {"seen", seenText(known.seen).label},
          {"cause", plainText(known.cause)},
          {"remedy", plainText(known.remedy)}};
}

}  // namespace

void printErrorTable(Console &console, const ErrorList &codes) {
  Table table({{"code", true}, {"hex", true}, {"name"}, {"message"}});
  for (const ErrorCode *code : codes) {
    table.add({{std::to_string(code->code), Ink::Place},
               {hexCode(code->code), Ink::Dim},
               {std::string(code->name), Ink::Name},
               {std::string(code->message)}});
  }
  console.write(table.text(console, 0));
}

void printError(Console &console, const ErrorCode &code) {
  console.print("{} {} {}\n", console.paint(Ink::Place, std::to_string(code.code)),
                console.paint(Ink::Dim, hexCode(code.code)), console.paint(Ink::Name, code.name));
  for (const std::string_view text : {code.message, code.note}) {
    if (!text.empty()) console.print("{}\n", text);
  }
  for (const ErrorCase &known : code.cases) printCase(console, known);
}

nlohmann::ordered_json errorJson(const ErrorList &codes) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const ErrorCode *code : codes) {
    nlohmann::ordered_json cases = nlohmann::ordered_json::array();
    for (const ErrorCase &known : code->cases) cases.push_back(caseJson(known));
    list.push_back({{"code", code->code},
                    {"hex", hexCode(code->code)},
                    {"name", code->name},
                    {"message", code->message},
                    {"note", code->note},
                    {"cases", cases}});
  }
  return list;
}

}  // namespace memtool
