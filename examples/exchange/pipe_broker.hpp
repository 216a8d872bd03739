// The streams of a run without a server: the coordinator keeps them, the other processes use
// sockets that they inherit from it.
//
//   coordinator ── PipeBroker ══ socket pair ══ PipeTransport ── worker
//                        ╚══════ socket pair ══ PipeTransport ── collector
//
// When a process ends, its socket is closed, and others can take its messages at once. While the
// coordinator waits for a report, it serves the other processes.
#pragma once

#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "packet_socket.hpp"
#include "transport.hpp"

namespace exchange {

class PipeBroker : public Transport {
 public:
  explicit PipeBroker(TransportSettings settings) : settings_(settings) {}

  // A connection for the process that is forked next. Destroy the maker in this process after the
  // fork.
  TransportMaker connect();

  // The same for a socket whose other end is already in use.
  void serveAt(PacketSocket socket);

  // The coordinator's own use of the streams. `take` serves all connections while it waits.
  void publish(Stream stream, const Message &message) override;
  std::optional<Delivery> take(Stream stream, Milliseconds wait) override;
  void acknowledge(Stream stream, const std::string &id) override;
  std::uint64_t length(Stream stream) override;
  void end() override { hasEnded_ = true; }
  bool hasEnded() override { return hasEnded_; }

 private:
  struct Connection {
    PacketSocket socket;
    std::uint64_t number;               // never 0, which is the coordinator's
    std::optional<Words> request = {};  // not answered yet
    Clock::time_point deadline = {};    // when it is answered at the latest
  };
  struct Entry {
    std::string id;
    Message message;
    std::size_t bytes;
    int deliveries = 0;
    std::uint64_t holder = 0;
    Clock::time_point since = {};
  };
  struct Queue {
    std::list<Entry> waiting;
    std::list<Entry> held;
    std::size_t bytes = 0;  // of the waiting ones
  };

  Queue &queue(Stream stream) { return queues_[static_cast<int>(stream)]; }
  void serve(Clock::time_point until);
  void readFrom(Connection &connection);
  void answerAll();
  bool answer(Connection &connection);
  std::optional<Words> answerTo(const Words &request, const Connection &connection);
  std::optional<Delivery> hand(Stream stream, std::uint64_t holder);
  void drop(std::uint64_t holder);
  void dropLost();

  TransportSettings settings_;
  Queue queues_[kStreamCount];
  std::list<Connection> connections_;
  std::vector<std::uint64_t> lost_;  // connections that failed
  std::uint64_t lastConnection_ = 0;
  std::uint64_t lastId_ = 0;
  bool hasEnded_ = false;
};

}  // namespace exchange
