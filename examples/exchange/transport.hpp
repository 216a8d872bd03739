// How jobs and results get from process to process: streams of messages that processes share.
//
// A process that takes a message from a stream holds it until it acknowledges it. If it dies
// before, or holds it for too long, the message is delivered to another process. So every message
// is delivered at least once, and sometimes twice.
//
// There are two kinds: PipeTransport needs only the processes themselves, RedisTransport a Redis
// server. Threading: each object is used by one thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

namespace exchange {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

// What the streams are for.
enum class Stream {
  jobs,     // from the coordinator to the workers
  results,  // from the workers to the collector
  dead,     // unusable messages, with the reason
  reports   // from all of them to the coordinator
};
inline constexpr int kStreamCount = 4;
inline constexpr const char *kStreamNames[kStreamCount] = {"jobs", "results", "dead", "reports"};

inline const char *nameOf(Stream stream) {
  return kStreamNames[static_cast<int>(stream)];
}

// Fields by name. Values are bytes of any kind.
using Message = std::map<std::string, std::string>;

// No message of the program is longer. The limit keeps a process from filling another's memory.
inline constexpr std::size_t kMostMessageBytes = std::size_t{64} << 20;

struct Delivery {
  std::string id;      // for `acknowledge`
  int deliveries = 1;  // how often it has been delivered, including this time
  Message message;
};

// The other process or the server cannot be reached any more, or sends invalid data.
class TransportError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Transport {
 public:
  Transport() = default;
  virtual ~Transport() = default;
  Transport(const Transport &) = delete;
  Transport &operator=(const Transport &) = delete;

  // When it returns, the message is in the stream, even if this process then ends. All functions
  // throw TransportError.
  virtual void publish(Stream stream, const Message &message) = 0;

  // The next message; waits for one for `wait`.
  virtual std::optional<Delivery> take(Stream stream, Milliseconds wait) = 0;

  // The message has been handled and is not delivered again.
  virtual void acknowledge(Stream stream, const std::string &id) = 0;

  // Messages of the stream that are not acknowledged yet.
  virtual std::uint64_t length(Stream stream) = 0;

  // Ends the run: hasEnded() is then true in all processes.
  virtual void end() = 0;
  virtual bool hasEnded() = 0;
};

// Makes a process's transport, in that process.
using TransportMaker = std::function<std::unique_ptr<Transport>()>;

struct TransportSettings {
  Milliseconds claimAfter{2000};  // a message that is held for longer is delivered to another
  Milliseconds patience{30000};   // how long to wait for the other side before giving up
};

}  // namespace exchange
