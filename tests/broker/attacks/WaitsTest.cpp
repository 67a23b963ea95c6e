// Queries and "Sync"s next to peers that make the broker wait for their posts.

#include <algorithm>
#include <atomic>
#include <thread>

#include "tests/broker/attacks/UnderAttack.h"
#include "tests/support/WireFrames.h"

namespace
{

using std::chrono::milliseconds;

// Sends a little of a long message now and then, so it is always in the middle of it.
class Dawdler
{
public:
    explicit Dawdler(milliseconds pause) : mPeer(ZmtpPeer::postPort)
    {
        EXPECT_TRUE(mPeer.shakeHands() && mPeer.write(WireFrames::header(1000 * 1000, 0)));
        mThread = std::thread(
            [this, pause]
            {
                while (!mEnd.wait(pause))
                    mPeer.write("x");
            });
    }
    ~Dawdler()
    {
        mEnd.open();
        mPeer.shutDown();
        mThread.join();
    }

    Dawdler(const Dawdler&) = delete;
    Dawdler& operator=(const Dawdler&) = delete;

private:
    ZmtpPeer mPeer;
    Gate mEnd;
    std::thread mThread;
};

// Sends the next "Sync" as soon as the last is answered.
class Syncer
{
public:
    Syncer()
    {
        mThread = std::thread(
            [this]
            {
                RawRequester requester;
                while (!mIsEnding)
                    requester.ask("Sync");
            });
    }
    ~Syncer()
    {
        mIsEnding = true;
        mThread.join();
    }

    Syncer(const Syncer&) = delete;
    Syncer& operator=(const Syncer&) = delete;

private:
    std::atomic<bool> mIsEnding{false};
    std::thread mThread;
};

// A kind of request, and how long an answer may take.
struct Asked
{
    std::string request;
    milliseconds limit;
    int count;
};

const Asked queries{R"({"getClientInfoValue":"k"})", milliseconds(50), 300};
const Asked syncs{"Sync", milliseconds(100), 300};

// Asks one question after the other, and records their times. Stops early if far too many take too long.
class Waiting
{
public:
    Waiting(RawRequester& requester, const Asked& asked)
    {
        const milliseconds limit = allowed(asked.limit);
        for (int number = 0; number < asked.count && mTooLong < asked.count / 20; ++number)
        {
            const auto begin = std::chrono::steady_clock::now();
            EXPECT_NE(requester.ask(asked.request), "");
            mTimes.push_back(std::chrono::steady_clock::now() - begin);
            mTooLong += mTimes.back() > limit ? 1 : 0;
        }
        std::sort(mTimes.begin(), mTimes.end());
    }

    /// Half of them took no longer.
    std::chrono::nanoseconds median() const { return mTimes[mTimes.size() / 2]; }

    int tooLong() const { return mTooLong; }

private:
    std::vector<std::chrono::nanoseconds> mTimes;
    int mTooLong = 0;
};

class Waits : public UnderAttack
{
protected:
    Waits()
    {
        requester.ask("Sync"); // the first Sync is special
    }

    // Expects that hardly one request in a hundred takes longer than allowed, and that half of them take
    // almost no time. On a busy machine some take longer for other reasons. So as many as without these peers
    // may, too, and one of three attempts must succeed.
    template <class MakePeers>
    void expectQuick(const Asked& asked, MakePeers makePeers)
    {
        constexpr int attempts = 3;
        bool isQuick = false;
        for (int attempt = 0; attempt < attempts && !isQuick; ++attempt)
        {
            const Waiting alone(requester, asked);
            const auto peers = makePeers();
            const Waiting beside(requester, asked);
            isQuick = beside.tooLong() <= alone.tooLong() + asked.count / 100 &&
                      beside.median() < alone.median() + asked.limit / 10;
        }
        EXPECT_TRUE(isQuick) << asked.request;
    }
};

using Dawdlers = std::vector<std::unique_ptr<Dawdler>>;

// All together send as much as one, because what they send is work for the machine, too.
Dawdlers dawdlers(int count)
{
    Dawdlers all;
    for (int number = 0; number < count; ++number)
        all.push_back(std::make_unique<Dawdler>(milliseconds(count)));
    return all;
}

} // namespace

TEST_F(Waits, aPeerInTheMiddleOfAMessageDoesNotDelayEachQuery)
{
    expectQuick(queries, [] { return dawdlers(1); });
}

TEST_F(Waits, aPeerInTheMiddleOfAMessageDoesNotDelayEachSync)
{
    expectQuick(syncs, [] { return dawdlers(1); });
}

TEST_F(Waits, norDoesItBesideTheEndlessSyncsOfAnother)
{
    const Syncer syncer;
    expectQuick(syncs, [] { return dawdlers(1); });
    expectQuick(queries, [] { return dawdlers(1); });
}

TEST_F(Waits, manySuchPeersTogetherDelayNoMoreThanOne)
{
    expectQuick(queries, [] { return dawdlers(50); });
    expectQuick(syncs, [] { return dawdlers(50); });
}
