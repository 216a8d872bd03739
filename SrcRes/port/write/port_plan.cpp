#include "port/write/port_plan.h"

#include <cstring>

#include "port/write/digits.h"

namespace mem {

namespace {

StepKind kindOf(std::uint8_t type) noexcept {
  switch (type) {
    case MEM_PORT_SHORT:
      return StepKind::int16;
    case MEM_PORT_USHORT:
      return StepKind::uint16;
    case MEM_PORT_LONG:
      return StepKind::int32;
    case MEM_PORT_ULONG:
      return StepKind::uint32;
    case MEM_PORT_BIGINT:
      return StepKind::int64;
    case MEM_PORT_UBIGINT:
      return StepKind::uint64;
    case MEM_PORT_PNT:
      return StepKind::pointer;
    case MEM_PORT_PSTR:
      return StepKind::text;
    default:
      return StepKind::other;
  }
}

// The letter that opens every value of a kind.
std::string_view letterOf(StepKind kind) noexcept {
  switch (kind) {
    case StepKind::pointer:
      return "S";
    case StepKind::text:
      return "X";
    case StepKind::end:
    case StepKind::close:
    case StepKind::fixed:
    case StepKind::other:
      return "";
    default:
      return "N";
  }
}

// Characters that are put together for a step. At most "(", two numbers of 32 bits and "<".
class FixedText {
 public:
  FixedText &add(std::string_view text) noexcept {
    std::memcpy(text_ + length_, text.data(), text.size());
    length_ += text.size();
    return *this;
  }
  FixedText &addReversed(std::uint32_t value) noexcept {
    length_ = static_cast<std::size_t>(putReversed(text_ + length_, value) - text_);
    return *this;
  }
  std::string_view view() const noexcept { return {text_, length_}; }

 private:
  static constexpr std::size_t kMostInFront = 12;

  char text_[kMostInFront + kMostStoredDigits];
  std::size_t length_ = 0;
};

}  // namespace

void PortPlans::add(const MEMStructDef &def) noexcept {
  const std::size_t place = def.StructID % kPlaces;
  const std::int32_t usedBefore = stepsInUse_;
  if (ids_[place] != 0 || fieldCount(def) > kMostSteps - kExtraSteps - usedBefore) return;
  if (make(def, plans_[place])) {
    ids_[place] = def.StructID;
  } else {
    stepsInUse_ = usedBefore;
  }
}

bool PortPlans::make(const MEMStructDef &def, StructPlan &plan) noexcept {
  const std::int32_t fields = fieldCount(def);
  const bool isRepeated =
      hasRepeatField(def) && fields > 0 && def.Fields[fields - 1].NotPorted == 0;
  plan = {.pDef = &def, .pHead = nullptr, .pSteps = nullptr, .pRepeated = nullptr};
  FixedText inFront = FixedText().add("(").addReversed(def.StructID);
  if (hasRepeatField(def)) {
    plan.pHead = &addStep(StepKind::fixed, inFront.add(",").view());
    addStep(StepKind::end, "");
    inFront = FixedText();
  }
  inFront.add("<");
  plan.pSteps = nextStep();
  for (std::int32_t i = 0; i < fields - (isRepeated ? 1 : 0); ++i) {
    if (def.Fields[i].NotPorted != 0) continue;
    addField(def.Fields[i], inFront.view());
    inFront = FixedText().add("/");
  }
  const bool isWritten = nextStep() != plan.pSteps;
  if (isRepeated && !isWritten) return false;  // odd: the first element's "<" is not the others'
  if (!isRepeated) {
    addStep(StepKind::close, (isWritten ? FixedText() : inFront).add(">)").view());
    return true;
  }
  addStep(StepKind::end, "");
  plan.pRepeated = nextStep();
  addField(def.Fields[fields - 1], inFront.view());
  addStep(StepKind::end, "");
  return true;
}

// A field, with what stands in front of its identifier.
void PortPlans::addField(const MEMFieldDef &field, std::string_view before) noexcept {
  const StepKind kind = kindOf(field.Type);
  const std::string_view letter = letterOf(kind);
  FixedText fixed = FixedText().add(before).addReversed(field.FieldID);
  if (fixed.view().size() + letter.size() > FieldStep::kPrefixLen) {
    addStep(StepKind::fixed, before);
    fixed = FixedText().addReversed(field.FieldID);
  }
  FieldStep &step = addStep(kind, fixed.view());
  std::memcpy(step.prefix + step.fixedLen, letter.data(), letter.size());
  step.pField = &field;
  step.offset = field.Offset;
  step.prefixLen = static_cast<std::uint8_t>(step.fixedLen + letter.size());
  // A number's letter is written before the number is read, other letters behind.
  if (letter == "N") step.readyLen = step.prefixLen;
}

// REQUIRES: a step that is free; no more characters than a prefix takes.
FieldStep &PortPlans::addStep(StepKind kind, std::string_view fixed) noexcept {
  FieldStep &step = steps_[stepsInUse_++];
  const auto length = static_cast<std::uint8_t>(fixed.size());
  step = {.prefix = {},
          .pField = nullptr,
          .offset = 0,
          .kind = kind,
          .prefixLen = length,
          .readyLen = length,
          .fixedLen = length};
  std::memcpy(step.prefix, fixed.data(), fixed.size());
  return step;
}

}  // namespace mem
