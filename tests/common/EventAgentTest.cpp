#include <cstdint>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/EventAgent.h"
#include "common/EventThread.h"
#include "tests/support/VirtualSlot.h"

using namespace Orvane;

namespace
{

struct Receiver
{
    virtual ~Receiver() = default;
    virtual std::string who() { return "base"; }
    void keep(std::string text, const std::string& reference)
    {
        text += " changed"; // the agent's own copy must not change with it
        kept.push_back(text);
        address = &reference;
    }
    void three(std::string a, int b, std::string c) { kept.push_back(a + std::to_string(b) + c); }
    std::string copy(const std::string& text) { return text; }

    std::vector<std::string> kept;
    const std::string* address = nullptr;
};

struct Derived : public Receiver
{
    std::string who() override { return "derived"; }
};

} // namespace

TEST(EventAgentTest, reachesTheMostDerivedOverride)
{
    Derived receiver;
    EventThread thread("thread", 0);
    auto* agent = OV_NEW SyncRetEventAgent0<Receiver, std::string>(&receiver, &Receiver::who);
    EXPECT_EQ(agent->send(&thread), "derived");
}

TEST(EventAgentTest, keepsCopiesOfValuesAndPassesReferencesOn)
{
    Receiver receiver;
    std::string text = "value";
    const std::string referred = "reference";
    SyncEventAgent2<Receiver, std::string, const std::string&> agent(&receiver, &Receiver::keep, text,
                                                                     referred);
    text = "changed by the sender";
    agent.deliver();
    agent.deliver();
    EXPECT_EQ(receiver.kept, (std::vector<std::string>{"value changed", "value changed"}));
    EXPECT_EQ(receiver.address, &referred);
}

TEST(EventAgentTest, argumentsMayDieRightAfterAnAsynchronousSend)
{
    Receiver receiver;
    EventThread thread("thread", 0);
    {
        const std::string a(100, 'a');
        (OV_NEW AsyncEventAgent3<Receiver, std::string, int, std::string>(&receiver, &Receiver::three, a, 5,
                                                                          "c"))
            ->send(&thread);
    }
    (OV_NEW SyncEventAgent2<Receiver, std::string, const std::string&>(&receiver, &Receiver::keep, "", ""))
        ->send(&thread);
    thread.stop();
    EXPECT_EQ(receiver.kept.front(), std::string(100, 'a') + "5c");
}

TEST(EventAgentTest, theResultIsACopyThatOutlivesTheAgent)
{
    Receiver receiver;
    EventThread thread("thread", 0);
    const std::string text(100, 'r');
    const std::string result = (OV_NEW SyncRetEventAgent1<Receiver, std::string, const std::string&>(
                                    &receiver, &Receiver::copy, text))
                                   ->send(&thread);
    thread.stop();
    EXPECT_EQ(result, text);
}

TEST(EventAgentTest, tellsItsReceiver)
{
    Receiver receiver;
    SyncRetEventAgent0<Receiver, std::string> agent(&receiver, &Receiver::who);
    EXPECT_EQ(agent.getDeliveryTarget(), &receiver);
}

TEST(EventAgentTest, carriesTheEventCodeOfAgents)
{
    struct Inspected : public SyncRetEventAgent0<Receiver, std::string>
    {
        using SyncRetEventAgent0<Receiver, std::string>::MemberCall;
        using Event::mEventCode;
        using Event::mUserData;
        using RefCount::mRefCount;
    };
    Receiver receiver;
    const Inspected agent(&receiver, &Receiver::who);
    EXPECT_EQ(agent.mEventCode, -5);
    EXPECT_EQ(agent.mUserData, nullptr);
    EXPECT_EQ(agent.mRefCount, 0U);
}

TEST(EventAgentTest, theFieldsOfAnEventFollowTheCountInOrder)
{
    struct Inspected : public Event
    {
        Inspected() : Event(1) {}
        using Event::mEventCode;
        using Event::mUserData;
        using RefCount::mRefCount;
    };
    const Inspected event;
    EXPECT_LT(reinterpret_cast<std::uintptr_t>(&event.mRefCount),
              reinterpret_cast<std::uintptr_t>(&event.mEventCode));
    EXPECT_LT(reinterpret_cast<std::uintptr_t>(&event.mEventCode),
              reinterpret_cast<std::uintptr_t>(&event.mUserData));
}

// ----------------------------------------------------------------------------- what a send asks a dispatcher

namespace
{

// Records the calls to it. It delivers agents that are waited for, and drops posted agents.
class NotingDispatcher : public IEventDispatcher
{
public:
    explicit NotingDispatcher(bool current) : mCurrent(current) {}

    void sendAndWait(EventAgent* agent) override
    {
        calls.emplace_back("sendAndWait");
        agent->deliver();
    }
    void post(EventAgent* agent) override
    {
        calls.emplace_back("post");
        const SmartPtr<EventAgent> dropped(agent);
    }
    void postDelayed(EventAgent*, uint32_t) override { calls.emplace_back("postDelayed"); }
    void removeAgentsByReceiver(void*) override { calls.emplace_back("removeAgentsByReceiver"); }
    bool removeAgent(EventAgent*) override { return false; }
    std::size_t getPendingCount() override { return 0; }
    const char* getName() override { return ""; }
    bool isThreadCurrent() override
    {
        calls.emplace_back("isThreadCurrent");
        return mCurrent;
    }

    std::vector<std::string> calls;

private:
    bool mCurrent;
};

// An agent's reference count during delivery, and the thread that destroyed it.
struct Life
{
    uint32_t countAtDelivery = 0;
    int deletions = 0;
    std::thread::id place;
};

template <class Base>
class WatchedAgent : public Base
{
public:
    template <class... Arguments>
    explicit WatchedAgent(Life& life, Arguments... arguments) : Base(arguments...), mLife(life)
    {
    }
    ~WatchedAgent() override
    {
        ++mLife.deletions;
        mLife.place = std::this_thread::get_id();
    }
    void deliver() override
    {
        mLife.countAtDelivery = this->mRefCount;
        Base::deliver();
    }

private:
    Life& mLife;
};

struct Worker
{
    void work() { place = std::this_thread::get_id(); }
    void take(int) { place = std::this_thread::get_id(); }
    int answer() { return 42; }
    void fail() { throw std::runtime_error("broken call"); }
    std::thread::id place;
};

using WatchedAsync = WatchedAgent<AsyncEventAgent1<Worker, int>>;
using WatchedSync = WatchedAgent<SyncEventAgent0<Worker>>;
using WatchedAsking = WatchedAgent<SyncRetEventAgent0<Worker, int>>;
using Calls = std::vector<std::string>;

} // namespace

TEST(SendTest, anAsynchronousSendPostsWithoutDelivering)
{
    Worker worker;
    Life life;
    NotingDispatcher dispatcher(true);
    (OV_NEW WatchedAsync(life, &worker, &Worker::take, 1))->send(&dispatcher);
    EXPECT_EQ(dispatcher.calls, Calls{"post"});
    EXPECT_EQ(worker.place, std::thread::id());
    EXPECT_EQ(life.deletions, 1);
}

TEST(SendTest, aSynchronousSendFromAnotherThreadWaitsInTheDispatcher)
{
    Worker worker;
    Life plain;
    NotingDispatcher dispatcher(false);
    (OV_NEW WatchedSync(plain, &worker, &Worker::work))->send(&dispatcher);
    EXPECT_EQ(dispatcher.calls, (Calls{"isThreadCurrent", "sendAndWait"}));
    EXPECT_EQ(plain.countAtDelivery, 1U); // the sender's
    EXPECT_EQ(plain.deletions, 1);

    Life asking;
    EXPECT_EQ((OV_NEW WatchedAsking(asking, &worker, &Worker::answer))->send(&dispatcher), 42);
    EXPECT_EQ(dispatcher.calls, (Calls{"isThreadCurrent", "sendAndWait", "isThreadCurrent", "sendAndWait"}));
    EXPECT_EQ(asking.countAtDelivery, 1U);
    EXPECT_EQ(asking.deletions, 1);
}

TEST(SendTest, aSynchronousSendOnTheDispatchersThreadAsksNothingMoreOfIt)
{
    Worker worker;
    Life plain;
    NotingDispatcher dispatcher(true);
    (OV_NEW WatchedSync(plain, &worker, &Worker::work))->send(&dispatcher);
    EXPECT_EQ(dispatcher.calls, Calls{"isThreadCurrent"});
    EXPECT_EQ(plain.countAtDelivery, 1U);
    EXPECT_EQ(plain.deletions, 1);

    Life asking;
    EXPECT_EQ((OV_NEW WatchedAsking(asking, &worker, &Worker::answer))->send(&dispatcher), 42);
    EXPECT_EQ(dispatcher.calls, (Calls{"isThreadCurrent", "isThreadCurrent"}));
    EXPECT_EQ(asking.deletions, 1);
}

TEST(SendTest, anAgentWhoseCallThrowsInPlaceIsDestroyedAndTheSenderGetsTheException)
{
    Worker worker;
    Life life;
    NotingDispatcher dispatcher(true);
    auto* agent = OV_NEW WatchedSync(life, &worker, &Worker::fail);
    EXPECT_THROW(agent->send(&dispatcher), std::runtime_error);
    EXPECT_EQ(life.deletions, 1);
}

TEST(SendTest, anAgentWhoseCallThrowsOnTheDispatchersThreadIsDestroyedByTheSender)
{
    Worker worker;
    Life life;
    EventThread thread("thread", 0);
    auto* agent = OV_NEW WatchedSync(life, &worker, &Worker::fail);
    EXPECT_THROW(agent->send(&thread), std::runtime_error);
    EXPECT_EQ(life.deletions, 1);
    EXPECT_EQ(life.place, std::this_thread::get_id());
}

TEST(SendTest, theWaitingSenderIsTheLastHolderOfItsAgent)
{
    Worker worker;
    EventThread thread("thread", 0);
    for (int round = 0; round < 200; ++round)
    {
        Life life;
        EXPECT_EQ((OV_NEW WatchedAsking(life, &worker, &Worker::answer))->send(&thread), 42);
        EXPECT_EQ(life.countAtDelivery, 2U); // the sender's and the queue's
        EXPECT_EQ(life.deletions, 1);
        EXPECT_EQ(life.place, std::this_thread::get_id());
    }
}

TEST(SendTest, anAsynchronousAgentIsDestroyedOnTheDispatchersThread)
{
    Worker worker;
    Life life;
    EventThread thread("thread", 0);
    (OV_NEW WatchedAsync(life, &worker, &Worker::take, 1))->send(&thread);
    (OV_NEW SyncEventAgent0<Worker>(&worker, &Worker::work))->send(&thread);
    EXPECT_EQ(life.countAtDelivery, 1U); // the queue's
    EXPECT_EQ(life.deletions, 1);
    EXPECT_EQ(life.place, worker.place);
    EXPECT_NE(life.place, std::this_thread::get_id());
}

TEST(SendTest, anAgentThatItsMakerStillHoldsOutlivesItsDelivery)
{
    Worker worker;
    Life life;
    EventThread thread("thread", 0);
    SmartPtr<AsyncEventAgent> held(OV_NEW WatchedAsync(life, &worker, &Worker::take, 1));
    held->send(&thread);
    thread.stop();
    EXPECT_EQ(life.deletions, 0);
    held = SmartPtr<AsyncEventAgent>();
    EXPECT_EQ(life.deletions, 1);
}

// ------------------------------------------------------------------------------------------ virtual tables

// The order of virtual operations belongs to the binary interface: new operations go to the end.

TEST(VirtualTable, ofRefCountAndEventAgent)
{
    EXPECT_EQ(virtualSlot(&RefCount::onRefCountZero), 0);
    EXPECT_EQ(virtualSlot(&EventAgent::onRefCountZero), 0);
    EXPECT_EQ(virtualSlot(&EventAgent::deliver), 3); // 1 and 2 are the destructor's
    EXPECT_EQ(virtualSlot(&EventAgent::getDeliveryTarget), 4);
}

namespace
{

// The first virtual function that a derived class adds: it follows all functions of the base.
template <class Base>
class Extended : public Base
{
public:
    virtual void added() = 0;
};

} // namespace

TEST(VirtualTable, theKindsOfEventAndAgentAddNothing)
{
    EXPECT_EQ(virtualSlot(&Extended<RefCount>::added), 3); // after the hook and the destructor
    EXPECT_EQ(virtualSlot(&Extended<Event>::added), 3);
    EXPECT_EQ(virtualSlot(&Extended<EventAgent>::added), 5);
    EXPECT_EQ(virtualSlot(&Extended<AsyncEventAgent>::added), 5);
    EXPECT_EQ(virtualSlot(&Extended<SyncEventAgent>::added), 5);
    EXPECT_EQ(virtualSlot(&Extended<SyncRetEventAgent<int>>::added), 5);
}

TEST(VirtualTable, theDispatcherInterfaceEndsWithItsDestructor)
{
    EXPECT_EQ(virtualSlot(&Extended<IEventDispatcher>::added), 10); // 8 and 9 are the destructor's
}

TEST(VirtualTable, aMemberThatIsNotVirtualHasNoSlot)
{
    EXPECT_EQ(virtualSlot(&RefCount::AddRef), -1);
    EXPECT_EQ(virtualSlot(&RefCount::Release), -1);
}

TEST(VirtualTable, ofTheDispatcherInterface)
{
    EXPECT_EQ(virtualSlot(&IEventDispatcher::sendAndWait), 0);
    EXPECT_EQ(virtualSlot(&IEventDispatcher::post), 1);
    EXPECT_EQ(virtualSlot(&IEventDispatcher::postDelayed), 2);
    EXPECT_EQ(virtualSlot(&IEventDispatcher::removeAgentsByReceiver), 3);
    EXPECT_EQ(virtualSlot(&IEventDispatcher::removeAgent), 4);
    EXPECT_EQ(virtualSlot(&IEventDispatcher::getPendingCount), 5);
    EXPECT_EQ(virtualSlot(&IEventDispatcher::getName), 6);
    EXPECT_EQ(virtualSlot(&IEventDispatcher::isThreadCurrent), 7);
}
