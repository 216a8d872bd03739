#include "engine.hpp"

#include <signal.h>
#include <unistd.h>

#include <optional>
#include <thread>

#include "catalog_support.hpp"
#include "pipe_broker.hpp"
#include "process_report.hpp"
#include "redis_server.hpp"
#include "redis_transport.hpp"

namespace exchange {
namespace {

constexpr Milliseconds kServerAway{1000};  // long enough for all processes to notice

// A name that no other consumer on any machine has.
std::string uniqueName(const std::string &consumer) {
  char host[256] = "";
  gethostname(host, sizeof host - 1);
  return consumer + '-' + host + '-' + std::to_string(getpid());
}

class PipeEngine : public Engine {
 public:
  explicit PipeEngine(const TransportSettings &settings) : broker_(settings) {}

  std::string description() const override { return "pipes"; }
  Transport &transport() override { return broker_; }
  TransportMaker connect(const std::string &) override { return broker_.connect(); }
  void restart() override {
    throw catalog::InputError("only a private server can be started again: --redis");
  }
  std::uint64_t engineTime() const override { return processorTime() - start_; }

 private:
  PipeBroker broker_;
  std::uint64_t start_ = processorTime();
};

class RedisEngine : public Engine {
 public:
  RedisEngine(const Arguments &arguments, const std::string &folder)
      : settings_(arguments.transport), name_(arguments.name) {
    if (arguments.redisUrl.empty()) server_.emplace(folder);
    address_ = server_ ? server_->address() : parseRedisUrl(arguments.redisUrl);
    transport_ = makeRedisTransport({address_, name_, "coordinator"}, settings_);
  }
  // A private server is removed with all its data.
  ~RedisEngine() override {
    if (server_) return;
    try {
      removeStreams(*transport_);
    } catch (const std::exception &) {
      // The server is gone. The streams that remain there have the run's name.
    }
  }

  std::string description() const override {
    if (server_) return "Redis, a private server";
    return "Redis at " + address_.shown() + ", streams " + name_ + ":*";
  }
  Transport &transport() override { return *transport_; }

  TransportMaker connect(const std::string &consumer) override {
    return [=, this] {
      return makeRedisTransport({address_, name_, uniqueName(consumer)}, settings_);
    };
  }

  void restart() override {
    if (!server_) {
      throw catalog::InputError("only a private server can be started again: --redis without URL");
    }
    server_->stop(SIGKILL);
    std::this_thread::sleep_for(kServerAway);
    server_->start();
  }

  std::uint64_t engineTime() const override { return server_ ? server_->processorTime() : 0; }

 private:
  TransportSettings settings_;
  std::string name_;
  std::optional<RedisServer> server_;
  RedisAddress address_;
  std::unique_ptr<Transport> transport_;
};

}  // namespace

std::unique_ptr<Engine> makeEngine(const Arguments &arguments, const std::string &folder) {
  if (!arguments.usesRedis) return std::make_unique<PipeEngine>(arguments.transport);
  return std::make_unique<RedisEngine>(arguments, folder);
}

std::unique_ptr<Transport> connectToRedis(const Arguments &arguments, const std::string &consumer) {
  return makeRedisTransport(
      {parseRedisUrl(arguments.redisUrl), arguments.name, uniqueName(consumer)},
      arguments.transport);
}

}  // namespace exchange
