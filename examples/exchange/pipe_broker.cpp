#include "pipe_broker.hpp"

#include <poll.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <utility>

#include "pipe_transport.hpp"

namespace exchange {
namespace {

// Publishing to a stream with more waits, so that a slow collector slows the workers down and does
// not fill the coordinator's memory. The coordinator itself does not wait.
constexpr std::size_t kMostWaitingBytes = kMostMessageBytes;

std::size_t bytesOf(const Message &message) {
  std::size_t bytes = 0;
  for (const auto &[name, value] : message) bytes += name.size() + value.size();
  return bytes;
}

Stream streamNamed(const std::string &name) {
  const auto found = std::find(std::begin(kStreamNames), std::end(kStreamNames), name);
  if (found == std::end(kStreamNames)) throw TransportError("unknown stream: " + name);
  return static_cast<Stream>(found - std::begin(kStreamNames));
}

// At most an hour.
Milliseconds waitFrom(const std::string &text) {
  int milliseconds = -1;
  std::from_chars(text.data(), text.data() + text.size(), milliseconds);
  if (milliseconds < 0 || milliseconds > 3600000) {
    throw TransportError("invalid time to wait: " + text + " ms");
  }
  return Milliseconds(milliseconds);
}

}  // namespace

TransportMaker PipeBroker::connect() {
  auto [ours, theirs] = PacketSocket::makePair();
  serveAt(std::move(ours));
  auto end = std::make_shared<PacketSocket>(std::move(theirs));
  return [this, end]() -> std::unique_ptr<Transport> {
    // In the new process: a copy of another's end would hide that the other has died.
    connections_.clear();
    return std::make_unique<PipeTransport>(std::move(*end), settings_.patience);
  };
}

void PipeBroker::serveAt(PacketSocket socket) {
  connections_.push_back({std::move(socket), ++lastConnection_});
}

void PipeBroker::publish(Stream stream, const Message &message) {
  const std::size_t bytes = bytesOf(message);
  queue(stream).waiting.push_back({std::to_string(++lastId_), message, bytes});
  queue(stream).bytes += bytes;
}

std::optional<Delivery> PipeBroker::take(Stream stream, Milliseconds wait) {
  const Clock::time_point deadline = Clock::now() + wait;
  for (;;) {
    if (std::optional<Delivery> delivery = hand(stream, 0)) return delivery;
    if (Clock::now() >= deadline) return std::nullopt;
    serve(deadline);
  }
}

void PipeBroker::acknowledge(Stream stream, const std::string &id) {
  queue(stream).held.remove_if([&](const Entry &entry) { return entry.id == id; });
}

std::uint64_t PipeBroker::length(Stream stream) {
  return queue(stream).waiting.size() + queue(stream).held.size();
}

// Waiting messages come first, then those that a process has held for too long.
std::optional<Delivery> PipeBroker::hand(Stream stream, std::uint64_t holder) {
  Queue &queue = this->queue(stream);
  if (queue.waiting.empty()) {
    const auto late = std::find_if(queue.held.begin(), queue.held.end(), [&](const Entry &entry) {
      return Clock::now() - entry.since >= settings_.claimAfter;
    });
    if (late == queue.held.end()) return std::nullopt;
    queue.held.splice(queue.held.end(), queue.held, late);
  } else {
    queue.bytes -= queue.waiting.front().bytes;
    queue.held.splice(queue.held.end(), queue.waiting, queue.waiting.begin());
  }
  Entry &entry = queue.held.back();
  entry.holder = holder;
  entry.since = Clock::now();
  return Delivery{entry.id, ++entry.deliveries, entry.message};
}

// The process is gone: its messages are delivered next.
void PipeBroker::drop(std::uint64_t holder) {
  for (Queue &queue : queues_) {
    for (auto entry = queue.held.begin(); entry != queue.held.end();) {
      const auto next = std::next(entry);
      if (entry->holder == holder) {
        queue.bytes += entry->bytes;
        queue.waiting.splice(queue.waiting.begin(), queue.held, entry);
      }
      entry = next;
    }
  }
  connections_.remove_if([&](const Connection &connection) { return connection.number == holder; });
}

void PipeBroker::dropLost() {
  for (const std::uint64_t holder : std::exchange(lost_, {})) drop(holder);
}

// Waits for requests until `until` at the latest, and answers those that it can.
void PipeBroker::serve(Clock::time_point until) {
  std::vector<pollfd> pollers;
  for (const Connection &connection : connections_) {
    if (connection.request) until = std::min(until, connection.deadline);
    const short events = POLLIN | (connection.socket.hasUnsent() ? POLLOUT : 0);
    pollers.push_back({connection.socket.descriptor(), events, 0});
  }
  // Short enough to detect messages that are held for too long.
  constexpr Milliseconds kLongest{50};
  const auto left = std::chrono::duration_cast<Milliseconds>(until - Clock::now());
  const auto wait = std::clamp(left + Milliseconds(1), Milliseconds(0), kLongest);
  poll(pollers.data(), pollers.size(), static_cast<int>(wait.count()));

  auto poller = pollers.begin();
  for (Connection &connection : connections_) {
    const short events = (poller++)->revents;
    if (connection.request && (events & POLLHUP) != 0) {
      lost_.push_back(connection.number);  // the process cannot receive the answer
    } else if (events != 0) {
      readFrom(connection);
    }
  }
  dropLost();
  answerAll();
}

void PipeBroker::readFrom(Connection &connection) {
  try {
    connection.socket.sendKept();
    if (connection.request) return;  // answer this one first
    connection.request = connection.socket.receive();
    if (!connection.request) return;
    const Words &request = *connection.request;
    const bool waits = request[0] == "take" && request.size() == 3;
    connection.deadline = Clock::now() + (waits ? waitFrom(request[2]) : Milliseconds(0));
  } catch (const TransportError &) {
    lost_.push_back(connection.number);
  }
}

// After an answer, another request may no longer have to wait.
void PipeBroker::answerAll() {
  for (bool hasAnswered = true; hasAnswered;) {
    hasAnswered = false;
    for (Connection &connection : connections_) {
      if (connection.request && answer(connection)) hasAnswered = true;
    }
    dropLost();
  }
}

bool PipeBroker::answer(Connection &connection) {
  try {
    const std::optional<Words> answer = answerTo(*connection.request, connection);
    if (!answer) return false;
    connection.request.reset();
    connection.socket.send(*answer);
  } catch (const TransportError &) {
    connection.request.reset();
    lost_.push_back(connection.number);
  }
  return true;
}

// Null if the request must wait.
std::optional<Words> PipeBroker::answerTo(const Words &request, const Connection &connection) {
  const std::string &verb = request[0];
  if (verb == "ended") return Words{hasEnded_ ? "yes" : "no"};
  if (verb == "end") {
    end();
    return Words{"done"};
  }
  if (request.size() < 2) throw TransportError("invalid request: " + verb);
  const Stream stream = streamNamed(request[1]);
  if (verb == "publish") {
    if (queue(stream).bytes > kMostWaitingBytes) return std::nullopt;
    publish(stream, fieldsFrom(request, 2));
    return Words{"done"};
  }
  if (verb == "length") return Words{std::to_string(length(stream))};
  if (request.size() != 3) throw TransportError("invalid request: " + verb);
  if (verb == "acknowledge") {
    acknowledge(stream, request[2]);
    return Words{"done"};
  }
  if (verb != "take") throw TransportError("invalid request: " + verb);
  const std::optional<Delivery> delivery = hand(stream, connection.number);
  if (delivery) {
    Words answer = {"entry", delivery->id, std::to_string(delivery->deliveries)};
    appendFields(answer, delivery->message);
    return answer;
  }
  if (Clock::now() < connection.deadline) return std::nullopt;
  return Words{"nothing"};
}

}  // namespace exchange
