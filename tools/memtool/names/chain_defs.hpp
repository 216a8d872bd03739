// Definitions of the structures of a packed chain, read from JSON: names and types of the bytes
// whose number alone the control block states. docs/memtool-chain-names.md describes the JSON.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "packed_chain.hpp"
#include "port_json.hpp"

namespace memtool {

enum class ChainType : std::uint8_t {
  Char,     // text that fills its bytes
  CharSZ,   // text with its terminator
  WChar,    // wide text that fills its bytes
  WCharSZ,  // wide text with its terminator
  Bin,
  Bit,
  SByte,
  UByte,
  Short,
  UShort,
  Long,
  ULong,
  BigInt,
  UBigInt,
  Float,
  Double,
  PStr,   // a child that is narrow text
  WPStr,  // a child that is wide text
  Pnt     // any other pointer
};
const char *chainTypeName(ChainType type);

constexpr bool isPointer(ChainType type) {
  return type >= ChainType::PStr;
}
constexpr bool isChainText(ChainType type) {
  return type <= ChainType::WCharSZ;
}
constexpr bool isChainNumber(ChainType type) {
  return type >= ChainType::SByte && type <= ChainType::Double;
}
constexpr bool isSignedNumber(ChainType type) {
  return type == ChainType::SByte || type == ChainType::Short || type == ChainType::Long ||
         type == ChainType::BigInt;
}

struct ChainFieldDefinition {
  std::string name = {};
  ChainType type = ChainType::Bin;
  std::uint32_t offset = 0;
  std::uint32_t length = 0;  // in bytes; of one element of an array; 0 for pointers
  std::uint32_t count = 1;   // elements
  bool isArray = false;
  bool toEnd = false;                        // extends to the end of its segment
  Field role = Field::Child;                 // of a pointer
  std::optional<std::uint16_t> target = {};  // kind that a pointer leads to, if it is stated
  PortJsonNode node;                         // where it is defined

  // Its bytes in a segment with pointers of this width; 0 for a field to the end.
  std::uint32_t extent(std::uint32_t pointerWidth) const;
};

// A structure. Its index in the list is its kind of segment.
struct ChainKindDefinition {
  std::string name = {};  // its id if it has no name
  std::uint32_t id = 0;
  std::uint16_t kind = 0;
  Form form = Form::Fixed;
  std::uint16_t typeCode = 0;
  std::uint16_t fixedLen = 0;
  std::vector<ChainFieldDefinition> fields = {};  // as listed
  std::map<std::string, std::size_t, std::less<>> indices = {};
  PortJsonNode node;

  bool tellsLength() const { return form == Form::Counted || form == Form::SelfDescribing; }
  const ChainFieldDefinition *find(std::string_view field) const;
};

// Definitions without a fault of their own. checkAgainst() finds whether they fit a chain.
class ChainDefinitions {
 public:
  // Throws ToolError with line and column. Messages contain `name`.
  ChainDefinitions(const std::string &name, std::string json);
  ChainDefinitions(const ChainDefinitions &) = delete;
  ChainDefinitions &operator=(const ChainDefinitions &) = delete;

  // The bytes of a pointer that the offsets are for; 0 when the definitions do not say.
  std::uint32_t pointerWidth() const { return pointerWidth_; }
  const std::vector<ChainKindDefinition> &kinds() const { return kinds_; }
  // Both return null when the kind is not defined.
  const ChainKindDefinition *find(std::uint16_t kind) const;
  const ChainKindDefinition *find(std::string_view nameOrId) const;
  // "Package"; "StructID 7" without a name, "kind 3" for an undefined kind.
  std::string nameOf(std::uint16_t kind) const;

  // Throws ToolError with line and column when fields do not fit their segments with pointers of
  // this width.
  void checkLayout(std::uint32_t pointerWidth) const;
  // The same, and when they do not agree with the chain's control block. REQUIRES: the chain's
  // pointerWidth is known.
  void checkAgainst(const std::string &file, const PackedChain &chain) const;

  // The kind of text for fields that do not name one: the defined kind, or, if none is defined and
  // a field needs it, one after the defined kinds, narrow before wide.
  std::optional<std::uint16_t> textKind(Form form) const;
  // The number of kinds in a control block by these definitions.
  std::size_t kindCount() const;

 private:
  void addKinds(const std::vector<PortJsonNode> &nodes);
  void readForm(ChainKindDefinition &kind, const PortJsonNode &node);
  void addFields(ChainKindDefinition &kind);
  void addField(ChainKindDefinition &kind, const PortJsonNode &node, bool isLast);
  void readNext(ChainKindDefinition &kind);
  void readExtent(const ChainKindDefinition &kind, ChainFieldDefinition &field, bool isLast);
  void readPointer(ChainFieldDefinition &field);
  void readTarget(ChainFieldDefinition &field);
  void noteTexts(const ChainFieldDefinition &field);
  bool definesText(Form form) const;
  void checkLayoutOf(const ChainKindDefinition &kind, std::uint32_t pointerWidth) const;

  std::string json_;
  PortJsonText text_;
  std::uint32_t pointerWidth_ = 0;
  std::vector<ChainKindDefinition> kinds_;
  std::map<std::uint32_t, std::size_t> byId_;
  std::map<std::string, std::size_t, std::less<>> byName_;
  bool needsNarrow_ = false;  // a field leads to narrow text without naming its kind
  bool needsWide_ = false;
};

}  // namespace memtool
