// Makes the page of the manual from the table.
#include <fmt/format.h>

#include "error_codes.hpp"

namespace memtool {
namespace {

constexpr std::string_view kHead =
    R"(# Codes

For everyone whose call has failed: the cause of each code, what the caller sees, and what to do. `memtool errors`
finds the same by decimal or hexadecimal number, by name, or by a part of a recorded text.

```
memtool errors 4028
memtool errors 0xFBC
memtool errors "Invalid Heap Handle"
```

[Find out why a call failed](why-a-call-failed.md) shows where the code is and how to go on from it.

This page is made from the table in `tools/memtool/errors/error_table.cpp`. To change it, change the table and run
`cmake --build --preset release --target codes_page`.

)";

constexpr std::string_view kSeenHead =
    R"(## Find the code and its text

Offsets count from the start of the thread environment (`MEMThreadEnv`). If a failure is recorded, `ReturnCode`
(offset 76) is 0xFFFF. Most calls erase the record when they begin, so read it right after the failing call. In recorded
texts, formats such as `%p` and `%ld` are replaced by values.

| In this page | Result | Error area |
|---|---|---|
)";

constexpr std::string_view kWithoutCode =
    R"(
If a service calls another one and that one fails, the record is that of the called service. The entries below name
the services that pass such a failure on; their result is -1.

Other numbers are not codes of the library: 65535 (0xFFFF) is the result of a failing call, and numbers in `InnerCode`
or `PrevInnerCode` that are not in the table below are the host's. The reference host's own numbers, 8 to 36, are in
[its header](../host/refhost.hpp). On a thread for which the host has no environment, nothing is recorded.

)";

std::string quotedCode(std::string_view list) {
  std::string text;
  for (const std::string_view name : namesIn(list)) {
    text += (text.empty() ? "`" : ", `") + std::string(name) + "`";
  }
  return text;
}

std::string seenTable() {
  std::string text;
  for (std::size_t i = 0; i < kSeenCount; ++i) {
    const SeenText seen = seenText(static_cast<Seen>(i));
    text += fmt::format("| {} | {} | {} |\n", seen.label, seen.result, seen.record);
  }
  return text;
}

std::string_view messageOf(const ErrorCode &code) {
  return code.message.empty() ? "no message" : code.message;
}

bool isIn(const ErrorCode &code, const ErrorFamily &family) {
  return family.first <= code.code && code.code <= family.last;
}

std::string listOfCodes() {
  std::string text = "## All codes\n\n| Code | | Name | Message |\n|---|---|---|---|\n";
  for (const ErrorCode &code : errorCodes()) {
    text += fmt::format("| [{}](#{}) | {} | `{}` | {} |\n", code.code, code.code,
                        hexCode(code.code), code.name, messageOf(code));
  }
  return text;
}

std::string caseText(const ErrorCase &known) {
  const SeenText seen = seenText(known.seen);
  std::string text = "\n**";
  text += known.text.empty() ? "No text" : fmt::format("\"{}\"", known.text);
  text += fmt::format("**, {}", seen.label);
  if (!known.services.empty()) text += ": " + quotedCode(known.services);
  text += "\n";
  if (!known.passedOnBy.empty()) {
    text += fmt::format("- Passed on by: {}\n", quotedCode(known.passedOnBy));
  }
  return text + fmt::format("- Cause: {}\n- What to do: {}\n", known.cause, known.remedy);
}

std::string codeText(const ErrorCode &code) {
  std::string text = fmt::format("\n### {}\n\n`{}`, {}: {}\n", code.code, code.name,
                                 hexCode(code.code), messageOf(code));
  if (!code.note.empty()) text += fmt::format("\n{}\n", code.note);
  for (const ErrorCase &known : code.cases) text += caseText(known);
  return text;
}

}  // namespace

std::string errorPage() {
  std::string page(kHead);
  page += kSeenHead;
  page += seenTable();
  page += kWithoutCode;
  page += listOfCodes();
  page += "\n## Failures without a code\n";
  for (const ErrorCase &known : withoutCode().cases) page += caseText(known);
  for (const ErrorFamily &family : errorFamilies()) {
    page +=
        fmt::format("\n## {}\n\nThe services: [{}]({}).\n", family.title, family.page, family.page);
    for (const ErrorCode &code : errorCodes()) {
      if (isIn(code, family)) page += codeText(code);
    }
  }
  return page;
}

}  // namespace memtool
