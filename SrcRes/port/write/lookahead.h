// Asks for the storage that the writer will read soon: structures of the queue to come, their texts
// and the registry's entries of those that they point to. In a large graph all of these lie far
// apart, and each would be waited for.
//
// To know what a structure points to it must be read ahead of its turn. A fault then is none of the
// call's: it may fail before it comes to that structure, and what it has written by then must not
// depend on this. So whoever catches a fault asks isAsking(), and if it was one of these has the
// writer go on where it was, without looking ahead any more.
#pragma once

#include "frame/callframe.h"
#include "port/write/port_plan.h"

namespace mem {

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
  void giveUp() noexcept {
    isAsking_ = false;
    isGivenUp_ = true;
  }

 private:
  void askForTexts(const MEMPortRef &ref) const noexcept;
  void askForEntries(const MEMPortRef &ref) const noexcept;

  const CallFrame &frame_;
  const PortPlans &plans_;
  HMEMHASH hRegistry_ = nullptr;
  bool isAsking_ = false;
  bool isGivenUp_ = false;
};

}  // namespace mem
