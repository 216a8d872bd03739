// The streams of a run in a Redis server: a Redis stream each, with one consumer group.
//
//   publish       XADD
//   take          XAUTOCLAIM of what another consumer has held for too long, else XREADGROUP
//   acknowledge   XDEL, XACK
//   end           SET
//
// While the server is away, each call connects again and repeats its command until the patience is
// over. A command whose answer was lost may then have worked twice: what is published comes twice,
// and what was taken is claimed later.
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

// Connects at once. Throws TransportError when that cannot be done, catalog::InputError for a
// password that the server refuses.
std::unique_ptr<Transport> makeRedisTransport(const RedisRun &run,
                                              const TransportSettings &settings);

// Deletes the run's streams, but for that of dead messages if there are any. REQUIRES: a transport
// of makeRedisTransport.
void removeStreams(Transport &transport);

}  // namespace exchange
