#include "memcport_plan.h"

#include <cstring>

#include "memcport_digits.h"

namespace mem {

namespace {

// The letter that opens every value of a type, or 0 where a converter writes it.
char letterOf(std::uint8_t type) noexcept {
  switch (type) {
    case MEM_PORT_SHORT:
    case MEM_PORT_USHORT:
    case MEM_PORT_LONG:
    case MEM_PORT_ULONG:
    case MEM_PORT_UBIGINT:
    case MEM_PORT_BIGINT:
      return 'N';
    case MEM_PORT_PNT:
      return 'S';
    case MEM_PORT_PSTR:
      return 'X';
    default:
      return 0;
  }
}

bool isNumber(std::uint8_t type) noexcept {
  return letterOf(type) == 'N';
}

}  // namespace

void PortPlans::add(const MEMStructDef &def) noexcept {
  const std::size_t place = def.StructID % kPlaces;
  const std::int32_t fields = fieldCount(def);
  if (ids_[place] != 0 || fields > kMostSteps - stepsInUse_) return;
  StructPlan &plan = plans_[place];
  char head[1 + kMostStoredDigits + 1] = {'('};
  char *pEnd = putReversed(head + 1, def.StructID);
  plan.isCounted = hasRepeatField(def);
  *pEnd++ = plan.isCounted ? ',' : '<';
  plan.headLen = static_cast<std::uint8_t>(pEnd - head);
  std::memcpy(plan.head, head, sizeof plan.head);
  plan.pDef = &def;
  plan.pSteps = steps_ + stepsInUse_;
  plan.steps = 0;
  for (std::int32_t i = 0; i < fields; ++i) {
    if (def.Fields[i].NotPorted == 0) addStep(plan, def.Fields[i]);
  }
  plan.isRepeated = plan.isCounted && fields > 0 && def.Fields[fields - 1].NotPorted == 0;
  if (plan.isRepeated) {
    if (plan.steps == 1) return;  // odd: the first element has another prefix than the rest
    --plan.steps;
  }
  stepsInUse_ += fields;
  ids_[place] = def.StructID;
}

void PortPlans::addStep(StructPlan &plan, const MEMFieldDef &field) noexcept {
  FieldStep &step = steps_[stepsInUse_ + plan.steps];
  char prefix[1 + kMostStoredDigits + 1] = {'/'};
  step.isFirst = plan.steps == 0;
  char *pEnd = putReversed(prefix + (step.isFirst ? 0 : 1), field.FieldID);
  const char letter = letterOf(field.Type);
  const auto length = static_cast<std::uint8_t>(pEnd - prefix);
  *pEnd = letter;
  std::memcpy(step.prefix, prefix, sizeof step.prefix);
  step.pField = &field;
  step.offset = field.Offset;
  step.type = field.Type;
  step.prefixLen = static_cast<std::uint8_t>(letter == 0 ? length : length + 1);
  step.readyLen = isNumber(field.Type) ? step.prefixLen : length;
  ++plan.steps;
}

}  // namespace mem
