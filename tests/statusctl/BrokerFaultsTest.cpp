// The tool with a missing, silent or faulty broker.

#include <atomic>
#include <chrono>
#include <csignal>
#include <gtest/gtest.h>

#include "tests/statusctl/Tool.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/ScriptedBroker.h"
#include "tests/support/TemporaryFolder.h"

namespace
{

const std::vector<Words> needBroker{{"get", "a"},
                                    {"set", "a", "1"},
                                    {"reset", "a"},
                                    {"forget", "a"},
                                    {"dump"},
                                    {"watch", "a", "--no-wait-broker"},
                                    {"wait", "a", "--no-wait-broker"},
                                    {"event", "a"},
                                    {"event", "--wait", "a", "--no-wait-broker"},
                                    {"timer", "start", "a"},
                                    {"timer", "show", "a"},
                                    {"counter", "add", "a"},
                                    {"ping"},
                                    {"stats"},
                                    {"record", "/dev/null", "--no-wait-broker"}};

const std::vector<Words> waitForBroker{
    {"watch", "a"}, {"wait", "a"}, {"event", "--wait", "a"}, {"record", "/dev/null", "a"}};

} // namespace

TEST(BrokerFaultsTest, withoutABrokerEveryCommandLeavesWith4)
{
    for (const Words& words : needBroker)
        EXPECT_EQ(statusctl(words), failure(4, "statusctl: " + words[0] +
                                                   ": no broker: nothing listens on port 5555 (requests); is "
                                                   "statusbroker running?"));
}

TEST(BrokerFaultsTest, whatWaitsForTheBrokerDoesSoForTheTimeGiven)
{
    for (const Words& words : waitForBroker)
    {
        Words command{"-t", "300ms"};
        command.insert(command.end(), words.begin(), words.end());
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(statusctl(command),
                  failure(4, "statusctl: " + words[0] +
                                 ": no broker within 300ms: nothing listens on port 5555 (requests); is "
                                 "statusbroker running?"));
        EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(300)) << words[0];
    }
}

TEST(BrokerFaultsTest, watchAndWaitBeginWhenTheBrokerIsThere)
{
    TestProcess watch(commandOf({"watch", "a"}));
    TestProcess wait(commandOf({"-t", "60", "wait", "a=1"}));
    EXPECT_EQ(watch.readLine(std::chrono::milliseconds(100)), std::nullopt);
    EXPECT_EQ(wait.waitForExit(std::chrono::milliseconds(0)), std::nullopt);
    const BrokerProcess broker;
    EXPECT_EQ(nextLine(watch), "synced");
    statusctl({"set", "a", "1"});
    EXPECT_EQ(nextLine(watch), "changed a 1");
    EXPECT_EQ(wait.waitForExit(), 0);
    EXPECT_EQ(wait.readRest(), "1\n");
    EXPECT_EQ(watch.errors() + wait.errors(), "");
}

TEST(BrokerFaultsTest, theTimeRunsFromTheBeginningAndNotFromTheBroker)
{
    const auto second = allowed(std::chrono::seconds(1));
    TestProcess wait(commandOf({"-t", std::to_string(3 * second.count()) + "ms", "wait", "a=1"}));
    EXPECT_EQ(wait.waitForExit(2 * second), std::nullopt);
    const BrokerProcess broker;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(wait.waitForExit(), 124);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 3 * second);
}

TEST(BrokerFaultsTest, aRecordingStaysWhereThereIsNoBroker)
{
    const TemporaryFolder folder;
    writeFile(folder / "old", "old");
    EXPECT_EQ(statusctl({"record", folder / "old", "--no-wait-broker"}).code, 4);
    EXPECT_EQ(readFile(folder / "old"), "old");
}

TEST(BrokerFaultsTest, jsonTellsTheCode)
{
    EXPECT_EQ(statusctl({"-j", "get", "a"}).errors.find("{\"error\":{\"code\":4,"), 0U);
}

TEST(BrokerFaultsTest, aBrokerThatIsStoppedIsATimeOut)
{
    BrokerProcess broker;
    broker.process().suspend();
    for (const Words& words : needBroker)
    {
        Words command{"-t", "300ms"};
        command.insert(command.end(), words.begin(), words.end());
        const Outcome outcome = statusctl(command);
        EXPECT_EQ(outcome.code, 124) << words[0] << ": " << outcome;
        EXPECT_EQ(outcome.output, "");
        EXPECT_EQ(outcome.errors.find("statusctl: " + words[0] + ": no answer from the broker within 300 ms"),
                  0U)
            << outcome;
    }
    broker.process().signal(SIGCONT);
}

TEST(BrokerFaultsTest, aBrokerThatDiesDuringACallIsExitCode4)
{
    BrokerProcess broker;
    TestProcess ping(commandOf({"-t", "2", "ping", "-n", "1000000"}));
    EXPECT_EQ(ping.waitForExit(std::chrono::milliseconds(200)), std::nullopt);
    broker.process().signal(SIGKILL);
    EXPECT_EQ(ping.waitForExit(), 4);
}

TEST(BrokerFaultsTest, aBadReplyIsExitCode5)
{
    ScriptedBroker broker(ScriptedBroker::FirstAnswer::AtOnce);
    broker.answerWith(
        [](const std::string& request) -> std::optional<ScriptedBroker::Frames> {
            return ScriptedBroker::Frames{request.find("Sync") != std::string::npos ? "SyncAck"
                                                                                    : "{\"broken"};
        });
    for (const Words& words : std::vector<Words>{{"get", "a"}, {"dump"}, {"stats"}})
    {
        const Outcome outcome = statusctl(words);
        EXPECT_EQ(outcome.code, 5) << outcome;
        EXPECT_EQ(outcome.output, "");
        EXPECT_NE(outcome.errors.find("bad reply from the broker"), std::string::npos) << outcome;
    }
}

TEST(BrokerFaultsTest, aTimerIsLoadedOnlyIfTheAnswerIsItsTime)
{
    ScriptedBroker broker(ScriptedBroker::FirstAnswer::AtOnce);
    const auto load = [&](const std::string& answer)
    {
        broker.answerWith(
            [answer](const std::string& request) -> std::optional<ScriptedBroker::Frames> {
                return ScriptedBroker::Frames{request.find("Sync") == std::string::npos ? answer : "SyncAck"};
            });
        return statusctl({"load", "-"},
                         R"({"values":{},"timers":{"t":{"elapsed":5,"lastStarted":0,"running":false}}})");
    };
    EXPECT_EQ(load("5"), success("1\n"));
    EXPECT_EQ(load("{}").code, 1);
    for (const char* answer : {"", "{\"t\":5}", "-5", "5x", "[]"})
        EXPECT_EQ(load(answer),
                  failure(5, std::string("statusctl: load: bad reply from the broker: ") + answer));
}

// The broker reports this to clients that connect shortly after its start, and to every client after a loss.
TEST(BrokerFaultsTest, aBrokerThatMayHaveLostEarlierPostsIsUsedAndItsWordIsNoBadReply)
{
    ScriptedBroker broker(ScriptedBroker::FirstAnswer::AtOnce);
    broker.answerWith(
        [](const std::string& request) -> std::optional<ScriptedBroker::Frames> {
            return ScriptedBroker::Frames{request.find("Sync") != std::string::npos ? "SyncLost"
                                                                                    : R"({"a":"1"})"};
        });
    EXPECT_EQ(statusctl({"get", "a"}), success("1\n"));
    EXPECT_EQ(statusctl({"set", "a", "1"}),
              failure(1, "statusctl: set: the broker did not confirm the posts"));
}

TEST(BrokerFaultsTest, aBrokerWithoutStatisticsIsTold)
{
    ScriptedBroker broker(ScriptedBroker::FirstAnswer::AtOnce);
    EXPECT_EQ(statusctl({"stats"}), failure(5, "statusctl: stats: this broker keeps no statistics"));
}

TEST(BrokerFaultsTest, namesOfStatisticsAreEscaped)
{
    ScriptedBroker broker(ScriptedBroker::FirstAnswer::AtOnce);
    broker.answerWith(ScriptedBroker::Frames{R"({"a\n\u001b[31mb 1":1,"c\u202e":2})"});
    EXPECT_EQ(statusctl({"stats"}), success("a\\n\\x1b[31mb\\x201" + std::string(13, ' ') +
                                            "1\nc\\xe2\\x80\\xae" + std::string(17, ' ') + "2\n"));
}

TEST(BrokerFaultsTest, namesOfStatisticsThatAreNotUtf8LeaveJsonValid)
{
    ScriptedBroker broker(ScriptedBroker::FirstAnswer::AtOnce);
    broker.answerWith(ScriptedBroker::Frames{"{\"a\xff\":1}"});
    EXPECT_EQ(statusctl({"-j", "stats"}), success("{\"a\uFFFD\":1}\n"));
}

// The remedy names a client of the reply.
TEST(BrokerFaultsTest, textsOfDoctorAreEscaped)
{
    ScriptedBroker broker(ScriptedBroker::FirstAnswer::AtOnce);
    broker.answerWith(
        [](const std::string& request) -> std::optional<ScriptedBroker::Frames>
        {
            if (request.find("Sync") != std::string::npos)
                return ScriptedBroker::Frames{"SyncAck"};
            if (request.find("getBrokerClients") != std::string::npos)
                return ScriptedBroker::Frames{"{\"complete\":1,\"clients\":[{\"uid\":7,\"refusals\":1,"
                                              "\"service\":\"a\\u001b[31m\xff\"}]}"};
            return ScriptedBroker::Frames{R"({"policy.denied":1})"};
        });
    const Outcome plain = statusctl({"doctor"});
    EXPECT_EQ(plain.output.find('\x1b'), std::string::npos) << plain;
    EXPECT_NE(plain.output.find("may 7:a\\x1b[31m\\xff ACTION"), std::string::npos) << plain;
    const Outcome json = statusctl({"-j", "doctor"});
    EXPECT_NE(json.output.find("may 7:a\\u001b[31m\uFFFD ACTION"), std::string::npos) << json;
}

// A value may contain any bytes; JSON must stay valid.
TEST(BrokerFaultsTest, aValueThatIsNotUtf8IsBase64InJsonAndEscapedInText)
{
    ScriptedBroker broker(ScriptedBroker::FirstAnswer::AtOnce);
    broker.answerWith(
        [](const std::string& request) -> std::optional<ScriptedBroker::Frames>
        {
            return ScriptedBroker::Frames{request.find("Sync") != std::string::npos ? "SyncAck"
                                                                                    : "{\"raw\":\"a\xff\"}"};
        });
    EXPECT_EQ(statusctl({"get", "raw", "--json"}),
              success("{\"base64\":{\"raw\":\"Yf8=\"},\"values\":{}}\n"));
    EXPECT_EQ(statusctl({"get", "raw", "raw"}), success("raw=a\\xff\nraw=a\\xff\n"));
}

TEST(PostsTest, setIsOnePostOfAllPairs)
{
    ScriptedBroker broker;
    broker.answerWith(ScriptedBroker::Frames{"SyncAck"});
    statusctl({"set", "--no-sync", "a", "1", "b", "2"});
    EXPECT_TRUE(broker.waitForPost(R"({"postStatus":{"a":"1","b":"2"}})"));
    EXPECT_EQ(broker.posts().size(), 1U);
}

// Frames as the real broker sends them.
static ScriptedBroker::Frames framesOf(const std::string& message)
{
    constexpr std::size_t most = 512;
    ScriptedBroker::Frames frames;
    for (std::size_t begin = 0; begin < message.size(); begin += most)
        frames.push_back(message.substr(begin, most));
    return frames;
}

TEST(PostsTest, loadConfirmsEachBatchBeforeTheNext)
{
    std::string values;
    for (int number = 0; number < 400; ++number) // 40 KiB
        values +=
            (number == 0 ? "\"" : ",\"") + std::to_string(number) + "\":\"" + std::string(100, 'x') + "\"";
    ScriptedBroker broker;
    std::atomic<std::size_t> barriers{0};
    broker.answerWith(
        [&](const std::string& request) -> std::optional<ScriptedBroker::Frames>
        {
            if (request.find("Sync") == std::string::npos)
                return framesOf("{" + values + "}");
            ++barriers;
            return ScriptedBroker::Frames{"SyncAck"};
        });
    EXPECT_EQ(statusctl({"load", "-"}, "{\"values\":{" + values + "}}"), success("400\n"));
    EXPECT_GE(barriers, 3U) << "one at the start, and one for each of two batches";
}

// Too many unconfirmed posts would be dropped on the way.
TEST(PostsTest, replayConfirmsManyPostsInTime)
{
    ScriptedBroker broker;
    std::atomic<std::size_t> barriers{0};
    broker.answerWith(
        [&](const std::string&) -> std::optional<ScriptedBroker::Frames>
        {
            ++barriers;
            return ScriptedBroker::Frames{"SyncAck"};
        });
    std::string lines;
    for (int number = 0; number < 600; ++number)
        lines += R"({"kind":"initial","name":"a","time":"2026-05-28T20:26:40.123456Z","value":"1"})"
                 "\n";
    EXPECT_EQ(statusctl({"replay", "-"}, lines), success("600\n"));
    EXPECT_GE(barriers, 4U) << "one at the start, one for each 250 posts, and one at the end";
}
