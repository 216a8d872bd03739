#include "refhost_format.hpp"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "refhost_impl.hpp"
#include "refhost_unicode.hpp"

namespace refhost {

namespace {

// Text in a buffer of fixed size; what does not fit is dropped.
class BoundedText {
 public:
  BoundedText(char *dest, std::size_t room) : dest_(dest), capacity_(room - 1) {}

  void append(const char *text, std::size_t length) {
    length = std::min(length, capacity_ - length_);
    std::memcpy(dest_ + length_, text, length);
    length_ += length;
  }

  // Appends the whole text or nothing. After a text that does not fit, nothing more is appended.
  bool appendWhole(const char *text, std::size_t length) {
    if (length > capacity_ - length_) capacity_ = length_;
    append(text, length);
    return length_ < capacity_;
  }

  void fill(char c, std::size_t count) {
    count = std::min(count, capacity_ - length_);
    std::memset(dest_ + length_, c, count);
    length_ += count;
  }

  std::size_t terminate() {
    dest_[length_] = '\0';
    return length_;
  }

 private:
  char *dest_;
  std::size_t capacity_;
  std::size_t length_ = 0;
};

// Size of an argument. For texts and characters kHalf means narrow, kLong and kWide mean UTF-16.
enum class Size { kNone, kByte, kHalf, kLong, kDouble, kWide };

// One conversion: %[flags][width][.precision][size]conversion.
struct Conversion {
  bool left = false;
  bool plus = false;
  bool blank = false;
  bool zeros = false;
  bool alternate = false;
  std::size_t width = 0;
  bool hasPrecision = false;
  std::size_t precision = 0;
  Size size = Size::kNone;
  char type = '\0';
};

// Larger widths and precisions count as this one: no buffer is longer.
constexpr std::size_t kMaxField = 1U << 20;

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

std::size_t parseNumber(const char *&pos) {
  std::size_t number = 0;
  for (; isDigit(*pos); ++pos) {
    number = std::min(number * 10 + static_cast<std::size_t>(*pos - '0'), kMaxField);
  }
  return number;
}

std::size_t magnitude(std::int32_t value) {
  const auto wide = static_cast<std::int64_t>(value);
  return std::min(static_cast<std::size_t>(wide < 0 ? -wide : wide), kMaxField);
}

void parseFlags(const char *&pos, Conversion &spec) {
  for (;; ++pos) {
    switch (*pos) {
      case '-':
        spec.left = true;
        break;
      case '+':
        spec.plus = true;
        break;
      case ' ':
        spec.blank = true;
        break;
      case '0':
        spec.zeros = true;
        break;
      case '#':
        spec.alternate = true;
        break;
      default:
        return;
    }
  }
}

void parseWidth(const char *&pos, Conversion &spec, FormatArgs &args) {
  if (*pos != '*') {
    spec.width = parseNumber(pos);
    return;
  }
  ++pos;
  const auto width = static_cast<std::int32_t>(args.next());
  if (width < 0) spec.left = true;
  spec.width = magnitude(width);
}

void parsePrecision(const char *&pos, Conversion &spec, FormatArgs &args) {
  if (*pos != '.') return;
  ++pos;
  spec.hasPrecision = true;
  if (*pos != '*') {
    spec.precision = parseNumber(pos);
    return;
  }
  ++pos;
  const auto precision = static_cast<std::int32_t>(args.next());
  spec.hasPrecision = precision >= 0;  // a negative one counts as none
  spec.precision = magnitude(precision);
}

void parseSize(const char *&pos, Conversion &spec) {
  struct Prefix {
    const char *text;
    Size size;
  };
  static constexpr Prefix kPrefixes[] = {
      {"hh", Size::kByte},    {"h", Size::kHalf},   {"ll", Size::kDouble}, {"l", Size::kLong},
      {"I64", Size::kDouble}, {"I32", Size::kLong}, {"I", Size::kDouble},  {"j", Size::kDouble},
      {"t", Size::kDouble},   {"z", Size::kDouble}, {"w", Size::kWide},
  };
  for (const Prefix &prefix : kPrefixes) {
    const std::size_t length = std::strlen(prefix.text);
    if (std::strncmp(pos, prefix.text, length) != 0) continue;
    spec.size = prefix.size;
    pos += length;
    return;
  }
}

// Places prefix, zeros and body in the field. `write` appends the body, which is `bodyWidth` wide.
template <class Write>
void putField(BoundedText &out, const Conversion &spec, const char *prefix, std::size_t zeros,
              std::size_t bodyWidth, Write write) {
  const std::size_t used = std::strlen(prefix) + zeros + bodyWidth;
  const std::size_t padding = spec.width > used ? spec.width - used : 0;
  const bool padsWithZeros = spec.zeros && !spec.left;
  if (!spec.left && !padsWithZeros) out.fill(' ', padding);
  out.append(prefix, std::strlen(prefix));
  out.fill('0', zeros + (padsWithZeros ? padding : 0));
  write();
  if (spec.left) out.fill(' ', padding);
}

std::uint64_t narrowUnsigned(std::uint64_t value, Size size) {
  switch (size) {
    case Size::kByte:
      return static_cast<std::uint8_t>(value);
    case Size::kHalf:
      return static_cast<std::uint16_t>(value);
    case Size::kDouble:
      return value;
    default:
      return static_cast<std::uint32_t>(value);
  }
}

std::int64_t narrowSigned(std::uint64_t value, Size size) {
  switch (size) {
    case Size::kByte:
      return static_cast<std::int8_t>(value);
    case Size::kHalf:
      return static_cast<std::int16_t>(value);
    case Size::kDouble:
      return static_cast<std::int64_t>(value);
    default:
      return static_cast<std::int32_t>(value);
  }
}

// Digits and precision of an integer; with a precision the zero flag has no effect.
void putInteger(BoundedText &out, Conversion spec, std::uint64_t value, unsigned base,
                const char *prefix) {
  const char *const digits = spec.type == 'x' ? "0123456789abcdef" : "0123456789ABCDEF";
  char text[24];  // 22 octal digits hold 64 bits
  char *const end = text + sizeof(text);
  char *first = end;
  for (; value != 0; value /= base) *--first = digits[value % base];

  const auto count = static_cast<std::size_t>(end - first);
  std::size_t minimum = spec.hasPrecision ? spec.precision : 1;
  if (spec.alternate && base == 8) minimum = std::max(minimum, count + 1);
  if (spec.hasPrecision) spec.zeros = false;
  putField(out, spec, prefix, minimum > count ? minimum - count : 0, count,
           [&] { out.append(first, count); });
}

void putSigned(BoundedText &out, const Conversion &spec, std::uint64_t argument) {
  const std::int64_t value = narrowSigned(argument, spec.size);
  const char *sign = "";
  if (value < 0) {
    sign = "-";
  } else if (spec.plus) {
    sign = "+";
  } else if (spec.blank) {
    sign = " ";
  }
  const auto bits = static_cast<std::uint64_t>(value);
  putInteger(out, spec, value < 0 ? 0 - bits : bits, 10, sign);
}

void putUnsigned(BoundedText &out, const Conversion &spec, std::uint64_t argument) {
  const std::uint64_t value = narrowUnsigned(argument, spec.size);
  if (spec.type == 'u') return putInteger(out, spec, value, 10, "");
  if (spec.type == 'o') return putInteger(out, spec, value, 8, "");
  const bool isMarked = spec.alternate && value != 0;
  const char *const mark = spec.type == 'x' ? "0x" : "0X";
  putInteger(out, spec, value, 16, isMarked ? mark : "");
}

void putPointer(BoundedText &out, Conversion spec, std::uint64_t argument) {
  spec.type = 'X';
  spec.size = Size::kDouble;
  spec.hasPrecision = true;
  spec.precision = 16;
  putUnsigned(out, spec, argument);
}

void putNarrow(BoundedText &out, const Conversion &spec, const char *text) {
  std::size_t length = 0;
  while ((!spec.hasPrecision || length < spec.precision) && text[length] != '\0') ++length;
  putField(out, spec, "", 0, length, [&] { out.append(text, length); });
}

// Width and precision count the input's 16-bit units. The buffer's end splits no character.
void putUtf16(BoundedText &out, const Conversion &spec, const void *text, std::size_t count) {
  putField(out, spec, "", 0, count, [&] {
    for (std::size_t i = 0; i < count;) {
      const Decoded decoded = decodeUtf16(text, i, count);
      char bytes[4];
      if (!out.appendWhole(bytes, encodeUtf8(decoded.codePoint, bytes))) return;
      i += decoded.units;
    }
  });
}

void putWide(BoundedText &out, const Conversion &spec, const void *text) {
  std::size_t count = 0;
  while ((!spec.hasPrecision || count < spec.precision) && loadUnit<char16_t>(text, count) != 0) {
    ++count;
  }
  putUtf16(out, spec, text, count);
}

// %s and %c are narrow and %S and %C wide unless a size says otherwise.
bool isWide(const Conversion &spec) {
  if (spec.size == Size::kHalf) return false;
  if (spec.size == Size::kLong || spec.size == Size::kWide) return true;
  return spec.type == 'S' || spec.type == 'C';
}

void putText(BoundedText &out, const Conversion &spec, std::uint64_t argument) {
  const auto *const text = reinterpret_cast<const char *>(argument);
  if (text == nullptr) return putNarrow(out, spec, "(null)");
  if (isWide(spec)) return putWide(out, spec, text);
  putNarrow(out, spec, text);
}

void putCharacter(BoundedText &out, const Conversion &spec, std::uint64_t argument) {
  if (isWide(spec)) {
    const auto unit = static_cast<char16_t>(argument);
    return putUtf16(out, spec, &unit, 1);
  }
  const auto c = static_cast<char>(argument);
  putField(out, spec, "", 0, 1, [&] { out.append(&c, 1); });
}

// False for a conversion that does not exist.
bool putConversion(BoundedText &out, const Conversion &spec, FormatArgs &args) {
  switch (spec.type) {
    case 'd':
    case 'i':
      putSigned(out, spec, args.next());
      return true;
    case 'u':
    case 'o':
    case 'x':
    case 'X':
      putUnsigned(out, spec, args.next());
      return true;
    case 'p':
      putPointer(out, spec, args.next());
      return true;
    case 's':
    case 'S':
      putText(out, spec, args.next());
      return true;
    case 'c':
    case 'C':
      putCharacter(out, spec, args.next());
      return true;
    case '%':
      out.fill('%', 1);
      return true;
    default:
      return false;
  }
}

// `pos` is at the '%'; returns what follows the conversion.
const char *formatOne(BoundedText &out, const char *pos, FormatArgs &args) {
  const char *const start = pos++;
  Conversion spec;
  parseFlags(pos, spec);
  parseWidth(pos, spec, args);
  parsePrecision(pos, spec, args);
  parseSize(pos, spec);
  spec.type = *pos;
  if (*pos != '\0') ++pos;
  if (!putConversion(out, spec, args)) out.append(start, static_cast<std::size_t>(pos - start));
  return pos;
}

class WidenedArgs final : public FormatArgs {
 public:
  WidenedArgs(const std::uint64_t *args, std::size_t count) : args_(args), end_(args + count) {}
  std::uint64_t next() override {
    if (args_ == end_) throw std::invalid_argument("format has more conversions than arguments");
    return *args_++;
  }

 private:
  const std::uint64_t *args_;
  const std::uint64_t *end_;
};

// Each argument has eight bytes, whatever its type; the upper bytes of a shorter type are not used.
class VariadicArgs final : public FormatArgs {
 public:
  explicit VariadicArgs(std::va_list *args) : args_(args) {}
  std::uint64_t next() override { return va_arg(*args_, std::uint64_t); }

 private:
  std::va_list *args_;
};

constexpr std::size_t kFormatTextRoom = 65536;

}  // namespace

std::size_t formatBounded(char *dest, std::size_t room, const char *format, FormatArgs &args) {
  BoundedText out(dest, room);
  while (*format != '\0') {
    const std::size_t plain = std::strcspn(format, "%");
    out.append(format, plain);
    format += plain;
    if (*format == '%') format = formatOne(out, format, args);
  }
  return out.terminate();
}

std::string detail::formatWidened(const char *format, const std::uint64_t *args,
                                  std::size_t count) {
  std::vector<char> text(kFormatTextRoom);
  WidenedArgs source(args, count);
  return {text.data(), formatBounded(text.data(), text.size(), format, source)};
}

namespace services {

namespace {

// Bytes available at a destination, with the terminator.
std::size_t roomAt(const char *dest, ThreadState &thread) {
  const auto first = reinterpret_cast<std::uintptr_t>(thread.traceText());
  const auto at = reinterpret_cast<std::uintptr_t>(dest);
  const bool isTraceText = at >= first && at < first + kTraceTextRoom;
  return isTraceText ? first + kTraceTextRoom - at : kFormatRoom;
}

}  // namespace

std::int32_t format(char *pDest, const char *pFormat, ...) {
  Call call(Service::Format, pDest, pFormat);
  if (call.faulted()) return call.faultCode();
  std::va_list args;
  va_start(args, pFormat);
  VariadicArgs source(&args);
  const std::size_t length = formatBounded(pDest, roomAt(pDest, call.thread()), pFormat, source);
  va_end(args);
  return call.finish(static_cast<std::int32_t>(length));
}

}  // namespace services

}  // namespace refhost
