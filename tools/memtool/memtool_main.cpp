// memtool: looks into packed chains and port strings, shows heaps at work and the message table.
// `memtool --help` tells the commands, docs/memtool.md shows them.
#include "memtool_run.hpp"
#include "tool_platform.hpp"

int main(int argc, char **argv) {
  memtool::Console console = memtool::Console::ofProcess();
  return memtool::runMemtool(memtool::platform::programArguments(argc, argv), console);
}
