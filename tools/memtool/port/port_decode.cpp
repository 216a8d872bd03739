#include "port_decode.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "port_heap.hpp"
#include "port_text.hpp"
#include "tool_errors.hpp"
#include "tool_progress.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

// Nobody looks at more than that, and a count field may contain any number.
constexpr std::uint64_t kMostValues = 10'000'000;

template <class T>
T loadAs(const void *from) {
  T value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

// Units of type Unit in `bytes`, before the first zero, or all of them.
template <class Unit>
std::size_t unitsUntilZero(std::string_view bytes) {
  const std::size_t count = bytes.size() / sizeof(Unit);
  for (std::size_t i = 0; i < count; ++i) {
    if (loadAs<Unit>(bytes.data() + i * sizeof(Unit)) == 0) return i;
  }
  return count;
}

PortText textOf(std::string_view bytes, bool isString) {
  return {bytes, bytes.size(), false, isString, false};
}

// The first ones of the bytes.
PortWideText wideTextOf(std::string_view bytes, std::size_t units, bool isString) {
  return {bytes.substr(0, units * sizeof(char16_t)), units, false, isString, false};
}

// Where a structure is in an entry of the heap.
struct EntryPlace {
  const std::byte *entry = nullptr;
  std::int64_t length = 0;
  std::int64_t offset = 0;

  bool holds(std::int64_t at, std::int64_t count) const {
    return at <= length - offset && count <= length - offset - at;
  }
  const std::byte *at(std::int64_t place) const { return entry + offset + place; }
};

// The entries that the library's reader made, and the numbers of the structures in them.
class EntryTable {
 public:
  EntryTable(const PortDefinitions &definitions, PortEntries entries)
      : definitions_(definitions), entries_(std::move(entries)) {
    addDefaults();
    std::sort(entries_.begin(), entries_.end(), [](const PortEntry &a, const PortEntry &b) {
      return std::less<>()(a.address, b.address);
    });
  }

  static constexpr std::uint32_t kNone = UINT32_MAX;

  // Index of the entry with this address, or kNone.
  std::uint32_t find(const void *address) const {
    const auto found = std::lower_bound(entries_.begin(), entries_.end(), address,
                                        [](const PortEntry &entry, const void *wanted) {
                                          return std::less<>()(entry.address, wanted);
                                        });
    if (found == entries_.end() || found->address != address) return kNone;
    return static_cast<std::uint32_t>(found - entries_.begin());
  }
  const PortEntry &entry(std::uint32_t index) const { return entries_[index]; }

  // The first pointer to a structure decides what it is.
  std::uint32_t numberOf(std::uint32_t index, const PortStructDefinition &definition) {
    PortEntry &entry = entries_[index];
    if (entry.number == 0) {
      found_.push_back({index, definition.id});
      entry.number = static_cast<std::uint32_t>(found_.size());
    }
    return entry.number;
  }

  // Structures with a number.
  std::size_t count() const { return found_.size(); }
  const PortStructDefinition &definitionOf(std::size_t number) const {
    return *definitions_.find(found_[number - 1].structID);
  }
  const PortEntry &entryOf(std::size_t number) const { return entries_[found_[number - 1].index]; }

 private:
  struct Found {
    std::uint32_t index;  // of its entry
    std::uint32_t structID;
  };

  void addDefaults();

  const PortDefinitions &definitions_;
  PortEntries entries_;      // by address
  std::deque<Found> found_;  // structures in the order of their numbers
};

// Default texts belong to the definitions: the reader does not copy them.
void EntryTable::addDefaults() {
  for (const MEMStructDef *row = definitions_.table(); row->StructID != 0; ++row) {
    for (const PortFieldDefinition &field : definitions_.find(row->StructID)->fields) {
      const void *const text = field.record.Default.pBytes;
      if (field.type == MEM_PORT_PSTR && text != nullptr) {
        entries_.push_back({text, static_cast<std::int32_t>(field.defaultBytes.size() + 1), 0});
      } else if (field.type == MEM_PORT_WPSTR && text != nullptr) {
        const std::size_t bytes = (field.defaultUnits.size() + 1) * sizeof(char16_t);
        entries_.push_back({text, static_cast<std::int32_t>(bytes), 0});
      }
    }
  }
}

// Reads what the library's reader made of a structure, by the definitions. No address is followed
// but that of an entry.
class EntryReader final : public PortReader {
 public:
  EntryReader(EntryTable &table, std::size_t number) : table_(table), number_(number) {
    const PortEntry &entry = table.entryOf(number);
    structure_ = begin(table.definitionOf(number),
                       {static_cast<const std::byte *>(entry.address), entry.length, 0});
  }

  const PortStructure &structure() const override { return structure_; }
  std::size_t depth() const override { return open_.size(); }
  bool next(PortField &made) override;

 private:
  // A structure, and its next field.
  struct Open {
    const PortStructDefinition *definition;
    EntryPlace place;
    std::int64_t elements;
    std::size_t field = 0;
    std::int64_t element = 0;
  };

  [[noreturn]] void fail(const PortStructDefinition &definition, const std::string &what) const {
    throw ToolError(fmt::format("structure {} ({}): {}", number_, definition.name, what));
  }

  PortStructure begin(const PortStructDefinition &definition, const EntryPlace &place);
  std::int64_t elements(const PortStructDefinition &definition, const EntryPlace &place) const;
  bool isLeftOut(const Open &open, const PortFieldDefinition &field) const;
  bool isSpokenFor(const PortStructDefinition &definition, const PortFieldDefinition &field,
                   const EntryPlace &place) const;
  bool holdsEntry(const PortFieldDefinition &field, const EntryPlace &place) const;
  PortValue value(const Open &open, const PortFieldDefinition &field, std::int64_t offset);
  PortValue pointer(const PortStructDefinition &definition, const PortFieldDefinition &field,
                    const void *address) const;
  template <class Unit>
  std::size_t stringLength(const PortStructDefinition &definition, const PortFieldDefinition &field,
                           std::string_view bytes) const;

  EntryTable &table_;
  std::size_t number_;
  PortStructure structure_;  // of the top level
  std::vector<Open> open_;   // it and those embedded in it
};

PortStructure EntryReader::begin(const PortStructDefinition &definition, const EntryPlace &place) {
  PortStructure made;
  made.id = definition.id;
  made.definition = &definition;
  const std::int64_t count = elements(definition, place);
  if (definition.hasRepeatField()) made.elements = static_cast<std::uint64_t>(count);
  open_.push_back({&definition, place, count});
  return made;
}

bool EntryReader::next(PortField &made) {
  for (Open &open = open_.back(); open.field < open.definition->fields.size();) {
    const PortStructDefinition &definition = *open.definition;
    const PortFieldDefinition &field = definition.fields[open.field];
    const std::int64_t times = definition.isRepeatField(open.field) ? open.elements : 1;
    if (open.element == times || (open.element == 0 && isLeftOut(open, field))) {
      ++open.field;
      open.element = 0;
      continue;
    }
    const std::int64_t offset = field.record.Offset + open.element * field.record.Length;
    if (!open.place.holds(offset, field.storedLength())) {
      fail(definition, fmt::format("field {} is beyond the bytes that were read for the structure",
                                   field.name));
    }
    ++open.element;
    made.id = field.record.FieldID;
    made.definition = &field;
    made.value = value(open, field, offset);
    return true;
  }
  open_.pop_back();
  return false;
}

// As a writer counts them.
std::int64_t EntryReader::elements(const PortStructDefinition &definition,
                                   const EntryPlace &place) const {
  if (!definition.hasRepeatField()) return 1;
  const auto index = static_cast<std::size_t>(definition.countField);
  const PortFieldDefinition &field = definition.fields[index];
  if (!place.holds(field.record.Offset, field.storedLength())) {
    fail(definition,
         fmt::format("field {} is beyond the bytes that were read for the structure", field.name));
  }
  return definition.elementsOf(readPortCount(field, place.at(field.record.Offset)));
}

bool EntryReader::isLeftOut(const Open &open, const PortFieldDefinition &field) const {
  return field.isShared && isSpokenFor(*open.definition, field, open.place);
}

// Of fields that share bytes the text has one. When the bytes are an address, it is one of the
// pointers; otherwise it is none of them.
bool EntryReader::isSpokenFor(const PortStructDefinition &definition,
                              const PortFieldDefinition &field, const EntryPlace &place) const {
  if (field.isAddress()) return !holdsEntry(field, place);
  const auto claims = [&](const PortFieldDefinition &other) {
    return other.isAddress() && other.overlaps(field) &&
           place.holds(other.record.Offset, other.storedLength()) && holdsEntry(other, place) &&
           loadAs<const void *>(place.at(other.record.Offset)) != nullptr;
  };
  return std::any_of(definition.fields.begin(), definition.fields.end(), claims);
}

// The field's bytes are null or the address of something that the reader made.
bool EntryReader::holdsEntry(const PortFieldDefinition &field, const EntryPlace &place) const {
  if (!place.holds(field.record.Offset, field.storedLength())) return true;  // reported elsewhere
  const auto *const address = loadAs<const void *>(place.at(field.record.Offset));
  return address == nullptr || table_.find(address) != EntryTable::kNone;
}

PortValue EntryReader::value(const Open &open, const PortFieldDefinition &field,
                             std::int64_t offset) {
  const std::byte *const at = open.place.at(offset);
  const std::string_view bytes(reinterpret_cast<const char *>(at),
                               static_cast<std::size_t>(field.storedLength()));
  const auto natural = [](std::uint64_t number) { return PortNumber{false, number}; };
  const auto whole = [](std::int64_t number) {
    const auto magnitude = static_cast<std::uint64_t>(number);
    return number < 0 ? PortNumber{true, 0 - magnitude} : PortNumber{false, magnitude};
  };
  switch (field.type) {
    case MEM_PORT_CHAR:
      return textOf(bytes, false);
    case MEM_PORT_CHARSZ:
      return textOf(bytes.substr(0, unitsUntilZero<char>(bytes)), false);
    case MEM_PORT_BIN:
      return PortBytes{bytes, false};
    case MEM_PORT_SHORT:
      return whole(loadAs<std::int16_t>(at));
    case MEM_PORT_USHORT:
      return natural(loadAs<std::uint16_t>(at));
    case MEM_PORT_LONG:
      return whole(loadAs<std::int32_t>(at));
    case MEM_PORT_ULONG:
      return natural(loadAs<std::uint32_t>(at));
    case MEM_PORT_UBIGINT:
      return natural(loadAs<std::uint64_t>(at));
    case MEM_PORT_BIGINT:
      return whole(loadAs<std::int64_t>(at));
    case MEM_PORT_BIT:
      return PortFlags{loadAs<std::uint8_t>(at)};
    case MEM_PORT_WCHAR:
      return wideTextOf(bytes, bytes.size() / sizeof(char16_t), false);
    case MEM_PORT_WCHARSZ:
      return wideTextOf(bytes, unitsUntilZero<char16_t>(bytes), false);
    case MEM_PORT_SUBSTRUCTURE: {
      EntryPlace place = open.place;
      place.offset += offset;
      return PortEmbedded{begin(*field.target, place)};  // `open` is invalid after it
    }
    default:
      return pointer(*open.definition, field, loadAs<const void *>(at));
  }
}

PortValue EntryReader::pointer(const PortStructDefinition &definition,
                               const PortFieldDefinition &field, const void *address) const {
  const bool isNull = address == nullptr;
  const std::uint32_t entry = isNull ? EntryTable::kNone : table_.find(address);
  if (!isNull && entry == EntryTable::kNone) {
    fail(definition, fmt::format("field {} is a pointer to nothing that was read", field.name));
  }
  const std::string_view bytes(static_cast<const char *>(address),
                               isNull ? 0 : static_cast<std::size_t>(table_.entry(entry).length));
  if (field.type == MEM_PORT_PSTR) {
    if (isNull) return PortText{{}, 0, false, true, true};
    return textOf(bytes.substr(0, stringLength<char>(definition, field, bytes)), true);
  }
  if (field.type == MEM_PORT_WPSTR) {
    if (isNull) return PortWideText{{}, 0, false, true, true};
    return wideTextOf(bytes, stringLength<char16_t>(definition, field, bytes), true);
  }
  return PortPointer{isNull ? 0 : table_.numberOf(entry, *field.target)};
}

template <class Unit>
std::size_t EntryReader::stringLength(const PortStructDefinition &definition,
                                      const PortFieldDefinition &field,
                                      std::string_view bytes) const {
  const std::size_t length = unitsUntilZero<Unit>(bytes);
  if (length == bytes.size() / sizeof(Unit)) {
    fail(definition, fmt::format("field {} is no string", field.name));
  }
  return length;
}

// Calls the library's reader, and keeps the heap with what it made.
class HeapSource final : public PortSource {
 public:
  HeapSource(RunningLibrary &library, const PortDefinitions &definitions, std::string_view text)
      : heap_(library) {
    PortHeapWatch watch(library, heap_);
    PortMessages messages(library);
    const std::int16_t result = library.vector().MEM_Port1StrToStruct(
        definitions.table(), text.data(), static_cast<std::uint32_t>(text.size()), heap_.handle(),
        &root_);
    if (result != 0) throw ToolError(messages.reason("MEM_Port1StrToStruct"));
    table_ = std::make_unique<EntryTable>(definitions, watch.takeEntries());
  }

  // Numbers the structures from the root on, and throws ToolError where one of them does not fit
  // its definition.
  void number(const PortStructDefinition &root, Progress &progress) {
    const std::uint32_t index = table_->find(root_);
    if (index == EntryTable::kNone) throw ToolError("the root is nothing that was read");
    table_->numberOf(index, root);
    std::uint64_t values = 0;
    PortField field;
    for (std::size_t number = 1; number <= count(); ++number) {
      progress.redraw(number - 1);
      const std::unique_ptr<PortReader> reader = read(number);
      while (reader->depth() > 0) {
        if (reader->next(field) && ++values > kMostValues) {
          throw ToolError(fmt::format("more than {} values", grouped(kMostValues)));
        }
      }
    }
  }

  std::size_t count() const override { return table_->count(); }
  std::unique_ptr<PortReader> read(std::size_t number) const override {
    return std::make_unique<EntryReader>(*table_, number);
  }

 private:
  PortHeap heap_;
  void *root_ = nullptr;
  std::unique_ptr<EntryTable> table_;
};

}  // namespace

PortDocument decodePortText(RunningLibrary &library, const PortDefinitions &definitions,
                            std::string_view text, Console &console) {
  if (text.size() > UINT32_MAX) throw ToolError("the library reads at most 4 GB");
  auto source = std::make_unique<HeapSource>(library, definitions, text);
  PortDocument document;
  document.characters = text.size();
  document.promised = portPromised(text);
  Progress progress(console, "collecting the structures", document.promised);
  source->number(*definitions.find(portRootId(text)), progress);
  document.source = std::move(source);
  return document;
}

}  // namespace memtool
