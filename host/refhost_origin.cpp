#include "refhost_origin.hpp"

#include "refhost_impl.hpp"
#include "refhost_platform.hpp"

namespace refhost {

const ServiceChain &ChainTable::current(ThreadState &thread) {
  if (thread.lastChain == nullptr || !thread.frames.areNamed(*thread.lastChain)) {
    const std::lock_guard lock(mutex_);
    thread.lastChain = &*chains_.insert(thread.frames.names()).first;
  }
  return *thread.lastChain;
}

Origin Host::Impl::originOn(ThreadState &thread) {
  return {&chains.current(thread), thread.number,
          options.stacks ? platform::callStack() : std::vector<void *>{}};
}

// The stack from the component's call on: without the functions of the host and of the library,
// which come first. A library that is linked into the program cannot be distinguished from it.
std::vector<std::string> Host::Impl::describe(const std::vector<void *> &stack) const {
  static const char inThisModule = 0;
  const void *const library = libraryModule;
  std::size_t first = 0;
  if (library != nullptr && library != platform::moduleAt(&inThisModule)) {
    while (first < stack.size() && platform::moduleAt(stack[first]) != library) ++first;
    while (first < stack.size() && platform::moduleAt(stack[first]) == library) ++first;
    if (first == stack.size()) first = 0;  // the host was called directly
  }
  std::vector<std::string> places;
  for (; first < stack.size(); ++first) places.push_back(platform::placeOf(stack[first]));
  return places;
}

}  // namespace refhost
