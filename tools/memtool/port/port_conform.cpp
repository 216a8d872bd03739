#include "port_conform.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <deque>
#include <limits>
#include <map>
#include <set>
#include <tuple>

#include "tool_text.hpp"

namespace memtool {
namespace {

using Structure = PortStructDefinition;
using Field = PortFieldDefinition;

constexpr std::int64_t kEndless = std::numeric_limits<std::int64_t>::max();

enum class Opening : std::uint8_t {
  Narrow,
  Wide,
  String,
  WideString,
  Bytes,
  Number,
  Pointer,
  Embedded,
  Flags
};

Opening openingOf(MEMFieldType type) {
  switch (type) {
    case MEM_PORT_CHAR:
    case MEM_PORT_CHARSZ:
      return Opening::Narrow;
    case MEM_PORT_PSTR:
      return Opening::String;
    case MEM_PORT_BIN:
      return Opening::Bytes;
    case MEM_PORT_PNT:
      return Opening::Pointer;
    case MEM_PORT_SUBSTRUCTURE:
      return Opening::Embedded;
    case MEM_PORT_BIT:
      return Opening::Flags;
    case MEM_PORT_WCHAR:
    case MEM_PORT_WCHARSZ:
      return Opening::Wide;
    case MEM_PORT_WPSTR:
      return Opening::WideString;
    default:
      return Opening::Number;
  }
}

// Wide fields take narrow text as well.
bool takes(Opening reader, Opening text) {
  if (reader == text) return true;
  return (reader == Opening::Wide && text == Opening::Narrow) ||
         (reader == Opening::WideString && text == Opening::String);
}

bool isTerminated(MEMFieldType type) {
  return type == MEM_PORT_CHARSZ || type == MEM_PORT_WCHARSZ;
}

// Characters that a field of text has room for; the zero at its end is none.
std::uint64_t roomOf(const Field &field) {
  const bool isWide = openingOf(field.type) == Opening::Wide;
  const std::int64_t units = field.record.Length / (isWide ? 2 : 1);
  return static_cast<std::uint64_t>(
      std::max<std::int64_t>(units - (isTerminated(field.type) ? 1 : 0), 0));
}

std::uint64_t lengthOf(const Field &field) {
  return static_cast<std::uint64_t>(std::max(field.record.Length, 0));
}

bool isSigned(MEMFieldType type) {
  return type == MEM_PORT_SHORT || type == MEM_PORT_LONG || type == MEM_PORT_BIGINT;
}

// Bits of the magnitude that fit.
int bitsOf(const Field &field) {
  const auto bits = static_cast<int>(8 * field.storedLength());
  return isSigned(field.type) ? bits - 1 : bits;
}

std::int64_t highestCount(MEMFieldType type) {
  switch (type) {
    case MEM_PORT_SHORT:
      return INT16_MAX;
    case MEM_PORT_USHORT:
      return UINT16_MAX;
    default:
      return INT32_MAX;
  }
}

const Field *fieldWithId(const Structure &structure, std::uint32_t id) {
  const auto found = std::lower_bound(
      structure.fields.begin(), structure.fields.end(), id,
      [](const Field &field, std::uint32_t wanted) { return field.record.FieldID < wanted; });
  return found == structure.fields.end() || found->record.FieldID != id ? nullptr : &*found;
}

std::uint32_t lastId(const Structure &structure) {
  return structure.fields.empty() ? 0 : structure.fields.back().record.FieldID;
}

bool isRepeat(const Structure &structure, const Field &field) {
  return structure.hasRepeatField() && &field == &structure.repeatField();
}

bool isDemanded(const Field &field) {
  return field.record.Required != 0 && field.record.NotPorted == 0;
}

// Elements that a text of an embedded structure may have: what its field has room for.
std::int64_t mostElements(const Structure &structure, std::int64_t room) {
  if (!structure.hasRepeatField()) return 1;
  const auto index = static_cast<std::size_t>(structure.countField);
  const std::int64_t highest =
      std::max<std::int64_t>(structure.elementsOf(highestCount(structure.fields[index].type)), 0);
  if (room == kEndless) return highest;
  const std::int64_t element = structure.repeatField().record.Length;
  const std::int64_t left = room - (structure.length - element);
  return std::min(highest, left < 0 ? 0 : left / element);
}

// What the reader does with the fields of one structure text.
struct Reading {
  const Structure &old;
  const Structure &fresh;
  std::int64_t room;             // bytes from its start to the end of its storage, without elements
  std::int64_t roomWithElement;  // the same with one element, or the last of several
  std::int64_t elements;         // most of them
  std::vector<const Field *> seen = {};     // fields of the new definition that every text has
  const Field *seenWithElements = nullptr;  // the one that texts with elements have
};

class Conformity {
 public:
  explicit Conformity(const PortDefinitions &fresh) : fresh_(fresh) {}

  void addTop(const Structure &structure) {
    if (known_.insert(structure.id).second) top_.push_back(&structure);
  }

  PortConformity run() {
    for (; !top_.empty(); top_.pop_front()) readTop(*top_.front());
    std::stable_sort(
        made_.findings.begin(), made_.findings.end(),
        [](const PortFinding &a, const PortFinding &b) { return a.effect < b.effect; });
    return std::move(made_);
  }

 private:
  void note(PortEffect effect, const Structure &structure, const Field *field, std::string what) {
    const std::uint32_t id = field == nullptr ? 0 : field->record.FieldID;
    if (!noted_.emplace(effect, structure.id, id, what).second) return;
    made_.findings.push_back({effect, structure.id, id, structure.name,
                              field == nullptr ? "" : field->name, std::move(what)});
  }
  void refuse(const Structure &structure, const Field *field, std::string what) {
    note(PortEffect::Refused, structure, field, std::move(what));
  }

  void readTop(const Structure &old);
  void readEmbedded(const Structure &old, const Field &around, const Field &freshAround,
                    const Structure &holder, std::int64_t room);
  const Structure *readHead(const Structure &old);
  void readFields(Reading &reading);
  void dropFrom(const Reading &reading, std::size_t first);
  void lookThrough(const Structure &structure, std::set<std::uint32_t> &known, bool &hasWide);
  void readField(Reading &reading, const Field &old, const Field &fresh);
  void readValue(const Structure &around, const Field &old, const Field &fresh);
  void readText(const Structure &around, const Field &old, const Field &fresh);
  void readNumber(const Structure &around, const Field &old, const Field &fresh);
  void checkRoom(const Reading &reading, const Field &old, const Field &fresh);
  void completeAbsent(const Reading &reading, bool hasElements);
  void giveDefault(const Reading &reading, const Field &field,
                   const std::vector<const Field *> &seen, bool hasElements);
  void checkOverlaps(const Reading &reading);
  void checkCount(const Reading &reading);

  const PortDefinitions &fresh_;
  PortConformity made_;
  std::set<std::tuple<PortEffect, std::uint32_t, std::uint32_t, std::string>> noted_;
  std::deque<const Structure *> top_;
  std::set<std::uint32_t> known_;
  // By StructID: room and elements of an embedded text that was looked at.
  std::map<std::uint32_t, std::pair<std::int64_t, std::int64_t>> embedded_;
};

// The definition for the text; null when the text is refused.
const Structure *Conformity::readHead(const Structure &old) {
  const Structure *const fresh = fresh_.find(old.id);
  if (fresh == nullptr) {
    refuse(old, nullptr, "the reader does not know the structure");
    return nullptr;
  }
  if (old.hasRepeatField() && !fresh->hasRepeatField()) {
    refuse(old, nullptr, "the text has a number of elements, and the reader knows no repeat field");
    return nullptr;
  }
  return fresh;
}

std::int64_t sizeWithoutElements(const Structure &old, const Structure &fresh) {
  return old.hasRepeatField() ? fresh.lengthWith(0) : fresh.length;
}

void Conformity::readTop(const Structure &old) {
  const Structure *const fresh = readHead(old);
  if (fresh == nullptr) {
    Reading none{old, old, 0, 0, 0};
    std::set<std::uint32_t> known;
    bool hasWide = false;
    lookThrough(old, known, hasWide);
    return;
  }
  const std::int64_t least = sizeWithoutElements(old, *fresh);
  if (least < 1)
    refuse(old, nullptr, "the reader's structure may have 0 bytes, which no heap allocates");
  Reading reading{old, *fresh, least, fresh->length, mostElements(old, kEndless)};
  readFields(reading);
}

// `room`: bytes from the structure's start to the end of the outermost structure.
void Conformity::readEmbedded(const Structure &old, const Field &around, const Field &freshAround,
                              const Structure &holder, std::int64_t room) {
  const Structure *const fresh = readHead(old);
  if (fresh == nullptr) {
    std::set<std::uint32_t> known;
    bool hasWide = false;
    lookThrough(old, known, hasWide);
    return;
  }
  const std::int64_t least = sizeWithoutElements(old, *fresh);
  if (freshAround.record.Length > least) {
    refuse(holder, &freshAround,
           fmt::format("the reader's field has {} bytes, the structure in it only {}{}",
                       freshAround.record.Length, least,
                       old.hasRepeatField() ? " without elements" : ""));
    return;
  }
  const std::int64_t elements = mostElements(old, around.record.Length);
  // The findings with less room and more elements include those here.
  const auto seen = embedded_.find(old.id);
  if (seen != embedded_.end() && seen->second.first <= room && seen->second.second >= elements) {
    return;
  }
  embedded_[old.id] = {room, elements};
  Reading reading{old, *fresh, room, room, elements};
  readFields(reading);
}

void Conformity::readFields(Reading &reading) {
  const Structure &old = reading.old;
  bool comesAlways = false;  // a field
  std::size_t next = 0;
  for (; next < old.fields.size(); ++next) {
    const Field &field = old.fields[next];
    if (field.record.NotPorted != 0) continue;
    const bool isElement = isRepeat(old, field);
    if (!isElement) comesAlways = true;
    if (isElement && reading.elements == 0) continue;
    const Field *const known = fieldWithId(reading.fresh, field.record.FieldID);
    if (known != nullptr) {
      readField(reading, field, *known);
      continue;
    }
    if (field.record.FieldID > lastId(reading.fresh)) break;
    refuse(old, &field,
           "the reader does not know the field, and it is not newer than its last one");
  }
  if (!comesAlways) {
    refuse(old, nullptr, "the text may have no field, and a reader needs one");
  }
  if (next < old.fields.size()) dropFrom(reading, next);
  completeAbsent(reading, false);
  if (reading.seenWithElements != nullptr) completeAbsent(reading, true);
  checkOverlaps(reading);
  checkCount(reading);
}

// The reader skips them, but it reads the structures that their pointers lead to.
void Conformity::dropFrom(const Reading &reading, std::size_t first) {
  const Structure &old = reading.old;
  for (std::size_t i = first; i < old.fields.size(); ++i) {
    const Field &field = old.fields[i];
    if (field.record.NotPorted != 0) continue;
    note(PortEffect::Dropped, old, &field,
         "the field is newer than what the reader knows; the reader drops it");
    const Opening opening = openingOf(field.type);
    bool hasWide = opening == Opening::Wide || opening == Opening::WideString;
    if (opening == Opening::Wide && roomOf(field) == 0) hasWide = false;
    if (opening == Opening::Pointer) addTop(*field.target);
    std::set<std::uint32_t> known;
    if (opening == Opening::Embedded) lookThrough(*field.target, known, hasWide);
    if (hasWide) {
      refuse(
          old, &field,
          "wide text with one of \" < > makes the reader end the dropped fields at another place");
    }
  }
}

// A structure that the reader skips: its pointers, and whether it has wide text.
void Conformity::lookThrough(const Structure &structure, std::set<std::uint32_t> &known,
                             bool &hasWide) {
  if (!known.insert(structure.id).second) return;
  for (const Field &field : structure.fields) {
    if (field.record.NotPorted != 0) continue;
    const Opening opening = openingOf(field.type);
    if (opening == Opening::WideString) hasWide = true;
    if (opening == Opening::Wide && roomOf(field) > 0) hasWide = true;
    if (opening == Opening::Pointer) addTop(*field.target);
    if (opening == Opening::Embedded) lookThrough(*field.target, known, hasWide);
  }
}

void Conformity::readField(Reading &reading, const Field &old, const Field &fresh) {
  const bool isElement = isRepeat(reading.old, old);
  if (isElement) {
    reading.seenWithElements = &fresh;
  } else {
    reading.seen.push_back(&fresh);
  }
  if (isElement && reading.elements > 1 && &fresh != &reading.fresh.fields.back()) {
    note(PortEffect::Changed, reading.old, &old,
         "the field is not the reader's last one, so only the last element is kept");
  }
  if (openingOf(old.type) == Opening::Pointer) addTop(*old.target);
  if (!takes(openingOf(fresh.type), openingOf(old.type))) {
    refuse(
        reading.old, &old,
        fmt::format("a {} cannot be read as {}", portTypeName(old.type), portTypeName(fresh.type)));
    return;
  }
  checkRoom(reading, old, fresh);
  readValue(reading.old, old, fresh);
  if (openingOf(old.type) == Opening::Embedded) {
    const std::int64_t room = isElement ? reading.roomWithElement : reading.room;
    readEmbedded(*old.target, old, fresh, reading.old, room - fresh.record.Offset);
  }
}

// The reader writes only within what it has allocated.
void Conformity::checkRoom(const Reading &reading, const Field &old, const Field &fresh) {
  const bool isElement = isRepeat(reading.old, old);
  const bool isEmbedded = openingOf(old.type) == Opening::Embedded;
  const std::int64_t stored = isEmbedded ? 0 : fresh.storedLength();
  std::int64_t end = fresh.record.Offset + stored;
  const bool isTop = reading.room != reading.roomWithElement || reading.room == 0;
  if (isElement && !isTop && &fresh == &reading.fresh.fields.back()) {
    end += (reading.elements - 1) * fresh.record.Length;
  }
  if (end <= (isElement ? reading.roomWithElement : reading.room)) return;
  refuse(reading.old, &old,
         isElement ? "the reader has no room for all elements"
         : reading.old.hasRepeatField()
             ? "the reader has no room for the field when there are no elements"
             : "the reader has no room for the field where the structure is embedded");
}

void Conformity::readValue(const Structure &around, const Field &old, const Field &fresh) {
  switch (openingOf(old.type)) {
    case Opening::Narrow:
    case Opening::Wide:
    case Opening::Bytes:
      return readText(around, old, fresh);
    case Opening::Number:
      return readNumber(around, old, fresh);
    case Opening::Pointer:
    case Opening::Embedded:
      if (old.target->id == fresh.target->id) return;
      note(PortEffect::Changed, around, &old,
           fmt::format("the reader reads a {} (StructID {}) as a {} (StructID {})",
                       old.target->name, old.target->id, fresh.target->name, fresh.target->id));
      return;
    default:
      return;
  }
}

// Writers write all bytes of Char and WChar.
void Conformity::readText(const Structure &around, const Field &old, const Field &fresh) {
  const bool isBytes = old.type == MEM_PORT_BIN;
  const char *const unit = isBytes ? "bytes" : "characters";
  const std::uint64_t most = isBytes ? lengthOf(old) : roomOf(old);
  const std::uint64_t room = isBytes ? lengthOf(fresh) : roomOf(fresh);
  if (most > room && fresh.record.NoTruncate != 0) {
    refuse(around, &old,
           fmt::format("{} {} do not fit {}, and the reader must not truncate", grouped(most), unit,
                       grouped(room)));
  } else if (most > room) {
    note(PortEffect::Changed, around, &old,
         fmt::format("the reader keeps {} of {} {}", grouped(room), grouped(most), unit));
  } else if (isBytes && most < room) {
    note(PortEffect::Undefined, around, &old,
         fmt::format("the reader sets {} of the field's {} bytes", grouped(most), grouped(room)));
  }
  if (!isBytes && !isTerminated(old.type) && isTerminated(fresh.type)) {
    note(PortEffect::Changed, around, &old, "a zero within the text ends it for the reader");
  }
}

void Conformity::readNumber(const Structure &around, const Field &old, const Field &fresh) {
  if (isSigned(old.type) && !isSigned(fresh.type)) {
    refuse(around, &old,
           fmt::format("a {} may be negative, and the reader's {} has no sign",
                       portTypeName(old.type), portTypeName(fresh.type)));
  } else if (bitsOf(old) > bitsOf(fresh)) {
    note(PortEffect::Changed, around, &old,
         fmt::format("numbers of a {} may not fit the reader's {}", portTypeName(old.type),
                     portTypeName(fresh.type)));
  }
}

// What the reader does with fields that the text does not have.
void Conformity::completeAbsent(const Reading &reading, bool hasElements) {
  std::vector<const Field *> seen = reading.seen;
  if (hasElements) seen.push_back(reading.seenWithElements);
  std::set<const Field *> isSeen(seen.begin(), seen.end());
  std::set<std::int32_t> offsets;
  for (const Field *field : seen) offsets.insert(field->record.Offset);
  for (const Field &field : reading.fresh.fields) {
    if (isSeen.count(&field) != 0) continue;
    if (!isDemanded(field)) {
      giveDefault(reading, field, seen, hasElements);
    } else if (offsets.count(field.record.Offset) == 0) {
      refuse(reading.old, &field,
             reading.seenWithElements == &field
                 ? "the reader requires the field, which is absent when there are no elements"
                 : "the reader requires the field, which the text does not have");
    }
  }
}

bool setsAlways(const Field &field) {
  return openingOf(field.type) == Opening::Number || field.type == MEM_PORT_PSTR ||
         field.type == MEM_PORT_WPSTR;
}

void Conformity::giveDefault(const Reading &reading, const Field &field,
                             const std::vector<const Field *> &seen, bool hasElements) {
  if (field.record.Required != 0) return;
  const std::int64_t room = hasElements ? reading.roomWithElement : reading.room;
  if (field.record.Offset + field.storedLength() > room) return;  // it is not there
  const bool hasDefault = setsAlways(field) || field.record.Default.pBytes != nullptr;
  if (!hasDefault) {
    const bool isExpected = isRepeat(reading.fresh, field) || field.record.NotPorted != 0;
    if (isExpected) return;
    note(PortEffect::Undefined, reading.old, &field,
         "the text does not have the field, and it has no default");
    return;
  }
  const std::int64_t length = field.type == MEM_PORT_WCHARSZ
                                  ? static_cast<std::int64_t>(field.defaultUnits.size())
                                  : static_cast<std::int64_t>(field.defaultBytes.size());
  if (isTerminated(field.type) && field.record.NoTruncate != 0 && length >= field.record.Length) {
    refuse(reading.old, &field,
           "the text does not have the field, and its default is too long for it");
    return;
  }
  if (!field.isShared) return;
  for (const Field *other : seen) {
    if (!other->overlaps(field)) continue;
    note(PortEffect::Changed, reading.old, other,
         fmt::format("the default of field {}, which the text does not have, overwrites it",
                     field.name));
  }
}

// Two fields have the types, the lengths and the distance of the old definition.
bool isPlacedAsBefore(const Structure &old, const Field &one, const Field &two) {
  const Field &oldOne = *fieldWithId(old, one.record.FieldID);
  const Field &oldTwo = *fieldWithId(old, two.record.FieldID);
  return oldOne.type == one.type && oldTwo.type == two.type &&
         oldOne.record.Length == one.record.Length && oldTwo.record.Length == two.record.Length &&
         oldTwo.record.Offset - oldOne.record.Offset == two.record.Offset - one.record.Offset;
}

// Fields that share bytes for the reader only: with one another, and with the elements, which
// continue over what follows the repeat field.
void Conformity::checkOverlaps(const Reading &reading) {
  const auto check = [&](const Field &one, const Field &two) {
    if (isPlacedAsBefore(reading.old, one, two)) return;
    note(PortEffect::Changed, reading.old, &one,
         fmt::format("the reader overwrites some of its bytes with field {}", two.name));
  };
  for (std::size_t i = 0; i < reading.seen.size(); ++i) {
    const Field &one = *reading.seen[i];
    for (std::size_t k = i + 1; one.isShared && k < reading.seen.size(); ++k) {
      if (one.overlaps(*reading.seen[k])) check(one, *reading.seen[k]);
    }
    const Field *const repeated = reading.seenWithElements;
    if (repeated == nullptr) continue;
    const bool isAfter = reading.elements > 1 && repeated == &reading.fresh.fields.back() &&
                         one.record.Offset + one.storedLength() > repeated->record.Offset;
    if (isAfter || one.overlaps(*repeated)) check(one, *repeated);
  }
}

// Programs count the elements of a structure by its count field.
void Conformity::checkCount(const Reading &reading) {
  const Structure &old = reading.old;
  const Structure &fresh = reading.fresh;
  if (!fresh.hasRepeatField()) return;
  const Field &count = fresh.fields[static_cast<std::size_t>(fresh.countField)];
  bool isSame = old.hasRepeatField() && old.countIsLength == fresh.countIsLength;
  if (isSame) {
    const Field &oldCount = old.fields[static_cast<std::size_t>(old.countField)];
    isSame = oldCount.record.FieldID == count.record.FieldID &&
             old.repeatField().record.FieldID == fresh.repeatField().record.FieldID &&
             oldCount.record.NotPorted == 0;
    if (isSame && old.countIsLength) {
      isSame = old.length == fresh.length &&
               old.repeatField().record.Length == fresh.repeatField().record.Length;
    }
  }
  if (!isSame) {
    note(PortEffect::Changed, old, &count,
         "for the reader the field counts elements, and its value may differ from their number");
  }
}

}  // namespace

const char *nameOf(PortEffect effect) {
  switch (effect) {
    case PortEffect::Refused:
      return "refused";
    case PortEffect::Dropped:
      return "dropped";
    case PortEffect::Changed:
      return "changed";
    case PortEffect::Undefined:
      break;
  }
  return "undefined";
}

std::string PortFinding::text() const {
  const std::string id = std::to_string(structID);
  const std::string name =
      structure == id ? "StructID " + id : fmt::format("{} (StructID {})", structure, id);
  return fmt::format("{}{}: {}", name, fieldID == 0 ? "" : ", field " + field, what);
}

bool PortConformity::isRefused() const {
  return !findings.empty() && findings.front().effect == PortEffect::Refused;
}

PortConformity checkConformity(const PortDefinitions &old, const PortDefinitions &fresh,
                               const PortStructDefinition *root) {
  Conformity conformity(fresh);
  if (root != nullptr) {
    conformity.addTop(*root);
    return conformity.run();
  }
  for (const MEMStructDef *row = old.table(); row->StructID != 0; ++row) {
    conformity.addTop(*old.find(row->StructID));
  }
  return conformity.run();
}

}  // namespace memtool
