#include "portgraph.hpp"

namespace memtest {

namespace {

constexpr std::size_t kMostKinds = 5;
constexpr std::size_t kMostNodes = 6;

constexpr std::uint32_t widthOf(std::uint8_t type) {
  return type == MEM_PORT_SHORT || type == MEM_PORT_USHORT ? 2
         : type == MEM_PORT_LONG || type == MEM_PORT_ULONG ? 4
                                                           : 8;
}

template <class T>
void put(std::uint8_t *place, T value) {
  std::memcpy(place, &value, sizeof value);
}

}  // namespace

PortGraph::PortGraph(Random random) : random_(random) {
  const std::size_t count = random_.between(1, kMostKinds);
  std::uint32_t structID = 0;
  for (std::size_t i = 0; i < count; ++i) {
    structID = random_.oneIn(4) ? (structID / 10 + 1) * 10 : nextID(structID);
    kinds_.push_back({});
    kinds_.back().structID = structID;
  }
  for (std::size_t i = 0; i < count; ++i) makeKind(i);
  for (const Kind &kind : kinds_) {
    std::vector<Field> fields;
    for (const Slot &slot : kind.slots) fields.push_back(slot.field);
    defs_.add(kind.structID, kind.length, fields, kind.countField, kind.countIsLength);
  }
  rootKind_ = random_.below(count);
  makeNodes();
}

// The first field is always ported: a structure text without fields cannot be read.
void PortGraph::makeKind(std::size_t index) {
  Kind &kind = kinds_[index];
  std::uint32_t fieldID = 0;
  std::int32_t end = 0;
  const std::size_t count = random_.between(1, 8);
  for (std::size_t i = 0; i < count; ++i) {
    if (random_.oneIn(6)) addUnion(kind, fieldID, end);
    fieldID = nextID(fieldID);
    end += gap();
    Slot slot = makeSlot(index, fieldID, end);
    if (random_.oneIn(2)) slot.field.required();
    if (i > 0 && random_.oneIn(8)) slot.field.notPorted();
    end += slot.field.get().Length;
    kind.slots.push_back(slot);
  }
  if (random_.oneIn(2)) {
    addCount(kind, fieldID, end);
    addRepeated(index, kind, fieldID, end);
  }
  kind.length = end + gap();
}

// Fields of 4 bytes in one place. All are required, so that none gets its default.
void PortGraph::addUnion(Kind &kind, std::uint32_t &fieldID, std::int32_t &end) {
  constexpr MEMFieldType kTypes[] = {MEM_PORT_LONG, MEM_PORT_BIN, MEM_PORT_CHAR, MEM_PORT_ULONG};
  const std::size_t ported = random_.below(3);
  for (std::size_t i = 0; i < 3; ++i) {
    fieldID = nextID(fieldID);
    Slot slot{Field(fieldID, kTypes[random_.below(4)], 4, end)};
    slot.field.required();
    if (i != ported && random_.oneIn(2)) slot.field.notPorted();
    kind.slots.push_back(slot);
  }
  end += 4;
  hasUnion_ = true;
}

void PortGraph::addCount(Kind &kind, std::uint32_t &fieldID, std::int32_t &end) {
  constexpr MEMFieldType kTypes[] = {MEM_PORT_SHORT, MEM_PORT_USHORT, MEM_PORT_LONG,
                                     MEM_PORT_ULONG};
  const MEMFieldType type = kTypes[random_.below(4)];
  fieldID = nextID(fieldID);
  end += gap();
  const auto width = static_cast<std::int32_t>(widthOf(type));
  kind.countField = static_cast<std::int32_t>(kind.slots.size());
  kind.countIsLength = random_.oneIn(2);
  kind.slots.push_back({Field(fieldID, type, width, end)});
  end += width;
  hasRepeat_[kind.countIsLength ? 1 : 0] = true;
}

void PortGraph::addRepeated(std::size_t index, Kind &kind, std::uint32_t &fieldID,
                            std::int32_t &end) {
  fieldID = nextID(fieldID);
  end += gap();
  Slot slot = makeSlot(index, fieldID, end);
  if (random_.oneIn(10)) slot.field.notPorted();
  end += slot.field.get().Length;
  kind.slots.push_back(slot);
}

PortGraph::Slot PortGraph::makeSlot(std::size_t kind, std::uint32_t fieldID, std::int32_t offset) {
  const MEMFieldType type = pickType(kind);
  types_[type] = true;
  if (type == MEM_PORT_SUBSTRUCTURE) {
    const std::size_t inner = random_.below(kind);
    const auto count = static_cast<std::int32_t>(random_.between(1, 3));
    Slot slot{Field(fieldID, type, kinds_[inner].lengthWith(count), offset), inner, count};
    slot.field.of(kinds_[inner].structID);
    return slot;
  }
  Slot slot{Field(fieldID, type, lengthFor(type), offset)};
  if (type == MEM_PORT_PNT) slot.field.of(kinds_[random_.below(kinds_.size())].structID);
  return slot;
}

// Only kinds that exist already can be embedded.
MEMFieldType PortGraph::pickType(std::size_t kind) {
  for (;;) {
    const auto type = static_cast<MEMFieldType>(random_.between(MEM_PORT_CHAR, MEM_PORT_WPSTR));
    if (type != MEM_PORT_SUBSTRUCTURE || kind > 0) return type;
  }
}

std::int32_t PortGraph::lengthFor(MEMFieldType type) {
  switch (type) {
    case MEM_PORT_CHAR:
    case MEM_PORT_BIN:
      return static_cast<std::int32_t>(random_.between(1, random_.oneIn(8) ? 700 : 12));
    case MEM_PORT_CHARSZ:
      return static_cast<std::int32_t>(random_.between(1, 20));
    case MEM_PORT_WCHAR:
    case MEM_PORT_WCHARSZ:
      return static_cast<std::int32_t>(random_.between(2, 25));
    case MEM_PORT_BIT:
      return 1;
    default:
      return static_cast<std::int32_t>(widthOf(static_cast<std::uint8_t>(type)));
  }
}

void PortGraph::makeNodes() {
  std::map<std::size_t, std::vector<std::int32_t>> counts;
  for (std::size_t kind = 0; kind < kinds_.size(); ++kind) {
    const std::size_t nodes = random_.between(1, kMostNodes);
    for (std::size_t i = 0; i < nodes; ++i) {
      const auto count = static_cast<std::int32_t>(random_.below(5));
      counts[kind].push_back(count);
      nodes_[kind].emplace_back(static_cast<std::size_t>(kinds_[kind].lengthWith(count)));
    }
  }
  for (auto &[kind, records] : nodes_) {
    for (std::size_t i = 0; i < records.size(); ++i) {
      fillBytes(records[i].data(), records[i].size());
      fill(kind, records[i].data(), counts[kind][i]);
    }
  }
}

void PortGraph::fill(std::size_t index, std::uint8_t *place, std::int32_t count) {
  const Kind &kind = kinds_[index];
  for (std::size_t i = 0; i < kind.slots.size(); ++i) {
    const Slot &slot = kind.slots[i];
    const bool isRepeated = kind.repeats() && i + 1 == kind.slots.size();
    const std::int32_t times = isRepeated ? count : 1;
    for (std::int32_t k = 0; k < times; ++k) {
      fillField(slot, place + slot.field.get().Offset + k * slot.field.get().Length);
    }
  }
  if (kind.repeats()) fillCount(kind, place, count);
}

void PortGraph::fillCount(const Kind &kind, std::uint8_t *place, std::int32_t count) {
  const MEMFieldDef &field = kind.slots[static_cast<std::size_t>(kind.countField)].field.get();
  const std::int32_t value = kind.countIsLength ? kind.lengthWith(count) : count;
  if (widthOf(field.Type) == 2) {
    put(place + field.Offset, static_cast<std::int16_t>(value));
  } else {
    put(place + field.Offset, value);
  }
}

void PortGraph::fillField(const Slot &slot, std::uint8_t *place) {
  const MEMFieldDef &field = slot.field.get();
  const auto length = static_cast<std::size_t>(field.Length);
  switch (field.Type) {
    case MEM_PORT_CHARSZ:
      fillBytes(place, length);
      place[random_.below(length)] = 0;
      break;
    case MEM_PORT_PSTR:
      put(place, anyText());
      break;
    case MEM_PORT_WPSTR:
      put(place, anyWideText());
      break;
    case MEM_PORT_PNT:
      put(place, anyNode(field.SubStructID));
      break;
    case MEM_PORT_SUBSTRUCTURE:
      fill(slot.embeddedKind, place, slot.embeddedCount);
      break;
    case MEM_PORT_WCHAR:
    case MEM_PORT_WCHARSZ:
      for (std::size_t i = 0; i < length / 2; ++i) put(place + 2 * i, anyUnit());
      if (field.Type == MEM_PORT_WCHARSZ) put(place + 2 * random_.below(length / 2), char16_t{0});
      break;
    case MEM_PORT_CHAR:
    case MEM_PORT_BIN:
    case MEM_PORT_BIT:
      fillBytes(place, length);
      break;
    default: {
      const std::uint64_t number = anyNumber();
      std::memcpy(place, &number, widthOf(field.Type));
    }
  }
}

void PortGraph::fillBytes(std::uint8_t *place, std::size_t length) {
  for (std::size_t i = 0; i < length; ++i) place[i] = anyByte();
}

const void *PortGraph::anyNode(std::uint32_t structID) {
  if (random_.oneIn(5)) return nullptr;
  std::size_t kind = 0;
  while (kinds_[kind].structID != structID) ++kind;
  const std::vector<Record> &records = nodes_[kind];
  return records[random_.below(records.size())].data();
}

const char *PortGraph::anyText() {
  if (random_.oneIn(5)) return nullptr;
  std::string &text = texts_.emplace_back(random_.below(random_.oneIn(10) ? 400 : 15), ' ');
  for (char &c : text) c = static_cast<char>(std::max<std::uint8_t>(anyByte(), 1));
  return text.c_str();
}

const char16_t *PortGraph::anyWideText() {
  if (random_.oneIn(5)) return nullptr;
  std::u16string &text = wideTexts_.emplace_back(random_.below(random_.oneIn(10) ? 400 : 15), u' ');
  for (char16_t &unit : text) unit = std::max(anyUnit(), char16_t{1});
  return text.c_str();
}

std::uint8_t PortGraph::anyByte() {
  constexpr char kSpecial[] = "\"/'<>()0S\0";
  if (random_.oneIn(4)) return static_cast<std::uint8_t>(kSpecial[random_.below(sizeof kSpecial)]);
  if (random_.oneIn(2)) return static_cast<std::uint8_t>(random_.between('a', 'z'));
  return static_cast<std::uint8_t>(random_.below(256));
}

char16_t PortGraph::anyUnit() {
  constexpr char16_t kEdges[] = {1,      127,    128,    4095,   4096,   0xFFFF,
                                 0xD7FF, 0xD800, 0xDBFF, 0xDC00, 0xDFFF, 0xE000};
  if (random_.oneIn(3)) return anyByte();
  if (random_.oneIn(3)) return kEdges[random_.below(std::size(kEdges))];
  return static_cast<char16_t>(random_.below(0x10000));
}

std::uint64_t PortGraph::anyNumber() {
  constexpr std::uint64_t kEdges[] = {
      0,          1,          10,         0x7FFF,        0x8000, 0xFFFF, 0x7FFFFFFF,
      0x80000000, 0xFFFFFFFF, 1ULL << 63, ~(1ULL << 63), ~0ULL,  1000000};
  return random_.oneIn(3) ? kEdges[random_.below(std::size(kEdges))] : random_.bits();
}

}  // namespace memtest
