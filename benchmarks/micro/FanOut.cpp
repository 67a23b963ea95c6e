#include "benchmarks/micro/FanOut.h"

#include "benchmarks/micro/Samples.h"
#include "common/EventAgent.h"

using namespace Orvane;

void FanOut::CallingDispatcher::post(EventAgent* agent)
{
    const SmartPtr<EventAgent> hold(agent);
    agent->deliver();
}

FanOut::FanOut(std::size_t listeners, std::size_t names) : mListeners(listeners)
{
    for (Listener& listener : mListeners)
    {
        mManager.registerListener(&listener, &mDispatcher);
        mManager.registerForStatus(&listener, Samples::names(names));
    }
    // The first callbacks, for the subscriptions, do not count.
    onThread(
        [this]
        {
            for (Listener& listener : mListeners)
                listener.callbacks = 0;
        });
}

FanOut::~FanOut()
{
    mManager.clearInfo();
}

void FanOut::onThread(const std::function<void()>& work)
{
    using Agent = SyncEventAgent1<FanOut, const std::function<void()>&>;
    (OV_NEW Agent(this, &FanOut::run, work))->send(&mManager.mThread);
}

uint64_t FanOut::callbacks() const
{
    uint64_t sum = 0;
    for (const Listener& listener : mListeners)
        sum += listener.callbacks;
    return sum;
}
