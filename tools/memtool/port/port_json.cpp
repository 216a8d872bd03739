#include "port_json.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "tool_errors.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

// Text as bytes, filled up with `fill` to the whole characters of the field and with zeros to its
// length. `room` is what the text may take of it.
std::string padded(const PortJsonNode &node, std::string bytes, std::size_t room,
                   std::size_t length, std::string_view fill) {
  if (bytes.size() > room) {
    node.fail(fmt::format("{} bytes; the field has room for {}", bytes.size(), room));
  }
  while (bytes.size() + fill.size() <= length) bytes += fill;
  bytes.resize(length, '\0');
  return bytes;
}

void refuseZero(const PortJsonNode &node, bool hasZero) {
  if (hasZero) node.fail("text with a zero in it");
}

std::string bytesOf(const std::u16string &units) {
  std::string bytes(units.size() * sizeof(char16_t), '\0');
  if (!bytes.empty()) std::memcpy(bytes.data(), units.data(), bytes.size());
  return bytes;
}

}  // namespace

PortJson parsePortJson(const std::string &name, std::string_view bytes) {
  try {
    return PortJson::parse(bytes);
  } catch (const PortJson::parse_error &error) {
    const std::size_t offset = error.byte > 0 ? error.byte - 1 : 0;
    throw ToolError(fmt::format("{}: no JSON from byte {} on", name, offset));
  } catch (const PortJson::exception &) {  // a number beyond all ranges
    throw ToolError(fmt::format("{}: JSON with a number that is too large", name));
  }
}

void PortJsonNode::fail(std::string_view what) const {
  throw ToolError(fmt::format("{}: {}", place_, what));
}

void PortJsonNode::requireKeys(std::initializer_list<std::string_view> known) const {
  if (!json_->is_object()) fail("expected an object");
  for (const auto &[key, value] : json_->items()) {
    if (std::find(known.begin(), known.end(), key) != known.end()) continue;
    fail(fmt::format("unknown key {}; known are {}", inQuotes(key, 40), fmt::join(known, ", ")));
  }
}

PortJsonNode PortJsonNode::member(const std::string &key, const PortJson &value) const {
  return {value, place_ + separator_ + key, "."};
}

std::optional<PortJsonNode> PortJsonNode::find(const std::string &key) const {
  if (!json_->is_object()) fail("expected an object");
  const auto found = json_->find(key);
  if (found == json_->end()) return std::nullopt;
  return member(key, *found);
}

PortJsonNode PortJsonNode::at(const std::string &key) const {
  const std::optional<PortJsonNode> found = find(key);
  if (!found) fail(fmt::format("\"{}\" is missing", key));
  return *found;
}

std::vector<PortJsonNode> PortJsonNode::elements() const {
  if (!json_->is_array()) fail("expected an array");
  std::vector<PortJsonNode> nodes;
  nodes.reserve(json_->size());
  for (const PortJson &element : *json_) {
    nodes.push_back({element, fmt::format("{}[{}]", place_, nodes.size()), "."});
  }
  return nodes;
}

const std::string &PortJsonNode::text() const {
  if (!json_->is_string()) fail("expected text");
  return json_->get_ref<const std::string &>();
}

// The type keeps numbers of either sign apart; what passes the signed range is beyond `most`.
std::int64_t PortJsonNode::integer(std::int64_t least, std::int64_t most) const {
  const bool fits = json_->is_number_integer() &&
                    (!json_->is_number_unsigned() ||
                     json_->get<std::uint64_t>() <= static_cast<std::uint64_t>(INT64_MAX));
  const std::int64_t value = fits ? json_->get<std::int64_t>() : 0;
  if (!fits || value < least || value > most) {
    fail(fmt::format("expected a whole number from {} to {}", least, most));
  }
  return value;
}

bool PortJsonNode::flag() const {
  if (!json_->is_boolean()) fail("expected true or false");
  return json_->get<bool>();
}

std::string portTextOf(const PortJsonNode &node) {
  if (!node.json().is_object()) return node.text();
  node.requireKeys({"hex"});
  const PortJsonNode hex = node.at("hex");
  const std::optional<std::string> bytes = portBytesOfHex(hex.text());
  if (!bytes) hex.fail("expected bytes in hexadecimal capitals");
  return *bytes;
}

std::u16string portUnitsOf(const PortJsonNode &node) {
  if (!node.json().is_object()) return portWideOf(node.text()).value();  // JSON is valid UTF-8
  node.requireKeys({"units"});
  std::u16string units;
  for (const PortJsonNode &unit : node.at("units").elements()) {
    units.push_back(static_cast<char16_t>(unit.integer(0, UINT16_MAX)));
  }
  return units;
}

std::string portFieldBytes(MEMFieldType type, std::int32_t length, const PortJsonNode &node) {
  const auto size = static_cast<std::size_t>(length);
  switch (type) {
    case MEM_PORT_CHAR:
      return padded(node, portTextOf(node), size, size, " ");
    case MEM_PORT_CHARSZ: {
      std::string text = portTextOf(node);
      refuseZero(node, text.find('\0') != std::string::npos);
      return padded(node, std::move(text), size - 1, size, std::string_view("", 1));
    }
    case MEM_PORT_WCHAR:
      return padded(node, bytesOf(portUnitsOf(node)), size, size, bytesOf(u" "));
    case MEM_PORT_WCHARSZ: {
      const std::u16string text = portUnitsOf(node);
      refuseZero(node, text.find(u'\0') != std::u16string::npos);
      const std::size_t room = size - size % sizeof(char16_t) - sizeof(char16_t);
      return padded(node, bytesOf(text), room, size, std::string_view("", 1));
    }
    case MEM_PORT_BIT:
      return std::string(1, static_cast<char>(node.integer(0, UINT8_MAX)));
    default: {
      const std::optional<std::string> bytes = portBytesOfHex(node.text());
      if (!bytes || bytes->size() != size) {
        node.fail(fmt::format("expected {} bytes in hexadecimal capitals", size));
      }
      return *bytes;
    }
  }
}

}  // namespace memtool
