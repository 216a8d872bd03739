// Reading of JSON that a user wrote. Mistakes are reported with their place.
#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "port_values.hpp"
#include "qj7mem00/memport.h"

namespace memtool {

// A document. The text that it is read from must outlive it.
class PortJsonText {
 public:
  // Throws ToolError with the place where the text stops being JSON, or where an object has a key a
  // second time.
  PortJsonText(std::string name, std::string_view text);

  const std::string &name() const { return name_; }
  const PortJson &document() const { return document_; }
  // "line 3, column 12"; "" for a value that is not the document's.
  std::string placeOf(const PortJson &value) const;

 private:
  void refuseRepeatedKeys() const;

  std::string name_;
  std::string_view text_;
  PortJson document_;
};

// What unknown keys show.
inline constexpr std::string_view kIsForChains =
    "these definitions are for packed chains, not for port strings";
inline constexpr std::string_view kIsForPortStrings =
    "these definitions are for port strings, not for packed chains";
// Types that fields of port strings do not have.
inline constexpr std::array<std::string_view, 4> kChainOnlyTypes{"SByte", "UByte", "Float",
                                                                 "Double"};

// A value within a document, which must outlive it. A value that does not have the wanted form is
// a ToolError that names the place: "defs.json: structures[0].id: … (line 3, column 12)".
class PortJsonNode {
 public:
  // A whole document.
  explicit PortJsonNode(const PortJsonText &text)
      : PortJsonNode(text, text.document(), text.name(), ": ") {}

  const PortJson &json() const { return *json_; }
  [[noreturn]] void fail(std::string_view what) const;

  // For objects.
  void requireKeys(std::initializer_list<std::string_view> known) const;
  // Fails for keys that belong to another kind of document, and says which kind that is.
  void refuseKeys(std::initializer_list<const char *> foreign, std::string_view what) const;
  PortJsonNode at(const std::string &key) const;
  std::optional<PortJsonNode> find(const std::string &key) const;
  PortJsonNode member(const std::string &key, const PortJson &value) const;

  std::vector<PortJsonNode> elements() const;
  const std::string &text() const;
  // A name for tables and pictures, and for use in place of a number: neither empty nor a number.
  const std::string &name() const;
  std::int64_t integer(std::int64_t least, std::int64_t most) const;
  // Values of fields: a number, or its decimal digits as text.
  std::int64_t number(std::int64_t least, std::int64_t most) const;
  std::uint64_t unsignedNumber() const;
  bool flag() const;

 private:
  PortJsonNode(const PortJsonText &text, const PortJson &json, std::string place,
               const char *separator)
      : text_(&text), json_(&json), place_(std::move(place)), separator_(separator) {}

  const PortJsonText *text_;
  const PortJson *json_;
  std::string place_;
  const char *separator_;  // before a member's name
};

// Where a graph is expected: fail for a key that only definitions have, in the document and in one
// of its structures.
void refuseDefinitions(const PortJsonNode &top);
void refuseDefinition(const PortJsonNode &structure);
// Where definitions are expected: fail for a key that only graphs have.
void refuseGraph(const PortJsonNode &top);
void refuseGraphStructure(const PortJsonNode &structure);

// The forms that writePortValue writes. `node` holds text, {"hex": …} or {"units": […]}.
std::string portTextOf(const PortJsonNode &node);
std::u16string portUnitsOf(const PortJsonNode &node);

// All `length` bytes of a field of type Char, CharSZ, Bin, Bit, WChar or WCharSZ.
std::string portFieldBytes(MEMFieldType type, std::int32_t length, const PortJsonNode &node);

}  // namespace memtool
