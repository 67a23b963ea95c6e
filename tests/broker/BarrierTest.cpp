// Which peers the real broker pings before it confirms a "Sync".

#include <climits>
#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <numeric>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "tests/broker/Messages.h"
#include "tests/support/AsUser.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/RawClient.h"
#include "tests/support/UnreadBytes.h"
#include "tests/support/ZmtpPeer.h"

using namespace std::chrono_literals;
using namespace std::string_literals;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace
{

// How long a test watches that nothing comes.
constexpr milliseconds quiet{200};

// A connection that makes posts.
class Poster : public ZmtpPeer
{
public:
    Poster() : ZmtpPeer(postPort)
    {
        const int on = 1; // as libzmq does: the kernel must not hold posts back
        EXPECT_EQ(setsockopt(descriptor(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on), 0);
        EXPECT_TRUE(shakeHands());
        EXPECT_EQ(read(3), "\0\1\1"s) << "the subscription";
        EXPECT_TRUE(readFrame()) << "the PING behind it";
        EXPECT_TRUE(write(pong("subscribed")));
    }

    // The context of the next PING; empty if none comes.
    std::string awaitPing()
    {
        const auto frame = readFrame();
        if (!frame || frame->flags != WireFrames::command || frame->body.substr(0, 7) != "\4PING\0\0"s)
            return "";
        return frame->body.substr(7);
    }
};

// So many posts that a query behind them waits for the poster's PONG.
std::string manyPosts()
{
    std::string posts;
    for (int number = 0; posts.size() < std::size_t{64} * 1024; ++number)
        posts += ZmtpPeer::message(postOf("k", std::to_string(number)));
    return posts + ZmtpPeer::message(postOf("k", "before"));
}

// The broker reads the rest of an unfinished post of this length behind what others say.
constexpr std::size_t longBytes = std::size_t{32} * 1024;

// A poster in its own process. It answers no PING.
class PosterProcess
{
public:
    explicit PosterProcess(uid_t user = getuid())
    {
        if (pipe(mPipe) != 0 || (mPid = fork()) < 0)
            throw std::runtime_error("cannot create a process");
        if (mPid == 0)
            run(user);
        close(mPipe[0]);
    }

    ~PosterProcess()
    {
        close(mPipe[1]);
        if (mPid > 0)
            waitpid(mPid, nullptr, 0);
    }

    PosterProcess(const PosterProcess&) = delete;
    PosterProcess& operator=(const PosterProcess&) = delete;

    pid_t pid() const { return mPid; }

    // Makes many posts.
    void post() { EXPECT_EQ(write(mPipe[1], "p", 1), 1); }

    // Begins a long value of "long".
    void beginLongPost() { EXPECT_EQ(write(mPipe[1], "b", 1), 1); }

    // Returns when the rest of it has been sent.
    void endLongPost()
    {
        int status = 0;
        EXPECT_EQ(write(mPipe[1], "e", 1), 1);
        EXPECT_EQ(waitpid(mPid, &status, WUNTRACED), mPid);
        EXPECT_TRUE(WIFSTOPPED(status));
        EXPECT_EQ(kill(mPid, SIGCONT), 0);
    }

    // Ends the process. Returns whether it was pinged.
    bool isPinged()
    {
        int status = 0;
        EXPECT_EQ(write(mPipe[1], "x", 1), 1);
        waitpid(std::exchange(mPid, -1), &status, 0);
        return !WIFEXITED(status) || WEXITSTATUS(status) != EXIT_SUCCESS;
    }

private:
    [[noreturn]] void run(uid_t user)
    {
        EXPECT_EQ(setresuid(user, user, user), 0);
        const int end = dup2(mPipe[0], STDIN_FILENO);
        close_range(STDERR_FILENO + 1, UINT_MAX, 0); // so that it inherits no connection of the test
        Poster poster;
        const std::string longPost = ZmtpPeer::message(postOf("long", std::string(longBytes, 'x')));
        char letter = 0;
        while (::read(end, &letter, 1) == 1 && letter != 'x')
        {
            if (letter == 'p')
                EXPECT_TRUE(poster.write(manyPosts()));
            else if (letter == 'b')
                EXPECT_TRUE(poster.write(longPost.substr(0, longBytes / 2)));
            else
                EXPECT_TRUE(poster.write(longPost.substr(longBytes / 2)) && raise(SIGSTOP) == 0);
        }
        if (testing::Test::HasFailure() || letter != 'x')
            _exit(EXIT_FAILURE);
        _exit(poster.read(1, quiet).empty() ? EXIT_SUCCESS : EXIT_FAILURE);
    }

    int mPipe[2] = {-1, -1};
    pid_t mPid = -1;
};

// So many clients that reading a little of each takes longer than a turn of the broker, and far less than a
// query waits.
class Posters
{
public:
    Posters()
    {
        for (int number = 0; number < many; ++number)
            mPosters.push_back(std::make_unique<Poster>());
    }

    // A key of its own each, and more, but too little to be pinged for.
    void post(const std::string& value, const std::string& more) const
    {
        for (std::size_t number = 0; number < mPosters.size(); ++number)
            EXPECT_TRUE(mPosters[number]->write(
                ZmtpPeer::message(postOf("k" + std::to_string(number), value)) + more));
    }

    static bool areAllIn(const std::string& values, const std::string& value)
    {
        for (int number = 0; number < many; ++number)
        {
            if (values.find("\"k" + std::to_string(number) + "\":\"" + value + '"') == std::string::npos)
                return false;
        }
        return true;
    }

private:
    static constexpr int many = 32;
    std::vector<std::unique_ptr<Poster>> mPosters;
};

class BarrierTest : public testing::Test
{
protected:
    explicit BarrierTest(const std::vector<std::string>& launcher = {}) : broker({}, launcher) {}

    std::string clients() { return requester.ask(R"({"getBrokerClients":"null"})"); }

    // Waits until the broker knows this process.
    bool isKnown(pid_t pid)
    {
        const std::string member = "\"pid\":" + std::to_string(pid) + ',';
        return eventually([&] { return clients().find(member) != std::string::npos; });
    }

    // Waits until the broker has looked for the processes of all its clients, also of a client of this user.
    bool areAllLookedFor(uid_t user)
    {
        const std::string member = "\"uid\":" + std::to_string(user) + ',';
        return eventually(
            [&]
            {
                const std::string all = clients();
                return all.find(member) != std::string::npos &&
                       all.find(R"("complete":1)") != std::string::npos;
            });
    }

    struct Answered
    {
        bool isRight;
        steady_clock::duration time;
    };

    // Whether a request behind the posts of another process, which answers no PING, is answered before this
    // time. Each try has another such process, as the broker soon stops waiting for one.
    // @param awaitKnown waits until the broker knows all that it can know of the other process
    template <class AwaitKnown>
    bool isAnsweredBesideOthersPosts(const std::string& request, milliseconds limit, uid_t otherUser,
                                     AwaitKnown awaitKnown)
    {
        ZmtpPeer subscriber(ZmtpPeer::notifyPort);
        EXPECT_TRUE(subscriber.shakeHands());
        EXPECT_TRUE(subscriber.write(ZmtpPeer::subscribe("")));
        bool isAnswered = false;
        for (int tries = 5; tries != 0 && !isAnswered; --tries)
        {
            PosterProcess other(otherUser);
            EXPECT_TRUE(awaitKnown(other)); // before it posts: any request would wait behind its posts
            other.post();
            EXPECT_TRUE(
                eventually([&] { return subscriber.receiveText() == R"({"statusUpdate":{"k":"before"}})"; }));
            const auto begin = steady_clock::now();
            requester.send({request});
            EXPECT_TRUE(requester.receive());
            isAnswered = steady_clock::now() - begin < limit;
        }
        return isAnswered;
    }

    bool isAnsweredBesideOthersPosts(const std::string& request, milliseconds limit)
    {
        EXPECT_TRUE(isKnown(getpid()));
        return isAnsweredBesideOthersPosts(request, limit, getuid(),
                                           [&](const PosterProcess& other) { return isKnown(other.pid()); });
    }

    // A query waits for a limited time, in which a busy machine need not run the process that is waited for.
    // So a wrong answer counts only if it came early; otherwise the test asks again.
    template <class Ask>
    static void expectUnlessLate(milliseconds early, Ask ask)
    {
        EXPECT_TRUE(eventually(
            [&]
            {
                const Answered answered = ask();
                EXPECT_TRUE(answered.isRight || answered.time >= early) << "the broker did not wait";
                return answered.isRight || HasFailure();
            }));
    }

    // @param awaitKnown waits until the broker knows all that it should know of the poster
    template <class AwaitKnown>
    void expectQueriesToWaitForTheirPoster(AwaitKnown awaitKnown)
    {
        ZmtpPeer subscriber(ZmtpPeer::notifyPort);
        ASSERT_TRUE(subscriber.shakeHands());
        ASSERT_TRUE(subscriber.write(ZmtpPeer::subscribe("")));
        const std::string posts = manyPosts();
        expectUnlessLate(
            20ms,
            [&]
            {
                Poster poster;
                EXPECT_TRUE(awaitKnown());
                EXPECT_TRUE(poster.write(posts));
                EXPECT_TRUE(eventually(
                    [&] { return subscriber.receiveText() == R"({"statusUpdate":{"k":"before"}})"; }));
                const auto begin = steady_clock::now();
                requester.send({R"({"getClientInfoValue":"k"})"});
                const std::string context = poster.awaitPing();
                EXPECT_NE(context, "");
                const std::string after = ZmtpPeer::message(postOf("k", "after"));
                EXPECT_TRUE(poster.write(after + ZmtpPeer::pong(context)));
                return Answered{requester.receive() == std::vector<std::string>{reply("after")},
                                steady_clock::now() - begin};
            });
    }

    void SetUp() override { requester.ask("Sync"); } // the first Sync is special

    void expectAnswer() { EXPECT_EQ(requester.receive(), std::vector<std::string>{"SyncAck"}); }

    BrokerProcess broker;
    RawRequester requester;
};

constexpr uid_t anotherUser = 12345;

// Runs a command without any capability. It may not look at processes that have some.
const std::vector<std::string> withoutCapabilities{"/usr/bin/setpriv", "--bounding-set=-all",
                                                   "--inh-caps=-all"};

// Whether that works, and this process may be another user.
bool mayChangeRights()
{
    std::vector<std::string> trial = withoutCapabilities;
    trial.emplace_back("/bin/true");
    static const bool mayChange = asUser(anotherUser, [] {}) && TestProcess(trial).waitForExit() == 0;
    return mayChange;
}

// The broker may not look for processes, as in its unit. May be skipped: only root may become another user
// and take capabilities away. The build server tests as root, so the tests always run there. Elsewhere
// SameProcessTest judges the same connections without a broker.
class BlindBarrierTest : public BarrierTest
{
protected:
    BlindBarrierTest() : BarrierTest(mayChangeRights() ? withoutCapabilities : std::vector<std::string>()) {}

    void SetUp() override
    {
        if (!mayChangeRights())
            GTEST_SKIP() << "this process may not change its rights";
        BarrierTest::SetUp();
    }

    void TearDown() override
    {
        EXPECT_TRUE(!mayChangeRights() || clients().find("\"pid\"") == std::string::npos)
            << "it has found a process";
    }

    bool isAnsweredBesideOthersPosts(const std::string& request, milliseconds limit)
    {
        return BarrierTest::isAnsweredBesideOthersPosts(request, limit, anotherUser,
                                                        [this](const PosterProcess& /*other*/)
                                                        { return areAllLookedFor(anotherUser); });
    }
};

} // namespace

// More of its earlier posts may be under way.
TEST_F(BarrierTest, aSyncPingsPostersThatPostedAndTheNumberInItIsTheirs)
{
    Poster poster;
    ASSERT_TRUE(poster.write(ZmtpPeer::message(postOf("k", "v"))));
    ASSERT_TRUE(eventually([&] { return valueOf(requester, "k") == reply("v"); }));
    requester.send({"Sync"});
    const std::string context = poster.awaitPing();
    ASSERT_NE(context, "");
    EXPECT_LE(context.size(), 16U) << "the peer cuts longer contexts";
    ASSERT_FALSE(requester.receive(quiet)) << "the answer waits for PONG";
    ASSERT_TRUE(poster.write(ZmtpPeer::pong(context)));
    expectAnswer();
    EXPECT_EQ(poster.read(1, quiet), "");
}

// The kernel may deliver the "Sync" before a post that was written earlier.
TEST_F(BarrierTest, aSyncPingsThePosterOfItsClientThoughNothingHasCome)
{
    Poster poster;
    requester.send({"Sync"});
    const std::string context = poster.awaitPing();
    ASSERT_NE(context, "");
    ASSERT_TRUE(poster.write(ZmtpPeer::message(postOf("k", "v")) + ZmtpPeer::pong(context)));
    expectAnswer();
    EXPECT_EQ(valueOf(requester, "k"), reply("v"));
}

// The broker waits 100 ms, in which a busy machine may not run this process at all.
TEST_F(BarrierTest, aSyncWaitsForTheAnswerOfItsPoster)
{
    Poster poster;
    EXPECT_TRUE(eventually(
        [&]
        {
            requester.send({"Sync"});
            const std::string context = poster.awaitPing();
            const bool hasWaited = !requester.receive(std::chrono::milliseconds(5));
            EXPECT_TRUE(poster.write(ZmtpPeer::pong(context)));
            if (hasWaited)
                expectAnswer();
            return hasWaited;
        }));
}

// The broker reads both in one round when it wakes.
// May be skipped: the kernel lets only root become another user. The build server tests as root, so it always
// runs there.
TEST_F(BarrierTest, syncsOfTwoUsersPingThePosterOfEachOnce)
{
    std::unique_ptr<ZmtpPeer> otherRequester;
    std::unique_ptr<Poster> other;
    const auto connect = [&]
    {
        otherRequester = std::make_unique<ZmtpPeer>(ZmtpPeer::requestPort);
        other = std::make_unique<Poster>();
    };
    if (!asUser(12345, connect))
        GTEST_SKIP() << "this process may not be another user";
    ASSERT_TRUE(otherRequester->shakeHands());
    ASSERT_EQ(otherRequester->ask("Sync"), "SyncAck");
    Poster poster;
    broker.process().suspend();
    requester.send({"Sync"});
    ASSERT_TRUE(otherRequester->write(ZmtpPeer::request("Sync")));
    broker.process().signal(SIGCONT);
    for (Poster* each : {&poster, other.get()})
    {
        const std::string context = each->awaitPing();
        ASSERT_NE(context, "");
        ASSERT_TRUE(each->write(ZmtpPeer::pong(context)));
    }
    expectAnswer();
    EXPECT_EQ(otherRequester->receiveText(), "SyncAck");
    EXPECT_EQ(poster.read(1, quiet), "");
    EXPECT_EQ(other->read(1, quiet), "");
}

// The broker looks for processes when a client asks for them. From then on, it leaves other posters in peace.
TEST_F(BarrierTest, aSyncDoesNotPingThePosterOfAnotherProcessOfTheSameUser)
{
    ASSERT_TRUE(isKnown(getpid())); // before the other process inherits the socket
    PosterProcess other;
    ASSERT_TRUE(isKnown(other.pid()));
    requester.send({"Sync"});
    expectAnswer();
    EXPECT_FALSE(other.isPinged());
}

// May be skipped: the kernel lets only root become another user. The build server tests as root, so it always
// runs there.
TEST_F(BarrierTest, aSyncDoesNotPingPostersOfOtherUsersFromWhichNothingHasCome)
{
    std::unique_ptr<Poster> other;
    if (!asUser(12345, [&] { other = std::make_unique<Poster>(); }))
        GTEST_SKIP() << "this process may not be another user";
    requester.send({"Sync"});
    expectAnswer();
    EXPECT_EQ(other->read(1, quiet), "");
}

TEST_F(BarrierTest, aQueryDoesNotPingPostersFromWhichNothingHasCome)
{
    Poster poster;
    EXPECT_EQ(valueOf(requester, "k"), reply(""));
    EXPECT_EQ(poster.read(1, quiet), "");
}

// More of its client's earlier posts may be under way.
TEST_F(BarrierTest, aQueryWaitsForAPosterFromWhichMuchHasCome)
{
    expectQueriesToWaitForTheirPoster([] { return true; });
}

// A process may have made its sockets as different users. The broker waits until it knows better.
// May be skipped: the kernel lets only root become another user. The build server tests as root, so it always
// runs there.
TEST_F(BarrierTest, aQueryWaitsForAPosterThatMayBeItsClientsThoughAnotherUserMadeIt)
{
    ZmtpPeer subscriber(ZmtpPeer::notifyPort);
    ASSERT_TRUE(subscriber.shakeHands());
    ASSERT_TRUE(subscriber.write(ZmtpPeer::subscribe("")));
    expectUnlessLate(
        20ms,
        [&]
        {
            std::unique_ptr<Poster> poster;
            if (!asUser(12345, [&] { poster = std::make_unique<Poster>(); }))
                return Answered{true, 0ms};
            EXPECT_TRUE(poster->write(manyPosts()));
            EXPECT_TRUE(
                eventually([&] { return subscriber.receiveText() == R"({"statusUpdate":{"k":"before"}})"; }));
            const auto begin = steady_clock::now();
            requester.send({R"({"getClientInfoValue":"k"})"});
            const std::string context = poster->awaitPing();
            EXPECT_TRUE(poster->write(ZmtpPeer::message(postOf("k", "after")) + ZmtpPeer::pong(context)));
            return Answered{requester.receive() == std::vector<std::string>{reply("after")},
                            steady_clock::now() - begin};
        });
}

// They may be so many that they hold the broker up all the time. In vain, a query waits 25 ms at first.
TEST_F(BarrierTest, aQueryDoesNotWaitForThePostsOfAnotherProcess)
{
    EXPECT_TRUE(isAnsweredBesideOthersPosts(R"({"getClientInfoValue":"k"})", 12ms));
}

// Storing one may take many milliseconds.
TEST_F(BarrierTest, aQueryIsAnsweredBeforeTheLongPostsOfAnotherProcess)
{
    const auto held = [this] { return brokerStatistic(requester, "memory.connections"); };
    EXPECT_TRUE(isKnown(getpid()));
    PosterProcess other;
    ASSERT_TRUE(isKnown(other.pid()));
    const uint64_t before = held();
    other.beginLongPost();
    ASSERT_TRUE(eventually([&] { return held() >= before + longBytes / 2 - 100; }));
    broker.process().suspend();
    other.endLongPost();
    requester.send({R"({"getClientInfoValue":"long"})"});
    ASSERT_TRUE(eventually([] { return unreadBytes(ZmtpPeer::requestPort) != 0; }));
    broker.process().signal(SIGCONT);
    EXPECT_EQ(requester.receive(), std::vector<std::string>{reply("")});
    EXPECT_TRUE(eventually([&] { return valueOf(requester, "long") == reply(std::string(longBytes, 'x')); }));
}

// In the moment in which its client ends, a PING would reset the connection, and its last posts would be
// lost.
TEST_F(BarrierTest, aRequestPingsNoPosterOfAnotherProcess)
{
    EXPECT_TRUE(isKnown(getpid()));
    ZmtpPeer subscriber(ZmtpPeer::notifyPort);
    ASSERT_TRUE(subscriber.shakeHands());
    ASSERT_TRUE(subscriber.write(ZmtpPeer::subscribe("")));
    PosterProcess other;
    ASSERT_TRUE(isKnown(other.pid()));
    other.post();
    ASSERT_TRUE(eventually([&] { return subscriber.receiveText() == R"({"statusUpdate":{"k":"before"}})"; }));
    EXPECT_EQ(valueOf(requester, "k"), reply("before"));
    EXPECT_EQ(requester.ask("Sync"), "SyncAck");
    EXPECT_FALSE(other.isPinged());
}

// In vain, a "Sync" waits 250 ms at first.
TEST_F(BarrierTest, aSyncDoesNotWaitForThePostsOfAnotherProcess)
{
    EXPECT_TRUE(isAnsweredBesideOthersPosts("Sync", 125ms));
}

// May be skipped, like all tests of this suite: only root may take capabilities away, and become another
// user. The build server tests as root, so they always run there.
TEST_F(BlindBarrierTest, aQueryDoesNotWaitForThePostsOfAnotherUser)
{
    EXPECT_TRUE(isAnsweredBesideOthersPosts(R"({"getClientInfoValue":"k"})", 12ms));
}

TEST_F(BlindBarrierTest, aSyncDoesNotWaitForThePostsOfAnotherUser)
{
    EXPECT_TRUE(isAnsweredBesideOthersPosts("Sync", 125ms));
}

TEST_F(BlindBarrierTest, aQueryWaitsForAPosterOfItsUser)
{
    expectQueriesToWaitForTheirPoster([this] { return areAllLookedFor(getuid()); });
}

// Holds even if the broker has so much to read that it reads the posts of some clients late. A slower broker
// needs less for that, and is late with too much.
TEST_F(BarrierTest, aQueryIsAnsweredBehindAllPostsThatHadArrived)
{
    std::size_t size = std::size_t{10} * 1024;
    int round = 0;
    expectUnlessLate(50ms,
                     [&]
                     {
                         std::string rest;
                         for (int number = 0; rest.size() < size; ++number)
                             rest += ZmtpPeer::message(postOf("rest", std::to_string(number)));
                         size -= size / 4;
                         const std::string value = "v" + std::to_string(++round);
                         const Posters posters;
                         broker.process().suspend();
                         posters.post(value, rest);
                         requester.send({R"({"getClientInfo":"null"})"});
                         const auto begin = steady_clock::now();
                         broker.process().signal(SIGCONT);
                         const auto answer = requester.receive().value_or(std::vector<std::string>());
                         const std::string values = std::accumulate(answer.begin(), answer.end(), ""s);
                         return Answered{Posters::areAllIn(values, value), steady_clock::now() - begin};
                     });
}

// A client that is stopped delays other clients of its service only once.
TEST_F(BarrierTest, aPosterThatDoesNotAnswerIsNotPingedForEverySync)
{
    Poster silent;
    for (int count = 0; count < 5; ++count)
    {
        requester.send({"Sync"});
        expectAnswer();
    }
    EXPECT_NE(silent.awaitPing(), "");
    EXPECT_EQ(silent.read(1, quiet), "");
}
