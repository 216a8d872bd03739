// Kinds of trees as the definitions that memtool reads.
#pragma once

#include <algorithm>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "chainwriter.hpp"

namespace memtest {

using Json = nlohmann::ordered_json;

inline bool isTextKind(const chainwriter::Kind &kind) {
  return kind.form == chainwriter::Form::Narrow || kind.form == chainwriter::Form::Wide;
}

// The letter of a kind in the control blocks of writers with ASCII.
inline const char *letterOf(chainwriter::Form form) {
  switch (form) {
    case chainwriter::Form::Fixed:
      return "F";
    case chainwriter::Form::Counted:
      return "C";
    case chainwriter::Form::SelfDescribing:
      return "D";
    case chainwriter::Form::Narrow:
      return "S";
    default:
      return "W";
  }
}

// A field for each part, "f0" and so on, and "tail" for what follows them.
inline Json chainDefinitionsJson(const chainwriter::Tree &tree, std::size_t pointerWidth) {
  using What = chainwriter::Part::What;
  Json json{{"pointers", pointerWidth}, {"structures", Json::array()}};
  for (const chainwriter::Kind &kind : tree.kinds) {
    const std::size_t id = json["structures"].size() + 1;
    Json made{{"id", id}, {"segment", letterOf(kind.form)}};
    made["name"] = "kind" + std::to_string(id);
    const chainwriter::Layout layout = layoutOf(kind, pointerWidth);
    if (kind.form == chainwriter::Form::Fixed) made["length"] = layout.length;
    Json fields = Json::array();
    for (std::size_t i = 0; i < kind.parts.size(); ++i) {
      const chainwriter::Part &part = kind.parts[i];
      Json field{{"name", "f" + std::to_string(i)}, {"offset", layout.offsets[i]}};
      if (part.what == What::Data) {
        if (part.number == 0) continue;
        field["type"] = "Bin";
        field["length"] = part.number;
      } else if (part.what == What::Child) {
        const chainwriter::Form form = tree.kinds[part.number].form;
        field["type"] = form == chainwriter::Form::Narrow ? "PStr"
                        : form == chainwriter::Form::Wide ? "WPStr"
                                                          : "Pnt";
        field["structure"] = part.number + 1;
      } else {
        field["type"] = "Pnt";
        if (part.what == What::Reference) field["reference"] = true;
        if (part.what == What::Sibling) {
          field["structure"] = id;
          made["next"] = field["name"];
        }
      }
      fields.push_back(field);
    }
    if (kind.hasEntriesBackwards) std::reverse(fields.begin(), fields.end());
    const bool tellsLength =
        kind.form == chainwriter::Form::Counted || kind.form == chainwriter::Form::SelfDescribing;
    if (tellsLength) {
      fields.push_back({{"name", "tail"}, {"type", "Bin"}, {"offset", layout.length}});
    }
    std::size_t fieldId = 0;
    for (Json &field : fields) field["id"] = ++fieldId;
    if (!isTextKind(kind)) made["fields"] = fields;
    json["structures"].push_back(made);
  }
  return json;
}

}  // namespace memtest
