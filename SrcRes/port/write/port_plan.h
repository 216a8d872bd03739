// What the writer keeps of a definition while a call runs: the fixed characters of each field,
// ready to be stored.
//
// A definition gets a plan when a structure of it has been written without one, so its rows are
// read one by one the first time, and as far as they are needed. Plans have a fixed place and go
// with the call. Definitions that find no place, or whose plan would be an odd one, are read in
// place each time; the text is the same.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "port/port_defs.h"

namespace mem {

// What a step has to write behind its fixed characters.
enum class StepKind : std::uint8_t {
  end,    // nothing, and the row ends
  close,  // nothing, and with the row ends the structure
  fixed,  // nothing
  int16,
  uint16,
  int32,
  uint32,
  int64,
  uint64,
  pointer,
  text,  // that is pointed to
  other  // what a converter writes, with its letter
};

// A field that is written: "/" (unless it is the first), its identifier and the letter of its kind.
// The structure's own characters, in front of its fields and behind them, are steps as well; those
// in front are joined with the first field's where there is room for both.
struct FieldStep {
  static constexpr std::size_t kPrefixLen = 16;

  char prefix[kPrefixLen];
  const MEMFieldDef *pField;  // null when there is none
  std::int32_t offset;
  StepKind kind;
  std::uint8_t prefixLen;
  std::uint8_t readyLen;  // characters that stand before the field is read
  std::uint8_t fixedLen;  // characters in front of the letter

  bool endsRow() const noexcept { return kind == StepKind::end || kind == StepKind::close; }
};

// Rows of steps, of which each ends with `end` or `close`.
struct StructPlan {
  const MEMStructDef *pDef;
  const FieldStep *pHead;      // null, or the row in front of the number of elements
  const FieldStep *pSteps;     // the row of the fields; ends with `close` unless there are elements
  const FieldStep *pRepeated;  // null, or the row of each element of the repeat field

  // Whether one row is all that the structure takes.
  bool isOneRow() const noexcept { return pHead == nullptr; }
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

  static constexpr std::int32_t kExtraSteps = 5;  // of a plan, beyond those of its fields

  bool make(const MEMStructDef &def, StructPlan &plan) noexcept;
  const FieldStep *nextStep() const noexcept { return steps_ + stepsInUse_; }
  FieldStep &addStep(StepKind kind, std::string_view fixed) noexcept;
  void addField(const MEMFieldDef &field, std::string_view before) noexcept;

  std::uint32_t ids_[kPlaces] = {};  // 0 in a free place; no definition has that identifier
  std::int32_t stepsInUse_ = 0;
  // What the two above do not name is never read, and left as it is when a call begins.
  StructPlan plans_[kPlaces];
  FieldStep steps_[kMostSteps];
};

}  // namespace mem
