// The functions of status.h when memory runs out.

#include <gtest/gtest.h>
#include <ostream>
#include <string>

#include "statusmanager/helpers/FakeStatusManager.h"
#include "tests/c/Opened.h"
#include "tests/memory/FailingMemory.h"
#include "tests/memory/LongNames.h"

using FailingMemory::failEach;
using FailingMemory::Failure;
using FailingMemory::Spared;

namespace
{

const std::string keyText = name("key");
const std::string valueText = name("value");
const char* const key = keyText.c_str();
const char* const value = valueText.c_str();

// An open status of a fake device.
class World
{
public:
    World() { EXPECT_EQ(status_open(patienceMs, &status), STATUS_OK); }

    ~World()
    {
        status_close(status);
        settle();
        device.clearInfo(); // frees the record of a listener that may still be registered
    }

    // Returns when everything queued is done.
    void settle()
    {
        const Spared spared;
        device.sync(0);
    }

    // Takes all items. Returns the result of status_next() that ended it, and the kinds of the items.
    int takeAll(std::string& kinds)
    {
        const Spared spared;
        status_item_t* item = nullptr;
        int result = status_next(status, &item);
        for (; result == 1; result = status_next(status, &item))
        {
            kinds += std::to_string(item->kind);
            status_free(item);
        }
        return result;
    }

    class Device : public status::FakeStatusManager
    {
    public:
        ~Device() override { mThread.stop(); }
        using FakeStatusManager::clearInfo;
    };

    Device device;
    status_t* status = nullptr;
};

struct Operation
{
    const char* name;
    int (*call)(status_t*);
};

void PrintTo(const Operation& operation, std::ostream* stream)
{
    *stream << operation.name;
}

std::string nameOf(const testing::TestParamInfo<Operation>& tested)
{
    return tested.param.name;
}

bool isLossReport(int result)
{
    return result == STATUS_ELOST || result == STATUS_ENOMEM;
}

template <class Block>
int released(int result, Block* block)
{
    status_free(block);
    return result;
}

const Operation operations[]{
    {"open",
     [](status_t*)
     {
         status_t* status = nullptr;
         const int result = status_open(patienceMs, &status);
         if (result == STATUS_OK)
             status_close(status);
         return result;
     }},
    {"post", [](status_t* status) { return status_post(status, key, value); }},
    {"postMany",
     [](status_t* status)
     {
         const status_pair_t pairs[]{{key, value}, {value, key}};
         return status_post_many(status, pairs, 2);
     }},
    {"reset", [](status_t* status) { return status_reset(status, key); }},
    {"postEvent", [](status_t* status) { return status_post_event(status, key, value, 0); }},
    {"postLater", [](status_t* status) { return status_post_event(status, key, value, 1); }},
    {"get",
     [](status_t* status)
     {
         char* text = nullptr;
         const int result = status_get(status, "door", patienceMs, &text);
         return released(result, text);
     }},
    {"getMany",
     [](status_t* status)
     {
         const char* const keys[]{"door", key};
         status_values_t* values = nullptr;
         const int result = status_get_many(status, keys, 2, patienceMs, &values);
         return released(result, values);
     }},
    {"getAll",
     [](status_t* status)
     {
         status_values_t* values = nullptr;
         const int result = status_get_all(status, patienceMs, &values);
         return released(result, values);
     }},
    {"sync", [](status_t* status) { return status_sync(status, patienceMs); }},
    {"ask", [](status_t* status) { return status_ask(status, STATUS_ASK_VALUE, "door", 1); }},
    {"subscribe",
     [](status_t* status)
     {
         const char* const keys[]{"door", key};
         return status_subscribe(status, keys, 2);
     }},
    {"unsubscribe", [](status_t* status) { return status_unsubscribe(status, &key, 1); }},
    {"subscribeEvents", [](status_t* status) { return status_subscribe_events(status, &key, 1); }},
    {"unsubscribeEvents", [](status_t* status) { return status_unsubscribe_events(status, &key, 1); }},
    {"startTimer", [](status_t* status) { return status_timer_start(status, key); }},
    {"incrementCounter",
     [](status_t* status) { return status_counter_increment(status, key, patienceMs, nullptr); }},
    {"setCounter", [](status_t* status) { return status_counter_set(status, key, 1); }},
    {"next",
     [](status_t* status)
     {
         status_item_t* item = nullptr;
         const int result = status_next(status, &item);
         return released(result > 0 ? STATUS_OK : result, item);
     }},
};

class StatusMemory : public testing::TestWithParam<Operation>
{
protected:
    FailingMemory::QuietLog log;
};

class ShortOfMemory : public testing::Test
{
protected:
    FailingMemory::QuietLog log;
};

// Makes what the process keeps for ever. Therefore no test counts the objects that are left; LeakSanitizer
// does.
void prepare()
{
    const World world;
    EXPECT_EQ(status_sync(world.status, patienceMs), STATUS_OK);
}

} // namespace

TEST_P(StatusMemory, aCallSaysSoAndCanBeRepeated)
{
    prepare();
    const unsigned struck = failEach(
        [](const Failure& failure)
        {
            World world;
            world.device.change("door", "open");
            int result = STATUS_EINVAL;
            const bool hasStruck = failure.during(
                [&]
                {
                    result = GetParam().call(world.status);
                    world.settle();
                });
            EXPECT_TRUE(result == STATUS_OK || (hasStruck && result == STATUS_ENOMEM)) << result;
            const int repeated = GetParam().call(world.status);
            EXPECT_TRUE(repeated == STATUS_OK || (hasStruck && isLossReport(repeated))) << repeated;
            const int synced = status_sync(world.status, patienceMs);
            EXPECT_TRUE(synced == STATUS_OK || (hasStruck && isLossReport(synced))) << synced;
            return hasStruck;
        });
    EXPECT_GT(struck + (GetParam().name == std::string("next") ? 1 : 0), 0U);
}

INSTANTIATE_TEST_SUITE_P(, StatusMemory, testing::ValuesIn(operations), nameOf);

TEST_F(ShortOfMemory, changesAreEitherToldOrTheirLossIs)
{
    prepare();
    unsigned told = 0;
    const unsigned struck = failEach(
        [&told](const Failure& failure)
        {
            World world;
            status_subscribe(world.status, &key, 1);
            status_subscribe_events(world.status, &key, 1);
            world.settle();
            std::string kinds;
            EXPECT_EQ(world.takeAll(kinds), 0);
            const StatusMap values{{key, value}};
            const bool hasStruck = failure.during(
                [&]
                {
                    FailingMemory::runsOut([&] { world.device.change(values); });
                    FailingMemory::runsOut([&] { world.device.occur(key, value); });
                    world.settle();
                });
            kinds.clear();
            const int end = world.takeAll(kinds);
            EXPECT_TRUE(end == 0 || end == STATUS_ENOMEM);
            told += end == STATUS_ENOMEM ? 1 : 0;
            EXPECT_EQ(world.takeAll(kinds), 0); // told once
            // The manager itself may have had no memory for the update. It has logged that.
            EXPECT_TRUE(kinds == "12" || hasStruck) << kinds;
            return hasStruck;
        });
    EXPECT_GT(struck, 2U);
    EXPECT_GT(told, 1U);
}

TEST_F(ShortOfMemory, aPostIsEitherSentOrItsLossIsTold)
{
    prepare();
    unsigned told = 0;
    const unsigned struck = failEach(
        [&told](const Failure& failure)
        {
            World world;
            int result = STATUS_EINVAL;
            const bool hasStruck = failure.during(
                [&]
                {
                    result = status_post(world.status, key, value);
                    world.settle();
                });
            const bool isSent = world.device.getClientInfoValue(key) == value;
            EXPECT_EQ(status_sync(world.status, patienceMs),
                      result == STATUS_OK && !isSent ? STATUS_ELOST : STATUS_OK);
            told += result == STATUS_OK && !isSent ? 1 : 0;
            return hasStruck;
        });
    EXPECT_GT(struck, 2U);
    EXPECT_GT(told, 0U);
}

TEST_F(ShortOfMemory, aSubscriptionToEventsIsEitherMadeOrItsLossIsTold)
{
    prepare();
    unsigned told = 0;
    const unsigned struck = failEach(
        [&told](const Failure& failure)
        {
            World world;
            int result = STATUS_EINVAL;
            const bool hasStruck = failure.during(
                [&]
                {
                    result = status_subscribe_events(world.status, &key, 1);
                    world.settle();
                });
            world.device.occur(key, value);
            std::string kinds;
            const bool isTold = world.takeAll(kinds) == STATUS_ENOMEM;
            EXPECT_EQ(result == STATUS_OK, isTold || kinds == "2");
            told += isTold ? 1 : 0;
            return hasStruck;
        });
    EXPECT_GT(struck, 2U);
    EXPECT_GT(told, 0U);
}

TEST_F(ShortOfMemory, aSubscriptionThatFailsTellsThatEarlierOnesMayBeLost)
{
    prepare();
    unsigned told = 0;
    const unsigned struck = failEach(
        [&told](const Failure& failure)
        {
            World world;
            EXPECT_EQ(status_subscribe(world.status, &key, 1), STATUS_OK);
            world.settle();
            const bool hasStruck = failure.during(
                [&]
                {
                    static_cast<void>(status_subscribe(world.status, &key, 1));
                    world.settle();
                });
            std::string kinds;
            const bool isTold = world.takeAll(kinds) == STATUS_ENOMEM;
            static_cast<void>(world.takeAll(kinds));
            world.device.change(key, value);
            kinds.clear();
            EXPECT_EQ(world.takeAll(kinds), 0);
            EXPECT_TRUE(kinds == "1" || isTold) << kinds;
            told += kinds != "1" ? 1U : 0U;
            return hasStruck;
        });
    EXPECT_GT(struck, 2U);
    EXPECT_GT(told, 0U);
}

TEST_F(ShortOfMemory, questionsAndSubscriptionsAreStillAnswered)
{
    prepare();
    const unsigned struck = failEach(
        [](const Failure& failure)
        {
            World world;
            world.device.change("door", "open");
            const char* const door = "door";
            int asked = STATUS_EINVAL;
            int subscribed = STATUS_EINVAL;
            const bool hasStruck = failure.during(
                [&]
                {
                    asked = status_ask(world.status, STATUS_ASK_VALUE, door, 1);
                    subscribed = status_subscribe(world.status, &door, 1);
                    const Spared spared;
                    const int synced = status_sync(world.status, patienceMs); // behind the question
                    EXPECT_TRUE(synced == STATUS_OK || synced == STATUS_ENOMEM);
                    world.settle();
                });
            std::string kinds;
            static_cast<void>(world.takeAll(kinds)); // may tell a lost change first
            static_cast<void>(world.takeAll(kinds));
            EXPECT_EQ(kinds.find('4') != std::string::npos, asked == STATUS_OK);
            EXPECT_EQ(kinds.find('3') != std::string::npos, subscribed == STATUS_OK);
            return hasStruck;
        });
    EXPECT_GT(struck, 2U);
}

TEST_F(ShortOfMemory, aStatusCanAlwaysBeClosed)
{
    prepare();
    const unsigned struck = failEach(
        [](const Failure& failure)
        {
            World world;
            EXPECT_EQ(status_subscribe(world.status, &key, 1), STATUS_OK);
            world.settle();
            int result = STATUS_EINVAL;
            const bool hasStruck = failure.during([&] { result = status_close(world.status); });
            EXPECT_EQ(result, STATUS_OK);
            EXPECT_EQ(status_post(world.status, key, value), STATUS_ECLOSED);
            world.device.change(key, value); // reaches nobody
            return hasStruck;
        });
    static_cast<void>(struck); // the queue has spare room for the last call
}
