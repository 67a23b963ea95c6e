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
    manager.unregisterForStatus(this, keys); // the manager tells the values of newly subscribed keys only
    mHasGotValues = false;
    manager.registerForStatus(this, keys);
    return mHasGotValues;
}

} // namespace StatusC
