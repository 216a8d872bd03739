// Prefetches the storage that the writer will read soon: the next structures of the queue, their
// texts, and the registry's entries of the structures that they point to. In a large graph all of
// these are far apart, and each would be a cache miss.
//
// To find out what a structure points to, it is read before its turn. A bad pointer then faults too
// early: the call might fail for another reason before it reaches that structure, and the text
// written so far must not depend on this. So the fault handler calls isAsking(). If the fault came
// from here, the writer continues at its place and no longer looks ahead. Prefetching only the
// structures, without reading them, was tried: 100,000 packages then take 50 % longer.
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

  // Call this when the registry is open.
  void lookInto(HMEMHASH hRegistry) noexcept { hRegistry_ = hRegistry; }

  // Prefetches what the structures after `ref` in the queue need.
  void ask(const MEMPortRef &ref) noexcept;

  // True when looking ahead caused the fault that ended the work.
  bool isAsking() const noexcept { return isAsking_; }
  // Stops looking ahead for the rest of the call.
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
