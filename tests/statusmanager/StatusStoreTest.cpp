#include "tests/statusmanager/ListenerFixture.h"

class StatusStore : public ListenerFixture
{
protected:
    std::size_t updatesAfterFirst()
    {
        settle();
        return listener.updates().size() - 1; // without the one that answers the subscription
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
    manager.handleStatusUpdate({{"a", "from outside"}}); // not compared with anything
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
