// A broker that logs into a pipe without a reader.

#include <array>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/broker/Messages.h"
#include "tests/support/RawClient.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/TestProcess.h"

namespace
{

// The pipe is full before the broker starts.
class UnreadLog : public testing::Test
{
protected:
    UnreadLog()
    {
        if (mkfifo(name.c_str(), S_IRUSR | S_IWUSR) != 0 ||
            (pipe = open(name.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC)) == -1)
            throw std::runtime_error("no pipe");
        const std::string bytes(4096, '.');
        while (write(pipe, bytes.data(), bytes.size()) > 0)
        {
        }
        broker = std::make_unique<TestProcess>(
            Frames{"/bin/sh", "-c", "exec " STATUSBROKER " --max-keys=1 2>" + name});
        poster = std::make_unique<RawPoster>();
    }
    ~UnreadLog() override { close(pipe); }

    std::string drained() const
    {
        std::string text;
        std::array<char, 4096> bytes{};
        for (ssize_t count = 0; (count = read(pipe, bytes.data(), bytes.size())) > 0;)
            text.append(bytes.data(), static_cast<std::size_t>(count));
        return text;
    }

    // Sends posts that the broker refuses and logs one by one.
    void misbehave(int times)
    {
        for (int number = 0; number < times; ++number)
            poster->post("nonsense");
        EXPECT_EQ(requester.ask("Sync"), "SyncAck");
    }

    // The broker logs nothing about a client before it has looked for the client's process.
    void awaitKnownPoster()
    {
        EXPECT_EQ(requester.ask("Sync"), "SyncAck"); // every client's first request
        poster->post(postOf("k", "v"));
        const std::string known = "\"pid\":" + std::to_string(getpid()) + ',';
        EXPECT_TRUE(eventually(
            [&] { return requester.ask(R"({"getStatusDetails":["k"]})").find(known) != std::string::npos; }));
    }

    using Frames = std::vector<std::string>;

    TemporaryFolder folder;
    const std::string name = folder / "pipe";
    int pipe = -1;
    std::unique_ptr<TestProcess> broker;
    std::unique_ptr<RawPoster> poster;
    RawRequester requester;
};

} // namespace

TEST_F(UnreadLog, keepsTheBrokerNeitherFromServingNorFromEnding)
{
    misbehave(5);
    poster->post(postOf("k", "v"));
    EXPECT_TRUE(eventually([&] { return valueOf(requester, "k") == reply("v"); }));
    broker->signal(SIGTERM);
    EXPECT_EQ(broker->waitForExit(), 0);
}

TEST_F(UnreadLog, keepsNoBrokerFromEndingThatCannotStart)
{
    for (const std::string arguments : {"--nonsense", "--config=/nonexistent", ""})
    {
        TestProcess second(Frames{"/bin/sh", "-c", "exec " STATUSBROKER " " + arguments + " 2>" + name});
        EXPECT_GT(second.waitForExit(), 0) << arguments << ": no exit code compares as less";
    }
}

TEST_F(UnreadLog, hasTheNumberOfLinesThatWereDroppedWhenItIsReadAgain)
{
    awaitKnownPoster();
    misbehave(4);
    const std::string before = drained();
    EXPECT_EQ(before.find_first_not_of('.'), std::string::npos);
    misbehave(1);
    std::string text;
    ASSERT_TRUE(eventually([&] { return (text += drained()).find("nonsense") != std::string::npos; }));
    EXPECT_NE(text.find("6 log lines were dropped, nobody read them"), std::string::npos)
        << text << ": expected no state, serving, and four refusals";
    EXPECT_LT(text.find("were dropped"), text.find("nonsense"));
}
