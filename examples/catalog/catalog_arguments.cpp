#include "catalog_arguments.hpp"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "catalog_support.hpp"

namespace catalog {
namespace {

constexpr const char *kPurpose =
    "Reads a package catalogue in the form of dpkg's status file, builds linked structures from\n"
    "it in a heap of QJ7MEM00, packs them into a chain of blocks and writes the chain to a file.\n"
    "It also writes the structures as a port string to a second file, FILE.port.\n"
    "\n"
    "With --read it reads the two files of an earlier run, which may be from another platform,\n"
    "makes structures from them and compares these with the catalogue.\n";

constexpr const char *kExitCodes =
    "Exit code: 0 success, 1 a service failed, storage was not returned or the chain differs from\n"
    "the catalogue, 2 invalid input.\n";

// Stores the name of a file.
CLI::callback_t into(std::filesystem::path &path) {
  return [&path](const CLI::results_t &words) {
    path = pathFromUtf8(words.back());
    return !path.empty();
  };
}

void describe(CLI::App &app, Arguments &arguments) {
  app.name("catalog");
  app.footer(kExitCodes);
  app.allow_windows_style_options(false);  // /name is a path on every platform
  app.set_help_flag("--help", "show this text");
  app.add_option("CATALOGUE", into(arguments.catalogue),
                 "the catalogue [/var/lib/dpkg/status, or the sample in the program's folder]");
  CLI::Option *const output =
      app.add_option("--output", into(arguments.chainFile),
                     "write the chain to FILE [catalog.chain in the program's folder]")
          ->type_name("FILE");
  app.add_flag("--read", arguments.reads,
               "read the chain file of an earlier run in the program's folder");
  app.add_option("--read-from", into(arguments.chainFile), "read the chain file FILE")
      ->type_name("FILE")
      ->excludes(output);
  app.add_option("--block-length", arguments.blockLength, "length of the chain's blocks in bytes")
      ->type_name("N")
      ->check(CLI::Range(std::int32_t{1}, INT32_MAX))
      ->capture_default_str();
}

}  // namespace

Arguments parseArguments(std::vector<std::string> words) {
  Arguments arguments;
  CLI::App app(kPurpose);
  describe(app, arguments);
  std::reverse(words.begin(), words.end());  // the order that the parser expects
  try {
    app.parse(std::move(words));
  } catch (const CLI::CallForHelp &) {
    arguments.help = app.help();
  } catch (const CLI::ParseError &error) {
    throw InputError(std::string(error.what()) + " (try --help)");
  }
  if (app.count("--read-from") != 0) arguments.reads = true;
  return arguments;
}

}  // namespace catalog
