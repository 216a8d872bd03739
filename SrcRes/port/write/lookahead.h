// Asks for the storage that the writer will read soon: structures of the queue to come, their texts
// and the registry's entries of those that they point to. In a large graph all of these lie far
// apart, and each would be waited for.
//
// To learn what a structure points to, it is read before its turn. A bad pointer then faults too
// early: the call might end with another failure before it reaches that structure, and the text
// written so far must be the same. So the fault handler calls isAsking(); if the fault came from
// here, the writer goes on where it was and no longer looks ahead. Asking without reading, for the
// structures alone, was tried: 100,000 packages then take half as long again.
#pragma once

#include "frame/callframe.h"
#include "port/write/port_plan.h"

namespace memlib {

class KeyLookahead;
struct MEMPortRef;

class PortLookahead {
 public:
  PortLookahead(const CallFrame &frame, const PortPlans &plans) noexcept
      : frame_(frame), plans_(plans) {}

  // To be called when the registry is open.
  void lookInto(HMEMHASH hRegistry) noexcept { hRegistry_ = hRegistry; }

  // Asks for what the structures behind `ref` in the queue need.
  void ask(const MEMPortRef &ref) noexcept;

  // True when a fault that ended the work is one of looking ahead.
  bool isAsking() const noexcept { return isAsking_; }
  // Ends it for the rest of the call.
  void stop() noexcept {
    isAsking_ = false;
    isStopped_ = true;
  }

 private:
  void askForTexts(const MEMPortRef &ref, const KeyLookahead *pIndex) const noexcept;
  void askForEntries(const MEMPortRef &ref, const KeyLookahead &index) const noexcept;

  const CallFrame &frame_;
  const PortPlans &plans_;
  HMEMHASH hRegistry_ = nullptr;
  bool isAsking_ = false;
  bool isStopped_ = false;
};

}  // namespace memlib
