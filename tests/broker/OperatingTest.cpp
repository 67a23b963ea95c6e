// The real broker as an operator meets it: configuration, signals, heartbeat, statistics, clock and service
// manager.

#include <algorithm>
#include <array>
#include <csignal>
#include <cstddef>
#include <gtest/gtest.h>
#include <memory>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "statusmanager/StatusManagerProxy.h"
#include "tests/broker/Messages.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/RawClient.h"
#include "tests/support/TemporaryFolder.h"

namespace
{

using Command = std::vector<std::string>;

} // namespace

// --------------------------------------------------------------------------------------------- configuration

TEST(Configuration, isCheckedWithoutServing)
{
    const TemporaryFolder folder;
    writeFile(folder / "good", "max-keys = 5\n");
    writeFile(folder / "bad", "max-keys = 5\nmax-kesy = 6\n");
    BrokerProcess serving; // checking must not bind the ports
    TestProcess good({STATUSBROKER_PRODUCT, "--check-config", "--config", folder / "good"});
    EXPECT_EQ(good.readLine(), "statusbroker: the configuration is valid");
    EXPECT_EQ(good.waitForExit(), 0);
    TestProcess bad({STATUSBROKER_PRODUCT, "--check-config", "--config", folder / "bad"});
    EXPECT_TRUE(bad.waitForError("statusbroker: " + (folder / "bad") + ":2: unknown name \"max-kesy\"\n"));
    EXPECT_EQ(bad.waitForExit(), 2);
}

TEST(Configuration, anUnknownNameKeepsItFromStarting)
{
    const TemporaryFolder folder;
    writeFile(folder / "bad", "max-kesy = 6\n");
    TestProcess process({STATUSBROKER_PRODUCT, "--config", folder / "bad"});
    EXPECT_EQ(process.waitForExit(), 2);
}

TEST(Configuration, ofLimitsAndLevelIsTakenOverAtHangUp)
{
    const TemporaryFolder folder;
    writeFile(folder / "conf", "max-keys = 1\n");
    BrokerProcess broker({"--config", folder / "conf"});
    RawPoster poster;
    RawRequester requester;
    poster.post(R"({"postStatus":{"a":"1","b":"1"}})");
    EXPECT_EQ(valueOf(requester, "b"), reply(""));
    writeFile(folder / "conf", "max-keys = 2\nlog-level = 7\n");
    broker.process().signal(SIGHUP);
    EXPECT_TRUE(broker.process().waitForError("Applied new limits, log level and policy"));
    poster.post(R"({"postStatus":{"a":"1","b":"1"}})");
    EXPECT_EQ(valueOf(requester, "b"), reply("1"));
}

TEST(Configuration, thatIsBadAtHangUpIsToldAndTheOldOneKept)
{
    const TemporaryFolder folder;
    writeFile(folder / "conf", "max-keys = 1\n");
    BrokerProcess broker({"--config", folder / "conf"});
    RawPoster poster;
    RawRequester requester;
    writeFile(folder / "conf", "max-keys = 0\n");
    broker.process().signal(SIGHUP);
    EXPECT_TRUE(broker.process().waitForError("Keeping the old options: " + (folder / "conf") + ":1: "));
    poster.post(R"({"postStatus":{"a":"1","b":"1"}})");
    EXPECT_EQ(valueOf(requester, "a"), reply("1"));
    EXPECT_EQ(valueOf(requester, "b"), reply(""));
}

TEST(LogLevel, hidesWhatIsAboveIt)
{
    BrokerProcess told;
    EXPECT_EQ(told.stop(), 0);
    EXPECT_TRUE(told.process().waitForError("Stopped"));
    TestProcess silent({STATUSBROKER_PRODUCT, "--log-level=2"});
    RawRequester requester;
    valueOf(requester, "k"); // it serves
    silent.signal(SIGTERM);
    EXPECT_EQ(silent.waitForExit(), 0);
    EXPECT_EQ(silent.errors(), "");
}

TEST(LogLevel, isTakenOverAtHangUp)
{
    const TemporaryFolder folder;
    writeFile(folder / "conf", "log-level = 5\n");
    BrokerProcess broker({"--config", folder / "conf"});
    writeFile(folder / "conf", "log-level = 2\nmax-keys = 1\n");
    broker.process().signal(SIGHUP);
    // The reload is not logged again, so the limit must show it.
    RawPoster poster;
    RawRequester requester;
    int number = 0;
    EXPECT_TRUE(eventually(
        [&]
        {
            poster.post(postOf(std::to_string(++number), "1"));
            return brokerStatistic(requester, "limit.keys") != 0;
        }));
    EXPECT_EQ(broker.stop(), 0);
    EXPECT_EQ(broker.process().errors().find("Stopped"), std::string::npos);
}

// ----------------------------------------------------------------------------------------------------- end

TEST(End, comesWithinTwoSecondsWithEverythingApplied)
{
    for (const int signal : {SIGTERM, SIGINT})
    {
        const TemporaryFolder folder;
        BrokerProcess broker({"--state", folder / "state"});
        RawPoster poster;
        for (int number = 0; number < 500; ++number)
            poster.post(postOf("k", std::to_string(number)));
        RawRequester requester;
        EXPECT_EQ(valueOf(requester, "k"), reply("499"));
        for (int number = 500; number < 1000; ++number)
            poster.post(postOf("k", std::to_string(number)));
        requester.send({R"({"getClientInfoValue":"k"})"});
        ASSERT_TRUE(requester.receive());
        const auto begin = std::chrono::steady_clock::now();
        broker.process().signal(signal);
        EXPECT_EQ(broker.process().waitForExit(), 0);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, allowed(std::chrono::seconds(2)));
        BrokerProcess again({"--state", folder / "state"});
        RawRequester another;
        EXPECT_EQ(valueOf(another, "k"), reply("999"));
    }
}

TEST(End, comesWithinTwoSecondsUnderAFlood)
{
    BrokerProcess broker;
    TestProcess flood({TESTCLIENT, "flood", "k"});
    ASSERT_EQ(flood.readLine(), "posting");
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(broker.stop(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, allowed(std::chrono::seconds(2)));
}

// ------------------------------------------------------------------------------------------------- heartbeat

TEST(Heartbeat, letsAClientEndOnAQuietDevice)
{
    BrokerProcess broker({"--heartbeat=1"});
    auto client = std::make_unique<StatusManagerProxy>();
    const auto begin = std::chrono::steady_clock::now();
    client.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, allowed(std::chrono::milliseconds(1500)));
}

TEST(Heartbeat, comesAsOftenAsToldAndOnlyThen)
{
    BrokerProcess broker({"--heartbeat=1"});
    zmq::context_t context;
    zmq::socket_t subscriber(context, zmq::socket_type::sub);
    subscriber.set(zmq::sockopt::subscribe, "");
    subscriber.set(zmq::sockopt::rcvtimeo, static_cast<int>(testDeadline.count()) * 1000);
    subscriber.connect("tcp://127.0.0.1:5557");
    zmq::message_t message;
    ASSERT_TRUE(subscriber.recv(message));
    constexpr int more = 3;
    const auto begin = std::chrono::steady_clock::now();
    for (int count = 0; count < more; ++count)
    {
        ASSERT_TRUE(subscriber.recv(message));
        EXPECT_EQ(message.to_string(), "Sync");
    }
    const auto taken = std::chrono::steady_clock::now() - begin;
    EXPECT_GT(taken, std::chrono::milliseconds(more * 1000 - 200)); // the first heartbeat may have been late
    EXPECT_LT(taken, std::chrono::seconds(more) + allowed(std::chrono::seconds(1)));
}

TEST(Heartbeat, isOffWhenItIsZero)
{
    BrokerProcess broker({"--heartbeat=0"});
    RawRequester requester;
    EXPECT_TRUE(eventually([&] { return brokerStatistic(requester, "uptime.seconds") >= 2; }));
    EXPECT_EQ(brokerStatistic(requester, "notifications.published"), 0U);
}

// ------------------------------------------------------------------------------------------------ statistics

TEST(Statistics, countWhatHappens)
{
    BrokerProcess broker;
    RawPoster poster;
    RawSubscriber subscriber(poster);
    RawRequester requester;
    const uint64_t posts = brokerStatistic(requester, "posts");
    const uint64_t published = brokerStatistic(requester, "notifications.published");
    poster.post(postOf("k", "value"));
    poster.post(postOf("k", "value"));
    poster.post(R"({"startTimer":"t"})");
    requester.ask(R"({"incrementCounter":"c"})");
    valueOf(requester, "k");
    valueOf(requester, "k");
    EXPECT_EQ(brokerStatistic(requester, "posts"), posts + 3);
    EXPECT_EQ(brokerStatistic(requester, "notifications.published"), published + 1);
    EXPECT_EQ(brokerStatistic(requester, "requests.getClientInfoValue"), 2U);
    EXPECT_EQ(brokerStatistic(requester, "requests.incrementCounter"), 1U);
    EXPECT_EQ(brokerStatistic(requester, "stored.keys"), 1U);
    EXPECT_EQ(brokerStatistic(requester, "stored.bytes"), 6U);
    EXPECT_EQ(brokerStatistic(requester, "stored.timers"), 1U);
    EXPECT_EQ(brokerStatistic(requester, "stored.counters"), 1U);
    EXPECT_EQ(brokerStatistic(requester, "clients.requests"), 1U);
    EXPECT_EQ(brokerStatistic(requester, "clients.posts"), 1U);
    EXPECT_GE(brokerStatistic(requester, "clients.notifications"), 1U);
    EXPECT_GT(brokerStatistic(requester, "loop.maxMicroseconds"), 0U);
    EXPECT_GE(brokerStatistic(requester, "loop.maxMicroseconds"),
              brokerStatistic(requester, "loop.p99Microseconds"));
    EXPECT_GT(brokerStatistic(requester, "descriptors.open"), 5U);
    EXPECT_GT(brokerStatistic(requester, "memory.rss"), 1000000U);
    EXPECT_EQ(brokerStatistic(requester, "version.major"), 1U);
    EXPECT_LT(brokerStatistic(requester, "uptime.seconds"), 100U);
    EXPECT_EQ(brokerStatistic(requester, "state.commits"), 0U);
}

TEST(Statistics, areAskedForAndCountedLikeAnythingElse)
{
    BrokerProcess broker;
    RawRequester requester;
    EXPECT_NE(requester.ask(R"( { "getBrokerStatistics" : "null" } )").find("uptime.seconds"),
              std::string::npos);
    EXPECT_EQ(brokerStatistic(requester, "requests.getBrokerStatistics"), 2U);
    EXPECT_EQ(brokerStatistic(requester, "malformed.requests"), 0U);
}

TEST(Statistics, stayOutOfTheDevicesValues)
{
    BrokerProcess broker;
    RawRequester requester;
    brokerStatistic(requester, "posts");
    EXPECT_EQ(requester.ask(R"({"getClientInfo":"null"})"), "{}");
}

// ---------------------------------------------------------------------------------------------------- clock

TEST(Clock, isNotSetToBeforeTheProgramWasBuilt)
{
    BrokerProcess broker({"--allow-set-time"});
    RawPoster poster;
    poster.post(R"({"updateSystemTime":1000000000})");
    EXPECT_TRUE(broker.process().waitForError(
        "Setting the system time to 1000000000 refused: that is before this program was built"));
    RawRequester requester;
    EXPECT_EQ(brokerStatistic(requester, "refused.systemTime"), 1U);
    EXPECT_EQ(broker.process().errors().find("settimeofday("), std::string::npos);
}

TEST(Clock, thatIsSetDoesNotMoveTheTimers)
{
    BrokerProcess broker({"--allow-set-time"});
    RawPoster poster;
    RawRequester requester;
    poster.post(R"({"startTimer":"before"})");
    poster.post(R"({"updateSystemTime":4000000000})");
    poster.post(R"({"startTimer":"after"})");
    constexpr uint64_t second = 1000000;
    EXPECT_GE(std::stoull(requester.ask(R"({"getTimerLastStarted":"after"})")), 4000000000 * second)
        << "it is set";
    EXPECT_LT(std::stoull(requester.ask(R"({"getTimerElapsed":"before"})")), 100 * second);
    poster.post(R"({"updateSystemTime":3000000000})");
    EXPECT_TRUE(eventually([&] { return std::stoull(requester.ask(R"({"getTimerElapsed":"after"})")) > 0; }));
    EXPECT_LT(std::stoull(requester.ask(R"({"getTimerElapsed":"after"})")), 100 * second);
}

// ---------------------------------------------------------------------------------------------- descriptors

TEST(Descriptors, softLimitIsRaisedToWhatTheConnectionsTake)
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit before = limit;
    limit.rlim_cur = 256;
    setrlimit(RLIMIT_NOFILE, &limit);
    BrokerProcess broker({"--max-connections=200"});
    setrlimit(RLIMIT_NOFILE, &before);
    RawRequester requester;
    EXPECT_EQ(brokerStatistic(requester, "descriptors.limit"), 700U);
}

TEST(Descriptors, hardLimitLowersTheConnectionsAndThatIsSaid)
{
    TestProcess broker({"/bin/sh", "-c", "ulimit -n 400; exec " STATUSBROKER_PRODUCT});
    EXPECT_TRUE(broker.waitForError("Only 100 connections per port: the limit of open files is 400"));
    EXPECT_TRUE(broker.waitForError("Serving"));
    broker.signal(SIGTERM);
    EXPECT_EQ(broker.waitForExit(), 0);
}

// ------------------------------------------------------------------------------------------- state file

TEST(StateFileOption, isNamedInTheLogAtTheStart)
{
    const TemporaryFolder folder;
    BrokerProcess broker({"--state", folder / "state"});
    EXPECT_TRUE(broker.process().waitForError("The state file is [" + (folder / "state") + "]"));
}

TEST(StateFileOption, isMissedInTheLogAtTheStart)
{
    BrokerProcess broker;
    EXPECT_TRUE(
        broker.process().waitForError("There is no state file: the state is lost when the broker ends"));
}

// ------------------------------------------------------------------------------------------- service manager

namespace
{

// A service manager's socket for notices.
class NotifySocket
{
public:
    explicit NotifySocket(const std::string& path)
    {
        mAddress.sun_family = AF_UNIX;
        path.copy(mAddress.sun_path, sizeof(mAddress.sun_path) - 1);
        if (path[0] == '@')
            mAddress.sun_path[0] = '\0';
        mSize = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
        bind(mSocket, reinterpret_cast<const sockaddr*>(&mAddress), mSize);
        timeval wait{30, 0};
        setsockopt(mSocket, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof(wait));
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
    }
    ~NotifySocket()
    {
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
        unsetenv("WATCHDOG_PID");
        close(mSocket);
    }

    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    // Fills the socket completely. A single sender may be refused earlier, for its own share.
    void fill() const
    {
        while (fillFromOneSender() != 0)
        {
        }
    }

    std::string next()
    {
        std::array<char, 1000> bytes{};
        const ssize_t count = recv(mSocket, bytes.data(), bytes.size(), 0);
        return {bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
    }

    std::string nextButFilling()
    {
        std::string told = next();
        while (told == filling)
            told = next();
        return told;
    }

private:
    static constexpr const char* filling = "X";

    int fillFromOneSender() const
    {
        const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        int sent = 0;
        while (sendto(sender, filling, 1, MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&mAddress),
                      mSize) == 1)
            ++sent;
        close(sender);
        return sent;
    }

    sockaddr_un mAddress{};
    socklen_t mSize = 0;
    int mSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

} // namespace

TEST(ServiceManager, isToldWhenItIsReadyAndWhenItStops)
{
    const TemporaryFolder folder;
    {
        BrokerProcess before({"--state", folder / "state"});
        RawPoster poster;
        poster.post(postOf("k", "1"));
        RawRequester requester;
        valueOf(requester, "k");
        EXPECT_EQ(before.stop(), 0);
    }
    NotifySocket manager(folder / "notify");
    BrokerProcess broker({"--state", folder / "state"});
    EXPECT_EQ(manager.next(), "READY=1\nSTATUS=Serving, 1 keys loaded");
    broker.process().signal(SIGTERM);
    EXPECT_EQ(manager.next(), "STOPPING=1");
}

TEST(ServiceManager, isNotWaitedForWhenItReadsNothing)
{
    const TemporaryFolder folder;
    NotifySocket manager(folder / "notify");
    setenv("WATCHDOG_USEC", "3000", 1);
    BrokerProcess broker;
    ASSERT_EQ(manager.next().rfind("READY=1", 0), 0U); // only the watchdog's messages follow
    manager.fill();
    RawRequester requester;
    for (int request = 0; request < 100; ++request)
        ASSERT_EQ(requester.ask(R"({"getClientInfo":"null"})"), "{}") << "request " << request;
    EXPECT_EQ(broker.stop(), 0);
}

TEST(ServiceManager, isNotWaitedForWhenItReadsNothingFromTheStart)
{
    const TemporaryFolder folder;
    NotifySocket manager(folder / "notify");
    manager.fill();
    BrokerProcess broker;
    RawRequester requester;
    EXPECT_EQ(requester.ask(R"({"getClientInfo":"null"})"), "{}");
    EXPECT_EQ(broker.stop(), 0);
}

TEST(ServiceManager, isToldThatItIsReadyWhenItBeginsToRead)
{
    const TemporaryFolder folder;
    NotifySocket manager(folder / "notify");
    manager.fill();
    BrokerProcess broker({"--heartbeat=0"}); // so that nothing else wakes the loop
    ASSERT_TRUE(broker.process().waitForError("Could not report to the service manager yet"));
    EXPECT_EQ(manager.nextButFilling(), "READY=1\nSTATUS=Serving, 0 keys loaded");
}

TEST(ServiceManager, isToldOnlyOnceThatItIsReady)
{
    const TemporaryFolder folder;
    NotifySocket manager(folder / "notify");
    manager.fill();
    setenv("WATCHDOG_USEC", "300000", 1);
    BrokerProcess broker({"--heartbeat=0"});
    ASSERT_TRUE(broker.process().waitForError("Could not report to the service manager yet"));
    EXPECT_EQ(manager.nextButFilling().rfind("READY=1", 0), 0U);
    for (int count = 0; count < 5; ++count) // otherwise it would be repeated as often as the watchdog is fed
        EXPECT_EQ(manager.next(), "WATCHDOG=1");
}

TEST(ServiceManager, feedsItsWatchdogFromTheLoop)
{
    const TemporaryFolder folder;
    NotifySocket manager(folder / "notify");
    setenv("WATCHDOG_USEC", "300000", 1);
    BrokerProcess broker({"--heartbeat=0"});
    EXPECT_EQ(manager.next().rfind("READY=1", 0), 0U);
    for (int count = 0; count < 5; ++count)
        EXPECT_EQ(manager.next(), "WATCHDOG=1");
}

TEST(ServiceManager, isToldThroughASocketWithoutAFile)
{
    NotifySocket manager("@statusbroker-test-" + std::to_string(getpid()));
    BrokerProcess broker;
    EXPECT_EQ(manager.next(), "READY=1\nSTATUS=Serving, 0 keys loaded");
}

TEST(ServiceManager, isNotFedTheWatchdogOfAnotherProcess)
{
    const TemporaryFolder folder;
    NotifySocket manager(folder / "notify");
    setenv("WATCHDOG_USEC", "3", 1);
    setenv("WATCHDOG_PID", "1", 1);
    BrokerProcess broker({"--heartbeat=0"});
    EXPECT_EQ(manager.next().rfind("READY=1", 0), 0U);
    RawRequester requester;
    valueOf(requester, "k"); // takes many times the watchdog's period
    broker.process().signal(SIGTERM);
    EXPECT_EQ(manager.next(), "STOPPING=1");
}

TEST(ServiceManager, isNotToldThatItIsReadyWithoutItsPorts)
{
    const TemporaryFolder folder;
    BrokerProcess first;
    NotifySocket manager(folder / "notify");
    TestProcess second({STATUSBROKER_PRODUCT, "--state", folder / "state"});
    EXPECT_EQ(second.waitForExit(), 1);
    EXPECT_EQ(first.stop(), 0); // its end is not reported: it has not got the socket
    BrokerProcess third;
    EXPECT_EQ(manager.next().rfind("READY=1", 0), 0U) << "only the third broker reports";
}
