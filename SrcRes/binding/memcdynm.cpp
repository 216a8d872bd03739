#include "binding/entrypoints.h"

#include "frame/callframe.h"

namespace memlib {

namespace {

constexpr EntryPoint kPSdynamn{"PSdynamn", kSourceDynm, 0, 0};  // writes no trace records

void fill(MEMFunctionVector &vector) noexcept {
#define MEM_FILL_SLOT(slot, name) vector.name = memlib::name;
  MEM_VECTOR_SLOTS(MEM_FILL_SLOT)
#undef MEM_FILL_SLOT
}

void clear(MEMFunctionVector &vector) noexcept {
#define MEM_CLEAR_SLOT(slot, name) vector.name = nullptr;
  MEM_VECTOR_SLOTS(MEM_CLEAR_SLOT)
#undef MEM_CLEAR_SLOT
}

}  // namespace

void PSdynamn(std::int16_t Action) noexcept {
  const CallFrame frame(kPSdynamn, ErrorArea::keep);
  if (Action == kFillVector) {
    fill(functionVector());
  } else if (Action == kClearVector) {
    clear(functionVector());
  }
}

}  // namespace memlib
