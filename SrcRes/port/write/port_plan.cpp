#include "port/write/port_plan.h"

#include <cstring>

#include "platform/check.h"
#include "port/write/port_output.h"

namespace memlib {

namespace {

// Collects the characters of a step. At most "(", two numbers of 32 bits and "<".
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

bool isNumber(std::uint8_t type) noexcept {
  return (type >= MEM_PORT_SHORT && type <= MEM_PORT_ULONG) || type == MEM_PORT_UBIGINT ||
         type == MEM_PORT_BIGINT;
}

// The characters before a field's value. A number's letter is written before the number is read,
// other letters afterwards.
FixedText prefixOf(const MEMFieldDef &field, std::string_view before) noexcept {
  FixedText prefix = FixedText().add(before).addReversed(field.FieldID);
  return isNumber(field.Type) ? prefix.add("N") : prefix;
}

FieldStep stepOf(std::string_view prefix, const MEMFieldDef *pField, std::int32_t offset,
                 std::int16_t type) noexcept {
  MEM_ASSERT(prefix.size() <= sizeof FieldStep::prefix);
  FieldStep step{.prefix = {},
                 .pField = pField,
                 .offset = offset,
                 .type = type,
                 .prefixLen = static_cast<std::uint8_t>(prefix.size())};
  std::memcpy(step.prefix, prefix.data(), prefix.size());
  return step;
}

}  // namespace

FieldStep makeStep(const MEMFieldDef &field, std::string_view before) noexcept {
  return stepOf(prefixOf(field, before).view(), &field, field.Offset, field.Type);
}

void PortPlans::add(const MEMStructDef &def) noexcept {
  const std::size_t place = def.StructID % kPlaces;
  const std::int32_t usedBefore = stepsInUse_;
  if (ids_[place] != 0 || fieldCount(def) > kMostSteps - kExtraSteps - usedBefore) return;
  if (StructPlan &plan = plans_[place]; make(def, plan)) {
    plan.texts = offsetsOf(plan.fields, MEM_PORT_PSTR);
    plan.pointers = offsetsOf(plan.fields, MEM_PORT_PNT);
    ids_[place] = def.StructID;
  } else {
    stepsInUse_ = usedBefore;
  }
}

bool PortPlans::make(const MEMStructDef &def, StructPlan &plan) noexcept {
  const std::int32_t count = fieldCount(def);
  const bool isRepeated = hasRepeatField(def) && count > 0 && def.Fields[count - 1].NotPorted == 0;
  plan = {.pDef = &def, .head = {}, .fields = {}, .repeated = {}, .texts = {}, .pointers = {}};
  const FieldStep *pFirst = nextStep();
  FixedText before = FixedText().add("(").addReversed(def.StructID);
  if (hasRepeatField(def)) {
    addFixed(before.add(",").view());
    plan.head = rowFrom(pFirst);
    pFirst = nextStep();
    before = FixedText();
  }
  before.add("<");
  for (std::int32_t i = 0; i < count - (isRepeated ? 1 : 0); ++i) {
    if (def.Fields[i].NotPorted != 0) continue;
    addField(def.Fields[i], before.view());
    before = FixedText().add("/");
  }
  const bool isWritten = nextStep() != pFirst;
  if (isRepeated && !isWritten) return false;  // the first element differs from the others
  if (!isRepeated) addFixed((isWritten ? FixedText() : before).add(">)").view());
  plan.fields = rowFrom(pFirst);
  if (!isRepeated) return true;
  pFirst = nextStep();
  addField(def.Fields[count - 1], before.view());
  plan.repeated = rowFrom(pFirst);
  return true;
}

StructPlan::Offsets PortPlans::offsetsOf(StructPlan::Row row, std::int16_t type) noexcept {
  const std::int32_t *pFirst = offsets_ + offsetsInUse_;
  for (const FieldStep &step : row) {
    if (step.type == type) offsets_[offsetsInUse_++] = step.offset;
  }
  return {pFirst, offsets_ + offsetsInUse_};
}

// Adds a field. The characters before it get a separate step if there is no room for both.
void PortPlans::addField(const MEMFieldDef &field, std::string_view before) noexcept {
  if (prefixOf(field, before).view().size() > sizeof FieldStep::prefix) {
    addFixed(before);
    before = "";
  }
  addStep(makeStep(field, before));
}

void PortPlans::addFixed(std::string_view text) noexcept {
  addStep(stepOf(text, nullptr, 0, FieldStep::kNoField));
}

}  // namespace memlib
