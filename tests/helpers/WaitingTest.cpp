// Waiting for values and for the broker, with a fake instead of the broker.

#include <algorithm>
#include <future>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

#include "statusmanager/helpers/FakeStatusManager.h"
#include "statusmanager/helpers/Waiting.h"
#include "tests/helpers/WatchedManager.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Wait.h"

namespace
{

using namespace std::chrono_literals;

bool isAny(const std::string&)
{
    return true;
}

std::function<bool(const std::string&)> is(const std::string& wanted)
{
    return [wanted](const std::string& value) { return value == wanted; };
}

class Waiting : public testing::Test
{
protected:
    std::unique_ptr<status::FakeStatusManager> fake = std::make_unique<status::FakeStatusManager>();
    LogCapture log;
};

using Health = Waiting;

} // namespace

TEST_F(Waiting, endsAtOnceWithAValueThatIsThere)
{
    fake->change("net", "up");
    EXPECT_EQ(status::waitFor("net", is("up"), testDeadline), "up");
}

TEST_F(Waiting, endsWithAValueThatComes)
{
    fake->change("net", "down");
    Gate seen;
    auto wait = std::async(std::launch::async,
                           [&]
                           {
                               return status::waitFor(
                                   "net",
                                   [&](const std::string& value)
                                   {
                                       seen.open();
                                       return value == "up";
                                   },
                                   testDeadline);
                           });
    EXPECT_TRUE(seen.wait());
    fake->change("net", "up");
    EXPECT_EQ(wait.get(), "up");
}

TEST_F(Waiting, endsWithNothingWhenTheTimeIsOver)
{
    fake->change("net", "down");
    EXPECT_EQ(status::waitFor("net", is("up"), 20ms), std::nullopt);
    EXPECT_EQ(status::waitFor("unknown", isAny, 20ms), std::nullopt);
    EXPECT_EQ(status::waitFor("net", is("up"), -1ms), std::nullopt);
}

TEST_F(Waiting, looksAtResetValuesAndNotAtUnknownOnes)
{
    fake->change("net", "");
    EXPECT_EQ(status::waitFor("net", isAny, testDeadline), "");
}

TEST_F(Waiting, looksAtEachValueInItsOrder)
{
    fake->change("n", "0");
    std::vector<std::string> seen;
    const auto last = status::waitFor(
        "n",
        [&](const std::string& value)
        {
            seen.push_back(value);
            if (value == "0")
            {
                for (int number = 1; number <= 5; ++number)
                    fake->change("n", std::to_string(number));
            }
            return value == "5";
        },
        testDeadline);
    EXPECT_EQ(last, "5");
    EXPECT_EQ(seen, (std::vector<std::string>{"0", "1", "2", "3", "4", "5"}));
}

TEST_F(Waiting, looksOnTheThreadThatWaits)
{
    fake->change("n", "0");
    std::thread::id looker;
    EXPECT_TRUE(status::waitFor(
        "n",
        [&](const std::string&)
        {
            looker = std::this_thread::get_id();
            return true;
        },
        testDeadline));
    EXPECT_EQ(looker, std::this_thread::get_id());
}

TEST_F(Waiting, handsOnWhatThePredicateThrows)
{
    fake->change("n", "0");
    const auto refuse = [](const std::string&) -> bool { throw std::runtime_error("wrong"); };
    EXPECT_THROW(static_cast<void>(status::waitFor("n", refuse, testDeadline)), std::runtime_error);
}

TEST_F(Waiting, isNotHeldUpByABusyManager)
{
    WatchedManager busy;
    Gate free;
    busy.block(free);
    auto wait = std::async(std::launch::async, [&] { return status::waitFor("n", isAny, 10ms, busy); });
    EXPECT_EQ(wait.wait_for(testDeadline), std::future_status::ready);
    free.open();
    EXPECT_EQ(wait.get(), std::nullopt);
}

TEST_F(Waiting, leavesNothingBehind)
{
    WatchedManager local;
    EXPECT_EQ(status::waitFor("n", isAny, 1ms, local), std::nullopt);
    local.sync(0);
    EXPECT_EQ(local.mThread.getPendingCount(), 0U);
}

TEST_F(Health, lastsWhileSyncsSucceed)
{
    EXPECT_TRUE(status::sync(5s));
    EXPECT_TRUE(status::isHealthy());
}

TEST_F(Health, isGoneForGoodAfterASyncThatFailed)
{
    fake->failSync();
    EXPECT_FALSE(status::sync(5s));
    EXPECT_FALSE(status::isHealthy());
    fake->failSync(false);
    EXPECT_TRUE(status::sync(5s));
    EXPECT_FALSE(status::isHealthy());
}

TEST_F(Health, isThatOfOneManager)
{
    StatusManager other;
    fake->failSync();
    EXPECT_FALSE(status::sync(5s));
    EXPECT_TRUE(status::isHealthy(other));
}

TEST_F(Health, isBackWithAnotherManagerInTheSamePlace)
{
    fake->failSync();
    EXPECT_FALSE(status::sync(5s));
    fake->~FakeStatusManager();
    ::new (fake.get()) status::FakeStatusManager;
    EXPECT_TRUE(status::isHealthy(*fake));
}

TEST_F(Health, staysWhereASyncHadNoTime)
{
    EXPECT_FALSE(status::sync(0ms));
    EXPECT_FALSE(status::sync(-1ms));
    EXPECT_TRUE(status::isHealthy());
    EXPECT_TRUE(log.has(2, "A sync needs time for the answer, 0 ms are too few"));
}

TEST(Sync, getsItsTimeInMilliseconds)
{
    class : public StatusManager
    {
    public:
        bool sync(int timeoutMs) override
        {
            times.push_back(timeoutMs);
            return true;
        }
        std::vector<int> times;
    } manager;
    EXPECT_TRUE(status::sync(1500ms, manager));
    EXPECT_TRUE(status::sync(3s, manager));
    EXPECT_TRUE(status::sync(std::chrono::hours(24 * 365), manager));
    EXPECT_TRUE(status::sync(std::chrono::milliseconds::max(), manager));
    constexpr int longest = std::numeric_limits<int>::max();
    EXPECT_EQ(manager.times, (std::vector<int>{1500, 3000, longest, longest}));
}
