#include "c/Listener.h"

#include <utility>

#include "common/EventAgent.h"

namespace StatusC
{

Listener::InPlace::InPlace() : EventDispatcher("status.h") {}

void Listener::InPlace::post(Orvane::EventAgent* agent)
{
    const Orvane::SmartPtr<Orvane::EventAgent> hold(agent);
    agent->deliver();
}

Listener::Listener(std::shared_ptr<Inbox> inbox) : mInbox(std::move(inbox)) {}

void Listener::onStatusUpdate(StatusMap updates)
{
    mHasGotValues = mHasGotValues || !updates.empty();
    for (auto& [key, value] : updates)
        mInbox->pushChange(key, std::move(value));
}

void Listener::onEventUpdate(std::string name, std::string value)
{
    mInbox->pushEvent(std::move(name), std::move(value));
}

bool Listener::subscribe(StatusManager& manager, const StatusKeys& keys)
{
    join(manager);
    manager.unregisterForStatus(this, keys); // the manager tells the values of newly subscribed keys only
    mHasGotValues = false;
    manager.registerForStatus(this, keys);
    return mHasGotValues;
}

void Listener::subscribeEvents(StatusManager& manager, const EventKeys& names)
{
    join(manager);
    manager.registerForEvent(this, names);
}

// Before the first subscription, the manager does not know the listener and would log that.
void Listener::unsubscribe(StatusManager& manager, const StatusKeys& keys)
{
    if (mHasJoined)
        manager.unregisterForStatus(this, keys);
}

void Listener::unsubscribeEvents(StatusManager& manager, const EventKeys& names)
{
    if (mHasJoined)
        manager.unregisterForEvent(this, names);
}

void Listener::join(StatusManager& manager)
{
    if (mHasJoined)
        return;
    manager.registerListener(this, &mDispatcher);
    mHasJoined = true;
}

} // namespace StatusC
