// Agents that are never delivered: they are removed, or their thread stops or is destroyed.

#include <atomic>
#include <memory>
#include <thread>

#include "tests/common/EventDispatcherFixture.h"

using namespace Orvane;

// ------------------------------------------------------------------------------------------------- removal

TEST_F(EventDispatcherTest, removingByReceiverDropsItsAgentsOnlyDelayedOnesToo)
{
    Receiver other;
    block();
    post("dropped");
    postDelayed("dropped later", 1);
    (OV_NEW Take(&other, &Receiver::take, "kept"))->send(&thread);
    EXPECT_EQ(thread.getPendingCount(), 3U);
    thread.removeAgentsByReceiver(&receiver);
    EXPECT_EQ(thread.getPendingCount(), 1U);
    gate.open();
    drain();
    EXPECT_TRUE(receiver.taken().empty());
    EXPECT_EQ(other.taken(), Texts{"kept"});
}

TEST_F(EventDispatcherTest, removingKeepsTheOrderOfTheRest)
{
    Receiver other;
    block();
    for (int index = 0; index < 6; ++index)
        (OV_NEW Take(index % 2 == 0 ? &receiver : &other, &Receiver::take, std::to_string(index)))
            ->send(&thread);
    thread.removeAgentsByReceiver(&other);
    gate.open();
    drain();
    EXPECT_EQ(receiver.taken(), (Texts{"0", "2", "4"}));
}

TEST_F(EventDispatcherTest, aDroppedSynchronousAgentReleasesItsSenderWithTheDefaultResult)
{
    block();
    int answer = -1;
    std::thread sender(
        [&] {
            answer = (OV_NEW SyncRetEventAgent0<Receiver, int>(&receiver, &Receiver::answer))->send(&thread);
        });
    ASSERT_TRUE(eventually([&] { return thread.getPendingCount() == 1; }));
    thread.removeAgentsByReceiver(&receiver);
    sender.join();
    EXPECT_EQ(answer, 0);
}

TEST_F(EventDispatcherTest, removingOneSynchronousAgentReleasesItsSender)
{
    block();
    const SmartPtr<EventAgent> agent(
        OV_NEW SyncEventAgent1<Receiver, std::string>(&receiver, &Receiver::take, "never"));
    std::thread sender([&] { thread.sendAndWait(agent.get()); });
    ASSERT_TRUE(eventually([&] { return thread.getPendingCount() == 1; }));
    EXPECT_TRUE(thread.removeAgent(agent.get()));
    sender.join();
    EXPECT_TRUE(receiver.taken().empty());
}

TEST_F(EventDispatcherTest, removingDoesNotStopOrAwaitTheCallUnderWay)
{
    block();
    thread.removeAgentsByReceiver(&blocker); // its call waits for the gate, which is still closed
    gate.open();
    post("afterwards");
    drain();
    EXPECT_EQ(receiver.taken(), Texts{"afterwards"});
}

TEST_F(EventDispatcherTest, aCallMayRemoveWhatIsQueuedBehindIt)
{
    struct Remover
    {
        void run() { thread->removeAgentsByReceiver(receiver); }
        Receiver* receiver;
        EventThread* thread;
    } remover{&receiver, &thread};
    block();
    (OV_NEW MemberCall<AsyncEventAgent, Remover, void>(&remover, &Remover::run))->send(&thread);
    post("never");
    gate.open();
    drain();
    EXPECT_TRUE(receiver.taken().empty());
}

TEST_F(EventDispatcherTest, oneAgentCanBeRemovedWhileItWaits)
{
    block();
    const SmartPtr<EventAgent> first(OV_NEW Take(&receiver, &Receiver::take, "first"));
    const SmartPtr<EventAgent> second(OV_NEW Take(&receiver, &Receiver::take, "second"));
    thread.post(first.get());
    thread.postDelayed(second.get(), 3600000);
    EXPECT_TRUE(thread.removeAgent(second.get()));
    EXPECT_FALSE(thread.removeAgent(second.get()));
    gate.open();
    drain();
    EXPECT_FALSE(thread.removeAgent(first.get()));
    EXPECT_EQ(receiver.taken(), Texts{"first"});
}

// ---------------------------------------------------------------------------------------------------- stop

TEST_F(EventDispatcherTest, stoppingDropsWhatIsQueuedAndReleasesSenders)
{
    block();
    post("queued");
    postDelayed("delayed", 1);
    int answer = -1;
    std::thread sender(
        [&] {
            answer = (OV_NEW SyncRetEventAgent0<Receiver, int>(&receiver, &Receiver::answer))->send(&thread);
        });
    ASSERT_TRUE(eventually([&] { return thread.getPendingCount() == 3; }));
    std::thread stopper([&] { thread.stop(); });
    // Posts are refused as soon as the stop is requested.
    ASSERT_TRUE(eventually(
        [&]
        {
            const std::size_t before = thread.getPendingCount();
            post("probe");
            return thread.getPendingCount() == before;
        }));
    gate.open();
    stopper.join();
    sender.join();
    EXPECT_EQ(answer, 0);
    EXPECT_EQ(thread.getPendingCount(), 0U);
    EXPECT_TRUE(receiver.taken().empty());
}

TEST_F(EventDispatcherTest, stoppingDoesNotWaitForDelayedAgents)
{
    postDelayed("much later", 3600000);
    drain();
    thread.stop();
    EXPECT_EQ(thread.getPendingCount(), 0U);
    EXPECT_TRUE(receiver.taken().empty());
}

TEST_F(EventDispatcherTest, whatIsSentToAStoppedThreadIsReleasedUndelivered)
{
    thread.stop();
    post("never");
    postDelayed("never", 1);
    EXPECT_EQ((OV_NEW SyncRetEventAgent0<Receiver, int>(&receiver, &Receiver::answer))->send(&thread), 0);
    EXPECT_EQ(thread.getPendingCount(), 0U);
    EXPECT_TRUE(receiver.taken().empty());
}

// --------------------------------------------------------------------------------------------- destruction

namespace
{

// Counts by an argument whether an agent still exists: the agent keeps the argument until it is destroyed.
class DestructionProbe
{
public:
    using Token = std::shared_ptr<int>;
    void take(Token) {}
};

} // namespace

TEST_F(EventDispatcherTest, anAgentIsDestroyedExactlyOnceHoweverItEnds)
{
    DestructionProbe probe;
    using Agent = AsyncEventAgent1<DestructionProbe, DestructionProbe::Token>;
    const auto token = std::make_shared<int>(0);
    (OV_NEW Agent(&probe, &DestructionProbe::take, token))->send(&thread); // delivered
    drain();
    EXPECT_EQ(token.use_count(), 1);
    block();
    (OV_NEW Agent(&probe, &DestructionProbe::take, token))->send(&thread);
    EXPECT_EQ(token.use_count(), 2);
    thread.removeAgentsByReceiver(&probe); // removed
    EXPECT_EQ(token.use_count(), 1);
    (OV_NEW Agent(&probe, &DestructionProbe::take, token))->send(&thread);
    gate.open();
    thread.stop(); // delivered, or dropped with the thread
    EXPECT_EQ(token.use_count(), 1);
    (OV_NEW Agent(&probe, &DestructionProbe::take, token))->send(&thread); // refused
    EXPECT_EQ(token.use_count(), 1);
}

namespace
{

// An argument whose destruction calls the dispatcher.
class CallsBack
{
public:
    CallsBack(IEventDispatcher& dispatcher, std::atomic<int>& calls)
        : mDispatcher(&dispatcher), mCalls(&calls)
    {
    }
    CallsBack(const CallsBack&) = default;
    CallsBack& operator=(const CallsBack&) = delete;
    ~CallsBack()
    {
        mDispatcher->getPendingCount();
        mDispatcher->removeAgentsByReceiver(this);
        ++*mCalls;
    }

private:
    IEventDispatcher* mDispatcher;
    std::atomic<int>* mCalls;
};

struct CallsBackTaker
{
    void take(CallsBack) {}
};

using CallsBackAgent = AsyncEventAgent1<CallsBackTaker, CallsBack>;

} // namespace

TEST_F(EventDispatcherTest, anAgentThatIsRemovedMayCallTheDispatcherInItsDestruction)
{
    CallsBackTaker taker;
    std::atomic<int> calls{0};
    block();
    (OV_NEW CallsBackAgent(&taker, &CallsBackTaker::take, CallsBack(thread, calls)))->send(&thread);
    thread.postDelayed(OV_NEW CallsBackAgent(&taker, &CallsBackTaker::take, CallsBack(thread, calls)), 1);
    calls = 0;
    thread.removeAgentsByReceiver(&taker);
    EXPECT_EQ(calls, 2);
}

TEST_F(EventDispatcherTest, anAgentThatIsRefusedMayCallTheDispatcherInItsDestruction)
{
    CallsBackTaker taker;
    thread.stop();
    for (const bool delayed : {false, true})
    {
        std::atomic<int> calls{0};
        auto* agent = OV_NEW CallsBackAgent(&taker, &CallsBackTaker::take, CallsBack(thread, calls));
        calls = 0;
        if (delayed)
            thread.postDelayed(agent, 1);
        else
            thread.post(agent);
        EXPECT_EQ(calls, 1);
    }
}

TEST_F(EventDispatcherTest, aThreadsDestructorDropsWhatIsQueuedExactlyOnce)
{
    const auto token = std::make_shared<int>(0);
    DestructionProbe probe;
    using Agent = AsyncEventAgent1<DestructionProbe, DestructionProbe::Token>;
    {
        EventThread shortLived("short-lived", 0);
        shortLived.postDelayed(OV_NEW Agent(&probe, &DestructionProbe::take, token), 3600000);
        EXPECT_EQ(token.use_count(), 2);
    }
    EXPECT_EQ(token.use_count(), 1);
}

TEST_F(EventDispatcherTest, sendersAndAStopAtOnceLeaveNobodyWaitingAndNothingAlive)
{
    for (int round = 0; round < 20; ++round)
    {
        const auto token = std::make_shared<int>(0);
        DestructionProbe probe;
        using Agent = AsyncEventAgent1<DestructionProbe, DestructionProbe::Token>;
        EventThread victim("victim", 0);
        std::vector<std::thread> senders;
        for (int sender = 0; sender < 3; ++sender)
            senders.emplace_back(
                [&]
                {
                    for (int count = 0; count < 100; ++count)
                    {
                        (OV_NEW Agent(&probe, &DestructionProbe::take, token))->send(&victim);
                        victim.postDelayed(OV_NEW Agent(&probe, &DestructionProbe::take, token), 1);
                        auto* asking = OV_NEW SyncRetEventAgent0<Receiver, int>(&receiver, &Receiver::answer);
                        const int answer = asking->send(&victim);
                        EXPECT_TRUE(answer == 42 || answer == 0) << answer;
                    }
                });
        victim.stop();
        for (std::thread& sender : senders)
            sender.join();
        EXPECT_EQ(victim.getPendingCount(), 0U);
        EXPECT_EQ(token.use_count(), 1);
    }
}

TEST_F(EventDispatcherTest, manySendersAndRemovalsAtOnceLoseAndLeakNothing)
{
    const auto token = std::make_shared<int>(0);
    DestructionProbe probe;
    using Agent = AsyncEventAgent1<DestructionProbe, DestructionProbe::Token>;
    std::vector<std::thread> senders;
    for (int sender = 0; sender < 4; ++sender)
        senders.emplace_back(
            [&]
            {
                for (int count = 0; count < 500; ++count)
                {
                    (OV_NEW Agent(&probe, &DestructionProbe::take, token))->send(&thread);
                    if (count % 50 == 0)
                        thread.removeAgentsByReceiver(&probe);
                    if (count % 100 == 0)
                    {
                        auto* asking = OV_NEW SyncRetEventAgent0<Receiver, int>(&receiver, &Receiver::answer);
                        EXPECT_EQ(asking->send(&thread), 42);
                    }
                }
            });
    for (std::thread& sender : senders)
        sender.join();
    drain();
    EXPECT_EQ(token.use_count(), 1);
}
