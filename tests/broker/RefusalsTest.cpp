#include "broker/base/Refusals.h"

#include <gtest/gtest.h>
#include <set>

#include "broker/Statistics.h"
#include "tests/support/LogCapture.h"

namespace
{

TimePoint now;

class RefusalsTest : public testing::Test
{
protected:
    RefusalsTest() { now = TimePoint(std::chrono::seconds(1000)); }

    const LogCapture log;
    Refusals refusals{[] { return now; }};
};

} // namespace

TEST_F(RefusalsTest, areCountedAndSomeAreLogged)
{
    for (int count = 0; count < 1000; ++count)
        refusals.report(Refusal::Keys, "too many");
    EXPECT_EQ(refusals.count(Refusal::Keys), 1000U);
    EXPECT_EQ(refusals.count(Refusal::Timers), 0U);
    EXPECT_EQ(log.count(2, "too many"), Refusals::linesPerWindow);
    EXPECT_EQ(log.lines().size(), Refusals::linesPerWindow);
}

TEST_F(RefusalsTest, theNextLineTellsHowManyWereLeftOut)
{
    for (int count = 0; count < 12; ++count)
        refusals.report(Refusal::Keys, "too many");
    now += Refusals::window;
    refusals.report(Refusal::Keys, "another");
    EXPECT_TRUE(log.has(2, "another (and 7 before it)"));
    refusals.report(Refusal::Keys, "yet another");
    EXPECT_TRUE(log.has(2, "yet another"));
}

TEST_F(RefusalsTest, oneKindDoesNotSilenceAnother)
{
    for (int count = 0; count < 100; ++count)
        refusals.report(Refusal::Keys, "too many");
    refusals.report(Refusal::Timers, "a timer");
    EXPECT_TRUE(log.has(2, "a timer"));
}

// ----------------------------------------------------------------------------------------------------
// sources

TEST_F(RefusalsTest, nameTheirSource)
{
    Refused source;
    refusals.setDescribe([](Refused&) { return "its name"; });
    {
        const Refusals::From from(refusals, source);
        refusals.report(Refusal::Keys, "too many");
    }
    refusals.report(Refusal::Timers, "a timer");
    EXPECT_TRUE(log.has(2, "too many [its name]"));
    EXPECT_TRUE(log.has(2, "a timer"));
    EXPECT_EQ(source.refusals, 1U);
}

TEST_F(RefusalsTest, comeFromTheInnerSourceAndThenFromTheOuterOneAgain)
{
    Refused outer;
    Refused inner;
    const Refusals::From fromOuter(refusals, outer);
    {
        const Refusals::From fromInner(refusals, inner);
        refusals.report(Refusal::Keys, "too many");
    }
    refusals.report(Refusal::Keys, "too many");
    EXPECT_EQ(inner.refusals, 1U);
    EXPECT_EQ(outer.refusals, 1U);
}

TEST_F(RefusalsTest, waitForTheNameOfTheirSource)
{
    Refused source;
    Refused other;
    refusals.setDescribe([](Refused&) { return std::nullopt; });
    {
        const Refusals::From from(refusals, source);
        refusals.report(Refusal::Keys, "too many");
    }
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(refusals.waitingLongest(), std::pair(&source, now));
    refusals.tell(other, "another");
    EXPECT_TRUE(log.lines().empty());
    refusals.tell(source, "its name");
    EXPECT_TRUE(log.has(2, "too many [its name]"));
    EXPECT_EQ(refusals.waitingLongest().first, nullptr);
    refusals.tell(source, "its name");
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(RefusalsTest, thatWaitAreLoggedAtTheEnd)
{
    {
        Refusals ending;
        Refused source;
        ending.setDescribe([](Refused&) { return std::nullopt; });
        const Refusals::From from(ending, source);
        ending.report(Refusal::Keys, "too many");
    }
    EXPECT_TRUE(log.has(2, "too many"));
}

TEST_F(RefusalsTest, aLineIsCutAndNeverTooLong)
{
    refusals.report(Refusal::Keys, "%s", std::string(100000, 'x').c_str());
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_LE(log.lines().front().text.size(), 512U);
}

TEST_F(RefusalsTest, aLongMessageIsToldWithItsLimitAndWhatBecomesOfItsConnection)
{
    refusals.reportLong("Post", false, 2048);
    refusals.reportLong("Request", true, 2048);
    EXPECT_TRUE(log.has(2, "Post of more than 2048 bytes refused"));
    EXPECT_TRUE(log.has(
        2, "Request of more than 2048 bytes refused, its connection is closed because it does not end"));
    EXPECT_EQ(refusals.count(Refusal::MessageBytes), 2U);
}

TEST_F(RefusalsTest, eachKindHasItsName)
{
    std::set<std::string> names;
    for (std::size_t kind = 0; kind < refusalKinds; ++kind)
        names.insert(Refusals::name(static_cast<Refusal>(kind)));
    EXPECT_EQ(names.size(), refusalKinds);
    EXPECT_EQ(names.count(""), 0U);
}

TEST(DurationsTest, ofNoneAreZero)
{
    const Durations durations;
    EXPECT_EQ(durations.longest(), 0U);
    EXPECT_EQ(durations.percentile(99), 0U);
}

TEST(DurationsTest, aPercentileIsAtMostAQuarterTooLarge)
{
    Durations durations;
    for (uint64_t microseconds = 1; microseconds <= 10000; ++microseconds)
        durations.add(microseconds);
    EXPECT_EQ(durations.longest(), 10000U);
    EXPECT_GE(durations.percentile(99), 9900U);
    EXPECT_LE(durations.percentile(99), 10000U);
    EXPECT_GE(durations.percentile(50), 5000U);
    EXPECT_LE(durations.percentile(50), 6250U);
}

TEST(DurationsTest, extremesAreTaken)
{
    Durations durations;
    durations.add(0);
    EXPECT_EQ(durations.percentile(99), 0U);
    durations.add(UINT64_MAX);
    EXPECT_EQ(durations.longest(), UINT64_MAX);
}

TEST(StatisticsTest, ofTheProcessAreThere)
{
    Statistics::Numbers numbers;
    Statistics::Process process;
    process.add(numbers, Clock::now());
    EXPECT_GE(numbers.at("descriptors.open"), 3U);
    EXPECT_GE(numbers.at("descriptors.limit"), numbers.at("descriptors.open"));
    EXPECT_GT(numbers.at("memory.rss"), 100000U);
}
