// A connection, and the end of its peer.

#include "broker/wire/Connection.h"

#include <arpa/inet.h>
#include <array>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>

#include "tests/support/Wait.h"

namespace
{

// Two ends of a TCP connection.
class Ends
{
public:
    Ends()
    {
        const Descriptor listener(socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* place = reinterpret_cast<sockaddr*>(&address);
        socklen_t size = sizeof(address);
        EXPECT_EQ(bind(listener.number(), place, size), 0);
        EXPECT_EQ(listen(listener.number(), 1), 0);
        EXPECT_EQ(getsockname(listener.number(), place, &size), 0);
        peer = Descriptor(socket(AF_INET, SOCK_STREAM, 0));
        EXPECT_EQ(connect(peer.number(), place, size), 0);
        own = Descriptor(accept4(listener.number(), nullptr, nullptr, SOCK_NONBLOCK));
    }

    Descriptor own;
    Descriptor peer;
};

class ConnectionTest : public testing::Test
{
protected:
    void say(const std::string& bytes)
    {
        ASSERT_EQ(::send(ends.peer.number(), bytes.data(), bytes.size(), 0),
                  static_cast<ssize_t>(bytes.size()));
    }

    // The peer has read everything when it closes, so its end arrives after its bytes.
    void endPeer()
    {
        while (recv(ends.peer.number(), buffer.data(), buffer.size(), MSG_DONTWAIT) > 0)
            continue;
        ends.peer.close();
    }

    // Waits until the kernel reports this for the connection.
    static bool waitFor(const Connection& connection, short what)
    {
        pollfd polled{connection.descriptor(), what, 0};
        return poll(&polled, 1, 10000) == 1;
    }

    // Sends until the peer's kernel has reported that the socket is gone.
    static void sendInVain(Connection& connection)
    {
        connection.send("to nobody");
        EXPECT_TRUE(waitFor(connection, 0)) << "the reset";
        connection.send("to nobody");
    }

    std::string receive(Connection& connection)
    {
        return std::string(buffer.data(), connection.receive(buffer.data(), buffer.size()));
    }

    Ends ends;
    std::array<char, 4096> buffer{};
};

} // namespace

// May be skipped: the emulator passes on only the first bytes of TCP_INFO. The tests always run natively.
TEST_F(ConnectionTest, tellsWhatHasArrivedAndThatThePeerHasEnded)
{
    if (isEmulated)
        GTEST_SKIP() << "the emulator does not pass on TCP_INFO";
    Connection connection(std::move(ends.own), Handshake::Kind::Post, Clock::now());
    EXPECT_EQ(connection.arrivals(), 0U);
    EXPECT_FALSE(connection.hasPeerEnded());
    say("said");
    ASSERT_TRUE(waitFor(connection, POLLIN));
    EXPECT_EQ(connection.arrivals(), 4U);
    EXPECT_FALSE(connection.hasPeerEnded());
    endPeer();
    ASSERT_TRUE(waitFor(connection, POLLRDHUP));
    EXPECT_TRUE(connection.hasPeerEnded());
    EXPECT_EQ(receive(connection), "said");
    EXPECT_EQ(connection.arrivals(), 0U);
}

TEST_F(ConnectionTest, whatOneThatPostsHasSaidIsReadThoughItTakesNothingAnyMore)
{
    Connection connection(std::move(ends.own), Handshake::Kind::Post, Clock::now());
    say("said");
    endPeer();
    sendInVain(connection);
    EXPECT_FALSE(connection.isDead());
    EXPECT_FALSE(connection.hasOutput());
    EXPECT_TRUE(connection.flush());
    EXPECT_EQ(receive(connection), "said");
    EXPECT_FALSE(connection.isDead());
    EXPECT_EQ(receive(connection), "");
    EXPECT_TRUE(connection.isDead());
}

TEST_F(ConnectionTest, anotherThatTakesNothingAnyMoreIsDead)
{
    Connection connection(std::move(ends.own), Handshake::Kind::Request, Clock::now());
    say("said");
    endPeer();
    sendInVain(connection);
    EXPECT_TRUE(connection.isDead());
}

// May be skipped, as the first test.
TEST_F(ConnectionTest, tellsWhenTheLastBytesArrivedHoweverLateTheyAreRead)
{
    if (isEmulated)
        GTEST_SKIP() << "the emulator does not pass on TCP_INFO";
    Connection connection(std::move(ends.own), Handshake::Kind::Request, Clock::now());
    const TimePoint before = Clock::now();
    say("said");
    ASSERT_TRUE(waitFor(connection, POLLIN));
    const TimePoint after = Clock::now();
    // Real time must pass, and nothing can be awaited: the bytes must be read later than they arrived.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    receive(connection);
    constexpr std::chrono::milliseconds tick{10}; // the kernel's
    const TimePoint arrival = connection.lastArrival(Clock::now());
    EXPECT_GE(arrival, before - tick);
    EXPECT_LE(arrival, after + tick);
}
