#include "contract_report.hpp"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "contract_text.hpp"
#include "tool_errors.hpp"
#include "tool_table.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

using Json = nlohmann::ordered_json;

Json contract() {
  return Json::parse(contractText());
}

std::string textOf(const Json &entry, const char *key) {
  return entry.value(key, std::string());
}

// "int16_t MEM_HeapClose(HMEMHEAP hMemHeap)"
std::string declaration(const Json &call) {
  std::string list;
  for (const Json &parameter : call["parameters"]) {
    if (!list.empty()) list += ", ";
    const std::string type = textOf(parameter, "type");
    list += type + (type.back() == '*' ? "" : " ") + textOf(parameter, "name");
  }
  if (call.contains("variadic")) list += ", ...";
  const std::string result = textOf(call, "result");
  return result + (result.back() == '*' ? "" : " ") + textOf(call, "name") + "(" + list + ")";
}

// Prints the lines of a comment after an empty line.
void printDoc(Console &console, const std::string &doc) {
  if (doc.empty()) return;
  console.print("\n");
  for (std::size_t at = 0; at <= doc.size();) {
    const std::size_t end = std::min(doc.find('\n', at), doc.size());
    console.print("{}\n", doc.substr(at, end - at));
    at = end + 1;
  }
}

std::string number(const Json &entry, const char *key) {
  return std::to_string(entry[key].get<std::int64_t>());
}

void printCalls(Console &console, const Json &calls, const char *numberKey) {
  Table table({{"slot", true}, {"name"}, {"declaration"}});
  for (const Json &call : calls) {
    table.add({{number(call, numberKey), Ink::Place},
               {textOf(call, "name"), Ink::Name},
               {declaration(call)}});
  }
  console.write(table.text(console, 0));
}

void printVector(Console &console, const Json &services, const std::string &vector) {
  Json calls = Json::array();
  for (const Json &service : services) {
    if (service["vector"] == vector) calls.push_back(service);
  }
  console.print("\nHost services, {}\n", vector);
  printCalls(console, calls, "slot");
}

// "char[64]"
std::string fieldType(const Json &field) {
  const std::string type = textOf(field, "type");
  return field.contains("count") ? fmt::format("{}[{}]", type, number(field, "count")) : type;
}

void printRecord(Console &console, const Json &record) {
  console.print("{}, {} bytes\n", textOf(record, "name"), number(record, "size"));
  printDoc(console, textOf(record, "doc"));
  console.print("\n");
  Table table({{"offset", true}, {"bytes", true}, {"field"}, {"type"}});
  for (const Json &field : record["fields"]) {
    table.add({{number(field, "offset"), Ink::Place},
               {number(field, "size")},
               {textOf(field, "name"), Ink::Name},
               {fieldType(field)}});
  }
  console.write(table.text(console, 0));
}

void printCall(Console &console, const Json &call, const std::string &place) {
  console.print("{}\n{}\n", place, declaration(call));
  printDoc(console, textOf(call, "doc"));
}

const Json *findIn(const Json &list, const std::string &name) {
  for (const Json &entry : list) {
    if (entry["name"] == name) return &entry;
  }
  return nullptr;
}

}  // namespace

std::string contractText() {
  std::string text;
  for (const std::string_view piece : contractPieces()) text += piece;
  return text;
}

void printContract(Console &console) {
  const Json all = contract();
  console.print("Slots of the MEM function vector\n");
  printCalls(console, all["slots"], "number");
  for (const char *vector : {"MEMRuntimeServices", "MEMTraceServices", "MEMTextServices"}) {
    printVector(console, all["services"], vector);
  }
  console.print("\nRecords\n");
  Table table({{"bytes", true}, {"fields", true}, {"name"}});
  for (const Json &record : all["records"]) {
    table.add({{number(record, "size"), Ink::Place},
               {std::to_string(record["fields"].size())},
               {textOf(record, "name"), Ink::Name}});
  }
  console.write(table.text(console, 0));
}

void printContractEntry(Console &console, const std::string &name) {
  const Json all = contract();
  if (const Json *const slot = findIn(all["slots"], name)) {
    return printCall(console, *slot, "Slot " + number(*slot, "number"));
  }
  if (const Json *const service = findIn(all["services"], name)) {
    return printCall(console, *service,
                     "Slot " + number(*service, "slot") + " of " + textOf(*service, "vector"));
  }
  if (const Json *const record = findIn(all["records"], name)) return printRecord(console, *record);
  throw ToolError("the contract has no slot, host service or record with the name " +
                  inQuotes(name) + "; `memtool contract` shows them all");
}

}  // namespace memtool
