#include "port_report.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <vector>

#include "port_defs.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr std::size_t kMostShown = 200;  // characters of a value
constexpr std::size_t kIndent = 4;       // of fields, and of a structure in a structure

std::string typeOf(const PortField &field) {
  return field.definition == nullptr ? portFormName(field.value)
                                     : portTypeName(field.definition->type);
}

std::string titleOf(const PortStructure &structure) {
  const std::string id = fmt::format("StructID {}", structure.id);
  const std::string name = portStructureName(structure);
  return name == id ? id : fmt::format("{} ({})", name, id);
}

std::string elementsOf(const PortStructure &structure) {
  if (!structure.elements) return "";
  return fmt::format(", {} element{}", grouped(*structure.elements),
                     *structure.elements == 1 ? "" : "s");
}

class Printer {
 public:
  Printer(Console &console, const PortDocument &document)
      : console_(console), document_(document) {}

  void structure(std::size_t number) {
    widths_.clear();
    nextWidths_ = 0;
    measure(*document_.read(number));
    const std::unique_ptr<PortReader> reader = document_.read(number);
    const PortStructure &structure = reader->structure();
    console_.print("\n{}  {}{}", console_.paint(Ink::Place, std::to_string(number)),
                   console_.paint(Ink::Heading, titleOf(structure)), elementsOf(structure));
    if (structure.offset) {
      console_.write(console_.paint(Ink::Dim, fmt::format(", at character {}", *structure.offset)));
    }
    console_.write("\n");
    fields(*reader, structure, kIndent);
  }

 private:
  // Columns of the fields' names and types.
  struct Widths {
    std::uint32_t name = 0;
    std::uint32_t type = 0;

    void extend(const std::string &names, const std::string &types) {
      name = std::max(name, static_cast<std::uint32_t>(columnsOf(names)));
      type = std::max(type, static_cast<std::uint32_t>(columnsOf(types)));
    }
  };

  void measure(PortReader &reader) { measure(reader, reader.structure()); }

  // Of the structure and those embedded in it, in the order in which fields() meets them.
  void measure(PortReader &reader, const PortStructure &structure) {
    const std::size_t index = widths_.size();
    widths_.emplace_back();
    PortFieldNames names(structure);
    for (PortFields fields(reader); fields.next();) {
      const PortField &field = fields.field();
      widths_[index].extend(names.next(field), typeOf(field));
      if (const auto *embedded = std::get_if<PortEmbedded>(&field.value)) {
        measure(reader, embedded->structure);
      }
    }
  }

  void fields(PortReader &reader, const PortStructure &structure, std::size_t indent) {
    const Widths widths = widths_[nextWidths_++];
    PortFieldNames names(structure);
    for (PortFields fields(reader); fields.next();) {
      const PortField &field = fields.field();
      const std::string name = names.next(field);
      const std::string type = typeOf(field);
      // Identifiers are at the right of their column.
      const std::size_t missing = widths.name - columnsOf(name);
      const std::size_t left = field.definition == nullptr ? missing : 0;
      console_.print("{:{}}{}{:{}}{}{:{}}", "", indent + left, console_.paint(Ink::Name, name), "",
                     2 + missing - left, console_.paint(Ink::Dim, type), "",
                     2 + widths.type - columnsOf(type));
      value(reader, field, indent);
    }
  }

  void value(PortReader &reader, const PortField &field, std::size_t indent) {
    if (const auto *embedded = std::get_if<PortEmbedded>(&field.value)) {
      const PortStructure &structure = embedded->structure;
      console_.print("{}{}\n", titleOf(structure), elementsOf(structure));
      return fields(reader, structure, indent + kIndent);
    }
    const PortShown shown = showPortValue(field.value, kMostShown);
    console_.print("{}\n", console_.paint(shown.ink, shown.text));
  }

  Console &console_;
  const PortDocument &document_;
  std::vector<Widths> widths_;
  std::size_t nextWidths_ = 0;
};

// Structures as JSON from the text alone, where a field has its form.
class TextJson {
 public:
  explicit TextJson(JsonStream &json) : json_(json) {}

  void structure(PortReader &reader, std::size_t number) {
    const PortStructure &structure = reader.structure();
    json_.beginObject();
    json_.key("number");
    json_.literal(std::to_string(number));
    if (structure.offset) {
      json_.key("offset");
      json_.literal(std::to_string(*structure.offset));
    }
    members(reader, structure);
    json_.end();
  }

 private:
  void members(PortReader &reader, const PortStructure &structure) {
    json_.key("structID");
    json_.literal(std::to_string(structure.id));
    if (structure.elements) {
      json_.key("elements");
      json_.literal(std::to_string(*structure.elements));
    }
    json_.key("fields");
    json_.beginArray();
    for (PortFields fields(reader); fields.next();) field(reader, fields.field());
    json_.end();
  }

  void field(PortReader &reader, const PortField &field) {
    json_.beginObject();
    json_.key("id");
    json_.literal(std::to_string(field.id));
    json_.key("form");
    json_.text(portFormName(field.value));
    json_.key("value");
    if (const auto *pointer = std::get_if<PortPointer>(&field.value)) {
      json_.literal(pointer->number == 0 ? "null" : std::to_string(pointer->number));
    } else if (const auto *embedded = std::get_if<PortEmbedded>(&field.value)) {
      json_.beginObject();
      members(reader, embedded->structure);
      json_.end();
    } else {
      writePortValue(json_, field.value);
    }
    json_.end();
  }

  JsonStream &json_;
};

// Structures as JSON with the names of their definitions.
class GraphJson {
 public:
  explicit GraphJson(JsonStream &json) : json_(json) {}

  void structure(PortReader &reader, std::size_t number) {
    const PortStructure &structure = reader.structure();
    const std::string id = std::to_string(structure.id);
    json_.beginObject();
    json_.key("label");
    json_.text(std::to_string(number));
    json_.key("structure");
    if (structure.definition->name == id) {
      json_.literal(id);
    } else {
      json_.text(structure.definition->name);
    }
    json_.key("fields");
    fields(reader, structure);
    json_.end();
  }

 private:
  // The elements of a repeat field are the last fields.
  void fields(PortReader &reader, const PortStructure &structure) {
    const PortStructDefinition &definition = *structure.definition;
    bool isInElements = false;
    json_.beginObject();
    for (PortFields fields(reader); fields.next();) {
      const PortField &field = fields.field();
      const bool isElement =
          definition.hasRepeatField() && field.definition == &definition.repeatField();
      if (!isInElements) json_.key(field.definition->name);
      if (isElement && !isInElements) json_.beginArray();
      isInElements = isElement;
      value(reader, field);
    }
    if (isInElements) json_.end();
    if (structure.elements == 0U) {
      json_.key(definition.repeatField().name);
      json_.beginArray();
      json_.end();
    }
    json_.end();
  }

  void value(PortReader &reader, const PortField &field) {
    const auto *number = std::get_if<PortNumber>(&field.value);
    const MEMFieldType type = field.definition->type;
    const bool isBig = type == MEM_PORT_UBIGINT || type == MEM_PORT_BIGINT;
    if (const auto *pointer = std::get_if<PortPointer>(&field.value)) {
      if (pointer->number == 0) return json_.literal("null");
      json_.text(std::to_string(pointer->number));
    } else if (const auto *embedded = std::get_if<PortEmbedded>(&field.value)) {
      fields(reader, embedded->structure);
    } else if (isBig && number != nullptr) {
      json_.text(portDecimal(*number));
    } else {
      writePortValue(json_, field.value);
    }
  }

  JsonStream &json_;
};

PortJson faultJson(const PortFault &fault) {
  return {{"offset", fault.offset}, {"expected", fault.expected}, {"found", fault.found}};
}

// The members "selection" and "structures".
template <class Structures>
void writeStructures(JsonStream &json, const PortDocument &document,
                     const PortSelection &selection) {
  if (!selection.isWhole()) {
    json.key("selection");
    json.value(selection.json());
  }
  json.key("structures");
  json.beginArray();
  Structures structures(json);
  for (std::size_t i = 0; i < selection.shown(); ++i) {
    const std::size_t number = selection.number(i);
    structures.structure(*document.read(number), number);
  }
  json.end();
}

}  // namespace

void printPort(Console &console, const std::string &name, const PortDocument &document,
               const PortSelection &selection) {
  console.print("{}: {} characters, {} structure{}\n", console.paint(Ink::Heading, name),
                grouped(document.characters), grouped(document.promised),
                document.promised == 1 ? "" : "s");
  if (!selection.isWhole()) {
    console.print("{} of {}{}\n", grouped(selection.matching()),
                  countOf(document.count(), "structure"), selection.text());
  }
  Printer printer(console, document);
  for (std::size_t i = 0; i < selection.shown(); ++i) printer.structure(selection.number(i));
  if (selection.leftOut() > 0) {
    console.print("\n{}\n", console.paint(Ink::Dim, fmt::format("… and {} more (--limit {})",
                                                                grouped(selection.leftOut()),
                                                                selection.shown())));
  }
  if (document.unread > 0) {
    console.print("\n{} after the last structure, which readers ignore: see --check\n",
                  countOf(document.unread, "character"));
  }
  const std::size_t read = document.count();
  if (document.fault || read == document.promised) return;
  console.print("\n{} more to which no pointer leads\n", grouped(document.promised - read));
}

void writePortTextJson(Console &console, const std::string &name, const PortDocument &document,
                       const PortSelection &selection) {
  JsonStream json(console);
  json.beginObject();
  json.key("file");
  json.text(validUtf8(name));
  json.key("characters");
  json.literal(std::to_string(document.characters));
  writeStructures<TextJson>(json, document, selection);
  json.key("fault");
  json.value(document.fault ? faultJson(*document.fault) : PortJson());
  json.end();
  json.flush();
  console.write("\n");
}

PortJson portCheckJson(const std::string &name, const PortDocument &document) {
  const std::optional<PortFault> fault = firstPortFault(document);
  return {{"file", validUtf8(name)},
          {"isSound", !fault},
          {"characters", document.characters},
          {"structures", document.count()},
          {"fault", fault ? faultJson(*fault) : PortJson()}};
}

void writePortGraphJson(Console &console, const PortDocument &document,
                        const PortSelection &selection) {
  JsonStream json(console);
  json.beginObject();
  if (selection.shows(selection.root())) {
    json.key("root");
    json.text(std::to_string(selection.root()));
  }
  writeStructures<GraphJson>(json, document, selection);
  json.end();
  json.flush();
  console.write("\n");
}

PortJson portGraphJson(const PortDocument &document, const PortSelection &selection) {
  std::ostringstream text;
  Console console(text, text, {});
  writePortGraphJson(console, document, selection);
  return PortJson::parse(text.str());
}

}  // namespace memtool
