// Which structures of a port string are shown: those of a kind, or those that can be reached from
// one of them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "port_defs.hpp"
#include "port_model.hpp"
#include "port_values.hpp"

namespace memtool {

// What the user wrote. Empty members do not filter.
struct PortFilter {
  std::string kind;  // a StructID, or a name of the definitions
  std::optional<std::uint32_t> root;
  std::optional<std::uint32_t> depth;
  std::optional<std::uint64_t> limit;

  bool isEmpty() const { return kind.empty() && !root && !depth && !limit; }
};

class PortSelection {
 public:
  // All structures.
  explicit PortSelection(const PortDocument &document);
  // Throws UnknownValue for a kind or a structure that the document does not have. `definitions`
  // may be null.
  PortSelection(const PortDocument &document, const PortFilter &filter,
                const PortDefinitions *definitions);

  bool isWhole() const { return isWhole_; }
  std::size_t shown() const { return shown_; }
  std::size_t matching() const { return matching_; }
  std::size_t leftOut() const { return matching_ - shown(); }
  // Sequence number of a shown structure.
  std::size_t number(std::size_t index) const { return isWhole_ ? index + 1 : numbers_[index]; }
  bool shows(std::size_t number) const;
  // Where the graph that is shown begins.
  std::size_t root() const { return root_; }
  // ", Order only, from structure 3 on, up to 2 pointers from there": what was asked for.
  const std::string &text() const { return text_; }
  PortJson json() const;

 private:
  bool isWhole_ = true;
  std::size_t matching_ = 0;
  std::size_t shown_ = 0;
  std::size_t root_ = 1;
  std::vector<std::size_t> numbers_;  // ascending; empty for all structures
  std::string text_;
};

// Sequence numbers of the structures that pointers lead to from `root` on, up to `depth` pointers
// away, in the order in which they are met. Numbers that the document does not have are left out.
std::vector<std::size_t> reachedStructures(const PortDocument &document, std::size_t root,
                                           std::optional<std::uint32_t> depth);

// Throws UnknownValue when the document has no such structure.
std::size_t checkedNumber(const PortDocument &document, std::uint32_t number);

}  // namespace memtool
