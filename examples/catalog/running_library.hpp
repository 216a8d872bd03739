// The library in use: bound to the host, with the process and the calling thread started, and
// failures of its services turned into one exception.
#pragma once

#include <cstdint>
#include <string>

#include "catalog_errors.hpp"
#include "refhost.hpp"

namespace catalog {

// Throws ServiceError when `result` is not 0: service, code, the code's name and message, and the
// text that the service left in the calling thread's error area.
void check(refhost::Host &host, const std::string &service, std::int16_t result);

// Start and stop in their order: bind, process, thread; thread, process, unbind. Everything that
// uses the vector lives inside this object's lifetime, on the thread that made it.
class RunningLibrary {
 public:
  // Throws ServiceError when the process or the thread cannot be started; what was started until
  // then has been ended.
  RunningLibrary(refhost::Host &host, MEMBindFn *entry)
      : binding_(host, entry), process_(host), thread_(host) {}

 private:
  class Binding {
   public:
    Binding(refhost::Host &host, MEMBindFn *entry) : host_(host), entry_(entry) {
      host_.bind(entry_);
    }
    ~Binding() { host_.unbind(entry_); }
    Binding(const Binding &) = delete;
    Binding &operator=(const Binding &) = delete;

   private:
    refhost::Host &host_;
    MEMBindFn *entry_;
  };

  class Process {
   public:
    explicit Process(refhost::Host &host);
    ~Process() { host_.vector().MEM_ProcessTerm(); }
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

   private:
    refhost::Host &host_;
  };

  class Thread {
   public:
    explicit Thread(refhost::Host &host);
    ~Thread() { host_.vector().MEM_ThreadTerm(); }
    Thread(const Thread &) = delete;
    Thread &operator=(const Thread &) = delete;

   private:
    refhost::Host &host_;
  };

  Binding binding_;
  Process process_;
  Thread thread_;
};

}  // namespace catalog
