// How long requests wait for the answers of post connections: with time as an argument.

#include "broker/Patience.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace
{

const TimePoint start = TimePoint() + 1h;

} // namespace

TEST(PatienceTest, doublesWithEachAnswerInTimeUpToItsLongest)
{
    Patience patience;
    EXPECT_EQ(patience.now(), Patience::atFirst);
    patience.answered(Patience::atFirst);
    EXPECT_EQ(patience.now(), 2 * Patience::atFirst);
    for (int count = 0; count < 10; ++count)
        patience.answered(1us);
    EXPECT_EQ(patience.now(), Patience::longest);
}

TEST(PatienceTest, doesNotGrowWithAnAnswerThatIsLate)
{
    Patience patience;
    patience.answered(Patience::atFirst + 1us);
    EXPECT_EQ(patience.now(), Patience::atFirst);
}

TEST(PatienceTest, isAQuarterAfterEachAnswerThatDoesNotComeDownToItsShortest)
{
    Patience patience;
    patience.disappointed();
    EXPECT_EQ(patience.now(), Patience::atFirst / 4);
    for (int count = 0; count < 10; ++count)
        patience.disappointed();
    EXPECT_EQ(patience.now(), Patience::shortest);
}

TEST(PatienceTest, comesBackWithAnswersInTime)
{
    Patience patience;
    for (int count = 0; count < 10; ++count)
        patience.disappointed();
    for (int count = 0; count < 10; ++count)
        patience.answered(Patience::shortest);
    EXPECT_EQ(patience.now(), Patience::longest);
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
