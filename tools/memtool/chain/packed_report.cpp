#include "packed_report.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <numeric>
#include <tuple>
#include <utility>

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

std::string usedText(const Block &block) {
  return block.isCut() ? fmt::format("{} of {}", block.used, block.told)
                       : std::to_string(block.used);
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
               {usedText(chain.blocks[i])},
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
  } else if (pointer.isFaulty) {
    line += console.paint(Ink::Bad, targetText(pointer) + "  (a fault)");
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

void printSegment(Console &console, const PackedChain &chain, const Segment &segment,
                  std::uint32_t steps, bool withData) {
  const std::string indent(2 + 2 * std::size_t{steps}, ' ');
  console.print("{}{}  kind {}, {}{} bytes\n", indent,
                console.paint(Ink::Place, textOf(segment.place)), segment.kind,
                segment.isCut || chain.kinds[segment.kind].form == Form::Unknown ? "at least " : "",
                segment.length);
  for (std::size_t i = 0; i < segment.pointerCount; ++i) {
    printPointer(console, chain, chain.pointers[segment.firstPointer + i], indent);
  }
  if (withData) printData(console, chain, segment, indent);
}

void printSegments(Console &console, const PackedChain &chain, const ChainSelection &selection,
                   bool withData) {
  if (!chain.root) return;
  const std::string heading = console.paint(Ink::Heading, "Segments");
  if (selection.isWhole()) {
    console.print("\n{}: {} in {}\n", heading, grouped(chain.segments.size()),
                  "the order of the structure");
  } else {
    console.print("\n{}: {} of {}{}\n", heading, grouped(selection.matching()),
                  grouped(chain.segments.size()), selection.text());
  }
  for (std::size_t i = 0; i < selection.shown(); ++i) {
    printSegment(console, chain, selection.segment(i), selection.indentOf(i), withData);
  }
  if (selection.leftOut() == 0) return;
  console.print("  {}\n", console.paint(Ink::Dim, fmt::format("… and {} more (--limit {})",
                                                              grouped(selection.leftOut()),
                                                              selection.shown())));
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

Json blockJson(std::size_t number, const Block &block, const BlockCount &count) {
  Json json{{"block", number}, {"fileOffset", block.fileOffset}, {"used", block.used}};
  if (block.isCut()) json["toldUsed"] = block.told;
  json["segments"] = count.segments;
  json["texts"] = count.texts;
  return json;
}

Json blocksJson(const PackedChain &chain) {
  Json list = Json::array();
  const std::vector<BlockCount> counts = countItems(chain);
  for (std::size_t i = 0; i < chain.blocks.size(); ++i) {
    list.push_back(blockJson(i, chain.blocks[i], counts[i]));
  }
  return list;
}

// A value within the document, indented.
std::string indented(const Json &json, std::size_t columns) {
  const std::string text = json.dump(2);
  std::string shifted;
  for (const char c : text) {
    shifted += c;
    if (c == '\n') shifted.append(columns, ' ');
  }
  return shifted;
}

// Writes the segments of a chain without keeping the document in memory.
class SegmentsJson {
 public:
  SegmentsJson(Console &console, const PackedChain &chain, const ChainSelection &selection,
               bool withData)
      : console_(console),
        chain_(chain),
        selection_(selection),
        withData_(withData),
        isWritten_(chain.texts.size()) {
    findWholeTexts();
  }

  void write() {
    if (selection_.shown() == 0) {
      console_.write("[]");
      return;
    }
    for (std::size_t i = 0; i < selection_.shown(); ++i) {
      out_ += i == 0 ? "[\n" : ",\n";
      addSegment(selection_.segment(i));
      if (out_.size() >= kBuffered) flush();
    }
    out_ += "\n  ]";
    flush();
  }

 private:
  static constexpr std::size_t kBuffered = 1 << 16;

  template <class... Args>
  void add(fmt::format_string<Args...> format, Args &&...args) {
    fmt::format_to(std::back_inserter(out_), format, std::forward<Args>(args)...);
  }
  void flush() {
    console_.write(out_);
    out_.clear();
  }

  // The texts that the shown segments point to.
  std::vector<std::uint32_t> shownTexts() const {
    if (selection_.isWhole()) return wholes_;
    std::vector<std::uint32_t> texts;
    std::vector<bool> isShown(chain_.texts.size());
    for (std::size_t i = 0; i < selection_.shown(); ++i) {
      const Segment &segment = selection_.segment(i);
      for (std::size_t k = 0; k < segment.pointerCount; ++k) {
        const std::uint32_t text = chain_.pointers[segment.firstPointer + k].text;
        if (text == kNoText || isShown[text]) continue;
        isShown[text] = true;
        texts.push_back(text);
      }
    }
    return texts;
  }

  // Of narrow texts that share their end, the longest shown one contains the others.
  void findWholeTexts() {
    wholes_.resize(chain_.texts.size());
    std::iota(wholes_.begin(), wholes_.end(), 0U);
    std::vector<std::uint32_t> order = shownTexts();
    const auto keyOf = [this](std::uint32_t index) {
      const Text &text = chain_.texts[index];
      return std::tuple(text.place.block, text.place.offset + text.length, text.place.offset);
    };
    std::sort(order.begin(), order.end(),
              [&](std::uint32_t a, std::uint32_t b) { return keyOf(a) < keyOf(b); });
    for (std::size_t i = 1; i < order.size(); ++i) {
      const auto [block, end, offset] = keyOf(order[i]);
      const auto [blockBefore, endBefore, offsetBefore] = keyOf(order[i - 1]);
      if (block == blockBefore && end == endBefore) wholes_[order[i]] = wholes_[order[i - 1]];
    }
  }

  void addSegment(const Segment &segment) {
    add("    {{\n      \"block\": {},\n      \"offset\": {},\n      \"kind\": {},\n"
        "      \"level\": {},\n      \"length\": {},\n",
        segment.place.block, segment.place.offset, segment.kind, segment.level, segment.length);
    if (segment.isCut) out_ += "      \"isCut\": true,\n";
    out_ += "      \"pointers\": [";
    for (std::size_t i = 0; i < segment.pointerCount; ++i) {
      out_ += i == 0 ? "\n" : ",\n";
      addPointer(chain_.pointers[segment.firstPointer + i]);
    }
    out_ += segment.pointerCount == 0 ? "]" : "\n      ]";
    if (withData_) addData(segment);
    out_ += "\n    }";
  }

  void addPlace(Place place) {
    add("{{\n            \"block\": {},\n            \"offset\": {}\n          }}", place.block,
        place.offset);
  }

  void addPointer(const Pointer &pointer) {
    add("        {{\n          \"field\": \"{}\",\n          \"offset\": {},\n",
        nameOf(pointer.field), pointer.offset);
    if (pointer.field == Field::Child) add("          \"kind\": {},\n", pointer.kind);
    out_ += "          \"target\": ";
    if (pointer.isNull || pointer.isFaulty) {
      out_ += "null";
    } else {
      addPlace(pointer.target);
    }
    if (pointer.isFaulty) out_ += ",\n          \"isFaulty\": true";
    if (pointer.text != kNoText) addText(pointer.text);
    out_ += "\n        }";
  }

  void addText(std::uint32_t index) {
    const Text &text = chain_.texts[index];
    const std::uint32_t whole = wholes_[index];
    if (whole != index || isWritten_[index]) {
      out_ += ",\n          \"textAt\": ";
      addPlace(chain_.texts[whole].place);
    } else {
      isWritten_[index] = true;
      const std::string utf8 = chain_.utf8Of(text);
      const bool isCut = utf8.size() > kMostJsonText;
      const std::string shown = isCut ? validUtf8(utf8.substr(0, kMostJsonText)) : utf8;
      add(",\n          \"text\": {}", Json(shown).dump());
      if (isCut) out_ += ",\n          \"isCut\": true";
    }
    add(",\n          \"isWide\": {}", text.isWide);
  }

  void addData(const Segment &segment) {
    out_ += ",\n      \"data\": [";
    bool isFirst = true;
    for (const PackedChain::Run &run : chain_.dataRuns(segment)) {
      out_ += isFirst ? "\n" : ",\n";
      isFirst = false;
      add("        {{\n          \"offset\": {},\n          \"bytes\": \"{}\"\n        }}",
          run.offset, hexOf(run.bytes, ""));
    }
    out_ += isFirst ? "]" : "\n      ]";
  }

  Console &console_;
  const PackedChain &chain_;
  const ChainSelection &selection_;
  bool withData_;
  std::vector<std::uint32_t> wholes_;  // of each text: the longest one with the same end
  std::vector<bool> isWritten_;        // of each text
  std::string out_;
};

Json verdictJson(const Verdict &verdict) {
  if (!verdict.wasAsked) return {{"wasAsked", false}, {"whyNot", verdict.whyNot}};
  return {{"wasAsked", true},
          {"takesIt", verdict.code == 0},
          {"code", verdict.code == 0 ? Json() : Json(verdict.code)},
          {"text", verdict.text}};
}

Json faultJson(const Fault &fault) {
  return {{"block", fault.place.block},
          {"offset", fault.place.offset},
          {"fileOffset", fault.fileOffset},
          {"what", fault.what},
          {"remark", fault.remark.empty() ? Json() : Json(fault.remark)}};
}

// The first fault, with the library's verdict on the chain; null if there is none.
Json firstFaultJson(const std::vector<Fault> &faults, const Verdict &verdict) {
  if (faults.empty()) return {};
  Json json = faultJson(faults.front());
  json["code"] = verdict.code == 0 ? Json() : Json(verdict.code);
  json["library"] = verdictJson(verdict);
  return json;
}

void addFaults(Json &json, const std::vector<Fault> &faults, const Verdict &verdict) {
  json["fault"] = firstFaultJson(faults, verdict);
  json["faults"] = Json::array();
  for (const Fault &fault : faults) json["faults"].push_back(faultJson(fault));
}

Json headJson(const std::string &name, const PackedChain &chain) {
  Json json{{"file", validUtf8(name)}, {"bytes", chain.bytes.size()}};
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
  return json;
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
                const ChainSelection &selection, bool withData) {
  if (!chain.version) return;
  printHead(console, name, chain);
  if (selection.isWhole()) {
    printKinds(console, chain);
    printBlocks(console, chain);
  }
  printSegments(console, chain, selection, withData);
}

void writeChainJson(Console &console, const std::string &name, const PackedChain &chain,
                    const ChainSelection &selection, const std::optional<Verdict> &verdict,
                    bool withData) {
  Json head = headJson(name, chain);
  if (!selection.isWhole()) {
    head["selection"] = {{"matching", selection.matching()},
                         {"shown", selection.shown()},
                         {"leftOut", selection.leftOut()}};
  }
  console.write("{");
  for (const auto &[key, value] : head.items()) {
    console.print("\n  \"{}\": {},", key, indented(value, 2));
  }
  console.write("\n  \"segments\": ");
  SegmentsJson(console, chain, selection, withData).write();
  console.print(",\n  \"fault\": {},\n  \"faults\": [",
                indented(firstFaultJson(chain.faults, verdict.value_or(Verdict{})), 2));
  bool isFirst = true;
  for (const Fault &fault : chain.faults) {
    console.print("{}\n    {}", isFirst ? "" : ",", indented(faultJson(fault), 4));
    isFirst = false;
  }
  console.write(isFirst ? "]\n}\n" : "\n  ]\n}\n");
}

Json chainCheckJson(const std::string &name, const PackedChain &chain,
                    const std::optional<Verdict> &verdict,
                    const std::optional<Fault> &unlikeDefinitions) {
  const bool isSound = chain.isSound() && !unlikeDefinitions;
  Json json{{"file", validUtf8(name)},           {"isSound", isSound},
            {"bytes", chain.bytes.size()},       {"blocks", chain.blocks.size()},
            {"segments", chain.segments.size()}, {"texts", chain.texts.size()}};
  if (chain.isSound()) json["unusedBlocks"] = chain.unusedBlocks();
  if (unlikeDefinitions) {
    addFaults(json, {*unlikeDefinitions}, {.whyNot = "the library does not know the definitions"});
  } else {
    addFaults(json, chain.faults, verdict.value_or(Verdict{}));
  }
  return json;
}

}  // namespace memtool
