#include "error_codes.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>

namespace memtool {
namespace {

// In the order of Seen.
constexpr std::array<SeenText, kSeenCount> kSeenTexts{{
    {"recorded", "-1 (0xFFFF)", "`Code` (offset 80) is the code, `NameText` (offset 360) the text"},
    {"recorded and returned", "the code",
     "`Code` (offset 80) is the code, `NameText` (offset 360) the text"},
    {"recorded with an earlier text", "-1 (0xFFFF)",
     "`Code` (offset 80) is the code; `NameText` (offset 360) is a text that an earlier failure "
     "left"},
    {"recorded as inner code", "-1 (0xFFFF)",
     "`InnerCode` (offset 84) is the code, `InnerText` (offset 424) the text; `Code` is 0 or "
     "the host's own"},
    {"recorded under 4027", "-1 (0xFFFF)",
     "`Code` (offset 80) is 4027; `InnerCode` (offset 84) is the code, `InnerText` (offset 424) "
     "the "
     "text"},
    {"returned only", "the code", "nothing is recorded"},
    {"without a code", "-1 (0xFFFF), or as the cause says", "`Code` is not this failure's"},
    {"never", "none", "no service of this library reports it"},
}};

bool isHexadecimal(std::string_view text) {
  return text.starts_with("0x") || text.starts_with("0X");
}

std::string lowered(std::string_view text) {
  std::string result(text);
  std::ranges::transform(result, result.begin(),
                         [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return result;
}

// True if `line` contains a recorded text, with values for its formats.
bool holdsWithValues(std::string_view line, std::string_view recorded) {
  std::size_t at = 0;
  while (!recorded.empty()) {
    const std::size_t end = std::min(recorded.find('%'), recorded.size());
    const std::size_t found = line.find(recorded.substr(0, end), at);
    if (found == std::string_view::npos) return false;
    at = found + end;
    recorded.remove_prefix(end);
    if (recorded.empty()) break;
    recorded.remove_prefix(std::min(recorded.find_first_of("dupX") + 1, recorded.size()));
  }
  return at > 0;
}

// True for a part of a name, or a line of a log that contains a name.
bool isNamed(const ErrorCode &code, const std::string &wanted) {
  const std::string name = lowered(code.name);
  return name.find(wanted) != std::string::npos || wanted.find(name) != std::string::npos;
}

bool caseHolds(const ErrorCase &known, const std::string &wanted) {
  for (const std::string_view text :
       {known.text, known.services, known.passedOnBy, known.cause, known.remedy}) {
    if (lowered(plainText(text)).find(wanted) != std::string::npos) return true;
  }
  return holdsWithValues(wanted, lowered(known.text));
}

bool anyTextHolds(const ErrorCode &code, const std::string &wanted) {
  return lowered(code.message).find(wanted) != std::string::npos ||
         std::ranges::any_of(code.cases,
                             [&](const ErrorCase &known) { return caseHolds(known, wanted); });
}

template <class IsWanted>
std::vector<const ErrorCode *> codesThat(IsWanted isWanted) {
  std::vector<const ErrorCode *> found;
  for (const ErrorCode &code : errorCodes()) {
    if (isWanted(code)) found.push_back(&code);
  }
  return found;
}

}  // namespace

SeenText seenText(Seen seen) {
  return kSeenTexts[static_cast<std::size_t>(seen)];
}

bool isCodeNumber(std::string_view text) {
  const bool isHex = isHexadecimal(text);
  if (isHex) {
    text.remove_prefix(2);
  } else if (text.starts_with('-')) {
    text.remove_prefix(1);
  }
  const char *const digits = isHex ? "0123456789abcdefABCDEF" : "0123456789";
  return !text.empty() && text.find_first_not_of(digits) == std::string_view::npos;
}

std::int64_t codeNumber(std::string_view text) {
  const bool isHex = isHexadecimal(text);
  if (isHex) text.remove_prefix(2);
  std::uint32_t number = 0;
  const char *const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, isHex ? 16 : 10);
  return error == std::errc() && stop == end ? std::int64_t{number} : -1;
}

bool isFailedResult(std::string_view text) {
  const std::int64_t number = codeNumber(text);
  return text == "-1" || number == 0xFFFF || number == 0xFFFFFFFF;
}

std::vector<const ErrorCode *> findErrorCodes(std::string_view wanted) {
  const std::int64_t number = codeNumber(wanted);
  if (number == 0) return {&withoutCode()};
  if (isCodeNumber(wanted)) {
    return codesThat([&](const ErrorCode &code) { return code.code == number; });
  }
  const std::string text = lowered(wanted);
  const auto named = codesThat([&](const ErrorCode &code) { return isNamed(code, text); });
  if (!named.empty()) return named;
  auto found = codesThat([&](const ErrorCode &code) { return anyTextHolds(code, text); });
  if (!text.empty() && anyTextHolds(withoutCode(), text)) found.push_back(&withoutCode());
  return found;
}

std::vector<std::string_view> namesIn(std::string_view list) {
  std::vector<std::string_view> names;
  while (!list.empty()) {
    const std::size_t end = std::min(list.find(", "), list.size());
    names.push_back(list.substr(0, end));
    list.remove_prefix(std::min(end + 2, list.size()));
  }
  return names;
}

std::string plainText(std::string_view text) {
  std::string plain(text);
  std::erase(plain, '`');
  return plain;
}

std::string hexCode(std::uint32_t code) {
  return fmt::format("0x{:X}", code);
}

}  // namespace memtool
