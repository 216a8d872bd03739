// A port string as memtool sees it: its structure texts with their fields and values. The same
// records describe what is read from the text alone and what the library reads with definitions.
// A port string may have more fields than there is memory for such records: a document knows only
// where its structures are, and their fields are read anew each time that they are needed.
// docs/port-strings.md describes the text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace memtool {

struct PortFieldDefinition;
struct PortStructDefinition;

struct PortNumber {
  bool isNegative = false;
  std::uint64_t magnitude = 0;
};

// Text of bytes in the writer's code page.
struct PortText {
  std::string_view source;  // the bytes; between the quotes of a port string where `isEscaped`
  std::size_t length = 0;   // in bytes, without escapes
  bool isEscaped = false;
  bool isString = false;  // a pointer to text
  bool isNull = false;    // of a string

  // The first ones of them.
  std::string bytes(std::size_t most = SIZE_MAX) const;
};

struct PortWideText {
  std::string_view source;  // bytes of the units; between the quotes where `isEscaped`
  std::size_t length = 0;   // in units, without escapes
  bool isEscaped = false;
  bool isString = false;
  bool isNull = false;

  std::u16string units(std::size_t most = SIZE_MAX) const;
};

struct PortBytes {
  std::string_view source;  // the bytes; their digits where `isHex`
  bool isHex = false;

  std::size_t size() const { return isHex ? source.size() / 2 : source.size(); }
  // `count` of them at most, from `first` on. REQUIRES: first <= size().
  std::string bytes(std::size_t first, std::size_t count) const;
};

struct PortFlags {
  std::uint8_t bits = 0;
};

// Number of the structure pointed to, 0 for null.
struct PortPointer {
  std::uint32_t number = 0;
};

// The head of a structure. Its fields come from a PortReader.
struct PortStructure {
  std::uint32_t id = 0;
  std::optional<std::uint64_t> elements;             // of its repeat field, where it has one
  const PortStructDefinition *definition = nullptr;  // null when read from the text alone
  std::optional<std::size_t> offset;                 // of the structure text in the port string
};

struct PortEmbedded {
  PortStructure structure;
};

using PortValue = std::variant<PortNumber, PortText, PortWideText, PortBytes, PortFlags,
                               PortPointer, PortEmbedded>;

// An element of a repeat field is a field of its own.
struct PortField {
  std::uint32_t id = 0;
  const PortFieldDefinition *definition = nullptr;  // null when read from the text alone
  PortValue value;                                  // refers to the document
  std::size_t offset = 0;  // in the port string, when read from the text alone
};

// Reads the fields of one structure of the top level in order. The fields of an embedded structure
// follow the field that it is the value of.
class PortReader {
 public:
  PortReader() = default;
  virtual ~PortReader() = default;
  PortReader(const PortReader &) = delete;
  PortReader &operator=(const PortReader &) = delete;

  virtual const PortStructure &structure() const = 0;
  // Structures that have begun and not ended: 1 in the fields of the top level, 0 at the end.
  virtual std::size_t depth() const = 0;
  // The next field of the innermost one; false at its end. REQUIRES: depth() > 0.
  virtual bool next(PortField &field) = 0;
};

// The fields of the structure that the reader has just begun. To read those of an embedded
// structure, make another PortFields when its field is there; otherwise they are skipped.
class PortFields {
 public:
  explicit PortFields(PortReader &reader) : reader_(reader), depth_(reader.depth()) {}

  // False at the structure's end.
  bool next() {
    while (reader_.depth() > depth_) reader_.next(field_);  // the rest of an embedded one
    return reader_.depth() == depth_ && reader_.next(field_);
  }
  // Valid until the next call of next().
  const PortField &field() const { return field_; }

 private:
  PortReader &reader_;
  std::size_t depth_;
  PortField field_;
};

// What a document was read from.
class PortSource {
 public:
  PortSource() = default;
  virtual ~PortSource() = default;
  PortSource(const PortSource &) = delete;
  PortSource &operator=(const PortSource &) = delete;

  // Structures of the top level, which are numbered from 1 on.
  virtual std::size_t count() const = 0;
  virtual std::unique_ptr<PortReader> read(std::size_t number) const = 0;
};

// Where a text leaves the grammar.
struct PortFault {
  std::size_t offset = 0;  // of the character, from 0
  std::string expected;
  std::string found;

  std::string text() const;
};

struct PortDocument {
  std::size_t characters = 0;
  std::uint64_t promised = 0;  // structures according to the header
  std::size_t unread = 0;      // characters of a text after its last structure: readers stop there
  std::unique_ptr<const PortSource> source;
  std::optional<PortFault> fault;      // readers stop here; `source` has the structures before it
  std::optional<PortFault> deviation;  // the first that readers let pass and no writer writes

  std::size_t count() const { return source->count(); }
  // Begins a structure. REQUIRES: 1 <= number <= count().
  std::unique_ptr<PortReader> read(std::size_t number) const { return source->read(number); }
  PortStructure structure(std::size_t number) const { return read(number)->structure(); }
};

// The fault, or what only --check reports where that comes first.
std::optional<PortFault> firstPortFault(const PortDocument &document);

}  // namespace memtool
