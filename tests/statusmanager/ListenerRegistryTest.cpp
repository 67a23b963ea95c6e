#include <algorithm>
#include <set>

#include "common/Calls.h"
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
    // The other listener shows which thread is which.
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

TEST_F(ListenerRegistry, unregisteringAnUnknownListenerPurgesNothing)
{
    const std::vector<Orvane::EventThread*> dispatchers{&thread, &otherThread, &manager.mThread};
    manager.registerListener(&other, &otherThread);
    manager.sync(0);
    IStatusUpdateListener* const unknown = &listener;
    constexpr uint32_t later = 3600000;
    for (Orvane::EventThread* dispatcher : dispatchers)
        postCallDelayed(OV_SITE, *dispatcher, later, unknown, &IStatusUpdateListener::onEventUpdate, "e",
                        "v");
    manager.unregisterListener(unknown);
    for (Orvane::EventThread* dispatcher : dispatchers)
        EXPECT_EQ(dispatcher->getPendingCount(), 1U) << dispatcher->getName();
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

namespace
{

// Listeners that record the order of their calls. All share one dispatcher, so this is the order in which the
// manager sent the calls.
class Ordered : public IStatusUpdateListener
{
public:
    void onStatusUpdate(StatusMap updates) override
    {
        if (!updates.empty()) // an empty update answers the subscription
            order->push_back(this);
    }
    void onEventUpdate(std::string, std::string) override { order->push_back(this); }

    std::vector<Ordered*>* order = nullptr;
};

class InOrder : public ListenerRegistry
{
protected:
    InOrder()
    {
        for (const std::size_t index : {3U, 0U, 4U, 1U, 2U})
        {
            listeners[index].order = &order;
            manager.registerListener(&listeners[index], &thread);
            manager.registerForStatus(&listeners[index], "k");
            manager.registerForEvent(&listeners[index], "e");
        }
        settle();
    }

    void expectAscendingAddresses()
    {
        settle();
        EXPECT_EQ(order.size(), listeners.size());
        EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    }

    std::vector<Ordered*> order;
    std::vector<Ordered> listeners = std::vector<Ordered>(5);
};

} // namespace

TEST_F(InOrder, ofTheirAddressesListenersAreToldOfEvents)
{
    manager.postEvent("e", "v", 0);
    expectAscendingAddresses();
}

TEST_F(InOrder, ofTheirAddressesListenersAreToldOfStatusValues)
{
    manager.postStatus("k", "v");
    expectAscendingAddresses();
}

// ------------------------------------------------------------------------------------- lists of many keys

namespace
{

// Lists with more keys than the manager searches one by one.
class ManyKeys : public ListenerRegistry
{
protected:
    ManyKeys() { registerBoth(); }

    static std::string key(int number) { return "key" + std::to_string(number); }

    static StatusKeys keys(int first, int end)
    {
        StatusKeys all;
        for (int number = first; number < end; ++number)
            all.push_back(key(number));
        return all;
    }

    // Changes the first fifty keys. Returns the keys that the listener receives.
    std::set<std::string> told()
    {
        settle();
        const std::size_t before = listener.updates().size();
        StatusMap all;
        ++mRound;
        for (const std::string& each : keys(0, 50))
            all[each] = std::to_string(mRound);
        manager.postStatus(all);
        settle();
        std::set<std::string> names;
        const std::vector<StatusMap> updates = listener.updates();
        EXPECT_LE(updates.size(), before + 1);
        for (std::size_t index = before; index < updates.size(); ++index)
        {
            for (const auto& [name, value] : updates[index])
                names.insert(name);
        }
        return names;
    }

    // The same for events.
    std::set<std::string> toldOfEvents()
    {
        const std::size_t before = listener.events().size();
        for (const std::string& each : keys(0, 50))
            manager.postEvent(each, "v", 0);
        settle();
        std::set<std::string> names;
        const auto events = listener.events();
        for (std::size_t index = before; index < events.size(); ++index)
            EXPECT_TRUE(names.insert(events[index].first).second) << "twice: " << events[index].first;
        return names;
    }

    static std::set<std::string> setOf(const StatusKeys& keys) { return {keys.begin(), keys.end()}; }

private:
    int mRound = 0;
};

} // namespace

TEST_F(ManyKeys, thatAreSubscribedAreToldAndNoOthers)
{
    manager.registerForStatus(&listener, keys(0, 20));
    EXPECT_EQ(told(), setOf(keys(0, 20)));
    manager.registerForStatus(&listener, keys(20, 30)); // after the first keys have been looked up
    EXPECT_EQ(told(), setOf(keys(0, 30)));
}

TEST_F(ManyKeys, areToldNoMoreWhenTheyAreTakenBack)
{
    manager.registerForStatus(&listener, keys(0, 20));
    told();
    manager.unregisterForStatus(&listener, StatusKeys{key(0), key(7), key(19), key(40)});
    std::set<std::string> left = setOf(keys(0, 20));
    for (const int number : {0, 7, 19})
        left.erase(key(number));
    EXPECT_EQ(told(), left);
}

TEST_F(ManyKeys, mayBecomeFewAndManyAgain)
{
    for (int round = 0; round < 3; ++round)
    {
        manager.registerForStatus(&listener, keys(0, 20));
        EXPECT_EQ(told(), setOf(keys(0, 20)));
        manager.unregisterForStatus(&listener, keys(5, 20));
        EXPECT_EQ(told(), setOf(keys(0, 5)));
        manager.registerForStatus(&listener, keys(30, 45));
        std::set<std::string> both = setOf(keys(0, 5));
        both.merge(setOf(keys(30, 45)));
        EXPECT_EQ(told(), both);
        manager.unregisterForStatus(&listener, keys(0, 50));
        EXPECT_EQ(told(), setOf({}));
    }
}

TEST_F(ManyKeys, areRefusedASecondTime)
{
    manager.registerForStatus(&listener, keys(0, 20));
    manager.registerForStatus(&listener, keys(0, 21));
    settle();
    EXPECT_EQ(log.count(6, "Listener already registered for status"), 20U);
    manager.registerForEvent(&listener, keys(0, 20));
    manager.registerForEvent(&listener, keys(0, 21));
    settle();
    EXPECT_EQ(log.count(6, "Listener already registered for event"), 20U);
}

TEST_F(ManyKeys, ofOneListenerAreNotThoseOfAnother)
{
    manager.registerForStatus(&listener, keys(0, 20));
    manager.registerForStatus(&other, keys(20, 40));
    EXPECT_EQ(told(), setOf(keys(0, 20)));
    EXPECT_EQ(other.updates().back().size(), 20U);
}

TEST_F(ManyKeys, ofEventsAreNotThoseOfValues)
{
    manager.registerForStatus(&listener, keys(0, 20));
    manager.registerForEvent(&listener, keys(20, 40));
    manager.unregisterForEvent(&listener, StatusKeys{key(20), key(39)});
    EXPECT_EQ(told(), setOf(keys(0, 20)));
    EXPECT_EQ(toldOfEvents(), setOf(keys(21, 39)));
}

// The next record may get the address of the last.
TEST_F(ManyKeys, areForgottenWithTheirListener)
{
    for (int round = 0; round < 5; ++round)
    {
        manager.registerForStatus(&listener, keys(round, round + 20));
        manager.registerForEvent(&listener, keys(round, round + 20));
        EXPECT_EQ(told(), setOf(keys(round, round + 20)));
        EXPECT_EQ(toldOfEvents(), setOf(keys(round, round + 20)));
        manager.unregisterListener(&listener);
        manager.registerListener(&listener, &thread);
        EXPECT_EQ(told(), setOf({}));
    }
}

TEST_F(ManyKeys, areForgottenWithAllListeners)
{
    for (int round = 0; round < 5; ++round)
    {
        manager.registerForStatus(&listener, keys(round, round + 20));
        EXPECT_EQ(told(), setOf(keys(round, round + 20)));
        manager.clearInfo();
        manager.registerListener(&listener, &thread);
    }
}
