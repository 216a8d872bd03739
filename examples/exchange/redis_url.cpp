#include "redis_url.hpp"

#include <charconv>
#include <cstdlib>
#include <string_view>

#include "catalog_support.hpp"

namespace exchange {
namespace {

// The message does not contain the URL, because that may contain a password.
[[noreturn]] void refuse() {
  throw catalog::InputError(
      "invalid URL for --redis: use redis://[[USER]:PASSWORD@]HOST[:PORT][/DATABASE] or "
      "unix://[[USER]:PASSWORD@]/PATH");
}

int numberFrom(std::string_view text, int most) {
  int number = -1;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number < 0 || number > most) {
    refuse();
  }
  return number;
}

std::string decoded(std::string_view text) {
  std::string bytes;
  while (!text.empty()) {
    if (text[0] != '%') {
      bytes += text[0];
      text.remove_prefix(1);
      continue;
    }
    unsigned char byte = 0;
    const std::string_view digits = text.substr(1, 2);
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
    if (error != std::errc() || end != digits.data() + 2) refuse();
    bytes += static_cast<char>(byte);
    text.remove_prefix(3);
  }
  return bytes;
}

// Removes "[USER]:PASSWORD@" from the front.
void takeUser(std::string_view &rest, RedisAddress &address) {
  const std::size_t at = rest.find('@');
  if (at == std::string_view::npos) return;
  const std::string_view user = rest.substr(0, at);
  const std::size_t colon = user.find(':');
  if (colon == std::string_view::npos) refuse();
  address.user = user.substr(0, colon);
  address.password = decoded(user.substr(colon + 1));
  rest.remove_prefix(at + 1);
}

// "HOST[:PORT][/DATABASE]", with an IPv6 address in brackets.
void takeHost(std::string_view rest, RedisAddress &address) {
  const std::size_t slash = rest.find('/');
  if (slash != std::string_view::npos) {
    address.database = numberFrom(rest.substr(slash + 1), 65535);
    rest = rest.substr(0, slash);
  }
  const std::size_t bracket = rest.rfind(']');
  const std::size_t colon = rest.find(':', bracket == std::string_view::npos ? 0 : bracket);
  if (colon != std::string_view::npos) {
    address.port = numberFrom(rest.substr(colon + 1), 65535);
    rest = rest.substr(0, colon);
  }
  if (bracket != std::string_view::npos) {
    if (rest[0] != '[' || rest.size() != bracket + 1) refuse();
    rest = rest.substr(1, bracket - 1);
  }
  if (rest.empty()) refuse();
  address.host = rest;
}

}  // namespace

std::string RedisAddress::shown() const {
  if (!socket.empty()) return "unix://" + socket;
  const bool isV6 = host.find(':') != std::string::npos;
  return "redis://" + (isV6 ? '[' + host + ']' : host) + ':' + std::to_string(port) +
         (database == 0 ? "" : '/' + std::to_string(database));
}

RedisAddress parseRedisUrl(const std::string &url) {
  constexpr std::string_view kNetwork = "redis://";
  constexpr std::string_view kSocket = "unix://";
  RedisAddress address;
  std::string_view rest = url;
  if (rest.starts_with(kNetwork)) {
    rest.remove_prefix(kNetwork.size());
    takeUser(rest, address);
    takeHost(rest, address);
  } else if (rest.starts_with(kSocket)) {
    rest.remove_prefix(kSocket.size());
    takeUser(rest, address);
    if (!rest.starts_with('/')) refuse();
    address.socket = rest;
  } else {
    refuse();
  }
  if (const char *password = std::getenv("REDISCLI_AUTH");
      address.password.empty() && password != nullptr) {
    address.password = password;
  }
  return address;
}

}  // namespace exchange
