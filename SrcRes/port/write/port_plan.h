// The writer's copy of a definition for the time of a call: the fixed characters of each field,
// ready to be stored.
//
// A definition gets a plan after a structure of it has been written without one. So the first time
// its fields are read one by one, each after the text before it is written: a table that cannot be
// read faults there. Plans have fixed places and end with the call. Definitions that find no place,
// or for which no plan can be made, are read in place each time; the text is the same.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "port/port_defs.h"

namespace memlib {

// Characters that are known before a structure is read, and the field whose value follows them: "/"
// (unless the field is the first), its identifier and the letter that opens every number. The
// structure's own characters before and after its fields are steps as well; those before the fields
// are joined with the first field's if there is room for both.
struct FieldStep {
  static constexpr std::int16_t kNoField = -1;

  char prefix[16];
  const MEMFieldDef *pField;  // null when there is none
  std::int32_t offset;
  std::int16_t type;  // the field's, or kNoField
  std::uint8_t prefixLen;
};

// The step of a field, with the characters before its identifier. REQUIRES: all of it fits a
// prefix, as one character always does.
FieldStep makeStep(const MEMFieldDef &field, std::string_view before) noexcept;

// The steps of a structure, in consecutive rows.
struct StructPlan {
  using Row = std::span<const FieldStep>;
  using Offsets = std::span<const std::int32_t>;

  const MEMStructDef *pDef;
  Row head;          // before the number of elements; empty without one
  Row fields;        // with the structure's end, unless elements follow
  Row repeated;      // each element of the repeat field; empty when it is not written
  Offsets texts;     // of the fields of type MEM_PORT_PSTR in `fields`
  Offsets pointers;  // of those of type MEM_PORT_PNT
};

class PortPlans {
 public:
  // The plan of the structure, or null.
  const StructPlan *find(std::uint32_t structID) const noexcept {
    const std::size_t place = structID % kPlaces;
    return ids_[place] == structID && structID != 0 ? &plans_[place] : nullptr;
  }

  // Makes a plan if there is a place for it.
  // REQUIRES: a structure of the definition has been written.
  void add(const MEMStructDef &def) noexcept;

 private:
  static constexpr std::size_t kPlaces = 32;
  static constexpr std::int32_t kMostSteps = 256;

  static constexpr std::int32_t kExtraSteps = 3;  // of a plan, in addition to those of its fields

  bool make(const MEMStructDef &def, StructPlan &plan) noexcept;
  void addField(const MEMFieldDef &field, std::string_view before) noexcept;
  void addFixed(std::string_view text) noexcept;
  void addStep(const FieldStep &step) noexcept { steps_[stepsInUse_++] = step; }
  const FieldStep *nextStep() const noexcept { return steps_ + stepsInUse_; }
  StructPlan::Row rowFrom(const FieldStep *pFirst) const noexcept { return {pFirst, nextStep()}; }

  StructPlan::Offsets offsetsOf(StructPlan::Row row, std::int16_t type) noexcept;

  std::uint32_t ids_[kPlaces] = {};  // 0: a free place; no definition has that identifier
  std::int32_t stepsInUse_ = 0;
  std::int32_t offsetsInUse_ = 0;  // no more than steps
  // Left uninitialised: entries that the members above do not name are never read.
  StructPlan plans_[kPlaces];
  FieldStep steps_[kMostSteps];
  std::int32_t offsets_[kMostSteps];
};

}  // namespace memlib
