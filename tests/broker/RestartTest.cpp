// The values, timers and counters that clients find after a restart of the broker.

#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <random>
#include <sys/stat.h>

#include "broker/state/StateFile.h"
#include "common/EventThread.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/ProxyClient.h"
#include "tests/support/RecordingListener.h"
#include "tests/support/TemporaryFolder.h"

namespace
{

class RestartTest : public testing::Test
{
protected:
    void start()
    {
        broker = std::make_unique<BrokerProcess>(std::vector<std::string>{"--state", folder / "state"});
    }

    // Leaves a state file, as an earlier broker would.
    void keep(const SavedState& state)
    {
        StateFile file(folder / "state", StateSync::Normal, {});
        file.load();
        file.commit(state);
    }

    TemporaryFolder folder;
    std::unique_ptr<BrokerProcess> broker;
};

// Records all notifications, across all restarts.
class Listening
{
public:
    Listening() : mSocket(mContext, zmq::socket_type::sub)
    {
        mSocket.set(zmq::sockopt::subscribe, "");
        mSocket.set(zmq::sockopt::reconnect_ivl, 5);
        mSocket.connect("tcp://127.0.0.1:5557");
    }

    // The highest number published for the key so far.
    unsigned long highestOf(const std::string& key)
    {
        const std::string start = R"({"statusUpdate":{")" + key + R"(":")";
        unsigned long highest = 0;
        zmq::message_t message;
        while (mSocket.recv(message, zmq::recv_flags::dontwait))
        {
            const std::string text = message.to_string();
            if (text.rfind(start, 0) == 0)
                highest = std::max(highest, strtoul(text.c_str() + start.size(), nullptr, 10));
        }
        return highest;
    }

private:
    zmq::context_t mContext;
    zmq::socket_t mSocket;
};

unsigned long lastLineOf(TestProcess& process)
{
    unsigned long last = 0;
    while (const std::optional<std::string> line = process.readLine())
        last = strtoul(line->c_str(), nullptr, 10);
    return last;
}

} // namespace

TEST_F(RestartTest, nothingIsTakenBackThatWasSeenOrConfirmedBeforeAKill)
{
    std::mt19937 random(1);
    start();
    Listening listening;
    ProxyClient client;
    int seenRounds = 0;
    for (int round = 0; round < 200; ++round)
    {
        const std::string key = "k" + std::to_string(round);
        TestProcess counting({TESTCLIENT, "count", key});
        for (auto lines = 1 + random() % 20; lines > 0; --lines)
            ASSERT_TRUE(counting.readLine());
        broker->kill();
        counting.signal(SIGKILL);
        const unsigned long confirmed = lastLineOf(counting);
        const unsigned long seen = listening.highestOf(key);
        seenRounds += seen > 0 ? 1 : 0;

        start();
        RawRequester requester;
        const std::string reply = requester.ask(R"({"getClientInfoValue":")" + key + "\"}");
        const std::string start = R"({"statusValue":")";
        ASSERT_EQ(reply.rfind(start, 0), 0U) << reply;
        const unsigned long kept = strtoul(reply.c_str() + start.size(), nullptr, 10);
        EXPECT_GE(kept, confirmed);
        EXPECT_GE(kept, seen);

        // A client whose sockets stayed open still works. Its ZeroMQ thread may not have had the processor
        // since the kill. Then a post still goes to the dead connection.
        EXPECT_TRUE(eventually(
            [&]
            {
                client->postStatus("alive", std::to_string(round));
                return client->getClientInfoValue("alive") == std::to_string(round);
            }));
    }
    EXPECT_GT(seenRounds, 100);
}

TEST_F(RestartTest, timersAndCountersGoOn)
{
    start();
    ProxyClient client;
    client->startTimer("running");
    client->startTimer("stopped");
    client->stopTimer("stopped");
    client->incrementCounter("c");
    const uint64_t started = client->getTimerLastStarted("running");
    const uint64_t running = client->getTimerElapsed("running");
    const uint64_t stopped = client->getTimerElapsed("stopped");
    broker->kill();
    start();
    EXPECT_EQ(client->getTimerLastStarted("running"), started);
    EXPECT_GE(client->getTimerElapsed("running"), running + 10000) << "it ran on while no broker ran";
    EXPECT_EQ(client->getTimerElapsed("stopped"), stopped);
    EXPECT_EQ(client->incrementCounter("c"), 2U);
}

TEST_F(RestartTest, aListenerIsToldOfWhatChangedBeforeItWasBack)
{
    start();
    Orvane::EventThread thread("listener", 0);
    RecordingListener listener;
    ProxyClient client;
    client->registerListener(&listener, &thread);
    client->registerForStatus(&listener, "k");
    ASSERT_TRUE(listener.waitForUpdates(1));
    for (int round = 0; round < 20; ++round)
    {
        broker->kill();
        start();
        TestProcess posting({TESTCLIENT, "set", "k", std::to_string(round)});
        EXPECT_EQ(posting.waitForExit(), 0);
        EXPECT_TRUE(listener.waitForValue("k", std::to_string(round))) << round;
    }
    client->unregisterListener(&listener);
    thread.stop();
}

TEST_F(RestartTest, aListenerIsToldOfWhatWasKeptAndNotPublished)
{
    start();
    Orvane::EventThread thread("listener", 0);
    RecordingListener listener;
    ProxyClient client;
    client->registerListener(&listener, &thread);
    client->registerForStatus(&listener, "k");
    ASSERT_TRUE(listener.waitForUpdates(1));
    broker->kill();
    SavedState change;
    change.values["k"] = "kept";
    keep(change);
    start();
    EXPECT_TRUE(listener.waitForValue("k", "kept"));
    client->unregisterListener(&listener);
    thread.stop();
}

TEST_F(RestartTest, aStateFileThatCannotBeReadDoesNotKeepItFromServing)
{
    writeFile(folder / "state", "nonsense");
    start();
    EXPECT_TRUE(broker->process().waitForError("cannot be read"));
    RawPoster poster;
    RawRequester requester;
    poster.post(R"({"postStatus":{"k":"1"}})");
    EXPECT_EQ(requester.ask(R"({"getClientInfoValue":"k"})"), R"({"statusValue":"1"})");
    EXPECT_EQ(readFile(folder / "state.bad"), "nonsense");
}

TEST_F(RestartTest, aFifoInPlaceOfTheStateFileDoesNotKeepItFromServing)
{
    ASSERT_EQ(mkfifo((folder / "state").c_str(), S_IRUSR | S_IWUSR), 0);
    start();
    EXPECT_TRUE(broker->process().waitForError("is not a regular file"));
    RawPoster poster;
    RawRequester requester;
    poster.post(R"({"postStatus":{"k":"1"}})");
    EXPECT_EQ(requester.ask(R"({"getClientInfoValue":"k"})"), R"({"statusValue":"1"})");
}

TEST_F(RestartTest, whatIsGoodInADamagedStateFileIsServed)
{
    SavedState state;
    state.values = {{"good", "1"}, {"bad", "aaaaaaaaaa"}};
    keep(state);
    std::string bytes = readFile(folder / "state");
    bytes.at(bytes.find("aaaaaaaaaa")) = 'b';
    writeFile(folder / "state", bytes);
    start();
    EXPECT_TRUE(broker->process().waitForError("1 rows kept, 1 lost"));
    EXPECT_EQ(RawRequester().ask(R"({"getClientInfo":"null"})"), R"({"good":"1"})");
}

TEST_F(RestartTest, timersHaveSaneTimesWhateverTheStateFileHolds)
{
    constexpr uint64_t most = std::numeric_limits<int64_t>::max() / 1000;
    const uint64_t now = BootMoment::now().microseconds;
    SavedState state;
    state.timers["future"] = {5, now + 3600000000U, 77};
    state.timers["long"] = {most, now, most};
    state.timers["longer"] = {most + 1, most + 1, most + 1};
    keep(state);
    start();
    RawRequester requester;
    const auto elapsed = [&](const std::string& timer)
    { return strtoull(requester.ask(R"({"getTimerElapsed":")" + timer + "\"}").c_str(), nullptr, 10); };
    EXPECT_EQ(elapsed("future"), 5U) << "it is stopped";
    EXPECT_GE(elapsed("long"), most);
    EXPECT_LT(elapsed("long"), most + 3600000000U);
    EXPECT_EQ(elapsed("longer"), most) << "it is limited to times that clocks can show";
    RawPoster poster;
    poster.post(R"({"restartTimer":"longer"})");
    EXPECT_LT(elapsed("longer"), 3600000000U);
    EXPECT_EQ(broker->process().errors().find("damaged"), std::string::npos);
}

TEST_F(RestartTest, aBatchIsKeptAtOnce)
{
    start();
    RawPoster poster;
    RawRequester requester;
    broker->process().suspend();
    for (int number = 0; number < 300; ++number)
        poster.post(R"({"postStatus":{"k":")" + std::to_string(number) + "\"}}");
    broker->process().signal(SIGCONT);
    EXPECT_EQ(requester.ask(R"({"getClientInfoValue":"k"})"), R"({"statusValue":"299"})");
    EXPECT_LE(brokerStatistic(requester, "state.commits"), 100U);
    EXPECT_GE(brokerStatistic(requester, "state.commits"), 1U);
    EXPECT_EQ(brokerStatistic(requester, "state.errors"), 0U);
}
