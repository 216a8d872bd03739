// A port string as memtool sees it: its structure texts with their fields and values. The same
// records hold what is read from the text alone and what the library makes of it with definitions.
// docs/port-strings.md describes the text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace memtool {

struct PortFieldDefinition;
struct PortStructDefinition;
struct PortStructure;

struct PortNumber {
  bool isNegative = false;
  std::uint64_t magnitude = 0;
};

// Text of bytes in the writer's code page. `isString`: a pointer to text, which may be null.
struct PortText {
  std::string bytes;
  bool isString = false;
  bool isNull = false;
};

struct PortWideText {
  std::u16string units;
  bool isString = false;
  bool isNull = false;
};

struct PortBytes {
  std::string bytes;
};

struct PortFlags {
  std::uint8_t bits = 0;
};

// Number of the structure pointed to, 0 for null.
struct PortPointer {
  std::uint32_t number = 0;
};

struct PortEmbedded {
  std::unique_ptr<PortStructure> structure;  // never null
};

using PortValue = std::variant<PortNumber, PortText, PortWideText, PortBytes, PortFlags,
                               PortPointer, PortEmbedded>;

// An element of a repeat field is a field of its own.
struct PortField {
  std::uint32_t id = 0;
  const PortFieldDefinition *definition = nullptr;  // null when read from the text alone
  PortValue value;
  std::size_t offset = 0;  // in the port string, when read from the text alone
};

struct PortStructure {
  std::uint32_t id = 0;
  std::optional<std::uint64_t> elements;             // of its repeat field, where it has one
  const PortStructDefinition *definition = nullptr;  // null when read from the text alone
  std::optional<std::size_t> offset;                 // of the structure text in the port string
  std::vector<PortField> fields;
};

// Where a text leaves the grammar.
struct PortFault {
  std::size_t offset = 0;  // of the character, from 0
  std::string expected;
  std::string found;

  std::string text() const;
};

// Structures of the top level; the one with the number n is at n - 1.
struct PortDocument {
  std::size_t characters = 0;
  std::uint64_t promised = 0;  // structures that the header tells of
  std::vector<PortStructure> structures;
  std::optional<PortFault> fault;      // readers stop here; `structures` is what stands in front
  std::optional<PortFault> deviation;  // the first that readers let pass, but no writer writes
};

}  // namespace memtool
