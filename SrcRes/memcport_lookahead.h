// Asks for the storage that the writer will read soon. In a large graph the structures, their texts
// and their registry entries lie far apart, and each would be waited for.
#pragma once

#include "callframe.h"
#include "hashblocks.h"
#include "memcport_plan.h"

namespace mem {

struct MEMPortRef;

class PortLookahead {
 public:
  PortLookahead(const CallFrame &frame, const PortPlans &plans) noexcept
      : frame_(frame), plans_(plans) {}

  // To be called when the registry has been opened. Only the library's own tables are looked into.
  void open(HMEMHASH hRegistry) noexcept;

  // Asks for what the structures behind `ref` in the queue need.
  void ask(const MEMPortRef &ref) noexcept;

 private:
  void askForTargets(const MEMPortRef &ref) const noexcept;

  const CallFrame &frame_;
  const PortPlans &plans_;
  const MEMHashCtlBlk *pRegistry_ = nullptr;
};

}  // namespace mem
