#include "packet_socket.hpp"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <numeric>
#include <string_view>
#include <system_error>

namespace exchange {
namespace {

constexpr std::size_t kPacketBytes = 65536;  // well below a socket's limit
constexpr std::size_t kMostWords = 64;

[[noreturn]] void failForSystem(const char *what) {
  throw TransportError(std::string(what) + ": " + std::generic_category().message(errno));
}

bool isBusy() {
  return errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS || errno == EINTR;
}

std::string bytesOf(const std::vector<std::uint32_t> &numbers) {
  return {reinterpret_cast<const char *>(numbers.data()), numbers.size() * sizeof numbers[0]};
}

}  // namespace

std::pair<PacketSocket, PacketSocket> PacketSocket::makePair() {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) {
    failForSystem("cannot make a pair of sockets");
  }
  return {PacketSocket(ends[0]), PacketSocket(ends[1])};
}

PacketSocket::PacketSocket(PacketSocket &&other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)),
      unsent_(std::move(other.unsent_)),
      lengths_(std::move(other.lengths_)),
      awaited_(other.awaited_),
      body_(std::move(other.body_)) {}

PacketSocket &PacketSocket::operator=(PacketSocket &&other) noexcept {
  std::swap(descriptor_, other.descriptor_);
  std::swap(unsent_, other.unsent_);
  std::swap(lengths_, other.lengths_);
  std::swap(awaited_, other.awaited_);
  std::swap(body_, other.body_);
  return *this;
}

PacketSocket::~PacketSocket() {
  if (descriptor_ >= 0) close(descriptor_);
}

void PacketSocket::send(const Words &words) {
  std::vector<std::uint32_t> lengths;
  std::string body;
  for (const std::string &word : words) {
    lengths.push_back(static_cast<std::uint32_t>(word.size()));
    body += word;
  }
  unsent_.push_back(bytesOf(lengths));
  for (std::string_view rest = body; !rest.empty();) {
    const std::string_view packet = rest.substr(0, kPacketBytes);
    unsent_.emplace_back(packet);
    rest.remove_prefix(packet.size());
  }
  sendKept();
}

void PacketSocket::sendKept() {
  while (!unsent_.empty()) {
    const std::string &packet = unsent_.front();
    if (::send(descriptor_, packet.data(), packet.size(), MSG_NOSIGNAL) < 0) {
      if (isBusy()) return;
      failForSystem("cannot send to the other process");
    }
    unsent_.pop_front();
  }
}

std::optional<Words> PacketSocket::receive() {
  std::string packet(kPacketBytes, '\0');
  for (;;) {
    if (!lengths_.empty() && body_.size() == awaited_) break;
    const ssize_t length = recv(descriptor_, packet.data(), packet.size(), 0);
    if (length < 0 && isBusy()) return std::nullopt;
    if (length < 0) failForSystem("cannot receive from the other process");
    if (length == 0) throw TransportError("the other process has closed the connection");
    const std::string_view bytes(packet.data(), static_cast<std::size_t>(length));
    if (lengths_.empty()) {
      beginList(bytes);
    } else {
      body_ += bytes;
      if (body_.size() > awaited_) throw TransportError("a message is longer than announced");
    }
  }
  Words words;
  std::size_t at = 0;
  for (const std::uint32_t length : lengths_) {
    words.push_back(body_.substr(at, length));
    at += length;
  }
  lengths_.clear();
  body_.clear();
  return words;
}

void PacketSocket::beginList(std::string_view head) {
  const std::size_t count = head.size() / sizeof(std::uint32_t);
  std::vector<std::uint32_t> lengths(count);
  std::size_t bytes = kMostMessageBytes + 1;
  if (count != 0 && count <= kMostWords && head.size() % sizeof(std::uint32_t) == 0) {
    std::memcpy(lengths.data(), head.data(), head.size());
    bytes = std::accumulate(lengths.begin(), lengths.end(), std::size_t{0});
  }
  if (bytes > kMostMessageBytes) {
    throw TransportError("a message of " + std::to_string(bytes) + " bytes is longer than " +
                         std::to_string(kMostMessageBytes));
  }
  lengths_ = std::move(lengths);
  awaited_ = bytes;
}

}  // namespace exchange
