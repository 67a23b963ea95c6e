// The real broker applies new limits at SIGHUP, also to open connections.

#include <arpa/inet.h>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/broker/Messages.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/TemporaryFolder.h"

namespace
{

constexpr std::size_t mebi = std::size_t{1024} * 1024;

// A post connection whose message never ends.
class UnfinishedPost
{
public:
    UnfinishedPost(std::size_t announced, std::size_t sent)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(5556);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connect(mSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        std::string greeting("\xff\0\0\0\0\0\0\0\0\x7f\3\1NULL", 16);
        greeting.resize(64, '\0');
        const std::string ready("\4\x19\5READY\x0bSocket-Type\0\0\0\3PUB", 27);
        std::string frame(9, '\2');
        for (std::size_t index = 8; index > 0; --index, announced >>= 8)
            frame[index] = static_cast<char>(announced & 0xff);
        const std::string bytes = greeting + ready + frame + std::string(sent, 'x');
        for (std::size_t done = 0; done < bytes.size();)
            done += static_cast<std::size_t>(
                send(mSocket, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL));
    }
    ~UnfinishedPost() { close(mSocket); }

    UnfinishedPost(const UnfinishedPost&) = delete;
    UnfinishedPost& operator=(const UnfinishedPost&) = delete;

private:
    int mSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

// A broker whose configuration file can change while it serves.
class Reload : public testing::Test
{
protected:
    void start(const std::string& config)
    {
        writeFile(folder / "conf", config);
        broker.emplace(std::vector<std::string>{"--heartbeat=0", "--config", folder / "conf"});
        poster.emplace();
        requester.emplace();
    }

    void reload(const std::string& config)
    {
        writeFile(folder / "conf", config);
        broker->process().signal(SIGHUP);
    }

    uint64_t statistic(const std::string& name) { return brokerStatistic(*requester, name); }

    const TemporaryFolder folder;
    std::optional<BrokerProcess> broker;
    std::optional<RawPoster> poster;
    std::optional<RawRequester> requester;
};

} // namespace

TEST_F(Reload, changesTheLongestPostAndRequestOfConnectionsThatAreOpen)
{
    start("max-message-bytes = 4K\nmax-value-bytes = 1K\n");
    const std::string longValue(900, 'x');
    const std::string longPost =
        R"({"postStatus":{"a":")" + longValue + R"(","b":")" + longValue + R"(","c":")" + longValue + "\"}}";
    const std::string longRequest =
        R"({"getClientInfoValues":["a",")" + longValue + R"(",")" + longValue + R"(",")" + longValue + "\"]}";
    poster->post(longPost);
    EXPECT_EQ(valueOf(*requester, "c"), reply(longValue));
    EXPECT_NE(requester->ask(longRequest), "{}");
    ASSERT_EQ(statistic("limit.messageBytes"), 0U);

    reload("max-message-bytes = 2K\nmax-value-bytes = 1K\n");
    EXPECT_TRUE(eventually([&] { return requester->ask(longRequest) == "{}"; }));
    const uint64_t refused = statistic("limit.messageBytes");
    poster->post(longPost);
    EXPECT_TRUE(eventually([&] { return statistic("limit.messageBytes") == refused + 1; }));

    reload("max-message-bytes = 4K\nmax-value-bytes = 1K\n");
    EXPECT_TRUE(eventually([&] { return requester->ask(longRequest) != "{}"; }));
    const uint64_t refusedBefore = statistic("limit.messageBytes");
    poster->post(longPost);
    EXPECT_EQ(valueOf(*requester, "c"), reply(longValue));
    EXPECT_EQ(statistic("limit.messageBytes"), refusedBefore);
}

TEST_F(Reload, shortensTheLogOfNotificationsThatSubscribersHaveYetToRead)
{
    start("max-notify-bytes = 8M\n");
    TestProcess stopped({TESTCLIENT, "watch", "k"});
    ASSERT_EQ(stopped.readLine(), "(none)");
    poster->post(postOf("k", "first"));
    ASSERT_EQ(stopped.readLine(), "k=first");
    stopped.suspend();
    const std::string longValue(30000, 'x');
    for (int number = 0; number < 150; ++number) // more than the kernel holds for it
    {
        poster->post(postOf("k", std::to_string(number) + longValue));
        valueOf(*requester, "k"); // one message each
    }
    ASSERT_EQ(statistic("subscribers.fallenBehind"), 0U);
    ASSERT_GT(statistic("memory.connections"), mebi);

    reload("max-notify-bytes = 64K\n");
    EXPECT_TRUE(eventually([&] { return statistic("subscribers.fallenBehind") == 1; }));
    EXPECT_LT(statistic("memory.connections"), mebi);
    stopped.signal(SIGCONT);
}

TEST_F(Reload, closesTheLargestConnectionsBeyondTheNewBoundOfMemory)
{
    start("max-message-bytes = 4M\nmax-notify-bytes = 64K\nmax-memory = 32M\n");
    const UnfinishedPost one(3 * mebi, 3 * mebi - 1);
    const UnfinishedPost other(3 * mebi, 3 * mebi - 1);
    EXPECT_TRUE(eventually([&] { return statistic("memory.connections") >= 6 * mebi - 2; }));
    ASSERT_EQ(statistic("limit.memory"), 0U);

    reload("max-message-bytes = 900K\nmax-notify-bytes = 64K\nmax-memory = 4M\n");
    EXPECT_TRUE(eventually([&] { return statistic("memory.connections") <= 4 * mebi; }));
    EXPECT_GE(statistic("limit.memory"), 1U);
    EXPECT_LE(statistic("clients.posts"), 2U); // the poster's stays
}
