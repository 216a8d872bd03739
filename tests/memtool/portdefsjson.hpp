// Definition tables as the JSON that memtool reads.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "qj7mem00/memport.h"

namespace memtest {

using Json = nlohmann::ordered_json;

// `names` is the prefix of identifiers; without it, there are none.
inline Json definitionsJson(const MEMStructDef *defs, const std::string &names) {
  Json json{{"structures", Json::array()}};
  for (const MEMStructDef *def = defs; def->StructID != 0; ++def) {
    Json structure{{"id", def->StructID}, {"length", def->Length}, {"fields", Json::array()}};
    if (!names.empty()) structure["name"] = names + std::to_string(def->StructID);
    for (std::int32_t i = 0; i < def->FieldCount; ++i) {
      const MEMFieldDef &field = def->Fields[i];
      Json made{{"id", field.FieldID},
                {"type", field.Type},
                {"length", field.Length},
                {"offset", field.Offset},
                {"required", field.Required != 0},
                {"noTruncate", field.NoTruncate != 0},
                {"notPorted", field.NotPorted != 0}};
      if (!names.empty()) made["name"] = names + std::to_string(field.FieldID);
      if (field.Type == MEM_PORT_PNT || field.Type == MEM_PORT_SUBSTRUCTURE) {
        made["structure"] = field.SubStructID;
      }
      structure["fields"].push_back(std::move(made));
    }
    if (def->CountField != MEM_PORT_NO_COUNT) {
      structure["countField"] = def->Fields[def->CountField].FieldID;
      structure["countIsLength"] = def->CountIsLength != 0;
    }
    json["structures"].push_back(std::move(structure));
  }
  return json;
}

}  // namespace memtest
