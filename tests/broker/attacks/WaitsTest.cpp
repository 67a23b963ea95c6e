// Queries and "Sync"s beside peers that keep the broker waiting for their posts.

#include <atomic>
#include <thread>

#include "tests/broker/attacks/UnderAttack.h"
#include "tests/support/WireFrames.h"

namespace
{

using std::chrono::milliseconds;
using std::chrono::seconds;

// Says a little of a long message now and then, and so is always in the middle of it.
class Dawdler
{
public:
    Dawdler() : mPeer(ZmtpPeer::postPort)
    {
        EXPECT_TRUE(mPeer.shakeHands() && mPeer.write(WireFrames::header(1000 * 1000, 0)));
        mThread = std::thread(
            [this]
            {
                while (!mEnd.wait(milliseconds(1)))
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

// Asks for a "Sync" again as soon as it has its answer.
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

class Waits : public UnderAttack
{
protected:
    // That so many take less than half of what they would if each waited so long.
    void expectQuick(const std::string& request, int count, milliseconds wait)
    {
        requester.ask("Sync"); // the first is another matter
        const auto begin = std::chrono::steady_clock::now();
        for (int number = 0; number < count; ++number)
            EXPECT_NE(requester.ask(request), "");
        EXPECT_LT(std::chrono::steady_clock::now() - begin, allowed(count * wait / 2));
    }

    const std::string query = R"({"getClientInfoValue":"k"})";
};

} // namespace

TEST_F(Waits, aPeerInTheMiddleOfAMessageDoesNotDelayEachQuery)
{
    const Dawdler dawdler;
    expectQuick(query, 100, milliseconds(100));
}

TEST_F(Waits, aPeerInTheMiddleOfAMessageDoesNotDelayEachSync)
{
    const Dawdler dawdler;
    expectQuick("Sync", 20, seconds(1));
}

TEST_F(Waits, norDoesItBesideTheEndlessSyncsOfAnother)
{
    const Dawdler dawdler;
    const Syncer syncer;
    expectQuick("Sync", 10, seconds(2));
    expectQuick(query, 100, milliseconds(100));
}

TEST_F(Waits, manySuchPeersTogetherDelayNoMoreThanOne)
{
    std::vector<std::unique_ptr<Dawdler>> dawdlers;
    for (int count = 0; count < 50; ++count)
        dawdlers.push_back(std::make_unique<Dawdler>());
    expectQuick(query, 100, milliseconds(100));
    expectQuick("Sync", 20, seconds(1));
}
