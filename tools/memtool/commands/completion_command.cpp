// memtool completion: writes the completion script for bash. It is made from the parser's commands
// and options, so none can be forgotten.
#include <fmt/format.h>

#include <string>
#include <string_view>

#include "memtool_commands.hpp"

namespace memtool {
namespace {

constexpr std::string_view kScript =
    R"(# Completes memtool's commands, options and files in bash. Written by `memtool completion`.
_memtool() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} command= i
  for ((i = 1; i < COMP_CWORD; ++i)); do
    case ${COMP_WORDS[i]} in
      @COMMAND_CASE@) command=${COMP_WORDS[i]}; break ;;
    esac
  done
  local options= files= words= choices= value=
  case $command in
@CASES@  esac
  COMPREPLY=()
  if [[ $value == choices ]]; then
    COMPREPLY=($(compgen -W "$choices" -- "$word"))
  elif [[ $value == none ]]; then
    return
  elif [[ $value == "" && $word == -* ]]; then
    COMPREPLY=($(compgen -W "$options" -- "$word"))
  elif [[ $value == file || $files == yes ]]; then
    local IFS=$'\n'
    compopt -o filenames 2> /dev/null
    COMPREPLY=($(compgen -f -- "$word"))
  else
    COMPREPLY=($(compgen -W "$words" -- "$word"))
  fi
}
complete -F _memtool memtool
)";

bool takesValue(const CLI::Option &option) {
  return option.get_items_expected_max() > 0;
}

std::string namesOf(const CLI::Option &option, const char *between) {
  std::string names;
  const auto add = [&](const std::string &name) { names += (names.empty() ? "" : between) + name; };
  for (const std::string &name : option.get_snames()) add("-" + name);
  for (const std::string &name : option.get_lnames()) add("--" + name);
  return names;
}

// "4|8" is a choice, "N" a number; all other values are files.
std::string valueOf(const CLI::Option &option) {
  std::string type = option.get_type_name();
  type = type.substr(0, type.find(':'));  // without the text of a check
  if (type == "N") return "value=none";
  if (type.find('|') == std::string::npos) return "value=file";
  for (char &c : type) c = c == '|' ? ' ' : c;
  return fmt::format("value=choices choices='{}'", type);
}

// Adds the words of one command, or of the program itself with the name "". The program's options
// are also those of each command.
void addCase(std::string &cases, std::string_view name, const CLI::App &app,
             const CLI::App &program, std::string_view commands) {
  std::string options;
  std::string values;
  bool takesFiles = false;
  const auto add = [&](const CLI::App &from) {
    for (const CLI::Option *option : from.get_options()) {
      if (option->nonpositional()) {
        options += " " + namesOf(*option, " ");
        if (!takesValue(*option)) continue;
        values += fmt::format("        {}) {} ;;\n", namesOf(*option, "|"), valueOf(*option));
      } else {
        const std::string positional = option->get_name();
        takesFiles = takesFiles || positional == "FILE" || positional == "SCRIPT";
      }
    }
  };
  add(app);
  if (&app != &program) add(program);
  cases += fmt::format("    '{}')\n      options='{}' files={} words='{}'\n", name,
                       options.substr(options.empty() ? 0 : 1), takesFiles ? "yes" : "no",
                       &app == &program ? commands : "");
  cases += fmt::format("      case $before in\n{}      esac ;;\n", values);
}

void replace(std::string &text, std::string_view from, std::string_view to) {
  text.replace(text.find(from), from.size(), to);
}

std::string completionOf(const CLI::App &program) {
  std::string commands;
  std::string commandCase;
  std::string cases;
  for (const CLI::App *command : program.get_subcommands(nullptr)) {
    commands += (commands.empty() ? "" : " ") + command->get_name();
    commandCase += (commandCase.empty() ? "" : "|") + command->get_name();
    addCase(cases, command->get_name(), *command, program, "");
  }
  addCase(cases, "", program, program, commands);
  std::string script(kScript);
  replace(script, "@COMMAND_CASE@", commandCase);
  replace(script, "@CASES@", cases);
  return script;
}

}  // namespace

void addCompletionCommand(CLI::App &app, Tool &tool) {
  CLI::App *const command =
      app.add_subcommand("completion", "Write the completion script for bash");
  command->footer("Example:\n  source <(memtool completion)");
  command->callback([&app, &tool] {
    tool.command = [&app, &tool] {
      tool.console.write(completionOf(app));
      return kExitFine;
    };
  });
}

}  // namespace memtool
