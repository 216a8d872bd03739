// memtool: shows packed chains, port strings and heaps, and explains error codes. `memtool --help`
// lists the commands, docs/memtool.md describes them.
#include "memtool_run.hpp"
#include "tool_platform.hpp"

int main(int argc, char **argv) {
  memtool::Console console = memtool::Console::ofProcess();
  return memtool::runMemtool(memtool::platform::programArguments(argc, argv), console);
}
