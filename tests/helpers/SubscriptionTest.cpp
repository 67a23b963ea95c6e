// The callbacks of a subscription.

#include "tests/helpers/SubscriptionFixture.h"

#include "tests/support/LogCapture.h"

namespace
{

using Subscribing = SubscriptionFixture;

} // namespace

TEST_F(Subscribing, tellsTheValuesOfNowAndThenWhatChanges)
{
    manager.postStatus({{"door", "open"}, {"other", "1"}});
    const status::Subscription subscription = status::on({"door", "lamp"}, thread, record(), manager);
    manager.postStatus("lamp", "on");
    manager.postStatus("other", "2");
    manager.resetStatus("door");
    settle();
    EXPECT_EQ(told, (std::vector<StatusMap>{{{"door", "open"}}, {{"lamp", "on"}}, {{"door", ""}}}));
}

TEST_F(Subscribing, tellsOnceThatNothingIsKnown)
{
    const status::Subscription subscription = status::on({"door"}, thread, record(), manager);
    settle();
    EXPECT_EQ(told, (std::vector<StatusMap>{{}}));
}

TEST_F(Subscribing, tellsTheEventsOfItsNames)
{
    std::vector<std::string> events;
    const status::Subscription subscription = status::onEvent(
        {"bell", "alarm"}, thread,
        [&](const std::string& name, const std::string& value) { events.push_back(name + '=' + value); },
        manager);
    manager.postEvent("bell", "rang", 0);
    manager.postEvent("other", "rang", 0);
    manager.postEvent("alarm", "", 0);
    settle();
    EXPECT_EQ(events, (std::vector<std::string>{"bell=rang", "alarm="}));
}

TEST_F(Subscribing, tellsOnTheThreadThatWasGiven)
{
    bool onThread = false;
    const status::Subscription subscription = status::on(
        {"door"}, thread, [&](const StatusMap&) { onThread = thread.isThreadCurrent(); }, manager);
    settle();
    EXPECT_TRUE(onThread);
}

TEST_F(Subscribing, goesOnAfterAnExceptionThatLeftTheCallback)
{
    const LogCapture log;
    unsigned calls = 0;
    const status::Subscription subscription = status::on(
        {"door"}, thread,
        [&](const StatusMap&)
        {
            ++calls;
            throw std::runtime_error("wrong");
        },
        manager);
    manager.postStatus("door", "open");
    settle();
    EXPECT_EQ(calls, 2U);
    EXPECT_TRUE(log.has(0, "Exception left a call on dispatcher [subscriber]: wrong"));
}

TEST_F(Subscribing, isTakenOverByAnAssignmentThatEndsTheFormer)
{
    std::vector<StatusMap> others;
    status::Subscription subscription = status::on({"door"}, thread, record(), manager);
    settle();
    subscription = status::on(
        {"door"}, thread, [&](const StatusMap& values) { others.push_back(values); }, manager);
    manager.postStatus("door", "open");
    settle();
    EXPECT_EQ(told.size(), 1U);
    EXPECT_EQ(others.size(), 2U);
    EXPECT_TRUE(subscription);
}

TEST_F(Subscribing, goesOnWhereItIsMovedTo)
{
    status::Subscription first = status::on({"door"}, thread, record(), manager);
    const status::Subscription second(std::move(first));
    manager.postStatus("door", "open");
    settle();
    EXPECT_EQ(told.size(), 2U);
    EXPECT_TRUE(second);
}

TEST_F(Subscribing, bringsNothingFromTheInertManager)
{
    StatusManagerStub inert;
    status::Subscription subscription = status::on({"door"}, thread, record(), inert);
    inert.postStatus("door", "open");
    subscription.cancel();
    settle();
    EXPECT_TRUE(told.empty());
}
