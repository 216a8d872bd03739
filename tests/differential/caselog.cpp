#include "caselog.hpp"

#include <charconv>
#include <cstring>

#include "casestorage.hpp"
#include "hostcalls.hpp"

namespace replay {

namespace {

using refhost::HostCall;
using refhost::Service;
using refhost::TraceRecord;

std::uint64_t hashOf(const void *from, std::size_t length, std::uint64_t hash) {
  const auto *at = static_cast<const std::uint8_t *>(from);
  for (; length >= 8; at += 8, length -= 8) {
    std::uint64_t word;
    std::memcpy(&word, at, sizeof word);
    hash = (hash ^ word) * 0x9E3779B97F4A7C15U;
    hash ^= hash >> 32;
  }
  for (; length > 0; ++at, --length) hash = (hash ^ *at) * 1099511628211U;
  return hash ^ hash >> 29;
}

std::string hex(std::uint64_t value) {
  char digits[16];
  const auto end = std::to_chars(digits, digits + sizeof digits, value, 16);
  return std::string(digits, end.ptr);
}

void appendHex(std::string &text, std::uint8_t byte) {
  constexpr char kDigits[] = "0123456789abcdef";
  text += kDigits[byte >> 4];
  text += kDigits[byte & 15];
}

bool isHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
}

// Here all that a service is given is shown, and cells and frames by their addresses.
std::string_view argumentKinds(Service service) {
  switch (service) {
    case Service::ConvertText:
      return "nnan";
    case Service::WriteRecord:
    case Service::WriteException:
    case Service::WriteWideRecord:
      return "nn";
    default: {
      const std::string_view kinds = memtest::argumentKinds(service);
      return kinds.empty() ? "aa" : kinds;
    }
  }
}

// A text in a field of a fixed length, without the zeros at its end.
template <std::size_t length>
std::string_view textOf(const char (&field)[length]) {
  std::size_t end = length;
  while (end > 0 && field[end - 1] == '\0') --end;
  return {field, end};
}

bool writesRecord(Service service) {
  return service == Service::WriteRecord || service == Service::WriteException ||
         service == Service::WriteWideRecord;
}

}  // namespace

void CaseLog::setModule(const void *start, std::size_t length) {
  moduleStart_ = reinterpret_cast<std::uintptr_t>(start);
  moduleLen_ = length;
}

std::uint64_t CaseLog::digest() const {
  return hashOf(text_.data(), text_.size(), text_.size());
}

void CaseLog::writeOn() {
  if (stream_ == nullptr) return;
  std::fwrite(text_.data(), 1, text_.size(), stream_);
  std::fflush(stream_);
  clear();
}

CaseLog &CaseLog::operator<<(std::int64_t number) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, number);
  text_.append(digits, end.ptr);
  return *this;
}

// Empty for an address that is the same in every run.
std::string_view CaseLog::nameOf(std::uint64_t address) const {
  if (isOnOwnStack(address)) return "stack";
  if (address - moduleStart_ < moduleLen_) return "module";
  return isFixed(address) || address < 0x10000 ? "" : "elsewhere";
}

CaseLog &CaseLog::address(std::uint64_t value) {
  const std::string_view name = nameOf(value);
  if (name.empty()) {
    *this << "0x" << hex(value);
  } else {
    *this << name;
  }
  return *this;
}

std::size_t CaseLog::hexLength(std::string_view text) const {
  std::size_t length = 0;
  while (length < text.size() && isHexDigit(text[length])) ++length;
  return length;
}

// Whether the digits are an address of the library's code or of a local of its own. Of a hash
// function and of most locals the low 32 bits are shown.
bool CaseLog::isIncomparable(std::string_view digits, bool isFunction) const {
  if (digits.size() > 16 || (digits.size() < 8 && !isFunction)) return false;
  std::uint64_t value = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
  if (digits.size() > 8) return isOnOwnStack(value) || value - moduleStart_ < moduleLen_;
  const auto lowHalf = static_cast<std::uint32_t>(value);
  if (isFunction) return lowHalf - static_cast<std::uint32_t>(moduleStart_) < moduleLen_;
  return isOnOwnStackByLowHalf(lowHalf);
}

CaseLog &CaseLog::quoted(std::string_view text) {
  constexpr std::string_view kFunction = "pFunc=";
  text_ += '"';
  while (!text.empty()) {
    const std::size_t digits = hexLength(text);
    if (digits > 0) {
      const std::string_view shown = text.substr(0, digits);
      const bool isFunction = std::string_view(text_).ends_with(kFunction);
      text_ += isIncomparable(shown, isFunction) ? std::string_view("<incomparable>") : shown;
      text.remove_prefix(digits);
      continue;
    }
    const char c = text.front();
    text.remove_prefix(1);
    if (c >= ' ' && c <= '~' && c != '\\') {
      text_ += c;
    } else {
      text_ += "\\x";
      appendHex(text_, static_cast<std::uint8_t>(c));
    }
  }
  text_ += '"';
  return *this;
}

void CaseLog::bytes(std::string_view what, const void *from, std::size_t length) {
  constexpr std::size_t kOnALine = 32;
  *this << what << " ";
  *this << static_cast<std::int64_t>(length) << " bytes " << hex(hashOf(from, length, length));
  end();
  if (stream_ == nullptr) return;
  const auto *const bytes = static_cast<const std::uint8_t *>(from);
  for (std::size_t at = 0; at < length; at += kOnALine) {
    const bool isLikeLast = at >= kOnALine && length - at >= kOnALine &&
                            std::memcmp(bytes + at, bytes + at - kOnALine, kOnALine) == 0;
    if (isLikeLast) continue;  // a line stands for all of its kind that follow
    *this << "    +" << static_cast<std::int64_t>(at) << " ";
    for (std::size_t i = at; i < length && i < at + kOnALine; ++i) appendHex(text_, bytes[i]);
    end();
  }
}

Watch::Watch(refhost::Host &host, CaseLog &log) : host_(host), log_(log) {
  host_.recordCalls(true);
  host_.keepRecords(true);
}

void Watch::finish() {
  log_.end();
  showHostCalls();
  showEnvironment();
  log_.writeOn();
}

void Watch::showHostCalls() {
  const std::vector<TraceRecord> records = host_.takeRecords();
  std::size_t nextRecord = 0;
  for (const HostCall &call : host_.takeCalls()) {
    log_ << "  " << call.frame << ": " << refhost::serviceName(call.service) << "(";
    const std::string_view kinds = argumentKinds(call.service);
    for (std::size_t i = 0; i < kinds.size(); ++i) {
      if (i > 0) log_ << ", ";
      if (kinds[i] == 'n') {
        log_ << static_cast<std::int64_t>(call.args[i]);
      } else {
        log_.address(call.args[i]);
      }
    }
    log_ << ")";
    if (call.service == Service::Format) {  // its length may be that of an incomparable address
      log_.end();
      continue;
    }
    log_ << " = ";
    log_.address(call.result).end();
    if (!writesRecord(call.service) || nextRecord == records.size()) continue;
    const TraceRecord &record = records[nextRecord++];
    log_ << "  record " << record.type << " " << record.function << "(" << record.source << ":"
         << std::int64_t{record.line} << ") ";
    log_.quoted(record.text).end();
  }
}

void Watch::showEnvironment() {
  MEMThreadEnv &env = host_.thread();
  MEMErrorArea &error = env.Error;
  static constexpr MEMErrorArea kClear{};
  if (std::memcmp(&error, &kClear, sizeof error) != 0) {
    log_ << "  error " << std::int64_t{error.Component} << " " << std::int64_t{error.ReturnCode}
         << " " << std::int64_t{error.Code} << " " << std::int64_t{error.InnerCode} << " "
         << std::int64_t{error.PrevInnerCode} << " ";
    log_.quoted(textOf(error.NameText)) << " ";
    log_.quoted(textOf(error.InnerText)).end();
    MEMErrorArea rest = error;
    std::memset(rest.NameText, 0, sizeof rest.NameText);
    std::memset(rest.InnerText, 0, sizeof rest.InnerText);
    log_.bytes("  error area", &rest, sizeof rest);
  }
  if (env.MessageText[0] != '\0') {
    log_ << "  message ";
    log_.quoted(textOf(env.MessageText)).end();
    std::memset(env.MessageText, 0, sizeof env.MessageText);
  }
  for (const refhost::Misuse &misuse : host_.takeMisuses()) {
    log_ << "  misuse " << refhost::serviceName(misuse.service) << " ";
    log_.quoted(misuse.what).end();
  }
}

void Watch::storage(std::uint16_t subPool) {
  for (const refhost::Leak &area : host_.leaks()) {
    if (area.subPool != subPool) continue;
    log_ << "storage ";
    log_.address(area.area) << " of kind " << std::int64_t{area.kind};
    log_.bytes("", area.area, area.length);
  }
}

}  // namespace replay
