// Ports in this process: how they handle a system without memory for connections, and which options they set.

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <deque>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "broker/NotifyPort.h"
#include "broker/PostPort.h"
#include "broker/RequestPort.h"
#include "broker/policy/PolicyFiles.h"
#include "tests/support/Crowd.h"
#include "tests/support/Wait.h"
#include "tests/support/WireFrames.h"
#include "tests/support/ZmtpPeer.h"

namespace
{

// The number of descriptors that can still be watched.
int roomToWatch = 1000;

} // namespace

// Replaces the system's function.
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
    PortTest()
    {
        roomToWatch = 1000;
        port.listen();
    }

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

    // Ends its side, and waits until the other side knows.
    static void endConnection(const Descriptor& peer)
    {
        EXPECT_EQ(shutdown(peer.number(), SHUT_WR), 0);
        EXPECT_TRUE(eventually(
            [&]
            {
                tcp_info info{};
                socklen_t size = sizeof(info);
                EXPECT_EQ(getsockopt(peer.number(), IPPROTO_TCP, TCP_INFO, &info, &size), 0);
                return info.tcpi_state == TCP_FIN_WAIT2;
            }));
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
    Identities identities;
    Guard guard{identities, refusals, std::make_unique<const Policy>()};
    const PortEnvironment environment{poller, identities, budget, limits, refusals, guard};
    std::size_t posts = 0;
    TimePoint busyUntil; // with the first post
    PostPort port{environment, [this](PostConnection&, std::string_view)
                  {
                      ++posts;
                      while (Clock::now() < busyUntil)
                          continue;
                  }};
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
        port.collect([](PostConnection&) {});
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

// A crowd that only connects does not delay a client behind it for long.
TEST_F(PortTest, oneThatHasEndedWithoutAWordTakesNoTurn)
{
    constexpr unsigned crowd = 100;
    std::deque<Descriptor> ended;
    while (ended.size() < crowd)
        endConnection(ended.emplace_back(connectToIt()));
    const Descriptor client = connectToIt();
    unsigned turns = 0;
    for (; port.peers().empty() && turns < crowd; ++turns)
        port.accept(1, Clock::now());
    EXPECT_LT(turns, crowd / 2);
    ASSERT_EQ(port.peers().size(), 1U);
    EXPECT_EQ(port.accepted(), crowd + 1);
    EXPECT_FALSE(isClosed(client));
}

// May be skipped: the emulator passes on only the first bytes of TCP_INFO. The test always runs natively.
TEST_F(PortTest, knowsWhenTheKernelIgnoredAttemptsToConnect)
{
    if (isEmulated)
        GTEST_SKIP() << "the emulator does not pass on TCP_INFO";
    const Descriptor client = connectToIt();
    port.accept(1, Clock::now());
    EXPECT_EQ(port.lastFull(), TimePoint::min());
    fillQueueOf(ZmtpPeer::postPort);
    const TimePoint now = Clock::now();
    port.accept(1, now);
    EXPECT_EQ(port.lastFull(), now);
}

TEST_F(PortTest, oneThatHasSpokenAndEndedIsRead)
{
    const Descriptor client = connectToIt();
    say(client, ZmtpPeer::greeting());
    endConnection(client);
    port.accept(1, Clock::now());
    ASSERT_EQ(port.peers().size(), 1U);
    EXPECT_EQ(port.peers().front()->arrivals(), ZmtpPeer::greeting().size());
}

// ---------------------------------------------------------------------------------------- the order of
// reading

namespace
{

class ReadingTest : public PortTest
{
protected:
    static constexpr std::size_t many = 20;
    static constexpr std::size_t someBytes = 8192;

    // A peer that has completed its handshake, and said this.
    void connectOne(const std::string& said)
    {
        peers.emplace_back(ZmtpPeer::postPort);
        EXPECT_TRUE(peers.back().write(ZmtpPeer::greeting() + ZmtpPeer::ready("PUB") + said));
        EXPECT_TRUE(eventually(
            [this]
            {
                port.accept(1, Clock::now());
                return port.peers().size() == peers.size();
            }));
    }

    // They are in the middle of a long message, whose next part has come.
    void connectUnfinished()
    {
        const std::string part(someBytes, 'x');
        while (peers.size() < many)
            connectOne(WireFrames::header(1000000, 0) + part);
        takeAll();
        writeToAll(part);
    }

    void takeAll() { take(Clock::now() + std::chrono::seconds(30)); }

    void take(TimePoint end)
    {
        takeShort(end);
        port.takeHeavyPosts(end);
    }

    void takeShort(TimePoint end)
    {
        EXPECT_TRUE(eventually([this] { return unread() == peers.size(); }));
        makeReady();
        port.takePosts(end);
    }

    void makeReady()
    {
        for (const auto& connection : port.peers())
            port.serve(*connection, EPOLLIN);
    }

    // In one turn or, on a slow machine, in several.
    void expectAllReadBeforeTheAnswers()
    {
        EXPECT_TRUE(eventually(
            [this]
            {
                makeReady();
                port.takePosts(Clock::now() + std::chrono::seconds(30));
                return unread() == 0;
            }));
    }

    void writeToAll(const std::string& part)
    {
        for (ZmtpPeer& peer : peers)
            EXPECT_TRUE(peer.write(part));
        EXPECT_TRUE(eventually([this] { return unread() == peers.size(); }));
    }

    uint64_t openBarrier(bool concerns)
    {
        return port.openBarrier(false, Clock::now(),
                                [=](PostConnection& /*connection*/) { return concerns; });
    }

    // Until when a query waits behind the barrier.
    TimePoint endOfWait(uint64_t barrier, TimePoint opened) const
    {
        return port.endOfWait(barrier, false, opened, [](PostConnection& /*connection*/) { return true; });
    }

    std::size_t unread() const
    {
        return static_cast<std::size_t>(std::count_if(port.peers().begin(), port.peers().end(),
                                                      [](const auto& connection)
                                                      { return connection->arrivals() != 0; }));
    }

    // Others hold as much.
    void use(std::size_t bytes) { budget.update(mOthers, bytes); }

    std::deque<ZmtpPeer> peers;

private:
    std::size_t mOthers = 0;
};

} // namespace

TEST_F(ReadingTest, aPostIsReadBeforeTheRestOfLongMessages)
{
    connectUnfinished();
    connectOne(ZmtpPeer::message("post"));
    takeShort(Clock::now() + std::chrono::seconds(30));
    EXPECT_EQ(posts, 1U);
    EXPECT_EQ(unread(), many) << "long messages are read behind the answers";
}

TEST_F(ReadingTest, aPartOfTheTurnIsLeftForLongMessagesAlsoIfOthersHaveMoreToSay)
{
    connectUnfinished();
    while (peers.size() < 2 * many)
        connectOne(ZmtpPeer::message("post"));
    const TimePoint end = Clock::now() + std::chrono::milliseconds(500);
    busyUntil = end - std::chrono::microseconds(900);
    take(end);
    EXPECT_EQ(posts, 1U);
    EXPECT_LT(unread(), 2 * many - posts) << "the long messages had their turn";
}

TEST_F(ReadingTest, aBarrierReadsLongMessagesThatConcernIt)
{
    connectUnfinished();
    EXPECT_TRUE(eventually(
        [this]
        {
            openBarrier(true);
            return unread() < many;
        }));
}

TEST_F(ReadingTest, aBarrierReadsShortPostsAndNoLongMessagesThatDoNotConcernIt)
{
    connectUnfinished();
    connectOne(ZmtpPeer::message("post"));
    EXPECT_TRUE(eventually([this] { return unread() == many + 1; }));
    EXPECT_TRUE(eventually(
        [this]
        {
            openBarrier(false);
            return posts == 1;
        }));
    EXPECT_EQ(unread(), many);
}

// Their PONGs may stand behind what is unread.
TEST_F(ReadingTest, longMessagesThatARequestWaitsForAreReadBeforeTheAnswers)
{
    connectUnfinished();
    openBarrier(true);
    writeToAll("more");
    expectAllReadBeforeTheAnswers();
}

TEST_F(ReadingTest, aLongMessageThatARequestBeginsToWaitForIsNotLeftBehind)
{
    connectUnfinished();
    makeReady(); // for behind the answers
    openBarrier(true);
    writeToAll("more");
    expectAllReadBeforeTheAnswers();
}

// It is not its fault that they are unread.
TEST_F(ReadingTest, aRequestWaitsForWhatIsUnreadAlsoOfAConnectionThatIsNotWaitedForOtherwise)
{
    connectOne(WireFrames::header(1000000, 0) + std::string(someBytes, 'x'));
    takeAll();
    openBarrier(true);
    const TimePoint now = Clock::now();
    for (int overdue = 1; overdue <= 2; ++overdue)
        port.doWhatIsDue(now + overdue * std::chrono::seconds(10));
    EXPECT_EQ(endOfWait(openBarrier(true), now), TimePoint::min()) << "it does not answer";

    writeToAll("more");
    use(limits.memory + 1);
    const uint64_t barrier = openBarrier(true);
    EXPECT_TRUE(port.isUnreadBefore(barrier, [](const PostConnection& /*connection*/) { return true; }));
    EXPECT_GT(endOfWait(barrier, now), now);
}

TEST_F(ReadingTest, shortPostsAreReadAlsoIfMemoryIsShort)
{
    while (peers.size() < many)
        connectOne(ZmtpPeer::message("post"));
    use(limits.memory + 1);
    takeAll();
    EXPECT_EQ(posts, many);
}

TEST_F(ReadingTest, longMessagesAreNotReadOnIfMemoryIsShort)
{
    connectUnfinished();
    use(limits.memory + 1);
    takeAll();
    EXPECT_EQ(unread(), many - 1) << "one is always read, so that nothing stands still";
}

TEST_F(ReadingTest, notEvenShortPostsAreReadFarBeyondTheLimitOfMemory)
{
    while (peers.size() < many)
        connectOne(ZmtpPeer::message("post"));
    use(2 * limits.memory);
    takeAll();
    EXPECT_EQ(posts, 1U) << "one is always read, so that nothing stands still";
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

template <class AnyPort>
void expectNoDelay(AnyPort& port, uint16_t number)
{
    const ZmtpPeer peer(number);
    port.accept(1, Clock::now());
    ASSERT_EQ(port.peers().size(), 1U);
    EXPECT_EQ(optionOf(port.peers().front()->descriptor(), IPPROTO_TCP, TCP_NODELAY), 1) << number;
}

} // namespace

TEST_F(PortTest, nothingWaitsForTheAcknowledgementOfWhatWasSentBefore)
{
    const DeviceState state(limits, refusals);
    RequestPort requestPort(
        environment, state, [](RequestConnection&) {}, [](RequestConnection&) {});
    NotifyPort notifyPort(environment, state);
    requestPort.listen();
    notifyPort.listen();
    expectNoDelay(port, ZmtpPeer::postPort);
    expectNoDelay(requestPort, ZmtpPeer::requestPort);
    expectNoDelay(notifyPort, ZmtpPeer::notifyPort);
}

// ------------------------------------------------------------------------------------------------
// subscribers

namespace
{

// How often the log was sent to this connection.
int watchedSocket = -1;
int timesSent = 0;

} // namespace

// Replaces the system's function.
extern "C" ssize_t sendmsg(int socket, const msghdr* message, int flags)
{
    timesSent += socket == watchedSocket ? 1 : 0;
    return syscall(SYS_sendmsg, socket, message, flags);
}

namespace
{

class SubscribersTest : public PortTest
{
protected:
    SubscribersTest() { notifyPort.listen(); }

    struct Subscriber
    {
        std::unique_ptr<ZmtpPeer> peer;
        NotifyConnection* connection;
    };

    // A connection that has sent nothing yet.
    Subscriber connectOne()
    {
        auto peer = std::make_unique<ZmtpPeer>(ZmtpPeer::notifyPort);
        notifyPort.accept(1, Clock::now());
        return {std::move(peer), notifyPort.peers().back().get()};
    }

    Subscriber subscribe(const std::vector<std::string>& prefixes)
    {
        Subscriber subscriber = connectOne();
        EXPECT_TRUE(subscriber.peer->shakeHands());
        for (const std::string& prefix : prefixes)
            subscriber.peer->write(ZmtpPeer::subscribe(prefix));
        EXPECT_TRUE(eventually(
            [&]
            {
                notifyPort.serve(*subscriber.connection, EPOLLIN, Clock::now());
                return subscriber.connection->prefixes.size() == prefixes.size();
            }));
        return subscriber;
    }

    static int sendBufferOf(const NotifyConnection& connection)
    {
        return optionOf(connection.descriptor(), SOL_SOCKET, SO_SNDBUF);
    }

    // The size that the system gives a send buffer for this many bytes.
    static int sendBufferFor(std::size_t bytes)
    {
        const Descriptor probe(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const int value = static_cast<int>(bytes);
        EXPECT_EQ(setsockopt(probe.number(), SOL_SOCKET, SO_SNDBUF, &value, sizeof(value)), 0);
        return optionOf(probe.number(), SOL_SOCKET, SO_SNDBUF);
    }

    std::size_t allSendBuffers() const
    {
        std::size_t sum = 0;
        for (const auto& connection : notifyPort.peers())
            sum += static_cast<std::size_t>(sendBufferOf(*connection));
        return sum;
    }

    void publish(std::size_t messages, std::size_t bytes)
    {
        for (; messages != 0; --messages)
            notifyPort.publish(std::string(bytes, 'x'), 0, 0);
    }

    // How often one flush sends to a follower of everything that does not read.
    // @param now when the follower last took something
    int timesSentToAFollower(TimePoint now)
    {
        const Subscriber follower = subscribe({""});
        publish(64, 60000); // more than the system holds for the follower
        follower.connection->tookAt = now;
        watchedSocket = follower.connection->descriptor();
        timesSent = 0;
        notifyPort.flush(now);
        watchedSocket = -1;
        notifyPort.close(*follower.connection);
        return timesSent;
    }

    const int large = sendBufferFor(SendBuffers::largest);
    DeviceState state{limits, refusals};
    NotifyPort notifyPort{environment, state};
};

} // namespace

TEST_F(SubscribersTest, theSystemHoldsMuchForEachOfAFewAndNoMoreThanABoundForAll)
{
    constexpr std::size_t forAll = std::size_t{16} * 1024 * 1024;
    constexpr std::size_t count = 400;
    std::deque<ZmtpPeer> subscribers;
    while (subscribers.size() < count)
    {
        subscribers.emplace_back(ZmtpPeer::notifyPort);
        notifyPort.accept(1, Clock::now());
        ASSERT_EQ(notifyPort.peers().size(), subscribers.size());
        ASSERT_LE(allSendBuffers(), forAll) << subscribers.size();
        if (subscribers.size() <= 16)
        {
            ASSERT_EQ(sendBufferOf(*notifyPort.peers().back()), large);
        }
    }
    EXPECT_LT(sendBufferOf(*notifyPort.peers().front()), large);
}

TEST_F(SubscribersTest, theSystemHoldsMuchAgainForTheRestWhenManyHaveLeft)
{
    std::deque<ZmtpPeer> subscribers;
    while (subscribers.size() < 100)
    {
        subscribers.emplace_back(ZmtpPeer::notifyPort);
        notifyPort.accept(1, Clock::now());
    }
    EXPECT_LT(sendBufferOf(*notifyPort.peers().front()), large);
    while (notifyPort.peers().size() > 10)
        notifyPort.close(*notifyPort.peers().back());
    notifyPort.collect([](NotifyConnection&) {});
    for (const auto& connection : notifyPort.peers())
        EXPECT_EQ(sendBufferOf(*connection), large);
}

TEST_F(SubscribersTest, theSystemHoldsMuchForEachThatReadsAmongManyHoweverManyDidBefore)
{
    std::deque<ZmtpPeer> others;
    while (others.size() < 300)
    {
        others.emplace_back(ZmtpPeer::notifyPort);
        notifyPort.accept(1, Clock::now());
    }
    const Subscriber stopped = subscribe({""});
    for (int count = 0; count < 20; ++count)
    {
        const Subscriber reader = subscribe({""});
        publish(20, 60000);
        notifyPort.flush(Clock::now());
        EXPECT_TRUE(reader.connection->isFull);
        EXPECT_LT(sendBufferOf(*reader.connection), large) << "it has not read yet";
        ASSERT_TRUE(eventually(
            [&]
            {
                reader.peer->read(60000, std::chrono::milliseconds(0));
                notifyPort.serve(*reader.connection, EPOLLOUT, Clock::now());
                notifyPort.flush(Clock::now());
                return sendBufferOf(*reader.connection) == large;
            }))
            << count;
        notifyPort.close(*reader.connection);
    }
    EXPECT_LT(sendBufferOf(*stopped.connection), large);
}

TEST_F(SubscribersTest, aFollowerIsSentMoreWhileOthersLookForWhatTheyWant)
{
    const int alone = timesSentToAFollower(Clock::now());
    EXPECT_GT(alone, 0);
    std::vector<std::string> prefixes;
    while (prefixes.size() < 16)
        prefixes.emplace_back(200, static_cast<char>('a' + prefixes.size()));
    std::vector<Subscriber> others;
    while (others.size() < 50)
        others.push_back(subscribe(prefixes));
    publish(300000, 10);
    EXPECT_GT(timesSentToAFollower(Clock::now()), alone);

    for (const Subscriber& other : others)
        notifyPort.serve(*other.connection, EPOLLOUT, Clock::now());
    EXPECT_EQ(timesSentToAFollower(Clock::now() - std::chrono::seconds(10)), alone) << "it has stopped";
}

// Many that subscribe to a broker that was started just now get all values at first.
TEST_F(SubscribersTest, oneThatFollowsAPartDoesNotWaitForTheFirstValuesOfOthers)
{
    const Subscriber follower = subscribe({"x"});
    for (int number = 0; number < 9000; ++number)
        state.post({{"key" + std::to_string(number), "a value of some length"}});
    notifyPort.catchUp().disconnected(0, Clock::now(), std::chrono::seconds(30));
    std::vector<Subscriber> others;
    while (others.size() < 100)
        others.push_back(subscribe({"{"}));
    notifyPort.flush(Clock::now()); // some others have their turn
    publish(1, 10);
    notifyPort.flush(Clock::now());
    EXPECT_EQ(follower.connection->position, notifyPort.log().end());
    EXPECT_EQ(notifyPort.due(), TimePoint::min()) << "some others still wait";
}

TEST_F(SubscribersTest, oneThatIsSentNothingIsNotWaitedFor)
{
    const TimePoint now = Clock::now();
    for (char name = 'a'; name < 'k'; ++name)
        state.post({{std::string_view(&name, 1), "value"}});
    notifyPort.catchUp().disconnected(0, now, std::chrono::seconds(30));
    const Subscriber subscriber = subscribe({"unlike any"});
    ASSERT_EQ(subscriber.connection->state, NotifyConnection::State::Following);
    publish(1, 10);
    EXPECT_EQ(notifyPort.backlog(now), 0U);

    notifyPort.catchUp().disconnected(0, now, std::chrono::seconds(30));
    const Subscriber taking = subscribe({"{\"statusUpdate\""});
    ASSERT_EQ(taking.connection->state, NotifyConnection::State::Following);
    publish(1, 10);
    EXPECT_GT(notifyPort.backlog(now), 0U);
}

TEST_F(SubscribersTest, theSystemHoldsNothingForOneThatWasClosedForWantOfMemory)
{
    const Subscriber subscriber = subscribe({""});
    publish(200, 60000);
    notifyPort.flush(Clock::now());
    notifyPort.closeForMemory(*subscriber.connection, Clock::now());
    pollfd polled{subscriber.peer->descriptor(), POLLIN, 0};
    EXPECT_EQ(poll(&polled, 1, 0), 1);
    EXPECT_NE(polled.revents & POLLERR, 0) << "the connection ends at once";
}

// As when a user joins a group, while the rules stay the same.
TEST_F(SubscribersTest, oneWhoseRightsGetLessInTheMiddleOfAMessageGetsItWholeAndThenWhatItMaySee)
{
    const Subscriber one = subscribe({""});
    notifyPort.flush(Clock::now());
    publish(1, 3000000); // more than the kernel holds
    notifyPort.flush(Clock::now());
    ASSERT_GT(notifyPort.queuedBytes(*one.connection), 0U);
    LoadedPolicy loaded = makePolicy({{"policy", "[[rule]]\ndeny = \"see\"\nkeys = \"secret\"\n"}}, {});
    ASSERT_EQ(loaded.errors, std::vector<std::string>{});
    guard.setPolicy(std::move(loaded.policy));
    ASSERT_TRUE(guard.admit(*one.connection));
    notifyPort.takeOverRights(false, Clock::now());
    auto received = std::async(std::launch::async,
                               [&]
                               {
                                   const auto first = one.peer->receiveText();
                                   return std::pair(first, one.peer->receiveText());
                               });
    bool isPublished = false;
    EXPECT_TRUE(eventually(
        [&]
        {
            notifyPort.serve(*one.connection, EPOLLOUT, Clock::now());
            notifyPort.flush(Clock::now());
            if (!isPublished && notifyPort.queuedBytes(*one.connection) == 0)
            {
                notifyPort.publish(R"({"statusUpdate":{"a":"1","secret":"2"}})", 0, 0);
                isPublished = true;
            }
            return received.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        }));
    const auto [first, second] = received.get();
    EXPECT_EQ(first, std::string(3000000, 'x'));
    EXPECT_EQ(second, R"({"statusUpdate":{"a":"1"}})");
}
