#include "port_text.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "qj7mem00/memport.h"
#include "tool_progress.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

// Places in the header "(0000000064,0000000002)".
constexpr std::size_t kTotalOff = 1;
constexpr std::size_t kCountOff = 12;
constexpr std::size_t kDigits = 10;

constexpr std::uint64_t kMostId = 0x7FFFFFFF;  // a table of definitions ends below 1 as signed
constexpr std::uint64_t kMostFieldId = 0xFFFFFFFF;

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

// Reads one text. A fault ends the reading by being thrown, within this class only.
class Parser {
 public:
  Parser(std::string_view text, PortDocument &document, Console &console)
      : text_(text),
        document_(document),
        progress_(console, "reading the port string", text.size()) {}

  void run();

 private:
  // What the fields of one structure text have shown so far.
  struct FieldRun {
    std::uint32_t id = 0;
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
  void header();
  void checkTotal();
  PortStructure structure(int nesting);
  void fields(PortStructure &made, int nesting);
  void follow(FieldRun &run, std::uint32_t id, std::size_t offset);
  void checkElements(const PortStructure &made, const FieldRun &run);
  void separator();
  PortValue value(int nesting);
  PortNumber number();
  PortPointer pointer();
  PortFlags flags();
  PortBytes bytes();
  PortEmbedded embedded(int nesting);
  bool isFieldEnd() const { return !isAtEnd() && (peek() == '/' || peek() == '>'); }
  std::string narrow();
  char escaped();
  PortText string();
  std::u16string wide();
  char16_t escapedUnit();
  PortWideText wideString();
  void checkPairs(const Digits &told, const std::u16string &units);

  std::string_view text_;
  PortDocument &document_;
  Progress progress_;
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
  if (document_.deviation) return;
  document_.deviation = PortFault{offset, std::move(expected), std::move(found)};
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

void Parser::header() {
  const auto mark = [this](std::size_t offset, char c) {
    if (offset >= text_.size()) fail(offset, fmt::format("\"{}\" of the header", c));
    if (text_[offset] != c) deviate(offset, fmt::format("\"{}\" of the header", c));
  };
  mark(0, '(');
  headerNumber(kTotalOff, false);
  mark(kTotalOff + kDigits, ',');
  document_.promised = headerNumber(kCountOff, true);
  mark(kCountOff + kDigits, ')');
  at_ = MEM_PORT_HEADER_LEN;
  if (document_.promised == 0) fail(kCountOff, "a number of structures from 1 on", "0");
}

// Looked at last: a piece that is missing or too much is better told where it is.
void Parser::checkTotal() {
  if (document_.deviation) return;
  const std::uint64_t told = headerNumber(kTotalOff, false);
  if (told == text_.size()) return;
  deviate(kTotalOff, fmt::format("{:010} characters in all", text_.size()),
          fmt::format("{:010}", told));
}

void Parser::run() {
  header();
  while (document_.structures.size() < document_.promised) {
    progress_.redraw(at_);
    const std::size_t number = document_.structures.size() + 1;
    if (isAtEnd()) {
      fail(at_, fmt::format("structure text {} of {}", number, document_.promised));
    }
    if (number > highest_) {
      deviate(at_, "a structure that a pointer before it names", fmt::format("number {}", number));
      highest_ = number;
    }
    document_.structures.push_back(structure(0));
  }
  if (!isAtEnd()) {
    deviate(at_, fmt::format("the end behind {} structure{}", document_.promised,
                             document_.promised == 1 ? "" : "s"));
  }
  checkTotal();
}

PortStructure Parser::structure(int nesting) {
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
  fields(made, nesting);
  expect(')', "\")\" of the structure");
  return made;
}

// A structure of which no field is ported has an empty text.
void Parser::fields(PortStructure &made, int nesting) {
  FieldRun run;
  if (!isAtEnd() && peek() == '>') {
    ++at_;
    return;
  }
  for (;;) {
    progress_.update(at_);
    const std::size_t offset = at_;
    PortField field;
    field.id = identifier("a FieldID", kMostFieldId);
    field.offset = offset;
    follow(run, field.id, offset);
    field.value = value(nesting);
    made.fields.push_back(std::move(field));
    if (!isAtEnd() && peek() == '>') break;
    separator();
  }
  checkElements(made, run);
  ++at_;
}

// Fields ascend, and only the last one is there more than once.
void Parser::follow(FieldRun &run, std::uint32_t id, std::size_t offset) {
  if (id == run.id) {
    ++run.times;
    return;
  }
  const std::string got = fmt::format("field {}", id);
  if (id < run.id) deviate(offset, fmt::format("a FieldID from {} on", run.id), got);
  if (run.times > 1) deviate(offset, "no field behind the repeat field", got);
  run = {id, 1, offset};
}

void Parser::checkElements(const PortStructure &made, const FieldRun &run) {
  if (run.times < 2 || made.elements == run.times) return;
  deviate(run.offset,
          fmt::format("field {} {} time{}", run.id, made.elements.value_or(1),
                      made.elements.value_or(1) == 1 ? "" : "s"),
          fmt::format("it {} times", run.times));
}

void Parser::separator() {
  if (isAtEnd()) fail(at_, "\"/\" of a further field or \">\" behind the last one");
  if (peek() != '/') deviate(at_, "\"/\" of a further field or \">\" behind the last one");
  ++at_;
}

PortValue Parser::value(int nesting) {
  const std::size_t offset = at_;
  switch (take("a field's value")) {
    case '"':
      return PortText{narrow(), false, false};
    case '\'':
      return PortWideText{wide(), false, false};
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
      return embedded(nesting);
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
  if (made.isNegative && read.value == 0) deviate(read.offset, "digits behind \"-\"");
  constexpr std::uint64_t kLowest = std::uint64_t{1} << 63;
  if (read.isTooLarge || (made.isNegative && read.value > kLowest)) {
    deviate(read.offset, "a number of at most 64 bits", "more");
  }
  if (made.magnitude == 0) made.isNegative = false;
  return made;
}

PortPointer Parser::pointer() {
  const Digits read = digits();
  if (read.isTooLarge || read.value > document_.promised) {
    fail(read.offset, fmt::format("a structure number up to {}", document_.promised),
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
  PortBytes made;
  const auto nibble = [this] {
    const char c = take("two hexadecimal digits");
    if (isDigit(c)) return static_cast<std::uint32_t>(c - '0');
    if (c >= 'A' && c <= 'F') return static_cast<std::uint32_t>(c - 'A') + 10;
    fail(at_ - 1, "two hexadecimal digits in capitals, \"/\" or \">\"");
  };
  while (!isFieldEnd()) {
    const std::uint32_t high = nibble();
    made.bytes.push_back(static_cast<char>(high * 16 + nibble()));
  }
  return made;
}

PortEmbedded Parser::embedded(int nesting) {
  if (nesting == MEM_PORT_MAX_NESTING) {
    fail(at_ - 1, fmt::format("at most {} structures within one another", MEM_PORT_MAX_NESTING));
  }
  return {std::make_unique<PortStructure>(structure(nesting + 1))};
}

// Behind the opening quote, up to the closing one.
std::string Parser::narrow() {
  std::string made;
  for (;;) {
    const char c = take("\" at the end of text");
    if (c == '"') return made;
    if (c == '\0') deviate(at_ - 1, "/0 for a zero byte");
    made.push_back(c == '/' ? escaped() : c);
  }
}

char Parser::escaped() {
  const char c = take("the character behind \"/\"");
  if (c == '0') return '\0';
  if (c != '"' && c != '/') deviate(at_ - 1, "one of 0 / \" behind \"/\"");
  return c;
}

PortText Parser::string() {
  PortText made{"", true, isFieldEnd()};
  if (made.isNull) return made;
  const Digits told = digits();
  expect('"', "the string's length and \"");
  made.bytes = narrow();
  if (told.isTooLarge || told.value != made.bytes.size()) {
    fail(told.offset, fmt::format("{} as the string's length", made.bytes.size()),
         told.isTooLarge ? "more" : std::to_string(told.value));
  }
  if (made.bytes.find('\0') != std::string::npos) {
    deviate(told.offset, "a string without a zero byte", "one");
  }
  return made;
}

std::u16string Parser::wide() {
  std::u16string made;
  for (;;) {
    const char c = take("' at the end of wide text");
    if (c == '\'') return made;
    if (c == '/') {
      made.push_back(escapedUnit());
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    if (byte == 0 || byte > 127) deviate(at_ - 1, "\"/\" in front of a unit that is not 1 to 127");
    made.push_back(byte);
  }
}

// A digit n and n characters of 6 bits each, or the character itself.
char16_t Parser::escapedUnit() {
  const std::size_t offset = at_;
  const char c = take("the character behind \"/\"");
  if (!isDigit(c)) {
    if (c != '\'' && c != '/') deviate(offset, "a digit, \"/\" or ' behind \"/\"");
    return static_cast<unsigned char>(c);
  }
  std::uint32_t value = 0;
  bool isPlain = true;  // groups as a writer writes them
  for (int groups = c - '0'; groups > 0; --groups) {
    const char group = take("the groups of a wide unit");
    isPlain = isPlain && group >= '0' && group <= 'o';
    value = value * 64 + static_cast<std::uint32_t>(static_cast<unsigned char>(group)) - '0';
  }
  const char shortest = value < 128 ? '0' : value < 4096 ? '2' : '3';
  if (!isPlain || value > 0xFFFF || c != shortest) {
    deviate(offset, "a unit in as few groups of 6 bits as it needs", found(offset));
  }
  return static_cast<char16_t>(value);
}

PortWideText Parser::wideString() {
  PortWideText made{u"", true, isFieldEnd()};
  if (made.isNull) return made;
  const Digits codePoints = digits();
  expect(';', "the number of code points and \";\"");
  const Digits pairs = digits();
  expect('\'', "the number of surrogate pairs and '");
  made.units = wide();
  const std::uint64_t units = made.units.size();
  if (codePoints.isTooLarge || pairs.isTooLarge || pairs.value > units ||
      codePoints.value != units - pairs.value) {
    fail(codePoints.offset, fmt::format("{} as the sum of code points and pairs", units),
         codePoints.isTooLarge || pairs.isTooLarge
             ? "more"
             : fmt::format("{} and {}", codePoints.value, pairs.value));
  }
  checkPairs(pairs, made.units);
  return made;
}

void Parser::checkPairs(const Digits &told, const std::u16string &units) {
  const auto pairs =
      static_cast<std::uint64_t>(std::count_if(units.begin(), units.end(), isHighSurrogate));
  if (told.value != pairs) {
    deviate(told.offset, fmt::format("{} as the number of surrogate pairs", pairs),
            std::to_string(told.value));
  }
  if (units.find(u'\0') != std::u16string::npos) {
    deviate(told.offset, "a string without a zero unit", "one");
  }
}

}  // namespace

std::string PortFault::text() const {
  return fmt::format("character {}: expected {}, found {}", offset, expected, found);
}

PortDocument readPortText(std::string_view text, Console &console) {
  PortDocument document;
  document.characters = text.size();
  try {
    Parser(text, document, console).run();
  } catch (PortFault &fault) {
    document.fault = std::move(fault);
  }
  return document;
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
