#ifndef C_TASK_H
#define C_TASK_H

#include <utility>

#include "common/EventAgent.h"
#include "common/TrackedNew.h"

namespace StatusC
{

/// A call of any function object on a dispatcher's thread. It may hold objects that can only be moved.
template <class Action>
class Task final : public Orvane::AsyncEventAgent
{
public:
    Task(void* target, Action action) : mTarget(target), mAction(std::move(action)) {}

    void deliver() override { mAction(); }
    void* getDeliveryTarget() override { return mTarget; }

private:
    void* const mTarget;
    Action mAction;
};

/// @param target the object that the call needs; see IEventDispatcher::removeAgentsByReceiver()
template <class Action>
Orvane::SmartPtr<Orvane::EventAgent> makeTask(void* target, Action action)
{
    return Orvane::SmartPtr<Orvane::EventAgent>(OV_NEW Task<Action>(target, std::move(action)));
}

} // namespace StatusC

#endif
