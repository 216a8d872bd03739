#include "port_selection.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <numeric>

#include "tool_errors.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

std::optional<std::uint32_t> numberFrom(const std::string &text) {
  std::uint32_t number = 0;
  const char *const end = text.data() + text.size();
  const auto read = std::from_chars(text.data(), end, number);
  if (text.empty() || read.ec != std::errc() || read.ptr != end) return {};
  return number;
}

// The StructID that a user named. Without definitions a kind is what the text has.
std::uint32_t kindFrom(const std::string &kind, const PortDocument &document,
                       const PortDefinitions *definitions) {
  if (definitions != nullptr) {
    if (const PortStructDefinition *known = definitions->find(kind)) return known->id;
    throw UnknownValue(
        fmt::format("--kind: the definitions have no structure {}", inQuotes(kind, 40)));
  }
  const std::optional<std::uint32_t> id = numberFrom(kind);
  for (std::size_t number = 1; id && number <= document.count(); ++number) {
    if (document.structure(number).id == *id) return *id;
  }
  throw UnknownValue(
      id ? fmt::format("--kind: no structure has the StructID {}", *id)
         : fmt::format("--kind: {} is no StructID; names need --defs", inQuotes(kind, 40)));
}

// Calls `visit` with the number of each structure that a field of this one points to, those of
// embedded structures too.
template <class Visit>
void forEachTarget(PortReader &reader, const Visit &visit) {
  PortField field;
  while (reader.depth() > 0) {
    if (!reader.next(field)) continue;
    const auto *pointer = std::get_if<PortPointer>(&field.value);
    if (pointer != nullptr && pointer->number != 0) visit(pointer->number);
  }
}

}  // namespace

std::vector<std::size_t> reachedStructures(const PortDocument &document, std::size_t root,
                                           std::optional<std::uint32_t> depth) {
  const std::size_t count = document.count();
  std::vector<bool> isReached(count + 1, false);
  std::vector<std::size_t> reached;
  const auto reach = [&](std::size_t number) {
    if (number == 0 || number > count || isReached[number]) return;
    isReached[number] = true;
    reached.push_back(number);
  };
  reach(root);
  std::size_t next = 0;
  for (std::uint32_t steps = 0; next < reached.size() && (!depth || steps < *depth); ++steps) {
    for (const std::size_t end = reached.size(); next < end; ++next) {
      forEachTarget(*document.read(reached[next]), reach);
    }
  }
  return reached;
}

std::size_t checkedNumber(const PortDocument &document, std::uint32_t number) {
  if (number >= 1 && number <= document.count()) return number;
  throw UnknownValue(fmt::format(
      "--root: there is no structure {}; {}", number,
      document.count() == 0
          ? "none was read"
          : fmt::format("those that were read are 1 to {}", grouped(document.count()))));
}

PortSelection::PortSelection(const PortDocument &document)
    : matching_(document.count()), shown_(document.count()) {}

PortSelection::PortSelection(const PortDocument &document, const PortFilter &filter,
                             const PortDefinitions *definitions)
    : PortSelection(document) {
  isWhole_ = filter.isEmpty();
  if (isWhole_) return;
  if (filter.root) {
    root_ = checkedNumber(document, *filter.root);
    text_ += fmt::format(", from structure {} on", root_);
  }
  if (filter.root || filter.depth) {
    numbers_ = reachedStructures(document, root_, filter.depth);
    std::sort(numbers_.begin(), numbers_.end());
  } else {
    numbers_.resize(document.count());
    std::iota(numbers_.begin(), numbers_.end(), std::size_t{1});
  }
  if (filter.depth) {
    text_ += fmt::format(", up to {} from there", countOf(*filter.depth, "pointer"));
  }
  if (!filter.kind.empty()) {
    const std::uint32_t id = kindFrom(filter.kind, document, definitions);
    text_ += fmt::format(", of StructID {}", id);
    const auto isOther = [&](std::size_t number) { return document.structure(number).id != id; };
    numbers_.erase(std::remove_if(numbers_.begin(), numbers_.end(), isOther), numbers_.end());
  }
  matching_ = numbers_.size();
  if (filter.limit && *filter.limit < numbers_.size()) {
    numbers_.resize(static_cast<std::size_t>(*filter.limit));
  }
  shown_ = numbers_.size();
}

bool PortSelection::shows(std::size_t number) const {
  if (isWhole_) return number >= 1 && number <= shown_;
  return std::binary_search(numbers_.begin(), numbers_.end(), number);
}

PortJson PortSelection::json() const {
  return {{"matching", matching_}, {"shown", shown()}, {"leftOut", leftOut()}};
}

}  // namespace memtool
