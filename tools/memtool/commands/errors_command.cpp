// memtool errors: the message table, as the library registers it with its host.
#include <algorithm>
#include <cctype>
#include <charconv>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "memtool_commands.hpp"
#include "tool_library.hpp"
#include "tool_table.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr const char *kFooter =
    "Examples:\n"
    "  memtool errors                   the whole table\n"
    "  memtool errors 4072              one code\n"
    "  memtool errors MEMERR_PACKCYCL   the same by its name\n"
    "  memtool errors heap              every row whose name holds \"heap\"";

struct ErrorsOptions {
  std::string wanted;
  bool asJson = false;
};

struct Row {
  std::uint32_t code;
  std::string name;
  std::string message;
};

std::string inCapitals(std::string text) {
  const auto capital = [](unsigned char c) { return static_cast<char>(std::toupper(c)); };
  std::transform(text.begin(), text.end(), text.begin(), capital);
  return text;
}

// A number is a code; anything else is a part of the name, in capitals or not.
bool isWanted(const Row &row, const std::string &wanted) {
  std::uint32_t code = 0;
  const char *const end = wanted.data() + wanted.size();
  const auto [stop, error] = std::from_chars(wanted.data(), end, code);
  if (error == std::errc() && stop == end) return row.code == code;
  return row.name.find(inCapitals(wanted)) != std::string::npos;
}

std::vector<Row> wantedRows(refhost::Host &host, const std::string &wanted) {
  std::vector<Row> rows;
  for (const MEMMessageRow *row = host.messageTable(); row->Code != 0; ++row) {
    Row found{row->Code, row->Name, row->Message};
    if (isWanted(found, wanted)) rows.push_back(std::move(found));
  }
  return rows;
}

void printTable(Console &console, const std::vector<Row> &rows) {
  Table table({{"code", true}, {"name"}, {"message"}});
  for (const Row &row : rows) {
    table.add({{std::to_string(row.code), Ink::Place}, {row.name, Ink::Name}, {row.message}});
  }
  console.write(table.text(console, 0));
}

void printJson(Console &console, const std::vector<Row> &rows) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const Row &row : rows) {
    list.push_back({{"code", row.code}, {"name", row.name}, {"message", row.message}});
  }
  console.print("{}\n", list.dump(2));
}

ExitCode runErrors(Tool &tool, const ErrorsOptions &options) {
  RunningLibrary library(pathFromUtf8(tool.library));
  const std::vector<Row> rows = wantedRows(library.host(), options.wanted);
  if (rows.empty()) {
    throw ToolError("no message has the code or name " + inQuotes(options.wanted) +
                    "; `memtool errors` shows them all");
  }
  options.asJson ? printJson(tool.console, rows) : printTable(tool.console, rows);
  return kExitFine;
}

}  // namespace

void addErrorsCommand(CLI::App &app, Tool &tool) {
  const auto options = std::make_shared<ErrorsOptions>();
  CLI::App *const command = app.add_subcommand("errors", "Show the library's error codes");
  command->add_option("WANTED", options->wanted, "A code, a name or a part of one")
      ->type_name("CODE|NAME");
  command->add_flag("--json", options->asJson, "Write JSON instead of a table");
  command->footer(kFooter);
  command->callback(
      [&tool, options] { tool.command = [&tool, options] { return runErrors(tool, *options); }; });
}

}  // namespace memtool
