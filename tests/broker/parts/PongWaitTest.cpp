// How long requests wait for a post connection, with numbers of barriers and time as arguments.

#include "broker/PongWait.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace
{

constexpr auto enough = SharedPatience::most;
constexpr auto limit = Patience::atFirst;
const TimePoint start = TimePoint() + 1h;

class PongWaitTest : public testing::Test
{
protected:
    // Opens a barrier, and sends its PING if that is due.
    void open(uint64_t barrier, TimePoint now, bool isForSync = false, std::size_t unread = 0)
    {
        wait.want(barrier, isForSync, unread, enough, now);
        if (wait.pingDue() != 0)
            wait.pinged(now);
    }

    bool answer(uint64_t barrier, TimePoint now)
    {
        PongWait::Duration part{0};
        const bool isAnswer = wait.ponged(barrier, now, part);
        cost += part;
        return isAnswer;
    }

    TimePoint endFor(uint64_t barrier, TimePoint opened) const { return wait.endFor(barrier, false, opened); }

    PongWait wait{start};
    PongWait::Duration cost{0};
};

constexpr TimePoint notAtAll = TimePoint::min();

} // namespace

TEST_F(PongWaitTest, aRequestBehindABarrierWaitsForItsAnswer)
{
    EXPECT_EQ(endFor(1, start), notAtAll);
    open(1, start);
    EXPECT_EQ(endFor(1, start), start + limit);
    EXPECT_EQ(wait.endFor(1, true, start), start + Patience::syncFactor * limit);
    EXPECT_EQ(endFor(2, start), notAtAll) << "barrier 2 was opened when everything had come";
    EXPECT_TRUE(answer(1, start + 1ms));
    EXPECT_EQ(endFor(1, start), notAtAll);
    EXPECT_FALSE(wait.owes());
}

TEST_F(PongWaitTest, anAnswerToALaterPingIsOneToTheEarlierOnes)
{
    open(1, start);
    open(2, start);
    EXPECT_TRUE(answer(2, start + 1ms));
    EXPECT_EQ(endFor(1, start), notAtAll);
    EXPECT_FALSE(wait.owes());
}

TEST_F(PongWaitTest, onlyAnAnswerToAPingCounts)
{
    EXPECT_FALSE(answer(0, start));
    EXPECT_FALSE(answer(1, start));
    open(1, start);
    EXPECT_FALSE(answer(2, start));
    EXPECT_TRUE(answer(1, start));
    EXPECT_FALSE(answer(1, start)) << "once";
}

TEST_F(PongWaitTest, lateAnswersToEarlierPingsDoNotProlongTheWait)
{
    for (uint64_t barrier = 1; barrier <= 5; ++barrier)
        open(barrier, start);
    for (uint64_t barrier = 1; barrier <= 4; ++barrier)
    {
        answer(barrier, start + limit + barrier * limit);
        EXPECT_LE(endFor(5, start), start + Patience::longest);
    }
}

TEST_F(PongWaitTest, aPingBehindTheMostUnderWayIsSentWhenAnAnswerHasCome)
{
    for (uint64_t barrier = 1; barrier <= PongWait::mostUnderWay; ++barrier)
        open(barrier, start);
    wait.want(20, false, 0, enough, start);
    wait.want(21, false, 0, enough, start);
    EXPECT_EQ(wait.pingDue(), 0U);
    EXPECT_EQ(endFor(20, start), start + limit) << "it is waited for";
    EXPECT_TRUE(answer(1, start));
    EXPECT_EQ(wait.pingDue(), 21U);
    wait.pinged(start);
    EXPECT_EQ(wait.pingDue(), 0U);
    EXPECT_TRUE(answer(21, start));
    EXPECT_EQ(endFor(20, start), notAtAll);
}

TEST_F(PongWaitTest, queriesDoNotWaitForWhatIsOfInterestToASyncOnly)
{
    open(1, start, true);
    EXPECT_EQ(endFor(1, start), notAtAll);
    EXPECT_EQ(wait.endFor(1, true, start), start + Patience::syncFactor * limit);
    open(2, start);
    EXPECT_EQ(endFor(2, start), start + limit);
    open(3, start, true);
    EXPECT_EQ(endFor(2, start), start + limit) << "still";
}

TEST_F(PongWaitTest, anAnswerThatDoesNotComeIsJudgedAtTheEndOfQueriesAndOfSyncs)
{
    open(1, start);
    EXPECT_EQ(wait.due(), start + limit);
    wait.judge(start + limit);
    EXPECT_EQ(wait.due(), start + Patience::syncFactor * limit);
    EXPECT_TRUE(wait.isAwaited());
    wait.judge(wait.due());
    EXPECT_EQ(wait.due(), TimePoint::max());
    EXPECT_FALSE(wait.isAwaited());
    EXPECT_TRUE(wait.owes());
}

TEST_F(PongWaitTest, oneThatOwesAnAnswerForTooLongIsNotWaitedForUntilItAnswers)
{
    open(1, start);
    wait.judge(start + 1h);
    wait.judge(start + 1h);
    open(2, start + 1h);
    EXPECT_EQ(endFor(2, start + 1h), notAtAll);
    EXPECT_TRUE(answer(1, start + 1h));
    open(3, start + 1h);
    EXPECT_GT(endFor(3, start + 1h), start + 1h);
}

TEST_F(PongWaitTest, aWaitIsPaidForOnceHoweverManyPingsAreUnderWay)
{
    open(1, start);
    open(2, start + 1ms);
    open(3, start + 2ms);
    answer(1, start + 20ms);
    EXPECT_EQ(cost, 20ms - Patience::shortest);
    answer(2, start + 21ms);
    answer(3, start + 22ms);
    EXPECT_EQ(cost, 22ms - Patience::shortest);
}

TEST_F(PongWaitTest, anAnswerAtOnceCostsNothing)
{
    open(1, start);
    answer(1, start + Patience::shortest);
    EXPECT_EQ(cost, 0ms);
}

TEST_F(PongWaitTest, aWaitInVainIsPaidForToo)
{
    open(1, start);
    EXPECT_EQ(wait.judge(start + limit), limit - Patience::shortest);
    EXPECT_EQ(wait.judge(wait.due()), (Patience::syncFactor - 1) * limit / Patience::syncFactor)
        << "only a Sync waited";
}

TEST_F(PongWaitTest, oneThatGoesPaysForWhatItOwes)
{
    EXPECT_EQ(wait.abandon(start), 0ms);
    open(1, start);
    EXPECT_EQ(wait.abandon(start + 20ms), 20ms - Patience::shortest);
}

TEST_F(PongWaitTest, whatOnlyASyncWaitsForCostsLess)
{
    open(1, start, true);
    answer(1, start + 11ms);
    EXPECT_EQ(cost, 1ms);
}

TEST_F(PongWaitTest, onePeerThatAnswersEachPingLateMakesOthersWaitForALittleOnly)
{
    PongWait::Duration waited{0};
    TimePoint now = start;
    for (uint64_t barrier = 1; barrier <= 1000; ++barrier)
    {
        open(barrier, now);
        const TimePoint end = endFor(barrier, now) - 1us;
        waited += std::chrono::duration_cast<PongWait::Duration>(end - now);
        now = end;
        answer(barrier, now);
    }
    EXPECT_LE(waited, Patience::wholeShare + 1000 * 2 * Patience::shortest);
}

TEST_F(PongWaitTest, oneOfWhichMuchIsUnreadIsWaitedForLongerAndDoesNotPayForIt)
{
    constexpr std::size_t unread = 10;
    open(1, start, false, unread);
    EXPECT_EQ(endFor(1, start), start + Patience::longest);
    EXPECT_EQ(wait.due(), TimePoint::max()) << "the connection is not to blame";
    EXPECT_EQ(wait.abandon(start + 50ms), 0ms);
    wait.read(unread - 1, start + 40ms);
    EXPECT_TRUE(wait.isUnread());
    EXPECT_EQ(endFor(1, start), start + Patience::longest);
    wait.read(1, start + 50ms);
    EXPECT_FALSE(wait.isUnread());
    EXPECT_EQ(endFor(1, start), start + 50ms + limit) << "the PING is sent only now";
    EXPECT_EQ(endFor(1, start - 40ms), start - 40ms + Patience::longest) << "in all";
    EXPECT_EQ(wait.due(), start + 50ms + limit);
    answer(1, start + 53ms);
    EXPECT_EQ(cost, 3ms - Patience::shortest);
    open(2, start + 1h);
    EXPECT_EQ(endFor(2, start + 1h), start + 1h + 2 * limit) << "it answered in time";
}

TEST_F(PongWaitTest, oneThatOwesAnAnswerForTooLongIsWaitedForOnlyIfMuchHasArrived)
{
    open(1, start);
    wait.judge(start + 1h);
    wait.judge(start + 1h);
    open(2, start + 1h, false, PongWait::muchUnread - 1);
    EXPECT_EQ(endFor(2, start + 1h), notAtAll);
    open(3, start + 1h, false, PongWait::muchUnread);
    EXPECT_EQ(endFor(3, start + 1h), start + 1h + Patience::longest);
}

// Its answer may be among the bytes that could not be read.
TEST_F(PongWaitTest, oneThatOwesAnAnswerForTooLongIsWaitedForAgainIfItCouldNotBeRead)
{
    open(1, start);
    wait.judge(start + 1h);
    wait.judge(start + 1h);
    ASSERT_TRUE(wait.hasGivenUp());
    wait.wasNotRead();
    open(2, start + 1h, false, 1);
    EXPECT_EQ(endFor(2, start + 1h), start + 1h + Patience::longest);
    EXPECT_TRUE(wait.isAwaited());
}

TEST_F(PongWaitTest, aSyncWaitsForALongTimeUnlessAnAnswerDidNotCome)
{
    open(1, start);
    EXPECT_FALSE(wait.isShorterThan(100ms));
    wait.judge(start + 1h);
    EXPECT_FALSE(wait.hasGivenUp());
    open(2, start + 1h);
    EXPECT_TRUE(wait.isShorterThan(100ms)) << "a quarter of the time, ten times";
    wait.judge(start + 2h);
    EXPECT_TRUE(wait.isShorterThan(1ms));
}
