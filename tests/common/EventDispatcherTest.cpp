#include <atomic>
#include <cstdint>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/Calls.h"
#include "common/EventThread.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Wait.h"

using namespace Orvane;

namespace
{

// Notes what is delivered to it; can hold its dispatcher's thread at a gate.
class Receiver
{
public:
    void take(std::string text)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mTaken.push_back(std::move(text));
    }

    void hold(Gate* reached, Gate* end)
    {
        reached->open();
        end->wait();
    }

    void nothing() {}
    int answer() { return 42; }
    void fail() { throw std::runtime_error("broken call"); }
    void failStrangely() { throw 5; }
    int failToAnswer() { throw std::runtime_error("no answer"); }

    std::vector<std::string> taken()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mTaken;
    }

private:
    std::mutex mMutex;
    std::vector<std::string> mTaken;
};

using Take = AsyncEventAgent1<Receiver, std::string>;
using Texts = std::vector<std::string>;

class EventDispatcherTest : public testing::Test
{
protected:
    ~EventDispatcherTest() override
    {
        gate.open();
        thread.stop();
    }

    void post(const std::string& text) { (OV_NEW Take(&receiver, &Receiver::take, text))->send(&thread); }

    void postDelayed(const std::string& text, uint32_t delayMs)
    {
        thread.postDelayed(OV_NEW Take(&receiver, &Receiver::take, text), delayMs);
    }

    // Occupies the thread until the gate opens.
    void block()
    {
        Gate reached;
        (OV_NEW AsyncEventAgent2<Receiver, Gate*, Gate*>(&blocker, &Receiver::hold, &reached, &gate))
            ->send(&thread);
        reached.wait();
    }

    // Returns when all that was queued before has been delivered.
    void drain() { (OV_NEW SyncEventAgent0<Receiver>(&blocker, &Receiver::nothing))->send(&thread); }

    Receiver receiver;
    Receiver blocker;
    Gate gate;
    EventThread thread{"dispatcher", 0};
};

} // namespace

TEST_F(EventDispatcherTest, agentsAreDeliveredInTheOrderPosted)
{
    Texts expected;
    for (int index = 0; index < 1000; ++index)
    {
        post(std::to_string(index));
        expected.push_back(std::to_string(index));
    }
    drain();
    EXPECT_EQ(receiver.taken(), expected);
}

TEST_F(EventDispatcherTest, deliveryIsOnTheDispatchersThreadOnly)
{
    struct Place
    {
        void run() { current = dispatcher->isThreadCurrent(); }
        EventThread* dispatcher;
        bool current;
    } place{&thread, false};
    EXPECT_FALSE(thread.isThreadCurrent());
    (OV_NEW SyncEventAgent0<Place>(&place, &Place::run))->send(&thread);
    EXPECT_TRUE(place.current);
}

TEST_F(EventDispatcherTest, aDelayedAgentComesWhenDueAndNotSooner)
{
    const auto start = std::chrono::steady_clock::now();
    postDelayed("late", 50);
    EXPECT_TRUE(eventually([&] { return receiver.taken() == Texts{"late"}; }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
}

TEST_F(EventDispatcherTest, delayedAgentsComeInTheOrderInWhichTheyAreDue)
{
    block();
    postDelayed("third", 30);
    postDelayed("first", 10);
    postDelayed("second", 20);
    gate.open();
    EXPECT_TRUE(eventually([&] { return receiver.taken().size() == 3; }));
    EXPECT_EQ(receiver.taken(), (Texts{"first", "second", "third"}));
}

TEST_F(EventDispatcherTest, agentsDueTogetherKeepTheirPostingOrder)
{
    block();
    Texts expected;
    for (int index = 0; index < 100; ++index)
    {
        postDelayed(std::to_string(index), 0);
        expected.push_back(std::to_string(index));
    }
    gate.open();
    EXPECT_TRUE(eventually([&] { return receiver.taken().size() == 100; }));
    EXPECT_EQ(receiver.taken(), expected);
}

TEST_F(EventDispatcherTest, aDueAgentJoinsBehindWhatIsQueued)
{
    block();
    postDelayed("delayed", 20);
    post("queued");
    const auto due = std::chrono::steady_clock::now() + std::chrono::milliseconds(25);
    eventually([&] { return std::chrono::steady_clock::now() > due; });
    post("after it was due");
    gate.open();
    EXPECT_TRUE(eventually([&] { return receiver.taken().size() == 3; }));
    EXPECT_EQ(receiver.taken(), (Texts{"queued", "delayed", "after it was due"}));
}

TEST_F(EventDispatcherTest, aLongDelayHoldsNothingUp)
{
    postDelayed("much later", 3600000);
    post("now");
    drain();
    EXPECT_EQ(receiver.taken(), Texts{"now"});
    EXPECT_EQ(thread.getPendingCount(), 1U);
}

TEST_F(EventDispatcherTest, anAgentDueEarlierWakesTheThreadThatWaitsForALaterOne)
{
    postDelayed("much later", 3600000);
    drain(); // from here on the thread waits for the hour to pass
    postDelayed("soon", 1);
    EXPECT_TRUE(eventually([&] { return receiver.taken() == Texts{"soon"}; }));
}

TEST_F(EventDispatcherTest, theLongestDelayIsNotMistakenForAShortOne)
{
    postDelayed("in seven weeks", UINT32_MAX);
    postDelayed("soon", 1);
    EXPECT_TRUE(eventually([&] { return receiver.taken() == Texts{"soon"}; }));
    EXPECT_EQ(thread.getPendingCount(), 1U);
}

TEST_F(EventDispatcherTest, aDelayOfZeroKeepsItsPlaceAmongPosts)
{
    block();
    post("first");
    postDelayed("second", 0);
    post("third");
    gate.open();
    drain();
    EXPECT_EQ(receiver.taken(), (Texts{"first", "second", "third"}));
}

TEST_F(EventDispatcherTest, whatIsBeingDeliveredDoesNotCountAsPending)
{
    block();
    EXPECT_EQ(thread.getPendingCount(), 0U);
    post("queued");
    postDelayed("delayed", 3600000);
    EXPECT_EQ(thread.getPendingCount(), 2U);
}

TEST_F(EventDispatcherTest, theNameIsACopy)
{
    std::string name(100, 'n');
    EventThread named(name.c_str(), 0);
    name.assign(100, 'x');
    EXPECT_EQ(named.getName(), std::string(100, 'n'));
}

TEST_F(EventDispatcherTest, theThreadOfOneDispatcherIsNotThatOfAnother)
{
    struct Place
    {
        void run() { current = other->isThreadCurrent(); }
        EventThread* other;
        bool current;
    };
    EventThread other("other", 0);
    Place place{&thread, true};
    (OV_NEW SyncEventAgent0<Place>(&place, &Place::run))->send(&other);
    EXPECT_FALSE(place.current);
}

TEST_F(EventDispatcherTest, oneDispatchersCallMayWaitForAnothers)
{
    struct Asking
    {
        int ask()
        {
            return (OV_NEW SyncRetEventAgent0<Receiver, int>(receiver, &Receiver::answer))->send(thread);
        }
        Receiver* receiver;
        EventThread* thread;
    } asking{&receiver, &thread};
    EventThread other("other", 0);
    EXPECT_EQ((OV_NEW SyncRetEventAgent0<Asking, int>(&asking, &Asking::ask))->send(&other), 42);
}

TEST_F(EventDispatcherTest, aSynchronousSendComesBehindWhatIsQueued)
{
    block();
    post("posted before");
    std::thread sender(
        [&]
        {
            (OV_NEW SyncEventAgent1<Receiver, std::string>(&receiver, &Receiver::take, "waited for"))
                ->send(&thread);
        });
    ASSERT_TRUE(eventually([&] { return thread.getPendingCount() == 2; }));
    post("posted after");
    gate.open();
    sender.join();
    drain();
    EXPECT_EQ(receiver.taken(), (Texts{"posted before", "waited for", "posted after"}));
}

TEST_F(EventDispatcherTest, aSynchronousSendReturnsTheResult)
{
    auto* agent = OV_NEW SyncRetEventAgent0<Receiver, int>(&receiver, &Receiver::answer);
    EXPECT_EQ(agent->send(&thread), 42);
}

TEST_F(EventDispatcherTest, aSynchronousSendOnTheOwnThreadReturnsAtOnceWhileOthersAreQueued)
{
    struct Nested
    {
        void run()
        {
            (OV_NEW Take(receiver, &Receiver::take, "queued"))->send(thread);
            answer = (OV_NEW SyncRetEventAgent0<Receiver, int>(receiver, &Receiver::answer))->send(thread);
            (OV_NEW SyncEventAgent1<Receiver, std::string>(receiver, &Receiver::take, "in place"))
                ->send(thread);
            SmartPtr<EventAgent> direct(OV_NEW Take(receiver, &Receiver::take, "sendAndWait in place"));
            thread->sendAndWait(direct.get());
        }
        Receiver* receiver;
        EventThread* thread;
        int answer;
    } nested{&receiver, &thread, 0};
    (OV_NEW SyncEventAgent0<Nested>(&nested, &Nested::run))->send(&thread);
    drain();
    EXPECT_EQ(nested.answer, 42);
    EXPECT_EQ(receiver.taken(), (Texts{"in place", "sendAndWait in place", "queued"}));
}

namespace
{

// A dispatcher without a thread of its own: its loop runs inside a call of another dispatcher.
class InnerLoop : public EventDispatcher
{
public:
    InnerLoop() : EventDispatcher("inner") {}

    void runInside(EventDispatcher* outer)
    {
        postCall(OV_SITE, *this, this, &InnerLoop::lookAndEnd, outer);
        run();
        isOuterCurrentAfterwards = outer->isThreadCurrent();
        isInnerCurrentAfterwards = isThreadCurrent();
    }

    bool isOuterCurrentInside = true;
    bool isInnerCurrentInside = false;
    bool isOuterCurrentAfterwards = false;
    bool isInnerCurrentAfterwards = true;

private:
    void lookAndEnd(EventDispatcher* outer)
    {
        isOuterCurrentInside = outer->isThreadCurrent();
        isInnerCurrentInside = isThreadCurrent();
        requestStop();
    }
};

} // namespace

TEST_F(EventDispatcherTest, aLoopInsideACallGivesTheThreadBackToTheOuterDispatcher)
{
    InnerLoop inner;
    callAndWait(OV_SITE, thread, &inner, &InnerLoop::runInside, static_cast<EventDispatcher*>(&thread));
    EXPECT_TRUE(inner.isInnerCurrentInside);
    EXPECT_FALSE(inner.isOuterCurrentInside);
    EXPECT_FALSE(inner.isInnerCurrentAfterwards);
    EXPECT_TRUE(inner.isOuterCurrentAfterwards);
}

// ---------------------------------------------------------------------------------------------- exceptions

TEST_F(EventDispatcherTest, anExceptionOfAnAsynchronousCallIsLoggedAndTheThreadGoesOn)
{
    const LogCapture log;
    (OV_NEW MemberCall<AsyncEventAgent, Receiver, void>(&receiver, &Receiver::fail))->send(&thread);
    (OV_NEW MemberCall<AsyncEventAgent, Receiver, void>(&receiver, &Receiver::failStrangely))->send(&thread);
    post("next");
    drain();
    EXPECT_EQ(receiver.taken(), Texts{"next"});
    EXPECT_EQ(log.texts(), (Texts{"Exception left a call on dispatcher [dispatcher]: broken call",
                                  "Exception of unknown type left a call on dispatcher [dispatcher]"}));
    EXPECT_EQ(log.lines().front().level, 0);
}

TEST_F(EventDispatcherTest, anExceptionOfASynchronousCallReachesTheSender)
{
    const LogCapture log;
    auto* plain = OV_NEW SyncEventAgent0<Receiver>(&receiver, &Receiver::fail);
    EXPECT_THROW(plain->send(&thread), std::runtime_error);
    auto* answering = OV_NEW SyncRetEventAgent0<Receiver, int>(&receiver, &Receiver::failToAnswer);
    EXPECT_THROW(answering->send(&thread), std::runtime_error);
    drain();
    EXPECT_TRUE(log.lines().empty());
}

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
    // The stop has been asked for once posts are refused.
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

// Counts how often an agent is destroyed, through an argument that it keeps.
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

// An argument that calls the dispatcher when the agent that keeps it goes away.
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
