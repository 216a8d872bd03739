// Where a service was called from: the entry points that were open on the thread, the thread, and
// with Options::stacks the native stack.
#pragma once

#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "refhost_threads.hpp"

namespace refhost {

// Trace names of open entry points, the outermost first.
using ServiceChain = std::vector<std::string>;

struct Origin {
  const ServiceChain *services = nullptr;  // null before it is set; exists as long as its table
  std::uint64_t thread = 0;
  std::vector<void *> stack;  // return addresses, the innermost first
};

// Each chain that has occurred, once. Names are copied: they belong to the library, which may be
// unloaded before the host ends. Any thread may call.
class ChainTable {
 public:
  // The chain of the frames that are open on the calling thread. If it is the same as at the
  // thread's last such call, this costs a comparison of the names.
  const ServiceChain &current(ThreadState &thread);

 private:
  std::mutex mutex_;
  std::set<ServiceChain> chains_;
};

}  // namespace refhost
