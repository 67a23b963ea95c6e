// A broker that takes posts slowly or not at all, while it answers requests. Calls queued behind posts are
// hardly delayed. The log reports the number of lost posts.

#include <gtest/gtest.h>
#include <zmq.h>

#include "tests/proxy/Frames.h"
#include "tests/proxy/PostPort.h"
#include "tests/proxy/TestProxy.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SimulatedTime.h"

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;

const std::string begin =
    "StatusBroker does not take posts as fast as they are made, some are dropped from now on";
const std::string timer = R"({"startTimer":")";

class Overload : public ::testing::Test
{
protected:
    Overload() { connect(); }

    ~Overload() override { disconnect(); }

    // Returns when posts arrive. A client's first posts are lost if they leave before the subscription
    // arrives.
    void connect()
    {
        client = std::make_unique<Client>(broker);
        const std::string first = "first of " + std::to_string(++mClients);
        EXPECT_TRUE(eventually(
            [&]
            {
                (*client)->startTimer(first);
                return port->isLast(timer + first + "\"}");
            }));
        startTimerAndWait("connected");
        log.clear();
    }

    // The end of a client waits until its last posts have left.
    void disconnect()
    {
        if (port == nullptr)
            port = std::make_unique<PostPort>(PostPort::all);
        port->setPace(PostPort::all);
        client.reset();
    }

    void startTimerAndWait(const std::string& name)
    {
        (*client)->startTimer(name);
        EXPECT_TRUE(port->waitFor(timer + name + "\"}"));
    }

    // Posts it, and waits a short time for its arrival.
    bool arrives(const std::string& name)
    {
        (*client)->startTimer(name);
        return eventually([&] { return port->isLast(timer + name + "\"}"); }, milliseconds(100));
    }

    // Posts more than libzmq and the kernel can queue.
    void postMany()
    {
        for (std::size_t i = 0; i < many; ++i)
            (*client)->postStatus("key", std::to_string(i) + std::string(4000, 'x'));
    }

    // The lines that report the start and the end of dropping.
    std::vector<std::string> reports() const
    {
        std::vector<std::string> lines;
        for (const LogLine& line : log.lines())
        {
            if (line.level == 0 && line.text.find("StatusBroker") == 0)
                lines.push_back(line.text);
        }
        return lines;
    }

    // The time limit of the last request, in milliseconds.
    int timeForAnswer()
    {
        int limit = 0;
        std::size_t size = sizeof(limit);
        (*client)->onManagerThread(
            [&] { zmq_getsockopt((*client)->mRequestSocket, ZMQ_RCVTIMEO, &limit, &size); });
        return limit;
    }

    static constexpr std::size_t many = 6000;

    LogCapture log;
    ScriptedBroker broker{ScriptedBroker::FirstAnswer::AtOnce, ScriptedBroker::Posts::NotTaken};
    std::unique_ptr<PostPort> port = std::make_unique<PostPort>(PostPort::all);
    std::unique_ptr<Client> client;

private:
    int mClients = 0;
};

constexpr int slow = 100; // posts a second

// If the client waited for its posts without limit, the broker would take two thirds of them before the next
// call could run.
TEST_F(Overload, doesNotHoldUpWhatNeedsNoBroker)
{
    port->setPace(slow);
    const std::size_t before = port->taken();
    postMany();
    (*client)->unregisterForStatus(nullptr, "k");
    EXPECT_LE((*client)->mThread.getPendingCount(), 1U); // the next check for the end of the overload
    EXPECT_LT(port->taken() - before, many / 4);
}

TEST_F(Overload, isReportedWhenItBeginsAndWhenItEndsWithTheNumberOfPostsThatAreLost)
{
    port->setPace(slow);
    const std::size_t before = port->taken();
    std::size_t posted = many;
    postMany();
    (*client)->drain();
    EXPECT_EQ(reports(), std::vector<std::string>{begin});

    port->setPace(PostPort::all);
    EXPECT_TRUE(eventually(
        [&]
        {
            (*client)->startTimer("now and then");
            (*client)->drain();
            ++posted;
            return reports().size() > 1;
        }));
    startTimerAndWait("last");
    ++posted;
    ASSERT_EQ(reports().size(), 2U);
    const std::size_t lost = posted - (port->taken() - before);
    EXPECT_GT(lost, many / 4);
    EXPECT_EQ(reports().back(), "StatusBroker takes posts again, " + std::to_string(lost) + " were dropped");
}

TEST_F(Overload, isReportedAsOverAlsoWhenNothingIsPostedAnyMore)
{
    port->setPace(slow);
    postMany();
    (*client)->drain();
    ASSERT_EQ(reports(), std::vector<std::string>{begin});
    port->setPace(PostPort::all);
    EXPECT_TRUE(eventually([this] { return reports().size() == 2; }));
    EXPECT_EQ(reports().back().find("StatusBroker takes posts again, "), 0U);
    (*client)->drain();
    EXPECT_EQ((*client)->mThread.getPendingCount(), 0U); // no check is queued any more
}

// Its posts have arrived, so only dropped posts are missing. The overload ends after a second, so one of a
// few attempts must be in time.
TEST_F(Overload, thatLastsUntilTheClientEndsIsReportedThenWithTheNumberOfPostsThatAreLost)
{
    const std::string end = "StatusBroker did not take posts as fast as they were made, ";
    std::string expected;
    for (int attempt = 0; attempt < 10 && reports().size() != 2; ++attempt)
    {
        if (client == nullptr)
            connect();
        port->setPace(slow);
        const std::size_t before = port->taken();
        std::size_t posted = many;
        postMany();
        (*client)->drain();
        port->setPace(PostPort::all);
        EXPECT_TRUE(eventually([&] { return arrives("post " + std::to_string(++posted)); }));
        const std::size_t lost = posted - (port->taken() - before);
        expected = end + std::to_string(lost) + " were dropped";
        if (reports().size() != 1)
            log.clear(); // too late, try again
        disconnect();
    }
    EXPECT_EQ(reports(), (std::vector<std::string>{begin, expected}));
}

TEST_F(Overload, thatIsOverIsNotReportedAgainWhenTheClientEnds)
{
    port->setPace(slow);
    postMany();
    (*client)->drain();
    port->setPace(PostPort::all);
    EXPECT_TRUE(eventually([this] { return reports().size() == 2; }));
    disconnect();
    EXPECT_EQ(reports().size(), 2U);
}

// The post port is gone, the request port still works.
class WithoutPostPort : public Overload
{
protected:
    WithoutPostPort() { losePort(); }

    // Returns when the client has noticed the loss. A post made earlier would be lost on its way.
    void losePort()
    {
        TestProxy& proxy = **client;
        const auto monitor = [&proxy](const char* endpoint) {
            proxy.onManagerThread(
                [&] { zmq_socket_monitor(proxy.mPostSocket, endpoint, ZMQ_EVENT_DISCONNECTED); });
        };
        constexpr const char* endpoint = "inproc://events";
        void* const events = zmq_socket(proxy.mZmqContext, ZMQ_PAIR);
        monitor(endpoint);
        zmq_connect(events, endpoint);
        const int deadline = static_cast<int>(milliseconds(testDeadline).count());
        zmq_setsockopt(events, ZMQ_RCVTIMEO, &deadline, sizeof(deadline));
        port.reset();
        EXPECT_GT(zmq_recv(events, nullptr, 0, 0), 0);
        monitor(nullptr);
        zmq_close(events);
    }

    milliseconds timeOf(const std::function<void()>& call)
    {
        const auto start = Clock::now();
        call();
        return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
    }

    // The simulated time for which a call sleeps on the manager's thread, without the wait for an answer.
    microseconds sleepOf(const std::function<void()>& call)
    {
        microseconds slept{0};
        (*client)->onManagerThread(
            [&]
            {
                const SimulatedTime time([](microseconds) {});
                call();
                slept = time.elapsed();
            });
        return slept;
    }

    void postAndAsk()
    {
        (*client)->startTimer("t");
        EXPECT_EQ((*client)->getClientInfo(), StatusMap{});
    }
};

TEST_F(WithoutPostPort, aQueryAfterAPostIsNotHeldUpForMoreThanAHundredMilliseconds)
{
    const microseconds slept = sleepOf([this] { postAndAsk(); });
    EXPECT_GE(slept, milliseconds(80));
    EXPECT_LT(slept, milliseconds(100));
}

// Waiting 80 ms for each of them would take eight seconds.
TEST_F(WithoutPostPort, queriesInARowAreHeldUpForASecondInAll)
{
    const microseconds slept = sleepOf(
        [this]
        {
            for (int round = 0; round < 100; ++round)
                postAndAsk();
        });
    EXPECT_GE(slept, milliseconds(1000));
    EXPECT_LT(slept, milliseconds(1100));
}

TEST_F(WithoutPostPort, aPostThatWaitsArrivesWhenThePortIsBack)
{
    postAndAsk();
    port = std::make_unique<PostPort>(PostPort::all);
    EXPECT_TRUE(port->waitFor(timer + "t\"}"));
    EXPECT_TRUE(reports().empty());
}

// A query would overtake the post after 80 ms.
TEST_F(WithoutPostPort, aSyncWithTimeLimitIsABarrierAlsoWherePostsTakeTheirTime)
{
    (*client)->startTimer("t");
    Gate returned;
    std::thread caller(
        [&]
        {
            EXPECT_TRUE((*client)->sync(5000));
            returned.open();
        });
    EXPECT_FALSE(returned.wait(milliseconds(300)));
    port = std::make_unique<PostPort>(PostPort::all);
    caller.join();
    EXPECT_TRUE(port->waitFor(timer + "t\"}"));
}

TEST_F(Overload, aSyncGivesTheAnswerTheWholeTimeWhenPostsHaveLeft)
{
    startTimerAndWait("t");
    EXPECT_TRUE((*client)->sync(5000));
    EXPECT_EQ(timeForAnswer(), 5000);
}

// A sync waits for posts to leave. This wait, less 80 ms, shortens the time for the answer.
struct Times
{
    int given;
    int forAnswer;
};

std::string nameOf(const testing::TestParamInfo<Times>& info)
{
    const int given = info.param.given;
    return given < 0 ? "withoutLimit" : "of" + std::to_string(given);
}

class SyncWithoutPostPort : public WithoutPostPort, public testing::WithParamInterface<Times>
{
};

TEST_P(SyncWithoutPostPort, givesTheAnswerTheTimeThatIsLeft)
{
    const microseconds slept = sleepOf(
        [this]
        {
            (*client)->startTimer("t");
            (*client)->sync(GetParam().given); // a busy machine may answer too late
        });
    EXPECT_EQ(timeForAnswer(), GetParam().forAnswer);
    EXPECT_GE(slept, milliseconds(80));
    if (GetParam().given >= 0)
    {
        EXPECT_LT(slept + milliseconds(timeForAnswer()), milliseconds(GetParam().given + 100));
    }
}

INSTANTIATE_TEST_SUITE_P(, SyncWithoutPostPort,
                         testing::Values(Times{50, 50}, Times{80, 80}, Times{300, 80}, Times{1000, 80},
                                         Times{5000, 4080}, Times{-1, -1}),
                         nameOf);

// One of a few attempts must be in time, since a busy machine may delay any of them.
TEST_F(WithoutPostPort, aSyncWithTimeLimitReturnsWithinItAndAHundredMilliseconds)
{
    constexpr milliseconds limit{300};
    milliseconds shortest = milliseconds::max();
    for (int attempt = 0; attempt < 10 && shortest > limit + milliseconds(100); ++attempt)
    {
        broker.keepSilent();
        (*client)->startTimer("t");
        shortest = std::min(shortest,
                            timeOf([&] { EXPECT_FALSE((*client)->sync(static_cast<int>(limit.count()))); }));
        EXPECT_GE(shortest, limit);
        disconnect();
        broker.answerWith(Frames{"SyncAck"});
        connect();
        losePort();
    }
    EXPECT_LE(shortest, limit + milliseconds(100));
}

} // namespace
