// The real broker marks values whose owner has gone.

#include <algorithm>
#include <climits>
#include <csignal>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "tests/broker/PolicedBroker.h"
#include "tests/broker/peer/ServiceGroup.h"
#include "tests/support/ProgramName.h"

namespace
{

// A client in its own process, with a single connection, on which it posts.
class OwnerProcess
{
public:
    OwnerProcess(const std::string& key, const std::string& value, const ServiceGroup* group = nullptr)
    {
        if (pipe(mPipe) != 0 || pipe(mReport) != 0 || (mPid = fork()) < 0)
            throw std::runtime_error("cannot make a process");
        if (mPid == 0)
        {
            if (group != nullptr)
                group->enter();
            run(postOf(key, value));
        }
        close(mPipe[0]);
        close(mReport[1]);
    }

    ~OwnerProcess()
    {
        end();
        close(mPipe[1]);
        close(mReport[0]);
    }

    OwnerProcess(const OwnerProcess&) = delete;
    OwnerProcess& operator=(const OwnerProcess&) = delete;

    void end()
    {
        if (mPid <= 0)
            return;
        kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
        mPid = -1;
    }

    pid_t pid() const { return mPid; }

    // Waits until the broker has greeted its first connection.
    bool isAccepted() const
    {
        char report = 0;
        return read(mReport[0], &report, 1) == 1;
    }

    // Makes it connect again, without posting on the new connection.
    void reconnect() { command('r'); }

    // Makes it post as much as the kernel takes without a reader, and end.
    void postMuchAndEnd()
    {
        command('m');
        waitpid(std::exchange(mPid, -1), nullptr, 0);
    }

private:
    void command(char letter) { ASSERT_EQ(write(mPipe[1], &letter, 1), 1); }

    static void postMuch(ZmtpPeer& peer)
    {
        std::string posts;
        for (int number = 0; number < 1000; ++number)
            posts += ZmtpPeer::message(postOf("filler", std::to_string(number)));
        while (peer.writeSome(posts) == posts.size())
            ;
    }

    [[noreturn]] void run(const std::string& post)
    {
        const int commands = dup2(mPipe[0], STDIN_FILENO);
        const int report = dup2(mReport[1], STDOUT_FILENO);
        close_range(STDERR_FILENO + 1, UINT_MAX, 0); // so that it inherits no connection of the test
        auto peer = std::make_unique<ZmtpPeer>(ZmtpPeer::postPort);
        if (peer->shakeHands() && ::write(report, "a", 1) == 1)
            peer->write(ZmtpPeer::message(post));
        for (char command = 0; read(commands, &command, 1) == 1;)
        {
            if (command == 'm')
            {
                postMuch(*peer);
                break;
            }
            peer.reset();
            peer = std::make_unique<ZmtpPeer>(ZmtpPeer::postPort);
            peer->shakeHands();
        }
        _exit(0);
    }

    int mPipe[2] = {-1, -1};
    int mReport[2] = {-1, -1};
    pid_t mPid = -1;
};

class Owned : public PolicedBroker
{
protected:
    static std::string owned(const std::string& grace = "100ms")
    {
        return "[[owned]]\nkeys = \"net.*\"\nbecomes = \"offline\"\ngrace = \"" + grace + "\"\n";
    }

    std::unique_ptr<OwnerProcess> owner(const std::string& key, const std::string& text = "up",
                                        const ServiceGroup* group = nullptr)
    {
        auto process = std::make_unique<OwnerProcess>(key, text, group);
        EXPECT_TRUE(becomes(key, text));
        EXPECT_TRUE(eventually([&] { return isKnown(key, process->pid()); }));
        return process;
    }

    // Whether this process is known as the poster of the value.
    bool isKnown(const std::string& key, pid_t pid)
    {
        const std::string details = ask(R"({"getStatusDetails":[")" + key + "\"]}");
        return details.find("\"pid\":" + std::to_string(pid) + ',') != std::string::npos;
    }

    std::string value(const std::string& key) { return ask(R"({"getClientInfoValue":")" + key + "\"}"); }

    bool becomes(const std::string& key, const std::string& expected)
    {
        return eventually([&] { return value(key) == reply(expected); });
    }

    // When the value of an owner that ends now is marked, the time of earlier owners has passed as well.
    void awaitAnotherEnd()
    {
        owner("net.other");
        ASSERT_TRUE(becomes("net.other", "offline"));
    }
};

} // namespace

TEST_F(Owned, valuesAreMarkedWhenTheirOwnerHasGoneAndListenersAreTold)
{
    start(owned());
    listen();
    auto client = owner("net.a");
    EXPECT_EQ(next(), R"({"statusUpdate":{"net.a":"up"}})");
    const pid_t pid = client->pid();
    client->end();
    EXPECT_EQ(next(), R"({"statusUpdate":{"net.a":"offline"}})");
    EXPECT_EQ(value("net.a"), reply("offline"));
    EXPECT_EQ(statistic("policy.ownersGone"), 1U);
    EXPECT_TRUE(isInLog("Set [net.a] and 0 others to [offline], by ")) << broker->process().errors();
    EXPECT_TRUE(isInLog(", process " + std::to_string(pid) + " (" + kernelNameOf("OwnedTest") + ")"))
        << broker->process().errors();
}

TEST_F(Owned, valuesWithoutATextAreReset)
{
    start("[[owned]]\nkeys = \"net.*\"\ngrace = \"1ms\"\n");
    owner("net.a");
    EXPECT_TRUE(becomes("net.a", ""));
}

TEST_F(Owned, valuesOfOtherNamesStay)
{
    start(owned("1ms"));
    owner("door");
    awaitAnotherEnd();
    EXPECT_EQ(value("door"), reply("up"));
}

TEST_F(Owned, valuesStayIfTheirProcessComesBackWithinTheGraceTimeAndEndWithIt)
{
    start(owned("1s"));
    auto client = owner("net.a");
    client->reconnect();
    awaitAnotherEnd();
    EXPECT_EQ(value("net.a"), reply("up"));
    client->end();
    EXPECT_TRUE(becomes("net.a", "offline"));
}

TEST_F(Owned, valuesAreMarkedWhoeverComesIfTheirOwnerHasGoneBeforeItWasKnown)
{
    start(owned("500ms"));
    auto client = std::make_unique<OwnerProcess>("net.a", "up");
    ASSERT_TRUE(becomes("net.a", "up"));
    client.reset();
    const auto other = owner("net.b");
    EXPECT_TRUE(becomes("net.a", "offline"));
}

// Without services, each process is a client.
TEST_F(Owned, valuesDoNotGoOnWithAnotherProcess)
{
    start(owned("500ms"));
    auto client = owner("net.a");
    client->end();
    const auto other = owner("net.b");
    EXPECT_TRUE(becomes("net.a", "offline"));
    EXPECT_EQ(value("net.b"), reply("up"));
}

// May be skipped: it needs Linux 5.7 or later, control groups of version 2 that this process may make, and no
// emulator. It always runs as root on such a machine. Containers often mount control groups read-only: there
// OwnedValuesTest tests clients that can come back, and ServicesTest finds services in a copy of the tree.
TEST_F(Owned, valuesOfAServiceGoOnWithAnotherProcessOfIt)
{
    const ServiceGroup one("one");
    const ServiceGroup two("two");
    if (const std::string lack = one.lack(); !lack.empty())
        GTEST_SKIP() << lack;
    start(owned("1s"));
    auto first = owner("net.a", "up", &one);
    auto second = owner("net.b", "up", &two);
    first->end();
    const auto restarted = owner("net.c", "up", &one);
    second->end();
    EXPECT_TRUE(becomes("net.b", "offline")); // each process is in another service
    awaitAnotherEnd();
    EXPECT_EQ(value("net.a"), reply("up"));
    EXPECT_EQ(value("net.c"), reply("up"));
}

// The broker sees the end of the first process only after all its posts. May be skipped, as the test above.
TEST_F(Owned, valuesOfAServiceGoOnWithAProcessThatCameBeforeTheLastPostsOfTheFormerWereRead)
{
    const ServiceGroup group("one");
    if (const std::string lack = group.lack(); !lack.empty())
        GTEST_SKIP() << lack;
    start(owned("1s"));
    auto first = owner("net.a", "up", &group);
    broker->process().suspend();
    first->postMuchAndEnd();
    const OwnerProcess restarted("net.c", "up", &group);
    broker->process().signal(SIGCONT);
    ASSERT_TRUE(restarted.isAccepted());
    // A slow device needs this time for the former's posts. Nothing happens at its end that could be waited
    // for.
    broker->process().suspend();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    broker->process().signal(SIGCONT);
    ASSERT_TRUE(becomes("net.c", "up"));
    ASSERT_TRUE(
        eventually([&] { return statistic("clients.posts") == 2; })); // this test's, and the restarted
    awaitAnotherEnd();
    EXPECT_EQ(value("net.a"), reply("up")) << broker->process().errors();
}

TEST_F(Owned, inAuditModeMarksAreOnlyLogged)
{
    start("mode = \"audit\"\n" + owned());
    owner("net.a");
    EXPECT_TRUE(isInLog("Would set [net.a] and 0 others to [offline], by ")) << broker->process().errors();
    EXPECT_EQ(value("net.a"), reply("up"));
}

TEST_F(Owned, aPolicyThatIsTakenOverMarksThoseThatHaveNoOwner)
{
    start(allOk);
    owner("net.a");
    const auto client = owner("net.b");
    EXPECT_TRUE(eventually([&] { return statistic("clients.posts") == 2; })); // this test's, and net.b's
    reload(owned());
    EXPECT_TRUE(becomes("net.a", "offline"));
    EXPECT_EQ(value("net.b"), reply("up"));
}

TEST_F(Owned, valuesAreMarkedAfterARestartIfTheirOwnerDoesNotReturn)
{
    const std::vector<std::string> options{"--state", folder / "state"};
    start(owned(), options);
    auto client = owner("net.a");
    broker->kill();
    client->end();
    start(owned("500ms"), options);
    EXPECT_EQ(value("net.a"), reply("up"));
    EXPECT_TRUE(becomes("net.a", "offline"));
}

TEST_F(Owned, valuesStayMarkedOverAKill)
{
    const std::vector<std::string> options{"--state", folder / "state"};
    start(owned(), options);
    owner("net.a");
    EXPECT_TRUE(becomes("net.a", "offline"));
    broker->kill();
    start(allOk, options);
    EXPECT_EQ(value("net.a"), reply("offline"));
}

TEST_F(Owned, valuesStayOverARestartIfTheirOwnerReturns)
{
    const std::vector<std::string> options{"--state", folder / "state"};
    start(owned("2s"), options);
    auto client = owner("net.a");
    broker->kill();
    start(owned("2s"), options);
    client->reconnect();
    awaitAnotherEnd();
    EXPECT_EQ(value("net.a"), reply("up"));
}

TEST_F(Owned, aValueForWhoseTextThereIsNoRoomIsReset)
{
    start(owned(), {"--max-stored-bytes=1K"});
    auto client = owner("net.a");
    post(postOf("filler", std::string(1024 - 5 - 2 - 6, 'x')));
    client->end();
    EXPECT_TRUE(becomes("net.a", ""));
}

// A client that reconnects is the same process: it keeps its values, whichever connection made the post.
TEST_F(Owned, aPolicyThatIsTakenOverLeavesTheValuesOfAClientThatHasReconnected)
{
    start(allOk);
    auto client = owner("net.a");
    client->reconnect();
    owner("net.b");
    EXPECT_TRUE(eventually([&] { return statistic("clients.posts") == 2; })); // this test's, and the client's
    reload(owned("500ms"));
    EXPECT_TRUE(becomes("net.b", "offline"));
    EXPECT_EQ(value("net.a"), reply("up"));
}

class ManyOwners : public Owned
{
protected:
    std::size_t countOf(const std::string& text)
    {
        const std::string values = all();
        std::size_t count = 0;
        for (std::size_t at = 0; (at = values.find(":\"" + text + '"', at)) != std::string::npos; ++at)
            ++count;
        return count;
    }
};

TEST_F(ManyOwners, thatAreKilledAtRandomHaveAllTheirValuesMarkedAndNoOthers)
{
    constexpr std::size_t most = 200;
    constexpr std::size_t atOnce = 40;
    start(owned());
    std::vector<std::unique_ptr<OwnerProcess>> owners;
    for (std::size_t number = 0; number < most; ++number)
        owners.push_back(std::make_unique<OwnerProcess>("net." + std::to_string(number), "up"));
    ASSERT_TRUE(eventually([&] { return countOf("up") == most; }));
    std::shuffle(owners.begin(), owners.end(), std::mt19937(1));
    while (!owners.empty())
    {
        owners.resize(owners.size() - atOnce);
        ASSERT_TRUE(eventually([&] { return countOf("offline") == most - owners.size(); }));
        EXPECT_EQ(countOf("up"), owners.size());
    }
}

TEST_F(ManyOwners, thatOnlyReconnectHaveNoValueMarked)
{
    constexpr std::size_t most = 50;
    constexpr int times = 4;
    start(owned("2s"));
    std::vector<std::unique_ptr<OwnerProcess>> owners;
    for (std::size_t number = 0; number < most; ++number)
        owners.push_back(owner("net." + std::to_string(number)));
    for (int time = 0; time < times; ++time)
    {
        for (const auto& each : owners)
            each->reconnect();
        awaitAnotherEnd();
    }
    EXPECT_EQ(countOf("up"), most);
}
