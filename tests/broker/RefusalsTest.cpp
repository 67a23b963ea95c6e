#include "broker/base/Refusals.h"

#include <gtest/gtest.h>
#include <set>

#include "broker/Statistics.h"
#include "tests/support/LogCapture.h"

namespace
{

const TimePoint start{std::chrono::seconds(1000)};

} // namespace

TEST(RefusalsTest, areCountedAndSomeAreLogged)
{
    const LogCapture log;
    Refusals refusals;
    for (int count = 0; count < 1000; ++count)
        refusals.report(Refusal::Keys, "too many", start);
    EXPECT_EQ(refusals.count(Refusal::Keys), 1000U);
    EXPECT_EQ(refusals.count(Refusal::Timers), 0U);
    EXPECT_EQ(log.count(2, "too many"), Refusals::linesPerWindow);
    EXPECT_EQ(log.lines().size(), Refusals::linesPerWindow);
}

TEST(RefusalsTest, theNextLineTellsHowManyWereLeftOut)
{
    const LogCapture log;
    Refusals refusals;
    for (int count = 0; count < 12; ++count)
        refusals.report(Refusal::Keys, "too many", start);
    log.lines();
    refusals.report(Refusal::Keys, "another", start + Refusals::window);
    EXPECT_TRUE(log.has(2, "another (and 7 before it)"));
    refusals.report(Refusal::Keys, "yet another", start + Refusals::window);
    EXPECT_TRUE(log.has(2, "yet another"));
}

TEST(RefusalsTest, oneKindDoesNotSilenceAnother)
{
    const LogCapture log;
    Refusals refusals;
    for (int count = 0; count < 100; ++count)
        refusals.report(Refusal::Keys, "too many", start);
    refusals.report(Refusal::Timers, "a timer", start);
    EXPECT_TRUE(log.has(2, "a timer"));
}

TEST(RefusalsTest, eachKindHasItsName)
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
    Statistics::addProcess(numbers);
    EXPECT_GE(numbers.at("descriptors.open"), 3U);
    EXPECT_GE(numbers.at("descriptors.limit"), numbers.at("descriptors.open"));
    EXPECT_GT(numbers.at("memory.rss"), 100000U);
    EXPECT_EQ(BrokerProtocol::writeStatisticsReply({{"a.b", 5}, {"c", UINT64_MAX}}),
              R"({"a.b":5,"c":18446744073709551615})");
}
