// A Redis server for one run: on a socket in a private folder, which other users cannot reach.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

#include "child_process.hpp"
#include "redis_url.hpp"

namespace exchange {

// A new folder that other users cannot enter. It is removed with its contents at destruction.
class PrivateFolder {
 public:
  // Throws catalog::InputError if it cannot be made in `parent`.
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
  // Starts one, in a new folder in `parent`. The server writes its data to a file there, so a
  // restart keeps them. Throws catalog::InputError if there is no redis-server.
  explicit RedisServer(const std::filesystem::path &parent);
  ~RedisServer();
  RedisServer(const RedisServer &) = delete;
  RedisServer &operator=(const RedisServer &) = delete;

  // Valid in processes that are forked from this one.
  RedisAddress address() const;

  // Nanoseconds of processor time, of all of its threads.
  std::uint64_t processorTime() const;

  // Ends it: in order with SIGTERM, at once with SIGKILL. start() starts it again with the data
  // that it has written.
  void stop(int signal);
  void start();

 private:
  PrivateFolder folder_;
  std::optional<ChildProcess> process_;
};

}  // namespace exchange
