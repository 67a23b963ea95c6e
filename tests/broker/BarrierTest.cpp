// Whom the real broker asks by a PING before it confirms a "Sync".

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
#include "tests/support/ZmtpPeer.h"

using namespace std::string_literals;

namespace
{

// How long what must not come is waited for.
constexpr std::chrono::milliseconds quiet{200};

// A connection on which posts are made.
class Poster : public ZmtpPeer
{
public:
    Poster() : ZmtpPeer(postPort)
    {
        const int on = 1; // as libzmq; what is written must not stay in this process's kernel
        EXPECT_EQ(setsockopt(descriptor(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on), 0);
        EXPECT_TRUE(shakeHands());
        EXPECT_EQ(read(3), "\0\1\1"s) << "the subscription";
        EXPECT_TRUE(readFrame()) << "the PING behind it";
        EXPECT_TRUE(write(pong("subscribed")));
    }

    // The context of the PING that comes; empty if none does.
    std::string awaitPing()
    {
        const auto frame = readFrame();
        if (!frame || frame->flags != WireFrames::command || frame->body.substr(0, 7) != "\4PING\0\0"s)
            return "";
        return frame->body.substr(7);
    }
};

// A poster that is a process of its own.
class PosterProcess
{
public:
    PosterProcess()
    {
        if (pipe(mPipe) != 0 || (mPid = fork()) < 0)
            throw std::runtime_error("cannot make a process");
        if (mPid == 0)
            run();
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

    // Ends it.
    bool isPinged()
    {
        int status = 0;
        EXPECT_EQ(write(mPipe[1], "x", 1), 1);
        waitpid(std::exchange(mPid, -1), &status, 0);
        return !WIFEXITED(status) || WEXITSTATUS(status) != EXIT_SUCCESS;
    }

private:
    [[noreturn]] void run()
    {
        const int end = dup2(mPipe[0], STDIN_FILENO);
        close_range(STDERR_FILENO + 1, UINT_MAX, 0); // so that it has no connection of the test
        Poster poster;
        char letter = 0;
        if (testing::Test::HasFailure() || ::read(end, &letter, 1) != 1)
            _exit(EXIT_FAILURE);
        _exit(poster.read(1, quiet).empty() ? EXIT_SUCCESS : EXIT_FAILURE);
    }

    int mPipe[2] = {-1, -1};
    pid_t mPid = -1;
};

class BarrierTest : public testing::Test
{
protected:
    // The broker has found the process of a connection.
    bool isKnown(pid_t pid)
    {
        const std::string member = "\"pid\":" + std::to_string(pid) + ',';
        return eventually(
            [&]
            { return requester.ask(R"({"getBrokerClients":"null"})").find(member) != std::string::npos; });
    }

    void SetUp() override { requester.ask("Sync"); } // the first is another matter

    void expectAnswer() { EXPECT_EQ(requester.receive(), std::vector<std::string>{"SyncAck"}); }

    BrokerProcess broker;
    RawRequester requester;
};

} // namespace

// As more of what it posted before may be under way.
TEST_F(BarrierTest, aSyncPingsPostersThatPostedAndTheNumberInItIsTheirs)
{
    Poster poster;
    ASSERT_TRUE(poster.write(ZmtpPeer::message(postOf("k", "v"))));
    ASSERT_TRUE(eventually([&] { return valueOf(requester, "k") == reply("v"); }));
    requester.send({"Sync"});
    const std::string context = poster.awaitPing();
    ASSERT_NE(context, "");
    EXPECT_LE(context.size(), 16U) << "longer ones are cut by the peer";
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

// For 100 ms, in which this process need not run each time.
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

// In one round of the broker, which reads both as it wakes. Only root can be another user.
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

// The processes are looked for when somebody asks for them; from then on the posters of others stay in peace.
TEST_F(BarrierTest, aSyncDoesNotPingThePosterOfAnotherProcessOfTheSameUser)
{
    ASSERT_TRUE(isKnown(getpid())); // before the other process inherits the socket
    PosterProcess other;
    ASSERT_TRUE(isKnown(other.pid()));
    requester.send({"Sync"});
    expectAnswer();
    EXPECT_FALSE(other.isPinged());
}

// Only root can be another user.
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

// More of what its client had posted before may be under way.
TEST_F(BarrierTest, aQueryWaitsForAPosterFromWhichMuchHasCome)
{
    ZmtpPeer subscriber(ZmtpPeer::notifyPort);
    ASSERT_TRUE(subscriber.shakeHands());
    ASSERT_TRUE(subscriber.write(ZmtpPeer::subscribe("")));
    Poster poster;
    std::string posts;
    for (int number = 0; posts.size() < std::size_t{64} * 1024; ++number)
        posts += ZmtpPeer::message(postOf("k", std::to_string(number)));
    ASSERT_TRUE(poster.write(posts + ZmtpPeer::message(postOf("k", "before"))));
    ASSERT_TRUE(eventually([&] { return subscriber.receiveText() == R"({"statusUpdate":{"k":"before"}})"; }));
    requester.send({R"({"getClientInfoValue":"k"})"});
    const std::string context = poster.awaitPing();
    ASSERT_NE(context, "");
    ASSERT_TRUE(poster.write(ZmtpPeer::message(postOf("k", "after")) + ZmtpPeer::pong(context)));
    EXPECT_EQ(requester.receive(), std::vector<std::string>{reply("after")});
}

// Also where the broker has so much to read that the posts of some come late.
TEST_F(BarrierTest, aQueryIsAnsweredBehindAllPostsThatHadArrived)
{
    constexpr int many = 32; // reading them takes longer than a turn, and not nearly 100 ms
    std::vector<std::unique_ptr<Poster>> posters;
    std::string rest;
    for (int number = 0; rest.size() < std::size_t{10} * 1024; ++number)
        rest += ZmtpPeer::message(postOf("rest", std::to_string(number)));
    for (int number = 0; number < many; ++number)
        posters.push_back(std::make_unique<Poster>());
    broker.process().suspend();
    for (int number = 0; number < many; ++number)
    {
        Poster& poster = *posters[static_cast<std::size_t>(number)];
        ASSERT_TRUE(poster.write(ZmtpPeer::message(postOf("k" + std::to_string(number), "v"))));
        ASSERT_TRUE(poster.write(rest)); // so little that no poster is pinged
    }
    requester.send({R"({"getClientInfo":"null"})"});
    broker.process().signal(SIGCONT);
    const auto answer = requester.receive();
    ASSERT_TRUE(answer);
    const std::string values = std::accumulate(answer->begin(), answer->end(), std::string());
    for (int number = 0; number < many; ++number)
        EXPECT_NE(values.find("\"k" + std::to_string(number) + "\":\"v\""), std::string::npos) << number;
}

// A client that stands still delays the others of its service once.
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
