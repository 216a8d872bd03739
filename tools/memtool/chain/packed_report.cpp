#include "packed_report.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "tool_table.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr std::size_t kMostShownText = 60;   // characters of a text in the tree
constexpr std::size_t kMostJsonText = 4096;  // the same in JSON: many pointers may share a text
constexpr std::size_t kBytesOfLine = 16;     // of a dump

std::string hexOf(std::string_view bytes, const char *between) {
  std::string hex;
  for (const char byte : bytes) {
    if (!hex.empty()) hex += between;
    hex += fmt::format("{:02X}", static_cast<std::uint8_t>(byte));
  }
  return hex;
}

std::string shownAscii(std::string_view bytes) {
  std::string shown(bytes);
  const auto isHidden = [](char c) { return c < 0x20 || c > 0x7E; };
  std::replace_if(shown.begin(), shown.end(), isHidden, '.');
  return shown;
}

std::string joined(const std::vector<std::string> &parts) {
  std::string all;
  for (const std::string &part : parts) all += (all.empty() ? "" : ", ") + part;
  return all;
}

std::string kindLength(const Kind &kind) {
  switch (kind.form) {
    case Form::Fixed:
      return std::to_string(kind.fixedLen);
    case Form::Unknown:
      return "?";
    default:
      return "";
  }
}

void printHead(Console &console, const std::string &name, const PackedChain &chain) {
  const Version &version = *chain.version;
  console.print("{}\n", console.paint(Ink::Heading, name));
  console.print("  version  {}{}, {} control block\n", version.text,
                version.isEbcdic ? " in EBCDIC" : "", version.isOldLayout ? "old" : "current");
  console.print("  writer   {}\n", writerText(chain));
  if (chain.isWidthGuessed) {
    console.print("           (the width of pointers is a guess: --pointers 4 or 8 decides it)\n");
  }
  console.print("  length   {} bytes in {} block{}\n", grouped(chain.bytes.size()),
                grouped(chain.blocks.size()), chain.blocks.size() == 1 ? "" : "s");
}

void printKinds(Console &console, const PackedChain &chain) {
  if (chain.kinds.empty()) return;
  console.print("\n{}: {} kind{} of segments in {} bytes\n",
                console.paint(Ink::Heading, "Control block"), chain.kindCount,
                chain.kindCount == 1 ? "" : "s", chain.controlBlockLen);
  Table table({{"kind", true},
               {"type"},
               {"form"},
               {"length", true},
               {"sibling", true},
               {"children"},
               {"references"}});
  for (std::size_t i = 0; i < chain.readKindCount(); ++i) {
    const Kind &kind = chain.kinds[i];
    std::vector<std::string> children;
    for (const MemPackChild &child : kind.children) {
      children.push_back(fmt::format("{} at {}", child.Descriptor, child.Offset));
    }
    std::vector<std::string> references;
    for (const std::int16_t reference : kind.references) {
      references.push_back(std::to_string(reference));
    }
    table.add({{std::to_string(i), Ink::Name},
               {typeName(kind)},
               {formName(kind.form)},
               {kindLength(kind)},
               {kind.hasSibling() ? std::to_string(kind.siblingOff) : ""},
               {joined(children)},
               {joined(references)}});
  }
  console.write(table.text(console));
}

void printBlocks(Console &console, const PackedChain &chain) {
  if (chain.blocks.empty()) return;
  console.print("\n{}\n", console.paint(Ink::Heading, "Blocks"));
  Table table({{"block", true},
               {"file offset", true},
               {"used", true},
               {"segments", true},
               {"texts", true}});
  const std::vector<BlockCount> counts = countItems(chain);
  for (std::size_t i = 0; i < chain.blocks.size(); ++i) {
    table.add({{std::to_string(i), Ink::Place},
               {std::to_string(chain.blocks[i].fileOffset)},
               {std::to_string(chain.blocks[i].used)},
               {std::to_string(counts[i].segments)},
               {std::to_string(counts[i].texts)}});
  }
  console.write(table.text(console));
}

std::string fieldName(const PackedChain &chain, const Pointer &pointer) {
  if (pointer.field != Field::Child) return nameOf(pointer.field);
  const Form form = chain.kinds[pointer.kind].form;
  return isText(form) ? formName(form) : nameOf(pointer.field);
}

void printPointer(Console &console, const PackedChain &chain, const Pointer &pointer,
                  const std::string &indent) {
  std::string line = fmt::format("{}{:>5}  {:<9}  ", indent, fmt::format("+{}", pointer.offset),
                                 fieldName(chain, pointer));
  if (pointer.isNull) {
    line += console.paint(Ink::Dim, "null");
  } else {
    line += console.paint(Ink::Place, textOf(pointer.target));
  }
  if (pointer.text != kNoText) {
    const std::string text = chain.utf8Of(chain.texts[pointer.text]);
    line += "  " + console.paint(Ink::Text, inQuotes(text, kMostShownText));
  }
  console.print("{}\n", line);
}

void printData(Console &console, const PackedChain &chain, const Segment &segment,
               const std::string &indent) {
  for (const PackedChain::Run &run : chain.dataRuns(segment)) {
    for (std::size_t at = 0; at < run.bytes.size(); at += kBytesOfLine) {
      const std::string_view line = run.bytes.substr(at, kBytesOfLine);
      console.print("{}{:>5}  {:<47}  {}\n", indent, fmt::format("+{}", run.offset + at),
                    hexOf(line, " "), console.paint(Ink::Dim, shownAscii(line)));
    }
  }
}

void printSegments(Console &console, const PackedChain &chain, bool withData) {
  if (!chain.root) return;
  console.print("\n{}: {} in {}\n", console.paint(Ink::Heading, "Segments"),
                grouped(chain.segments.size()), "the order of the structure");
  for (const Segment &segment : chain.segments) {
    const std::string indent(2 + 2 * std::size_t{segment.level}, ' ');
    console.print("{}{}  kind {}, {}{} bytes\n", indent,
                  console.paint(Ink::Place, textOf(segment.place)), segment.kind,
                  chain.kinds[segment.kind].form == Form::Unknown ? "at least " : "",
                  segment.length);
    for (std::size_t i = 0; i < segment.pointerCount; ++i) {
      printPointer(console, chain, chain.pointers[segment.firstPointer + i], indent);
    }
    if (withData) printData(console, chain, segment, indent);
  }
}

using Json = nlohmann::ordered_json;

Json placeJson(Place place) {
  return {{"block", place.block}, {"offset", place.offset}};
}

Json kindJson(std::size_t index, const Kind &kind) {
  Json json{{"kind", index}, {"type", typeName(kind)}, {"form", formName(kind.form)}};
  json["fixedLength"] = kind.form == Form::Fixed ? Json(kind.fixedLen) : Json();
  json["siblingOffset"] = kind.hasSibling() ? Json(kind.siblingOff) : Json();
  json["children"] = Json::array();
  for (const MemPackChild &child : kind.children) {
    json["children"].push_back({{"kind", child.Descriptor}, {"offset", child.Offset}});
  }
  json["references"] = Json::array();
  for (const std::int16_t reference : kind.references) json["references"].push_back(reference);
  return json;
}

Json blocksJson(const PackedChain &chain) {
  Json list = Json::array();
  const std::vector<BlockCount> counts = countItems(chain);
  for (std::size_t i = 0; i < chain.blocks.size(); ++i) {
    list.push_back({{"block", i},
                    {"fileOffset", chain.blocks[i].fileOffset},
                    {"used", chain.blocks[i].used},
                    {"segments", counts[i].segments},
                    {"texts", counts[i].texts}});
  }
  return list;
}

Json pointerJson(const PackedChain &chain, const Pointer &pointer) {
  Json json{{"field", nameOf(pointer.field)}, {"offset", pointer.offset}};
  if (pointer.field == Field::Child) json["kind"] = pointer.kind;
  json["target"] = pointer.isNull ? Json() : placeJson(pointer.target);
  if (pointer.text == kNoText) return json;
  const Text &text = chain.texts[pointer.text];
  const std::string utf8 = chain.utf8Of(text);
  json["text"] = utf8.size() <= kMostJsonText ? utf8 : validUtf8(utf8.substr(0, kMostJsonText));
  if (utf8.size() > kMostJsonText) json["isCut"] = true;
  json["isWide"] = text.isWide;
  return json;
}

Json segmentJson(const PackedChain &chain, const Segment &segment, bool withData) {
  Json json{{"block", segment.place.block}, {"offset", segment.place.offset},
            {"kind", segment.kind},         {"level", segment.level},
            {"length", segment.length},     {"pointers", Json::array()}};
  for (std::size_t i = 0; i < segment.pointerCount; ++i) {
    json["pointers"].push_back(pointerJson(chain, chain.pointers[segment.firstPointer + i]));
  }
  if (!withData) return json;
  json["data"] = Json::array();
  for (const PackedChain::Run &run : chain.dataRuns(segment)) {
    json["data"].push_back({{"offset", run.offset}, {"bytes", hexOf(run.bytes, "")}});
  }
  return json;
}

Json verdictJson(const Verdict &verdict) {
  if (!verdict.wasAsked) return {{"wasAsked", false}, {"whyNot", verdict.whyNot}};
  return {{"wasAsked", true},
          {"takesIt", verdict.code == 0},
          {"code", verdict.code == 0 ? Json() : Json(verdict.code)},
          {"text", verdict.text}};
}

Json faultJson(const Fault &fault, const Verdict &verdict) {
  return {{"block", fault.place.block},
          {"offset", fault.place.offset},
          {"fileOffset", fault.fileOffset},
          {"what", fault.what},
          {"remark", fault.remark.empty() ? Json() : Json(fault.remark)},
          {"code", verdict.code == 0 ? Json() : Json(verdict.code)},
          {"library", verdictJson(verdict)}};
}

}  // namespace

std::string typeName(const Kind &kind) {
  switch (kind.form) {
    case Form::Fixed:
      return "F";
    case Form::Counted:
      return "C";
    case Form::NarrowText:
      return "S";
    case Form::WideText:
      return "W";
    default:
      break;
  }
  const bool isLetter = kind.typeCode > 0x20 && kind.typeCode < 0x7F;
  return isLetter ? std::string(1, static_cast<char>(kind.typeCode))
                  : fmt::format("0x{:02X}", kind.typeCode);
}

const char *formName(Form form) {
  switch (form) {
    case Form::Fixed:
      return "fixed";
    case Form::Counted:
      return "counted";
    case Form::SelfDescribing:
      return "own length";
    case Form::NarrowText:
      return "text";
    case Form::WideText:
      return "wide text";
    case Form::Unknown:
      break;
  }
  return "unknown";
}

std::string writerText(const PackedChain &chain) {
  const Version &version = *chain.version;
  std::string text = version.isBigEndian ? "big-endian" : "little-endian";
  if (chain.pointerWidth != 0) text += fmt::format(", pointers of {} bytes", chain.pointerWidth);
  return text + fmt::format(", wide characters of {} bytes, {}", version.wideSize,
                            version.isEbcdic ? "EBCDIC" : "ASCII");
}

std::vector<BlockCount> countItems(const PackedChain &chain) {
  std::vector<BlockCount> counts(chain.blocks.size());
  for (const Segment &segment : chain.segments) ++counts[segment.place.block].segments;
  for (const Text &text : chain.texts) ++counts[text.place.block].texts;
  return counts;
}

void printChain(Console &console, const std::string &name, const PackedChain &chain,
                bool withData) {
  if (!chain.version) return;
  printHead(console, name, chain);
  printKinds(console, chain);
  printBlocks(console, chain);
  printSegments(console, chain, withData);
}

Json chainJson(const std::string &name, const PackedChain &chain,
               const std::optional<Verdict> &verdict, bool withData) {
  Json json{{"file", name}, {"bytes", chain.bytes.size()}};
  if (chain.version) {
    json["version"] = chain.version->text;
    json["writer"] = {{"isEbcdic", chain.version->isEbcdic},
                      {"isBigEndian", chain.version->isBigEndian},
                      {"hasOldControlBlock", chain.version->isOldLayout},
                      {"wideSize", chain.version->wideSize},
                      {"pointerWidth", chain.pointerWidth == 0 ? Json() : Json(chain.pointerWidth)},
                      {"isPointerWidthGuessed", chain.isWidthGuessed}};
  }
  json["controlBlock"] = {{"length", chain.controlBlockLen}, {"kinds", Json::array()}};
  for (std::size_t i = 0; i < chain.readKindCount(); ++i) {
    json["controlBlock"]["kinds"].push_back(kindJson(i, chain.kinds[i]));
  }
  json["blocks"] = blocksJson(chain);
  json["root"] = chain.root ? placeJson(*chain.root) : Json();
  json["segments"] = Json::array();
  for (const Segment &segment : chain.segments) {
    json["segments"].push_back(segmentJson(chain, segment, withData));
  }
  json["fault"] = chain.fault ? faultJson(*chain.fault, verdict.value_or(Verdict{})) : Json();
  return json;
}

}  // namespace memtool
