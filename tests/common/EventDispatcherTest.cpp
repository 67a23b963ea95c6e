// The delivery of agents: their order, their delays, and their exceptions.

#include <atomic>
#include <thread>

#include "tests/common/EventDispatcherFixture.h"
#include "tests/support/LogCapture.h"

using namespace Orvane;

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
    drain(); // afterwards the thread waits for the hour to pass
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

// A dispatcher without its own thread: its loop runs inside a call of another dispatcher.
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
