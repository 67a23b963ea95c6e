// The fake, with code under test that does not know about it.

#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>

#include "statusmanager/Helpers.h"
#include "statusmanager/helpers/FakeStatusManager.h"
#include "tests/support/FakeClock.h"
#include "tests/support/OwnProcess.h"
#include "tests/support/RecordingListener.h"
#include "tests/support/Wait.h"

namespace
{

using namespace std::chrono_literals;
using status::FakeStatusManager;

// The code under test: switches a fan by the temperature. It gets the manager from the library.
class FanControl
{
public:
    FanControl()
        : mSubscription(status::on({"celsius"}, mThread, [](const StatusMap& values) { decide(values); }))
    {
    }

private:
    static void decide(const StatusMap& values)
    {
        const auto celsius = values.find("celsius");
        if (celsius != values.end())
            status::post("fan", status::fromText<int>(celsius->second).value_or(100) > 70);
    }

    Orvane::EventThread mThread{"fan", 0};
    status::Subscription mSubscription;
};

bool isOn(const std::string& value)
{
    return value == "true";
}

class Fake : public testing::Test
{
protected:
    std::unique_ptr<FakeStatusManager> fake = std::make_unique<FakeStatusManager>();
};

using Instead = OwnProcess;

void makesAFakeTooLate()
{
    StatusManager* const first = StatusManager::getInstance(true);
    EXPECT_THROW(FakeStatusManager(), std::logic_error);
    EXPECT_EQ(StatusManager::getInstance(false), first);
}

} // namespace

TEST_F(Instead, ofTheManagerThatExistsItIsRefused)
{
    EXPECT_IN_OWN_PROCESS(makesAFakeTooLate());
}

TEST_F(Fake, isTheProcessesManagerWhileItLives)
{
    EXPECT_EQ(StatusManager::getInstance(false), fake.get());
    EXPECT_EQ(StatusManager::getInstance(true), fake.get());
    EXPECT_EQ(&status::manager(), fake.get());
    EXPECT_EQ(status::connectWithin(testDeadline), fake.get());
}

TEST_F(Fake, leavesItsPlaceToTheNext)
{
    fake->postStatus("door", "open");
    fake.reset();
    const FakeStatusManager next;
    EXPECT_EQ(StatusManager::getInstance(false), &next);
    EXPECT_EQ(status::find("door"), std::nullopt);
}

TEST_F(Fake, feedsTheCodeUnderTestAndHoldsWhatThatPosts)
{
    const FanControl control;
    fake->change("celsius", "71");
    EXPECT_EQ(status::waitFor("fan", isOn, testDeadline), "true");
    EXPECT_EQ(fake->posted(), (StatusMap{{"fan", "true"}}));
}

TEST_F(Fake, tellsListenersOfChangesAndEventsAndHoldsNeitherAsAPost)
{
    RecordingListener listener;
    Orvane::EventThread thread("listener", 0);
    fake->registerListener(&listener, &thread);
    fake->registerForStatus(&listener, "door");
    fake->registerForEvent(&listener, "bell");
    fake->change({{"door", "open"}, {"lamp", "on"}});
    fake->occur("bell", "rang");
    EXPECT_TRUE(listener.waitForValue("door", "open"));
    EXPECT_TRUE(listener.waitForEvents(1));
    EXPECT_EQ(fake->getClientInfo(), (StatusMap{{"door", "open"}, {"lamp", "on"}}));
    EXPECT_TRUE(fake->posts().empty());
    EXPECT_TRUE(fake->events().empty());
    fake->unregisterListener(&listener);
}

TEST_F(Fake, holdsEachPostAndResetInOrder)
{
    fake->postStatus("door", "open");
    fake->postStatus({{"door", "shut"}, {"lamp", "on"}});
    fake->resetStatus("lamp");
    EXPECT_EQ(fake->posts(), (std::vector<StatusMap>{
                                 {{"door", "open"}}, {{"door", "shut"}, {"lamp", "on"}}, {{"lamp", ""}}}));
    EXPECT_EQ(fake->posted(), (StatusMap{{"door", "shut"}, {"lamp", ""}}));
    EXPECT_EQ(fake->getClientInfoValue("door"), "shut");
}

TEST_F(Fake, holdsEventsWithTheirDelayAndTellsListenersAtOnce)
{
    RecordingListener listener;
    Orvane::EventThread thread("listener", 0);
    fake->registerListener(&listener, &thread);
    fake->registerForEvent(&listener, "bell");
    fake->postEvent("bell", "rang", 3600000);
    EXPECT_TRUE(listener.waitForEvents(1));
    const auto events = fake->events();
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].name, "bell");
    EXPECT_EQ(events[0].value, "rang");
    EXPECT_EQ(events[0].delayMs, 3600000U);
    fake->unregisterListener(&listener);
}

TEST_F(Fake, forgetsPostsAndKeepsValues)
{
    fake->postStatus("door", "open");
    fake->postEvent("bell", "rang", 0);
    fake->updateSystemTime(1);
    fake->forgetPosts();
    EXPECT_TRUE(fake->posts().empty());
    EXPECT_TRUE(fake->events().empty());
    EXPECT_EQ(fake->systemTime(), std::nullopt);
    EXPECT_EQ(fake->getClientInfoValue("door"), "open");
}

TEST_F(Fake, countsAsTheBrokerDoes)
{
    fake->setCounterValue("starts", 7);
    EXPECT_EQ(fake->getCounterValue("starts"), 7U);
    EXPECT_EQ(fake->incrementCounter("starts"), 8U);
    EXPECT_EQ(fake->incrementCounter("others"), 1U);
}

TEST_F(Fake, holdsTheTimeAndSetsNoClock)
{
    FakeClock::reset();
    fake->updateSystemTime(1700000000);
    EXPECT_EQ(fake->systemTime(), 1700000000U);
    EXPECT_FALSE(FakeClock::lastSetting().has_value());
}

TEST_F(Fake, syncsUnlessItIsToldNotTo)
{
    EXPECT_TRUE(status::sync(1s));
    fake->failSync();
    EXPECT_FALSE(status::sync(1s));
    fake->failSync(false);
    EXPECT_TRUE(status::sync(1s));
}

TEST_F(Fake, mayBeDestroyedBeforeASubscription)
{
    Orvane::EventThread thread("subscriber", 0);
    status::Subscription subscription = status::on({"door"}, thread, [](const StatusMap&) {});
    fake.reset();
    subscription.cancel();
    EXPECT_FALSE(subscription);
}
