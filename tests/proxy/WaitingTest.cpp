// Which operations wait for the manager's thread and the broker, and which do not.

#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include "common/Logging.h"
#include "tests/proxy/OperationsFixture.h"
#include "tests/support/Wait.h"

namespace
{

// ------------------------------------------------------------ operations that wait, and others that do not

// Keeps the manager's thread busy while it lives.
class BusyManager
{
public:
    explicit BusyManager(TestProxy& proxy)
    {
        proxy.queueOnManagerThread(
            [this]
            {
                mEntered.open();
                mRelease.wait();
                mLeft.open();
            });
        mEntered.wait();
    }

    ~BusyManager() { release(); }

    void release()
    {
        mRelease.open();
        mLeft.wait();
    }

private:
    Gate mEntered;
    Gate mRelease;
    Gate mLeft;
};

class Marshalling : public Operations
{
protected:
    // A call that returns while the manager's thread is busy has only queued its work.
    void expectReturnsAtOnce(const std::function<void()>& call, const std::string& post)
    {
        BusyManager busy(*client);
        call();
        EXPECT_EQ(broker.posts(), std::vector<Frames>{});
        busy.release();
        EXPECT_TRUE(broker.waitForPost(post));
    }

    // A call that waits is still blocked when its request has reached a silent broker.
    template <class Call>
    void expectWaitsForReply(Call call, const std::string& reply)
    {
        broker.keepSilent();
        const std::size_t before = broker.requests().size();
        auto result = std::async(std::launch::async, call);
        EXPECT_TRUE(broker.waitForRequests(before + 1));
        EXPECT_EQ(result.wait_for(std::chrono::milliseconds(30)), std::future_status::timeout);
        broker.reply({reply});
        EXPECT_EQ(result.wait_for(testDeadline), std::future_status::ready);
    }
};

TEST_F(Marshalling, postStatusReturnsAtOnce)
{
    expectReturnsAtOnce([&] { client->postStatus(StatusMap{{"a", "1"}}); }, R"({"postStatus":{"a":"1"}})");
}

TEST_F(Marshalling, postStatusOfOnePairReturnsAtOnce)
{
    expectReturnsAtOnce([&] { client->postStatus("a", "1"); }, R"({"postStatus":{"a":"1"}})");
}

TEST_F(Marshalling, resetStatusReturnsAtOnce)
{
    expectReturnsAtOnce([&] { client->resetStatus(StatusKeys{"a"}); }, R"({"resetStatus":["a"]})");
}

TEST_F(Marshalling, resetStatusOfOneKeyReturnsAtOnce)
{
    expectReturnsAtOnce([&] { client->resetStatus("a"); }, R"({"resetStatus":["a"]})");
}

TEST_F(Marshalling, postEventReturnsAtOnce)
{
    expectReturnsAtOnce([&] { client->postEvent("e", "v", 0); }, R"({"postEvent":{"e":"v"}})");
}

TEST_F(Marshalling, delayedPostEventReturnsAtOnce)
{
    expectReturnsAtOnce([&] { client->postEvent("e", "v", 1); }, R"({"postEvent":{"e":"v"}})");
}

TEST_F(Marshalling, startTimerReturnsAtOnce)
{
    expectReturnsAtOnce([&] { client->startTimer("t"); }, R"({"startTimer":"t"})");
}

TEST_F(Marshalling, stopTimerReturnsAtOnce)
{
    expectReturnsAtOnce([&] { client->stopTimer("t"); }, R"({"stopTimer":"t"})");
}

TEST_F(Marshalling, resetTimerReturnsAtOnce)
{
    expectReturnsAtOnce([&] { client->resetTimer("t"); }, R"({"resetTimer":"t"})");
}

TEST_F(Marshalling, restartTimerReturnsAtOnce)
{
    expectReturnsAtOnce([&] { client->restartTimer("t"); }, R"({"restartTimer":"t"})");
}

TEST_F(Marshalling, setCounterValueReturnsAtOnce)
{
    expectReturnsAtOnce([&] { client->setCounterValue("c", 1); }, R"({"setCounterValue":{"c":1}})");
}

TEST_F(Marshalling, updateSystemTimeReturnsAfterThePostWasHandedOver)
{
    auto busy = std::make_unique<BusyManager>(*client);
    auto done = std::async(std::launch::async,
                           [&]
                           {
                               client->updateSystemTime(5);
                               return log.has(6, R"(Sending post message [{"updateSystemTime":5}])");
                           });
    EXPECT_EQ(done.wait_for(std::chrono::milliseconds(30)), std::future_status::timeout);
    busy.reset();
    EXPECT_TRUE(done.get());
    EXPECT_TRUE(broker.waitForPost(R"({"updateSystemTime":5})"));
}

TEST_F(Marshalling, getClientInfoWaits)
{
    expectWaitsForReply([&] { return client->getClientInfo(); }, "{}");
}

TEST_F(Marshalling, getClientInfoValueWaits)
{
    expectWaitsForReply([&] { return client->getClientInfoValue("k"); }, "{}");
}

TEST_F(Marshalling, getClientInfoValuesWaits)
{
    expectWaitsForReply([&] { return client->getClientInfoValues(StatusKeys{"k"}); }, "{}");
}

TEST_F(Marshalling, getTimerElapsedWaits)
{
    expectWaitsForReply([&] { return client->getTimerElapsed("t"); }, "1");
}

TEST_F(Marshalling, getTimerElapsedSecondsWaits)
{
    expectWaitsForReply([&] { return client->getTimerElapsedSeconds("t"); }, "1");
}

TEST_F(Marshalling, getTimerLastStartedWaits)
{
    expectWaitsForReply([&] { return client->getTimerLastStarted("t"); }, "1");
}

TEST_F(Marshalling, getCounterValueWaits)
{
    expectWaitsForReply([&] { return client->getCounterValue("c"); }, "1");
}

TEST_F(Marshalling, incrementCounterWaits)
{
    expectWaitsForReply([&] { return client->incrementCounter("c"); }, "1");
}

TEST_F(Marshalling, syncWaits)
{
    expectWaitsForReply([&] { return client->sync(-1); }, "SyncAck");
}

TEST_F(Marshalling, queriesOfManyThreadsAreAnsweredOneByOne)
{
    broker.answerWith([](const std::string& request)
                      { return Frames{R"({"statusValue":)" + request.substr(22)}; });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
    {
        threads.emplace_back(
            [&, t]
            {
                for (int i = 0; i < 50; ++i)
                {
                    const std::string key = std::to_string(t) + "/" + std::to_string(i);
                    EXPECT_EQ(client->getClientInfoValue(key), key);
                }
            });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(log.texts(2), Texts{});
}

TEST_F(Marshalling, operationsOnTheManagersThreadRunInPlace)
{
    client->onManagerThread(
        [&]
        {
            EXPECT_TRUE(client->sync(-1));
            EXPECT_EQ(client->getClientInfo(), StatusMap{});
            client->startTimer("t");
            client->updateSystemTime(1);
            EXPECT_TRUE(log.has(6, R"(Sending post message [{"startTimer":"t"}])"));
            EXPECT_TRUE(log.has(6, R"(Sending post message [{"updateSystemTime":1}])"));
        });
}

TEST_F(Marshalling, queryFollowsThePostsMadeBefore)
{
    client->startTimer("t");
    client->getTimerElapsed("t");
    const Texts texts = log.texts(6);
    const auto post = std::find(texts.begin(), texts.end(), R"(Sending post message [{"startTimer":"t"}])");
    const auto request =
        std::find(texts.begin(), texts.end(), R"(Sending request message [{"getTimerElapsed":"t"}])");
    EXPECT_NE(request, texts.end());
    EXPECT_LT(post, request);
}

TEST_F(Marshalling, operationIsTracedOnceOnTheManagersThread)
{
    ov_log_configure("*=7:40000000");
    log.clear();
    client->startTimer("t");
    client->drain();
    std::vector<std::thread::id> traces;
    for (const LogLine& line : log.lines())
    {
        if (line.function == "virtual void StatusManagerProxy::startTimer(std::string)" &&
            line.text == "begin")
            traces.push_back(line.thread);
    }
    std::thread::id manager;
    client->onManagerThread([&] { manager = std::this_thread::get_id(); });
    EXPECT_EQ(traces, std::vector<std::thread::id>{manager});
}

} // namespace
