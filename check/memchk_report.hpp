// Places of calls, and findings: composed while the layer is locked, delivered afterwards.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "qj7mem00/memchk.h"

namespace memchk {

// Where a component has made a call; unknown if the slot is 0. Kept for each entry, so it is small.
struct Place {
  const void *pCaller = nullptr;
  std::uint64_t call = 0;
  std::uint32_t thread = 0;
  std::uint32_t slot = 0;

  bool isKnown() const noexcept { return slot != 0; }
};

// The name of the entry point in a slot; empty for the host's own.
const char *serviceName(std::uint32_t slot) noexcept;

// "MEM_HeapOpen, call 3, thread 1, from program+0x1234".
std::string placeText(const Place &place);

struct Finding {
  MEMCheckKind kind{};
  std::uint32_t code = 0;
  const void *pAddress = nullptr;
  const void *pObject = nullptr;
  const void *pOwner = nullptr;
  std::int64_t length = 0;
  std::int64_t given = 0;
  Place made;
  Place ended;
  std::string what;         // the first line: "4 bytes written after an entry"
  std::string where;        // the second line: the address and what it belongs to
  const char *pMade = "";   // what happened at `made`: "allocated"
  const char *pEnded = "";  // what happened at `ended`: "freed"
};
using Findings = std::vector<Finding>;

// Calls the host's function, or writes to stderr.
void deliver(const Finding &finding, const Place &found, MEMCheckReportFn *pReport, void *pContext);

// "0x00007F0012345678", the same on all platforms.
std::string addressText(const void *pAddress);
std::string countText(std::uint64_t count, const char *pWhat);  // "1 byte", "2 bytes"

}  // namespace memchk
