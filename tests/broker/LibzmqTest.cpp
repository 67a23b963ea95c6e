// The behaviour of libzmq at its end of the connection. The broker relies on it, and the protocol does not
// prescribe all of it. If another version behaves differently, one of these tests shows where.

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <vector>
#include <zmq.hpp>

#include "broker/StartGate.h"
#include "tests/support/Wait.h"
#include "tests/support/ZmtpPeer.h"

namespace
{

using namespace std::string_literals;
using Type = zmq::socket_type;

constexpr std::array<Type, 3> allTypes{Type::pub, Type::req, Type::sub};

// How long a test watches that nothing comes.
constexpr std::chrono::milliseconds quiet{100};

const std::string subscription("\0\1\1", 3);

std::string nameOf(Type type)
{
    return type == Type::pub ? "PUB" : type == Type::req ? "REQ" : "SUB";
}

// The broker's socket type for such a client.
std::string fittingFor(Type type)
{
    return type == Type::pub ? "SUB" : type == Type::req ? "ROUTER" : "XPUB";
}

std::string openingFor(Type type)
{
    return ZmtpPeer::greeting() + ZmtpPeer::ready(fittingFor(type));
}

// The client's greeting, byte by byte. In version 1, the signature contains the length of an identity.
std::string greetingOfClient()
{
    std::string greeting = ZmtpPeer::greeting();
    greeting[8] = '\1';
    return greeting;
}

// The client's READY, byte by byte.
std::string readyOf(Type type)
{
    if (type == Type::req)
        return "\4\x26\5READY\x0bSocket-Type\0\0\0\3REQ\x08Identity\0\0\0\0"s;
    return "\4\x19\5READY\x0bSocket-Type\0\0\0\3"s + nameOf(type);
}

// All sockets of a test share one I/O thread, as in a client.
class LibzmqTest : public testing::Test
{
protected:
    std::atomic<unsigned> released{0}; // by libzmq, on any thread while the context lives
    zmq::context_t context;
};

// A socket, connected to its own server.
struct Client
{
    Client(zmq::context_t& context, Type kind, int receiveBuffer = 0)
        : type(kind), server(receiveBuffer), socket(context, kind)
    {
        socket.set(zmq::sockopt::linger, 0);
        if (type == Type::sub)
            socket.set(zmq::sockopt::subscribe, "");
        socket.set(zmq::sockopt::sndhwm, 0);
    }

    void connect() { socket.connect(server.endpoint()); }

    std::unique_ptr<ZmtpPeer> accept() { return server.accept(); }

    // A connection with the handshake done.
    std::unique_ptr<ZmtpPeer> acceptOpen()
    {
        std::unique_ptr<ZmtpPeer> peer = accept();
        const std::string expected = greetingOfClient() + readyOf(type);
        if (!peer || !peer->write(openingFor(type)) || peer->read(expected.size()) != expected)
            ADD_FAILURE() << "no handshake with " << nameOf(type);
        return peer;
    }

    std::unique_ptr<ZmtpPeer> open()
    {
        connect();
        return acceptOpen();
    }

    // Lets the broker's subscription reach the socket's mailbox. The I/O thread answers a PING that arrives
    // together with the subscription before it forwards the subscription. It answers a later PING afterwards.
    void subscribe(ZmtpPeer& peer)
    {
        for (const std::string& said : {subscription + ZmtpPeer::ping("1"), ZmtpPeer::ping("2")})
        {
            EXPECT_TRUE(peer.write(said));
            EXPECT_TRUE(peer.readFrame());
        }
    }

    // Makes the socket read its mailbox, whatever its clock says.
    void look() { (void)socket.get(zmq::sockopt::events); }

    bool send(const std::string& text) { return socket.send(zmq::buffer(text)).has_value(); }

    std::optional<std::string> receive(std::chrono::milliseconds deadline = testDeadline)
    {
        socket.set(zmq::sockopt::rcvtimeo, static_cast<int>(deadline.count()));
        zmq::message_t message;
        return socket.recv(message) ? std::optional(message.to_string()) : std::nullopt;
    }

    Type type;
    ZmtpServer server;
    zmq::socket_t socket;
};

// Lets time pass on the clock of the context's I/O thread. It is longer than any socket waits before it
// reconnects, at most 200 ms.
void letOthersComeBack(zmq::context_t& context)
{
    constexpr int times = 4; // 100 ms or more each
    Client reference(context, Type::pub);
    reference.connect();
    for (int count = 0; count < times; ++count)
        ASSERT_TRUE(reference.accept());
}

} // namespace

// ----------------------------------------------------------------------------------------- what clients say

TEST_F(LibzmqTest, saysItsGreetingInPiecesAndWaitsForTheServers)
{
    for (const Type type : allTypes)
    {
        Client client(context, type);
        client.connect();
        const auto peer = client.accept();
        const std::string greeting = greetingOfClient();
        ASSERT_EQ(peer->read(10), greeting.substr(0, 10));
        EXPECT_EQ(peer->read(1, quiet), "");
        ASSERT_TRUE(peer->write(greeting.substr(0, 11)));
        EXPECT_EQ(peer->read(54), greeting.substr(10)) << "version 3.1, NULL, no server";
        EXPECT_EQ(peer->read(1, quiet), "");
        ASSERT_TRUE(peer->write(greeting.substr(11)));
        EXPECT_EQ(peer->read(readyOf(type).size()), readyOf(type));
        EXPECT_EQ(peer->read(1, quiet), "") << "before our READY";
    }
}

TEST_F(LibzmqTest, isContentWithAGreetingAndAReadyInOneWrite)
{
    for (const Type type : allTypes)
    {
        Client client(context, type);
        EXPECT_TRUE(client.open());
    }
}

TEST_F(LibzmqTest, subscribesByACommandBehindReady)
{
    Client client(context, Type::sub);
    const auto peer = client.open();
    EXPECT_EQ(peer->read(12), "\4\x0a\x09SUBSCRIBE"s);
    client.socket.set(zmq::sockopt::subscribe, "pre");
    client.receive(std::chrono::milliseconds(0)); // reads its mailbox
    EXPECT_EQ(peer->read(15), "\4\x0d\x09SUBSCRIBEpre"s);
    client.socket.set(zmq::sockopt::unsubscribe, "pre");
    client.receive(std::chrono::milliseconds(0));
    EXPECT_EQ(peer->read(12), "\4\x0a\6CANCELpre"s);
}

TEST_F(LibzmqTest, subscribesByAMessageWhereTheServerIsOfVersion30)
{
    Client client(context, Type::sub);
    client.connect();
    const auto peer = client.accept();
    ASSERT_TRUE(peer->write(ZmtpPeer::greeting(0) + ZmtpPeer::ready("XPUB")));
    const std::string expected = greetingOfClient() + readyOf(Type::sub) + subscription;
    EXPECT_EQ(peer->read(expected.size()), expected);
}

TEST_F(LibzmqTest, putsADelimiterBeforeARequestThatWaitsRightBehindReady)
{
    Client client(context, Type::req);
    client.socket.connect(client.server.endpoint());
    client.send("Sync");
    const auto peer = client.acceptOpen();
    EXPECT_EQ(peer->read(8), "\1\0\0\4Sync"s);
    ASSERT_TRUE(peer->write("\1\0\0\7SyncAck"s));
    EXPECT_EQ(client.receive(), "SyncAck");
}

TEST_F(LibzmqTest, framesPostsAsTheBrokerReadsThem)
{
    Client client(context, Type::pub);
    const auto peer = client.open();
    client.subscribe(*peer);
    client.look();
    client.send("one");
    client.send(std::string(300, 'x'));
    client.socket.send(zmq::buffer(std::string(512, 'a')), zmq::send_flags::sndmore);
    client.send("");
    EXPECT_EQ(peer->read(5), "\0\3one"s);
    EXPECT_EQ(peer->read(309), "\2\0\0\0\0\0\0\1\x2c"s + std::string(300, 'x'));
    EXPECT_EQ(peer->read(523), "\3\0\0\0\0\0\0\2\0"s + std::string(512, 'a') + "\0\0"s);
}

TEST_F(LibzmqTest, answersAPingWithUpToSixteenBytesOfItsContext)
{
    for (const Type type : allTypes)
    {
        Client client(context, type);
        const auto peer = client.open();
        if (type == Type::sub)
            peer->readFrame();
        ASSERT_TRUE(peer->write(ZmtpPeer::ping("ctx") + ZmtpPeer::ping(std::string(16, 'a') + "b")));
        EXPECT_EQ(peer->readFrame()->body, "\4PONGctx");
        EXPECT_EQ(peer->readFrame()->body, "\4PONG" + std::string(16, 'a'));
    }
}

TEST_F(LibzmqTest, hasTheDefaultsThatTheBrokersTimesAreMadeFor)
{
    for (const Type type : allTypes)
    {
        const zmq::socket_t socket(context, type);
        EXPECT_EQ(socket.get(zmq::sockopt::reconnect_ivl), 100) << "ms, and up to as much again at random";
        EXPECT_EQ(socket.get(zmq::sockopt::reconnect_ivl_max), 0) << "the pause does not grow";
        EXPECT_EQ(socket.get(zmq::sockopt::handshake_ivl), 30000) << "ms before it gives up a silent server";
        EXPECT_EQ(socket.get(zmq::sockopt::heartbeat_ivl), 0) << "it sends no PING";
        EXPECT_EQ(socket.get(zmq::sockopt::sndhwm), 1000) << "posts that wait for a broker";
    }
}

// ------------------------------------------------------------------------------ what the barriers rest on

namespace
{

// Makes posts, and counts those that libzmq has released.
class CountedPosts
{
public:
    CountedPosts(zmq::socket_t& socket, std::atomic<unsigned>& released)
        : mSocket(socket), mReleased(released)
    {
    }

    void post()
    {
        static std::array<char, 100> text{};
        zmq::message_t message(text.data(), text.size(), &CountedPosts::release, &mReleased);
        mSocket.send(message, zmq::send_flags::none);
        ++mSent;
    }

    unsigned sent() const { return mSent; }

private:
    static void release(void*, void* count) { ++*static_cast<std::atomic<unsigned>*>(count); }

    zmq::socket_t& mSocket;
    std::atomic<unsigned>& mReleased;
    unsigned mSent = 0;
};

} // namespace

// Holds also if the kernel takes no more and libzmq still has part of what it released.
TEST_F(LibzmqTest, putsPongBehindAllPostsThatItHasLetGoOf)
{
    // With less, a full window of the kernel opens so slowly that a busy machine needs minutes.
    constexpr int smallBuffer = 16 * 1024;
    Client client(context, Type::pub, smallBuffer);
    client.socket.set(zmq::sockopt::sndbuf, smallBuffer);
    CountedPosts posts(client.socket, released);
    const auto peer = client.open();
    client.subscribe(*peer);
    client.look();
    unsigned read = 0;
    for (int round = 0; round < 20; ++round)
    {
        // All buffers are full when nothing has been released for a while.
        constexpr unsigned muchMore = 1000;
        unsigned before = released;
        for (unsigned since = posts.sent(); posts.sent() < since + muchMore;)
        {
            posts.post();
            if (posts.sent() % 16 == 0) // each time costs much beside other programs
                std::this_thread::yield();
            if (released != before)
            {
                before = released;
                since = posts.sent();
            }
        }
        const unsigned letGo = released;
        ASSERT_TRUE(peer->write(ZmtpPeer::ping(std::to_string(round))));
        for (std::optional<WireFrames::Frame> frame; (frame = peer->readFrame());)
        {
            if ((frame->flags & WireFrames::command) != 0)
            {
                ASSERT_EQ(frame->body, "\4PONG" + std::to_string(round));
                break;
            }
            ++read;
        }
        EXPECT_GE(read, letGo) << round;
        EXPECT_LT(read, posts.sent()) << "PONG overtakes posts that libzmq has not released";
    }
}

namespace
{

// The number of posts lost among those made right after PONG had confirmed the subscription.
unsigned lostBehindPong(zmq::context_t& context, bool looks)
{
    Client client(context, Type::pub);
    const auto peer = client.open();
    client.send("the last look before the subscription, at the latest");
    const auto looked = Clock::now();
    client.subscribe(*peer);
    if (looks)
        client.look();
    // The last post is made after the hold, so it must arrive.
    unsigned last = 0;
    for (bool isOver = false; !isOver; ++last)
    {
        isOver = Clock::now() - looked >= StartGate::settleTime;
        client.send(std::to_string(last));
    }
    const auto first = peer->readFrame();
    EXPECT_TRUE(first) << "a post was lost after the hold of the first SyncAck";
    return first ? static_cast<unsigned>(std::stoul(first->body)) : last;
}

} // namespace

// The socket checks for a subscription only when 3,000,000 ticks have passed since the last check. SyncAck is
// held back for longer, so that the first post after it checks.
TEST_F(LibzmqTest, noticesASubscriptionThatHasArrivedWithinTheHoldOfTheFirstSyncAck)
{
    unsigned mostLost = 0;
    for (int round = 0; round < 100; ++round)
        mostLost = std::max(mostLost, lostBehindPong(context, false));
    EXPECT_GT(mostLost, 0U) << "this libzmq looks at once: the hold is no longer needed";
}

TEST_F(LibzmqTest, noticesASubscriptionThatHasArrivedWhenItIsAskedForEvents)
{
    for (int round = 0; round < 100; ++round)
        ASSERT_EQ(lostBehindPong(context, true), 0U);
}

// -------------------------------------------------------------------------------------------- coming back

TEST_F(LibzmqTest, comesBackWheneverItIsClosed)
{
    for (const Type type : allTypes)
    {
        Client client(context, type);
        client.connect();
        for (int round = 0; round < 2; ++round)
        {
            ASSERT_TRUE(client.accept()) << "closed at once";
            ASSERT_TRUE(client.acceptOpen()) << "closed after READY";
            ASSERT_TRUE(client.accept());
            client.acceptOpen()->reset();
        }
        EXPECT_TRUE(client.acceptOpen());
    }
}

TEST_F(LibzmqTest, remembersThePostersSubscription)
{
    Client client(context, Type::pub);
    auto peer = client.open();
    client.subscribe(*peer);
    client.look();
    peer.reset();
    peer = client.accept(); // has noticed the reset
    constexpr int posts = 1000;
    for (int number = 0; number < posts; ++number)
        client.send(std::to_string(number));
    const std::string opening = greetingOfClient() + readyOf(Type::pub);
    ASSERT_TRUE(peer->write(openingFor(Type::pub)));
    ASSERT_EQ(peer->read(opening.size()), opening);
    for (int number = 0; number < posts; ++number)
        ASSERT_EQ(peer->receiveText(), std::to_string(number)) << "without a new subscription";
    ASSERT_TRUE(peer->write(subscription + ZmtpPeer::ping("again")));
    EXPECT_EQ(peer->readFrame()->body, "\4PONGagain") << "another subscription does no harm";
    client.send("once");
    EXPECT_EQ(peer->receiveText(), "once");
    EXPECT_EQ(peer->read(1, quiet), "");
}

TEST_F(LibzmqTest, doesNotRepeatARequestButTakesAnAnswerOnItsNewConnection)
{
    Client client(context, Type::req);
    auto peer = client.open();
    client.send("question");
    ASSERT_TRUE(peer->receive());
    peer.reset();
    peer = client.acceptOpen();
    EXPECT_EQ(peer->read(1, quiet), "");
    ASSERT_TRUE(peer->write("\1\0\0\0"s)); // the broker's empty answer
    EXPECT_EQ(client.receive(), "");
    client.send("again");
    EXPECT_EQ(peer->read(9), "\1\0\0\5again"s);
}

TEST_F(LibzmqTest, dropsAnAnswerThatNobodyAskedFor)
{
    Client client(context, Type::req);
    const auto peer = client.open();
    for (const std::string& said : {"\1\0\0\0"s + ZmtpPeer::ping("1"), ZmtpPeer::ping("2")})
    {
        ASSERT_TRUE(peer->write(said));
        ASSERT_TRUE(peer->readFrame()) << "it has been read, and handed on";
    }
    client.look();
    client.send("question");
    ASSERT_EQ(peer->read(12), "\1\0\0\x08question"s);
    ASSERT_TRUE(peer->write("\1\0\0\6answer"s));
    EXPECT_EQ(client.receive(), "answer");
}

TEST_F(LibzmqTest, subscribesAgainWhenItComesBack)
{
    Client client(context, Type::sub);
    std::thread receiving([&] { client.receive(); });
    client.open().reset();
    const auto peer = client.acceptOpen();
    EXPECT_EQ(peer->read(12), "\4\x0a\x09SUBSCRIBE"s);
    EXPECT_TRUE(peer->write("\0\0"s));
    receiving.join();
}

// ----------------------------------------------------------------------------- what they do when we do wrong

namespace
{

struct Wrong
{
    std::string name;
    std::function<std::string(Type)> bytes; ///< sent by the server from the start of the connection
    std::vector<Type> types{allTypes.begin(), allTypes.end()};
};

std::string behindReady(Type type, const std::string& bytes)
{
    return openingFor(type) + bytes;
}

// Protocol errors.
const std::vector<Wrong> unforgivable{
    {"a socket type that does not fit", [](Type) { return ZmtpPeer::greeting() + ZmtpPeer::ready("PAIR"); }},
    {"a message instead of READY", [](Type) { return ZmtpPeer::greeting() + ZmtpPeer::message("message"); }},
    {"READY twice", [](Type type) { return behindReady(type, ZmtpPeer::ready(fittingFor(type))); }},
    {"another mechanism",
     [](Type type)
     {
         std::string greeting = ZmtpPeer::greeting();
         greeting.replace(12, 5, "PLAIN");
         return greeting + ZmtpPeer::ready(fittingFor(type));
     }},
    {"reserved flags", [](Type type) { return behindReady(type, "\x08\1x"); }},
    {"subscription in one write with READY", [](Type type) { return behindReady(type, subscription); }},
    {"PING in one write with READY", [](Type type) { return behindReady(type, ZmtpPeer::ping("")); }},
};

// Sent after READY, when the client has read it: answers to a request.
const std::vector<std::pair<std::string, std::string>> wrongAnswers{
    {"without delimiter", "\0\6answer"s},
    {"a delimiter that is not empty", "\1\1x\0\6answer"s},
    {"a delimiter alone", "\0\0"s},
};

} // namespace

TEST_F(LibzmqTest, neverComesBackAfterAProtocolError)
{
    std::vector<std::pair<std::string, std::unique_ptr<Client>>> clients;
    for (const Wrong& wrong : unforgivable)
    {
        for (const Type type : wrong.types)
        {
            clients.emplace_back(wrong.name + ", " + nameOf(type), std::make_unique<Client>(context, type));
            Client& client = *clients.back().second;
            client.connect();
            const auto peer = client.accept();
            ASSERT_TRUE(peer->write(wrong.bytes(type)));
            ASSERT_TRUE(peer->isClosed()) << clients.back().first;
        }
    }
    for (const auto& [name, answer] : wrongAnswers)
    {
        clients.emplace_back("answer " + name, std::make_unique<Client>(context, Type::req));
        const auto peer = clients.back().second->open();
        clients.back().second->send("question");
        ASSERT_TRUE(peer->receive());
        ASSERT_TRUE(peer->write(answer));
        ASSERT_TRUE(peer->isClosed()) << name;
    }
    letOthersComeBack(context);
    for (const auto& [name, client] : clients)
        EXPECT_FALSE(client->server.hasClient()) << name;
}

TEST_F(LibzmqTest, forgivesWhatIsUnknownOrMalformedBehindReady)
{
    for (const Type type : allTypes)
    {
        Client client(context, type);
        const auto peer = client.open();
        if (type == Type::sub)
            peer->readFrame();
        for (const std::string& command : {"\5HELLO"s, "\4PONG"s, "\5ERROR\0"s, ""s, "\xff"s})
            ASSERT_TRUE(peer->write(WireFrames::frame(command, WireFrames::command)));
        const std::string noSubscription = type == Type::pub ? ZmtpPeer::message("none") : "";
        ASSERT_TRUE(peer->write(noSubscription + ZmtpPeer::ping("end")));
        const auto frame = peer->readFrame();
        ASSERT_TRUE(frame) << nameOf(type);
        EXPECT_EQ(frame->body, "\4PONGend") << nameOf(type);
    }
}

TEST_F(LibzmqTest, forgivesAReadyWithoutASocketType)
{
    for (const Type type : allTypes)
    {
        Client client(context, type);
        client.connect();
        const auto peer = client.accept();
        const std::string expected = greetingOfClient() + readyOf(type);
        ASSERT_TRUE(peer->write(ZmtpPeer::greeting() + WireFrames::frame("\5READY", WireFrames::command)));
        EXPECT_EQ(peer->read(expected.size()), expected);
        if (type == Type::sub)
            peer->readFrame();
        ASSERT_TRUE(peer->write(ZmtpPeer::ping("end")));
        EXPECT_EQ(peer->readFrame()->body, "\4PONGend") << nameOf(type);
    }
}

// Such a connection is useless. Only its client ends it, after 30 s.
TEST_F(LibzmqTest, keepsAConnectionThatIsRefusedByAnError)
{
    for (const Type type : allTypes)
    {
        Client client(context, type);
        client.connect();
        const auto peer = client.accept();
        ASSERT_TRUE(peer->write(ZmtpPeer::greeting() + WireFrames::frame("\5ERROR\0"s, WireFrames::command)));
        EXPECT_FALSE(peer->isClosed(quiet)) << nameOf(type);
    }
}
