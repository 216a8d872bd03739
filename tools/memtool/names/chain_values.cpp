#include "chain_values.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>

#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr char kEbcdicBlank = 0x40;

// A number of 1, 2, 4 or 8 bytes in its writer's byte order.
std::uint64_t numberAt(bool isBigEndian, std::string_view bytes) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const std::size_t at = isBigEndian ? i : bytes.size() - 1 - i;
    number = number << 8 | static_cast<std::uint8_t>(bytes[at]);
  }
  return number;
}

template <class Float>
std::optional<PortJson> finite(Float value) {
  if (!std::isfinite(value)) return std::nullopt;
  return PortJson(value);
}

std::optional<PortJson> numberValue(bool isBigEndian, ChainType type, std::string_view bytes) {
  const std::uint64_t bits = numberAt(isBigEndian, bytes);
  switch (type) {
    case ChainType::Float:
      return finite(std::bit_cast<float>(static_cast<std::uint32_t>(bits)));
    case ChainType::Double:
      return finite(std::bit_cast<double>(bits));
    case ChainType::UBigInt:  // as text: programs that only know doubles would change them
      return PortJson(std::to_string(bits));
    case ChainType::BigInt:
      return PortJson(std::to_string(static_cast<std::int64_t>(bits)));
    case ChainType::SByte:
      return PortJson(static_cast<std::int8_t>(bits));
    case ChainType::Short:
      return PortJson(static_cast<std::int16_t>(bits));
    case ChainType::Long:
      return PortJson(static_cast<std::int32_t>(bits));
    default:
      return PortJson(bits);
  }
}

// In text without letters and digits, only blanks show whether it is EBCDIC or ASCII.
bool isEbcdicText(std::string_view text) {
  const auto isForeign = [](char c) { return (c & 0x80) != 0; };
  const auto isBlank = [](char c) { return c == kEbcdicBlank || c == 0; };
  return std::any_of(text.begin(), text.end(), isForeign) ||
         std::all_of(text.begin(), text.end(), isBlank);
}

PortJson narrowValue(const Version &writer, std::string_view bytes) {
  if (!writer.isEbcdic || !isEbcdicText(bytes)) {
    return portTextJson(bytes);
  }
  std::string utf8;
  for (const char byte : bytes) appendUtf8(utf8, latin1FromEbcdic(static_cast<std::uint8_t>(byte)));
  return utf8;
}

// None for invalid 4-byte characters.
std::optional<PortJson> wideValue(const Version &writer, std::string_view bytes) {
  if (writer.wideSize == 2) {
    std::u16string units;
    for (std::size_t at = 0; at < bytes.size(); at += 2) {
      units += static_cast<char16_t>(numberAt(writer.isBigEndian, bytes.substr(at, 2)));
    }
    return portUnitsJson(units);
  }
  std::string utf8;
  for (std::size_t at = 0; at < bytes.size(); at += 4) {
    const std::uint64_t point = numberAt(writer.isBigEndian, bytes.substr(at, 4));
    if (point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) return std::nullopt;
    appendUtf8(utf8, static_cast<char32_t>(point));
  }
  return PortJson(utf8);
}

// The bytes before the first zero character; none without one.
std::optional<std::string_view> untilZero(std::string_view bytes, std::size_t size) {
  for (std::size_t at = 0; at + size <= bytes.size(); at += size) {
    const std::string_view character = bytes.substr(at, size);
    if (character.find_first_not_of('\0') == std::string_view::npos) return bytes.substr(0, at);
  }
  return std::nullopt;
}

std::optional<PortJson> arrayValue(bool isBigEndian, const ChainFieldDefinition &field,
                                   std::string_view bytes) {
  PortJson array = PortJson::array();
  for (std::size_t at = 0; at + field.length <= bytes.size(); at += field.length) {
    std::optional<PortJson> element =
        numberValue(isBigEndian, field.type, bytes.substr(at, field.length));
    if (!element) return std::nullopt;
    array.push_back(std::move(*element));
  }
  return array;
}

template <class Number>
std::string bytesOf(Number value) {
  std::string bytes(sizeof value, '\0');
  std::memcpy(bytes.data(), &value, sizeof value);
  return bytes;
}

template <class Number>
std::string wholeBytes(const PortJsonNode &node) {
  using Limits = std::numeric_limits<Number>;
  return bytesOf(static_cast<Number>(node.number(Limits::min(), Limits::max())));
}

template <class Float>
std::string floatBytes(const PortJsonNode &node) {
  if (!node.json().is_number()) node.fail("expected a number");
  const auto value = static_cast<Float>(node.json().get<double>());
  if (!std::isfinite(value)) node.fail("the number is too large for its field");
  return bytesOf(value);
}

std::string numberBytes(ChainType type, const PortJsonNode &node) {
  switch (type) {
    case ChainType::SByte:
      return wholeBytes<std::int8_t>(node);
    case ChainType::UByte:
      return wholeBytes<std::uint8_t>(node);
    case ChainType::Short:
      return wholeBytes<std::int16_t>(node);
    case ChainType::UShort:
      return wholeBytes<std::uint16_t>(node);
    case ChainType::Long:
      return wholeBytes<std::int32_t>(node);
    case ChainType::ULong:
      return wholeBytes<std::uint32_t>(node);
    case ChainType::BigInt:
      return wholeBytes<std::int64_t>(node);
    case ChainType::Float:
      return floatBytes<float>(node);
    case ChainType::Double:
      return floatBytes<double>(node);
    default:
      return bytesOf(node.unsignedNumber());
  }
}

std::string arrayBytes(const ChainFieldDefinition &field, const PortJsonNode &node) {
  const std::vector<PortJsonNode> elements = node.elements();
  if (!field.toEnd && elements.size() != field.count) {
    node.fail(fmt::format("expected {} numbers", field.count));
  }
  std::string bytes;
  for (const PortJsonNode &element : elements) bytes += numberBytes(field.type, element);
  return bytes;
}

MEMFieldType portTypeOf(ChainType type) {
  switch (type) {
    case ChainType::Char:
      return MEM_PORT_CHAR;
    case ChainType::CharSZ:
      return MEM_PORT_CHARSZ;
    case ChainType::WChar:
      return MEM_PORT_WCHAR;
    case ChainType::WCharSZ:
      return MEM_PORT_WCHARSZ;
    case ChainType::Bit:
      return MEM_PORT_BIT;
    default:
      return MEM_PORT_BIN;
  }
}

// The bytes of a value for a field without a length.
std::size_t lengthOf(ChainType type, const PortJsonNode &node) {
  switch (type) {
    case ChainType::Char:
      return portTextOf(node).size();
    case ChainType::CharSZ:
      return portTextOf(node).size() + 1;
    case ChainType::WChar:
      return portUnitsOf(node).size() * sizeof(char16_t);
    case ChainType::WCharSZ:
      return (portUnitsOf(node).size() + 1) * sizeof(char16_t);
    default:
      return node.text().size() / 2;
  }
}

}  // namespace

std::optional<PortJson> chainValue(const Version &writer, const ChainFieldDefinition &field,
                                   std::string_view bytes) {
  if (field.isArray) return arrayValue(writer.isBigEndian, field, bytes);
  switch (field.type) {
    case ChainType::Char:
      return narrowValue(writer, bytes);
    case ChainType::CharSZ: {
      const std::optional<std::string_view> text = untilZero(bytes, 1);
      if (!text) return std::nullopt;
      return narrowValue(writer, *text);
    }
    case ChainType::WChar:
      if (bytes.size() % writer.wideSize != 0) return std::nullopt;
      return wideValue(writer, bytes);
    case ChainType::WCharSZ: {
      const std::optional<std::string_view> text = untilZero(bytes, writer.wideSize);
      if (!text) return std::nullopt;
      return wideValue(writer, *text);
    }
    case ChainType::Bin:
      return PortJson(portHex(bytes));
    case ChainType::Bit:
      return PortJson(static_cast<std::uint8_t>(bytes[0]));
    default:
      return numberValue(writer.isBigEndian, field.type, bytes);
  }
}

PortJson chainTextValue(const PackedChain &chain, const Text &text) {
  const Version &writer = *chain.version;
  const std::uint32_t zero = text.isWide ? writer.wideSize : 1;
  const std::string_view bytes = chain.bytesAt(text.place, text.length - zero);
  if (!text.isWide) return narrowValue(writer, bytes);
  return wideValue(writer, bytes).value_or(PortJson());  // valid: checked when the text was read
}

PortShown showChainValue(const ChainFieldDefinition &field, const PortJson &value,
                         std::size_t most) {
  if (isChainText(field.type)) {
    if (value.is_string()) {
      return {inQuotes(value.get_ref<const std::string &>(), most), Ink::Text};
    }
    return {value.dump(), Ink::Plain};
  }
  switch (field.type) {
    case ChainType::Bin:
      return showPortValue(
          PortBytes{portBytesOfHex(value.get_ref<const std::string &>()).value_or("")}, most);
    case ChainType::Bit:
      return showPortValue(PortFlags{value.get<std::uint8_t>()}, most);
    default:
      break;
  }
  if (!field.isArray) return {value.is_string() ? value.get<std::string>() : value.dump()};
  std::string list;
  for (const PortJson &element : value) {
    if (list.size() > most) return {list + " …"};
    if (!list.empty()) list += ' ';
    list += element.is_string() ? element.get<std::string>() : element.dump();
  }
  return list.empty() ? PortShown{"none", Ink::Dim} : PortShown{list};
}

std::string chainValueBytes(const ChainFieldDefinition &field, const PortJsonNode &node) {
  if (field.isArray) return arrayBytes(field, node);
  if (isChainNumber(field.type)) return numberBytes(field.type, node);
  const std::size_t length = field.toEnd ? lengthOf(field.type, node) : field.length;
  if (length == 0) return "";
  return portFieldBytes(portTypeOf(field.type), static_cast<std::int32_t>(length), node);
}

}  // namespace memtool
