// How long requests wait for the answers of post connections, with time as an argument.

#include "broker/Patience.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace
{

constexpr auto enough = SharedPatience::most;
const TimePoint start = TimePoint() + 1h;

class PatienceTest : public testing::Test
{
protected:
    Patience::Duration limit() { return patience.limit(enough, start); }

    Patience patience{start};
};

} // namespace

TEST_F(PatienceTest, doublesWithEachAnswerInTimeUpToItsLongest)
{
    EXPECT_EQ(limit(), Patience::atFirst);
    patience.answered(Patience::atFirst);
    EXPECT_EQ(limit(), 2 * Patience::atFirst);
    for (int count = 0; count < 10; ++count)
        patience.answered(1us);
    EXPECT_EQ(limit(), Patience::longest);
}

TEST_F(PatienceTest, doesNotGrowWithAnAnswerThatIsLate)
{
    patience.answered(Patience::atFirst + 1us);
    EXPECT_EQ(limit(), Patience::atFirst);
}

TEST_F(PatienceTest, isAQuarterAfterEachAnswerThatDoesNotComeDownToItsShortest)
{
    patience.disappointed();
    EXPECT_EQ(limit(), Patience::atFirst / 4);
    for (int count = 0; count < 10; ++count)
        patience.disappointed();
    EXPECT_EQ(limit(), Patience::shortest);
}

TEST_F(PatienceTest, comesBackWithAnswersInTime)
{
    for (int count = 0; count < 10; ++count)
        patience.disappointed();
    for (int count = 0; count < 10; ++count)
        patience.answered(Patience::shortest);
    EXPECT_EQ(limit(), Patience::longest);
}

TEST_F(PatienceTest, whoAnswersInTimeButNeverAtOnceUsesUpItsShare)
{
    Patience::Duration waited{0};
    TimePoint now = start;
    for (int count = 0; count < 1000; ++count)
    {
        const auto wait = patience.limit(enough, now);
        now += wait;
        waited += wait;
        patience.spend(wait, now);
        patience.answered(wait);
    }
    EXPECT_LE(waited, Patience::wholeShare + Patience::longest + 1000 * Patience::shortest);
}

TEST_F(PatienceTest, theShareComesBackAtAHundredthOfTheTime)
{
    patience.spend(Patience::wholeShare, start);
    EXPECT_EQ(limit(), Patience::shortest);
    EXPECT_EQ(patience.limit(enough, start + 1s), 10ms);
    EXPECT_EQ(patience.limit(enough, start + 2s), 20ms);
    EXPECT_EQ(patience.limit(enough, start + 1h), Patience::atFirst);
}

TEST_F(PatienceTest, isNoMoreThanAllConnectionsTogetherHaveLeft)
{
    EXPECT_EQ(patience.limit(10ms, start), 10ms);
    EXPECT_EQ(patience.limit(0ms, start), Patience::shortest);
}

TEST_F(PatienceTest, postsEarnSome)
{
    patience.spend(Patience::wholeShare, start);
    patience.received(std::size_t{160} * 1024);
    EXPECT_EQ(patience.limit(0ms, start), 10240us);
    patience.received(std::size_t{16} * 1024 * 1024);
    for (int count = 0; count < 10; ++count)
        patience.answered(1us);
    EXPECT_EQ(patience.limit(0ms, start), Patience::longest);
}

TEST_F(PatienceTest, littleByLittleTheyEarnJustAsMuch)
{
    patience.spend(Patience::wholeShare, start);
    for (int count = 0; count < 160 * 1024; ++count)
        patience.received(1);
    EXPECT_EQ(patience.limit(0ms, start), 10240us);
}

TEST_F(PatienceTest, onlyWhatIsNotEarnedIsBorneByAll)
{
    patience.received(std::size_t{160} * 1024);
    EXPECT_EQ(patience.spend(10ms, start), 0ms);
    EXPECT_EQ(patience.spend(10ms, start), 10ms - 240us);
}
TEST(SharedPatienceTest, isSpentAndNeverLessThanNothing)
{
    SharedPatience patience(start);
    EXPECT_EQ(patience.left(start), SharedPatience::most);
    patience.spend(300ms);
    EXPECT_EQ(patience.left(start), SharedPatience::most - 300ms);
    patience.spend(10s);
    EXPECT_EQ(patience.left(start), 0ms);
}

TEST(SharedPatienceTest, comesBackAtATwentiethOfTheTimeUpToItsMost)
{
    SharedPatience patience(start);
    patience.spend(SharedPatience::most);
    EXPECT_EQ(patience.left(start + 1s), 50ms);
    EXPECT_EQ(patience.left(start + 2s), 100ms);
    EXPECT_EQ(patience.left(start + 1h), SharedPatience::most);
}

TEST(SharedPatienceTest, comesBackJustAsFastHoweverOftenItIsAskedFor)
{
    SharedPatience patience(start);
    patience.spend(SharedPatience::most);
    TimePoint now = start;
    for (; now < start + 1s; now += 7us)
        patience.left(now);
    const auto left = patience.left(now);
    EXPECT_GE(left, 45ms);
    EXPECT_LE(left, 50ms);
}

TEST(SharedPatienceTest, lostAllTheTimeItIsATwentiethOfIt)
{
    SharedPatience patience(start);
    Patience::Duration waited{0};
    TimePoint now = start;
    for (; now < start + 100s; now += 10ms)
    {
        const auto wait = std::min<Patience::Duration>(patience.left(now), 10ms);
        patience.spend(wait);
        waited += wait;
    }
    EXPECT_LE(waited, SharedPatience::most + 100s / 20);
}
