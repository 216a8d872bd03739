/** @file process.hpp
 * Process and thread: owners of the context blocks. Part of mem.hpp, whose conventions apply.
 */
#ifndef QJ7MEM00_MEM_PROCESS_HPP
#define QJ7MEM00_MEM_PROCESS_HPP

#include <cstdint>

#include "context.hpp"

namespace mem {

/** @name Process and thread */
/** @{ */

/** The library's process block, message table and sink, from MEM_ProcessInit to MEM_ProcessTerm.
 * Start it before all other owners, with no other call running; close it after them and after every
 * ActiveThread. */
class RunningProcess : public Owner<RunningProcess, bool> {
 public:
  RunningProcess() noexcept = default;

  /** A start that fails frees what it has allocated. */
  static Result<RunningProcess> start(ContextRef context) noexcept {
    const Status started = call(context.get(), slots::MEM_ProcessInit);
    RunningProcess process(context);
    if (!started.isOk()) return started.error();
    return process;
  }

  static Status closeHandle(const Context &context, bool) noexcept {
    return call(context, slots::MEM_ProcessTerm);
  }

 private:
  explicit RunningProcess(ContextRef context) noexcept : Owner(context, true) {}
};

/** The calling thread's thread block, from MEM_ThreadAct to MEM_ThreadTerm. Use and close it on the
 * thread that made it. One for each thread. */
class ActiveThread : public Owner<ActiveThread, bool> {
 public:
  ActiveThread() noexcept = default;

  static Result<ActiveThread> activate(ContextRef context) noexcept {
    const std::int16_t result = context->vector().MEM_ThreadAct();
    if (result == 0) return ActiveThread(context);
    // The call keeps the record of an earlier failure and adds at most this code.
    const Error error = Error::ofCall(context.get(), slots::MEM_ThreadAct.name, result);
    if (error.code() == MEMERR_TBLKFAIL) return error;
    return Error::withoutRecord(slots::MEM_ThreadAct.name, result);
  }

  static Status closeHandle(const Context &context, bool) noexcept {
    return call(context, slots::MEM_ThreadTerm);
  }

 private:
  explicit ActiveThread(ContextRef context) noexcept : Owner(context, true) {}
};
/** @} */

}  // namespace mem

#endif
