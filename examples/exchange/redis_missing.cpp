// Replaces redis_transport.cpp if the client library is not installed.
#include "catalog_support.hpp"
#include "redis_transport.hpp"

namespace exchange {

bool hasRedis() {
  return false;
}

std::unique_ptr<Transport> makeRedisTransport(const RedisRun &, const TransportSettings &) {
  throw catalog::InputError(
      "--redis needs hiredis, which was not installed when this program was built. Install it "
      "(cmake/install-packages.sh linux; Debian packages libhiredis-dev and redis-server) and "
      "build again");
}

void removeStreams(Transport &) {}

}  // namespace exchange
