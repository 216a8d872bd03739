#include "qj7mem00/memchk.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "memchk_checkers.hpp"
#include "memchk_layer.hpp"
#include "memchk_wrappers.hpp"

// An attached layer and the vector that it is attached to.
struct MEMCheck {
  MEMCheck(MEMFunctionVector &mem, const MEMCheckOptions &options) : vector(mem), layer(options) {}

  MEMFunctionVector &vector;
  memchk::Layer layer;
};

namespace {

// The options that the caller's version of the header has; the others are 0.
MEMCheckOptions readOptions(const MEMCheckOptions *pOptions) noexcept {
  MEMCheckOptions options{};
  if (pOptions == nullptr) return options;
  std::memcpy(&options, pOptions, std::min<std::size_t>(pOptions->Size, sizeof options));
  return options;
}

void describeError(const void *pAddress) {
  memchk::Layer *pLayer = memchk::attachedLayer.load(std::memory_order_acquire);
  if (pLayer != nullptr) pLayer->describe(pAddress);
}

void passOn(const std::string &text, MEMCheckTextFn *pText, void *pContext) {
  constexpr std::size_t kPiece = 4096;
  for (std::size_t at = 0; at < text.size(); at += kPiece) {
    pText(pContext, text.data() + at, std::min(kPiece, text.size() - at));
  }
}

}  // namespace

int16_t MEMCheckAttach(MEMFunctionVector *pVector, const MEMCheckOptions *pOptions,
                       MEMCheck **ppCheck) {
  if (pVector == nullptr || ppCheck == nullptr || !memchk::isBound(*pVector)) {
    return MEMCHK_NOT_BOUND;
  }
  if (memchk::attachedLayer.load(std::memory_order_acquire) != nullptr) {
    return MEMCHK_ATTACHED_ALREADY;
  }
  const MEMCheckOptions options = readOptions(pOptions);
  auto check = std::make_unique<MEMCheck>(*pVector, options);
  if (check->layer.checks()) {
    const bool isUsed = (options.Flags & MEMCHK_NO_CHECKERS) == 0;
    memchk::checkers::find(isUsed);
    memchk::checkers::describeErrors(describeError);
  }
  memchk::wrapSlots(*pVector, check->layer.countsAll());
  memchk::attachedLayer.store(&check->layer, std::memory_order_release);
  *ppCheck = check.release();
  return 0;
}

int16_t MEMCheckDetach(MEMCheck *pCheck) {
  if (pCheck == nullptr) return 0;
  const std::unique_ptr<MEMCheck> check(pCheck);
  check->layer.verify({});
  memchk::unwrapSlots(check->vector);
  memchk::attachedLayer.store(nullptr, std::memory_order_release);
  if (check->layer.checks()) memchk::checkers::describeErrors(nullptr);
  check->layer.release();
  return 0;
}

uint64_t MEMCheckVerify(MEMCheck *pCheck) {
  return pCheck->layer.verify({});
}

uint64_t MEMCheckReports(const MEMCheck *pCheck) {
  return pCheck->layer.reports();
}

int16_t MEMCheckStatistics(MEMCheck *pCheck, MEMCheckTextFn *pText, void *pContext) {
  passOn(pCheck->layer.statistics(false), pText, pContext);
  return 0;
}

int16_t MEMCheckMap(MEMCheck *pCheck, MEMCheckTextFn *pText, void *pContext) {
  passOn(pCheck->layer.statistics(true), pText, pContext);
  return 0;
}
