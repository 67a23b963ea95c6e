// How subscriptions end, and which objects may end before them.

#include "tests/helpers/SubscriptionFixture.h"

#include <atomic>
#include <future>
#include <thread>

#include "common/Calls.h"
#include "tests/support/LogCapture.h"

namespace
{

using status::Subscription;

// During its destruction and afterwards, nothing may be delivered.
struct Destroyed
{
    explicit Destroyed(Gate& destroyed) : gate(destroyed) {}
    ~Destroyed() { gate.open(); }
    Gate& gate;
};

class Ending : public SubscriptionFixture
{
protected:
    Subscription recorded() { return status::on({"door"}, thread, record(), manager); }

    // A subscription whose callback owns an object that opens the gate when it is destroyed.
    Subscription owning(Gate& destroyed)
    {
        return status::on(
            {"door"}, thread, [captured = std::make_shared<Destroyed>(destroyed)](const StatusMap&) {},
            manager);
    }

    // A subscription whose first callback blocks until `release` opens.
    Subscription blocked()
    {
        return status::on(
            {"door"}, thread,
            [this](const StatusMap&)
            {
                ++calls;
                entered.open();
                release.wait();
                isLeft = true;
            },
            manager);
    }

    // Returns when the thread is busy. It stays busy until `release` opens.
    void keepThreadBusy()
    {
        Orvane::postCall(OV_SITE, thread, this, &Ending::stay);
        ASSERT_TRUE(entered.wait());
    }

    void stay()
    {
        entered.open();
        release.wait();
    }

    // Whether both threads have released it.
    bool nothingIsLeft()
    {
        manager.sync(0);
        pass(thread);
        manager.sync(0);
        return manager.listeners() == 0 && thread.getPendingCount() == 0 &&
               manager.mThread.getPendingCount() == 0;
    }

    Gate entered;
    Gate release;
    std::atomic<unsigned> calls{0};
    std::atomic<bool> isLeft{false};
};

// An agent that does nothing.
class Nothing : public Orvane::AsyncEventAgent
{
public:
    void deliver() override {}
    void* getDeliveryTarget() override { return this; }
};

// Whether a thread that is busy with a call refuses new agents.
bool isStopping(Orvane::EventThread& thread)
{
    const Orvane::SmartPtr<Orvane::EventAgent> agent(new Nothing);
    thread.post(agent.get());
    return !thread.removeAgent(agent.get());
}

} // namespace

TEST_F(Ending, comesWithItsObject)
{
    {
        const Subscription subscription = recorded();
        settle();
    }
    manager.postStatus("door", "open");
    settle();
    EXPECT_EQ(told.size(), 1U);
    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(Ending, waitsForTheCallbackThatIsRunning)
{
    auto subscription = std::make_unique<Subscription>(blocked());
    ASSERT_TRUE(entered.wait());
    auto end = std::async(std::launch::async, [&] { subscription.reset(); });
    EXPECT_EQ(end.wait_for(std::chrono::milliseconds(30)), std::future_status::timeout);
    release.open();
    end.get();
    EXPECT_TRUE(isLeft);
}

TEST_F(Ending, dropsCallbacksThatAreQueued)
{
    const LogCapture log;
    Subscription subscription = blocked();
    ASSERT_TRUE(entered.wait());
    manager.postStatus("door", "open");
    manager.sync(0);
    auto end = std::async(std::launch::async, [&] { subscription.cancel(); });
    EXPECT_EQ(end.wait_for(std::chrono::milliseconds(30)), std::future_status::timeout);
    release.open();
    end.get();
    settle();
    EXPECT_EQ(calls, 1U);
    EXPECT_TRUE(log.lines().empty()); // no call of the destroyed callback was tried
}

TEST_F(Ending, doesNotWaitForOtherCallbacksOfTheThread)
{
    const Subscription other = blocked();
    Subscription subscription = recorded();
    ASSERT_TRUE(entered.wait());
    auto end = std::async(std::launch::async, [&] { subscription.cancel(); });
    EXPECT_EQ(end.wait_for(testDeadline), std::future_status::ready);
    release.open();
    settle();
    EXPECT_TRUE(told.empty());
}

TEST_F(Ending, doesNotWaitForABusyManager)
{
    Subscription subscription = recorded();
    settle();
    Gate free;
    manager.block(free);
    auto end = std::async(std::launch::async, [&] { subscription.cancel(); });
    EXPECT_EQ(end.wait_for(testDeadline), std::future_status::ready);
    free.open();
    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(Ending, mayComeBeforeTheManagerKnowsOfIt)
{
    Gate free;
    manager.block(free);
    recorded().cancel();
    free.open();
    manager.postStatus("door", "open");
    EXPECT_TRUE(nothingIsLeft());
    EXPECT_TRUE(told.empty());
}

// The listener may be destroyed when the thread reaches the last agent. A callback behind it would use it.
TEST_F(Ending, sendsNothingToItsThreadBehindTheLastAgent)
{
    Subscription subscription = recorded();
    settle();
    keepThreadBusy();
    Gate free;
    manager.block(free);
    manager.postStatus("door", "open"); // queued before the listener is removed
    subscription.cancel();
    free.open();
    manager.sync(0);
    constexpr std::size_t lastAgentAndNotice = 2;
    EXPECT_EQ(thread.getPendingCount(), lastAgentAndNotice);
    release.open();
    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(Ending, insideItsOwnCallbackMakesThatTheLastCall)
{
    Subscription subscription;
    Gate assigned;
    subscription = status::on(
        {"door"}, thread,
        [&](const StatusMap& values)
        {
            assigned.wait();
            subscription.cancel();
            told.push_back(values); // the callback runs to its end
        },
        manager);
    assigned.open();
    manager.postStatus("door", "open");
    settle();
    EXPECT_EQ(told.size(), 1U);
    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(Ending, insideItsOwnCallbackDestroysWhatThatCapturedWhenItReturns)
{
    Gate assigned;
    Gate destroyed;
    Gate free;
    bool isAlive = false;
    Subscription subscription;
    subscription = status::on(
        {"door"}, thread,
        [&, captured = std::make_shared<Destroyed>(destroyed)](const StatusMap&)
        {
            entered.open();
            assigned.wait();
            subscription.cancel();
            isAlive = !captured->gate.isOpen();
        },
        manager);
    ASSERT_TRUE(entered.wait());
    manager.block(free); // the manager does not know yet that the thread has ended
    assigned.open();
    EXPECT_TRUE(destroyed.wait());
    free.open();
    settle();
    EXPECT_TRUE(isAlive);
}

TEST_F(Ending, destroysWhatTheCallbackCapturedBeforeItReturns)
{
    Gate destroyed;
    {
        const Subscription subscription = owning(destroyed);
        settle();
        EXPECT_FALSE(destroyed.isOpen());
    }
    EXPECT_TRUE(destroyed.isOpen());
}

TEST_F(Ending, insideItsCallbackWhileTheThreadIsBeingStopped)
{
    Gate assigned;
    Gate stopping;
    Subscription subscription;
    subscription = status::on(
        {"door"}, thread,
        [&](const StatusMap& values)
        {
            assigned.wait();
            entered.open();
            stopping.wait();
            subscription.cancel();
            manager.sync(0); // the manager has released it
            told.push_back(values);
        },
        manager);
    assigned.open();
    ASSERT_TRUE(entered.wait());
    auto stop = std::async(std::launch::async, [&] { thread.stop(); });
    EXPECT_TRUE(eventually([&] { return isStopping(thread); }));
    stopping.open();
    stop.get();
    EXPECT_EQ(told.size(), 1U);
    EXPECT_EQ(manager.listeners(), 0U);
}

TEST_F(Ending, onTheManagersOwnThreadUnregistersToo)
{
    Subscription subscription = recorded();
    settle();
    manager.onThread([&] { subscription.cancel(); });
    manager.postStatus("door", "open");
    EXPECT_TRUE(nothingIsLeft());
    EXPECT_EQ(told.size(), 1U);
}

TEST_F(Ending, mayComeAfterTheThreadsEnd)
{
    Subscription subscription = recorded();
    settle();
    threadOwner.reset();
    manager.postStatus("door", "open"); // reaches nobody, and does not touch the destroyed thread
    manager.sync(0);
    EXPECT_TRUE(subscription);
    subscription.cancel();
    EXPECT_EQ(manager.listeners(), 0U);
    EXPECT_EQ(told.size(), 1U);
}

TEST_F(Ending, mayComeAfterTheManagersEnd)
{
    Subscription subscription = recorded();
    settle();
    managerOwner.reset();
    subscription.cancel();
    pass(thread);
    EXPECT_EQ(thread.getPendingCount(), 0U);
}

TEST_F(Ending, mayComeAfterTheEndOfBoth)
{
    Gate destroyed;
    {
        const Subscription subscription = owning(destroyed);
        managerOwner.reset();
        threadOwner.reset();
    }
    EXPECT_TRUE(destroyed.isOpen());
}

TEST_F(Ending, ofTheThreadBeforehandLeavesItSilent)
{
    thread.stop();
    const Subscription subscription = recorded();
    manager.postStatus("door", "open");
    manager.sync(0);
    EXPECT_TRUE(told.empty());
}

// For ThreadSanitizer and AddressSanitizer above all: the three ends in each order, while others post.
TEST_F(Ending, inAnyOrderIsHarmlessWhileOthersPost)
{
    std::atomic<bool> isOver{false};
    std::thread poster(
        [&]
        {
            for (unsigned count = 0; !isOver; ++count)
            {
                manager.postStatus("door", std::to_string(count));
                manager.postEvent("bell", std::to_string(count), 0);
                manager.sync(0);
            }
        });
    for (unsigned round = 0; round < 300; ++round)
    {
        auto each = std::make_unique<Orvane::EventThread>("each", 0);
        unsigned count = 0; // no lock: no callback runs after its subscription has ended
        auto values = std::make_unique<Subscription>(status::on(
            {"door"}, *each, [&](const StatusMap&) { ++count; }, manager));
        auto events = std::make_unique<Subscription>(status::onEvent(
            {"bell"}, *each, [&](const std::string&, const std::string&) { ++count; }, manager));
        if (round % 2 == 0)
            pass(*each);
        if (round % 3 == 0)
            each.reset();
        values.reset();
        if (round % 3 == 1)
            each.reset();
        events.reset();
        ++count;
    }
    isOver = true;
    poster.join();
    manager.sync(0);
    EXPECT_EQ(manager.listeners(), 0U);
}
