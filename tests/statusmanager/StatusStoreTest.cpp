#include <functional>
#include <new>
#include <utility>

#include "tests/statusmanager/ListenerFixture.h"

class StatusStore : public ListenerFixture
{
protected:
    std::size_t updatesAfterFirst()
    {
        settle();
        return listener.updates().size() - 1; // without the answer to the subscription
    }
};

TEST_F(StatusStore, aPostedValueIsStored)
{
    manager.postStatus("a", "1");
    EXPECT_EQ(manager.getClientInfoValue("a"), "1");
    EXPECT_EQ(manager.getClientInfo(), (StatusMap{{"a", "1"}}));
}

TEST_F(StatusStore, anAbsentKeyHasTheEmptyValueAndIsNotCreated)
{
    EXPECT_EQ(manager.getClientInfoValue("absent"), "");
    EXPECT_TRUE(manager.getClientInfo().empty());
}

TEST_F(StatusStore, postingTheSameValueTwiceNotifiesOnce)
{
    registerBoth();
    manager.registerForStatus(&listener, "a");
    manager.postStatus("a", "1");
    manager.postStatus("a", "1");
    EXPECT_EQ(updatesAfterFirst(), 1U);
    manager.postStatus("a", "2");
    EXPECT_EQ(updatesAfterFirst(), 2U);
    EXPECT_EQ(listener.updates().back(), (StatusMap{{"a", "2"}}));
}

TEST_F(StatusStore, keysWithoutSubscriberAreStoredAndSendNothing)
{
    registerBoth();
    manager.registerForStatus(&listener, "a");
    manager.postStatus(StatusMap{{"x", "1"}, {"y", "2"}});
    EXPECT_EQ(updatesAfterFirst(), 0U);
    EXPECT_EQ(manager.getClientInfo(), (StatusMap{{"x", "1"}, {"y", "2"}}));
}

TEST_F(StatusStore, aListenerGetsOnlyItsKeysInOneCallback)
{
    registerBoth();
    manager.registerForStatus(&listener, StatusKeys{"a", "c"});
    manager.registerForStatus(&other, "b");
    manager.postStatus(StatusMap{{"a", "1"}, {"b", "2"}, {"c", "3"}});
    EXPECT_EQ(updatesAfterFirst(), 1U);
    EXPECT_EQ(listener.updates().back(), (StatusMap{{"a", "1"}, {"c", "3"}}));
    EXPECT_EQ(other.updates().back(), (StatusMap{{"b", "2"}}));
}

TEST_F(StatusStore, onlyTheChangedKeysOfAPostAreReported)
{
    registerBoth();
    manager.registerForStatus(&listener, StatusKeys{"a", "b"});
    manager.postStatus(StatusMap{{"a", "1"}, {"b", "2"}});
    manager.postStatus(StatusMap{{"a", "1"}, {"b", "3"}});
    settle();
    EXPECT_EQ(listener.updates().back(), (StatusMap{{"b", "3"}}));
}

TEST_F(StatusStore, aResetOfANeverPostedKeyStoresAndReportsTheEmptyValueOnce)
{
    registerBoth();
    manager.registerForStatus(&listener, "a");
    manager.resetStatus("a");
    EXPECT_EQ(updatesAfterFirst(), 1U);
    EXPECT_EQ(listener.updates().back(), (StatusMap{{"a", ""}}));
    manager.resetStatus("a");
    EXPECT_EQ(updatesAfterFirst(), 1U);
    EXPECT_EQ(manager.getClientInfo(), (StatusMap{{"a", ""}}));
}

TEST_F(StatusStore, aResetListIsReportedInOneCallback)
{
    registerBoth();
    manager.registerForStatus(&listener, StatusKeys{"a", "b"});
    manager.postStatus(StatusMap{{"a", "1"}, {"b", "2"}});
    manager.resetStatus(StatusKeys{"b", "a", "b"});
    EXPECT_EQ(updatesAfterFirst(), 2U);
    EXPECT_EQ(listener.updates().back(), (StatusMap{{"a", ""}, {"b", ""}}));
}

TEST_F(StatusStore, postingTheEmptyStringIsTheSameAsAReset)
{
    registerBoth();
    manager.registerForStatus(&listener, "a");
    manager.postStatus("a", "");
    manager.postStatus("a", "");
    manager.resetStatus("a");
    EXPECT_EQ(updatesAfterFirst(), 1U);
}

TEST_F(StatusStore, valuesOfSeveralKeysLeaveAbsentOnesOut)
{
    manager.postStatus(StatusMap{{"a", "1"}, {"b", "2"}});
    EXPECT_EQ(manager.getClientInfoValues({"b", "absent", "b"}), (StatusMap{{"b", "2"}}));
    EXPECT_TRUE(manager.getClientInfoValues({}).empty());
}

TEST_F(StatusStore, handedInUpdatesReachListenersWithoutBeingStored)
{
    registerBoth();
    manager.registerForStatus(&listener, "a");
    manager.handleStatusUpdate({{"a", "from outside"}, {"b", "not subscribed"}});
    manager.handleStatusUpdate({{"a", "from outside"}}); // passed on even if nothing changed
    EXPECT_EQ(updatesAfterFirst(), 2U);
    EXPECT_EQ(listener.updates().back(), (StatusMap{{"a", "from outside"}}));
    EXPECT_TRUE(manager.getClientInfo().empty());
}

TEST_F(StatusStore, clearInfoForgetsValuesAndListeners)
{
    registerBoth();
    manager.postStatus("a", "1");
    manager.clearInfo();
    EXPECT_TRUE(manager.getClientInfo().empty());
    manager.registerForStatus(&listener, "a");
    manager.sync(0);
    EXPECT_TRUE(log.has(2, "Cannot register for status value, listener not registered with Status Manager"));
}

TEST_F(StatusStore, clearInfoLeavesTimersCountersAndQueuedCallbacksAlone)
{
    registerBoth();
    manager.getCounterValue("c");
    manager.getTimerElapsed("t");
    manager.registerForStatus(&listener, "a");
    manager.clearInfo();
    settle();
    EXPECT_EQ(listener.updates().size(), 1U);
    manager.onThread(
        [&]
        {
            EXPECT_EQ(manager.mCounters.size(), 1U);
            EXPECT_EQ(manager.mTimers.size(), 1U);
        });
}

TEST_F(StatusStore, aListenerWithoutDispatcherReceivesNothing)
{
    manager.registerListener(&listener, nullptr);
    manager.registerForStatus(&listener, "a");
    manager.postStatus("a", "1");
    settle();
    EXPECT_TRUE(listener.updates().empty());
}

TEST_F(StatusStore, aListenerOnTheManagersOwnDispatcherIsCalledThere)
{
    std::thread::id managersThread;
    manager.onThread([&] { managersThread = std::this_thread::get_id(); });
    manager.registerListener(&listener, &manager.mThread);
    manager.registerForStatus(&listener, "a");
    ASSERT_TRUE(listener.waitForUpdates(1));
    EXPECT_EQ(listener.lastThread(), managersThread);
}

// ---------------------------------------------------------------------------- dispatchers that call in place

namespace
{

// Delivers inside post(), on the manager's thread.
class InPlace : public Orvane::EventDispatcher
{
public:
    InPlace() : EventDispatcher("in place") {}

    void post(Orvane::EventAgent* agent) override
    {
        const Orvane::SmartPtr<Orvane::EventAgent> hold(agent);
        agent->deliver();
    }
};

// Has no memory for any agent while isExhausted is set.
class Exhausted : public InPlace
{
public:
    void post(Orvane::EventAgent* agent) override
    {
        if (!isExhausted)
            return InPlace::post(agent);
        const Orvane::SmartPtr<Orvane::EventAgent> hold(agent);
        throw std::bad_alloc();
    }

    bool isExhausted = false; // used by the manager's thread
};

class OnUpdate : public IStatusUpdateListener
{
public:
    explicit OnUpdate(std::function<void(StatusMap)> call) : mCall(std::move(call)) {}
    void onStatusUpdate(StatusMap updates) override { mCall(std::move(updates)); }
    void onEventUpdate(std::string, std::string) override {}

private:
    std::function<void(StatusMap)> mCall;
};

// Two listeners that are called in place, in the order of their addresses.
class InPlaceCallbacks : public StatusStore
{
protected:
    ~InPlaceCallbacks() override { manager.clearInfo(); }

    void registerInPlace(IStatusUpdateListener& each, Orvane::EventDispatcher& dispatcher)
    {
        manager.registerListener(&each, &dispatcher);
        manager.registerForStatus(&each, StatusKeys{"a", "b"});
        manager.sync(0); // returns after the first callback
    }

    // Makes the post while memory may run out. Returns whether it did.
    bool runsOut(const StatusMap& values)
    {
        bool ranOut = false;
        manager.onThread(
            [&]
            {
                try
                {
                    manager.postStatus(values);
                }
                catch (const std::bad_alloc&)
                {
                    ranOut = true;
                }
            });
        return ranOut;
    }

    std::function<void(StatusMap)> whatFirstDoes = [](const StatusMap&) {};
    OnUpdate first{[this](StatusMap updates) { whatFirstDoes(std::move(updates)); }}; // in the order of their
    RecordingListener second;                                                         // addresses
    InPlace inPlace;
    Exhausted exhausted;
};

} // namespace

TEST_F(InPlaceCallbacks, findTheNewValuesStored)
{
    registerInPlace(first, inPlace);
    StatusMap found;
    whatFirstDoes = [&](const StatusMap&) { found = manager.getClientInfo(); };
    manager.postStatus(StatusMap{{"a", "1"}, {"b", "2"}});
    manager.sync(0);
    EXPECT_EQ(found, (StatusMap{{"a", "1"}, {"b", "2"}}));
    manager.resetStatus("b");
    manager.sync(0);
    EXPECT_EQ(found, (StatusMap{{"a", "1"}, {"b", ""}}));
}

TEST_F(InPlaceCallbacks, mayPostAnewAndTheLaterValueStays)
{
    registerInPlace(first, inPlace);
    whatFirstDoes = [&](const StatusMap& updates)
    {
        if (updates.count("a") != 0 && updates.at("a") == "outer")
            manager.postStatus("a", "inner");
    };
    manager.postStatus(StatusMap{{"a", "outer"}, {"b", "outer"}});
    EXPECT_EQ(manager.getClientInfo(), (StatusMap{{"a", "inner"}, {"b", "outer"}}));
}

TEST_F(InPlaceCallbacks, whereOneHasNoMemoryTheOldValuesComeBackAndARepeatedPostTellsAll)
{
    registerInPlace(first, inPlace);
    registerInPlace(second, exhausted);
    manager.postStatus("a", "old");
    manager.sync(0);
    std::vector<StatusMap> toldToFirst;
    whatFirstDoes = [&](StatusMap updates) { toldToFirst.push_back(std::move(updates)); };
    const StatusMap changes{{"a", "new"}, {"b", "new"}};
    exhausted.isExhausted = true;
    EXPECT_TRUE(runsOut(changes));
    EXPECT_EQ(manager.getClientInfo(), (StatusMap{{"a", "old"}}));
    exhausted.isExhausted = false;
    EXPECT_FALSE(runsOut(changes));
    EXPECT_EQ(manager.getClientInfo(), changes);
    EXPECT_EQ(toldToFirst, (std::vector<StatusMap>{changes, changes}));
    EXPECT_EQ(second.updates().back(), changes);
}

TEST_F(InPlaceCallbacks, whereOneHasNoMemoryWhatAnotherHasPostedMeanwhileStays)
{
    registerInPlace(first, inPlace);
    registerInPlace(second, exhausted);
    whatFirstDoes = [&](const StatusMap& updates)
    {
        if (updates.count("a") == 0 || updates.at("a") != "outer")
            return;
        manager.postStatus("a", "inner");
        exhausted.isExhausted = true;
    };
    EXPECT_TRUE(runsOut({{"a", "outer"}, {"b", "outer"}}));
    EXPECT_EQ(manager.getClientInfo(), (StatusMap{{"a", "inner"}}));
    EXPECT_EQ(second.updates().back(), (StatusMap{{"a", "inner"}}));
}
