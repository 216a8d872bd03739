// Definition tables for tests of port strings, put together field by field, and raw storage for
// structures that they describe.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <initializer_list>
#include <memory>
#include <vector>

#include "qj7mem00/qj7mem00.h"

namespace memtest {

// One field under construction. What a caller does not say is dirty or zero, as it likes.
class Field {
 public:
  Field(std::uint32_t fieldID, MEMFieldType type, std::int32_t length, std::int32_t offset) {
    std::memset(static_cast<void *>(&field_), 0xC3, sizeof field_);  // padding may hold anything
    field_.FieldID = fieldID;
    field_.Type = static_cast<std::uint8_t>(type);
    field_.Required = 0;
    field_.Length = length;
    field_.SubStructID = 0;
    field_.Offset = offset;
    field_.Default.pBytes = nullptr;
    field_.NoTruncate = 0;
    field_.NotPorted = 0;
  }

  Field &of(std::uint32_t structID) {
    field_.SubStructID = structID;
    return *this;
  }
  Field &required(std::uint8_t flag = 1) {
    field_.Required = flag;
    return *this;
  }
  Field &noTruncate(std::uint8_t flag = 1) {
    field_.NoTruncate = flag;
    return *this;
  }
  Field &notPorted(std::uint8_t flag = 1) {
    field_.NotPorted = flag;
    return *this;
  }
  Field &typeCode(std::uint8_t code) {
    field_.Type = code;
    return *this;
  }
  Field &byDefault(const void *bytes) {
    field_.Default.pBytes = bytes;
    return *this;
  }
  Field &byDefault(const char *text) {
    field_.Default.pText = text;
    return *this;
  }
  Field &byDefault(const char16_t *text) {
    field_.Default.pWide = text;
    return *this;
  }
  Field &byDefaultNumber(std::uint32_t value) {
    field_.Default.Long = value;
    return *this;
  }

  const MEMFieldDef &get() const { return field_; }

 private:
  MEMFieldDef field_;
};

inline constexpr std::int32_t kNoRepeat = MEM_PORT_NO_COUNT;

// A definition table that owns its field lists. The terminating record is always there.
class Defs {
 public:
  Defs() { rows_.push_back(end()); }

  // Adds a structure. `countField` is the index of the field that counts the last one.
  Defs &add(std::uint32_t structID, std::int32_t length, const std::vector<Field> &fields,
            std::int32_t countField = kNoRepeat, bool countIsLength = false) {
    std::vector<MEMFieldDef> &list = fields_.emplace_back();
    for (const Field &field : fields) list.push_back(field.get());
    MEMStructDef row = end();
    row.StructID = structID;
    row.Length = length;
    row.CountField = countField;
    row.FieldCount = static_cast<std::int32_t>(list.size());
    row.Fields = list.data();
    row.CountIsLength = countIsLength ? 1 : 0;
    rows_.back() = row;
    rows_.push_back(end());
    return *this;
  }

  const MEMStructDef *table() const { return rows_.data(); }
  // For tests of wrong tables.
  MEMStructDef &row(std::size_t i) { return rows_[i]; }
  MEMFieldDef &field(std::size_t row, std::size_t i) { return fields_[row][i]; }
  std::size_t size() const { return rows_.size() - 1; }

 private:
  static MEMStructDef end() {
    MEMStructDef row;
    std::memset(static_cast<void *>(&row), 0xC3, sizeof row);
    row.StructID = 0;
    return row;
  }

  std::deque<std::vector<MEMFieldDef>> fields_;
  std::vector<MEMStructDef> rows_;
};

// Storage of exactly one structure: a byte too far is one that a sanitizer sees.
class Record {
 public:
  explicit Record(std::size_t length, std::uint8_t fill = 0)
      : bytes_(new std::uint8_t[std::max<std::size_t>(length, 1)]), length_(length) {
    std::memset(bytes_.get(), fill, length);
  }

  template <class T>
  Record &set(std::size_t offset, T value) {
    std::memcpy(bytes_.get() + offset, &value, sizeof value);
    return *this;
  }
  Record &setBytes(std::size_t offset, const void *from, std::size_t length) {
    if (length > 0) std::memcpy(bytes_.get() + offset, from, length);
    return *this;
  }

  std::uint8_t *data() { return bytes_.get(); }
  const std::uint8_t *data() const { return bytes_.get(); }
  std::size_t size() const { return length_; }

 private:
  std::unique_ptr<std::uint8_t[]> bytes_;
  std::size_t length_;
};

}  // namespace memtest
