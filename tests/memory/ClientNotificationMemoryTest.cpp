// A broker client's subscriptions and notifications when memory runs out.

#include <ostream>

#include "protocol/BrokerDocuments.h"
#include "tests/memory/Belongings.h"
#include "tests/memory/ClientWorld.h"
#include "tests/protocol/Written.h"

using FailingMemory::failEach;
using FailingMemory::Failure;
using FailingMemory::runsOut;

TEST_F(ClientMemory, aSubscriptionIsMadeWhollyOrNotAtAll)
{
    World world(0);
    for (const unsigned keys : {3U, 10U})
    {
        const StatusKeys whole = names("key", 0, keys);
        const auto subscribe = [&] { world.proxy->registerForStatus(&world.listener, whole); };
        const unsigned struck = failEach(
            [&](const Failure& failure)
            {
                const std::size_t before = world.listener.updates().size();
                const bool hasStruck = failure.during(
                    [&]
                    {
                        runsOut(subscribe);
                        world.settle();
                    });
                const bool isSubscribed = world.statusKeys() == whole;
                EXPECT_TRUE(isSubscribed || (hasStruck && world.statusKeys().empty()));
                EXPECT_EQ(world.listener.updates().size() - before, isSubscribed ? 1U : 0U);

                subscribe();
                world.settle();
                EXPECT_EQ(world.statusKeys(), whole);
                EXPECT_TRUE(world.listener.waitForValue(name("key"), name("value")));
                world.proxy->unregisterForStatus(&world.listener, whole);
                return hasStruck;
            });
        EXPECT_GT(struck, 0U);
    }
}

namespace
{

namespace Key = BrokerProtocol::Key;

std::string updateOf(const char* key, const StatusMap& values)
{
    std::string text;
    BrokerProtocol::appendUpdate(text, key, membersIn(values));
    return text;
}

struct Notification
{
    const char* name;
    std::string text;
};

void PrintTo(const Notification& notification, std::ostream* stream)
{
    *stream << notification.name;
}

const Notification notifications[]{
    {"value", updateOf(Key::statusUpdate, values(name("value"), 1))},
    {"valueOfManyFrames", updateOf(Key::statusUpdate, values(name("value")))},
    {"oddValue", updateOf(Key::statusUpdate, values(odd("value"), 3))},
    {"number", "{\"statusUpdate\":{\"" + name("key") + "\":5}}"},
    {"event", updateOf(Key::eventUpdate, {{name("event"), name("value")}})},
    {"events", updateOf(Key::eventUpdate, {{name("event"), name("value")}, {name("event", 1), "value"}})},
    {"oddEvent", updateOf(Key::eventUpdate, {{name("event"), odd("value")}})},
    {"sync", "Sync"},
    {"empty", ""},
    {"unhandled", "{\"" + name("other") + "\":\"" + name("value") + "\"}"},
    {"noJson", name("no JSON")},
};

class NotificationMemory : public testing::TestWithParam<Notification>
{
protected:
    // Publishes the notification while memory may run out, then another one, which must arrive.
    static bool tryOne(World& world, const Failure& failure, std::size_t callbacks)
    {
        const std::size_t before = world.callbacks();
        const unsigned agents = Belongings::trackedObjects();
        const bool hasStruck = failure.during([&] { world.notify(GetParam().text); });
        EXPECT_EQ(Belongings::trackedObjects(), agents);
        const std::size_t heard = world.callbacks() - before;
        EXPECT_LE(heard, callbacks);
        EXPECT_TRUE(heard == callbacks || hasStruck);

        const std::string value = "next" + std::to_string(before);
        world.notify(updateOf(Key::statusUpdate, values(value, 1)));
        EXPECT_EQ(world.listener.updates().back(), values(value, 1));
        return hasStruck;
    }

    static unsigned tryAll(unsigned keys)
    {
        World world(keys);
        const std::size_t before = world.callbacks();
        world.notify(GetParam().text);
        const std::size_t callbacks = world.callbacks() - before;
        return failEach([&](const Failure& failure) { return tryOne(world, failure, callbacks); });
    }
};

} // namespace

TEST_P(NotificationMemory, aNotificationMayBeLostButTheNextIsHeard)
{
    const FailingMemory::QuietLog log;
    for (const unsigned keys : {3U, 10U})
    {
        SCOPED_TRACE(std::to_string(keys) + " keys");
        EXPECT_TRUE(tryAll(keys) > 0 || GetParam().text == "Sync");
    }
}

TEST_P(NotificationMemory, theNextIsHeardAlsoWhereAllIsLogged)
{
    const FailingMemory::QuietLog log("*=7:ffffffff");
    tryAll(3);
}

INSTANTIATE_TEST_SUITE_P(, NotificationMemory, testing::ValuesIn(notifications), nameOf<Notification>);
