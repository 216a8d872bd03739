// Definitions of structures, read from JSON and as the library's table of definitions.
// docs/memtool-port.md describes the JSON.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "port_json.hpp"
#include "qj7mem00/memport.h"

namespace memtool {

// Limit of the fields of a structure, with those of the structures embedded in it: a few
// definitions must not describe an endless structure.
inline constexpr std::uint64_t kMostPortFields = 65536;

struct PortFieldDefinition {
  std::string name;  // of the field, or its identifier
  MEMFieldType type = MEM_PORT_CHAR;
  MEMFieldDef record{};                          // as the library sees it
  const PortStructDefinition *target = nullptr;  // pointed to or embedded
  bool isShared = false;                         // another field has some of its bytes

  // What record.Default points to.
  std::string defaultBytes;
  std::u16string defaultUnits;

  // Bytes that the library reads or writes at the field.
  std::int64_t storedLength() const;
  // Its bytes are an address.
  bool isAddress() const;
  bool overlaps(const PortFieldDefinition &other) const;
};

struct PortStructDefinition {
  std::string name;  // of the structure, or its identifier
  std::uint32_t id = 0;
  std::int32_t length = 0;
  std::int32_t countField = MEM_PORT_NO_COUNT;
  bool countIsLength = false;
  std::vector<PortFieldDefinition> fields;
  std::map<std::string, std::size_t, std::less<>> indices;  // in `fields`, by name and by id

  bool hasRepeatField() const { return countField != MEM_PORT_NO_COUNT; }
  const PortFieldDefinition &repeatField() const { return fields.back(); }
  const PortFieldDefinition &count() const { return fields[static_cast<std::size_t>(countField)]; }
  bool isRepeatField(std::size_t index) const {
    return hasRepeatField() && index + 1 == fields.size();
  }
  // Bytes of the structure with so many elements.
  std::int64_t lengthWith(std::int64_t elements) const;
  // Elements by the value of the count field.
  std::int64_t elementsOf(std::int64_t count) const;
  std::int64_t countOf(std::int64_t elements) const;
  // By name or identifier; null when there is none.
  const PortFieldDefinition *find(std::string_view field) const;
};

// Value of a count field, at its bytes.
std::int64_t readPortCount(const PortFieldDefinition &field, const std::byte *at);

// Name of a field type, "CharSZ".
const char *portTypeName(MEMFieldType type);

// A table of valid definitions: all that the library assumes of a table holds.
class PortDefinitions {
 public:
  // Throws ToolError with a message that begins with `name`.
  PortDefinitions(const std::string &name, std::string_view json);
  PortDefinitions(const PortDefinitions &) = delete;
  PortDefinitions &operator=(const PortDefinitions &) = delete;

  // The library's form. Valid as long as this object.
  const MEMStructDef *table() const { return table_.data(); }

  const PortStructDefinition *find(std::uint32_t id) const;
  // By name or identifier.
  const PortStructDefinition *find(std::string_view structure) const;

 private:
  struct Size {
    int height = 0;  // structures within one another
    std::uint64_t fields = 0;
  };

  void addStructures(const std::vector<PortJsonNode> &nodes);
  void addFields(PortStructDefinition &definition, const PortJsonNode &node);
  void addField(PortStructDefinition &definition, const PortJsonNode &node);
  void readTarget(PortFieldDefinition &field, const PortJsonNode &node);
  void setCount(PortStructDefinition &definition, const PortJsonNode &node);
  Size measure(const PortStructDefinition &definition, const PortJsonNode &node, int level);
  void buildTable();

  std::vector<std::unique_ptr<PortStructDefinition>> structures_;
  std::map<std::uint32_t, const PortStructDefinition *> byId_;
  std::map<std::string, const PortStructDefinition *, std::less<>> byName_;
  std::map<const PortStructDefinition *, Size> sizes_;  // measured so far
  std::vector<std::vector<MEMFieldDef>> records_;       // the lists that table_ points to
  std::vector<MEMStructDef> table_;
};

}  // namespace memtool
