// How jobs and results get from process to process: streams of messages that processes share.
//
// A message that is taken from a stream stays the taker's until it is acknowledged. Where the taker
// dies before, or holds it for too long, another one gets it. So every message is handed out at
// least once, and now and then twice.
//
// There are two kinds: PipeTransport needs nothing but the processes themselves, RedisTransport a
// Redis server. Threading: each object is used by one thread.
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
  dead,     // what could not be used, with the reason
  reports   // from all of them to the coordinator
};
inline constexpr int kStreamCount = 4;
inline constexpr const char *kStreamNames[kStreamCount] = {"jobs", "results", "dead", "reports"};

inline const char *nameOf(Stream stream) {
  return kStreamNames[static_cast<int>(stream)];
}

// Fields by name. Values are bytes of any kind.
using Message = std::map<std::string, std::string>;

// More than any message of the program has; it bounds what a process holds for another one's sake.
inline constexpr std::size_t kMostMessageBytes = std::size_t{64} << 20;

struct Delivery {
  std::string id;      // what `acknowledge` takes
  int deliveries = 1;  // how often it has been handed out, this time included
  Message message;
};

// The other side cannot be reached any more, or does not understand.
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

  // When it returns, the message is in the stream and outlives this process. All throw
  // TransportError.
  virtual void publish(Stream stream, const Message &message) = 0;

  // The next message, waiting for one for as long as `wait`.
  virtual std::optional<Delivery> take(Stream stream, Milliseconds wait) = 0;

  // The message has been dealt with and is not handed out again.
  virtual void acknowledge(Stream stream, const std::string &id) = 0;

  // Messages of the stream that are not acknowledged yet.
  virtual std::uint64_t length(Stream stream) = 0;

  // Tells all processes that the work is over.
  virtual void end() = 0;
  virtual bool hasEnded() = 0;
};

// Makes a process's transport, in that process.
using TransportMaker = std::function<std::unique_ptr<Transport>()>;

struct TransportSettings {
  Milliseconds claimAfter{2000};  // a message that is held for longer is given to another process
  Milliseconds patience{30000};   // how long to wait for the other side before giving up
};

}  // namespace exchange
