#include <algorithm>

#include "tests/statusmanager/ListenerFixture.h"

namespace
{

const std::string cannotRegisterStatus =
    "Cannot register for status value, listener not registered with Status Manager";
const std::string cannotUnregisterStatus =
    "Cannot unregister for status value, listener not registered with Status Manager";
const std::string cannotRegisterEvent =
    "Cannot register for event, listener not registered with Status Manager";
const std::string cannotUnregisterEvent =
    "Cannot unregister for event, listener not registered with Status Manager";

std::string withPointer(const char* text, const void* pointer)
{
    char line[64];
    snprintf(line, sizeof(line), "%s %p", text, pointer);
    return line;
}

} // namespace

using ListenerRegistry = ListenerFixture;

TEST_F(ListenerRegistry, registeringTwiceKeepsTheFirstDispatcherAndIsLogged)
{
    manager.registerListener(&listener, &thread);
    manager.registerListener(&listener, &otherThread);
    manager.registerForEvent(&listener, "e");
    manager.postEvent("e", "v", 0);
    ASSERT_TRUE(listener.waitForEvents(1));
    // The other listener tells which thread is which.
    manager.registerListener(&other, &thread);
    manager.registerForStatus(&other, "any");
    ASSERT_TRUE(other.waitForUpdates(1));
    EXPECT_EQ(listener.lastThread(), other.lastThread());
    EXPECT_EQ(log.count(7, withPointer("Adding listener", &listener)), 2U);
    EXPECT_EQ(log.count(6, "Listener already registered with StatusManager"), 1U);
}

TEST_F(ListenerRegistry, aSubscriptionIsAnsweredByOneCallbackWithTheCurrentValues)
{
    manager.postStatus(StatusMap{{"a", "1"}, {"b", ""}, {"z", "9"}});
    registerBoth();
    manager.registerForStatus(&listener, StatusKeys{"b", "a", "unknown"});
    settle();
    EXPECT_EQ(listener.updates(), (std::vector<StatusMap>{{{"a", "1"}, {"b", ""}}}));
}

TEST_F(ListenerRegistry, everySubscriptionYieldsOneCallbackEvenAnEmptyOne)
{
    registerBoth();
    manager.registerForStatus(&listener, StatusKeys{"a", "b"});
    manager.registerForStatus(&listener, StatusKeys{"a", "b"});
    manager.registerForStatus(&listener, StatusKeys());
    settle();
    EXPECT_EQ(listener.updates(), std::vector<StatusMap>(3));
    EXPECT_EQ(log.count(6, "Listener already registered for status"), 2U);
}

TEST_F(ListenerRegistry, onlyNewKeysAreInTheCallbackOfALaterSubscription)
{
    manager.postStatus(StatusMap{{"a", "1"}, {"b", "2"}});
    registerBoth();
    manager.registerForStatus(&listener, "a");
    manager.registerForStatus(&listener, StatusKeys{"a", "b"});
    settle();
    EXPECT_EQ(listener.updates().back(), (StatusMap{{"b", "2"}}));
}

TEST_F(ListenerRegistry, aKeyGivenTwiceIsSubscribedOnceAndLoggedOnce)
{
    registerBoth();
    manager.registerForStatus(&listener, StatusKeys{"a", "b", "a"});
    manager.postStatus(StatusMap{{"a", "1"}, {"b", "2"}});
    settle();
    EXPECT_EQ(listener.updates().back(), (StatusMap{{"a", "1"}, {"b", "2"}}));
    EXPECT_EQ(log.count(6, "Listener already registered for status"), 1U);
    manager.unregisterForStatus(&listener, "a");
    manager.postStatus(StatusMap{{"a", "3"}, {"b", "4"}});
    settle();
    EXPECT_EQ(listener.updates().back(), (StatusMap{{"b", "4"}}));
}

TEST_F(ListenerRegistry, unsubscribingIsSilentAndInEffectWhenTheCallReturns)
{
    registerBoth();
    manager.registerForStatus(&listener, StatusKeys{"a", "b"});
    settle();
    log.clear();
    manager.unregisterForStatus(&listener, StatusKeys{"a", "never subscribed"});
    manager.unregisterForEvent(&listener, StatusKeys{"never subscribed"});
    manager.postStatus("a", "1");
    settle();
    EXPECT_EQ(listener.updates().size(), 1U);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(ListenerRegistry, anUnknownListenerIsRefusedWithALineEach)
{
    manager.registerForStatus(&listener, "a");
    manager.unregisterForStatus(&listener, "a");
    manager.registerForEvent(&listener, "e");
    manager.unregisterForEvent(&listener, "e");
    manager.sync(0);
    EXPECT_EQ(log.texts(), (std::vector<std::string>{cannotRegisterStatus, cannotUnregisterStatus,
                                                     cannotRegisterEvent, cannotUnregisterEvent}));
    for (const LogLine& line : log.lines())
        EXPECT_EQ(line.level, 2);
    settle();
    EXPECT_TRUE(listener.updates().empty());
}

TEST_F(ListenerRegistry, anEventSubscribedTwiceIsLogged)
{
    registerBoth();
    manager.registerForEvent(&listener, EventKeys{"e", "e"});
    manager.registerForEvent(&listener, "e");
    manager.sync(0);
    EXPECT_EQ(log.count(6, "Listener already registered for event"), 2U);
}

TEST_F(ListenerRegistry, unregisteringDropsCallbacksThatWaitOnTheListenersDispatcher)
{
    registerBoth();
    manager.registerForStatus(&listener, "a");
    settle();
    Gate gate;
    Gate occupied;
    struct Blocker
    {
        void run(Gate* reached, Gate* end)
        {
            reached->open();
            end->wait();
        }
    } blocker;
    (OV_NEW Orvane::AsyncEventAgent2<Blocker, Gate*, Gate*>(&blocker, &Blocker::run, &occupied, &gate))
        ->send(&thread);
    occupied.wait();
    manager.postStatus("a", "1");
    manager.sync(0);
    EXPECT_EQ(thread.getPendingCount(), 1U);
    manager.unregisterListener(&listener);
    EXPECT_EQ(thread.getPendingCount(), 0U);
    gate.open();
    settle();
    EXPECT_EQ(listener.updates().size(), 1U);
}

TEST_F(ListenerRegistry, anUnregisteredListenerMustRegisterAnew)
{
    registerBoth();
    manager.registerForStatus(&listener, "a");
    manager.unregisterListener(&listener);
    EXPECT_EQ(log.count(7, withPointer("Removing listener", &listener)), 1U);
    manager.registerForStatus(&listener, "a");
    manager.registerForEvent(&listener, "e");
    manager.sync(0);
    EXPECT_TRUE(log.has(2, cannotRegisterStatus));
    EXPECT_TRUE(log.has(2, cannotRegisterEvent));

    manager.registerListener(&listener, &thread); // starts without subscriptions
    settle();
    const std::size_t before = listener.updates().size();
    manager.postStatus("a", "1");
    settle();
    EXPECT_EQ(listener.updates().size(), before);
}

TEST_F(ListenerRegistry, unregisteringOnTheManagersThreadIsRefused)
{
    registerBoth();
    manager.registerForEvent(&listener, "e");
    manager.onThread([&] { manager.unregisterListener(&listener); });
    EXPECT_EQ(log.count(1, "StatusManager should never be calling unregisterListener from its own thread"),
              1U);
    manager.postEvent("e", "v", 0);
    EXPECT_TRUE(listener.waitForEvents(1));
}

TEST_F(ListenerRegistry, theHelperOffTheManagersThreadIsRefused)
{
    registerBoth();
    EXPECT_EQ(manager.unregisterListenerHelper(&listener), nullptr);
    EXPECT_EQ(log.count(1, "unregisterListenerHelper should only be called from StatusManager's thread"), 1U);
}

TEST_F(ListenerRegistry, unregisteringAnUnknownListenerIsLoggedAndHarmless)
{
    manager.unregisterListener(&listener);
    EXPECT_EQ(log.texts(), (std::vector<std::string>{withPointer("Removing listener", &listener),
                                                     "Listener not registered with StatusManager"}));
    EXPECT_EQ(log.lines().back().level, 6);
}

TEST_F(ListenerRegistry, aNullListenerIsAKeyLikeAnyOther)
{
    manager.registerListener(nullptr, nullptr);
    manager.registerListener(nullptr, nullptr);
    manager.sync(0);
    EXPECT_EQ(log.count(6, "Listener already registered with StatusManager"), 1U);
    manager.unregisterListener(nullptr);
    EXPECT_FALSE(log.has(6, "Listener not registered with StatusManager"));
}

TEST_F(ListenerRegistry, listenersAreServedInTheOrderOfTheirAddresses)
{
    // All on one dispatcher, so that the order in which they were sent is the order in which they are called.
    struct Ordered : public IStatusUpdateListener
    {
        void onStatusUpdate(StatusMap) override {}
        void onEventUpdate(std::string, std::string) override { order->push_back(this); }
        std::vector<Ordered*>* order = nullptr;
    };
    std::vector<Ordered*> order;
    std::vector<Ordered> listeners(5);
    for (const std::size_t index : {3U, 0U, 4U, 1U, 2U})
    {
        listeners[index].order = &order;
        manager.registerListener(&listeners[index], &thread);
        manager.registerForEvent(&listeners[index], "e");
    }
    manager.postEvent("e", "v", 0);
    settle();
    EXPECT_EQ(order.size(), 5U);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}
