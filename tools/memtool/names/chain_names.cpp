#include "chain_names.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <numeric>
#include <utility>
#include <vector>

#include "chain_values.hpp"
#include "packed_report.hpp"
#include "tool_errors.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr std::size_t kMostShown = 200;  // characters of a value
constexpr std::size_t kBuffered = 1 << 16;
constexpr std::uint64_t kMostTexts = std::uint64_t{1} << 30;  // bytes in JSON

// Finds the number of a segment (from 1 in the order of the structure) by its place. If the writer
// has placed the segments in that order, the list of segments is searched directly.
class SegmentNumbers {
 public:
  explicit SegmentNumbers(const PackedChain &chain) : segments_(chain.segments) {
    const auto isBefore = [](const Segment &a, const Segment &b) { return a.place < b.place; };
    if (std::is_sorted(segments_.begin(), segments_.end(), isBefore)) return;
    order_.resize(segments_.size());
    std::iota(order_.begin(), order_.end(), 0U);
    std::sort(order_.begin(), order_.end(), [this](std::uint32_t a, std::uint32_t b) {
      return segments_[a].place < segments_[b].place;
    });
  }

  // 0 when no segment begins there.
  std::size_t at(Place place) const {
    std::size_t low = 0;
    std::size_t high = segments_.size();
    while (low < high) {
      const std::size_t middle = low + (high - low) / 2;
      if (nth(middle).place < place) {
        low = middle + 1;
      } else {
        high = middle;
      }
    }
    if (low == segments_.size() || nth(low).place != place) return 0;
    return (order_.empty() ? low : order_[low]) + 1;
  }

 private:
  const Segment &nth(std::size_t index) const {
    return segments_[order_.empty() ? index : order_[index]];
  }

  const std::vector<Segment> &segments_;
  std::vector<std::uint32_t> order_;  // indices sorted by place; empty when the list is sorted
};

// A piece of a segment: a field, a pointer without a name, or bytes without one.
struct Item {
  std::uint32_t offset = 0;
  std::uint32_t length = 0;
  const ChainFieldDefinition *field = nullptr;
  const Pointer *pointer = nullptr;
  std::optional<PortJson> value;  // of a field that is no pointer

  std::string name() const { return field != nullptr ? field->name : fmt::format("+{}", offset); }
};

// The items of a segment, sorted by offset. Fields that its end cuts, and values that are invalid
// for their types, become bytes.
class SegmentItems {
 public:
  SegmentItems(const ChainDefinitions &definitions, const PackedChain &chain)
      : definitions_(definitions), chain_(chain) {}

  // The result is valid until the next call.
  const std::vector<Item> &of(const Segment &segment) {
    items_.clear();
    const ChainKindDefinition *const kind = definitions_.find(segment.kind);
    for (std::size_t i = 0; i < segment.pointerCount; ++i) {
      addPointer(chain_.pointers[segment.firstPointer + i], kind);
    }
    if (kind != nullptr) {
      for (const ChainFieldDefinition &field : kind->fields) addValue(segment, field);
    }
    addGaps(segment);
    std::stable_sort(items_.begin(), items_.end(),
                     [](const Item &a, const Item &b) { return a.offset < b.offset; });
    return items_;
  }

  std::string_view bytesOf(const Segment &segment, const Item &item) const {
    return chain_.bytesAt({segment.place.block, segment.place.offset + item.offset}, item.length);
  }

 private:
  void addPointer(const Pointer &pointer, const ChainKindDefinition *kind) {
    const auto offset = static_cast<std::uint32_t>(pointer.offset);
    Item item{offset, chain_.pointerWidth, nullptr, &pointer, {}};
    if (kind != nullptr) {
      for (const ChainFieldDefinition &field : kind->fields) {
        if (isPointer(field.type) && field.offset == offset) item.field = &field;
      }
    }
    items_.push_back(std::move(item));
  }

  void addValue(const Segment &segment, const ChainFieldDefinition &field) {
    if (isPointer(field.type) || field.offset > segment.length) return;
    const std::uint32_t room = segment.length - field.offset;
    std::uint32_t length = field.extent(chain_.pointerWidth);
    if (field.toEnd) length = field.isArray ? room / field.length * field.length : room;
    if (length > room) return;
    Item item{field.offset, length, &field, nullptr, {}};
    item.value = chainValue(*chain_.version, field, bytesOf(segment, item));
    if (item.value) items_.push_back(std::move(item));
  }

  void addGaps(const Segment &segment) {
    covered_.clear();
    const Form form = chain_.kinds[segment.kind].form;
    const bool tellsLength = form == Form::Counted || form == Form::SelfDescribing;
    if (tellsLength) covered_.emplace_back(0, std::min(segment.length, 2U));
    for (const Item &item : items_) covered_.emplace_back(item.offset, item.offset + item.length);
    covered_.emplace_back(segment.length, segment.length);
    std::sort(covered_.begin(), covered_.end());
    std::uint32_t reached = 0;
    for (const auto &[from, to] : covered_) {
      if (from > reached) items_.push_back({reached, from - reached, nullptr, nullptr, {}});
      reached = std::max(reached, to);
    }
  }

  const ChainDefinitions &definitions_;
  const PackedChain &chain_;
  std::vector<Item> items_;
  std::vector<std::pair<std::uint32_t, std::uint32_t>> covered_;
};

// Numbers begin with 1. REQUIRES: the segment is an element of the chain's list.
std::size_t numberOf(const PackedChain &chain, const Segment &segment) {
  return static_cast<std::size_t>(&segment - chain.segments.data()) + 1;
}

// A damaged chain has pointers that lead nowhere, and pointers that were not followed.
bool leadsNowhere(const Pointer &pointer, bool isToText, std::size_t number) {
  return pointer.isFaulty || (isToText ? pointer.text == kNoText : number == 0);
}

// What both forms of output are made from.
class NamedChain {
 public:
  NamedChain(Console &console, const ChainDefinitions &definitions, const PackedChain &chain,
             const ChainSelection &selection)
      : console_(console),
        definitions_(definitions),
        chain_(chain),
        selection_(selection),
        numbers_(chain),
        items_(definitions, chain) {}

 protected:
  Console &console_;
  const ChainDefinitions &definitions_;
  const PackedChain &chain_;
  const ChainSelection &selection_;
  SegmentNumbers numbers_;
  SegmentItems items_;
};

class NamedPrinter : NamedChain {
 public:
  using NamedChain::NamedChain;

  void print() {
    for (std::size_t i = 0; i < selection_.shown(); ++i) {
      printSegment(selection_.segment(i), selection_.indentOf(i));
    }
    if (selection_.leftOut() > 0) {
      const std::string more = fmt::format("… and {} more (--limit {})",
                                           grouped(selection_.leftOut()), selection_.shown());
      console_.print("\n{}\n", console_.paint(Ink::Dim, more));
    }
    const bool isTextAlone = chain_.root && chain_.segments.empty() && !chain_.texts.empty();
    if (!isTextAlone) return;
    const PortShown shown = shownText(chain_.texts.front());
    console_.print("\n{}\n", console_.paint(shown.ink, shown.text));
  }

 private:
  void printSegment(const Segment &segment, std::uint32_t level) {
    const std::size_t indent = 2 * std::size_t{level};
    const std::string kind = definitions_.nameOf(segment.kind);
    const bool isOpen = segment.isCut || chain_.kinds[segment.kind].form == Form::Unknown;
    console_.print("\n{:{}}{}  {}, {}{} bytes{}\n", "", indent,
                   console_.paint(Ink::Place, std::to_string(numberOf(chain_, segment))),
                   console_.paint(Ink::Heading, kind), isOpen ? "at least " : "", segment.length,
                   console_.paint(Ink::Dim, " at " + textOf(segment.place)));
    const std::vector<Item> &items = items_.of(segment);
    std::size_t nameWidth = 0;
    std::size_t typeWidth = 0;
    for (const Item &item : items) {
      nameWidth = std::max(nameWidth, columnsOf(item.name()));
      typeWidth = std::max(typeWidth, typeOf(item).size());
    }
    for (const Item &item : items) {
      const std::string name = item.name();
      const std::string type = typeOf(item);
      const PortShown shown = shownOf(segment, item);
      console_.print("{:{}}{}{:{}}{}{:{}}{}\n", "", indent + 4, console_.paint(Ink::Name, name), "",
                     2 + nameWidth - columnsOf(name), console_.paint(Ink::Dim, type), "",
                     2 + typeWidth - type.size(), console_.paint(shown.ink, shown.text));
    }
  }

  std::string typeOf(const Item &item) const {
    if (item.pointer != nullptr) {
      const Pointer &pointer = *item.pointer;
      if (pointer.field != Field::Child) return nameOf(pointer.field);
      const Form form = chain_.kinds[pointer.kind].form;
      return isText(form) ? formName(form) : nameOf(pointer.field);
    }
    if (item.field == nullptr) return "bytes";
    const std::string type = chainTypeName(item.field->type);
    return item.field->isArray ? type + "[]" : type;
  }

  // Many pointers may share a long text, so only the part that is shown is converted.
  PortShown shownText(const Text &text) const {
    constexpr std::uint32_t kMostConverted = 4096;
    if (text.length > kMostConverted) {
      const Text start{text.place, kMostConverted, text.isWide};
      return {inQuotes(chain_.utf8Of(start), kMostShown), Ink::Text};
    }
    const PortJson value = chainTextValue(chain_, text);
    if (!value.is_string()) return {value.dump(), Ink::Plain};
    return {inQuotes(value.get_ref<const std::string &>(), kMostShown), Ink::Text};
  }

  PortShown shownOf(const Segment &segment, const Item &item) const {
    if (item.pointer != nullptr) return shownPointer(*item.pointer);
    if (item.field != nullptr) return showChainValue(*item.field, *item.value, kMostShown);
    const std::string_view bytes = items_.bytesOf(segment, item);
    return showPortValue(PortBytes{bytes}, kMostShown);
  }

  PortShown shownPointer(const Pointer &pointer) const {
    if (pointer.isNull) return {"null", Ink::Dim};
    const bool isToText = pointer.field == Field::Child && isText(chain_.kinds[pointer.kind].form);
    const std::size_t number = isToText ? 0 : numbers_.at(pointer.target);
    if (leadsNowhere(pointer, isToText, number)) {
      return {targetText(pointer) + "  (a fault)", Ink::Bad};
    }
    if (isToText) return shownText(chain_.texts[pointer.text]);
    return {fmt::format("-> {}", number), Ink::Place};
  }
};

class NamedJson : NamedChain {
 public:
  using NamedChain::NamedChain;

  void write() {
    refuseTooManyTexts();
    const bool hasText = chain_.root && chain_.segments.empty() && !chain_.texts.empty();
    out_ += "{\n";
    addRoot();
    if (hasText) add("  \"text\": {},\n", chainTextValue(chain_, chain_.texts.front()).dump());
    out_ += "  \"structures\": [";
    for (std::size_t i = 0; i < selection_.shown(); ++i) {
      out_ += i == 0 ? "" : ",";
      addSegment(selection_.segment(i));
      if (out_.size() >= kBuffered) flush();
    }
    out_ += selection_.shown() == 0 ? "]" : "\n  ]";
    addFaults();
    out_ += "\n}\n";
    flush();
  }

 private:
  template <class... Args>
  void add(fmt::format_string<Args...> format, Args &&...args) {
    fmt::format_to(std::back_inserter(out_), format, std::forward<Args>(args)...);
  }
  void flush() {
    console_.write(out_);
    out_.clear();
  }

  // Many pointers may share a long text.
  void refuseTooManyTexts() const {
    std::uint64_t bytes = 0;
    for (const Pointer &pointer : chain_.pointers) {
      if (pointer.text != kNoText) bytes += chain_.texts[pointer.text].length;
    }
    if (bytes <= kMostTexts) return;
    throw ToolError(fmt::format(
        "the texts would take {} bytes, because pointers share them and each is written with its "
        "text; JSON without --defs has each text once",
        grouped(bytes)));
  }

  // The label of the root, if the shown structures begin at one, and how many were left out.
  void addRoot() {
    if (chain_.segments.empty()) {
      out_ += "  \"root\": null,\n";
    } else if (selection_.isWhole() || selection_.root()) {
      add("  \"root\": \"{}\",\n", selection_.root().value_or(0) + 1);
    }
    if (selection_.isWhole()) return;
    add("  \"selection\": {{ \"matching\": {}, \"shown\": {}, \"leftOut\": {} }},\n",
        selection_.matching(), selection_.shown(), selection_.leftOut());
  }

  void addSegment(const Segment &segment) {
    const ChainKindDefinition *const kind = definitions_.find(segment.kind);
    add("\n    {{\n      \"label\": \"{}\",\n", numberOf(chain_, segment));
    if (kind == nullptr) {
      add("      \"kind\": {},\n", segment.kind);
    } else {
      const bool isNamed = kind->name != std::to_string(kind->id);
      add("      \"structure\": {},\n", isNamed ? PortJson(kind->name).dump() : kind->name);
    }
    if (segment.isCut) out_ += "      \"isCut\": true,\n";
    out_ += "      \"fields\": {";
    bool isFirst = true;
    for (const Item &item : items_.of(segment)) {
      out_ += isFirst ? "\n" : ",\n";
      isFirst = false;
      add("        {}: ", PortJson(item.name()).dump());
      addValue(segment, item);
    }
    out_ += isFirst ? "}\n    }" : "\n      }\n    }";
  }

  void addValue(const Segment &segment, const Item &item) {
    if (item.pointer != nullptr) {
      // Without a definition only this distinguishes pointers from bytes.
      if (item.field == nullptr) out_ += "{\"pointer\": ";
      addPointer(*item.pointer);
      if (item.field == nullptr) out_ += '}';
    } else if (item.field != nullptr) {
      out_ += item.value->dump();
    } else {
      add("\"{}\"", portHex(items_.bytesOf(segment, item)));
    }
  }

  void addPointer(const Pointer &pointer) {
    if (pointer.isNull) {
      out_ += "null";
      return;
    }
    const bool isToText = pointer.field == Field::Child && isText(chain_.kinds[pointer.kind].form);
    const std::size_t number = isToText ? 0 : numbers_.at(pointer.target);
    if (leadsNowhere(pointer, isToText, number)) {
      add("{{\"fault\": \"{}\"}}", targetText(pointer));
    } else if (isToText) {
      out_ += chainTextValue(chain_, chain_.texts[pointer.text]).dump();
    } else {
      add("\"{}\"", number);
    }
  }

  void addFaults() {
    if (chain_.isSound()) return;
    out_ += ",\n  \"faults\": [";
    bool isFirst = true;
    for (const Fault &fault : chain_.faults) {
      add("{}\n    {}", isFirst ? "" : ",", PortJson(fault.text()).dump());
      isFirst = false;
      if (out_.size() >= kBuffered) flush();
    }
    out_ += "\n  ]";
  }

  std::string out_;
};

}  // namespace

std::optional<Fault> wrongReference(const ChainDefinitions &definitions, const PackedChain &chain) {
  const SegmentNumbers numbers(chain);
  for (const Segment &segment : chain.segments) {
    const ChainKindDefinition *const kind = definitions.find(segment.kind);
    if (kind == nullptr) continue;
    for (std::size_t i = 0; i < segment.pointerCount; ++i) {
      const Pointer &pointer = chain.pointers[segment.firstPointer + i];
      if (pointer.field != Field::Reference || pointer.isNull || pointer.isFaulty) continue;
      const std::size_t number = numbers.at(pointer.target);
      if (number == 0) continue;
      const std::uint16_t found = chain.segments[number - 1].kind;
      for (const ChainFieldDefinition &field : kind->fields) {
        const bool isThis = isPointer(field.type) && field.target &&
                            field.offset == static_cast<std::uint32_t>(pointer.offset);
        if (!isThis || *field.target == found) continue;
        const Place place{segment.place.block, segment.place.offset + field.offset};
        return Fault{place, chain.fileOffset(place),
                     fmt::format("the reference {} of the {} at {} leads to a {}, not to a {}",
                                 field.name, kind->name, textOf(segment.place),
                                 definitions.nameOf(found), definitions.nameOf(*field.target))};
      }
    }
  }
  return {};
}

void printNamedChain(Console &console, const std::string &name, const ChainDefinitions &definitions,
                     const PackedChain &chain, const ChainSelection &selection) {
  if (!chain.version) return;
  console.print("{}: {} bytes in {}, {} segments and {} texts\n", console.paint(Ink::Heading, name),
                grouped(chain.bytes.size()), countOf(chain.blocks.size(), "block"),
                grouped(chain.segments.size()), grouped(chain.texts.size()));
  console.print("{}\n", writerText(chain));
  if (!selection.isWhole()) {
    console.print("{} of {}{}\n", grouped(selection.matching()),
                  countOf(chain.segments.size(), "segment"), selection.text());
  }
  NamedPrinter(console, definitions, chain, selection).print();
}

void writeNamedChainJson(Console &console, const ChainDefinitions &definitions,
                         const PackedChain &chain, const ChainSelection &selection) {
  NamedJson(console, definitions, chain, selection).write();
}

}  // namespace memtool
