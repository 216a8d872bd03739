// The library under a host whose services cost as little as those of a real runtime could.
//
// The reference host checks and counts every call, which costs many times as much as the service
// itself. The bench host uses the reference host's tables with plain services in their slots:
// frames that set two fields from a thread-local variable, storage from malloc, gates that are a
// mutex each, protection by mprotect.
#pragma once

#include <cstdint>

#include "benchlib.hpp"

namespace bench {

enum class HostKind { bench, reference };

// The library bound to a host of either kind, with process and calling thread started. One at a
// time; destroy it on the same thread.
class BenchSession {
 public:
  explicit BenchSession(HostKind kind = HostKind::bench);
  ~BenchSession();
  BenchSession(const BenchSession &) = delete;
  BenchSession &operator=(const BenchSession &) = delete;

  MEMFunctionVector &mem() { return host_.vector(); }
  const MEMRuntimeServices &runtime() { return host_.runtime(); }
  refhost::Host &host() { return host_; }

 private:
  refhost::Host host_;
};

// One further thread of a session, active while the object exists.
class BenchThread {
 public:
  explicit BenchThread(BenchSession &session);
  ~BenchThread();
  BenchThread(const BenchThread &) = delete;
  BenchThread &operator=(const BenchThread &) = delete;

 private:
  BenchSession &session_;
};

// How often an operation calls the host, on average, as its contract requires.
struct HostCalls {
  double frames = 0;    // trace frames entered and left
  double anchors = 0;   // look-ups of the process block
  double gates = 0;     // gates acquired and released
  double protects = 0;  // pairs of protection changes
  double storage = 0;   // areas allocated and freed
};

// Counts of the reference host so far.
HostCalls callsSoFar(refhost::Host &host);
HostCalls callsPerOperation(const HostCalls &before, const HostCalls &after, double operations);

}  // namespace bench
