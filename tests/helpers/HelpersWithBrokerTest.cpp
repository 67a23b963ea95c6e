// The helpers with a real broker.

#include <csignal>
#include <future>
#include <gtest/gtest.h>

#include "statusmanager/Helpers.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/ProxyClient.h"
#include "tests/support/RecordingListener.h"
#include "tests/support/Wait.h"

namespace
{

using namespace std::chrono_literals;

std::function<bool(const std::string&)> is(const std::string& wanted)
{
    return [wanted](const std::string& value) { return value == wanted; };
}

class WithBroker : public testing::Test
{
protected:
    BrokerProcess broker;
    RecordingListener seen;
    Orvane::EventThread thread{"subscriber", 0};
    ProxyClient client;
    ProxyClient other;
};

std::function<void(const StatusMap&)> tellTo(RecordingListener& listener)
{
    return [&listener](const StatusMap& values) { listener.onStatusUpdate(values); };
}

} // namespace

TEST_F(WithBroker, aSubscriptionTellsTheValueThatIsThereAndThenChangesOfOthers)
{
    ASSERT_TRUE(status::post("door", "open", *other));
    ASSERT_TRUE(status::sync(10s, *other));
    const status::Subscription subscription = status::on({"door"}, thread, tellTo(seen), *client);
    ASSERT_TRUE(seen.waitForUpdates(1));
    EXPECT_EQ(seen.updates().front(), (StatusMap{{"door", "open"}}));
    ASSERT_TRUE(status::post("door", "shut", *other));
    EXPECT_TRUE(seen.waitForValue("door", "shut"));
}

TEST_F(WithBroker, aSubscriptionTellsEvents)
{
    const status::Subscription subscription = status::onEvent(
        {"bell"}, thread,
        [&](const std::string& name, const std::string& value) { seen.onEventUpdate(name, value); }, *client);
    // The client connects to the notifications in the background, and misses events from before.
    EXPECT_TRUE(eventually(
        [&]
        {
            status::postEvent("bell", "rang", 0ms, *other);
            return status::sync(10s, *other) && !seen.events().empty();
        }));
}

TEST_F(WithBroker, aSubscriptionMayEndWhileTheBrokerIsSilent)
{
    status::Subscription first = status::on({"door"}, thread, tellTo(seen), *client);
    ASSERT_TRUE(seen.waitForUpdates(1));
    broker.process().suspend();
    status::Subscription second = status::on({"lamp"}, thread, tellTo(seen), *client); // waits for an answer
    auto end = std::async(std::launch::async,
                          [&]
                          {
                              second.cancel();
                              first.cancel();
                          });
    EXPECT_EQ(end.wait_for(testDeadline), std::future_status::ready);
    broker.process().signal(SIGCONT);
}

TEST_F(WithBroker, aWaitEndsWithAValueOfAnotherClient)
{
    auto wait = std::async(std::launch::async,
                           [&] { return status::waitFor("net", is("up"), testDeadline, *client); });
    ASSERT_TRUE(status::post("net", "up", *other));
    EXPECT_EQ(wait.get(), "up");
}

TEST_F(WithBroker, aWaitEndsInTimeWhileTheBrokerIsSilent)
{
    broker.process().suspend();
    auto wait =
        std::async(std::launch::async, [&] { return status::waitFor("net", is("up"), 20ms, *client); });
    EXPECT_EQ(wait.wait_for(testDeadline), std::future_status::ready);
    EXPECT_EQ(wait.get(), std::nullopt);
    broker.process().signal(SIGCONT);
}

TEST_F(WithBroker, aSilentBrokerEndsTheHealthForGood)
{
    EXPECT_TRUE(status::sync(10s, *client));
    EXPECT_TRUE(status::isHealthy(*client));
    broker.process().suspend();
    EXPECT_FALSE(status::sync(100ms, *client));
    EXPECT_FALSE(status::isHealthy(*client));
    broker.process().signal(SIGCONT);
    EXPECT_FALSE(status::sync(10s, *client));
    EXPECT_FALSE(status::isHealthy(*client));
    EXPECT_TRUE(status::isHealthy(*other));
}

TEST_F(WithBroker, messagesNextToTheLengthThatIsRefusedArriveWhole)
{
    const std::string value(512 - std::string(R"({"postStatus":{"k":""}})").size(), 'x');
    EXPECT_FALSE(status::post("k", value, *client));
    for (const std::string& carried : {value.substr(1), value + 'x'})
    {
        EXPECT_TRUE(status::post("k", carried, *client));
        EXPECT_EQ(status::find("k", *client), carried);
    }
}

TEST_F(WithBroker, aKeyIsFoundWhateverTheLengthOfTheQuestion)
{
    // This character takes six bytes of the message.
    const std::string key = std::string(46, '\x01') + std::string(512 - 28 - 6 * 46, 'k');
    ASSERT_LE(key.size(), 255U);
    EXPECT_TRUE(status::post(key, "1", *client));
    EXPECT_EQ(status::find(key, *client), "1");
}
