#include "port_report.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

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
  explicit Printer(Console &console) : console_(console) {}

  void structure(std::size_t number, const PortStructure &structure) {
    console_.print("\n{}  {}{}", console_.paint(Ink::Place, std::to_string(number)),
                   console_.paint(Ink::Heading, titleOf(structure)), elementsOf(structure));
    if (structure.offset) {
      console_.write(console_.paint(Ink::Dim, fmt::format(", at character {}", *structure.offset)));
    }
    console_.write("\n");
    fields(structure, kIndent);
  }

 private:
  void fields(const PortStructure &structure, std::size_t indent) {
    const std::vector<std::string> names = portFieldNames(structure);
    std::size_t nameWidth = 0;
    std::size_t typeWidth = 0;
    for (std::size_t i = 0; i < names.size(); ++i) {
      nameWidth = std::max(nameWidth, columnsOf(names[i]));
      typeWidth = std::max(typeWidth, columnsOf(typeOf(structure.fields[i])));
    }
    for (std::size_t i = 0; i < names.size(); ++i) {
      const PortField &field = structure.fields[i];
      const std::string type = typeOf(field);
      // Identifiers stand at the right of their column.
      const std::size_t missing = nameWidth - columnsOf(names[i]);
      const std::size_t left = field.definition == nullptr ? missing : 0;
      console_.print("{:{}}{}{:{}}{}{:{}}", "", indent + left, console_.paint(Ink::Name, names[i]),
                     "", 2 + missing - left, console_.paint(Ink::Dim, type), "",
                     2 + typeWidth - columnsOf(type));
      value(field, indent);
    }
  }

  void value(const PortField &field, std::size_t indent) {
    if (const auto *embedded = std::get_if<PortEmbedded>(&field.value)) {
      console_.print("{}{}\n", titleOf(*embedded->structure), elementsOf(*embedded->structure));
      return fields(*embedded->structure, indent + kIndent);
    }
    const PortShown shown = showPortValue(field.value, kMostShown);
    console_.print("{}\n", console_.paint(shown.ink, shown.text));
  }

  Console &console_;
};

// Without definitions a field tells what it is.
PortJson structureJson(const PortStructure &structure) {
  PortJson json{{"structID", structure.id}};
  if (structure.elements) json["elements"] = *structure.elements;
  json["fields"] = PortJson::array();
  for (const PortField &field : structure.fields) {
    PortJson made{{"id", field.id}, {"form", portFormName(field.value)}};
    if (const auto *pointer = std::get_if<PortPointer>(&field.value)) {
      made["value"] = pointer->number == 0 ? PortJson() : PortJson(pointer->number);
    } else if (const auto *embedded = std::get_if<PortEmbedded>(&field.value)) {
      made["value"] = structureJson(*embedded->structure);
    } else {
      made["value"] = portValueJson(field.value);
    }
    json["fields"].push_back(std::move(made));
  }
  return json;
}

PortJson fieldsJson(const PortStructure &structure);

PortJson graphValueJson(const PortField &field) {
  if (const auto *pointer = std::get_if<PortPointer>(&field.value)) {
    return pointer->number == 0 ? PortJson() : PortJson(std::to_string(pointer->number));
  }
  if (const auto *embedded = std::get_if<PortEmbedded>(&field.value)) {
    return fieldsJson(*embedded->structure);
  }
  const PortJson value = portValueJson(field.value);
  const MEMFieldType type = field.definition->type;
  const bool isBig = type == MEM_PORT_UBIGINT || type == MEM_PORT_BIGINT;
  return isBig && value.is_number() ? PortJson(value.dump()) : value;
}

PortJson fieldsJson(const PortStructure &structure) {
  const PortStructDefinition &definition = *structure.definition;
  PortJson json = PortJson::object();
  for (const PortField &field : structure.fields) {
    const bool isRepeated =
        definition.hasRepeatField() && field.definition == &definition.repeatField();
    if (isRepeated) {
      json[field.definition->name].push_back(graphValueJson(field));
    } else {
      json[field.definition->name] = graphValueJson(field);
    }
  }
  if (structure.elements == 0U) json[definition.repeatField().name] = PortJson::array();
  return json;
}

PortJson faultJson(const PortFault &fault) {
  return {{"offset", fault.offset}, {"expected", fault.expected}, {"found", fault.found}};
}

// A value within the document, with its indentation.
std::string indented(const PortJson &json, std::size_t columns) {
  std::string shifted;
  for (const char c : json.dump(2)) {
    shifted += c;
    if (c == '\n') shifted.append(columns, ' ');
  }
  return shifted;
}

PortJson numberedJson(const PortStructure &structure, std::size_t number) {
  PortJson made{{"number", number}};
  if (structure.offset) made["offset"] = *structure.offset;
  made.update(structureJson(structure));
  return made;
}

PortJson labelledJson(const PortStructure &structure, std::size_t number) {
  PortJson made{{"label", std::to_string(number)}, {"structure", structure.definition->name}};
  if (structure.definition->name == std::to_string(structure.id)) made["structure"] = structure.id;
  made["fields"] = fieldsJson(structure);
  return made;
}

// The members "selection" and "structures". The document is never held as JSON: that would take
// many times its length.
void writeStructures(Console &console, const PortDocument &document, const PortSelection &selection,
                     PortJson (*toJson)(const PortStructure &, std::size_t)) {
  if (!selection.isWhole()) {
    console.print("  \"selection\": {},\n", indented(selection.json(), 2));
  }
  console.write("  \"structures\": ");
  for (std::size_t i = 0; i < selection.shown(); ++i) {
    const std::size_t number = selection.number(i);
    console.write(i == 0 ? "[\n    " : ",\n    ");
    console.write(indented(toJson(document.structures[number - 1], number), 4));
  }
  console.write(selection.shown() == 0 ? "[]" : "\n  ]");
}

}  // namespace

void printPort(Console &console, const std::string &name, const PortDocument &document,
               const PortSelection &selection) {
  console.print("{}: {} characters, {} structure{}\n", console.paint(Ink::Heading, name),
                grouped(document.characters), grouped(document.promised),
                document.promised == 1 ? "" : "s");
  if (!selection.isWhole()) {
    console.print("{} of {}{}\n", grouped(selection.matching()),
                  countOf(document.structures.size(), "structure"), selection.text());
  }
  Printer printer(console);
  for (std::size_t i = 0; i < selection.shown(); ++i) {
    const std::size_t number = selection.number(i);
    printer.structure(number, document.structures[number - 1]);
  }
  if (selection.leftOut() > 0) {
    console.print("\n{}\n", console.paint(Ink::Dim, fmt::format("… and {} more (--limit {})",
                                                                grouped(selection.leftOut()),
                                                                selection.shown())));
  }
  const std::size_t read = document.structures.size();
  if (document.fault || read == document.promised) return;
  console.print("\n{} more to which no pointer leads\n", grouped(document.promised - read));
}

void writePortTextJson(Console &console, const std::string &name, const PortDocument &document,
                       const PortSelection &selection) {
  console.print("{{\n  \"file\": {},\n  \"characters\": {},\n", PortJson(validUtf8(name)).dump(),
                document.characters);
  writeStructures(console, document, selection, numberedJson);
  const PortJson fault = document.fault ? faultJson(*document.fault) : PortJson();
  console.print(",\n  \"fault\": {}\n}}\n", indented(fault, 2));
}

PortJson portCheckJson(const std::string &name, const PortDocument &document) {
  const std::optional<PortFault> fault = firstPortFault(document);
  return {{"file", validUtf8(name)},
          {"isSound", !fault},
          {"characters", document.characters},
          {"structures", document.structures.size()},
          {"fault", fault ? faultJson(*fault) : PortJson()}};
}

PortJson portGraphJson(const PortDocument &document, const PortSelection &selection) {
  PortJson json = PortJson::object();
  if (selection.shows(selection.root())) json["root"] = std::to_string(selection.root());
  if (!selection.isWhole()) json["selection"] = selection.json();
  json["structures"] = PortJson::array();
  for (std::size_t i = 0; i < selection.shown(); ++i) {
    const std::size_t number = selection.number(i);
    json["structures"].push_back(labelledJson(document.structures[number - 1], number));
  }
  return json;
}

void writePortGraphJson(Console &console, const PortDocument &document,
                        const PortSelection &selection) {
  console.write("{\n");
  if (selection.shows(selection.root())) {
    console.print("  \"root\": \"{}\",\n", selection.root());
  }
  writeStructures(console, document, selection, labelledJson);
  console.write("\n}\n");
}

}  // namespace memtool
