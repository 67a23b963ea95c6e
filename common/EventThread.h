#ifndef VESK_COMMON_EVENTTHREAD_H
#define VESK_COMMON_EVENTTHREAD_H

#include <cstddef>
#include <pthread.h>

#include "common/EventDispatcher.h"
#include "common/Export.h"

namespace Orvane
{

/// A dispatcher with a thread of its own, which runs from construction to stop() or destruction.
///
/// Signals are blocked on that thread, so handling them stays with the program's own threads. The exceptions
/// are SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS and SIGABRT: a crash handler works here as well. A
/// fault signal that the creating thread has blocked stays blocked on both threads. A child process inherits
/// the signal mask of the thread that makes it. An agent or a listener that calls fork() and exec(), or
/// posix_spawn(), must give the child an empty mask (sigprocmask() before exec(), or POSIX_SPAWN_SETSIGMASK);
/// otherwise the child never receives SIGTERM.
class OV_EXPORT EventThread : public EventDispatcher
{
public:
    /// Starts the thread. It runs until stop().
    /// @param name     kept in full (getName()); the kernel shows its first 15 bytes.
    /// @param priority 0: the normal scheduling class. 1 to 99: SCHED_RR at that priority. If the kernel
    ///                 refuses this (it requires CAP_SYS_NICE), a level-2 line is logged and the thread runs
    ///                 as for 0.
    /// @throws std::system_error when no thread can be started.
    EventThread(const char* name, int priority);

    /// The same with a stack of `stackSize` bytes instead of defaultStackSize(). Choose more for callbacks
    /// with large local variables, less where address space is short.
    /// @throws std::system_error also when the stack is too small for the system (PTHREAD_STACK_MIN).
    EventThread(const char* name, int priority, std::size_t stackSize);

    /// The size to which the stack of an event thread may grow, in bytes: 1 MiB, unless the library was built
    /// with another STATUSMANAGER_EVENT_THREAD_STACK_KIB. Only the used part takes memory. "ulimit -s" has no
    /// effect.
    static std::size_t defaultStackSize();

    /// As stop().
    ~EventThread() override;

    /// Ends the thread after the agent that it is delivering, waits for the end, and drops everything still
    /// queued. Dropped agents are never delivered, and senders that wait for them return. Agents sent later
    /// are released undelivered. Two threads must not call stop() at once; a second call does nothing.
    /// @throws std::system_error when the thread itself calls stop(). The thread ends nevertheless, but
    /// stop() must be called again from another thread.
    void stop();

private:
    struct Start;

    static void* enter(void* start) noexcept;
    void main(int priority);

    pthread_t mThread{}; ///< pthread_t{} before the start and after stop().
};

} // namespace Orvane

#endif
