// What holds the streams of a run, as the coordinator sees it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "exchange_arguments.hpp"
#include "transport.hpp"

namespace exchange {

class Engine {
 public:
  Engine() = default;
  virtual ~Engine() = default;
  Engine(const Engine &) = delete;
  Engine &operator=(const Engine &) = delete;

  virtual std::string description() const = 0;

  // The coordinator's own way to the streams.
  virtual Transport &transport() = 0;

  // The way of a process that is forked next, to be made there. Drop the maker here once it is.
  virtual TransportMaker connect(const std::string &consumer) = 0;

  // Kills what holds the streams and starts it again. Throws InputError where that cannot be done.
  virtual void restart() = 0;

  // Nanoseconds of processor time that it has used; 0 where that is not known.
  virtual std::uint64_t engineTime() const = 0;
};

// Pipes, a server of one's own, or the one that was named. `folder` is for a server's files. Throws
// InputError or TransportError when there is none.
std::unique_ptr<Engine> makeEngine(const Arguments &arguments, const std::string &folder);

// This process's way to the streams of a run in the Redis server that was named.
std::unique_ptr<Transport> connectToRedis(const Arguments &arguments, const std::string &consumer);

}  // namespace exchange
