// The start and the end of the library, in an object's lifetime.
#pragma once

#include "catalog_support.hpp"
#include "refhost.hpp"

namespace catalog {

// The library in use: bound to the host, with the process and the calling thread started.
//
// Starts and stops in this order: bind, process, thread; thread, process, unbind. Use the vector
// only while this object exists, on the thread that made it.
class RunningLibrary {
 public:
  // Throws ServiceError if the process or the thread cannot be started; everything that was started
  // before is then ended.
  RunningLibrary(refhost::Host &host, MEMBindFn *entry)
      : binding_(host, entry),
        context_(mem::contextOf(host)),
        process_(need(mem::RunningProcess::start(context_))),
        thread_(need(mem::ActiveThread::activate(context_))) {}

  const mem::Context &context() const { return context_; }

 private:
  struct Binding {
    Binding(refhost::Host &boundHost, MEMBindFn *bindEntry) : host(boundHost), entry(bindEntry) {
      host.bind(entry);
    }
    ~Binding() { host.unbind(entry); }
    Binding(const Binding &) = delete;
    Binding &operator=(const Binding &) = delete;

    refhost::Host &host;
    MEMBindFn *entry;
  };

  Binding binding_;
  mem::Context context_;
  mem::RunningProcess process_;
  mem::ActiveThread thread_;
};

}  // namespace catalog
