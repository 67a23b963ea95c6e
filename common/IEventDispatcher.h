#ifndef VESK_COMMON_IEVENTDISPATCHER_H
#define VESK_COMMON_IEVENTDISPATCHER_H

#include <cstddef>
#include <cstdint>

#include "common/Export.h"

/// Event threads and agents, locks, and reference counts; they know nothing of status.
namespace Orvane
{

class EventAgent;

/// Where agents are sent. A dispatcher holds a count on every agent that it has queued and gives it back
/// after delivery or removal. The order of the operations is part of the binary interface: new ones go to the
/// end.
///
/// Unless an operation says otherwise, any thread may call it, and agents must not be null.
class OV_EXPORT IEventDispatcher
{
public:
    /// Queues the agent and blocks until the dispatcher's thread has delivered it. The caller holds a count.
    /// An exception that leaves the packaged call is thrown here. Returns too when the agent is dropped
    /// undelivered or the dispatcher has stopped. On the dispatcher's own thread the agent is delivered in
    /// place.
    virtual void sendAndWait(EventAgent* agent) = 0;

    /// Queues the agent behind all that is queued and returns at once. An exception that leaves the packaged
    /// call is logged by the dispatcher. After the dispatcher has stopped, the agent is released undelivered.
    virtual void post(EventAgent* agent) = 0;

    /// As post(), but the agent joins the queue only when `delayMs` milliseconds of the monotonic clock have
    /// passed, behind what is queued by then. Agents due at the same moment keep their posting order.
    virtual void postDelayed(EventAgent* agent, uint32_t delayMs) = 0;

    /// Drops, without delivery, every waiting agent (delayed ones too) whose receiver is `receiver`, and
    /// releases the senders that wait for them. An agent that is being delivered at this moment is not
    /// stopped.
    virtual void removeAgentsByReceiver(void* receiver) = 0;

    /// Drops this one agent if it still waits; true if it did. The caller holds a count on it.
    virtual bool removeAgent(EventAgent* agent) = 0;

    /// How many agents wait, delayed ones included; the one being delivered does not count.
    virtual std::size_t getPendingCount() = 0;

    /// The dispatcher's full name; valid as long as the dispatcher is.
    virtual const char* getName() = 0;

    /// Whether the calling thread is the one on which this dispatcher delivers.
    virtual bool isThreadCurrent() = 0;

    virtual ~IEventDispatcher();
};

} // namespace Orvane

#endif
