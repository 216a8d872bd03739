#include "port_encode.hpp"

#include <fmt/format.h>

#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "port_heap.hpp"
#include "tool_errors.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr std::int64_t kMostStorage = std::int64_t{1} << 30;

// Storage of one structure with all of its elements.
struct MadeStructure {
  const PortStructDefinition *definition = nullptr;
  PortJsonNode node;  // as described
  std::int64_t length = 0;
  std::unique_ptr<std::byte[]> bytes = {};
};

// Bytes of a structure within the storage of one of the top level.
struct MadePlace {
  std::byte *bytes = nullptr;
  std::int64_t length = 0;  // to the storage's end

  bool holds(std::int64_t at, std::int64_t count) const {
    return at <= length && count <= length - at;
  }
  MadePlace within(std::int64_t at) const { return {bytes + at, length - at}; }
};

template <class T>
void store(std::byte *to, T value) {
  std::memcpy(to, &value, sizeof value);
}

template <class T>
T load(const std::byte *from) {
  T value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

// Builds the structures in memory.
class GraphMaker {
 public:
  GraphMaker(const PortDefinitions &definitions, const PortJsonNode &top)
      : definitions_(definitions), top_(top) {}

  const MadeStructure &run();

 private:
  void addStructures();
  const MadeStructure &root() const;
  const PortFieldDefinition &fieldOf(const PortStructDefinition &definition,
                                     const PortJsonNode &fields, const std::string &key) const;
  std::int64_t elementsIn(const PortStructDefinition &definition, const PortJsonNode &fields,
                          std::int64_t undescribed = 0) const;

  void fill(const PortStructDefinition &definition, const PortJsonNode &fields, MadePlace place,
            std::int64_t elements);
  void fillCount(const PortStructDefinition &definition, const PortJsonNode &fields, bool isSet,
                 MadePlace place, std::int64_t elements);
  void fillField(const PortFieldDefinition &field, const PortJsonNode &node, MadePlace place,
                 std::int64_t offset);
  void fillNumber(const PortFieldDefinition &field, const PortJsonNode &node, std::byte *to);
  const void *target(const PortFieldDefinition &field, const PortJsonNode &node) const;
  const char *keepString(const PortJsonNode &node);
  const char16_t *keepWideString(const PortJsonNode &node);
  void complete(const PortStructDefinition &definition, const PortJsonNode &fields,
                const std::vector<bool> &isSet, MadePlace place);
  void applyDefault(const PortFieldDefinition &field, const PortJsonNode &fields,
                    MadePlace structure);
  void fillAbsent(const PortFieldDefinition &field, const PortJsonNode &fields, MadePlace place);
  void fillElements(const PortFieldDefinition &field, const PortJsonNode &fields, MadePlace place,
                    std::int64_t elements);

  void verify(const PortStructDefinition &definition, const PortJsonNode &node, MadePlace place);
  bool isValid(const PortFieldDefinition &field, const void *address) const;

  const PortDefinitions &definitions_;
  const PortJsonNode &top_;
  std::deque<MadeStructure> structures_;
  std::map<std::string, const MadeStructure *, std::less<>> byLabel_;
  std::map<const void *, const PortStructDefinition *> byAddress_;
  std::deque<std::string> strings_;  // a deque: its elements keep their addresses
  std::deque<std::u16string> wideStrings_;
  std::set<const void *> stringAddresses_;
  std::set<const void *> wideAddresses_;
};

const MadeStructure &GraphMaker::run() {
  addStructures();
  for (MadeStructure &made : structures_) {
    const PortJsonNode fields = made.node.at("fields");
    fill(*made.definition, fields, {made.bytes.get(), made.length},
         elementsIn(*made.definition, fields));
  }
  for (MadeStructure &made : structures_) {
    verify(*made.definition, made.node, {made.bytes.get(), made.length});
  }
  return root();
}

// Storage for all before the fields: pointers may name any structure.
void GraphMaker::addStructures() {
  refuseDefinitions(top_);
  // "notes" come from --check, "selection" from a filter.
  top_.requireKeys({"root", "structures", "notes", "selection"});
  std::int64_t total = 0;
  for (const PortJsonNode &node : top_.at("structures").elements()) {
    refuseDefinition(node);
    node.requireKeys({"label", "structure", "fields"});
    const PortJsonNode named = node.at("structure");
    const PortStructDefinition *definition = definitions_.find(
        named.json().is_string() ? named.text() : std::to_string(named.integer(1, INT32_MAX)));
    if (definition == nullptr) named.fail("no definition has this name or id");
    const PortJsonNode fields = node.at("fields");
    const std::int64_t length = definition->lengthWith(elementsIn(*definition, fields));
    total += length;
    if (total > kMostStorage) node.fail("the structures take more than 1 GB");
    // One byte more, so that each has its own address.
    auto bytes = std::make_unique<std::byte[]>(static_cast<std::size_t>(length) + 1);
    byAddress_[bytes.get()] = definition;
    structures_.push_back({definition, node, length, std::move(bytes)});
    const std::optional<PortJsonNode> label = node.find("label");
    if (label && !byLabel_.emplace(label->text(), &structures_.back()).second) {
      label->fail("a second structure with this label");
    }
  }
  if (structures_.empty()) top_.fail("there is no structure");
}

const MadeStructure &GraphMaker::root() const {
  const std::optional<PortJsonNode> named = top_.find("root");
  if (!named) return structures_.front();
  const auto found = byLabel_.find(named->text());
  if (found == byLabel_.end()) named->fail("no structure has this label");
  return *found->second;
}

const PortFieldDefinition &GraphMaker::fieldOf(const PortStructDefinition &definition,
                                               const PortJsonNode &fields,
                                               const std::string &key) const {
  const PortFieldDefinition *field = definition.find(key);
  if (field == nullptr) {
    fields.fail(fmt::format("{} has no field {}", definition.name, inQuotes(key, 40)));
  }
  return *field;
}

// Elements of the array that the last field is. `undescribed` is their number if neither the array
// nor its count is described.
std::int64_t GraphMaker::elementsIn(const PortStructDefinition &definition,
                                    const PortJsonNode &fields, std::int64_t undescribed) const {
  if (!fields.json().is_object()) fields.fail("expected an object");
  if (!definition.hasRepeatField()) return 1;
  const PortFieldDefinition &repeat = definition.repeatField();
  bool isDescribed = false;
  std::int64_t elements = 0;
  for (const auto &[key, value] : fields.json().items()) {
    const PortFieldDefinition &field = fieldOf(definition, fields, key);
    isDescribed = isDescribed || &field == &repeat || &field == &definition.count();
    if (&field != &repeat) continue;
    if (!value.is_array()) fields.member(repeat.name, value).fail("expected an array");
    elements = static_cast<std::int64_t>(value.size());
  }
  if (!isDescribed) elements = undescribed;
  if (elements > kMostStorage / repeat.record.Length) fields.fail("too many elements");
  return elements;
}

bool isZero(std::string_view bytes) {
  return bytes.find_first_not_of('\0') == bytes.npos;
}

// Elements of an embedded structure that fill its field. Readers refuse fewer.
std::int64_t elementsToFill(const PortFieldDefinition &field) {
  const PortStructDefinition &embedded = *field.target;
  if (!embedded.hasRepeatField()) return 1;
  const std::int64_t room = field.record.Length - embedded.lengthWith(0);
  return std::max<std::int64_t>(room / embedded.repeatField().record.Length, 0);
}

void GraphMaker::fill(const PortStructDefinition &definition, const PortJsonNode &fields,
                      MadePlace place, std::int64_t elements) {
  std::vector<bool> isSet(definition.fields.size(), false);
  const std::int64_t length = definition.lengthWith(elements);
  if (!place.holds(0, length)) {
    fields.fail(fmt::format("{} bytes; there is room for {}", length, place.length));
  }
  for (const auto &[key, value] : fields.json().items()) {
    const PortFieldDefinition &field = fieldOf(definition, fields, key);
    const auto index = static_cast<std::size_t>(&field - definition.fields.data());
    const PortJsonNode node = fields.member(field.name, value);
    if (isSet[index]) node.fail("appears a second time");
    isSet[index] = true;
    if (!definition.isRepeatField(index)) {
      fillField(field, node, place, field.record.Offset);
      continue;
    }
    std::int64_t offset = field.record.Offset;
    for (const PortJsonNode &element : node.elements()) {
      fillField(field, element, place, offset);
      offset += field.record.Length;
    }
  }
  complete(definition, fields, isSet, place);
  if (!definition.hasRepeatField()) return;
  if (!isSet.back()) fillElements(definition.repeatField(), fields, place, elements);
  const bool isCountSet = isSet[static_cast<std::size_t>(definition.countField)];
  fillCount(definition, fields, isCountSet, place, elements);
}

// What the description leaves out has its default, as if a reader had not found it.
void GraphMaker::complete(const PortStructDefinition &definition, const PortJsonNode &fields,
                          const std::vector<bool> &isSet, MadePlace place) {
  for (std::size_t i = 0; i < definition.fields.size(); ++i) {
    const PortFieldDefinition &field = definition.fields[i];
    const bool isCount = static_cast<std::int32_t>(i) == definition.countField;
    if (isSet[i] || isCount || definition.isRepeatField(i)) continue;
    bool hasAlternative = false;
    for (std::size_t k = 0; field.isShared && k < isSet.size(); ++k) {
      const PortFieldDefinition &other = definition.fields[k];
      hasAlternative = hasAlternative || (isSet[k] && other.overlaps(field));
    }
    if (hasAlternative) continue;
    if (field.record.Required != 0 && field.record.NotPorted == 0) {
      fields.fail(fmt::format("field {} is required", field.name));
    }
    applyDefault(field, fields, place);
  }
}

// A count field that is not described follows from the array.
void GraphMaker::fillCount(const PortStructDefinition &definition, const PortJsonNode &fields,
                           bool isSet, MadePlace place, std::int64_t elements) {
  const PortFieldDefinition &field = definition.count();
  if (!isSet) {
    const PortJson count = definition.countOf(elements);
    return fillField(field, fields.member(field.name, count), place, field.record.Offset);
  }
  const std::int64_t counted =
      definition.elementsOf(readPortCount(field, place.bytes + field.record.Offset));
  if (counted != elements) {
    fields.fail(fmt::format("{} counts {} elements, {} has {}", field.name, counted,
                            definition.repeatField().name, elements));
  }
}

void GraphMaker::applyDefault(const PortFieldDefinition &field, const PortJsonNode &fields,
                              MadePlace structure) {
  if (!structure.holds(field.record.Offset, field.storedLength())) return;  // without elements
  std::byte *const to = structure.bytes + field.record.Offset;
  const auto length = static_cast<std::size_t>(field.record.Length);
  switch (field.type) {
    case MEM_PORT_SHORT:
    case MEM_PORT_USHORT:
      return store(to, field.record.Default.Short);
    case MEM_PORT_LONG:
    case MEM_PORT_ULONG:
    case MEM_PORT_UBIGINT:
    case MEM_PORT_BIGINT:
      return store(to, field.record.Default.Long);
    case MEM_PORT_PSTR:
      if (field.record.Default.pText != nullptr)
        stringAddresses_.insert(field.record.Default.pText);
      return store(to, field.record.Default.pText);
    case MEM_PORT_WPSTR:
      if (field.record.Default.pWide != nullptr) wideAddresses_.insert(field.record.Default.pWide);
      return store(to, field.record.Default.pWide);
    case MEM_PORT_CHARSZ:
      std::memcpy(to, field.defaultBytes.data(), std::min(length - 1, field.defaultBytes.size()));
      return;
    case MEM_PORT_WCHARSZ:
      std::memcpy(to, field.defaultUnits.data(),
                  std::min(length - 2, field.defaultUnits.size() * sizeof(char16_t)));
      return;
    case MEM_PORT_PNT:
      return;
    default:
      if (field.type == MEM_PORT_SUBSTRUCTURE && isZero(field.defaultBytes)) {
        return fillAbsent(field, fields, structure.within(field.record.Offset));
      }
      std::memcpy(to, field.defaultBytes.data(), field.defaultBytes.size());
  }
}

// An embedded structure of zeros, which needs the count of the elements that fill its field.
void GraphMaker::fillAbsent(const PortFieldDefinition &field, const PortJsonNode &fields,
                            MadePlace place) {
  const PortStructDefinition &embedded = *field.target;
  const std::int64_t elements = elementsToFill(field);
  if (embedded.hasRepeatField()) {
    const PortJson count = embedded.countOf(elements);
    const PortJsonNode node = fields.member(field.name, count);
    fillField(embedded.count(), node, place, embedded.count().record.Offset);
  }
  for (std::size_t i = 0; i < embedded.fields.size(); ++i) {
    const PortFieldDefinition &inner = embedded.fields[i];
    fillElements(inner, fields, place, embedded.isRepeatField(i) ? elements : 1);
  }
}

// The same for each element of an array of such structures; other elements are zeros already.
void GraphMaker::fillElements(const PortFieldDefinition &field, const PortJsonNode &fields,
                              MadePlace place, std::int64_t elements) {
  if (field.type != MEM_PORT_SUBSTRUCTURE) return;
  for (std::int64_t i = 0; i < elements; ++i) {
    fillAbsent(field, fields, place.within(field.record.Offset + i * field.record.Length));
  }
}

void GraphMaker::fillField(const PortFieldDefinition &field, const PortJsonNode &node,
                           MadePlace place, std::int64_t offset) {
  if (!place.holds(offset, field.storedLength())) node.fail("is beyond the end of the structure");
  std::byte *const to = place.bytes + offset;
  switch (field.type) {
    case MEM_PORT_SHORT:
    case MEM_PORT_USHORT:
    case MEM_PORT_LONG:
    case MEM_PORT_ULONG:
    case MEM_PORT_UBIGINT:
    case MEM_PORT_BIGINT:
      return fillNumber(field, node, to);
    case MEM_PORT_PNT:
      return store(to, target(field, node));
    case MEM_PORT_PSTR:
      return store(to, keepString(node));
    case MEM_PORT_WPSTR:
      return store(to, keepWideString(node));
    case MEM_PORT_SUBSTRUCTURE:
      return fill(*field.target, node, place.within(offset),
                  elementsIn(*field.target, node, elementsToFill(field)));
    default: {
      const std::string bytes = portFieldBytes(field.type, field.record.Length, node);
      std::memcpy(to, bytes.data(), bytes.size());
    }
  }
}

void GraphMaker::fillNumber(const PortFieldDefinition &field, const PortJsonNode &node,
                            std::byte *to) {
  switch (field.type) {
    case MEM_PORT_SHORT:
      return store(to, static_cast<std::int16_t>(node.number(INT16_MIN, INT16_MAX)));
    case MEM_PORT_USHORT:
      return store(to, static_cast<std::uint16_t>(node.number(0, UINT16_MAX)));
    case MEM_PORT_LONG:
      return store(to, static_cast<std::int32_t>(node.number(INT32_MIN, INT32_MAX)));
    case MEM_PORT_ULONG:
      return store(to, static_cast<std::uint32_t>(node.number(0, UINT32_MAX)));
    case MEM_PORT_BIGINT:
      return store(to, node.number(INT64_MIN, INT64_MAX));
    default:
      return store(to, node.unsignedNumber());
  }
}

// The structure with the label, or null.
const void *GraphMaker::target(const PortFieldDefinition &field, const PortJsonNode &node) const {
  if (node.json().is_null()) return nullptr;
  const auto found = byLabel_.find(node.text());
  if (found == byLabel_.end()) {
    node.fail(fmt::format("no structure has the label {}", inQuotes(node.text(), 40)));
  }
  if (found->second->definition != field.target) {
    node.fail(fmt::format("{} is a {}, and the field points to a {}", inQuotes(node.text(), 40),
                          found->second->definition->name, field.target->name));
  }
  return found->second->bytes.get();
}

const char *GraphMaker::keepString(const PortJsonNode &node) {
  if (node.json().is_null()) return nullptr;
  const std::string &kept = strings_.emplace_back(portTextOf(node));
  if (kept.find('\0') != std::string::npos) node.fail("text with a zero in it");
  stringAddresses_.insert(kept.c_str());
  return kept.c_str();
}

const char16_t *GraphMaker::keepWideString(const PortJsonNode &node) {
  if (node.json().is_null()) return nullptr;
  const std::u16string &kept = wideStrings_.emplace_back(portUnitsOf(node));
  if (kept.find(u'\0') != std::u16string::npos) node.fail("text with a zero in it");
  wideAddresses_.insert(kept.c_str());
  return kept.c_str();
}

// The writer trusts every pointer and every count. Fields that share bytes can make both invalid.
void GraphMaker::verify(const PortStructDefinition &definition, const PortJsonNode &node,
                        MadePlace place) {
  std::int64_t elements = 1;
  if (definition.hasRepeatField()) {
    const auto index = static_cast<std::size_t>(definition.countField);
    const PortFieldDefinition &count = definition.fields[index];
    elements = definition.elementsOf(readPortCount(count, place.bytes + count.record.Offset));
    if (!place.holds(0, definition.lengthWith(elements))) {
      node.fail(fmt::format("{} shares its bytes with another field, and counts {} elements now",
                            count.name, elements));
    }
  }
  for (std::size_t i = 0; i < definition.fields.size(); ++i) {
    const PortFieldDefinition &field = definition.fields[i];
    if (field.record.NotPorted != 0) continue;
    const std::int64_t times = definition.isRepeatField(i) ? elements : 1;
    for (std::int64_t k = 0; k < times; ++k) {
      const std::int64_t at = field.record.Offset + k * field.record.Length;
      if (!place.holds(at, field.storedLength())) {
        node.fail(fmt::format("field {} is beyond the end of the structure", field.name));
      }
      if (field.type == MEM_PORT_SUBSTRUCTURE) {
        verify(*field.target, node, place.within(at));
      } else if (field.isAddress() && !isValid(field, load<const void *>(place.bytes + at))) {
        node.fail(fmt::format("field {} has bytes of another field or a default, and is no pointer",
                              field.name));
      }
    }
  }
}

bool GraphMaker::isValid(const PortFieldDefinition &field, const void *address) const {
  if (address == nullptr) return true;
  if (field.type == MEM_PORT_PSTR) return stringAddresses_.count(address) != 0;
  if (field.type == MEM_PORT_WPSTR) return wideAddresses_.count(address) != 0;
  const auto found = byAddress_.find(address);
  return found != byAddress_.end() && found->second == field.target;
}

}  // namespace

std::string encodePortText(RunningLibrary &library, const PortDefinitions &definitions,
                           const std::string &name, std::string_view json) {
  const PortJsonText document(name, json);
  const PortJsonNode top(document);
  GraphMaker maker(definitions, top);
  const MadeStructure &root = maker.run();

  const PortHeap heap(library);
  PortMessages messages(library);
  std::uint32_t length = 0;
  MEMPortChunk *chunk = nullptr;
  const std::int16_t result =
      library.vector().MEM_StructToPortStr(definitions.table(), root.definition->id,
                                           root.bytes.get(), 0, heap.handle(), &length, &chunk);
  if (result != 0) throw ToolError(messages.reason("MEM_StructToPortStr"));
  std::string text;
  text.reserve(length);
  for (; chunk != nullptr; chunk = chunk->pNext) {
    text.append(static_cast<const char *>(chunk->Text), static_cast<std::size_t>(chunk->Used));
  }
  return text;
}

}  // namespace memtool
