#include "pipe_transport.hpp"

#include <poll.h>

#include <string>
#include <utility>

namespace exchange {

void appendFields(Words &words, const Message &message) {
  for (const auto &[name, value] : message) {
    words.push_back(name);
    words.push_back(value);
  }
}

Message fieldsFrom(const Words &words, std::size_t first) {
  if (words.size() < first || (words.size() - first) % 2 != 0) {
    throw TransportError("a message has a field without a value");
  }
  Message message;
  for (std::size_t i = first; i < words.size(); i += 2) message[words[i]] = words[i + 1];
  return message;
}

void PipeTransport::publish(Stream stream, const Message &message) {
  Words request = {"publish", nameOf(stream)};
  appendFields(request, message);
  ask(request);
}

std::optional<Delivery> PipeTransport::take(Stream stream, Milliseconds wait) {
  const Words answer = ask({"take", nameOf(stream), std::to_string(wait.count())}, wait);
  if (answer[0] == "nothing") return std::nullopt;
  if (answer[0] != "entry" || answer.size() < 3) {
    throw TransportError("unexpected answer: " + answer[0]);
  }
  return Delivery{answer[1], std::stoi(answer[2]), fieldsFrom(answer, 3)};
}

void PipeTransport::acknowledge(Stream stream, const std::string &id) {
  ask({"acknowledge", nameOf(stream), id});
}

std::uint64_t PipeTransport::length(Stream stream) {
  return std::stoull(ask({"length", nameOf(stream)})[0]);
}

void PipeTransport::end() {
  ask({"end"});
}

bool PipeTransport::hasEnded() {
  return ask({"ended"})[0] == "yes";
}

Words PipeTransport::ask(const Words &request, Milliseconds wait) {
  socket_.send(request);
  const Clock::time_point deadline = Clock::now() + wait + patience_;
  for (;;) {
    if (std::optional<Words> answer = socket_.receive()) return std::move(*answer);
    const auto left = std::chrono::duration_cast<Milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) {
      throw TransportError("the coordinator has not answered for " +
                           std::to_string((wait + patience_).count()) + " ms");
    }
    const short events = POLLIN | (socket_.hasUnsent() ? POLLOUT : 0);
    pollfd poller = {socket_.descriptor(), events, 0};
    poll(&poller, 1, static_cast<int>(left));
    socket_.sendKept();
  }
}

}  // namespace exchange
