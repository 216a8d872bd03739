// The library's error codes with what stands behind each: the one table from which `memtool errors`
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

// One way in which a code comes about. Names of entry points have ", " between them. Words of the
// interface stand in backquotes, which plainText() removes.
struct ErrorCase {
  std::uint32_t code;
  Seen seen;
  std::string_view text;        // what is recorded, values as printf formats; may be empty
  std::string_view services;    // entry points that report it
  std::string_view passedOnBy;  // entry points that fail with it when a service they call does
  std::string_view cause;
  std::string_view remedy;
};

struct ErrorCode {
  std::uint32_t code;
  std::string_view name;
  std::string_view message;  // the row of the message table; empty when there is none
  std::string_view note;     // on the code as a whole; mostly empty
  std::span<const ErrorCase> cases;
};

// Codes that belong together, with the page of the manual on their services.
struct ErrorFamily {
  std::string_view title;
  std::string_view page;
  std::uint32_t first;
  std::uint32_t last;
};

// Ascending. Codes, names and messages are those of memerr.h, and MEM_CAT_CLOSE_ERROR, which has no
// row there.
std::span<const ErrorCode> errorCodes();

// The failures without a code, as a code of number 0; not one of errorCodes().
const ErrorCode &withoutCode();

// Ascending; each code is in one of them.
std::span<const ErrorFamily> errorFamilies();

struct SeenText {
  std::string_view label;  // "recorded"
  std::string_view result;
  std::string_view record;  // what the error area holds
};
inline constexpr std::size_t kSeenCount = 8;
SeenText seenText(Seen seen);

// The codes that a user may mean: those with a number (decimal, or hexadecimal behind 0x), else
// those whose name holds the text or is in it, else those with the text in their message, recorded
// texts, entry points, causes or remedies, or with a recorded text, values and all, in it. Capitals
// do not matter. withoutCode() is found as the number 0 and by its texts. All codes when nothing is
// wanted.
std::vector<const ErrorCode *> findErrorCodes(std::string_view wanted);

// The number that `text` is as a whole, or -1.
std::int64_t codeNumber(std::string_view text);

// "MEM_HashInsEntry, MEM_HashGetEntry" as a list.
std::vector<std::string_view> namesIn(std::string_view list);

std::string plainText(std::string_view text);

// "0xFE8".
std::string hexCode(std::uint32_t code);

// docs/codes.md.
std::string errorPage();

}  // namespace memtool
