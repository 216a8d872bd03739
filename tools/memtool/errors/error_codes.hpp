// The library's error codes with their causes and remedies: the table from which `memtool errors`
// and the page docs/codes.md are made.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace memtool {

// How a failure reaches its caller.
enum class Seen {
  Recorded,     // -1; Code holds the code, NameText the text
  WithCode,     // the same, but the result is the code
  EarlierText,  // -1; Code holds the code, NameText a text that an earlier failure left
  Inner,        // -1; InnerCode holds the code, InnerText the text; Code is not the library's
  InsideCat,    // -1; Code is 4027, InnerCode holds the code, InnerText the text
  ResultOnly,   // the result is the code; nothing is recorded
  WithoutCode,  // fails as the cause says and leaves no code
  Never         // no service of this library reports it
};

// One way in which a code occurs. Names of entry points are separated by ", ". Words of the
// interface are in backquotes, which plainText() removes.
struct ErrorCase {
  std::uint32_t code;
  Seen seen;
  std::string_view text;        // the recorded text, with printf formats for values; may be empty
  std::string_view services;    // entry points that report it
  std::string_view passedOnBy;  // entry points that fail with it when a service that they call does
  std::string_view cause;
  std::string_view remedy;
};

struct ErrorCode {
  std::uint32_t code;
  std::string_view name;
  std::string_view message;  // the row of the message table; empty when there is none
  std::string_view note;     // on the code as a whole; may be empty
  std::span<const ErrorCase> cases;
};

// Codes of one subject, with the page of the manual on the services.
struct ErrorFamily {
  std::string_view title;
  std::string_view page;
  std::uint32_t first;
  std::uint32_t last;
};

// In ascending order: the codes, names and messages of memerr.h, and MEM_CAT_CLOSE_ERROR, which has
// no row there.
std::span<const ErrorCode> errorCodes();

// The failures without a code, as a code of number 0; not one of errorCodes().
const ErrorCode &withoutCode();

// In ascending order; each code is in one of them.
std::span<const ErrorFamily> errorFamilies();

struct SeenText {
  std::string_view label;  // "recorded"
  std::string_view result;
  std::string_view record;  // the contents of the error area
};
inline constexpr std::size_t kSeenCount = 8;
SeenText seenText(Seen seen);

// The codes that a user may mean: by number (decimal, or hexadecimal after 0x); else those whose
// name contains the text or is part of it; else those whose message, recorded texts, entry points,
// causes or remedies contain it, or with a recorded text that it contains, with values for the
// formats. Ignores case. A number that is no code finds nothing, also where a text
// contains it. withoutCode() is found by the number 0 and by its texts. An empty text finds all
// codes.
std::vector<const ErrorCode *> findErrorCodes(std::string_view wanted);

// True for a number as numbers of codes are written, also a negative one or one of any length.
bool isCodeNumber(std::string_view text);

// The number if `text` is one of 32 bits, else -1.
std::int64_t codeNumber(std::string_view text);

// True for -1 and for what it looks like as an unsigned number of 16 or 32 bits: the result of most
// failing calls, which users may take for a code.
bool isFailedResult(std::string_view text);

// "MEM_HashInsEntry, MEM_HashGetEntry" as a list.
std::vector<std::string_view> namesIn(std::string_view list);

std::string plainText(std::string_view text);

// "0xFE8".
std::string hexCode(std::uint32_t code);

// The text of docs/codes.md.
std::string errorPage();

}  // namespace memtool
