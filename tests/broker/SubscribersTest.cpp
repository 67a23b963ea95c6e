#include "broker/Subscribers.h"

#include <gtest/gtest.h>
#include <optional>

namespace
{

using namespace std::chrono_literals;

constexpr int first = 7;
constexpr int second = 8;

class SubscribersTest : public testing::Test
{
protected:
    SubscribersTest() { limits.notifyBytes = 100000; }

    void publish(int count, uint64_t bytes = 1000)
    {
        for (int number = 0; number < count; ++number)
            subscribers.published(bytes, ++revision);
    }

    // The subscriber has been sent this much and read all of it.
    void has(int descriptor, uint64_t bytes) { sent[descriptor] = {bytes, bytes}; }

    Subscribers::Verdict look()
    {
        return subscribers.look([this](int descriptor) { return std::optional(sent[descriptor]); }, now);
    }

    // How long it is waited for although it keeps taking.
    std::chrono::milliseconds waitFor(int descriptor)
    {
        std::chrono::milliseconds waited{0};
        uint64_t read = 0;
        sent[descriptor] = {0, 0};
        while (look().wait)
        {
            sent[descriptor].acknowledged = read += Subscribers::progress;
            now += 10ms;
            waited += 10ms;
        }
        return waited;
    }

    Limits limits;
    Subscribers subscribers{limits};
    std::map<int, Connection::Sent> sent;
    uint64_t revision = 0;
    TimePoint now{1000s};
};

} // namespace

TEST_F(SubscribersTest, oneThatTakesEverythingIsFine)
{
    subscribers.subscribed(first, {91, 91}, now);
    for (int round = 0; round < 100; ++round)
    {
        publish(50);
        has(first, 91 + static_cast<uint64_t>(round + 1) * 50000);
        const auto verdict = look();
        EXPECT_FALSE(verdict.wait);
        EXPECT_TRUE(verdict.hopeless.empty());
    }
}

TEST_F(SubscribersTest, whatWasPublishedBeforeDoesNotCount)
{
    publish(1000);
    subscribers.subscribed(first, {91, 91}, now);
    has(first, 91);
    now += 1h;
    EXPECT_TRUE(look().hopeless.empty());
}

TEST_F(SubscribersTest, oneThatIsBehindButTakingIsWaitedFor)
{
    subscribers.subscribed(first, {0, 0}, now);
    publish(150);
    for (uint64_t taken = 0; taken < 40; taken += 10)
    {
        has(first, taken * 1000);
        EXPECT_TRUE(look().wait);
        now += Subscribers::patience / 7;
    }
    has(first, 70000);
    const auto verdict = look();
    EXPECT_FALSE(verdict.wait);
    EXPECT_TRUE(verdict.hopeless.empty());
}

TEST_F(SubscribersTest, oneThatIsStillReadingIsWaitedForThoughNothingIsHandedOver)
{
    subscribers.subscribed(first, {0, 0}, now);
    publish(350);
    sent[first] = {200000, 0};
    look();
    now += Subscribers::patience - 1ms;
    sent[first].acknowledged = Subscribers::progress;
    EXPECT_TRUE(look().wait);
    now += Subscribers::patience - 1ms;
    EXPECT_TRUE(look().wait);
    now += 1ms;
    EXPECT_EQ(look().hopeless.size(), 1U);
}

TEST_F(SubscribersTest, oneThatTakesTooSlowlyIsHopelessWhenTheTimeForWaitingIsUsedUp)
{
    subscribers.subscribed(first, {0, 0}, now);
    publish(1000);
    EXPECT_EQ(waitFor(first), Subscribers::longestWait);
}

TEST_F(SubscribersTest, theTimeForWaitingIsThatOfAllTogether)
{
    subscribers.subscribed(first, {0, 0}, now);
    publish(1000);
    waitFor(first);
    subscribers.left(first);
    subscribers.subscribed(second, {0, 0}, now);
    publish(1000);
    EXPECT_EQ(waitFor(second), 0ms);
}

TEST_F(SubscribersTest, theTimeForWaitingComesBackWhileNobodyIsWaitedFor)
{
    subscribers.subscribed(first, {0, 0}, now);
    publish(1000);
    waitFor(first);
    subscribers.left(first);
    now += 200ms * Subscribers::workPerWait;
    subscribers.subscribed(second, {0, 0}, now);
    publish(1000);
    EXPECT_EQ(waitFor(second), 200ms);
}

TEST_F(SubscribersTest, inAHurryNobodyIsWaitedFor)
{
    subscribers.hurry();
    subscribers.subscribed(first, {0, 0}, now);
    publish(1000);
    EXPECT_EQ(waitFor(first), 0ms);
}

TEST_F(SubscribersTest, oneThatDoesNotTakeIsHopelessAfterAWhile)
{
    subscribers.subscribed(first, {0, 0}, now);
    subscribers.subscribed(second, {0, 0}, now);
    has(first, 0);
    publish(150);
    has(second, 150000);
    EXPECT_TRUE(look().wait);
    now += Subscribers::patience;
    const auto verdict = look();
    EXPECT_FALSE(verdict.wait);
    ASSERT_EQ(verdict.hopeless.size(), 1U);
    EXPECT_EQ(verdict.hopeless[0].descriptor, first);
}

TEST_F(SubscribersTest, whatItLosesIsCountedAndWhatItKnowsRemembered)
{
    subscribers.subscribed(first, {0, 0}, now);
    publish(150);
    has(first, 20500); // twenty, and a part of the next
    now += 1s;
    look();
    now += 1s;
    const auto verdict = look();
    ASSERT_EQ(verdict.hopeless.size(), 1U);
    EXPECT_EQ(verdict.hopeless[0].lostNotifications, 130U);
    EXPECT_EQ(verdict.hopeless[0].knownRevision, 20U);
}

TEST_F(SubscribersTest, oneThatTookNothingKnowsWhatWasPublishedBeforeIt)
{
    publish(10);
    subscribers.subscribed(first, {0, 0}, now);
    has(first, 0);
    publish(150);
    now += 1s;
    look();
    now += 1s;
    const auto verdict = look();
    ASSERT_EQ(verdict.hopeless.size(), 1U);
    EXPECT_EQ(verdict.hopeless[0].knownRevision, 10U);
    EXPECT_EQ(verdict.hopeless[0].lostNotifications, 150U);
}

TEST_F(SubscribersTest, smallMessagesCountForWhatTheyTakeInMemory)
{
    subscribers.subscribed(first, {0, 0}, now);
    has(first, 0);
    publish(1000, 10); // 10,000 bytes, 138,000 with what is around them
    now += 1s;
    EXPECT_EQ(look().hopeless.size(), 1U);
}

TEST_F(SubscribersTest, whatWasSentBeforeItsSubscriptionWasNoticedDoesNotHelpIt)
{
    subscribers.subscribed(first, {0, 0}, now);
    has(first, 5000); // more than has been published
    look();
    publish(150);
    now += 1s;
    look();
    now += 1s;
    const auto verdict = look();
    ASSERT_EQ(verdict.hopeless.size(), 1U);
    EXPECT_EQ(verdict.hopeless[0].lostNotifications, 150U);
}

TEST_F(SubscribersTest, aLookIsDueNowAndThen)
{
    subscribers.subscribed(first, {0, 0}, now);
    EXPECT_FALSE(subscribers.lookIsDue());
    publish(20);
    EXPECT_TRUE(subscribers.lookIsDue());
    look();
    EXPECT_FALSE(subscribers.lookIsDue());
}

TEST_F(SubscribersTest, oneThatLeftIsForgotten)
{
    subscribers.subscribed(first, {0, 0}, now);
    publish(150);
    subscribers.left(first);
    now += 1s;
    EXPECT_TRUE(look().hopeless.empty());
    EXPECT_EQ(subscribers.size(), 0U);
}

TEST_F(SubscribersTest, oneThatSubscribesAgainIsStillBehind)
{
    subscribers.subscribed(first, {0, 0}, now);
    publish(150);
    subscribers.subscribed(first, {0, 0}, now);
    now += 1s;
    EXPECT_EQ(look().hopeless.size(), 1U);
}

TEST_F(SubscribersTest, oneToAPartIsFineAsLongAsNothingIsUnsent)
{
    subscribers.subscribed(first, {0, 0}, now, false);
    publish(150);
    now += 1s;
    EXPECT_TRUE(look().hopeless.empty());
}

TEST_F(SubscribersTest, oneToAPartIsHopelessWhenItDoesNotTakeItsPart)
{
    subscribers.subscribed(first, {0, 0}, now, false);
    publish(150);
    now += 1s;
    sent[first] = {50000, 0, 1};
    EXPECT_FALSE(look().wait) << "it is not behind by more than the limit";
    publish(50);
    EXPECT_EQ(look().hopeless.size(), 1U);
}

TEST_F(SubscribersTest, oneThatCancelsIsOneToAPart)
{
    subscribers.subscribed(first, {0, 0}, now);
    subscribers.cancelled(first);
    publish(150);
    now += 1s;
    EXPECT_TRUE(look().hopeless.empty());
}
