// A Redis server for one run: on a socket in a folder of its own, reachable by nobody else.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

#include "child_process.hpp"
#include "redis_url.hpp"

namespace exchange {

// A new folder that nobody else may enter. It goes with all that is in it.
class PrivateFolder {
 public:
  // Throws catalog::InputError when there can be none in `parent`.
  explicit PrivateFolder(const std::filesystem::path &parent);
  ~PrivateFolder();
  PrivateFolder(const PrivateFolder &) = delete;
  PrivateFolder &operator=(const PrivateFolder &) = delete;

  const std::filesystem::path &path() const { return path_; }
  int descriptor() const { return descriptor_; }

 private:
  std::filesystem::path path_;
  int descriptor_ = -1;
};

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

  // Nanoseconds of processor time, of all of its threads.
  std::uint64_t processorTime() const;

  // Ends it: SIGTERM in order, SIGKILL with no time to tidy up. start() goes on with what it has
  // written.
  void stop(int signal);
  void start();

 private:
  PrivateFolder folder_;
  std::optional<ChildProcess> process_;
};

}  // namespace exchange
