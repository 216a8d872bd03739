// Whether texts that were written with one set of definitions can be read with another, by the
// rules of the library's reader.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "port_defs.hpp"

namespace memtool {

// What happens to a text. Refused ones come first in a report.
enum class PortEffect : std::uint8_t {
  Refused,    // the reader refuses at least one text
  Dropped,    // it reads them, without this
  Changed,    // it reads them, and a value may become another one
  Undefined,  // it reads them, and does not initialise this
};
const char *nameOf(PortEffect effect);

struct PortFinding {
  PortEffect effect;
  std::uint32_t structID;  // of the structure text
  std::uint32_t fieldID;   // 0: the whole structure
  std::string structure;   // names, of the old definitions where they have them
  std::string field;
  std::string what;

  // "Order (StructID 12), field code: …".
  std::string text() const;
};

struct PortConformity {
  std::vector<PortFinding> findings;  // by effect, then as they were found

  bool isRefused() const;
  bool isLossless() const { return findings.empty(); }
};

// Texts of structures that are as `old` describes them: zero-terminated text ends within its field,
// embedded structures with their elements do so, too, and there is enough storage. With `root` only
// texts that begin with that structure count; null: any structure may be the first.
PortConformity checkConformity(const PortDefinitions &old, const PortDefinitions &fresh,
                               const PortStructDefinition *root);

}  // namespace memtool
