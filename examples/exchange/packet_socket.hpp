// Sends lists of words between two processes of one machine, over a socket that keeps packets
// apart: each list arrives completely or not at all.
//
// A list is a packet with the lengths of its words, and packets with their bytes.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "transport.hpp"

namespace exchange {

using Words = std::vector<std::string>;

// One end of a connection. The other end is not trusted: its messages are limited and checked.
class PacketSocket {
 public:
  static std::pair<PacketSocket, PacketSocket> makePair();

  PacketSocket(PacketSocket &&other) noexcept;
  PacketSocket &operator=(PacketSocket &&other) noexcept;
  ~PacketSocket();

  // For poll().
  int descriptor() const { return descriptor_; }
  bool hasUnsent() const { return !unsent_.empty(); }

  // Sends a list. Keeps the packets that do not fit into the socket yet; sendKept() sends them. All
  // throw TransportError if the other end is closed.
  void send(const Words &words);
  void sendKept();

  // A list that has arrived completely; never waits. Also throws TransportError for an invalid
  // list.
  std::optional<Words> receive();

 private:
  explicit PacketSocket(int descriptor) : descriptor_(descriptor) {}

  void beginList(std::string_view head);

  int descriptor_;
  std::deque<std::string> unsent_;      // packets
  std::vector<std::uint32_t> lengths_;  // of the words that are being received
  std::size_t awaited_ = 0;             // bytes of these words
  std::string body_;                    // the bytes that have arrived
};

}  // namespace exchange
