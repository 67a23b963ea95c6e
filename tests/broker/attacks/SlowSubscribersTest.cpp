// Subscribers that read slowly, in part, or not at all.

#include <algorithm>
#include <atomic>
#include <csignal>
#include <future>
#include <map>
#include <utility>

#include "broker/IntakePause.h"
#include "tests/broker/attacks/UnderAttack.h"

namespace
{

using Duration = std::chrono::steady_clock::duration;

constexpr int smallBuffer = 32 * 1024;

bool has(const std::string& text, int number)
{
    return text.find("\"" + std::to_string(number) + "x") != std::string::npos;
}

// The next notification with a number other than this. While others subscribe, values are repeated.
std::string receiveNext(RawSubscriber& subscriber, int last)
{
    std::string text = subscriber.receiveText();
    while (has(text, last))
        text = subscriber.receiveText();
    return text;
}

class Subscribing : public UnderAttack
{
protected:
    Subscribing() : UnderAttack({"--max-notify-bytes=256K"}) {}

    // Makes the changes one after the other, and waits for each to arrive.
    void carryBurst(RawSubscriber& subscriber, int count)
    {
        for (int number = 1, received = 0; number <= count; ++number)
        {
            poster.post(postOf("k", std::to_string(number) + filler));
            for (; number % 250 == 0 && received < number; ++received)
            {
                const std::string text = receiveNext(subscriber, mLast);
                mLast = received + 1;
                ASSERT_TRUE(has(text, mLast)) << mLast << ": " << text;
            }
        }
    }

    // How long such a burst takes.
    Duration timeOfBurst(RawSubscriber& subscriber)
    {
        constexpr int count = 10000;
        const auto begin = std::chrono::steady_clock::now();
        carryBurst(subscriber, count);
        return std::chrono::steady_clock::now() - begin;
    }

    const std::string filler = std::string(300, 'x');

private:
    int mLast = 0; // the last number received
};

Duration median(std::vector<Duration> times)
{
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

bool waitForLine(TestProcess& process, const std::string& text)
{
    while (const std::optional<std::string> line = process.readLine())
    {
        if (*line == text)
            return true;
    }
    return false;
}

// A subscriber that reads only on demand.
class Sleepy
{
public:
    explicit Sleepy(const std::string& subscriptions) : mPeer(ZmtpPeer::notifyPort, smallBuffer)
    {
        EXPECT_TRUE(mPeer.shakeHands() && mPeer.write(subscriptions));
    }

    /// Reads until this value arrives.
    bool readsUntil(const std::string& name, const std::string& value,
                    std::chrono::milliseconds deadline = testDeadline)
    {
        while (const std::optional<std::string> text = mPeer.receiveText(deadline))
        {
            note(*text);
            if (values[name] == value)
                return true;
        }
        return false;
    }

    std::map<std::string, std::string> values; ///< the latest values of keys and events
    std::vector<std::string> events;           ///< each event with its value

private:
    // Reads the names and values between the quotes of a document without escapes.
    void note(const std::string& text)
    {
        std::vector<std::string> quoted;
        for (std::size_t from = text.find('"'); from != std::string::npos;)
        {
            const std::size_t to = text.find('"', from + 1);
            quoted.push_back(text.substr(from + 1, to - from - 1));
            from = text.find('"', to + 1);
        }
        for (std::size_t index = 1; index + 1 < quoted.size(); index += 2)
            values[quoted[index]] = quoted[index + 1];
        for (std::size_t index = 1; index + 1 < quoted.size() && quoted[0] == "eventUpdate"; index += 2)
            events.push_back(quoted[index + 1]);
    }

    ZmtpPeer mPeer;
};

// Much more than the log of notifications holds.
class SlowReader : public UnderAttack
{
protected:
    SlowReader() : UnderAttack({"--max-notify-bytes=512K"}) {}

    void expectWhole(int count, const std::string& filler)
    {
        RawSubscriber slow(poster);
        const auto post = [&]
        {
            for (int number = 1; number <= count; ++number)
                poster.post(postOf("k", std::to_string(number) + filler));
        };
        const std::future<void> posting = std::async(std::launch::async, post);
        for (int number = 1; number <= count; ++number)
        {
            const std::string text = receiveNext(slow, number - 1);
            ASSERT_TRUE(has(text, number)) << number << ": " << text;
        }
        posting.wait();
        EXPECT_EQ(statistic("subscribers.fallenBehind"), 0U);
    }
};

} // namespace

// ------------------------------------------------------------------------------------------ falling behind

TEST_F(Subscribing, oneThatStallsDelaysNobodyAndIsToldTheLatestValueWhenItReadsAgain)
{
    RawSubscriber healthy(poster);
    TestProcess stalled({TESTCLIENT, "watch", "k"});
    ASSERT_TRUE(stalled.readLine());
    poster.post(postOf("k", "0x"));
    ASSERT_TRUE(waitForLine(stalled, "k=0x")); // shows that it has subscribed
    ASSERT_TRUE(has(healthy.receiveText(), 0));
    stalled.suspend();
    const BrokerMemory memory(broker.process().pid());

    carryBurst(healthy, 50000);
    EXPECT_EQ(statistic("subscribers.fallenBehind"), 1U);
    EXPECT_EQ(statistic("clients.notifications"), 2U) << "slow subscribers are not cut off";
    memory.expectPeakWithin(8 * BrokerMemory::mebi);

    stalled.signal(SIGCONT);
    const std::string last = "k=50000" + filler;
    EXPECT_TRUE(waitForLine(stalled, last));
    EXPECT_EQ(statistic("limit.memory"), 0U);
}

// On a busy machine, the time of a single burst means nothing.
TEST_F(Subscribing, oneThatStallsTakesNoTimeOfOthers)
{
    constexpr std::size_t rounds = 7;
    RawSubscriber healthy(poster);
    std::vector<Duration> alone;
    std::vector<Duration> stalling;
    std::vector<Duration> beside;
    for (std::size_t round = 1; round <= rounds; ++round)
    {
        alone.push_back(timeOfBurst(healthy));
        const Sleepy stalled(ZmtpPeer::subscribe(""));
        ASSERT_TRUE(reaches("clients.notifications", 2));
        stalling.push_back(timeOfBurst(healthy));
        ASSERT_TRUE(reaches("subscribers.fallenBehind", round));
        beside.push_back(timeOfBurst(healthy));
    }
    EXPECT_LT(median(stalling).count(), (2 * median(alone) + IntakePause::most).count())
        << "while it falls behind";
    EXPECT_LT(median(beside).count(), 2 * median(alone).count());
}

TEST_F(Subscribing, oneThatReadsAgainHasTheLatestValueOfEachKeyHoweverItSubscribed)
{
    const std::string toAll = ZmtpPeer::subscribe("");
    int round = 0;
    for (const std::string& subscriptions :
         {toAll, ZmtpPeer::subscribe(R"({"statusUpdate")"), toAll + toAll, ZmtpPeer::subscribe30("")})
    {
        Sleepy sleepy(subscriptions);
        const std::string tag = std::to_string(++round);
        poster.post(postOf("mark", "begin" + tag));
        ASSERT_TRUE(sleepy.readsUntil("mark", "begin" + tag));
        constexpr int keys = 20;
        const auto key = [](int number) { return "k" + std::to_string(number % keys); };
        constexpr int posts = 500;
        for (int number = 0; number < posts; ++number)
        {
            poster.post(postOf(key(number), std::to_string(number) + std::string(30000, 'x')));
            poster.post(postOf("once" + std::to_string(number), tag));
        }
        EXPECT_TRUE(reaches("subscribers.fallenBehind", static_cast<uint64_t>(round)));
        for (int number = 0; number < keys; ++number)
            poster.post(postOf(key(number), "last" + std::to_string(number) + tag));
        poster.post(postOf("mark", "end" + tag));
        EXPECT_TRUE(sleepy.readsUntil("mark", "end" + tag));
        for (int number = 0; number < keys; ++number)
            EXPECT_EQ(sleepy.values[key(number)], "last" + std::to_string(number) + tag);
        for (int number = 0; number < posts; ++number)
            EXPECT_EQ(sleepy.values["once" + std::to_string(number)], tag);
        EXPECT_EQ(statistic("clients.notifications"), 1U) << "it was not cut off";
    }
}

TEST_F(Subscribing, eventsThatOneMissesAreCountedToTheLast)
{
    Sleepy sleepy(ZmtpPeer::subscribe(""));
    poster.post(postOf("mark", "begin"));
    ASSERT_TRUE(sleepy.readsUntil("mark", "begin"));
    constexpr uint64_t count = 20000;
    for (uint64_t number = 0; number < count; ++number)
        poster.post(R"({"postEvent":{"e":")" + std::to_string(number) + std::string(1000, 'x') + "\"}}");
    poster.post(postOf("mark", "end"));
    EXPECT_TRUE(reaches("posts", count + 2));
    EXPECT_TRUE(sleepy.readsUntil("mark", "end"));
    EXPECT_LT(sleepy.events.size(), count);
    EXPECT_TRUE(reaches("notifications.missedEvents", 1));
    EXPECT_EQ(statistic("notifications.missedEvents") + sleepy.events.size(), count);
    const auto number = [](const std::string& event) { return std::stoul(event); };
    EXPECT_TRUE(std::is_sorted(sleepy.events.begin(), sleepy.events.end(),
                               [&](const auto& one, const auto& other)
                               { return number(one) < number(other); }));
}

// --------------------------------------------------------------------------------------- not falling behind

// The broker receives both at once.
TEST_F(Subscribing, aNewOneGetsTheEventsThatArePostedRightBehindItsSubscription)
{
    ZmtpPeer posting(ZmtpPeer::postPort);
    ASSERT_TRUE(posting.shakeHands());
    ZmtpPeer subscriber(ZmtpPeer::notifyPort);
    ASSERT_TRUE(subscriber.shakeHands());
    ASSERT_TRUE(reaches("clients.posts", 2) && reaches("clients.notifications", 1)); // the broker is idle
    broker.process().suspend();
    ASSERT_TRUE(subscriber.write(ZmtpPeer::subscribe("")));
    ASSERT_TRUE(posting.write(ZmtpPeer::message(R"({"postEvent":{"e":"v"}})")));
    broker.process().signal(SIGCONT);
    EXPECT_EQ(subscriber.receiveText(), R"({"eventUpdate":{"e":"v"}})");
}

TEST_F(SlowReader, getsABurstOfShortMessagesWhole)
{
    expectWhole(30000, "x");
}

TEST_F(SlowReader, getsABurstOfLongMessagesWhole)
{
    expectWhole(10000, std::string(500, 'x'));
}

TEST_F(Subscribing, oneOfOnlyAPartIsNeverTakenForStalled)
{
    Sleepy events(ZmtpPeer::subscribe(R"({"eventUpdate")"));
    ASSERT_TRUE(eventually( // shows that it has subscribed
        [&]
        {
            poster.post(R"({"postEvent":{"e":"first"}})");
            return events.readsUntil("e", "first", std::chrono::milliseconds(10));
        }));
    for (int number = 1; number <= 10000; ++number)
    {
        poster.post(postOf("k", std::to_string(number) + std::string(100, 'x')));
        if (number % 250 == 0)
            expectServing();
    }
    poster.post(R"({"postEvent":{"e":"last"}})");
    EXPECT_TRUE(events.readsUntil("e", "last"));
    EXPECT_EQ(statistic("subscribers.fallenBehind"), 0U);
    EXPECT_EQ(statistic("notifications.missedEvents"), 0U);
}

TEST_F(Subscribing, oneThatReadsTooSlowlyDelaysNobodyForLong)
{
    ZmtpPeer slow(ZmtpPeer::notifyPort, smallBuffer);
    ASSERT_TRUE(slow.shakeHands() && slow.write(ZmtpPeer::subscribe("")));
    Gate end;
    const std::future<void> reading = std::async(std::launch::async,
                                                 [&]
                                                 {
                                                     while (!end.wait(std::chrono::milliseconds(20)))
                                                         slow.read(smallBuffer);
                                                 });
    for (int number = 0; number < 1000; ++number)
        poster.post(postOf("k", std::to_string(number) + std::string(30000, 'x')));
    std::chrono::steady_clock::duration longest{0};
    const auto hasFallenBehind = [&]
    {
        const auto begin = std::chrono::steady_clock::now();
        const bool has = statistic("subscribers.fallenBehind") > 0;
        longest = std::max(longest, std::chrono::steady_clock::now() - begin);
        return has;
    };
    EXPECT_TRUE(eventually(hasFallenBehind));
    EXPECT_LT(longest, allowed(std::chrono::seconds(2)));
    EXPECT_TRUE(reaches("posts", 1000));
    end.open();
    reading.wait();
    EXPECT_EQ(statistic("clients.notifications"), 1U);
}

// ------------------------------------------------------------------------------------------- subscriptions

TEST_F(Subscribing, subscriptionsThatAreTooManyOrTooLongAreRefusedAndCounted)
{
    constexpr int most = 16;
    std::string many;
    for (int number = 0; number < most + 100; ++number)
        many += ZmtpPeer::subscribe("{\"statusUpdate\":{\"" + std::to_string(number) + "\"");
    Sleepy sleepy(ZmtpPeer::subscribe(std::string(256, 'x')) + many);
    EXPECT_TRUE(reaches("limit.subscriptions", 101));
    EXPECT_TRUE(broker.process().waitForError("Subscription refused, a connection may have 16 of 255 bytes"));
    poster.post(postOf("7", "kept"));
    EXPECT_TRUE(sleepy.readsUntil("7", "kept"));
    EXPECT_EQ(statistic("limit.subscriptions"), 101U);
}

// Closing them takes no longer than closing others: 256 KiB of prefixes once took seconds.
TEST_F(Subscribing, onesWithManyPrefixesThatCloseDelayNobody)
{
    std::string prefixes;
    uint64_t count = 0;
    for (; prefixes.size() < std::size_t{256} * 1024; ++count)
        prefixes += ZmtpPeer::subscribe(std::to_string(count) + std::string(200, 'x'));
    Bystander bystander(requester);
    constexpr int rounds = 50;
    for (int round = 1; round <= rounds; ++round)
    {
        ZmtpPeer peer(ZmtpPeer::notifyPort);
        ASSERT_TRUE(peer.shakeHands() && peer.write(prefixes));
        ASSERT_TRUE(reaches("limit.subscriptions", static_cast<uint64_t>(round) * (count - 16)));
    }
    bystander.expectServed();
    EXPECT_LT(std::chrono::microseconds(statistic("loop.maxMicroseconds")), allowed(std::chrono::seconds(1)));
}
