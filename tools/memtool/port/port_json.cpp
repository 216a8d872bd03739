#include "port_json.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <set>
#include <system_error>
#include <utility>

#include "tool_errors.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

// Text as bytes, padded with `fill` to the whole characters of the field and with zeros to its
// length. The text may have `room` bytes.
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

// "line 3, column 12"; columns are characters.
std::string lineAt(std::string_view text, std::size_t offset) {
  const std::string_view before = text.substr(0, offset);
  const std::size_t end = before.rfind('\n');
  const std::size_t start = end == std::string_view::npos ? 0 : end + 1;
  return fmt::format("line {}, column {}", std::count(before.begin(), before.end(), '\n') + 1,
                     columnsOf(before.substr(start)) + 1);
}

// Offset after the string at `at`. A quote after an odd number of backslashes is part of it.
std::size_t afterString(std::string_view json, std::size_t at) {
  for (std::size_t end = json.find('"', at + 1); end < json.size(); end = json.find('"', end + 1)) {
    const std::size_t before = json.find_last_not_of('\\', end - 1);
    if ((end - before) % 2 == 1) return end + 1;
  }
  return json.size();
}

enum class Token { Key, Value, End };

// Calls `use` with each token of a JSON text, in order, and the offsets where it begins and ends.
// Of an object or array the first bracket is the value, and the last one the end.
template <class Use>
void forEachToken(std::string_view json, Use use) {
  constexpr std::string_view kBetween = " \t\r\n,:]}";
  for (std::size_t at = 0; at < json.size();) {
    const std::size_t start = at;
    if (json[at] == '"') {
      at = afterString(json, at);
      const std::size_t next = json.find_first_not_of(" \t\r\n", at);
      const bool isKey = next != std::string_view::npos && json[next] == ':';
      use(isKey ? Token::Key : Token::Value, start, at);
    } else if (json[at] == '{' || json[at] == '[') {
      use(Token::Value, start, ++at);
    } else if (json[at] == '}' || json[at] == ']') {
      use(Token::End, start, ++at);
    } else if (kBetween.find(json[at]) != std::string_view::npos) {
      ++at;
    } else {
      at = std::min(json.find_first_of(kBetween, at), json.size());
      use(Token::Value, start, at);
    }
  }
}

// Of all objects of a JSON text.
std::size_t countOfMembers(std::string_view json) {
  std::size_t count = 0;
  for (std::size_t at = 0; at < json.size();) {
    if (json[at] == '"') {
      at = afterString(json, at);
    } else if (json[at++] == ':') {
      ++count;
    }
  }
  return count;
}

// Of all objects of a document.
std::size_t countOfMembers(const PortJson &document) {
  std::size_t count = 0;
  std::vector<const PortJson *> waiting{&document};
  while (!waiting.empty()) {
    const PortJson &next = *waiting.back();
    waiting.pop_back();
    if (next.is_object()) count += next.size();
    for (const PortJson &element : next) {
      if (element.is_structured()) waiting.push_back(&element);
    }
  }
  return count;
}

// Calls `use` with each value of a document, in the order of its text.
template <class Use>
void forEachValue(const PortJson &document, Use use) {
  std::vector<const PortJson *> waiting{&document};
  while (!waiting.empty()) {
    const PortJson *const next = waiting.back();
    waiting.pop_back();
    use(*next);
    if (!next->is_structured()) continue;
    const std::size_t first = waiting.size();
    for (const PortJson &element : *next) waiting.push_back(&element);
    std::reverse(waiting.begin() + static_cast<std::ptrdiff_t>(first), waiting.end());
  }
}

// Finds the first key that an object of a JSON text has a second time.
class RepeatedKey {
 public:
  explicit RepeatedKey(std::string_view json) {
    forEachToken(json, [&](Token token, std::size_t from, std::size_t to) {
      if (!offset_) take(token, json.substr(from, to - from), from);
    });
  }

  std::optional<std::size_t> offset() const { return offset_; }
  const std::string &key() const { return levels_.back().key; }

  // Of the object, as in other messages: "structures[0]: ". Arbitrary JSON may be deep.
  std::string place(const std::string &name) const {
    constexpr std::size_t kMostLevels = 8;
    std::string text = name;
    const std::size_t steps = levels_.size() - 1;
    for (std::size_t i = 0; i < std::min(steps, kMostLevels); ++i) {
      const Level &level = levels_[i];
      text += level.isObject ? (i == 0 ? ": " : ".") + level.key
                             : fmt::format("[{}]", level.elements - 1);
    }
    return text + (steps > kMostLevels ? "…: " : ": ");
  }

 private:
  struct Level {
    bool isObject;
    std::size_t elements = 0;  // of an array, up to here
    std::string key = {};      // of an object: the last one
    std::set<std::string> keys = {};
  };

  void take(Token token, std::string_view text, std::size_t at) {
    if (token == Token::End) return levels_.pop_back();
    if (token == Token::Key) {
      levels_.back().key = PortJson::parse(text).get<std::string>();
      if (!levels_.back().keys.insert(levels_.back().key).second) offset_ = at;
      return;
    }
    if (!levels_.empty()) ++levels_.back().elements;
    if (text == "{" || text == "[") levels_.push_back({.isObject = text == "{"});
  }

  std::vector<Level> levels_;
  std::optional<std::size_t> offset_;
};

// A whole number as a JSON number or as text, which programs that know only doubles do not change.
template <class Number>
std::optional<Number> wholeNumber(const PortJson &json) {
  if (json.is_number_unsigned()) {
    const auto value = json.get<std::uint64_t>();
    if (!std::in_range<Number>(value)) return std::nullopt;
    return static_cast<Number>(value);
  }
  if (json.is_number_integer()) {
    const auto value = json.get<std::int64_t>();
    if (!std::in_range<Number>(value)) return std::nullopt;
    return static_cast<Number>(value);
  }
  if (!json.is_string()) return std::nullopt;
  const auto &text = json.get_ref<const std::string &>();
  Number value = 0;
  const auto [end, failed] = std::from_chars(text.data(), text.data() + text.size(), value);
  const bool isWhole = failed == std::errc() && end == text.data() + text.size();
  return isWhole ? std::optional<Number>(value) : std::nullopt;
}

constexpr std::string_view kIsGraph = "this is a graph, not definitions";
constexpr std::string_view kIsDefinitions = "these are definitions, not a graph";

}  // namespace

PortJsonText::PortJsonText(std::string name, std::string_view text)
    : name_(std::move(name)), text_(withoutByteOrderMark(text)) {
  try {
    document_ = PortJson::parse(text_);
  } catch (const PortJson::parse_error &error) {
    const std::size_t offset = error.byte > 0 ? error.byte - 1 : 0;
    throw ToolError(fmt::format("{}: no JSON from byte {} on ({})", name_,
                                offset + text.size() - text_.size(), lineAt(text_, offset)));
  } catch (const PortJson::exception &) {  // a number beyond all ranges
    throw ToolError(fmt::format("{}: JSON with a number that is too large", name_));
  }
  refuseRepeatedKeys();
}

// The document has only the last one of the values with the same key, so its objects have fewer
// members than those of the text. Counting them takes little time compared with parsing.
void PortJsonText::refuseRepeatedKeys() const {
  if (countOfMembers(document_) == countOfMembers(text_)) return;
  const RepeatedKey repeated(text_);
  throw ToolError(fmt::format("{}the key {} appears a second time ({})", repeated.place(name_),
                              inQuotes(repeated.key(), 40),
                              lineAt(text_, repeated.offset().value_or(0))));
}

std::string PortJsonText::placeOf(const PortJson &value) const {
  std::size_t count = 0;
  std::optional<std::size_t> wanted;
  forEachValue(document_, [&](const PortJson &each) {
    if (&each == &value) wanted = count;
    ++count;
  });
  if (!wanted) return "";
  std::string place;
  std::size_t number = 0;
  forEachToken(text_, [&](Token token, std::size_t from, std::size_t) {
    if (token == Token::Value && number++ == *wanted) place = lineAt(text_, from);
  });
  return place;
}

void PortJsonNode::fail(std::string_view what) const {
  const std::string line = text_->placeOf(*json_);
  throw ToolError(line.empty() ? fmt::format("{}: {}", place_, what)
                               : fmt::format("{}: {} ({})", place_, what, line));
}

void PortJsonNode::requireKeys(std::initializer_list<std::string_view> known) const {
  if (!json_->is_object()) fail("expected an object");
  for (const auto &[key, value] : json_->items()) {
    if (std::find(known.begin(), known.end(), key) != known.end()) continue;
    fail(fmt::format("unknown key {}; known are {}", inQuotes(key, 40), fmt::join(known, ", ")));
  }
}

void PortJsonNode::refuseKeys(std::initializer_list<const char *> foreign,
                              std::string_view what) const {
  for (const char *const key : foreign) {
    if (find(key)) fail(fmt::format("unknown key \"{}\": {}", key, what));
  }
}

PortJsonNode PortJsonNode::member(const std::string &key, const PortJson &value) const {
  return {*text_, value, place_ + separator_ + key, "."};
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
    nodes.push_back({*text_, element, fmt::format("{}[{}]", place_, nodes.size()), "."});
  }
  return nodes;
}

const std::string &PortJsonNode::text() const {
  if (!json_->is_string()) fail("expected text");
  return json_->get_ref<const std::string &>();
}

const std::string &PortJsonNode::name() const {
  const std::string &name = text();
  if (name.find_first_not_of("0123456789") == std::string::npos) {
    fail("a name must not be empty or a number");
  }
  if (inQuotes(name) != fmt::format("\"{}\"", name)) {
    fail("a name must not have control characters, quotes or backslashes");
  }
  return name;
}

// Does not take a number as text.
std::int64_t PortJsonNode::integer(std::int64_t least, std::int64_t most) const {
  if (json_->is_string()) fail(fmt::format("expected a whole number from {} to {}", least, most));
  return number(least, most);
}

std::int64_t PortJsonNode::number(std::int64_t least, std::int64_t most) const {
  const std::optional<std::int64_t> value = wholeNumber<std::int64_t>(*json_);
  if (!value || *value < least || *value > most) {
    fail(fmt::format("expected a whole number from {} to {}", least, most));
  }
  return *value;
}

std::uint64_t PortJsonNode::unsignedNumber() const {
  const std::optional<std::uint64_t> value = wholeNumber<std::uint64_t>(*json_);
  if (!value) fail(fmt::format("expected a whole number from 0 to {}", UINT64_MAX));
  return *value;
}

bool PortJsonNode::flag() const {
  if (!json_->is_boolean()) fail("expected true or false");
  return json_->get<bool>();
}

void refuseDefinitions(const PortJsonNode &top) {
  top.refuseKeys({"file"},
                 "this JSON was written without --defs, or with --check; a graph is written by "
                 "--defs DEFS.json --json");
  top.refuseKeys({"pointers"}, kIsDefinitions);
}

void refuseDefinition(const PortJsonNode &structure) {
  structure.refuseKeys({"id", "name", "length", "segment", "next", "countField", "countIsLength"},
                       kIsDefinitions);
}

void refuseGraph(const PortJsonNode &top) {
  top.refuseKeys({"file"}, "this is JSON on a file, not definitions");
  top.refuseKeys({"root", "selection", "notes", "faults"}, kIsGraph);
}

void refuseGraphStructure(const PortJsonNode &structure) {
  structure.refuseKeys({"label", "structure"}, kIsGraph);
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
