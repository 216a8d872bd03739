// A process's transport to the streams that the coordinator keeps (pipe_broker.hpp).
#pragma once

#include "packet_socket.hpp"
#include "transport.hpp"

namespace exchange {

// Requests and answers are lists of words. A request, and its answer:
//
//   publish STREAM {FIELD VALUE}        done
//   take STREAM MILLISECONDS            entry ID DELIVERIES {FIELD VALUE}, or: nothing
//   acknowledge STREAM ID               done
//   length STREAM                       a number
//   end                                 done
//   ended                               yes, or: no
class PipeTransport : public Transport {
 public:
  PipeTransport(PacketSocket socket, Milliseconds patience)
      : socket_(std::move(socket)), patience_(patience) {}

  void publish(Stream stream, const Message &message) override;
  std::optional<Delivery> take(Stream stream, Milliseconds wait) override;
  void acknowledge(Stream stream, const std::string &id) override;
  std::uint64_t length(Stream stream) override;
  void end() override;
  bool hasEnded() override;

 private:
  Words ask(const Words &request, Milliseconds wait = Milliseconds(0));

  PacketSocket socket_;
  Milliseconds patience_;
};

// Fields as words: each a name, then a value.
void appendFields(Words &words, const Message &message);
// The fields from word `first` on. Throws TransportError for an odd number of words.
Message fieldsFrom(const Words &words, std::size_t first);

}  // namespace exchange
