#include "broker/Unfinished.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstddef>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <linux/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "broker/Connection.h"
#include "tests/support/Wait.h"

namespace
{

socklen_t mostTold = sizeof(tcp_info);

// Where 64-bit times have to be asked for, the function goes by another name to the linker.
#ifdef __USE_TIME_BITS64
constexpr const char* originalName = "__getsockopt64";
#else
constexpr const char* originalName = "getsockopt";
#endif

} // namespace

// The kernel's answer, or as much of it as `mostTold` says.
extern "C" __attribute__((visibility("default"))) int getsockopt(int descriptor, int level, int option,
                                                                 void* value, socklen_t* size) noexcept
{
    static const auto original = reinterpret_cast<decltype(&getsockopt)>(dlsym(RTLD_NEXT, originalName));
    *size = std::min(*size, mostTold);
    return original(descriptor, level, option, value, size);
}

namespace
{

// Both ends of a TCP connection.
class UnfinishedTest : public testing::Test
{
protected:
    UnfinishedTest()
    {
        const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        bind(listener, reinterpret_cast<sockaddr*>(&address), size);
        listen(listener, 1);
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
        connect(peer, reinterpret_cast<sockaddr*>(&address), size);
        mine = accept(listener, nullptr, nullptr);
        close(listener);
    }
    ~UnfinishedTest() override
    {
        close(peer);
        close(mine);
    }

    // Arrived, and read.
    void arrive(std::size_t bytes)
    {
        const std::string text(bytes, 'x');
        ASSERT_EQ(send(peer, text.data(), bytes, 0), static_cast<ssize_t>(bytes));
        std::string received(bytes, '\0');
        ASSERT_EQ(recv(mine, received.data(), bytes, MSG_WAITALL), static_cast<ssize_t>(bytes));
    }

    static constexpr std::size_t limit = 50000;
    int peer = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int mine = -1;
    Unfinished unfinished;
};

using Verdict = Unfinished::Verdict;

} // namespace

TEST_F(UnfinishedTest, whatHasBeenReceivedIsFine)
{
    for (int round = 0; round < 50; ++round)
    {
        arrive(10000);
        unfinished.received(10000);
        EXPECT_EQ(unfinished.look(mine, limit), Verdict::Fine);
    }
}

TEST_F(UnfinishedTest, aLongMessageIsSeenAndAnEndlessOneAtTheNextLook)
{
    arrive(30000);
    EXPECT_EQ(unfinished.look(mine, limit), Verdict::Long);
    arrive(60000);
    EXPECT_EQ(unfinished.look(mine, limit), Verdict::Long) << "it may just not have been received yet";
    EXPECT_EQ(unfinished.look(mine, limit), Verdict::Endless);
}

TEST_F(UnfinishedTest, aLongMessageThatEndsIsFine)
{
    arrive(60000);
    unfinished.look(mine, limit);
    unfinished.received(60000);
    EXPECT_EQ(unfinished.look(mine, limit), Verdict::Fine);
    EXPECT_EQ(unfinished.look(mine, limit), Verdict::Fine);
}

TEST_F(UnfinishedTest, aGlanceTellsWhatHasNotBeenReceived)
{
    arrive(100000);
    EXPECT_EQ(unfinished.glance(mine, limit), Verdict::Endless);
    unfinished.received(50000);
    EXPECT_EQ(unfinished.glance(mine, limit), Verdict::Fine);
}

TEST_F(UnfinishedTest, aTurnIsOverWhenNothingIsLeftOrOneHasGivenMoreThanItsQueue)
{
    Unfinished::Turn turn;
    EXPECT_FALSE(turn.takeIsOver());
    turn.nothingIsLeft();
    EXPECT_TRUE(turn.takeIsOver());
    turn.received(9, 8);
    EXPECT_FALSE(turn.takeIsOver()) << "one more may have been on its way";
    turn.received(10, 8);
    EXPECT_TRUE(turn.takeIsOver());
    EXPECT_FALSE(turn.takeIsOver());
}

TEST_F(UnfinishedTest, heartbeatsDoNotAddUp)
{
    for (int heartbeat = 0; heartbeat < 10000; ++heartbeat)
    {
        arrive(20);
        unfinished.look(mine, limit);
        EXPECT_EQ(unfinished.look(mine, limit), Verdict::Fine);
    }
}

TEST_F(UnfinishedTest, theKernelsCountsAreThoseOfTheBytes)
{
    const uint64_t before = Connection::bytesRead(mine).value_or(0);
    arrive(1000);
    send(peer, "unread", 6, 0);
    EXPECT_TRUE(eventually([&] { return Connection::bytesArrived(mine) == before + 1006; }));
    EXPECT_EQ(Connection::bytesRead(mine), before + 1000);
    const Connection::Sent sent = Connection::bytesSent(mine).value();
    send(mine, "answer", 6, 0);
    EXPECT_EQ(Connection::bytesSent(mine)->handedOver, sent.handedOver + 6);
    EXPECT_TRUE(
        eventually([&] { return Connection::bytesSent(mine)->acknowledged == sent.acknowledged + 6; }));
}

TEST_F(UnfinishedTest, aClosedConnectionHasNoCounts)
{
    EXPECT_EQ(Connection::bytesRead(-1), std::nullopt);
    EXPECT_FALSE(Connection::bytesSent(-1));
}

TEST_F(UnfinishedTest, aKernelThatCountsNoBytesHasNoCounts)
{
    arrive(1000);
    mostTold = offsetof(tcp_info, tcpi_bytes_acked); // as before Linux 4.1
    EXPECT_EQ(Connection::bytesArrived(mine), std::nullopt);
    EXPECT_EQ(Connection::bytesRead(mine), std::nullopt);
    EXPECT_FALSE(Connection::bytesSent(mine));
    mostTold = sizeof(tcp_info);
    EXPECT_EQ(Connection::bytesRead(mine), 1000U);
}

TEST_F(UnfinishedTest, cuttingItEndsIt)
{
    Connection::cut(mine);
    std::array<char, 1> byte{};
    EXPECT_EQ(recv(peer, byte.data(), byte.size(), 0), 0);
}
