#include "redis_server.hpp"

#include <fcntl.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

#include "catalog_support.hpp"

namespace exchange {
namespace {

constexpr const char *kSocket = "redis.sock";
constexpr const char *kLog = "redis.log";
constexpr Milliseconds kTimeToStop{5000};

}  // namespace

PrivateFolder::PrivateFolder(const std::filesystem::path &parent) {
  std::string folder = (parent / "exchange.XXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr) {
    throw catalog::InputError("cannot make a folder in " + catalog::utf8FromPath(parent) + ": " +
                              std::generic_category().message(errno));
  }
  path_ = folder;
  descriptor_ = open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
}

PrivateFolder::~PrivateFolder() {
  close(descriptor_);
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

RedisServer::RedisServer(const std::filesystem::path &parent) : folder_(parent) {
  start();
}

RedisServer::~RedisServer() {
  if (process_) stop(SIGTERM);
}

// The path of a socket has at most 107 bytes, but that of a folder may have more.
RedisAddress RedisServer::address() const {
  RedisAddress address;
  address.socket = "/proc/self/fd/" + std::to_string(folder_.descriptor()) + '/' + kSocket;
  return address;
}

std::uint64_t RedisServer::processorTime() const {
  if (!process_) return 0;
  clockid_t clock = 0;
  timespec time = {};
  if (clock_getcpuclockid(process_->id(), &clock) != 0) return 0;
  clock_gettime(clock, &time);
  return static_cast<std::uint64_t>(time.tv_sec) * 1000000000 +
         static_cast<std::uint64_t>(time.tv_nsec);
}

void RedisServer::stop(int signal) {
  process_->signal(signal);
  process_->waitFor(kTimeToStop);
  process_.reset();
}

void RedisServer::start() {
  // No network, no snapshots. All changes are appended to a file, which is written to the disk
  // every second. If the server or the machine fails, the last changes may be missing; the
  // collector publishes jobs again whose results do not arrive.
  process_ = ChildProcess::run(
      {"redis-server", "--port", "0", "--unixsocket", kSocket, "--unixsocketperm", "700", "--save",
       "", "--appendonly", "yes", "--appendfsync", "everysec", "--daemonize", "no"},
      folder_.path().string(), kLog);
  const bool hasEnded = process_->waitFor(Milliseconds(100));
  if (!hasEnded) return;
  if (process_->status() == 127 << 8) {
    throw catalog::InputError(
        "--redis needs redis-server. Install it (cmake/install-packages.sh linux; Debian package "
        "redis-server), or use an existing server: --redis redis://HOST");
  }
  throw catalog::InputError("redis-server " + howItEnded(*process_->status()));
}

}  // namespace exchange
