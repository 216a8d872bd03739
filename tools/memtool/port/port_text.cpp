#include "port_text.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "port_values.hpp"
#include "qj7mem00/memport.h"
#include "tool_progress.hpp"

namespace memtool {
namespace {

// Places in the header "(0000000064,0000000002)".
constexpr std::size_t kTotalOff = 1;
constexpr std::size_t kCountOff = 12;
constexpr std::size_t kDigits = 10;

constexpr std::uint64_t kMostId = 0x7FFFFFFF;  // a table of definitions ends below 1 as signed
constexpr std::uint64_t kMostFieldId = 0xFFFFFFFF;

constexpr const char *kNoQuote = "\" at the end of text";
constexpr const char *kNoWideQuote = "' at the end of wide text";

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

bool isHighSurrogate(char16_t unit) {
  return unit >= 0xD800 && unit <= 0xDBFF;
}

// Reversed digits.
struct Digits {
  std::size_t offset = 0;
  std::size_t count = 0;
  std::uint64_t value = 0;  // wraps
  bool isTooLarge = false;  // did wrap
};

// Text between quotes, without escapes.
struct Quoted {
  std::string_view source;  // with its escapes
  std::size_t length = 0;
  std::size_t highSurrogates = 0;
  bool hasZero = false;
};

// The number in groups of 6 bits, which are a wide unit; wraps.
std::uint32_t numberOf(std::string_view groups) {
  std::uint32_t number = 0;
  for (const char group : groups) {
    number = number * 64 + std::uint32_t{static_cast<std::uint8_t>(group)} - '0';
  }
  return number;
}

// Reads structure texts of one port string, a field at a time. A fault ends the reading by being
// thrown, within this file only.
class Parser final : public PortReader {
 public:
  Parser(std::string_view text, std::uint64_t promised) : text_(text), promised_(promised) {}

  // The structure text at the place, of which it is known that it has no fault.
  Parser(std::string_view text, std::uint64_t promised, std::size_t place)
      : Parser(text, promised) {
    at_ = place;
    highest_ = promised;
    beginStructure();
  }

  const PortStructure &structure() const override { return structure_; }
  std::size_t depth() const override { return open_.size(); }
  bool next(PortField &field) override;

  // For a whole port string: its header, each structure text with its number, and its end.
  void readHeader();
  void begin(std::size_t number);
  void checkEnd();
  void checkTotal();

  std::size_t at() const { return at_; }
  std::uint64_t promised() const { return promised_; }
  const std::optional<PortFault> &deviation() const { return deviation_; }
  // Characters after those that have been read.
  std::size_t unread() const { return text_.size() - at_; }

 private:
  // What the fields of one structure text have shown so far.
  struct Open {
    std::optional<std::uint64_t> elements;
    std::uint32_t id = 0;  // of the last field, and how often it was there
    std::uint64_t times = 0;
    std::size_t offset = 0;
  };

  bool isAtEnd() const { return at_ == text_.size(); }
  char peek() const { return text_[at_]; }
  std::string found(std::size_t offset) const;
  [[noreturn]] void fail(std::size_t offset, std::string expected) const;
  [[noreturn]] void fail(std::size_t offset, std::string expected, std::string found) const;
  void deviate(std::size_t offset, std::string expected);
  void deviate(std::size_t offset, std::string expected, std::string found);

  char take(const char *expected);
  void expect(char c, const char *expected);
  Digits digits();
  std::uint32_t identifier(const char *what, std::uint64_t most);

  std::uint64_t headerNumber(std::size_t offset, bool isNeeded);
  void beginStructure() { structure_ = head(); }
  PortStructure head();
  void endStructure();
  void follow(std::uint32_t id, std::size_t offset);
  void checkElements(const Open &open);
  void separator();
  PortValue value();
  PortNumber number();
  PortPointer pointer();
  PortFlags flags();
  PortBytes bytes();
  PortEmbedded embedded();
  bool isFieldEnd() const { return !isAtEnd() && (peek() == '/' || peek() == '>'); }
  Quoted narrow();
  char escaped();
  PortText text();
  PortText string();
  Quoted wide();
  char16_t escapedUnit();
  PortWideText wideText();
  PortWideText wideString();
  void checkPairs(const Digits &told, const Quoted &units);

  std::string_view text_;
  std::uint64_t promised_;  // structures
  std::optional<PortFault> deviation_;
  PortStructure structure_;  // of the top level
  std::vector<Open> open_;   // it and those embedded in it
  std::size_t at_ = 0;
  std::uint64_t highest_ = 1;  // structure number that a pointer has named so far
};

std::string Parser::found(std::size_t offset) const {
  if (offset >= text_.size()) return "the end";
  const auto byte = static_cast<std::uint8_t>(text_[offset]);
  if (byte < 0x20 || byte > 0x7E) return fmt::format("the byte {:02X}", byte);
  return fmt::format("'{}'", text_[offset]);
}

void Parser::fail(std::size_t offset, std::string expected) const {
  fail(offset, std::move(expected), found(offset));
}

void Parser::fail(std::size_t offset, std::string expected, std::string found) const {
  throw PortFault{offset, std::move(expected), std::move(found)};
}

void Parser::deviate(std::size_t offset, std::string expected) {
  deviate(offset, std::move(expected), found(offset));
}

void Parser::deviate(std::size_t offset, std::string expected, std::string found) {
  if (deviation_) return;
  deviation_ = PortFault{offset, std::move(expected), std::move(found)};
}

char Parser::take(const char *expected) {
  if (isAtEnd()) fail(at_, expected);
  return text_[at_++];
}

void Parser::expect(char c, const char *expected) {
  if (isAtEnd() || peek() != c) fail(at_, expected);
  ++at_;
}

Digits Parser::digits() {
  Digits made{at_, 0, 0, false};
  std::uint64_t weight = 1;
  bool isBeyond = false;  // the weight has left 64 bits
  for (; !isAtEnd() && isDigit(peek()); ++at_, ++made.count) {
    const auto digit = static_cast<std::uint64_t>(peek() - '0');
    const bool fits = !isBeyond && (digit == 0 || weight <= UINT64_MAX / digit) &&
                      made.value <= UINT64_MAX - digit * weight;
    if (digit != 0 && !fits) made.isTooLarge = true;
    made.value += digit * weight;
    isBeyond = isBeyond || weight > UINT64_MAX / 10;
    weight *= 10;
  }
  if (made.count > 0 && text_[at_ - 1] == '0') {
    deviate(at_ - 1, "a most significant digit, which is not 0");
  }
  return made;
}

std::uint32_t Parser::identifier(const char *what, std::uint64_t most) {
  const Digits read = digits();
  if (read.value == 0 || read.isTooLarge || read.value > most) {
    const std::string got = read.count == 0   ? found(read.offset)
                            : read.isTooLarge ? "more"
                                              : std::to_string(read.value);
    fail(read.offset, fmt::format("{} from 1 to {}", what, most), got);
  }
  return static_cast<std::uint32_t>(read.value);
}

// A number of the header, in ordinary order. Readers look at one of them only, which must be there.
std::uint64_t Parser::headerNumber(std::size_t offset, bool isNeeded) {
  const bool isThere = !isNeeded || portPromised(text_) > 0;
  std::uint64_t value = 0;
  for (std::size_t at = offset; at < offset + kDigits; ++at) {
    if (at < text_.size() && isDigit(text_[at])) {
      value = value * 10 + static_cast<std::uint64_t>(text_[at] - '0');
    } else if (!isThere || at >= text_.size()) {
      fail(at, "ten digits in the header");
    } else {
      deviate(at, "ten digits in the header");
    }
  }
  return isNeeded ? portPromised(text_) : value;
}

void Parser::readHeader() {
  const auto mark = [this](std::size_t offset, char c) {
    if (offset >= text_.size()) fail(offset, fmt::format("\"{}\" of the header", c));
    if (text_[offset] != c) deviate(offset, fmt::format("\"{}\" of the header", c));
  };
  mark(0, '(');
  headerNumber(kTotalOff, false);
  mark(kTotalOff + kDigits, ',');
  promised_ = headerNumber(kCountOff, true);
  mark(kCountOff + kDigits, ')');
  at_ = MEM_PORT_HEADER_LEN;
  if (promised_ == 0) fail(kCountOff, "a number of structures from 1 on", "0");
}

// Checked last: a missing or surplus piece is better reported where it is.
void Parser::checkTotal() {
  if (deviation_) return;
  const std::uint64_t told = headerNumber(kTotalOff, false);
  if (told == text_.size()) return;
  deviate(kTotalOff, fmt::format("{:010} characters in all", text_.size()),
          fmt::format("{:010}", told));
}

void Parser::checkEnd() {
  if (isAtEnd()) return;
  deviate(at_, fmt::format("the end after {} structure{}", promised_, promised_ == 1 ? "" : "s"));
}

void Parser::begin(std::size_t number) {
  if (isAtEnd()) fail(at_, fmt::format("structure text {} of {}", number, promised_));
  if (number > highest_) {
    deviate(at_, "a structure that a pointer before it names", fmt::format("number {}", number));
    highest_ = number;
  }
  beginStructure();
}

PortStructure Parser::head() {
  PortStructure made;
  made.offset = at_;
  expect('(', "\"(\" of a structure");
  made.id = identifier("a StructID", kMostId);
  if (!isAtEnd() && peek() == ',') {
    ++at_;
    made.elements = digits().value;
  }
  expect('<', made.elements ? "digits of the element count or \"<\" of the fields"
                            : "digits of the StructID, \",\" or \"<\" of the fields");
  open_.push_back({made.elements, 0, 0, 0});
  return made;
}

void Parser::endStructure() {
  checkElements(open_.back());
  ++at_;
  expect(')', "\")\" of the structure");
  open_.pop_back();
}

// A structure of which no field is ported has an empty text.
bool Parser::next(PortField &field) {
  if (!isAtEnd() && peek() == '>') {
    endStructure();
    return false;
  }
  const bool isFirst = open_.back().times == 0;
  if (!isFirst) separator();
  field.offset = at_;
  field.id = identifier("a FieldID", kMostFieldId);
  follow(field.id, field.offset);
  field.value = value();
  return true;
}

// Fields ascend, and only the last one may come more than once.
void Parser::follow(std::uint32_t id, std::size_t offset) {
  Open &open = open_.back();
  if (id == open.id) {
    ++open.times;
    return;
  }
  if (id < open.id) {
    deviate(offset, fmt::format("a FieldID from {} on", open.id), fmt::format("field {}", id));
  }
  if (open.times > 1) {
    deviate(offset, "no field after the repeat field", fmt::format("field {}", id));
  }
  open = {open.elements, id, 1, offset};
}

void Parser::checkElements(const Open &open) {
  if (open.times < 2 || open.elements == open.times) return;
  deviate(open.offset,
          fmt::format("field {} {} time{}", open.id, open.elements.value_or(1),
                      open.elements.value_or(1) == 1 ? "" : "s"),
          fmt::format("it {} times", open.times));
}

void Parser::separator() {
  if (isAtEnd()) fail(at_, "\"/\" of a further field or \">\" after the last one");
  if (peek() != '/') deviate(at_, "\"/\" of a further field or \">\" after the last one");
  ++at_;
}

PortValue Parser::value() {
  const std::size_t offset = at_;
  switch (take("a field's value")) {
    case '"':
      return text();
    case '\'':
      return wideText();
    case 'X':
      return string();
    case 'x':
      return wideString();
    case 'H':
      return bytes();
    case 'N':
      return number();
    case 'S':
      return pointer();
    case 'B':
      return flags();
    case 'E':
      return embedded();
    default:
      fail(offset, "a field's value, which begins with one of \" ' X x H N S B E");
  }
}

// Readers take a sign by itself for 0, and digits that pass the width.
PortNumber Parser::number() {
  PortNumber made;
  if (!isAtEnd() && peek() == '-') {
    made.isNegative = true;
    ++at_;
  }
  const Digits read = digits();
  made.magnitude = read.value;
  if (made.isNegative && read.value == 0) deviate(read.offset, "digits after \"-\"");
  constexpr std::uint64_t kLowest = std::uint64_t{1} << 63;
  if (read.isTooLarge || (made.isNegative && read.value > kLowest)) {
    deviate(read.offset, "a number of at most 64 bits", "more");
  }
  if (made.magnitude == 0) made.isNegative = false;
  return made;
}

PortPointer Parser::pointer() {
  const Digits read = digits();
  const auto most = std::min<std::uint64_t>(promised_, UINT32_MAX);
  if (read.isTooLarge || read.value > most) {
    fail(read.offset, fmt::format("a structure number up to {}", most),
         read.isTooLarge ? "more" : std::to_string(read.value));
  }
  if (read.value > highest_ + 1) {
    deviate(read.offset, fmt::format("a structure number up to {}, the next new one", highest_ + 1),
            std::to_string(read.value));
  }
  highest_ = std::max(highest_, read.value);
  return {static_cast<std::uint32_t>(read.value)};
}

PortFlags Parser::flags() {
  PortFlags made;
  for (std::uint32_t bit = 0; bit < 8; ++bit) {
    if (isAtEnd() || (peek() != '0' && peek() != '1')) fail(at_, "eight flags, each 0 or 1");
    if (peek() == '1') made.bits = static_cast<std::uint8_t>(made.bits | 1U << bit);
    ++at_;
  }
  return made;
}

PortBytes Parser::bytes() {
  const std::size_t begin = at_;
  const auto nibble = [this] {
    const char c = take("two hexadecimal digits");
    if (isDigit(c) || (c >= 'A' && c <= 'F')) return;
    fail(at_ - 1, "two hexadecimal digits in capitals, \"/\" or \">\"");
  };
  while (!isFieldEnd()) {
    nibble();
    nibble();
  }
  return {text_.substr(begin, at_ - begin), true};
}

PortEmbedded Parser::embedded() {
  if (open_.size() > MEM_PORT_MAX_NESTING) {
    fail(at_ - 1, fmt::format("at most {} structures within one another", MEM_PORT_MAX_NESTING));
  }
  return {head()};
}

// From the character after the opening quote to the closing one.
Quoted Parser::narrow() {
  const std::size_t begin = at_;
  Quoted made;
  for (char c = take(kNoQuote); c != '"'; c = take(kNoQuote)) {
    if (c == '\0') deviate(at_ - 1, "/0 for a zero byte");
    if (c == '/') c = escaped();
    made.hasZero = made.hasZero || c == '\0';
    ++made.length;
  }
  made.source = text_.substr(begin, at_ - 1 - begin);
  return made;
}

char Parser::escaped() {
  const char c = take("the character after \"/\"");
  if (c == '0') return '\0';
  if (c != '"' && c != '/') deviate(at_ - 1, "one of 0 / \" after \"/\"");
  return c;
}

PortText Parser::text() {
  const Quoted read = narrow();
  return {read.source, read.length, true, false, false};
}

PortText Parser::string() {
  if (isFieldEnd()) return {{}, 0, false, true, true};
  const Digits told = digits();
  expect('"', "the string's length and \"");
  const Quoted read = narrow();
  if (told.isTooLarge || told.value != read.length) {
    fail(told.offset, fmt::format("{} as the string's length", read.length),
         told.isTooLarge ? "more" : std::to_string(told.value));
  }
  if (read.hasZero) deviate(told.offset, "a string without a zero byte", "one");
  return {read.source, read.length, true, true, false};
}

Quoted Parser::wide() {
  const std::size_t begin = at_;
  Quoted made;
  for (char c = take(kNoWideQuote); c != '\''; c = take(kNoWideQuote)) {
    const auto byte = static_cast<unsigned char>(c);
    const bool isEscape = c == '/';
    if (byte == 0 || byte > 127) deviate(at_ - 1, "\"/\" before a unit that is not 1 to 127");
    const char16_t unit = isEscape ? escapedUnit() : byte;
    made.hasZero = made.hasZero || unit == 0;
    if (isHighSurrogate(unit)) ++made.highSurrogates;
    ++made.length;
  }
  made.source = text_.substr(begin, at_ - 1 - begin);
  return made;
}

// A digit n and n characters of 6 bits each, or the character itself.
char16_t Parser::escapedUnit() {
  const std::size_t offset = at_;
  const char c = take("the character after \"/\"");
  if (!isDigit(c)) {
    if (c != '\'' && c != '/') deviate(offset, "a digit, \"/\" or ' after \"/\"");
    return static_cast<unsigned char>(c);
  }
  bool isPlain = true;  // groups as a writer writes them
  for (int groups = c - '0'; groups > 0; --groups) {
    const char group = take("the groups of a wide unit");
    isPlain = isPlain && group >= '0' && group <= 'o';
  }
  const std::uint32_t value = numberOf(text_.substr(offset + 1, at_ - offset - 1));
  const char shortest = value < 128 ? '0' : value < 4096 ? '2' : '3';
  if (!isPlain || value > 0xFFFF || c != shortest) {
    deviate(offset, "a unit in as few groups of 6 bits as it needs", found(offset));
  }
  return static_cast<char16_t>(value);
}

PortWideText Parser::wideText() {
  const Quoted read = wide();
  return {read.source, read.length, true, false, false};
}

PortWideText Parser::wideString() {
  if (isFieldEnd()) return {{}, 0, false, true, true};
  const Digits codePoints = digits();
  expect(';', "the number of code points and \";\"");
  const Digits pairs = digits();
  expect('\'', "the number of surrogate pairs and '");
  const Quoted read = wide();
  const std::uint64_t units = read.length;
  if (codePoints.isTooLarge || pairs.isTooLarge || pairs.value > units ||
      codePoints.value != units - pairs.value) {
    fail(codePoints.offset, fmt::format("{} as the sum of code points and pairs", units),
         codePoints.isTooLarge || pairs.isTooLarge
             ? "more"
             : fmt::format("{} and {}", codePoints.value, pairs.value));
  }
  checkPairs(pairs, read);
  return {read.source, read.length, true, true, false};
}

void Parser::checkPairs(const Digits &told, const Quoted &units) {
  if (told.value != units.highSurrogates) {
    deviate(told.offset, fmt::format("{} as the number of surrogate pairs", units.highSurrogates),
            std::to_string(told.value));
  }
  if (units.hasZero) deviate(told.offset, "a string without a zero unit", "one");
}

// A port string by the places of its structure texts.
class TextSource final : public PortSource {
 public:
  TextSource(std::string_view text, std::uint64_t promised) : text_(text), promised_(promised) {}

  std::size_t count() const override { return places_.size(); }
  std::unique_ptr<PortReader> read(std::size_t number) const override {
    return std::make_unique<Parser>(text_, promised_, places_[number - 1]);
  }
  void add(std::size_t place) { places_.push_back(place); }

 private:
  std::string_view text_;
  std::uint64_t promised_;
  std::vector<std::size_t> places_;
};

// All structure texts; those before a fault are in `source` when it is thrown.
void readStructures(Parser &parser, TextSource &source, Progress &progress) {
  PortField field;
  while (source.count() < parser.promised()) {
    const std::size_t place = parser.at();
    progress.redraw(place);
    parser.begin(source.count() + 1);
    while (parser.depth() > 0) {
      parser.next(field);
      progress.update(parser.at());
    }
    source.add(place);
  }
}

}  // namespace

std::optional<PortFault> firstPortFault(const PortDocument &document) {
  const bool hasDeviation = document.deviation && (!document.fault || document.deviation->offset <
                                                                          document.fault->offset);
  return hasDeviation ? document.deviation : document.fault;
}

std::string PortFault::text() const {
  return fmt::format("character {}: expected {}, found {}", offset, expected, found);
}

std::string PortText::bytes(std::size_t most) const {
  if (!isEscaped) return std::string(source.substr(0, most));
  const std::size_t wanted = std::min(length, most);
  std::string made;
  made.reserve(wanted);
  for (std::size_t at = 0; made.size() < wanted; ++at) {
    const bool isEscape = source[at] == '/';
    if (isEscape) ++at;
    made.push_back(isEscape && source[at] == '0' ? '\0' : source[at]);
  }
  return made;
}

std::u16string PortWideText::units(std::size_t most) const {
  std::u16string made(std::min(length, most), u'\0');
  if (!isEscaped) {
    if (!made.empty()) std::memcpy(made.data(), source.data(), made.size() * sizeof(char16_t));
    return made;
  }
  std::size_t at = 0;
  for (char16_t &unit : made) {
    const bool isEscape = source[at] == '/';
    if (isEscape) ++at;
    const auto byte = static_cast<std::uint8_t>(source[at++]);
    unit = byte;
    if (!isEscape || !isDigit(static_cast<char>(byte))) continue;
    const std::size_t groups = byte - std::size_t{'0'};
    unit = static_cast<char16_t>(numberOf(source.substr(at, groups)));
    at += groups;
  }
  return made;
}

std::string PortBytes::bytes(std::size_t first, std::size_t count) const {
  if (!isHex) return std::string(source.substr(first, count));
  return portBytesOfHex(source.substr(2 * first, 2 * std::min(count, size()))).value();
}

PortDocument readPortText(std::string_view text, Console &console) {
  PortDocument document;
  document.characters = text.size();
  Parser parser(text, 0);
  auto source = std::make_unique<TextSource>(text, portPromised(text));
  try {
    parser.readHeader();
    Progress progress(console, "reading the port string", text.size());
    readStructures(parser, *source, progress);
    document.unread = parser.unread();
    parser.checkEnd();
    parser.checkTotal();
  } catch (PortFault &fault) {
    document.fault = std::move(fault);
  }
  document.promised = parser.promised();
  document.source = std::move(source);
  document.deviation = parser.deviation();
  return document;
}

bool isPortText(std::string_view text) {
  return text.size() >= MEM_PORT_HEADER_LEN && text[0] == '(' && text[kTotalOff + kDigits] == ',' &&
         text[kCountOff + kDigits] == ')';
}

std::uint64_t portPromised(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\n\v\f\r";
  std::string_view number = text.substr(std::min(kCountOff, text.size()), kDigits);
  number.remove_prefix(std::min(number.find_first_not_of(kBlanks), number.size()));
  if (number.starts_with('-')) return 0;
  if (number.starts_with('+')) number.remove_prefix(1);
  std::uint64_t promised = 0;
  for (const char c : number) {
    if (!isDigit(c)) break;
    promised = promised * 10 + static_cast<std::uint64_t>(c - '0');
  }
  return promised;
}

std::uint32_t portRootId(std::string_view text) {
  std::uint32_t id = 0;
  std::uint32_t weight = 1;
  for (std::size_t at = MEM_PORT_HEADER_LEN + 1; at < text.size() && isDigit(text[at]); ++at) {
    id += static_cast<std::uint32_t>(text[at] - '0') * weight;
    weight *= 10;
  }
  return id;
}

}  // namespace memtool
