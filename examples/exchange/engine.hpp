// What keeps the streams of a run: the coordinator's interface to it.
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

  // The coordinator's own transport.
  virtual Transport &transport() = 0;

  // Makes the transport of the process that is forked next, in that process. Destroy the maker in
  // this process after the fork.
  virtual TransportMaker connect(const std::string &consumer) = 0;

  // Kills the server and starts it again. Throws InputError if that is not possible.
  virtual void restart() = 0;

  // Nanoseconds of processor time that it has used; 0 if unknown.
  virtual std::uint64_t engineTime() const = 0;
};

// Pipes, a private server, or the server of the URL. A private server has its files in `folder`.
// Throws InputError or TransportError if it is not available.
std::unique_ptr<Engine> makeEngine(const Arguments &arguments, const std::string &folder);

// This process's transport to the streams of a run in the Redis server of the URL.
std::unique_ptr<Transport> connectToRedis(const Arguments &arguments, const std::string &consumer);

}  // namespace exchange
