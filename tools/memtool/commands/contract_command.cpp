// memtool contract: lists slots, host services and records for people, or as JSON for programs.
#include <memory>

#include "contract_report.hpp"
#include "memtool_commands.hpp"

namespace memtool {
namespace {

constexpr const char *kFooter =
    "Examples:\n"
    "  memtool contract                  slots, host services and records\n"
    "  memtool contract MEM_HeapOpen     one of them\n"
    "  memtool contract MEMThreadEnv     a record with its offsets\n"
    "  memtool contract --json           everything, with types, codes and constants\n"
    "\n"
    "The contract is that of the headers with which memtool was built; no library is loaded.";

struct ContractOptions {
  std::string name;
  bool asJson = false;
};

ExitCode runContract(Tool &tool, const ContractOptions &options) {
  if (options.asJson) {
    if (!options.name.empty()) throw UsageError("--json writes the whole contract, without NAME");
    tool.console.write(contractText());
  } else if (options.name.empty()) {
    printContract(tool.console);
  } else {
    printContractEntry(tool.console, options.name);
  }
  return kExitFine;
}

}  // namespace

void addContractCommand(CLI::App &app, Tool &tool) {
  const auto options = std::make_shared<ContractOptions>();
  CLI::App *const command = app.add_subcommand("contract", "Show slots, host services and records");
  command->add_option("NAME", options->name, "A slot, a host service or a record")->type_name("");
  command->add_flag("--json", options->asJson, "Write the contract as JSON");
  command->footer(kFooter);
  command->callback([&tool, options] {
    tool.command = [&tool, options] { return runContract(tool, *options); };
  });
}

}  // namespace memtool
