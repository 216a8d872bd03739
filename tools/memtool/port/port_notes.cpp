#include "port_notes.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <utility>

namespace memtool {
namespace {

// Narrow text may be read into wide fields, unit by unit.
std::size_t unitsOf(const PortValue &value) {
  if (const auto *text = std::get_if<PortText>(&value)) return text->length;
  const auto *wide = std::get_if<PortWideText>(&value);
  return wide == nullptr ? 0 : wide->length;
}

// Units of text that a field keeps; strings of pointer fields have any length.
std::int64_t roomOf(const PortFieldDefinition &field) {
  const std::int64_t length = field.record.Length;
  switch (field.type) {
    case MEM_PORT_CHAR:
      return length;
    case MEM_PORT_CHARSZ:
      return std::max<std::int64_t>(length - 1, 0);
    case MEM_PORT_WCHAR:
      return length / 2;
    case MEM_PORT_WCHARSZ:
      return std::max<std::int64_t>(length / 2 - 1, 0);
    default:
      return INT64_MAX;
  }
}

// Bytes of a number, 0 for other types.
std::uint32_t numberLength(MEMFieldType type) {
  switch (type) {
    case MEM_PORT_SHORT:
    case MEM_PORT_USHORT:
      return 2;
    case MEM_PORT_LONG:
    case MEM_PORT_ULONG:
      return 4;
    case MEM_PORT_BIGINT:
    case MEM_PORT_UBIGINT:
      return 8;
    default:
      return 0;
  }
}

bool isSigned(MEMFieldType type) {
  return type == MEM_PORT_SHORT || type == MEM_PORT_LONG || type == MEM_PORT_BIGINT;
}

bool fits(MEMFieldType type, const PortNumber &number) {
  const std::uint32_t bits = 8 * numberLength(type);
  const std::uint64_t most = UINT64_MAX >> (64 - bits);
  if (!isSigned(type)) return number.magnitude <= most;
  return number.magnitude <= most / 2 + (number.isNegative ? 1 : 0);
}

class Notes {
 public:
  explicit Notes(const PortDefinitions &definitions) : definitions_(definitions) {}

  // The structure that the reader has just begun.
  void add(PortReader &reader, const PortStructure &structure) {
    const PortStructDefinition *const definition = definitions_.find(structure.id);
    if (definition == nullptr) return;  // the library refuses it
    for (PortFields fields(reader); fields.next();) {
      const PortField &field = fields.field();
      const PortFieldDefinition *const known = definition->find(std::to_string(field.id));
      if (known == nullptr) {
        if (definition->fields.empty() || field.id > definition->fields.back().record.FieldID) {
          addDropped(*definition, reader, fields);
        }
        return;
      }
      if (hasLostSign(*known, field)) return addLostSign(*definition, *known, field);
      addValue(*definition, *known, reader, field);
    }
  }

  std::vector<PortNote> take() { return std::move(notes_); }

 private:
  static std::string nameOf(const PortStructDefinition &definition) {
    const std::string id = std::to_string(definition.id);
    return definition.name == id ? "StructID " + id
                                 : fmt::format("{} (StructID {})", definition.name, id);
  }

  static bool hasLostSign(const PortFieldDefinition &known, const PortField &field) {
    const auto *const number = std::get_if<PortNumber>(&field.value);
    return number != nullptr && number->isNegative && numberLength(known.type) != 0 &&
           !isSigned(known.type);
  }

  // The reader of an unsigned number stops at the sign, and takes any character for a separator.
  void addLostSign(const PortStructDefinition &definition, const PortFieldDefinition &known,
                   const PortField &field) {
    notes_.push_back(
        {field.offset, definition.id, field.id,
         fmt::format("the library takes the digits after the sign of field {} of {} for a FieldID",
                     known.name, nameOf(definition))});
  }

  // The field at hand is newer than the definition: it goes, and all that follows.
  void addDropped(const PortStructDefinition &definition, PortReader &reader, PortFields &fields) {
    const PortField &field = fields.field();
    const std::uint32_t first = field.id;
    const std::size_t index = notes_.size();
    notes_.push_back({field.offset, definition.id, first, ""});  // its text needs the others
    lookThrough(definition.id, reader, field);
    std::string behind;
    while (fields.next()) {
      behind += fmt::format("{}{}", behind.empty() ? "" : ", ", field.id);
      lookThrough(definition.id, reader, field);
    }
    if (!behind.empty()) behind = " and all after it, " + behind;
    const std::string last = definition.fields.empty()
                                 ? "which has no fields"
                                 : "whose last one is " + definition.fields.back().name;
    notes_[index].what = fmt::format("the library drops field {}{}: it is newer than {}, {}", first,
                                     behind, nameOf(definition), last);
  }

  // The library looks nothing up in what it drops, and takes only double quotes for quotes.
  void lookThrough(std::uint32_t around, PortReader &reader, const PortField &field) {
    if (const auto *const wide = std::get_if<PortWideText>(&field.value)) {
      if (wide->units().find_first_of(u"\"<>") == std::u16string::npos) return;
      notes_.push_back({field.offset, around, field.id,
                        "the wide text contains one of \" < >, which the library takes for a mark "
                        "while it drops fields"});
      return;
    }
    const auto *const embedded = std::get_if<PortEmbedded>(&field.value);
    if (embedded == nullptr) return;
    const PortStructure &structure = embedded->structure;
    if (definitions_.find(structure.id) == nullptr) {
      notes_.push_back(
          {structure.offset.value_or(field.offset), structure.id, 0,
           fmt::format("StructID {} is unknown; the library does not look at it", structure.id)});
    }
    for (PortFields inner(reader); inner.next();) {
      lookThrough(structure.id, reader, inner.field());
    }
  }

  void addValue(const PortStructDefinition &definition, const PortFieldDefinition &known,
                PortReader &reader, const PortField &field) {
    const auto note = [&](const std::string &what) {
      notes_.push_back(
          {field.offset, definition.id, field.id,
           fmt::format("the library {} of field {} of {}", what, known.name, nameOf(definition))});
    };
    if (const auto *const embedded = std::get_if<PortEmbedded>(&field.value)) {
      if (known.type == MEM_PORT_SUBSTRUCTURE) add(reader, embedded->structure);
      return;
    }
    const bool mayCut = known.record.NoTruncate == 0;
    const std::size_t units = unitsOf(field.value);
    const std::int64_t room = roomOf(known);
    if (mayCut && static_cast<std::int64_t>(units) > room) {
      note(fmt::format("keeps {} of the {} characters", room, units));
    }
    if (const auto *const bytes = std::get_if<PortBytes>(&field.value)) {
      const auto length = static_cast<std::size_t>(std::max(known.record.Length, 0));
      if (known.type == MEM_PORT_BIN && mayCut && bytes->size() > length) {
        note(fmt::format("keeps {} of the {} bytes", length, bytes->size()));
      }
    } else if (const auto *const number = std::get_if<PortNumber>(&field.value)) {
      if (numberLength(known.type) != 0 && !fits(known.type, *number)) {
        note(fmt::format("keeps {} bits of the number {}{}", 8 * numberLength(known.type),
                         number->isNegative ? "-" : "", number->magnitude));
      }
    }
  }

  const PortDefinitions &definitions_;
  std::vector<PortNote> notes_;
};

}  // namespace

std::vector<PortNote> portNotes(const PortDefinitions &definitions, const PortDocument &document) {
  Notes notes(definitions);
  for (std::size_t number = 1; number <= document.count(); ++number) {
    const std::unique_ptr<PortReader> reader = document.read(number);
    notes.add(*reader, reader->structure());
  }
  return notes.take();
}

PortJson portNotesJson(const std::vector<PortNote> &notes) {
  PortJson json = PortJson::array();
  for (const PortNote &note : notes) {
    json.push_back({{"offset", note.offset},
                    {"structID", note.structID},
                    {"fieldID", note.fieldID == 0 ? PortJson() : PortJson(note.fieldID)},
                    {"what", note.what}});
  }
  return json;
}

}  // namespace memtool
