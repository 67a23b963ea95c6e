#include "tests/statusmanager/ListenerFixture.h"

using Events = ListenerFixture;

using Received = std::vector<RecordingListener::Event>;

TEST_F(Events, theDelayHasNoEffectOnTheLocalManager)
{
    registerBoth();
    manager.registerForEvent(&listener, "e");
    manager.postEvent("e", "v", 5000);
    settle(); // takes much less than the delay
    EXPECT_EQ(listener.events(), (Received{{"e", "v"}}));
}

TEST_F(Events, aListenerGetsEachEventOnceHoweverItSubscribed)
{
    registerBoth();
    manager.registerForEvent(&listener, "e");
    manager.registerForEvent(&listener, EventKeys{"e", "f", "e"});
    manager.postEvent("e", "1", 0);
    manager.postEvent("f", "2", 0);
    manager.postEvent("e", "1", 0);
    settle();
    EXPECT_EQ(listener.events(), (Received{{"e", "1"}, {"f", "2"}, {"e", "1"}}));
}

TEST_F(Events, namesAreComparedExactly)
{
    registerBoth();
    manager.registerForEvent(&listener, "EVENT");
    manager.postEvent("event", "v", 0);
    manager.postEvent("EVENT ", "v", 0);
    manager.postEvent("EVEN", "v", 0);
    settle();
    EXPECT_TRUE(listener.events().empty());
}

TEST_F(Events, aListenerWithoutDispatcherReceivesNothing)
{
    manager.registerListener(&listener, nullptr);
    manager.registerForEvent(&listener, "e");
    manager.postEvent("e", "v", 0);
    settle();
    EXPECT_TRUE(listener.events().empty());
}

TEST_F(Events, anEventWithoutSubscriberLeavesNoTrace)
{
    registerBoth();
    manager.sync(0);
    log.clear();
    manager.postEvent("e", "v", 0);
    manager.sync(0);
    EXPECT_EQ(thread.getPendingCount() + otherThread.getPendingCount(), 0U);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Events, eventsAreNotReplayed)
{
    registerBoth();
    manager.postEvent("e", "v", 0);
    manager.registerForEvent(&listener, "e");
    settle();
    EXPECT_TRUE(listener.events().empty());
}

TEST_F(Events, eachListenerIsCalledOnItsOwnDispatcher)
{
    registerBoth();
    manager.registerForEvent(&listener, "e");
    manager.registerForEvent(&other, "e");
    manager.postEvent("e", "v", 0);
    settle();
    EXPECT_EQ(listener.events().size(), 1U);
    EXPECT_EQ(other.events().size(), 1U);
    EXPECT_NE(listener.lastThread(), other.lastThread());
}

TEST_F(Events, unsubscribingEndsThem)
{
    registerBoth();
    manager.registerForEvent(&listener, EventKeys{"e", "f"});
    manager.unregisterForEvent(&listener, "e");
    manager.postEvent("e", "1", 0);
    manager.postEvent("f", "2", 0);
    settle();
    EXPECT_EQ(listener.events(), (Received{{"f", "2"}}));
}

TEST_F(Events, anEventHandedInOnAnyThreadIsDelivered)
{
    registerBoth();
    manager.registerForEvent(&listener, "e");
    manager.handleEventUpdate("e", "v");
    settle();
    EXPECT_EQ(listener.events(), (Received{{"e", "v"}}));
}
