// Ports in this process: what they make of a system that has no memory for connections, and what they ask of
// it.

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <deque>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "broker/NotifyPort.h"
#include "broker/PostPort.h"
#include "broker/RequestPort.h"
#include "tests/support/ZmtpPeer.h"

namespace
{

// How many more descriptors the system has room to watch.
int roomToWatch = 1000;

} // namespace

// In place of the system's.
extern "C" int epoll_ctl(int poll, int operation, int descriptor, epoll_event* event) noexcept
{
    if (operation == EPOLL_CTL_ADD && roomToWatch-- <= 0)
    {
        errno = ENOSPC;
        return -1;
    }
    return static_cast<int>(syscall(SYS_epoll_ctl, poll, operation, descriptor, event));
}

namespace
{

class PortTest : public testing::Test
{
protected:
    PortTest() { port.listen(); }

    static Descriptor connectToIt()
    {
        Descriptor peer(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(ZmtpPeer::postPort);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(peer.number(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        return peer;
    }

    static void say(const Descriptor& peer, const std::string& bytes)
    {
        EXPECT_EQ(send(peer.number(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }

    static bool isClosed(const Descriptor& peer)
    {
        pollfd polled{peer.number(), POLLRDHUP, 0};
        return poll(&polled, 1, 0) == 1;
    }

    Limits limits;
    Refusals refusals;
    MemoryBudget budget{limits.memory};
    Poller poller;
    PostPort port{poller, budget, limits, refusals, [](std::string_view) {}};
};

} // namespace

TEST_F(PortTest, aConnectionThatTheSystemCannotWatchIsClosedAndTheNextOnesComeLater)
{
    for (const int room : {0, 1}) // of the two pollers that watch it
    {
        const Descriptor refused = connectToIt();
        const Descriptor waiting = connectToIt();
        roomToWatch = room;
        EXPECT_FALSE(port.accept(PostPort::fewAtATime, Clock::now()));
        EXPECT_TRUE(port.peers().empty());
        EXPECT_TRUE(isClosed(refused));
        EXPECT_FALSE(isClosed(waiting));

        roomToWatch = 1000;
        EXPECT_LT(port.due(), TimePoint::max()) << "it listens again";
        port.accept(PostPort::fewAtATime, Clock::now());
        ASSERT_EQ(port.peers().size(), 1U);
        port.close(*port.peers().front());
        port.collect();
    }
}

TEST_F(PortTest, oneThatBreaksTheProtocolBehindItsHandshakeMakesRoom)
{
    limits.connections = 1;
    const Descriptor breaking = connectToIt();
    port.accept(PostPort::fewAtATime, Clock::now());
    say(breaking, ZmtpPeer::greeting() + ZmtpPeer::ready("PUB") + "\x80\1xx");
    const Descriptor next = connectToIt();
    port.accept(PostPort::fewAtATime, Clock::now());
    EXPECT_TRUE(isClosed(breaking));
    EXPECT_FALSE(isClosed(next));
    EXPECT_EQ(port.peers().size(), 1U);
}

// ------------------------------------------------------------------------------------- options of the system

namespace
{

int optionOf(int socket, int level, int option)
{
    int value = 0;
    socklen_t size = sizeof(value);
    EXPECT_EQ(getsockopt(socket, level, option, &value, &size), 0);
    return value;
}

// What the system makes of a send buffer of so many bytes.
int sendBufferOf(std::size_t bytes)
{
    const Descriptor probe(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int value = static_cast<int>(bytes);
    EXPECT_EQ(setsockopt(probe.number(), SOL_SOCKET, SO_SNDBUF, &value, sizeof(value)), 0);
    return optionOf(probe.number(), SOL_SOCKET, SO_SNDBUF);
}

template <class AnyPort>
void expectNoDelay(AnyPort& port, uint16_t number)
{
    const ZmtpPeer peer(number);
    port.accept(1, Clock::now());
    ASSERT_EQ(port.peers().size(), 1U);
    EXPECT_EQ(optionOf(port.peers().front()->descriptor(), IPPROTO_TCP, TCP_NODELAY), 1) << number;
}

constexpr std::size_t kibi = 1024;

} // namespace

TEST_F(PortTest, nothingWaitsForTheAcknowledgementOfWhatWasSentBefore)
{
    const DeviceState state(limits, refusals);
    RequestPort requestPort(
        poller, budget, limits, refusals, state, [](RequestConnection&) {}, [](RequestConnection&) {});
    NotifyPort notifyPort(poller, budget, limits, refusals, state);
    requestPort.listen();
    notifyPort.listen();
    expectNoDelay(port, ZmtpPeer::postPort);
    expectNoDelay(requestPort, ZmtpPeer::requestPort);
    expectNoDelay(notifyPort, ZmtpPeer::notifyPort);
}

TEST_F(PortTest, theSystemHoldsMuchForEachOfAFewSubscribersAndLittleForEachOfMany)
{
    constexpr std::size_t forAll = 16 * kibi * kibi;
    constexpr std::size_t count = 400;
    const DeviceState state(limits, refusals);
    NotifyPort notifyPort(poller, budget, limits, refusals, state);
    notifyPort.listen();
    std::deque<ZmtpPeer> subscribers;
    while (subscribers.size() < count)
    {
        subscribers.emplace_back(ZmtpPeer::notifyPort);
        notifyPort.accept(1, Clock::now());
        ASSERT_EQ(notifyPort.peers().size(), subscribers.size());
        const std::size_t bytes = std::min(256 * kibi, forAll / subscribers.size());
        ASSERT_EQ(optionOf(notifyPort.peers().back()->descriptor(), SOL_SOCKET, SO_SNDBUF),
                  sendBufferOf(bytes));
    }
    EXPECT_LT(sendBufferOf(forAll / count), sendBufferOf(256 * kibi)) << "this system tells nothing";
}
