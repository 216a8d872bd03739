// The arguments of the command line.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "transport.hpp"
#include "trouble.hpp"

namespace exchange {

struct Arguments {
  std::string help;                 // with --help: the text to show
  std::filesystem::path catalogue;  // empty: the machine's own, else the sample
  std::uint32_t packagesPerJob = 50;
  std::uint32_t times = 1;  // how often the catalogue is packed
  int workers = 2;          // processes that the coordinator starts
  bool usesRedis = false;
  std::string redisUrl;   // empty: a private server
  std::string name;       // of the run's streams
  bool isWorker = false;  // this process is a worker of a run that was started elsewhere
  bool figures = false;   // measure, instead of one run
  Trouble trouble = Trouble::none;
  TransportSettings transport;
};

// Throws InputError for an unknown option, a missing or invalid value, or options that exclude each
// other.
Arguments parseArguments(std::vector<std::string> words);

}  // namespace exchange
