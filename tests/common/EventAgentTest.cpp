#include <gtest/gtest.h>

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

// The order of virtual operations is part of the binary interface: new ones go to the end.

TEST(VirtualTable, ofRefCountAndEventAgent)
{
    EXPECT_EQ(virtualSlot(&RefCount::onRefCountZero), 0);
    EXPECT_EQ(virtualSlot(&EventAgent::onRefCountZero), 0);
    EXPECT_EQ(virtualSlot(&EventAgent::deliver), 3); // 1 and 2 are the destructor's
    EXPECT_EQ(virtualSlot(&EventAgent::getDeliveryTarget), 4);
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
