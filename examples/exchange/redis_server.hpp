// A Redis server for one run: on a socket in a folder of its own, reachable by nobody else.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

#include "child_process.hpp"
#include "redis_url.hpp"

namespace exchange {

class RedisServer {
 public:
  // Starts one, in a new folder within `parent`. What it stores is written to a file, so it
  // survives its end. Throws catalog::InputError where there is no redis-server.
  explicit RedisServer(const std::filesystem::path &parent);
  ~RedisServer();
  RedisServer(const RedisServer &) = delete;
  RedisServer &operator=(const RedisServer &) = delete;

  // Valid in processes that are forked from this one.
  RedisAddress address() const;
  const std::filesystem::path &folder() const { return folder_; }

  // Nanoseconds of processor time, of all of its threads.
  std::uint64_t processorTime() const;

  // Ends it: SIGTERM in order, SIGKILL with no time to tidy up. start() goes on with what it has
  // written.
  void stop(int signal);
  void start();

 private:
  std::filesystem::path folder_;
  int folderDescriptor_ = -1;
  std::optional<ChildProcess> process_;
};

}  // namespace exchange
