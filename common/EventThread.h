#ifndef VESK_COMMON_EVENTTHREAD_H
#define VESK_COMMON_EVENTTHREAD_H

#include <thread>

#include "common/EventDispatcher.h"
#include "common/Export.h"

namespace Orvane
{

/// A dispatcher with a thread of its own, which runs from construction to stop() or destruction. All signals
/// are blocked on that thread: handling them stays with the program's own threads.
class OV_EXPORT EventThread : public EventDispatcher
{
public:
    /// Starts the thread.
    /// @param name     kept in full (getName()); the kernel shows its first 15 bytes.
    /// @param priority 0: the normal scheduling class. 1 to 99: SCHED_RR at that priority; where that is
    ///                 refused (it takes CAP_SYS_NICE) a level-2 line is logged and it runs as for 0.
    /// @throws std::system_error when no thread can be started.
    EventThread(const char* name, int priority);

    /// As stop().
    ~EventThread() override;

    /// Ends the thread after the agent that it is delivering, waits for it, and drops what is still queued:
    /// those agents are never delivered, and senders that wait for them return. What is sent later is
    /// released undelivered. Not from the thread itself, and not from two threads at once; calling it again
    /// does nothing.
    void stop();

private:
    void main(int priority);

    std::thread mThread;
};

} // namespace Orvane

#endif
