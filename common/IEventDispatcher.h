#ifndef VESK_COMMON_IEVENTDISPATCHER_H
#define VESK_COMMON_IEVENTDISPATCHER_H

#include <cstddef>
#include <cstdint>

#include "common/Export.h"

/// Event threads and agents, locks, and reference counts; they know nothing of status.
namespace Orvane
{

class EventAgent;

/// Receives agents and delivers them. A dispatcher holds a count on every agent that it has queued and
/// releases the count after delivery or removal. The order of the operations is part of the binary interface:
/// new ones go to the end.
///
/// Unless an operation says otherwise, any thread may call it, and agents must not be null.
class OV_EXPORT IEventDispatcher
{
public:
    /// Queues the agent and blocks until the dispatcher's thread has delivered it. The caller must hold a
    /// count on the agent. An exception that leaves the packaged call is thrown here. Also returns when the
    /// agent is dropped undelivered or the dispatcher has stopped. On the dispatcher's own thread the agent
    /// is delivered in place.
    virtual void sendAndWait(EventAgent* agent) = 0;

    /// Queues the agent behind all others and returns at once. The dispatcher logs an exception that leaves
    /// the packaged call. A stopped dispatcher releases the agent undelivered.
    virtual void post(EventAgent* agent) = 0;

    /// As post(), but the agent joins the end of the queue only when `delayMs` milliseconds of the monotonic
    /// clock have passed. Agents due at the same moment keep their posting order.
    virtual void postDelayed(EventAgent* agent, uint32_t delayMs) = 0;

    /// Drops, without delivery, every waiting agent (delayed ones too) whose receiver is `receiver`, and
    /// releases the senders that wait for them. An agent that is being delivered at this moment is not
    /// stopped.
    virtual void removeAgentsByReceiver(void* receiver) = 0;

    /// Drops this one agent if it still waits, and returns whether it did. The caller must hold a count on
    /// it.
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
