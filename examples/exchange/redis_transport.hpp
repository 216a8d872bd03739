// The streams of a run in a Redis server: each is a Redis stream with one consumer group.
//
//   publish       XADD
//   take          XAUTOCLAIM of a message that a consumer has held for too long, else XREADGROUP
//   acknowledge   XDEL, XACK
//   end           SET
//
// While the server is away, each call connects again and repeats its command until the time
// `patience` is over. If an answer was lost, the command may then have run twice: a message that
// was published comes twice, and one that was taken is claimed later.
#pragma once

#include <memory>
#include <string>

#include "redis_url.hpp"
#include "transport.hpp"

namespace exchange {

// Whether this program was built with the client library; without it, makeRedisTransport throws.
bool hasRedis();

struct RedisRun {
  RedisAddress address;
  std::string name;      // the streams' keys are NAME:jobs, NAME:results, …
  std::string consumer;  // this process's name within the run
};

// Connects at once. Throws TransportError if that fails, catalog::InputError if the server refuses
// the password.
std::unique_ptr<Transport> makeRedisTransport(const RedisRun &run,
                                              const TransportSettings &settings);

// Deletes the run's streams; that of dead messages only if it is empty. REQUIRES: a transport of
// makeRedisTransport.
void removeStreams(Transport &transport);

}  // namespace exchange
