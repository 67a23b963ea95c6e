// Derived managers are compiled with a listener's record: its fields, their order and their types.

#include <cstddef>
#include <gtest/gtest.h>
#include <type_traits>

#include "common/Calls.h"
#include "statusmanager/StatusManager.h"
#include "tests/support/RecordingListener.h"

namespace
{

using Record = ClientListenerInfo;

static_assert(std::is_same_v<decltype(Record::listener), IStatusUpdateListener*>);
static_assert(std::is_same_v<decltype(Record::dispatcher), Orvane::EventDispatcher*>);
static_assert(std::is_same_v<decltype(Record::statusKeys), StatusKeys>);
static_assert(std::is_same_v<decltype(Record::eventKeys), EventKeys>);
static_assert(offsetof(Record, listener) == 0);
static_assert(offsetof(Record, dispatcher) == sizeof(void*));
static_assert(offsetof(Record, statusKeys) == 2 * sizeof(void*));
static_assert(offsetof(Record, eventKeys) == 2 * sizeof(void*) + sizeof(StatusKeys));
static_assert(sizeof(Record) == 2 * sizeof(void*) + 2 * sizeof(StatusKeys)); // nothing else
static_assert(std::is_aggregate_v<Record> && !std::is_polymorphic_v<Record>);

// A derived manager that reads the registry, as classes outside this library may.
class ReadingManager : public StatusManager
{
public:
    ~ReadingManager() override { clearInfo(); }

    static_assert(std::is_same_v<decltype(mListeners), std::map<IStatusUpdateListener*, Record*>>);

    Record recordOf(IStatusUpdateListener* listener)
    {
        return Orvane::callAndWait(OV_SITE, mThread, this, &ReadingManager::read, listener);
    }

    void unregisterForAll(IStatusUpdateListener* listener)
    {
        Orvane::callAndWait(OV_SITE, mThread, this, &ReadingManager::unregister, listener);
    }

private:
    void unregister(IStatusUpdateListener* listener)
    {
        const Record* const record = mListeners.at(listener);
        unregisterForStatus(listener, record->statusKeys);
        unregisterForEvent(listener, record->eventKeys);
    }

    Record read(IStatusUpdateListener* listener)
    {
        const auto found = mListeners.find(listener);
        return found == mListeners.end() ? Record{} : *found->second;
    }
};

class ListenerRecord : public testing::Test
{
protected:
    RecordingListener listener;
    Orvane::EventThread thread{"listener", 0};
    ReadingManager manager;
};

} // namespace

TEST_F(ListenerRecord, holdsTheListenerAndItsDispatcherAndAtFirstNoKeys)
{
    manager.registerListener(&listener, &thread);
    const Record record = manager.recordOf(&listener);
    EXPECT_EQ(record.listener, &listener);
    EXPECT_EQ(record.dispatcher, &thread);
    EXPECT_EQ(record.statusKeys, StatusKeys{});
    EXPECT_EQ(record.eventKeys, EventKeys{});
}

TEST_F(ListenerRecord, givesTheKeysThatAreUnregistered)
{
    manager.registerListener(&listener, &thread);
    for (const unsigned count : {3U, 50U})
    {
        StatusKeys keys;
        for (unsigned number = 0; number < count; ++number)
            keys.push_back("a key of some length, " + std::to_string(number));
        manager.registerForStatus(&listener, keys);
        manager.registerForEvent(&listener, keys);
        EXPECT_EQ(manager.recordOf(&listener).statusKeys, keys);
        EXPECT_EQ(manager.recordOf(&listener).eventKeys, keys);
        manager.unregisterForAll(&listener);
        EXPECT_EQ(manager.recordOf(&listener).statusKeys, StatusKeys{});
        EXPECT_EQ(manager.recordOf(&listener).eventKeys, EventKeys{});
    }
}

TEST_F(ListenerRecord, keepsANullDispatcher)
{
    manager.registerListener(&listener, nullptr);
    EXPECT_EQ(manager.recordOf(&listener).listener, &listener);
    EXPECT_EQ(manager.recordOf(&listener).dispatcher, nullptr);
}

TEST_F(ListenerRecord, holdsTheKeysInTheOrderOfSubscriptionAndNoneTwice)
{
    manager.registerListener(&listener, &thread);
    manager.registerForStatus(&listener, StatusKeys{"b", "a", "b"});
    manager.registerForStatus(&listener, "0");
    manager.registerForEvent(&listener, EventKeys{"z", "y", "z"});
    EXPECT_EQ(manager.recordOf(&listener).statusKeys, (StatusKeys{"b", "a", "0"}));
    EXPECT_EQ(manager.recordOf(&listener).eventKeys, (EventKeys{"z", "y"}));
}

TEST_F(ListenerRecord, keepsTheOrderOfTheKeysThatStay)
{
    manager.registerListener(&listener, &thread);
    StatusKeys expected;
    for (int number = 19; number >= 0; --number)
    {
        manager.registerForStatus(&listener, "k" + std::to_string(number));
        if (number % 3 != 0)
            expected.push_back("k" + std::to_string(number));
    }
    for (int number = 0; number < 20; number += 3)
        manager.unregisterForStatus(&listener, "k" + std::to_string(number));
    EXPECT_EQ(manager.recordOf(&listener).statusKeys, expected);
}

TEST_F(ListenerRecord, isGoneWithItsListener)
{
    manager.registerListener(&listener, &thread);
    manager.registerForStatus(&listener, "k");
    manager.unregisterListener(&listener);
    EXPECT_EQ(manager.recordOf(&listener).listener, nullptr);
    manager.registerListener(&listener, &thread);
    EXPECT_EQ(manager.recordOf(&listener).statusKeys, StatusKeys{});
}
