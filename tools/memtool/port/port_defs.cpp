#include "port_defs.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <optional>

#include "tool_errors.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr std::int64_t kPointerLen = 8;
constexpr std::int64_t kWideUnit = 2;

struct TypeRow {
  const char *name;
  std::int64_t width;  // of the value; 0: it is the field's length
};

// By type code.
constexpr std::array<TypeRow, 17> kTypes{{{"", 0},
                                          {"Char", 0},
                                          {"CharSZ", 0},
                                          {"PStr", kPointerLen},
                                          {"Bin", 0},
                                          {"Short", 2},
                                          {"UShort", 2},
                                          {"Long", 4},
                                          {"ULong", 4},
                                          {"Pnt", kPointerLen},
                                          {"Substructure", 0},
                                          {"Bit", 1},
                                          {"UBigInt", 8},
                                          {"BigInt", 8},
                                          {"WChar", 0},
                                          {"WCharSZ", 0},
                                          {"WPStr", kPointerLen}}};

template <class T>
T loadAs(const std::byte *from) {
  T value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

MEMFieldType readType(const PortJsonNode &node) {
  if (!node.json().is_string()) {
    return static_cast<MEMFieldType>(node.integer(MEM_PORT_CHAR, MEM_PORT_WPSTR));
  }
  for (std::size_t code = 1; code < kTypes.size(); ++code) {
    if (node.text() == kTypes[code].name) return static_cast<MEMFieldType>(code);
  }
  std::string names;
  for (std::size_t code = 1; code < kTypes.size(); ++code) {
    names += fmt::format("{}{}", code == 1 ? "" : ", ", kTypes[code].name);
  }
  const bool isOnlyForChains = std::find(kChainOnlyTypes.begin(), kChainOnlyTypes.end(),
                                         node.text()) != kChainOnlyTypes.end();
  node.fail(fmt::format("{}; there are {}",
                        isOnlyForChains ? "only packed chains have this type" : "unknown type",
                        names));
}

std::uint32_t readId(const PortJsonNode &node, std::int64_t most) {
  return static_cast<std::uint32_t>(node.integer(1, most));
}

bool isNumber(std::string_view text) {
  return text.find_first_not_of("0123456789") == std::string_view::npos;
}

std::string readName(const PortJsonNode &node, std::uint32_t id) {
  const std::optional<PortJsonNode> named = node.find("name");
  return named ? named->name() : std::to_string(id);
}

bool readFlag(const PortJsonNode &node, const std::string &key) {
  const std::optional<PortJsonNode> flag = node.find(key);
  return flag && flag->flag();
}

std::int32_t readLength(const PortFieldDefinition &field, const PortJsonNode &node) {
  const std::int64_t width = kTypes[field.type].width;
  const std::optional<PortJsonNode> told = node.find("length");
  if (!told && width > 0) return static_cast<std::int32_t>(width);
  if (!told && field.type == MEM_PORT_SUBSTRUCTURE) return field.target->length;
  const PortJsonNode length = node.at("length");
  const bool isWide = field.type == MEM_PORT_WCHAR || field.type == MEM_PORT_WCHARSZ;
  const std::int64_t least = std::max(width, isWide ? kWideUnit : 1);
  const std::int64_t most = field.type == MEM_PORT_BIT ? 1 : INT32_MAX;
  return static_cast<std::int32_t>(length.integer(least, most));
}

void checkPlace(const PortStructDefinition &definition, const PortFieldDefinition &field,
                const PortJsonNode &node) {
  const std::int64_t stored = std::max<std::int64_t>(field.storedLength(), field.record.Length);
  if (field.record.Offset > definition.length - stored) {
    node.fail(fmt::format("{} bytes at {} exceed the structure's {}", stored, field.record.Offset,
                          definition.length));
  }
}

template <class Text>
Text withoutZero(const PortJsonNode &node, Text text) {
  if (text.find(typename Text::value_type{0}) != Text::npos) node.fail("text with a zero in it");
  return text;
}

void readNumberDefault(PortFieldDefinition &field, const PortJsonNode &node) {
  const bool isShort = field.type == MEM_PORT_SHORT || field.type == MEM_PORT_USHORT;
  const bool isSigned =
      field.type == MEM_PORT_SHORT || field.type == MEM_PORT_LONG || field.type == MEM_PORT_BIGINT;
  // Of a 64-bit field the reader sets the lower half only: a default below 0 is impossible.
  const std::int64_t lowest = field.type == MEM_PORT_SHORT  ? INT16_MIN
                              : field.type == MEM_PORT_LONG ? INT32_MIN
                                                            : 0;
  const std::int64_t highest = isShort ? (isSigned ? INT16_MAX : UINT16_MAX)
                                       : (field.type == MEM_PORT_LONG ? INT32_MAX : UINT32_MAX);
  const std::int64_t value = node.number(lowest, highest);
  if (isShort) {
    field.record.Default.Short = static_cast<std::uint16_t>(value);
  } else {
    field.record.Default.Long = static_cast<std::uint32_t>(value);
  }
}

// Null is a default as well: it is what the field has when there is none.
void readDefault(PortFieldDefinition &field, const PortJsonNode &node) {
  if (node.json().is_null()) return;
  switch (field.type) {
    case MEM_PORT_SHORT:
    case MEM_PORT_USHORT:
    case MEM_PORT_LONG:
    case MEM_PORT_ULONG:
    case MEM_PORT_UBIGINT:
    case MEM_PORT_BIGINT:
      return readNumberDefault(field, node);
    case MEM_PORT_CHARSZ:
    case MEM_PORT_PSTR:
      field.defaultBytes = withoutZero(node, portTextOf(node));
      return;
    case MEM_PORT_WCHARSZ:
    case MEM_PORT_WPSTR:
      field.defaultUnits = withoutZero(node, portUnitsOf(node));
      return;
    case MEM_PORT_PNT:
      node.fail("a pointer has no default but null");
    default:
      field.defaultBytes = portFieldBytes(field.type, field.record.Length, node);
  }
}

// The record points to the definition's own text. REQUIRES: the definition no longer moves.
void linkDefault(PortFieldDefinition &field, bool isGiven) {
  if (!isGiven) return;
  switch (field.type) {
    case MEM_PORT_CHARSZ:
    case MEM_PORT_PSTR:
      field.record.Default.pText = field.defaultBytes.c_str();
      return;
    case MEM_PORT_WCHARSZ:
    case MEM_PORT_WPSTR:
      field.record.Default.pWide = field.defaultUnits.c_str();
      return;
    case MEM_PORT_CHAR:
    case MEM_PORT_BIN:
    case MEM_PORT_SUBSTRUCTURE:
    case MEM_PORT_BIT:
    case MEM_PORT_WCHAR:
      field.record.Default.pBytes = field.defaultBytes.data();
      return;
    default:
      return;
  }
}

void markShared(PortStructDefinition &definition) {
  for (PortFieldDefinition &field : definition.fields) {
    for (PortFieldDefinition &other : definition.fields) {
      if (&field != &other && field.overlaps(other)) field.isShared = true;
    }
  }
}

std::string nameOrId(const PortJsonNode &node) {
  if (node.json().is_string()) return node.text();
  return std::to_string(node.integer(1, UINT32_MAX));
}

}  // namespace

const char *portTypeName(MEMFieldType type) {
  return kTypes[type].name;
}

std::int64_t PortFieldDefinition::storedLength() const {
  const std::int64_t width = kTypes[type].width;
  return width > 0 ? width : record.Length;
}

bool PortFieldDefinition::isAddress() const {
  return type == MEM_PORT_PNT || type == MEM_PORT_PSTR || type == MEM_PORT_WPSTR;
}

bool PortFieldDefinition::overlaps(const PortFieldDefinition &other) const {
  const std::int64_t from = record.Offset;
  const std::int64_t otherFrom = other.record.Offset;
  return from < otherFrom + other.storedLength() && otherFrom < from + storedLength();
}

std::int64_t readPortCount(const PortFieldDefinition &field, const std::byte *at) {
  switch (field.type) {
    case MEM_PORT_SHORT:
      return loadAs<std::int16_t>(at);
    case MEM_PORT_USHORT:
      return loadAs<std::uint16_t>(at);
    case MEM_PORT_LONG:
      return loadAs<std::int32_t>(at);
    default:
      return loadAs<std::uint32_t>(at);
  }
}

std::int64_t PortStructDefinition::lengthWith(std::int64_t elements) const {
  return hasRepeatField() ? length + (elements - 1) * repeatField().record.Length : length;
}

std::int64_t PortStructDefinition::elementsOf(std::int64_t count) const {
  if (count < 0) return 0;
  const std::int64_t elements =
      countIsLength ? (count - length) / repeatField().record.Length + 1 : count;
  return std::max<std::int64_t>(elements, 0);
}

std::int64_t PortStructDefinition::countOf(std::int64_t elements) const {
  return countIsLength ? lengthWith(elements) : elements;
}

const PortFieldDefinition *PortStructDefinition::find(std::string_view field) const {
  const auto found = indices.find(field);
  return found == indices.end() ? nullptr : &fields[found->second];
}

PortDefinitions::PortDefinitions(const std::string &name, std::string_view json) {
  const PortJsonText document(name, json);
  const PortJsonNode top(document);
  refuseGraph(top);
  top.refuseKeys({"pointers"}, kIsForChains);
  top.requireKeys({"structures"});
  const std::vector<PortJsonNode> nodes = top.at("structures").elements();
  if (nodes.empty()) top.fail("no structure is defined");
  addStructures(nodes);
  for (std::size_t i = 0; i < nodes.size(); ++i) addFields(*structures_[i], nodes[i]);
  for (std::size_t i = 0; i < nodes.size(); ++i) measure(*structures_[i], nodes[i], 0);
  buildTable();
}

// Before the fields, which may name any structure.
void PortDefinitions::addStructures(const std::vector<PortJsonNode> &nodes) {
  for (const PortJsonNode &node : nodes) {
    refuseGraphStructure(node);
    node.refuseKeys({"segment", "next"}, kIsForChains);
    node.requireKeys({"id", "name", "length", "countField", "countIsLength", "fields"});
    auto made = std::make_unique<PortStructDefinition>();
    made->id = readId(node.at("id"), INT32_MAX);
    made->name = readName(node, made->id);
    made->length = static_cast<std::int32_t>(node.at("length").integer(0, INT32_MAX));
    if (!byId_.emplace(made->id, made.get()).second) {
      node.fail(fmt::format("a second structure with the id {}", made->id));
    }
    if (!byName_.emplace(made->name, made.get()).second) {
      node.fail(fmt::format("a second structure {}", made->name));
    }
    structures_.push_back(std::move(made));
  }
}

void PortDefinitions::addFields(PortStructDefinition &definition, const PortJsonNode &node) {
  const PortJsonNode list = node.at("fields");
  const std::vector<PortJsonNode> nodes = list.elements();
  if (nodes.size() > MEM_PORT_MAX_FIELDS) {
    list.fail(fmt::format("more than {} fields", static_cast<int>(MEM_PORT_MAX_FIELDS)));
  }
  definition.fields.reserve(nodes.size());  // no default may move once it is linked
  for (const PortJsonNode &field : nodes) addField(definition, field);
  setCount(definition, node);
  markShared(definition);
}

void PortDefinitions::addField(PortStructDefinition &definition, const PortJsonNode &node) {
  node.refuseKeys({"reference", "count", "toEnd"}, kIsForChains);
  node.requireKeys({"id", "name", "type", "length", "offset", "structure", "required", "noTruncate",
                    "notPorted", "default"});
  PortFieldDefinition &field = definition.fields.emplace_back();
  field.type = readType(node.at("type"));
  field.record.FieldID = readId(node.at("id"), UINT32_MAX);
  field.name = readName(node, field.record.FieldID);
  field.record.Type = static_cast<std::uint8_t>(field.type);
  readTarget(field, node);
  field.record.Length = readLength(field, node);
  field.record.Offset = static_cast<std::int32_t>(node.at("offset").integer(0, INT32_MAX));
  field.record.Required = readFlag(node, "required") ? 1 : 0;
  field.record.NoTruncate = readFlag(node, "noTruncate") ? 1 : 0;
  field.record.NotPorted = readFlag(node, "notPorted") ? 1 : 0;
  checkPlace(definition, field, node);

  const std::optional<PortJsonNode> standard = node.find("default");
  if (standard) readDefault(field, *standard);
  linkDefault(field, standard && !standard->json().is_null());

  const std::size_t index = definition.fields.size() - 1;
  if (index > 0 && definition.fields[index - 1].record.FieldID >= field.record.FieldID) {
    node.fail("the ids of fields must ascend");
  }
  if (!definition.indices.emplace(field.name, index).second) {
    node.fail("a second field " + field.name);
  }
  definition.indices.emplace(std::to_string(field.record.FieldID), index);
}

void PortDefinitions::readTarget(PortFieldDefinition &field, const PortJsonNode &node) {
  const bool hasTarget = field.type == MEM_PORT_PNT || field.type == MEM_PORT_SUBSTRUCTURE;
  if (!hasTarget) {
    if (node.find("structure")) node.fail("only Pnt and Substructure name a structure");
    return;
  }
  const PortJsonNode named = node.at("structure");
  field.target = find(nameOrId(named));
  if (field.target == nullptr) named.fail("no such structure");
  field.record.SubStructID = field.target->id;
}

void PortDefinitions::setCount(PortStructDefinition &definition, const PortJsonNode &node) {
  definition.countIsLength = readFlag(node, "countIsLength");
  const std::optional<PortJsonNode> named = node.find("countField");
  if (!named || named->json().is_null()) {
    if (definition.countIsLength) node.fail("countIsLength needs countField");
    return;
  }
  const PortFieldDefinition *field = definition.find(nameOrId(*named));
  if (field == nullptr) named->fail("no such field");
  if (field->type < MEM_PORT_SHORT || field->type > MEM_PORT_ULONG) {
    named->fail("the field that counts must be a Short, UShort, Long or ULong");
  }
  if (field == &definition.repeatField())
    named->fail("the last field is the repeat field and cannot count itself");
  if (definition.repeatField().record.Length == 0) named->fail("the last field has no bytes");
  definition.countField = static_cast<std::int32_t>(field - definition.fields.data());
}

// Refuses structures that contain themselves.
PortDefinitions::Size PortDefinitions::measure(const PortStructDefinition &definition,
                                               const PortJsonNode &node, int level) {
  const auto known = sizes_.find(&definition);
  if (known != sizes_.end() && level + known->second.height <= MEM_PORT_MAX_NESTING) {
    return known->second;
  }
  if (level > MEM_PORT_MAX_NESTING || known != sizes_.end()) {
    node.fail(fmt::format("more than {} structures within one another",
                          static_cast<int>(MEM_PORT_MAX_NESTING)));
  }
  Size size;
  for (const PortFieldDefinition &field : definition.fields) {
    ++size.fields;
    if (field.type != MEM_PORT_SUBSTRUCTURE) continue;
    const Size inner = measure(*field.target, node, level + 1);
    size.height = std::max(size.height, inner.height + 1);
    size.fields += inner.fields;
  }
  if (size.fields > kMostPortFields) {
    node.fail(fmt::format("more than {} fields with those of embedded structures",
                          grouped(kMostPortFields)));
  }
  return sizes_[&definition] = size;
}

void PortDefinitions::buildTable() {
  for (const std::unique_ptr<PortStructDefinition> &definition : structures_) {
    std::vector<MEMFieldDef> &records = records_.emplace_back();
    for (const PortFieldDefinition &field : definition->fields) records.push_back(field.record);
    MEMStructDef row{};
    row.StructID = definition->id;
    row.Length = definition->length;
    row.CountField = definition->countField;
    row.FieldCount = static_cast<std::int32_t>(records.size());
    row.Fields = records.data();
    row.CountIsLength = definition->countIsLength ? 1 : 0;
    table_.push_back(row);
  }
  table_.push_back(MEMStructDef{});
}

const PortStructDefinition *PortDefinitions::find(std::uint32_t id) const {
  const auto found = byId_.find(id);
  return found == byId_.end() ? nullptr : found->second;
}

const PortStructDefinition *PortDefinitions::find(std::string_view structure) const {
  if (const auto found = byName_.find(structure); found != byName_.end()) return found->second;
  if (!isNumber(structure) || structure.empty()) return nullptr;
  std::uint32_t id = 0;
  const char *const end = structure.data() + structure.size();
  return std::from_chars(structure.data(), end, id).ec == std::errc() ? find(id) : nullptr;
}

}  // namespace memtool
