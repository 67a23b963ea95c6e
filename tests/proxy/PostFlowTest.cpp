// The flow of posts on real sockets, in simulated time. A peer takes a given number of posts a second, or
// none.

#include "statusmanager/PostFlow.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>
#include <zmq.hpp>

#include "tests/support/SimulatedTime.h"

namespace
{

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;
using News = PostFlow::News;

constexpr seconds budget{1};
constexpr microseconds returnedByOnePost{100};
constexpr microseconds onePause{50};

class PostFlowTest : public testing::Test
{
protected:
    PostFlowTest()
    {
        // Together the two have room for a thousand posts, like a PUB socket that sends over the network.
        mPub.set(zmq::sockopt::sndhwm, 999);
        mSub.set(zmq::sockopt::rcvhwm, 1);
        mSub.bind("inproc://posts");
        mPub.connect("inproc://posts");
        mSub.set(zmq::sockopt::subscribe, "");
        takeNotice();
    }

    void unsubscribe()
    {
        mSub.set(zmq::sockopt::unsubscribe, "");
        takeNotice();
    }

    void post()
    {
        const std::string number = std::to_string(mPosted++);
        zmq_msg_t frame;
        EXPECT_TRUE(flow.makeLastFrame(frame, number.data(), number.size()));
        EXPECT_EQ(flow.sendLastFrame(mPub.handle(), frame), static_cast<int>(number.size()));
        noteNews();
    }

    void post(int count)
    {
        for (int i = 0; i < count; ++i)
            post();
    }

    void flush(microseconds limit)
    {
        flow.flush(mPub.handle(), limit);
        noteNews();
    }

    void look()
    {
        flow.look();
        noteNews();
    }

    // The simulated time that a call takes.
    template <class Call>
    microseconds timeOf(Call call)
    {
        const microseconds begin = time.elapsed();
        call();
        return time.elapsed() - begin;
    }

    void take(std::size_t count)
    {
        zmq::message_t message;
        while (count-- > 0 && mSub.recv(message, zmq::recv_flags::dontwait))
            mTaken.push_back(std::stoi(message.to_string()));
    }

    // Takes until nothing is left.
    void takeAll() { take(SIZE_MAX); }

    // Posts now and then until the end of dropping is reported.
    void calmDown()
    {
        for (int i = 0; i < 100 && (news.empty() || news.back() != News::DroppingEnded); ++i)
        {
            takeAll();
            time.pass(milliseconds(50));
            post();
        }
        takeAll();
    }

    std::size_t posted() const { return static_cast<std::size_t>(mPosted); }
    std::size_t taken() const { return mTaken.size(); }
    std::size_t missing() const { return posted() - taken(); }
    bool isInOrder() const { return std::is_sorted(mTaken.begin(), mTaken.end()); }

    int takenPerSecond = 0;
    std::vector<News> news;        // everything but None
    std::vector<unsigned> dropped; // as reported with each end
    SimulatedTime time{[this](microseconds span) { letPeerWork(span); }};
    PostFlow flow;

private:
    // Makes each socket process the other's connection and subscription.
    void takeNotice()
    {
        static_cast<void>(mSub.get(zmq::sockopt::events));
        static_cast<void>(mPub.get(zmq::sockopt::events));
    }

    void noteNews()
    {
        const News latest = flow.takeNews();
        if (latest != News::None)
            news.push_back(latest);
        if (latest == News::DroppingEnded)
            dropped.push_back(flow.dropped());
    }

    void letPeerWork(microseconds span)
    {
        mOwed += span * takenPerSecond;
        const auto due = mOwed / seconds(1);
        mOwed -= due * seconds(1);
        take(static_cast<std::size_t>(due));
    }

    zmq::context_t mContext{0};
    zmq::socket_t mPub{mContext, zmq::socket_type::pub};
    zmq::socket_t mSub{mContext, zmq::socket_type::sub};
    int mPosted = 0;
    std::vector<int> mTaken;
    microseconds mOwed{0}; // multiplied by the peer's posts per second
};

} // namespace

// --------------------------------------------------------------------------------------------- a fast peer

TEST_F(PostFlowTest, losesNothingToAPeerThatTakesTenThousandASecondAndWaitsForItWithoutEnd)
{
    takenPerSecond = 11000; // slightly more
    post(100000);
    takeAll();
    EXPECT_EQ(missing(), 0U);
    EXPECT_TRUE(isInOrder());
    EXPECT_TRUE(news.empty());
    EXPECT_GT(time.elapsed(), seconds(8)); // it waited, in all much longer than a second
}

TEST_F(PostFlowTest, doesNotWaitWhileFewAreUnderWay)
{
    post(500);
    EXPECT_EQ(time.elapsed(), microseconds(0));
    takeAll();
    EXPECT_EQ(missing(), 0U);
}

// After the wait, posts leave as fast as they are made.
TEST_F(PostFlowTest, losesNothingToAPeerThatHasStoodStillForAWhile)
{
    for (int round = 0; round < 5; ++round)
    {
        post(500);
        flush(milliseconds(80)); // in vain
        for (int count = 0; count < 5000; ++count)
        {
            post();
            take(2);
        }
        takeAll();
    }
    EXPECT_EQ(missing(), 0U);
    EXPECT_TRUE(news.empty());
}

TEST_F(PostFlowTest, losesNothingBecauseThisProcessWasStoppedItself)
{
    takenPerSecond = 20000;
    post(1000);
    time.stopDuringNextSleep(seconds(10));
    post(20000);
    takeAll();
    EXPECT_EQ(missing(), 0U);
    EXPECT_TRUE(news.empty());
}

TEST_F(PostFlowTest, withoutSubscriberNothingIsWaitedForNorCountedAsDropped)
{
    unsubscribe();
    post(5000);
    EXPECT_EQ(time.elapsed(), microseconds(0));
    EXPECT_TRUE(news.empty());
    EXPECT_EQ(flow.dropped(), 0U);
}

TEST_F(PostFlowTest, aFrameThatIsDiscardedIsNeitherWaitedForNorCounted)
{
    post(10);
    for (int i = 0; i < 1000; ++i)
    {
        zmq_msg_t frame;
        ASSERT_TRUE(flow.makeLastFrame(frame, "x", 1));
        PostFlow::discardLastFrame(frame);
    }
    takeAll();
    EXPECT_EQ(timeOf([this] { flush(seconds(1)); }), microseconds(0));
    post(500);
    EXPECT_EQ(time.elapsed(), microseconds(0));
    EXPECT_TRUE(news.empty());
}

// ------------------------------------------------------------------------------- a peer that takes nothing

TEST_F(PostFlowTest, aPeerThatTakesNothingIsWaitedForASecondInAll)
{
    post(5000);
    EXPECT_GE(time.elapsed(), budget);
    EXPECT_LE(time.elapsed(), budget + onePause);
}

TEST_F(PostFlowTest, whatIsBeyondTheRoomIsDroppedAndReportedOnce)
{
    post(5000);
    EXPECT_EQ(news, std::vector<News>{News::DroppingBegan});
    EXPECT_EQ(flow.dropped(), 4000U);
    takeAll();
    EXPECT_EQ(taken(), 1000U);
    EXPECT_EQ(missing(), flow.dropped());
}

TEST_F(PostFlowTest, theEndOfDroppingIsReportedOnceWithTheNumberDropped)
{
    post(5000);
    calmDown();
    EXPECT_EQ(news, (std::vector<News>{News::DroppingBegan, News::DroppingEnded}));
    EXPECT_EQ(dropped, std::vector<unsigned>{4000});
    EXPECT_EQ(missing(), 4000U);
    post(10);
    EXPECT_EQ(news.size(), 2U);
}

TEST_F(PostFlowTest, droppingHasNotEndedBeforeASecondWithoutIt)
{
    post(5000);
    takeAll();
    time.pass(milliseconds(900));
    post();
    takeAll();
    EXPECT_EQ(news, std::vector<News>{News::DroppingBegan});
    time.pass(milliseconds(100));
    post();
    EXPECT_EQ(news, (std::vector<News>{News::DroppingBegan, News::DroppingEnded}));
}

TEST_F(PostFlowTest, theEndOfDroppingIsSeenByALookAlone)
{
    post(5000);
    takeAll();
    time.pass(milliseconds(900));
    look();
    EXPECT_TRUE(flow.isDropping());
    time.pass(milliseconds(100));
    look();
    EXPECT_FALSE(flow.isDropping());
    EXPECT_EQ(news, (std::vector<News>{News::DroppingBegan, News::DroppingEnded}));
    EXPECT_EQ(dropped, std::vector<unsigned>{4000});
}

TEST_F(PostFlowTest, aLookDoesNotEndDroppingWhilePostsAreUnderWay)
{
    post(5000);
    time.pass(seconds(2));
    look();
    EXPECT_TRUE(flow.isDropping());
}

TEST_F(PostFlowTest, anOverloadWithShortPausesIsReportedAsOne)
{
    for (int round = 0; round < 5; ++round)
    {
        post(3000);
        takeAll();
        time.pass(milliseconds(500));
    }
    calmDown();
    EXPECT_EQ(news, (std::vector<News>{News::DroppingBegan, News::DroppingEnded}));
    ASSERT_EQ(dropped.size(), 1U);
    EXPECT_EQ(dropped.front(), missing());
}

TEST_F(PostFlowTest, aLaterOverloadIsReportedAnewWithANumberOfItsOwn)
{
    post(5000);
    calmDown();
    const std::size_t before = missing();
    post(3000);
    calmDown();
    EXPECT_EQ(news, (std::vector<News>{News::DroppingBegan, News::DroppingEnded, News::DroppingBegan,
                                       News::DroppingEnded}));
    ASSERT_EQ(dropped.size(), 2U);
    EXPECT_EQ(dropped.front(), before);
    EXPECT_EQ(dropped.back(), missing() - before);
}

// -------------------------------------------------------------------------------------------- a slow peer

// Takes 900 a second of the 5,000 posts that are made.
class SlowPeer : public PostFlowTest
{
protected:
    static constexpr int madePerSecond = 5000;

    SlowPeer() { takenPerSecond = 900; }

    // Makes posts at their pace, and sends them one after the other. Posts queue while an earlier post is
    // being sent. Returns the greatest length of the queue.
    long overload(seconds duration)
    {
        constexpr microseconds interval = microseconds(seconds(1)) / madePerSecond;
        const microseconds begin = time.elapsed();
        long longest = 0;
        for (long count = 0; count < madePerSecond * duration.count(); ++count)
        {
            const microseconds due = begin + interval * count;
            if (time.elapsed() < due)
                time.pass(due - time.elapsed());
            longest = std::max(longest, static_cast<long>((time.elapsed() - due) / interval));
            post();
        }
        return longest;
    }
};

TEST_F(SlowPeer, isWaitedForASecondAndALittleForEachPostThatItTakes)
{
    const microseconds waiting = timeOf([this] { post(20000); });
    EXPECT_LE(waiting, budget + returnedByOnePost * static_cast<long>(taken()) + onePause);
}

TEST_F(SlowPeer, leavesABoundedNumberOfPostsUnsentHoweverLongItLasts)
{
    const long longest = overload(seconds(40));
    EXPECT_GT(longest, 0); // the peer is waited for
    EXPECT_LE(longest, madePerSecond * 3 / 2);
    EXPECT_LT(taken(), posted() / 4);
}

TEST_F(SlowPeer, isReportedOnceWithExactlyTheNumberThatDidNotArrive)
{
    overload(seconds(10));
    takeAll();
    calmDown();
    EXPECT_EQ(news, (std::vector<News>{News::DroppingBegan, News::DroppingEnded}));
    ASSERT_EQ(dropped.size(), 1U);
    EXPECT_EQ(dropped.front(), missing());
    EXPECT_GT(missing(), posted() / 2);
    EXPECT_TRUE(isInOrder());
}

// ------------------------------------------------------------------------------------------------ the budget

TEST_F(PostFlowTest, theWholeBudgetIsBackWhenAllHaveLeft)
{
    for (int round = 0; round < 3; ++round)
    {
        EXPECT_GE(timeOf([this] { post(600); }), budget) << round;
        takeAll();
        post(); // notices that all have left
        takeAll();
    }
    EXPECT_TRUE(news.empty());
}

TEST_F(PostFlowTest, eachPostThatLeavesReturnsALittleOfTheBudget)
{
    post(501);
    ASSERT_GE(time.elapsed(), budget);
    take(50);
    const microseconds waiting = timeOf([this] { post(200); });
    EXPECT_GE(waiting, returnedByOnePost * 50);
    EXPECT_LE(waiting, returnedByOnePost * 50 + onePause);
}

// ---------------------------------------------------------------------------------------------------- flush

TEST_F(PostFlowTest, flushingNothingTakesNoTime)
{
    EXPECT_EQ(timeOf([this] { flush(seconds(1)); }), microseconds(0));
    post();
    takeAll();
    EXPECT_EQ(timeOf([this] { flush(seconds(1)); }), microseconds(0));
}

TEST_F(PostFlowTest, flushingWaitsUntilAllHaveLeft)
{
    takenPerSecond = 1000;
    post(20);
    const microseconds waiting = timeOf([this] { flush(seconds(1)); });
    EXPECT_EQ(missing(), 0U);
    EXPECT_LE(waiting, milliseconds(20) + onePause);
}

TEST_F(PostFlowTest, flushingWaitsNoLongerThanItsLimit)
{
    post();
    const microseconds waiting = timeOf([this] { flush(milliseconds(80)); });
    EXPECT_GE(waiting, milliseconds(80));
    EXPECT_LE(waiting, milliseconds(80) + onePause);
}

TEST_F(PostFlowTest, flushesInARowWaitForASecondInAll)
{
    for (int round = 0; round < 100; ++round)
    {
        post();
        flush(milliseconds(80));
    }
    EXPECT_GE(time.elapsed(), budget);
    EXPECT_LE(time.elapsed(), budget + onePause);
}

TEST_F(PostFlowTest, flushingKeepsItsLimitAlsoWhenThisProcessIsStopped)
{
    post();
    time.stopDuringNextSleep(seconds(10));
    EXPECT_LE(timeOf([this] { flush(milliseconds(80)); }), seconds(10) + onePause);
}
