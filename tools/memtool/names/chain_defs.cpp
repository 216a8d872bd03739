#include "chain_defs.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include "packed_head.hpp"
#include "packed_report.hpp"
#include "tool_errors.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr std::size_t kMostKinds = 0x7FFF - 2;  // text may need two more kinds
constexpr std::uint32_t kMostSegment = 0xFFFF;
constexpr std::uint32_t kLengthWord = 2;  // at the start of counted and self-describing segments

struct TypeRow {
  const char *name;
  std::uint32_t width;  // of the value; 0 when it is the field's length
};

// In the order of ChainType.
constexpr std::array<TypeRow, 19> kTypes{{{"Char", 0},
                                          {"CharSZ", 0},
                                          {"WChar", 0},
                                          {"WCharSZ", 0},
                                          {"Bin", 0},
                                          {"Bit", 1},
                                          {"SByte", 1},
                                          {"UByte", 1},
                                          {"Short", 2},
                                          {"UShort", 2},
                                          {"Long", 4},
                                          {"ULong", 4},
                                          {"BigInt", 8},
                                          {"UBigInt", 8},
                                          {"Float", 4},
                                          {"Double", 8},
                                          {"PStr", 0},
                                          {"WPStr", 0},
                                          {"Pnt", 0}}};

std::uint32_t widthOf(ChainType type) {
  return kTypes[static_cast<std::size_t>(type)].width;
}

bool isWide(ChainType type) {
  return type == ChainType::WChar || type == ChainType::WCharSZ;
}

ChainType readType(const PortJsonNode &node) {
  std::string names;
  for (std::size_t i = 0; i < kTypes.size(); ++i) {
    if (node.text() == kTypes[i].name) return static_cast<ChainType>(i);
    names += fmt::format("{}{}", i == 0 ? "" : ", ", kTypes[i].name);
  }
  const bool isOnlyForPortStrings = node.text() == "Substructure";
  node.fail(fmt::format("{}; there are {}",
                        isOnlyForPortStrings ? "only port strings have this type" : "unknown type",
                        names));
}

std::string nameOrId(const PortJsonNode &node) {
  if (node.json().is_string()) return node.text();
  return std::to_string(node.integer(1, UINT32_MAX));
}

// The form of the text that a field leads to; Unknown for other fields.
Form textFormOf(ChainType type) {
  if (type == ChainType::PStr) return Form::NarrowText;
  return type == ChainType::WPStr ? Form::WideText : Form::Unknown;
}

// The bytes of a field, `to` excluded.
struct Extent {
  std::uint32_t from;
  std::uint32_t to;
  const ChainFieldDefinition *field;
};

bool shareBytes(const Extent &left, const Extent &right) {
  return left.from < right.to && right.from < left.to;
}

[[noreturn]] void failAgainst(const PortJsonNode &node, const std::string &file,
                              const std::string &what) {
  node.fail(fmt::format("this does not agree with the control block of {}: {}", file, what));
}

// The pointer that a control block has at an offset; none when there is no pointer.
struct ToldPointer {
  Field role;
  std::optional<std::uint16_t> target;
};
std::optional<ToldPointer> pointerAt(const Kind &told, std::uint32_t offset) {
  const auto isHere = [offset](std::int16_t at) { return at == static_cast<std::int32_t>(offset); };
  if (told.hasSibling() && isHere(told.siblingOff)) return ToldPointer{Field::Sibling, {}};
  for (const MemPackChild &child : told.children) {
    if (isHere(child.Offset)) return ToldPointer{Field::Child, child.Descriptor};
  }
  for (const std::int16_t reference : told.references) {
    if (isHere(reference)) return ToldPointer{Field::Reference, {}};
  }
  return {};
}

void checkPointer(const std::string &file, const ChainFieldDefinition &field, const Kind &told,
                  const std::vector<Kind> &kinds) {
  const std::optional<ToldPointer> pointer = pointerAt(told, field.offset);
  if (!pointer) {
    failAgainst(field.node, file, fmt::format("no pointer is at offset {}", field.offset));
  }
  if (pointer->role != field.role) {
    failAgainst(
        field.node, file,
        fmt::format("the pointer at offset {} is a {}", field.offset, nameOf(pointer->role)));
  }
  if (field.role != Field::Child) return;
  const Form form = kinds[*pointer->target].form;
  const Form text = textFormOf(field.type);
  const Form wanted = text == Form::Unknown ? form : text;
  const bool isOther = field.target && *field.target != *pointer->target;
  if (form != wanted || isOther || (field.type == ChainType::Pnt && isText(form))) {
    failAgainst(field.node, file,
                fmt::format("the child at offset {} is of kind {} ({})", field.offset,
                            *pointer->target, formName(form)));
  }
}

bool isOfForm(const ChainKindDefinition &kind, const Kind &told) {
  if (kind.form != Form::SelfDescribing) return told.form == kind.form;
  const bool tellsItself = told.form == Form::SelfDescribing || told.form == Form::Unknown;
  return tellsItself && told.typeCode == kind.typeCode;
}

// Pointers without a definition are allowed, unless a field of another type overlaps them.
void checkPointers(const std::string &file, const ChainKindDefinition &kind, const Kind &told,
                   const PackedChain &chain) {
  const std::vector<std::int32_t> offsets = told.pointerOffsets();
  for (const ChainFieldDefinition &field : kind.fields) {
    if (isPointer(field.type)) {
      checkPointer(file, field, told, chain.kinds);
      continue;
    }
    const std::uint32_t length = field.toEnd ? kMostSegment : field.extent(chain.pointerWidth);
    const Extent extent{field.offset, field.offset + length, &field};
    for (const std::int32_t offset : offsets) {
      if (offset < 0) continue;
      const auto from = static_cast<std::uint32_t>(offset);
      if (shareBytes(extent, {from, from + chain.pointerWidth, nullptr})) {
        failAgainst(field.node, file, fmt::format("a pointer is at offset {}", offset));
      }
    }
  }
}

}  // namespace

const char *chainTypeName(ChainType type) {
  return kTypes[static_cast<std::size_t>(type)].name;
}

std::uint32_t ChainFieldDefinition::extent(std::uint32_t pointerWidth) const {
  if (isPointer(type)) return pointerWidth;
  return toEnd ? 0 : length * count;
}

const ChainFieldDefinition *ChainKindDefinition::find(std::string_view field) const {
  const auto found = indices.find(field);
  return found == indices.end() ? nullptr : &fields[found->second];
}

ChainDefinitions::ChainDefinitions(const std::string &name, std::string json)
    : json_(std::move(json)), text_(name, json_) {
  const PortJsonNode top(text_);
  refuseGraph(top);
  top.requireKeys({"structures", "pointers"});
  if (const std::optional<PortJsonNode> width = top.find("pointers")) {
    pointerWidth_ = static_cast<std::uint32_t>(width->integer(4, 8));
    if (pointerWidth_ != 4 && pointerWidth_ != 8) width->fail("pointers have 4 or 8 bytes");
  }
  const PortJsonNode list = top.at("structures");
  const std::vector<PortJsonNode> nodes = list.elements();
  if (nodes.empty()) list.fail("no structure is defined");
  if (nodes.size() > kMostKinds)
    list.fail(
        fmt::format("{} structures; a control block has at most {}", nodes.size(), kMostKinds));
  addKinds(nodes);
  for (ChainKindDefinition &kind : kinds_) addFields(kind);
  if (pointerWidth_ != 0) checkLayout(pointerWidth_);
}

// Reads the structures without their fields first, because pointers may name any structure.
void ChainDefinitions::addKinds(const std::vector<PortJsonNode> &nodes) {
  kinds_.reserve(nodes.size());
  for (const PortJsonNode &node : nodes) {
    refuseGraphStructure(node);
    node.refuseKeys({"countField", "countIsLength"}, kIsForPortStrings);
    node.requireKeys({"id", "name", "length", "segment", "next", "fields"});
    ChainKindDefinition kind{.node = node};
    kind.kind = static_cast<std::uint16_t>(kinds_.size());
    kind.id = static_cast<std::uint32_t>(node.at("id").integer(1, INT32_MAX));
    const std::optional<PortJsonNode> named = node.find("name");
    kind.name = named ? named->name() : std::to_string(kind.id);
    readForm(kind, node);
    if (!byId_.emplace(kind.id, kinds_.size()).second) {
      node.fail(fmt::format("a second structure with the id {}", kind.id));
    }
    if (!byName_.emplace(kind.name, kinds_.size()).second) {
      node.fail(fmt::format("a second structure {}", kind.name));
    }
    kinds_.push_back(std::move(kind));
  }
}

void ChainDefinitions::readForm(ChainKindDefinition &kind, const PortJsonNode &node) {
  const std::optional<PortJsonNode> segment = node.find("segment");
  kind.typeCode = MEM_PACK_FIXED;
  if (segment && segment->json().is_string()) {
    const std::string &letter = segment->text();
    if (letter.size() != 1) segment->fail("a segment's type is one letter, or a number");
    kind.typeCode = static_cast<std::uint8_t>(letter[0]);
  } else if (segment) {
    kind.typeCode = static_cast<std::uint16_t>(segment->integer(0, UINT16_MAX));
  }
  kind.form = formOf(kind.typeCode, false);  // the letters are ASCII
  if (kind.form == Form::Fixed) {
    kind.fixedLen = static_cast<std::uint16_t>(node.at("length").integer(1, UINT16_MAX));
  } else if (const std::optional<PortJsonNode> length = node.find("length")) {
    length->integer(0, UINT16_MAX);  // not used: the segment begins with its length
  }
}

void ChainDefinitions::addFields(ChainKindDefinition &kind) {
  const std::optional<PortJsonNode> fields = kind.node.find("fields");
  if (isText(kind.form)) {
    if (fields) fields->fail("text has no fields");
    if (const std::optional<PortJsonNode> next = kind.node.find("next")) {
      next->fail("text has no next segment");
    }
    return;
  }
  const std::vector<PortJsonNode> nodes = kind.node.at("fields").elements();
  if (nodes.size() > MEM_PORT_MAX_FIELDS) {
    fields->fail(fmt::format("more than {} fields", static_cast<int>(MEM_PORT_MAX_FIELDS)));
  }
  std::int64_t lastId = 0;
  for (const PortJsonNode &node : nodes) {
    addField(kind, node, &node == &nodes.back());
    const std::int64_t id = node.at("id").integer(1, UINT32_MAX);
    if (id <= lastId) node.fail("the ids of fields must ascend");
    lastId = id;
  }
  readNext(kind);
  for (const ChainFieldDefinition &field : kind.fields) {
    if (field.role == Field::Child && field.type == ChainType::Pnt && !field.target) {
      field.node.fail("\"structure\" is missing");
    }
  }
}

void ChainDefinitions::addField(ChainKindDefinition &kind, const PortJsonNode &node, bool isLast) {
  // The last four are for port strings and have no effect here.
  node.requireKeys({"id", "name", "type", "offset", "length", "count", "toEnd", "structure",
                    "reference", "required", "noTruncate", "notPorted", "default"});
  ChainFieldDefinition field{.node = node};
  const std::int64_t id = node.at("id").integer(1, UINT32_MAX);
  const std::optional<PortJsonNode> named = node.find("name");
  field.name = named ? named->name() : std::to_string(id);
  if (field.name[0] == '+')
    named->fail("a name must not begin with +, which marks bytes without a name");
  field.type = readType(node.at("type"));
  field.offset = static_cast<std::uint32_t>(node.at("offset").integer(0, kMostSegment - 1));
  if (isPointer(field.type)) {
    readPointer(field);
  } else {
    readExtent(kind, field, isLast);
  }
  if (!kind.indices.emplace(field.name, kind.fields.size()).second) {
    node.fail("a second field " + field.name);
  }
  kind.indices.emplace(std::to_string(id), kind.fields.size());
  kind.fields.push_back(std::move(field));
}

void ChainDefinitions::readNext(ChainKindDefinition &kind) {
  const std::optional<PortJsonNode> named = kind.node.find("next");
  if (!named) return;
  const auto found = kind.indices.find(nameOrId(*named));
  ChainFieldDefinition *const field =
      found == kind.indices.end() ? nullptr : &kind.fields[found->second];
  if (field == nullptr || field->type != ChainType::Pnt || field->target != kind.kind) {
    named->fail("expected a Pnt of this structure to the same structure");
  }
  if (field->role == Field::Reference)
    named->fail("the pointer to the next segment must not be a reference");
  field->role = Field::Sibling;
}

void ChainDefinitions::readExtent(const ChainKindDefinition &kind, ChainFieldDefinition &field,
                                  bool isLast) {
  const PortJsonNode &node = field.node;
  for (const char *const key : {"structure", "reference"}) {
    if (const std::optional<PortJsonNode> found = node.find(key)) {
      found->fail("only pointers have this key");
    }
  }
  const std::optional<PortJsonNode> toEnd = node.find("toEnd");
  const std::optional<PortJsonNode> length = node.find("length");
  const bool takesRest =
      isLast && kind.tellsLength() && field.type == ChainType::Bin && !length && !toEnd;
  field.toEnd = takesRest || (toEnd && toEnd->flag());
  if (field.toEnd && !kind.tellsLength()) {
    toEnd->fail("only a segment that begins with its length has a varying end");
  }
  if (field.toEnd && field.type == ChainType::Bit) toEnd->fail("a field of type Bit has one byte");
  const std::uint32_t width = widthOf(field.type);
  field.length = width;
  if (length) {
    if (field.toEnd && width == 0) length->fail("the field extends to the end of its segment");
    const std::int64_t least = width != 0 ? width : isWide(field.type) ? 2 : 1;
    field.length = static_cast<std::uint32_t>(
        length->integer(least, width != 0 ? width : std::int64_t{kMostSegment}));
  } else if (width == 0 && !field.toEnd) {
    node.fail("\"length\" is missing");
  }
  const std::optional<PortJsonNode> count = node.find("count");
  if (count) {
    if (field.toEnd) count->fail("the field extends to the end of its segment");
    if (!isChainNumber(field.type)) count->fail("only numbers have this key");
    field.count = static_cast<std::uint32_t>(count->integer(1, kMostSegment));
  }
  field.isArray = count || (field.toEnd && isChainNumber(field.type));
}

void ChainDefinitions::readPointer(ChainFieldDefinition &field) {
  for (const char *const key : {"count", "toEnd"}) {
    if (const std::optional<PortJsonNode> found = field.node.find(key)) {
      found->fail("pointers do not have this key");
    }
  }
  if (const std::optional<PortJsonNode> length = field.node.find("length")) length->integer(4, 8);
  const std::optional<PortJsonNode> reference = field.node.find("reference");
  if (reference && reference->flag()) {
    if (field.type != ChainType::Pnt) reference->fail("only a Pnt can be a reference");
    field.role = Field::Reference;
  }
  if (field.offset > 0x7FFF) field.node.fail("the offset of a pointer is at most 32767");
  readTarget(field);
}

void ChainDefinitions::readTarget(ChainFieldDefinition &field) {
  const std::optional<PortJsonNode> named = field.node.find("structure");
  if (!named) return noteTexts(field);
  const ChainKindDefinition *const target = find(nameOrId(*named));
  if (target == nullptr) named->fail("no such structure");
  const Form wanted = textFormOf(field.type);
  if (wanted != Form::Unknown && target->form != wanted) {
    named->fail(fmt::format("{} leads to {}", chainTypeName(field.type), formName(wanted)));
  }
  if (wanted == Form::Unknown && isText(target->form)) {
    named->fail("a pointer to text has the type PStr or WPStr");
  }
  field.target = target->kind;
}

void ChainDefinitions::noteTexts(const ChainFieldDefinition &field) {
  const Form wanted = textFormOf(field.type);
  if (wanted == Form::Unknown) return;
  const auto isWanted = [wanted](const ChainKindDefinition &k) { return k.form == wanted; };
  if (std::count_if(kinds_.begin(), kinds_.end(), isWanted) > 1) {
    field.node.fail("there are several kinds of such text: name one with \"structure\"");
  }
  (wanted == Form::NarrowText ? needsNarrow_ : needsWide_) = true;
}

bool ChainDefinitions::definesText(Form form) const {
  return std::any_of(kinds_.begin(), kinds_.end(),
                     [form](const ChainKindDefinition &kind) { return kind.form == form; });
}

std::optional<std::uint16_t> ChainDefinitions::textKind(Form form) const {
  for (const ChainKindDefinition &kind : kinds_) {
    if (kind.form == form) return kind.kind;
  }
  const bool isAfterNarrow =
      form == Form::WideText && needsNarrow_ && !definesText(Form::NarrowText);
  if (form == Form::NarrowText ? !needsNarrow_ : !needsWide_) return {};
  return static_cast<std::uint16_t>(kinds_.size() + (isAfterNarrow ? 1 : 0));
}

std::size_t ChainDefinitions::kindCount() const {
  std::size_t count = kinds_.size();
  for (const Form form : {Form::NarrowText, Form::WideText}) {
    const std::optional<std::uint16_t> kind = textKind(form);
    if (kind && *kind >= kinds_.size()) ++count;
  }
  return count;
}

const ChainKindDefinition *ChainDefinitions::find(std::uint16_t kind) const {
  return kind < kinds_.size() ? &kinds_[kind] : nullptr;
}

const ChainKindDefinition *ChainDefinitions::find(std::string_view nameOrId) const {
  if (const auto found = byName_.find(nameOrId); found != byName_.end()) {
    return &kinds_[found->second];
  }
  std::uint32_t id = 0;
  const char *const end = nameOrId.data() + nameOrId.size();
  const auto [parsed, failed] = std::from_chars(nameOrId.data(), end, id);
  if (failed != std::errc() || parsed != end) return nullptr;
  const auto found = byId_.find(id);
  return found == byId_.end() ? nullptr : &kinds_[found->second];
}

std::string ChainDefinitions::nameOf(std::uint16_t kind) const {
  const ChainKindDefinition *const found = find(kind);
  if (found == nullptr) return fmt::format("kind {}", kind);
  const bool isNamed = found->name != std::to_string(found->id);
  return isNamed ? found->name : fmt::format("StructID {}", found->id);
}

void ChainDefinitions::checkLayout(std::uint32_t pointerWidth) const {
  for (const ChainKindDefinition &kind : kinds_) checkLayoutOf(kind, pointerWidth);
}

// Fields may share bytes, as alternatives, but not with a pointer or with the length at the start.
void ChainDefinitions::checkLayoutOf(const ChainKindDefinition &kind,
                                     std::uint32_t pointerWidth) const {
  const std::uint32_t most = kind.form == Form::Fixed     ? kind.fixedLen
                             : kind.form == Form::Counted ? 0x7FFF + kLengthWord
                                                          : kMostSegment;
  std::vector<Extent> pointers;
  std::vector<Extent> others;
  for (const ChainFieldDefinition &field : kind.fields) {
    const std::uint32_t length = field.extent(pointerWidth);
    if (field.offset > most || length > most - field.offset) {
      field.node.fail(
          fmt::format("{} bytes at {} exceed the segment's {}", length, field.offset, most));
    }
    const std::uint32_t end = field.toEnd ? most : field.offset + length;
    (isPointer(field.type) ? pointers : others).push_back({field.offset, end, &field});
    const ChainType word = kind.form == Form::Counted ? ChainType::Short : ChainType::UShort;
    const bool isWord = field.offset == 0 && field.type == word && !field.isArray;
    if (kind.tellsLength() && field.offset < kLengthWord && !isWord) {
      field.node.fail(
          fmt::format("the first two bytes are the segment's length, a {}", chainTypeName(word)));
    }
  }
  for (std::size_t i = 0; i < pointers.size(); ++i) {
    const ChainFieldDefinition &field = *pointers[i].field;
    for (std::size_t j = 0; j < i; ++j) {
      if (shareBytes(pointers[i], pointers[j])) {
        field.node.fail(fmt::format("the field overlaps the pointer {}, which has {} bytes",
                                    pointers[j].field->name, pointerWidth));
      }
    }
    for (const Extent &other : others) {
      if (shareBytes(pointers[i], other)) {
        other.field->node.fail(fmt::format("the field overlaps the pointer {}, which has {} bytes",
                                           field.name, pointerWidth));
      }
    }
  }
}

void ChainDefinitions::checkAgainst(const std::string &file, const PackedChain &chain) const {
  if (pointerWidth_ != 0 && pointerWidth_ != chain.pointerWidth) {
    PortJsonNode(text_)
        .at("pointers")
        .fail(fmt::format("{} has pointers of {} bytes", file, chain.pointerWidth));
  }
  for (const ChainKindDefinition &kind : kinds_) {
    // Kinds beyond the count exist when children are of such kinds.
    const bool exists = kind.kind < chain.kinds.size() && chain.kinds[kind.kind].isDescribed &&
                        (kind.kind < chain.kindCount || isOfForm(kind, chain.kinds[kind.kind]));
    if (!exists) {
      failAgainst(kind.node, file, fmt::format("it has {}", countOf(chain.kindCount, "kind")));
    }
    const Kind &told = chain.kinds[kind.kind];
    if (!isOfForm(kind, told)) {
      failAgainst(kind.node, file,
                  fmt::format("kind {} is of type {} ({})", kind.kind, typeName(told),
                              formName(told.form)));
    }
    if (told.form == Form::Fixed && told.fixedLen != kind.fixedLen) {
      failAgainst(kind.node.at("length"), file,
                  fmt::format("kind {} has {} bytes", kind.kind, told.fixedLen));
    }
    if (isText(kind.form)) continue;
    checkLayoutOf(kind, chain.pointerWidth);
    checkPointers(file, kind, told, chain);
  }
}

}  // namespace memtool
