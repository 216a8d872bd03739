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

std::string nameOf(const PortField &field) {
  return field.definition == nullptr ? std::to_string(field.id) : field.definition->name;
}

std::string typeOf(const PortField &field) {
  return field.definition == nullptr ? portFormName(field.value)
                                     : portTypeName(field.definition->type);
}

std::string titleOf(const PortStructure &structure) {
  if (structure.definition == nullptr) return fmt::format("StructID {}", structure.id);
  if (structure.definition->name == std::to_string(structure.id)) {
    return fmt::format("StructID {}", structure.id);
  }
  return fmt::format("{} (StructID {})", structure.definition->name, structure.id);
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
    std::size_t nameWidth = 0;
    std::size_t typeWidth = 0;
    for (const PortField &field : structure.fields) {
      nameWidth = std::max(nameWidth, columnsOf(nameOf(field)));
      typeWidth = std::max(typeWidth, columnsOf(typeOf(field)));
    }
    for (const PortField &field : structure.fields) {
      const std::string name = nameOf(field);
      const std::string type = typeOf(field);
      const std::string blanks(indent + (field.definition == nullptr ? nameWidth - name.size() : 0),
                               ' ');
      const std::string behindName(
          2 + (field.definition == nullptr ? 0 : nameWidth - columnsOf(name)), ' ');
      const std::string behindType(2 + typeWidth - columnsOf(type), ' ');
      console_.print("{}{}{}{}{}", blanks, console_.paint(Ink::Name, name), behindName,
                     console_.paint(Ink::Dim, type), behindType);
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
  return portValueJson(field.value);
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

}  // namespace

void printPort(Console &console, const std::string &name, const PortDocument &document) {
  console.print("{}: {} characters, {} structure{}\n", console.paint(Ink::Heading, name),
                grouped(document.characters), grouped(document.promised),
                document.promised == 1 ? "" : "s");
  Printer printer(console);
  std::size_t number = 0;
  for (const PortStructure &structure : document.structures) {
    printer.structure(++number, structure);
  }
  if (document.fault || number == document.promised) return;
  console.print("\n{} more to which no pointer leads\n", grouped(document.promised - number));
}

PortJson portTextJson(const std::string &name, const PortDocument &document) {
  PortJson json{{"file", validUtf8(name)}, {"characters", document.characters}};
  json["structures"] = PortJson::array();
  for (const PortStructure &structure : document.structures) {
    PortJson made{{"number", json["structures"].size() + 1}};
    if (structure.offset) made["offset"] = *structure.offset;
    made.update(structureJson(structure));
    json["structures"].push_back(std::move(made));
  }
  json["fault"] = PortJson();
  if (document.fault) {
    json["fault"] = {{"offset", document.fault->offset},
                     {"expected", document.fault->expected},
                     {"found", document.fault->found}};
  }
  return json;
}

PortJson portGraphJson(const PortDocument &document) {
  PortJson json{{"root", "1"}, {"structures", PortJson::array()}};
  for (const PortStructure &structure : document.structures) {
    PortJson made{{"label", std::to_string(json["structures"].size() + 1)},
                  {"structure", structure.definition->name}};
    if (structure.definition->name == std::to_string(structure.id))
      made["structure"] = structure.id;
    made["fields"] = fieldsJson(structure);
    json["structures"].push_back(std::move(made));
  }
  return json;
}

}  // namespace memtool
