// The address of a Redis server.
#pragma once

#include <string>

namespace exchange {

struct RedisAddress {
  std::string socket;  // path; empty: by host and port
  std::string host = "127.0.0.1";
  int port = 6379;
  std::string user;  // empty: the server's default user
  std::string password;
  int database = 0;

  // Without the password.
  std::string shown() const;
};

// "redis://[[USER]:PASSWORD@]HOST[:PORT][/DATABASE]" or "unix://[[USER]:PASSWORD@]/PATH". %XX in
// the password means a byte. Without a password, that of the environment variable REDISCLI_AUTH is
// used, as redis-cli does: other users can see a program's arguments. Throws catalog::InputError.
RedisAddress parseRedisUrl(const std::string &url);

}  // namespace exchange
