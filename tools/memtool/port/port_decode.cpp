#include "port_decode.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <utility>
#include <vector>

#include "port_heap.hpp"
#include "port_text.hpp"
#include "tool_errors.hpp"
#include "tool_progress.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

// More than that no one looks at, and a count field may tell any number.
constexpr std::uint64_t kMostValues = 10'000'000;

template <class T>
T loadAs(const std::byte *from) {
  T value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

template <class Text>
Text untilZero(Text text) {
  text.resize(std::min(text.size(), text.find(typename Text::value_type{0})));
  return text;
}

// Where a structure lies in an entry of the heap.
struct EntryPlace {
  const std::byte *entry = nullptr;
  std::int64_t length = 0;
  std::int64_t offset = 0;

  bool holds(std::int64_t at, std::int64_t count) const {
    return at <= length - offset && count <= length - offset - at;
  }
  const std::byte *at(std::int64_t place) const { return entry + offset + place; }
};

// Walks what the reader made, by the definitions. No address is followed but that of an entry.
class GraphReader {
 public:
  GraphReader(PortDocument &document, const PortEntries &entries, Console &console)
      : document_(document),
        entries_(entries),
        progress_(console, "collecting the structures", document.promised) {}

  void run(const void *root, const PortStructDefinition &definition) {
    numberOf(root, definition);
    for (std::size_t i = 0; i < found_.size(); ++i) {
      progress_.redraw(i);
      const Found next = found_[i];
      const EntryPlace place{static_cast<const std::byte *>(next.address),
                             entries_.at(next.address), 0};
      document_.structures.push_back(structure(*next.definition, place));
    }
  }

 private:
  struct Found {
    const void *address;
    const PortStructDefinition *definition;
  };

  [[noreturn]] void fail(const PortStructDefinition &definition, const std::string &what) const {
    throw ToolError(fmt::format("structure {} ({}): {}", document_.structures.size() + 1,
                                definition.name, what));
  }

  std::uint32_t numberOf(const void *address, const PortStructDefinition &definition) {
    const auto [place, isNew] =
        numbers_.emplace(address, static_cast<std::uint32_t>(found_.size() + 1));
    if (isNew) found_.push_back({address, &definition});
    return place->second;
  }

  PortStructure structure(const PortStructDefinition &definition, const EntryPlace &place);
  std::int64_t elements(const PortStructDefinition &definition, const EntryPlace &place) const;
  bool isSpokenFor(const PortStructDefinition &definition, const PortFieldDefinition &field,
                   const EntryPlace &place) const;
  bool holdsEntry(const PortFieldDefinition &field, const EntryPlace &place) const;
  PortValue value(const PortStructDefinition &definition, const PortFieldDefinition &field,
                  const EntryPlace &place, std::int64_t offset);
  PortValue pointer(const PortStructDefinition &definition, const PortFieldDefinition &field,
                    const void *address);
  template <class Unit>
  std::basic_string<Unit> string(const PortStructDefinition &definition,
                                 const PortFieldDefinition &field, const void *address) const;

  PortDocument &document_;
  const PortEntries &entries_;
  Progress progress_;
  std::map<const void *, std::uint32_t> numbers_;
  std::vector<Found> found_;
  std::uint64_t values_ = 0;
};

PortStructure GraphReader::structure(const PortStructDefinition &definition,
                                     const EntryPlace &place) {
  PortStructure made;
  made.id = definition.id;
  made.definition = &definition;
  const std::int64_t count = elements(definition, place);
  if (definition.hasRepeatField()) made.elements = static_cast<std::uint64_t>(count);
  for (std::size_t i = 0; i < definition.fields.size(); ++i) {
    const PortFieldDefinition &field = definition.fields[i];
    const std::int64_t times = definition.isRepeatField(i) ? count : 1;
    if (field.isShared && times > 0 && isSpokenFor(definition, field, place)) continue;
    for (std::int64_t k = 0; k < times; ++k) {
      const std::int64_t offset = field.record.Offset + k * field.record.Length;
      if (!place.holds(offset, field.storedLength())) {
        fail(definition,
             fmt::format("field {} lies beyond the bytes that the text gave it", field.name));
      }
      if (++values_ > kMostValues) {
        throw ToolError(fmt::format("more than {} values", grouped(kMostValues)));
      }
      made.fields.push_back(
          {field.record.FieldID, &field, value(definition, field, place, offset), 0});
    }
  }
  return made;
}

// As a writer counts them.
std::int64_t GraphReader::elements(const PortStructDefinition &definition,
                                   const EntryPlace &place) const {
  if (!definition.hasRepeatField()) return 1;
  const auto index = static_cast<std::size_t>(definition.countField);
  const PortFieldDefinition &field = definition.fields[index];
  if (!place.holds(field.record.Offset, field.storedLength())) {
    fail(definition,
         fmt::format("field {} lies beyond the bytes that the text gave it", field.name));
  }
  return definition.elementsOf(readPortCount(field, place.at(field.record.Offset)));
}

// Of fields that share bytes the text told one. When the bytes are an address, that is one of the
// pointers; otherwise it is none of them.
bool GraphReader::isSpokenFor(const PortStructDefinition &definition,
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
bool GraphReader::holdsEntry(const PortFieldDefinition &field, const EntryPlace &place) const {
  if (!place.holds(field.record.Offset, field.storedLength())) return true;  // told elsewhere
  const auto *const address = loadAs<const void *>(place.at(field.record.Offset));
  return address == nullptr || entries_.count(address) != 0;
}

PortValue GraphReader::value(const PortStructDefinition &definition,
                             const PortFieldDefinition &field, const EntryPlace &place,
                             std::int64_t offset) {
  const std::byte *const at = place.at(offset);
  const auto length = static_cast<std::size_t>(field.storedLength());
  const auto bytes = [&] { return std::string(reinterpret_cast<const char *>(at), length); };
  const auto units = [&] {
    std::u16string made(length / sizeof(char16_t), u'\0');
    std::memcpy(made.data(), at, made.size() * sizeof(char16_t));
    return made;
  };
  const auto natural = [](std::uint64_t number) { return PortNumber{false, number}; };
  const auto whole = [](std::int64_t number) {
    const auto magnitude = static_cast<std::uint64_t>(number);
    return number < 0 ? PortNumber{true, 0 - magnitude} : PortNumber{false, magnitude};
  };
  switch (field.type) {
    case MEM_PORT_CHAR:
      return PortText{bytes(), false, false};
    case MEM_PORT_CHARSZ:
      return PortText{untilZero(bytes()), false, false};
    case MEM_PORT_BIN:
      return PortBytes{bytes()};
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
      return PortWideText{units(), false, false};
    case MEM_PORT_WCHARSZ:
      return PortWideText{untilZero(units()), false, false};
    case MEM_PORT_SUBSTRUCTURE:
      return PortEmbedded{std::make_unique<PortStructure>(
          structure(*field.target, {place.entry, place.length, place.offset + offset}))};
    default:
      return pointer(definition, field, loadAs<const void *>(at));
  }
}

PortValue GraphReader::pointer(const PortStructDefinition &definition,
                               const PortFieldDefinition &field, const void *address) {
  const bool isNull = address == nullptr;
  if (!isNull && entries_.count(address) == 0) {
    fail(definition, fmt::format("field {} is a pointer to nothing that was read", field.name));
  }
  if (field.type == MEM_PORT_PSTR) {
    return PortText{isNull ? "" : string<char>(definition, field, address), true, isNull};
  }
  if (field.type == MEM_PORT_WPSTR) {
    return PortWideText{isNull ? u"" : string<char16_t>(definition, field, address), true, isNull};
  }
  return PortPointer{isNull ? 0 : numberOf(address, *field.target)};
}

template <class Unit>
std::basic_string<Unit> GraphReader::string(const PortStructDefinition &definition,
                                            const PortFieldDefinition &field,
                                            const void *address) const {
  const auto units = static_cast<std::size_t>(entries_.at(address)) / sizeof(Unit);
  std::basic_string<Unit> made(units, Unit{0});
  std::memcpy(made.data(), address, units * sizeof(Unit));
  if (made.find(Unit{0}) == made.npos) {
    fail(definition, fmt::format("field {} is no string", field.name));
  }
  return untilZero(std::move(made));
}

// Texts that fields have by default are shared with the definitions.
void addDefaults(const PortDefinitions &definitions, PortEntries &entries) {
  for (const MEMStructDef *row = definitions.table(); row->StructID != 0; ++row) {
    for (const PortFieldDefinition &field : definitions.find(row->StructID)->fields) {
      const void *const text = field.record.Default.pBytes;
      if (field.type == MEM_PORT_PSTR && text != nullptr) {
        entries[text] = static_cast<std::int64_t>(field.defaultBytes.size() + 1);
      } else if (field.type == MEM_PORT_WPSTR && text != nullptr) {
        entries[text] =
            static_cast<std::int64_t>((field.defaultUnits.size() + 1) * sizeof(char16_t));
      }
    }
  }
}

}  // namespace

PortDocument decodePortText(RunningLibrary &library, const PortDefinitions &definitions,
                            std::string_view text, Console &console) {
  if (text.size() > UINT32_MAX) throw ToolError("the library reads at most 4 GB");
  const PortHeap heap(library);
  PortEntries entries;
  void *root = nullptr;
  {
    PortHeapWatch watch(library, heap);
    PortMessages messages(library);
    const std::int16_t result = library.vector().MEM_Port1StrToStruct(
        definitions.table(), text.data(), static_cast<std::uint32_t>(text.size()), heap.handle(),
        &root);
    if (result != 0) throw ToolError(messages.reason("MEM_Port1StrToStruct"));
    entries = watch.takeEntries();
  }
  addDefaults(definitions, entries);
  PortDocument document;
  document.characters = text.size();
  document.promised = portPromised(text);
  GraphReader(document, entries, console).run(root, *definitions.find(portRootId(text)));
  return document;
}

}  // namespace memtool
