#include "portmodel.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <stdexcept>
#include <utility>
#include <vector>

namespace portmodel {

namespace {

const std::uint8_t *bytes(const void *address) {
  return static_cast<const std::uint8_t *>(address);
}

template <class T>
T get(const void *address) {
  T value;
  std::memcpy(&value, address, sizeof value);
  return value;
}

std::string backwards(std::uint64_t value) {
  if (value == 0) return "";
  std::string digits = std::to_string(value);
  std::reverse(digits.begin(), digits.end());
  return digits;
}

const MEMStructDef &definition(const MEMStructDef *defs, std::uint32_t structID) {
  for (; defs->StructID != 0 && defs->StructID < 0x80000000U; ++defs) {
    if (defs->StructID == structID) return *defs;
  }
  throw std::logic_error("no structure " + std::to_string(structID));
}

std::u16string wideUpToZero(const void *address, std::size_t most) {
  std::u16string text;
  for (std::size_t i = 0; i < most; ++i) {
    const auto unit = get<char16_t>(bytes(address) + 2 * i);
    if (unit == 0) break;
    text += unit;
  }
  return text;
}

std::string quoted(const std::string &text) {
  std::string made = "\"";
  for (const char c : text) {
    if (c == '\0') {
      made += "/0";
    } else if (c == '"') {
      made += "/\"";
    } else if (c == '/') {
      made += "//";
    } else {
      made += c;
    }
  }
  return made + "\"";
}

std::string unitText(std::uint32_t unit) {
  if (unit == 0) return "/0";
  if (unit == '\'') return "/'";
  if (unit == '/') return "//";
  if (unit <= 127) return std::string(1, static_cast<char>(unit));
  std::string groups;
  for (; unit != 0; unit /= 64) groups.insert(groups.begin(), static_cast<char>('0' + unit % 64));
  return "/" + std::to_string(groups.size()) + groups;
}

std::string wideQuoted(const std::u16string &text) {
  std::string made = "'";
  for (const char16_t unit : text) made += unitText(unit);
  return made + "'";
}

std::string wideString(const std::u16string &text) {
  std::uint64_t pairs = 0;
  for (const char16_t unit : text) {
    if (unit / 0x400 == 0xD800 / 0x400) ++pairs;
  }
  return backwards(text.size() - pairs) + ";" + backwards(pairs) + wideQuoted(text);
}

std::string hex(const void *address, std::size_t length) {
  std::string made;
  for (std::size_t i = 0; i < length; ++i) {
    char pair[3];
    std::snprintf(pair, sizeof pair, "%02X", static_cast<unsigned>(bytes(address)[i]));
    made += pair;
  }
  return made;
}

std::string bits(std::uint8_t value) {
  std::string made;
  for (int bit = 0; bit < 8; ++bit) made += (value >> bit) % 2 == 0 ? '0' : '1';
  return made;
}

std::string signedNumber(std::int64_t value) {
  if (value >= 0) return backwards(static_cast<std::uint64_t>(value));
  return "-" + backwards(~static_cast<std::uint64_t>(value) + 1);
}

// Elements of the last field; for a structure without a count field 1.
std::int64_t elements(const MEMStructDef &def, const void *structure) {
  if (def.CountField == -1) return 1;
  const MEMFieldDef &field = def.Fields[def.CountField];
  const std::uint8_t *place = bytes(structure) + field.Offset;
  std::int64_t value = 0;
  if (field.Type == 5) value = get<std::int16_t>(place);
  if (field.Type == 6) value = get<std::uint16_t>(place);
  if (field.Type == 7) value = get<std::int32_t>(place);
  if (field.Type == 8) value = get<std::uint32_t>(place);
  if (def.CountIsLength == 0 || value < 0) return value;
  const auto length = static_cast<std::int32_t>(value);
  return (std::int64_t{length} - def.Length) / def.Fields[def.FieldCount - 1].Length + 1;
}

// Ported fields of a structure with the place of each element.
std::vector<std::pair<const MEMFieldDef *, std::size_t>> portedFields(const MEMStructDef &def,
                                                                      const void *structure) {
  std::vector<std::pair<const MEMFieldDef *, std::size_t>> found;
  for (std::int32_t i = 0; i < def.FieldCount; ++i) {
    const MEMFieldDef &field = def.Fields[i];
    if (field.NotPorted != 0) continue;
    const std::int64_t times = i == def.FieldCount - 1 ? elements(def, structure) : 1;
    for (std::int64_t k = 0; k < times; ++k) {
      found.emplace_back(&field, static_cast<std::size_t>(field.Offset + k * field.Length));
    }
  }
  return found;
}

class Writer {
 public:
  explicit Writer(const MEMStructDef *defs) : defs_(defs) {}

  std::string write(std::uint32_t structID, const void *root) {
    sequence(structID, root);
    std::string body;
    for (std::size_t i = 0; i < queue_.size(); ++i) {
      body += structureText(queue_[i].first, queue_[i].second);
    }
    char header[24];
    std::snprintf(header, sizeof header, "(%010u,%010u)", static_cast<unsigned>(body.size() + 23),
                  static_cast<unsigned>(queue_.size()));
    return header + body;
  }

 private:
  std::uint64_t sequence(std::uint32_t structID, const void *structure) {
    const auto known = numbers_.emplace(structure, queue_.size() + 1);
    if (known.second) queue_.emplace_back(structID, structure);
    return known.first->second;
  }

  std::string structureText(std::uint32_t structID, const void *structure) {
    const MEMStructDef &def = definition(defs_, structID);
    std::string text = "(" + backwards(structID);
    if (def.CountField != -1) {
      const std::int64_t count = elements(def, structure);
      text += "," + (count > 0 ? backwards(static_cast<std::uint64_t>(count)) : "");
    }
    text += "<";
    bool first = true;
    for (const auto &[field, offset] : portedFields(def, structure)) {
      if (!first) text += "/";
      first = false;
      text += backwards(field->FieldID) + value(*field, bytes(structure) + offset);
    }
    return text + ">)";
  }

  std::string value(const MEMFieldDef &field, const std::uint8_t *place) {
    const auto length = static_cast<std::size_t>(field.Length);
    switch (field.Type) {
      case 1:
        return quoted(std::string(reinterpret_cast<const char *>(place), length));
      case 2: {
        const std::string all(reinterpret_cast<const char *>(place), length);
        return quoted(all.substr(0, all.find('\0')));
      }
      case 3: {
        const char *text = get<const char *>(place);
        if (text == nullptr) return "X";
        return "X" + backwards(std::strlen(text)) + quoted(text);
      }
      case 4:
        return "H" + hex(place, length);
      case 5:
        return "N" + signedNumber(get<std::int16_t>(place));
      case 6:
        return "N" + backwards(get<std::uint16_t>(place));
      case 7:
        return "N" + signedNumber(get<std::int32_t>(place));
      case 8:
        return "N" + backwards(get<std::uint32_t>(place));
      case 9: {
        const void *target = get<const void *>(place);
        return target == nullptr ? "S" : "S" + backwards(sequence(field.SubStructID, target));
      }
      case 10:
        return "E" + structureText(field.SubStructID, place);
      case 11:
        return "B" + bits(*place);
      case 12:
        return "N" + backwards(get<std::uint64_t>(place));
      case 13:
        return "N" + signedNumber(get<std::int64_t>(place));
      case 14: {
        std::u16string text;
        for (std::size_t i = 0; i < length / 2; ++i) text += get<char16_t>(place + 2 * i);
        return wideQuoted(text);
      }
      case 15:
        return wideQuoted(wideUpToZero(place, length / 2));
      case 16: {
        const void *text = get<const void *>(place);
        return text == nullptr ? "x" : "x" + wideString(wideUpToZero(text, SIZE_MAX));
      }
      default:
        throw std::logic_error("no type " + std::to_string(field.Type));
    }
  }

  const MEMStructDef *defs_;
  std::vector<std::pair<std::uint32_t, const void *>> queue_;
  std::map<const void *, std::uint64_t> numbers_;
};

class Comparison {
 public:
  explicit Comparison(const MEMStructDef *defs) : defs_(defs) {}

  std::string run(std::uint32_t structID, const void *first, const void *second) {
    if (std::string different = link(structID, first, second); !different.empty()) {
      return "the top-level structure " + different;
    }
    for (std::size_t i = 0; i < pairs_.size(); ++i) {
      const auto [id, one, other] = pairs_[i];
      if (std::string different = structures(id, one, other); !different.empty()) {
        return "structure " + std::to_string(i + 1) + different;
      }
    }
    return "";
  }

 private:
  struct Pair {
    std::uint32_t structID;
    const void *first;
    const void *second;
  };

  // Two addresses that must stand for the same structure.
  std::string link(std::uint32_t structID, const void *first, const void *second) {
    if ((first == nullptr) != (second == nullptr)) return "is null in one graph only";
    if (first == nullptr) return "";
    const auto there = there_.emplace(first, second);
    const auto back = back_.emplace(second, first);
    if (there.first->second != second || back.first->second != first) {
      return "leads to another structure";
    }
    if (there.second) pairs_.push_back({structID, first, second});
    return "";
  }

  std::string structures(std::uint32_t structID, const void *first, const void *second) {
    const MEMStructDef &def = definition(defs_, structID);
    if (elements(def, first) != elements(def, second)) return " has another element count";
    for (const auto &[field, offset] : portedFields(def, first)) {
      const std::string different = values(*field, bytes(first) + offset, bytes(second) + offset);
      if (different.empty()) continue;
      return " (" + std::to_string(structID) + "), field " + std::to_string(field->FieldID) +
             " at " + std::to_string(offset) + " " + different;
    }
    return "";
  }

  std::string values(const MEMFieldDef &field, const std::uint8_t *one, const std::uint8_t *other) {
    const auto length = static_cast<std::size_t>(field.Length);
    const auto same = [&](std::size_t count) {
      return std::memcmp(one, other, count) == 0 ? "" : "has other bytes";
    };
    switch (field.Type) {
      case 2:
        return std::strncmp(reinterpret_cast<const char *>(one),
                            reinterpret_cast<const char *>(other), length) == 0
                   ? ""
                   : "has other text";
      case 3: {
        const char *text = get<const char *>(one);
        const char *read = get<const char *>(other);
        if (text == nullptr || read == nullptr) {
          return text == read ? "" : "is null in one graph only";
        }
        if (text == read) return "shares its text";
        return std::strcmp(text, read) == 0 ? "" : "has other text";
      }
      case 5:
      case 6:
        return same(2);
      case 7:
      case 8:
        return same(4);
      case 12:
      case 13:
        return same(8);
      case 9:
        return link(field.SubStructID, get<const void *>(one), get<const void *>(other));
      case 10:
        return structures(field.SubStructID, one, other);
      case 14:
        return same(length / 2 * 2);
      case 15:
        return wideUpToZero(one, length / 2) == wideUpToZero(other, length / 2) ? ""
                                                                                : "has other text";
      case 16: {
        const void *text = get<const void *>(one);
        const void *read = get<const void *>(other);
        if (text == nullptr || read == nullptr) {
          return text == read ? "" : "is null in one graph only";
        }
        return wideUpToZero(text, SIZE_MAX) == wideUpToZero(read, SIZE_MAX) ? "" : "has other text";
      }
      default:
        return same(length);
    }
  }

  const MEMStructDef *defs_;
  std::vector<Pair> pairs_;
  std::map<const void *, const void *> there_;
  std::map<const void *, const void *> back_;
};

}  // namespace

std::string write(const MEMStructDef *defs, std::uint32_t structID, const void *root) {
  return Writer(defs).write(structID, root);
}

std::string difference(const MEMStructDef *defs, std::uint32_t structID, const void *first,
                       const void *second) {
  return Comparison(defs).run(structID, first, second);
}

}  // namespace portmodel
