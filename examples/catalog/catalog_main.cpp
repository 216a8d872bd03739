// A host that packs a package catalogue. It loads the library, binds it, builds linked records in a
// heap with the help of a cell pool, composes a part of its report in a concatenation buffer, packs
// the records into a chain of blocks, writes the chain to a file and the records as a port string
// to another, sinks the names, ends everything and reports the storage account. With --read it is a
// second process, which gets the structures from these files only. `catalog --help` lists the
// options.
#include <cstddef>
#include <exception>
#include <filesystem>
#include <iostream>
#include <string>
#include <system_error>
#include <vector>

#include "catalog_arguments.hpp"
#include "catalog_model.hpp"
#include "catalog_report.hpp"
#include "catalog_support.hpp"
#include "record_files.hpp"
#include "refhost.hpp"
#include "running_library.hpp"
#include "status_reader.hpp"

namespace catalog {
namespace {

constexpr const char *kDefaultOutput = "catalog.chain";  // in the program's folder

constexpr std::size_t kMostNeeded = 3;  // packages that the report names

// Sets the catalogue and the chain file if the user did not. They must be two files. The default of
// the chain file is not in a temporary folder: two users, or two builds, would overwrite each
// other's.
void complete(Arguments &arguments, const std::filesystem::path &programFolder) {
  std::error_code ignored;
  if (arguments.catalogue.empty()) arguments.catalogue = defaultCatalogue(programFolder);
  if (arguments.chainFile.empty()) arguments.chainFile = programFolder / kDefaultOutput;
  arguments.portFile = arguments.chainFile;
  arguments.portFile += ".port";
  if (!arguments.reads &&
      std::filesystem::equivalent(arguments.catalogue, arguments.chainFile, ignored)) {
    throw InputError("the chain would overwrite the catalogue " +
                     utf8FromPath(arguments.catalogue) + ": use another file for --output");
  }
}

constexpr mem::HeapSettings kRecordHeap = {.areaKb = 64,
                                           .subPool = 20};  // the host chooses the number

// The job itself, between start and stop of the library.
void packCatalogue(refhost::Host &host, const mem::Context &context, const Arguments &arguments,
                   StepClock &clock, Report &report) {
  std::vector<Package> packages;
  clock.run("read", [&] { packages = readCatalogue(arguments.catalogue); });

  mem::Heap heap;
  const PackageRecord *root = nullptr;
  clock.run("build", [&] {
    heap = need(mem::Heap::open(context, kRecordHeap));
    root = buildRecords(context, heap, packages);
  });
  report.records = countRecords(root);
  report.mostNeeded = neededLines(context, mostNeeded(root, kMostNeeded));

  mem::PackedChain chain;
  clock.run("pack", [&] {
    chain = need(mem::PackedChain::pack(context, kPackTable, *root, arguments.blockLength));
  });
  report.chain = chain.size();

  clock.run("write", [&] { writeChainFile(chain, arguments.chainFile); });
  clock.run("port",
            [&] { report.portCharacters = writePortFile(context, *root, arguments.portFile); });
  clock.run("sink", [&] { report.names = sinkNames(context, *host.anchor(), root); });
  need(heap.close());
}

// The same in a process that knows the structures only from the files.
void readChain(const mem::Context &context, const Arguments &arguments, StepClock &clock,
               Report &report) {
  std::vector<Package> packages;
  clock.run("read", [&] { packages = readCatalogue(arguments.catalogue); });

  mem::PackedChain chain;
  clock.run("load", [&] { chain = readChainFile(context, arguments.chainFile); });
  report.chain = chain.size();

  const PackageRecord *root = nullptr;
  clock.run("unpack", [&] { root = unpackRecords(chain, arguments.chainFile); });
  clock.run("check", [&] { checkRecords(root, packages); });
  report.records = countRecords(root);

  PortRecords port;
  clock.run("port", [&] { port = readPortFile(context, arguments.portFile); });
  report.portCharacters = port.characters;
  clock.run("check", [&] { checkRecords(port.root, packages); });
}

ExitCode run(Arguments arguments) {
  const std::filesystem::path libraryPath = refhost::Library::besideProgram();
  complete(arguments, libraryPath.parent_path());
  const refhost::Library library(libraryPath);
  refhost::Host host;
  StepClock clock(std::cerr);
  Report report;
  {
    const RunningLibrary running(host, library.bindEntry());
    arguments.reads ? readChain(running.context(), arguments, clock, report)
                    : packCatalogue(host, running.context(), arguments, clock, report);
  }
  report.catalogue = utf8FromPath(arguments.catalogue);
  report.chainFile = utf8FromPath(arguments.chainFile);
  report.blockLength = arguments.reads ? 0 : arguments.blockLength;
  report.steps = clock.steps();
  report.account = host.account();
  printReport(std::cout, report);
  if (!std::cout.flush()) throw std::runtime_error("the report could not be written");
  return host.report().empty() ? kExitSuccess : kExitFailure;  // report() writes its findings
}

ExitCode runWithArguments(const std::vector<std::string> &words) {
  try {
    const Arguments arguments = parseArguments(words);
    if (arguments.help.empty()) return run(arguments);
    std::cout << arguments.help;
    return kExitSuccess;
  } catch (const InputError &error) {
    std::cerr << "catalog: " << error.what() << '\n';
    return kExitBadInput;
  } catch (const std::exception &error) {
    std::cerr << "catalog: " << error.what() << '\n';
    return kExitFailure;
  }
}

}  // namespace
}  // namespace catalog

int main(int argc, char **argv) {
  return catalog::runWithArguments(catalog::programArguments(argc, argv));
}
