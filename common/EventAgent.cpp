#include "common/EventAgent.h"

namespace Orvane
{

namespace
{
// The code that every agent carries, to tell agents from other kinds of event.
constexpr int32_t agentEventCode = -5;
} // namespace

Event::~Event() = default;
EventAgent::~EventAgent() = default;
AsyncEventAgent::~AsyncEventAgent() = default;
SyncEventAgent::~SyncEventAgent() = default;

EventAgent::EventAgent() : Event(agentEventCode) {}

void AsyncEventAgent::send(IEventDispatcher* dispatcher)
{
    dispatcher->post(this);
}

void SyncEventAgent::send(IEventDispatcher* dispatcher)
{
    const SmartPtr<EventAgent> hold(this);
    deliverAndWait(*this, *dispatcher);
}

void deliverAndWait(EventAgent& agent, IEventDispatcher& dispatcher)
{
    // A thread that waited for itself would wait for ever.
    if (dispatcher.isThreadCurrent())
        agent.deliver();
    else
        dispatcher.sendAndWait(&agent);
}

} // namespace Orvane
