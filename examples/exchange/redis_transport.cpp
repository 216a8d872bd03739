#include "redis_transport.hpp"

#include <hiredis/hiredis.h>
#include <sys/time.h>

#include <algorithm>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "catalog_support.hpp"

namespace exchange {
namespace {

constexpr const char *kGroup = "exchange";
constexpr Milliseconds kBetweenTries{100};
constexpr Milliseconds kFirstPatience{5000};
constexpr const char *kSecondsOfEndKey = "60";

struct FreeContext {
  void operator()(redisContext *context) const { redisFree(context); }
};
struct FreeReply {
  void operator()(redisReply *reply) const { freeReplyObject(reply); }
};
using Reply = std::unique_ptr<redisReply, FreeReply>;
using Command = std::vector<std::string>;

timeval timeOf(Milliseconds time) {
  return {time.count() / 1000, static_cast<suseconds_t>(time.count() % 1000 * 1000)};
}

std::string_view textOf(const redisReply &reply) {
  return reply.str == nullptr ? std::string_view() : std::string_view(reply.str, reply.len);
}

bool isArray(const redisReply &reply, std::size_t least) {
  return reply.type == REDIS_REPLY_ARRAY && reply.elements >= least;
}

bool isError(const redisReply &reply, std::string_view code) {
  return reply.type == REDIS_REPLY_ERROR && textOf(reply).starts_with(code);
}

// An error that passes: the server is reading its file after a restart, or its memory is full.
bool isPassing(const redisReply &reply) {
  return isError(reply, "LOADING") || isError(reply, "OOM") || isError(reply, "BUSY ") ||
         isError(reply, "MASTERDOWN") || isError(reply, "TRYAGAIN");
}

bool isRefusedPassword(const redisReply &reply) {
  return isError(reply, "NOAUTH") || isError(reply, "WRONGPASS") || isError(reply, "ERR AUTH") ||
         isError(reply, "ERR invalid password") || isError(reply, "NOPERM");
}

// An entry is an identifier and its fields. A deleted entry has no fields.
std::optional<Delivery> deliveryFrom(const redisReply &entry) {
  if (!isArray(entry, 2) || !isArray(*entry.element[1], 2)) return std::nullopt;
  Delivery delivery;
  delivery.id = textOf(*entry.element[0]);
  const redisReply &fields = *entry.element[1];
  for (std::size_t i = 0; i + 1 < fields.elements; i += 2) {
    delivery.message[std::string(textOf(*fields.element[i]))] = textOf(*fields.element[i + 1]);
  }
  return delivery;
}

class RedisTransport : public Transport {
 public:
  // If the server does not answer at the beginning, its name may be wrong: wait for a shorter time.
  RedisTransport(RedisRun run, TransportSettings settings)
      : run_(std::move(run)), settings_(settings) {
    settings_.patience = std::min(settings.patience, kFirstPatience);
    execute({"PING"});
    settings_.patience = settings.patience;
  }

  void publish(Stream stream, const Message &message) override {
    Command command = {"XADD", key(stream), "*"};
    for (const auto &[name, value] : message) {
      command.push_back(name);
      command.push_back(value);
    }
    execute(command);
  }

  std::optional<Delivery> take(Stream stream, Milliseconds wait) override {
    const Clock::time_point deadline = Clock::now() + wait;
    for (;;) {
      if (std::optional<Delivery> delivery = claim(stream)) return delivery;
      const Milliseconds left = untilNext(stream, deadline);
      if (std::optional<Delivery> delivery = readNew(stream, left)) return delivery;
      if (Clock::now() >= deadline) return std::nullopt;
    }
  }

  // The order matters: if the process dies in between, the message is deleted, and the next claim
  // removes its pending entry. In the other order the message would never be deleted.
  void acknowledge(Stream stream, const std::string &id) override {
    execute({"XDEL", key(stream), id});
    execute({"XACK", key(stream), kGroup, id});
  }

  void end() override { execute({"SET", endKey(), "1", "EX", kSecondsOfEndKey}); }

  bool hasEnded() override {
    const Reply reply = execute({"EXISTS", endKey()});
    return reply->type == REDIS_REPLY_INTEGER && reply->integer != 0;
  }

  std::uint64_t length(Stream stream) override {
    const Reply reply = execute({"XLEN", key(stream)});
    return reply->type == REDIS_REPLY_INTEGER ? static_cast<std::uint64_t>(reply->integer) : 0;
  }

  void removeStreams() {
    execute({"DEL", key(Stream::jobs), key(Stream::results), key(Stream::reports)});
    if (length(Stream::dead) == 0) execute({"DEL", key(Stream::dead)});
  }

 private:
  // Where and when claiming from a stream continues.
  struct Claiming {
    std::string cursor = "0-0";
    Clock::time_point next = {};
  };

  std::string key(Stream stream) const { return run_.name + ':' + nameOf(stream); }
  std::string endKey() const { return run_.name + ":ended"; }
  Claiming &claiming(Stream stream) { return claiming_[static_cast<int>(stream)]; }

  Milliseconds untilNext(Stream stream, Clock::time_point deadline) {
    const auto next = std::min(deadline, claiming(stream).next);
    const auto left = std::chrono::duration_cast<Milliseconds>(next - Clock::now());
    return std::max(left, Milliseconds(1));  // 0 would mean no limit
  }

  std::optional<Delivery> readNew(Stream stream, Milliseconds wait) {
    const Reply reply =
        execute({"XREADGROUP", "GROUP", kGroup, run_.consumer, "COUNT", "1", "BLOCK",
                 std::to_string(wait.count()), "STREAMS", key(stream), ">"},
                wait);
    if (!isArray(*reply, 1) || !isArray(*reply->element[0], 2)) return std::nullopt;
    const redisReply &entries = *reply->element[0]->element[1];
    return isArray(entries, 1) ? deliveryFrom(*entries.element[0]) : std::nullopt;
  }

  // A message that a consumer has held for too long. The consumer may be this one, if an answer of
  // the server was lost.
  std::optional<Delivery> claim(Stream stream) {
    Claiming &state = claiming(stream);
    if (Clock::now() < state.next) return std::nullopt;
    const Reply reply =
        execute({"XAUTOCLAIM", key(stream), kGroup, run_.consumer,
                 std::to_string(settings_.claimAfter.count()), state.cursor, "COUNT", "1"});
    if (!isArray(*reply, 2)) {
      throw TransportError("Redis at " + run_.address.shown() +
                           " does not know XAUTOCLAIM: use version 6.2 or later");
    }
    state.cursor = textOf(*reply->element[0]);
    const redisReply &entries = *reply->element[1];
    std::optional<Delivery> delivery;
    if (isArray(entries, 1)) delivery = deliveryFrom(*entries.element[0]);
    if (delivery) {
      delivery->deliveries = deliveriesOf(stream, delivery->id);
    } else if (state.cursor == "0-0") {
      state.next = Clock::now() + settings_.claimAfter / 2;
    }
    return delivery;
  }

  // The number is the fourth value of a pending entry.
  int deliveriesOf(Stream stream, const std::string &id) {
    const Reply reply = execute({"XPENDING", key(stream), kGroup, id, id, "1"});
    if (!isArray(*reply, 1) || !isArray(*reply->element[0], 4)) return 2;
    return static_cast<int>(reply->element[0]->element[3]->integer);
  }

  // Runs a command, which may wait for `wait`, and repeats it while the server is away.
  Reply execute(const Command &command, Milliseconds wait = Milliseconds(0)) {
    const Clock::time_point deadline = Clock::now() + wait + settings_.patience;
    for (;;) {
      std::string problem = "no answer";
      Reply reply = tryOnce(command, wait, problem);
      if (reply && isError(*reply, "NOGROUP")) {
        makeGroups();  // the server has restarted without its data
        continue;
      }
      if (reply && !isPassing(*reply)) return checked(std::move(reply));
      if (reply) problem = textOf(*reply);
      if (Clock::now() >= deadline) {
        throw TransportError("Redis at " + run_.address.shown() + ": " + problem);
      }
      std::this_thread::sleep_for(kBetweenTries);
    }
  }

  static Reply checked(Reply reply) {
    if (isRefusedPassword(*reply)) {
      throw catalog::InputError("Redis refuses this user or password: " +
                                std::string(textOf(*reply)));
    }
    if (reply->type == REDIS_REPLY_ERROR) {
      throw TransportError("Redis: " + std::string(textOf(*reply)));
    }
    return reply;
  }

  // Without an answer it closes the connection and returns null.
  Reply tryOnce(const Command &command, Milliseconds wait, std::string &problem) {
    if (!context_ && !connect(problem)) return nullptr;
    redisSetTimeout(context_.get(), timeOf(wait + settings_.patience));
    Reply reply = send(command);
    if (!reply) {
      problem = context_->errstr;
      context_.reset();
    }
    return reply;
  }

  Reply send(const Command &command) {
    std::vector<const char *> words;
    std::vector<std::size_t> lengths;
    for (const std::string &word : command) {
      words.push_back(word.data());
      lengths.push_back(word.size());
    }
    return Reply(static_cast<redisReply *>(redisCommandArgv(
        context_.get(), static_cast<int>(words.size()), words.data(), lengths.data())));
  }

  bool connect(std::string &problem) {
    const RedisAddress &address = run_.address;
    const timeval time = timeOf(settings_.patience);
    context_.reset(address.socket.empty()
                       ? redisConnectWithTimeout(address.host.c_str(), address.port, time)
                       : redisConnectUnixWithTimeout(address.socket.c_str(), time));
    if (!context_ || context_->err != 0) {
      problem = context_ ? context_->errstr : "no memory";
      context_.reset();
      return false;
    }
    redisSetTimeout(context_.get(), time);
    return introduce(problem);
  }

  // The first commands of a new connection.
  bool introduce(std::string &problem) {
    const RedisAddress &address = run_.address;
    std::vector<Command> commands;
    if (!address.password.empty()) {
      commands.push_back({"AUTH"});
      if (!address.user.empty()) commands.back().push_back(address.user);
      commands.back().push_back(address.password);
    }
    if (address.database != 0) commands.push_back({"SELECT", std::to_string(address.database)});
    for (int i = 0; i < kStreamCount; ++i) commands.push_back(groupCommand(static_cast<Stream>(i)));
    for (const Command &command : commands) {
      const Reply reply = send(command);
      if (!reply || isPassing(*reply)) {
        problem = reply ? std::string(textOf(*reply)) : std::string(context_->errstr);
        context_.reset();
        return false;
      }
      if (!isError(*reply, "BUSYGROUP")) checkIntroduced(*reply);
    }
    return true;
  }

  static void checkIntroduced(const redisReply &reply) {
    if (reply.type != REDIS_REPLY_ERROR) return;
    throw catalog::InputError("Redis refuses this program: " + std::string(textOf(reply)));
  }

  Command groupCommand(Stream stream) const {
    return {"XGROUP", "CREATE", key(stream), kGroup, "0", "MKSTREAM"};
  }

  void makeGroups() {
    for (int i = 0; i < kStreamCount; ++i) send(groupCommand(static_cast<Stream>(i)));
  }

  RedisRun run_;
  TransportSettings settings_;
  std::unique_ptr<redisContext, FreeContext> context_;
  Claiming claiming_[kStreamCount];
};

}  // namespace

bool hasRedis() {
  return true;
}

std::unique_ptr<Transport> makeRedisTransport(const RedisRun &run,
                                              const TransportSettings &settings) {
  return std::make_unique<RedisTransport>(run, settings);
}

void removeStreams(Transport &transport) {
  static_cast<RedisTransport &>(transport).removeStreams();
}

}  // namespace exchange
