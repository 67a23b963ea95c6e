#include "statusmanager/helpers/DispatcherLink.h"

#include <utility>

#include "common/EventAgent.h"

using Orvane::EventAgent;
using Orvane::SmartPtr;

namespace status
{

DispatcherLink::DispatcherLink() : EventDispatcher("link") {}

void DispatcherLink::open(Orvane::EventDispatcher& target)
{
    const std::lock_guard<std::mutex> lock(mMutex);
    mTarget = &target;
}

void DispatcherLink::post(EventAgent* agent)
{
    const SmartPtr<EventAgent> hold(agent); // destroys a dropped agent without the lock
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mTarget != nullptr)
        mTarget->post(agent);
}

void DispatcherLink::postLast(EventAgent* agent)
{
    const SmartPtr<EventAgent> hold(agent);
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mTarget != nullptr)
        std::exchange(mTarget, nullptr)->post(agent);
}

void DispatcherLink::cut()
{
    const std::lock_guard<std::mutex> lock(mMutex);
    mTarget = nullptr;
}

} // namespace status
