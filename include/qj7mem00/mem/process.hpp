/** @file process.hpp
 * Process and thread: owners of the context blocks. Part of mem.hpp, whose conventions hold.
 */
#ifndef QJ7MEM00_MEM_PROCESS_HPP
#define QJ7MEM00_MEM_PROCESS_HPP

#include <cstdint>

#include "context.hpp"

namespace mem {

/** @name Process and thread */
/** @{ */

/** The library's process block, message table and sink: MEM_ProcessInit until MEM_ProcessTerm.
 * Made with no other call running, before all other owners; closed after them, and after every
 * ActiveThread. */
class RunningProcess : public Owner<RunningProcess, bool> {
 public:
  RunningProcess() noexcept = default;

  /** What a start that fails had obtained is given back. */
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

/** The calling thread's thread block: MEM_ThreadAct until MEM_ThreadTerm. Used, and closed, on the
 * thread that made it. One a thread. */
class ActiveThread : public Owner<ActiveThread, bool> {
 public:
  ActiveThread() noexcept = default;

  static Result<ActiveThread> activate(ContextRef context) noexcept {
    const std::int16_t result = context->vector().MEM_ThreadAct();
    if (result == 0) return ActiveThread(context);
    // The call leaves an earlier failure's record where it stands and adds at most this code.
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
