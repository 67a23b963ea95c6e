// Agents, queues and threads when memory runs out.

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <numeric>
#include <vector>

#include "common/Calls.h"
#include "common/EventThread.h"
#include "tests/memory/FailingMemory.h"
#include "tests/support/Wait.h"

using namespace Orvane;
using FailingMemory::Extent;
using FailingMemory::failEachIn;
using FailingMemory::Failure;
using FailingMemory::runsOut;
using FailingMemory::Spared;

namespace
{

// Too long for a string to hold without an allocation.
const std::string longText(100, 'x');

std::vector<int> upTo(int end)
{
    std::vector<int> numbers(static_cast<std::size_t>(end));
    std::iota(numbers.begin(), numbers.end(), 0);
    return numbers;
}

// Records what is delivered to it, without allocating. It blocks its thread while the gate is closed.
class Receiver
{
public:
    Receiver() { mTaken.reserve(1000); }

    void take(int number, std::string) { mTaken.push_back(number); }
    std::string echo(std::string text) { return text; }
    void nothing() {}

    void hold(Gate* reached, Gate* end)
    {
        reached->open();
        end->wait();
    }

    const std::vector<int>& taken() const { return mTaken; }

private:
    std::vector<int> mTaken;
};

// A thread and the agents sent to it. Afterwards no object may be left.
class World
{
public:
    ~World() { release(); }

    // Keeps the thread busy until release().
    void occupy()
    {
        const Spared spared;
        Gate reached;
        postCall(OV_SITE, *mThread, &mHolder, &Receiver::hold, &reached, &mGate);
        reached.wait();
    }

    void release() { mGate.open(); }

    // Returns when all posts are delivered.
    void settle()
    {
        const Spared spared;
        release();
        eventually([this] { return thread().getPendingCount() == 0; });
        callAndWait(OV_SITE, thread(), &mHolder, &Receiver::nothing);
    }

    void post(int number) { postCall(OV_SITE, thread(), &receiver, &Receiver::take, number, longText); }

    void postDelayed(int number, uint32_t delayMs)
    {
        postCallDelayed(OV_SITE, thread(), delayMs, &receiver, &Receiver::take, number, longText);
    }

    EventThread& thread() { return *mThread; }
    void destroyThread()
    {
        release();
        mThread.reset();
    }

    Receiver receiver;

private:
    Receiver mHolder;
    Gate mGate;
    std::unique_ptr<EventThread> mThread = std::make_unique<EventThread>("counted", 0);
};

class EventFrameworkMemory : public testing::Test
{
protected:
    FailingMemory::QuietLog log;
};

// Posts ten agents while memory may run out, and records which were accepted.
template <class Post>
void postTen(std::vector<int>& accepted, Post post)
{
    for (int number = 0; number < 10; ++number)
    {
        if (!runsOut([&] { post(number); }))
            accepted.push_back(number);
    }
}

} // namespace

TEST_F(EventFrameworkMemory, aPostIsQueuedOrReachesItsCallerAsAnException)
{
    const unsigned struck = failEachIn<World>(
        [](World& world, const Failure& failure)
        {
            world.occupy();
            std::vector<int> accepted;
            accepted.reserve(11);
            const bool hasStruck =
                failure.during([&] { postTen(accepted, [&](int number) { world.post(number); }); });
            world.post(10);
            world.settle();
            accepted.push_back(10);
            EXPECT_EQ(world.receiver.taken(), accepted);
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}

TEST_F(EventFrameworkMemory, aDelayedPostIsQueuedOrReachesItsCallerAsAnException)
{
    const unsigned struck = failEachIn<World>(
        [](World& world, const Failure& failure)
        {
            world.occupy();
            std::vector<int> accepted;
            accepted.reserve(11);
            const bool hasStruck =
                failure.during([&] { postTen(accepted, [&](int number) { world.postDelayed(number, 1); }); });
            world.postDelayed(10, 1);
            world.settle();
            accepted.push_back(10);
            EXPECT_EQ(world.receiver.taken(), accepted);
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}

TEST_F(EventFrameworkMemory, aDeliveryThatFailsIsLostAndTheNextComes)
{
    const unsigned struck = failEachIn<World>(
        [](World& world, const Failure& failure)
        {
            world.occupy();
            for (int number = 0; number < 3; ++number)
                world.post(number);
            const bool hasStruck = failure.during([&] { world.settle(); });
            const std::size_t lost = 3 - world.receiver.taken().size();
            EXPECT_LE(lost, hasStruck ? (failure.extent == Extent::One ? 1U : 3U) : 0U);
            world.post(3);
            world.settle();
            EXPECT_EQ(world.receiver.taken().back(), 3);
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}

TEST_F(EventFrameworkMemory, dueAgentsAreAdmittedWithoutMemory)
{
    const unsigned struck = failEachIn<World>(
        [](World& world, const Failure& failure)
        {
            world.occupy();
            for (int number = 0; number < 10; ++number)
                postCallDelayed(OV_SITE, world.thread(), 1, &world.receiver, &Receiver::nothing);
            return failure.during([&] { world.settle(); });
        });
    EXPECT_EQ(struck, 0U);
}

TEST_F(EventFrameworkMemory, aWaitingCallIsMadeOrReachesItsCallerAsAnException)
{
    const unsigned struck = failEachIn<World>(
        [](World& world, const Failure& failure)
        {
            const auto echo = [&]
            { return callAndWait(OV_SITE, world.thread(), &world.receiver, &Receiver::echo, longText); };
            std::string answer = longText;
            bool ranOut = false;
            const bool hasStruck = failure.during([&] { ranOut = runsOut([&] { answer = echo(); }); });
            EXPECT_EQ(ranOut, hasStruck);
            EXPECT_EQ(answer, longText);
            EXPECT_EQ(echo(), longText);
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}

TEST_F(EventFrameworkMemory, aCallInPlaceIsMadeOrReachesItsCallerAsAnException)
{
    const unsigned struck = failEachIn<World>(
        [](World& world, const Failure& failure)
        {
            struct Place
            {
                void run(World* world)
                {
                    callAndWait(OV_SITE, world->thread(), &world->receiver, &Receiver::echo, longText);
                }
            } place;
            bool ranOut = false;
            const auto call = [&] { callAndWait(OV_SITE, world.thread(), &place, &Place::run, &world); };
            const bool hasStruck = failure.during([&] { ranOut = runsOut(call); });
            EXPECT_EQ(ranOut, hasStruck);
            world.post(0);
            world.settle();
            EXPECT_EQ(world.receiver.taken(), upTo(1));
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}

TEST_F(EventFrameworkMemory, agentsOfAReceiverAreDroppedWithoutMemory)
{
    const unsigned struck = failEachIn<World>(
        [](World& world, const Failure& failure)
        {
            world.occupy();
            Receiver other;
            for (int number = 0; number < 5; ++number)
            {
                world.post(number);
                postCall(OV_SITE, world.thread(), &other, &Receiver::take, number, longText);
                postCallDelayed(OV_SITE, world.thread(), 1, &other, &Receiver::take, number, longText);
                world.postDelayed(number + 5, 10);
            }
            const bool hasStruck = failure.during([&] { world.thread().removeAgentsByReceiver(&other); });
            world.settle();
            std::vector<int> taken = world.receiver.taken();
            std::sort(taken.begin(), taken.end()); // agents with close due times may swap
            EXPECT_EQ(taken, upTo(10));
            EXPECT_EQ(other.taken(), upTo(0));
            return hasStruck;
        });
    EXPECT_EQ(struck, 0U);
}

TEST_F(EventFrameworkMemory, oneAgentIsDroppedWithoutMemory)
{
    const unsigned struck = failEachIn<World>(
        [](World& world, const Failure& failure)
        {
            world.occupy();
            world.post(0);
            const SmartPtr<EventAgent> agent(
                makeCall<AsyncEventAgent>(OV_SITE, &world.receiver, &Receiver::take, 1, longText));
            world.thread().post(agent.get());
            world.post(1);
            const bool hasStruck =
                failure.during([&] { EXPECT_TRUE(world.thread().removeAgent(agent.get())); });
            world.settle();
            EXPECT_EQ(world.receiver.taken(), upTo(2));
            return hasStruck;
        });
    EXPECT_EQ(struck, 0U);
}

TEST_F(EventFrameworkMemory, aThreadStopsAndDropsWhatIsQueuedWithoutMemory)
{
    const unsigned struck = failEachIn<World>(
        [](World& world, const Failure& failure)
        {
            world.occupy();
            for (int number = 0; number < 5; ++number)
            {
                // It may be delivered before the thread stops, so it takes no memory.
                postCall(OV_SITE, world.thread(), &world.receiver, &Receiver::nothing);
                world.postDelayed(number, 60000);
            }
            return failure.during(
                [&]
                {
                    world.release();
                    world.thread().stop();
                });
        });
    EXPECT_EQ(struck, 0U);
}

TEST_F(EventFrameworkMemory, aThreadIsDestroyedWithWhatIsQueuedWithoutMemory)
{
    const unsigned struck = failEachIn<World>(
        [](World& world, const Failure& failure)
        {
            for (int number = 0; number < 5; ++number)
                world.postDelayed(number, 60000);
            return failure.during([&] { world.destroyThread(); });
        });
    EXPECT_EQ(struck, 0U);
}

TEST_F(EventFrameworkMemory, aThreadIsConstructedOrItsCallerGetsAnException)
{
    const unsigned struck = failEachIn<World>(
        [](World&, const Failure& failure)
        {
            std::unique_ptr<EventThread> thread;
            const auto construct = [&]
            { thread = std::make_unique<EventThread>("of a name that is long", 0); };
            bool ranOut = false;
            const bool hasStruck = failure.during([&] { ranOut = runsOut(construct); });
            EXPECT_EQ(ranOut, hasStruck);
            EXPECT_EQ(thread == nullptr, ranOut);
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}
