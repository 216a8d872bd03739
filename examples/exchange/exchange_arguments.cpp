#include "exchange_arguments.hpp"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <map>

#include "catalog_support.hpp"

namespace exchange {
namespace {

using catalog::InputError;

constexpr const char *kPurpose =
    "Packs a package catalogue in several processes. A coordinator publishes pieces of the\n"
    "catalogue as jobs. Workers build records from them, pack these into chains and publish the\n"
    "chains. A collector unpacks the chains, compares every field with the catalogue and merges\n"
    "them.\n"
    "\n"
    "The coordinator keeps the messages and sends them through pipes, or a Redis server keeps\n"
    "them (--redis).\n";

constexpr const char *kExitCodes =
    "Exit code: 0 success, 1 a result is missing or wrong, a process failed or storage was not\n"
    "returned, 2 invalid input.\n";

const std::map<std::string, Trouble> kTroubles = {{"none", Trouble::none},
                                                  {"killed", Trouble::killed},
                                                  {"killed-late", Trouble::killedLate},
                                                  {"doubled", Trouble::doubled},
                                                  {"broken", Trouble::broken},
                                                  {"restart", Trouble::restart}};

void describeWork(CLI::App &app, Arguments &arguments) {
  app.add_option_function<std::string>(
      "CATALOGUE",
      [&](const std::string &path) { arguments.catalogue = catalog::pathFromUtf8(path); },
      "the catalogue [/var/lib/dpkg/status, or the sample in the program's folder]");
  app.add_option("--workers", arguments.workers,
                 "number of workers; 0: start them yourself, with --worker")
      ->type_name("N")
      ->check(CLI::Range(0, 256))
      ->capture_default_str();
  app.add_option("--packages", arguments.packagesPerJob, "packages in each job")
      ->type_name("N")
      ->check(CLI::Range(1, 1000000))
      ->capture_default_str();
  app.add_option("--times", arguments.times, "pack the catalogue N times")
      ->type_name("N")
      ->check(CLI::Range(1, 1000000))
      ->capture_default_str();
  app.add_flag("--figures", arguments.figures,
               "measure 1, 2 and 4 workers with pipes and a private Redis server");
  app.add_option("--trouble", arguments.trouble,
                 "make something fail: the first worker is killed before or after it publishes "
                 "(killed, killed-late), publishes twice (doubled) or damages its chains (broken); "
                 "the private server is killed and started again (restart)")
      ->type_name("WHAT")
      ->transform(CLI::CheckedTransformer(kTroubles).description(""));
}

void describeTransport(CLI::App &app, Arguments &arguments) {
  app.add_option(
         "--redis", arguments.redisUrl,
         "use a Redis server: a private one, or that of the URL "
         "(redis://[[USER]:PASSWORD@]HOST[:PORT][/DATABASE] or unix://[[USER]:PASSWORD@]/PATH). "
         "The password may be in the environment variable REDISCLI_AUTH instead")
      ->type_name("[URL]")
      ->expected(0, 1);
  app.add_option("--name", arguments.name, "first part of the names of the run's streams")
      ->type_name("NAME");
  app.add_flag("--worker", arguments.isWorker,
               "work for a run that was started elsewhere; needs --redis URL and --name");
  const auto milliseconds = [&app](const char *option, Milliseconds &time, const char *text) {
    app.add_option_function<std::int64_t>(
           option, [&time](std::int64_t value) { time = Milliseconds(value); }, text)
        ->type_name("MS")
        ->check(CLI::Range(1, 3600000))
        ->default_str(std::to_string(time.count()));
  };
  milliseconds("--claim-after", arguments.transport.claimAfter,
               "give a job to another worker after this time; must be longer than any job takes");
  milliseconds("--patience", arguments.transport.patience,
               "give up when nothing has arrived for this time");
}

// A name that no other run has.
std::string ownName() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return "exchange-" + std::to_string(getpid()) + '-' +
         std::to_string(std::chrono::duration_cast<std::chrono::seconds>(now).count());
}

void complete(Arguments &arguments) {
  if (arguments.isWorker && (arguments.redisUrl.empty() || arguments.name.empty())) {
    throw InputError("--worker needs the coordinator's --redis URL and --name NAME");
  }
  if (arguments.trouble == Trouble::restart &&
      (!arguments.usesRedis || !arguments.redisUrl.empty())) {
    throw InputError("--trouble restart needs a private server: --redis without a URL");
  }
  if (arguments.name.empty()) arguments.name = ownName();
}

}  // namespace

Arguments parseArguments(std::vector<std::string> words) {
  Arguments arguments;
  CLI::App app(kPurpose);
  app.name("exchange");
  app.footer(kExitCodes);
  app.set_help_flag("--help", "show this text");
  describeWork(app, arguments);
  describeTransport(app, arguments);
  std::reverse(words.begin(), words.end());  // the order that the parser expects
  try {
    app.parse(std::move(words));
  } catch (const CLI::CallForHelp &) {
    arguments.help = app.help();
    return arguments;
  } catch (const CLI::ParseError &error) {
    throw InputError(std::string(error.what()) + " (try --help)");
  }
  arguments.usesRedis = app.count("--redis") != 0;
  complete(arguments);
  return arguments;
}

}  // namespace exchange
