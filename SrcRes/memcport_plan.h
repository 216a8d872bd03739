// What the writer keeps of a definition while a call runs: the fixed characters of each field,
// ready to be stored.
//
// A definition gets a plan when a structure of it has been written without one, so its rows are
// read one by one the first time, and as far as they are needed. Plans have a fixed place and go
// with the call. Definitions that find no place, or whose plan would be an odd one, are read in
// place each time; the text is the same.
#pragma once

#include <cstdint>

#include "memcport_defs.h"

namespace mem {

// A field that is written: "/" (unless it is the first), its identifier and the letter of its type
// if that is always the same.
struct FieldStep {
  static constexpr std::size_t kPrefixLen = 16;

  char prefix[kPrefixLen];
  const MEMFieldDef *pField;
  std::int32_t offset;
  std::uint8_t type;
  std::uint8_t prefixLen;
  std::uint8_t readyLen;  // characters that stand before the field is read
  bool isFirst;
};

struct StructPlan {
  static constexpr std::size_t kHeadLen = 16;

  char head[kHeadLen];  // "(", the identifier, and "<" unless a count comes first
  const MEMStructDef *pDef;
  const FieldStep *pSteps;  // of the fields that are written once
  std::uint16_t steps;
  std::uint8_t headLen;
  bool isCounted;
  bool isRepeated;  // one more step, for each element of the repeat field
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

  void addStep(StructPlan &plan, const MEMFieldDef &field) noexcept;

  std::uint32_t ids_[kPlaces] = {};  // 0 in a free place; no definition has that identifier
  std::int32_t stepsInUse_ = 0;
  // What the two above do not name is never read, and left as it is when a call begins.
  StructPlan plans_[kPlaces];
  FieldStep steps_[kMostSteps];
};

}  // namespace mem
