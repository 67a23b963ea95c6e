// Subscriptions of the helpers when memory runs out.

#include <gtest/gtest.h>
#include <string>

#include "common/Calls.h"
#include "statusmanager/helpers/Subscription.h"
#include "tests/helpers/WatchedManager.h"
#include "tests/memory/FailingMemory.h"

using FailingMemory::failEachIn;
using FailingMemory::Failure;
using FailingMemory::runsOut;
using FailingMemory::Spared;

namespace
{

// Too long for a string to hold without an allocation.
const std::string key(100, 'k');

// A manager and a thread whose memory may run out.
class World
{
public:
    status::Subscription subscribe()
    {
        return status::on(
            {key}, thread, [this](const StatusMap&) { ++calls; }, manager);
    }

    // Returns when everything queued is done.
    void settle()
    {
        const Spared spared;
        manager.sync(0);
        Orvane::callAndWait(OV_SITE, thread, this, &World::nothing);
        manager.sync(0);
    }

    unsigned calls = 0; // written by the thread; read by the test after settle()
    Orvane::EventThread thread{"counted", 0};
    WatchedManager manager;

private:
    void nothing() {}
};

class SubscriptionMemory : public testing::Test
{
protected:
    FailingMemory::QuietLog log;
};

} // namespace

TEST_F(SubscriptionMemory, oneThatCannotBeMadeIsNeverCalled)
{
    const unsigned struck = failEachIn<World>(
        [](World& world, const Failure& failure)
        {
            status::Subscription subscription;
            const bool hasStruck = failure.during(
                [&]
                {
                    const bool isRefused = runsOut([&] { subscription = world.subscribe(); });
                    EXPECT_EQ(static_cast<bool>(subscription), !isRefused);
                    world.settle();
                });
            world.manager.postStatus(key, "1");
            world.settle();
            const unsigned mostCalls =
                subscription ? 2 : 0; // a queued registration may fail, which is logged
            EXPECT_LE(world.calls, mostCalls);
            subscription.cancel();
            world.settle();
            world.manager.clearInfo(); // frees the record of a listener that may still be registered
            return hasStruck;
        });
    EXPECT_GT(struck, 10U);
}

TEST_F(SubscriptionMemory, oneEndsWhetherOrNotThereIsMemory)
{
    const unsigned struck = failEachIn<World>(
        [](World& world, const Failure& failure)
        {
            status::Subscription subscription = world.subscribe();
            world.settle();
            const bool hasStruck = failure.during([&] { subscription.cancel(); });
            const unsigned calls = world.calls;
            world.manager.postStatus(key, "1");
            world.settle();
            EXPECT_EQ(world.calls, calls);
            world.manager.clearInfo(); // frees the record of a listener that may still be registered
            return hasStruck;
        });
    EXPECT_GT(struck, 1U);
}
