// What the writer keeps of a definition while a call runs: the fixed characters of each field,
// ready to be stored.
//
// A definition gets a plan when a structure of it has been written without one. So its fields are
// read one by one the first time, each when what is in front of it is written: a table that cannot
// be read faults there. Plans have a fixed place and go with the call. Definitions that find no
// place, or whose plan would be an odd one, are read in place each time; the text is the same.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "port/port_defs.h"

namespace memlib {

// Characters that are known before a structure is read, and the field whose value stands behind
// them: "/" (unless the field is the first), its identifier and the letter that opens every number.
// A structure's own characters, in front of its fields and behind them, are steps as well; those in
// front are joined with the first field's where there is room for both.
struct FieldStep {
  char prefix[16];
  const MEMFieldDef *pField;  // null when there is none
  std::int32_t offset;
  std::uint8_t type;  // the field's; 0 when there is none
  std::uint8_t prefixLen;
};

// A field, with what stands in front of its identifier. REQUIRES: all of it fits a prefix, as one
// character always does.
FieldStep makeStep(const MEMFieldDef &field, std::string_view before) noexcept;

// The steps of a structure, in rows, one after the other.
struct StructPlan {
  using Row = std::span<const FieldStep>;

  const MEMStructDef *pDef;
  Row head;      // what stands in front of the number of elements; empty when there is none
  Row fields;    // with the structure's end, unless there are elements
  Row repeated;  // each element of the repeat field; empty when it is not written
};

class PortPlans {
 public:
  // The plan of the structure, or null.
  const StructPlan *find(std::uint32_t structID) const noexcept {
    const std::size_t place = structID % kPlaces;
    return ids_[place] == structID && structID != 0 ? &plans_[place] : nullptr;
  }

  // Makes a plan if there is a place for it. REQUIRES: a structure of the definition has been
  // written.
  void add(const MEMStructDef &def) noexcept;

 private:
  static constexpr std::size_t kPlaces = 32;
  static constexpr std::int32_t kMostSteps = 256;

  static constexpr std::int32_t kExtraSteps = 3;  // of a plan, beyond those of its fields

  bool make(const MEMStructDef &def, StructPlan &plan) noexcept;
  void addField(const MEMFieldDef &field, std::string_view before) noexcept;
  void addFixed(std::string_view text) noexcept;
  void addStep(const FieldStep &step) noexcept { steps_[stepsInUse_++] = step; }
  const FieldStep *nextStep() const noexcept { return steps_ + stepsInUse_; }
  StructPlan::Row rowFrom(const FieldStep *pFirst) const noexcept { return {pFirst, nextStep()}; }

  std::uint32_t ids_[kPlaces] = {};  // 0 in a free place; no definition has that identifier
  std::int32_t stepsInUse_ = 0;
  // What the two above do not name is never read, and left as it is when a call begins.
  StructPlan plans_[kPlaces];
  FieldStep steps_[kMostSteps];
};

}  // namespace memlib
