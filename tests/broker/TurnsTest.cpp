// In which order the real broker handles messages that arrive together.

#include <csignal>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "tests/broker/Messages.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/RawClient.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/ZmtpPeer.h"

namespace
{

// With a state file, as delivered, answers wait for the commit.
class TurnsTest : public testing::TestWithParam<bool>
{
protected:
    TemporaryFolder folder;
    BrokerProcess broker{GetParam() ? std::vector<std::string>{"--state", folder / "state"}
                                    : std::vector<std::string>{}};
};

using Peers = std::vector<std::unique_ptr<ZmtpPeer>>;

// Clients whose first question has been answered.
Peers peersThatAsked(int count, const std::string& question)
{
    Peers peers;
    for (int number = 0; number < count; ++number)
    {
        peers.push_back(std::make_unique<ZmtpPeer>(ZmtpPeer::requestPort));
        EXPECT_TRUE(peers.back()->shakeHands());
        EXPECT_NE(peers.back()->ask(question), "") << "its handshake is over";
    }
    return peers;
}

// Posts values of the same length, and waits for them.
void postValues(int count, std::size_t length)
{
    RawPoster poster;
    RawRequester requester;
    const std::string value(length, 'v');
    for (int number = 0; number < count; ++number)
        poster.post(postOf("k" + std::to_string(number), value));
    const std::string last = R"({"getClientInfoValue":"k)" + std::to_string(count - 1) + "\"}";
    ASSERT_TRUE(eventually([&] { return requester.ask(last) == reply(value); }));
}

// The sum of the numbers with this name.
uint64_t sumOf(const std::string& text, const std::string& name)
{
    uint64_t sum = 0;
    const std::string member = '"' + name + "\":";
    for (std::size_t at = text.find(member); at != std::string::npos; at = text.find(member, at))
    {
        at += member.size();
        sum += std::stoull(text.substr(at, 20));
    }
    return sum;
}

std::string requestOfManyValues()
{
    std::string keys;
    for (int key = 0; key < 500; ++key)
        keys += (key == 0 ? "\"k" : ",\"k") + std::to_string(key) + '"';
    return WireFrames::message({"", R"({"getClientInfoValues":[)" + keys + "]}"});
}

} // namespace

TEST_P(TurnsTest, aShortRequestIsAnsweredBeforeLongOnesThatCameBefore)
{
    const std::string shortRequest = R"({"getBrokerStatistics":"null"})";
    ZmtpPeer requester(ZmtpPeer::requestPort);
    ASSERT_TRUE(requester.shakeHands());
    ASSERT_NE(requester.ask(shortRequest), "");
    const Peers peers = peersThatAsked(20, R"({"getCounterValue":"c"})");
    broker.process().suspend();
    for (const auto& peer : peers)
        ASSERT_TRUE(peer->write(requestOfManyValues()));
    ASSERT_TRUE(requester.write(ZmtpPeer::request(shortRequest)));
    broker.process().signal(SIGCONT);
    const std::string statistics = requester.receiveText().value_or("");
    EXPECT_NE(statistics.find("requests.getBrokerStatistics"), std::string::npos) << statistics;
    EXPECT_EQ(statistics.find("requests.getClientInfoValues"), std::string::npos) << "none is counted yet";
    for (const auto& peer : peers)
        EXPECT_EQ(peer->receiveText(), "{}");
}

TEST_P(TurnsTest, aShortRequestIsAnsweredBeforeThoseOfClientsWhoseLastAnswersWereLong)
{
    const std::string shortRequest = R"({"getBrokerStatistics":"null"})";
    const std::string longRequest = R"({"getClientInfoValue":"k0"})";
    ZmtpPeer requester(ZmtpPeer::requestPort);
    ASSERT_TRUE(requester.shakeHands());
    postValues(1, 30000);
    const Peers peers = peersThatAsked(20, longRequest);
    const uint64_t before = sumOf(requester.ask(shortRequest), "requests.getClientInfoValue");
    ASSERT_GE(before, peers.size());
    broker.process().suspend();
    for (const auto& peer : peers)
        ASSERT_TRUE(peer->write(ZmtpPeer::request(longRequest)));
    ASSERT_TRUE(requester.write(ZmtpPeer::request(shortRequest)));
    broker.process().signal(SIGCONT);
    EXPECT_EQ(sumOf(requester.receiveText().value_or(""), "requests.getClientInfoValue"), before)
        << "none is answered yet";
    for (const auto& peer : peers)
        EXPECT_GT(peer->receiveText().value_or("").size(), 30000U);
}

// The answers would delay others.
TEST_P(TurnsTest, oneThatIsGoneIsNotAnswered)
{
    ZmtpPeer requester(ZmtpPeer::requestPort);
    ASSERT_TRUE(requester.shakeHands());
    const Peers peers = peersThatAsked(20, R"({"getCounterValue":"c"})");
    broker.process().suspend();
    for (const auto& peer : peers)
    {
        ASSERT_TRUE(peer->write(ZmtpPeer::request(R"({"getTimerElapsed":"t"})")));
        peer->reset();
    }
    broker.process().signal(SIGCONT);
    EXPECT_TRUE(eventually(
        [&] { return sumOf(requester.ask(R"({"getBrokerStatistics":"null"})"), "clients.requests") == 1; }));
    const std::string statistics = requester.ask(R"({"getBrokerStatistics":"null"})");
    EXPECT_EQ(sumOf(statistics, "requests.getCounterValue"), peers.size());
    EXPECT_EQ(sumOf(statistics, "requests.getTimerElapsed"), 0U);
}

// A crowd that asks for long answers and connects again would otherwise be new again.
TEST_P(TurnsTest, aClientThatGotShortAnswersIsAnsweredBeforeNewOnes)
{
    const std::string shortRequest = R"({"getBrokerStatistics":"null"})";
    const std::string otherRequest = R"({"getCounterValue":"c"})";
    ZmtpPeer requester(ZmtpPeer::requestPort);
    ASSERT_TRUE(requester.shakeHands());
    Peers peers;
    for (int number = 0; number < 20; ++number)
    {
        peers.push_back(std::make_unique<ZmtpPeer>(ZmtpPeer::requestPort));
        ASSERT_TRUE(peers.back()->shakeHands());
    }
    ASSERT_NE(requester.ask(shortRequest), "") << "now all handshakes are over";
    broker.process().suspend();
    for (const auto& peer : peers)
        ASSERT_TRUE(peer->write(ZmtpPeer::request(otherRequest)));
    ASSERT_TRUE(requester.write(ZmtpPeer::request(shortRequest)));
    broker.process().signal(SIGCONT);
    EXPECT_EQ(sumOf(requester.receiveText().value_or(""), "requests.getCounterValue"), 0U)
        << "none is answered yet";
    for (const auto& peer : peers)
        EXPECT_NE(peer->receiveText().value_or(""), "");
}

INSTANTIATE_TEST_SUITE_P(StateFile, TurnsTest, testing::Bool(),
                         [](const auto& test) { return test.param ? "with" : "without"; });

// Only the first piece of each long answer leaves before it. A broker that is stopped may look at the short
// request first when it goes on, or may lose the processor for a whole turn: then the test asks again.
TEST(LongAnswersTest, aShortRequestIsAnsweredBeforeTheRestOfLongAnswers)
{
    BrokerProcess broker;
    const std::string shortRequest = R"({"getBrokerClients":"null"})";
    ZmtpPeer requester(ZmtpPeer::requestPort);
    ASSERT_TRUE(requester.shakeHands());
    postValues(1000, 200);
    EXPECT_TRUE(eventually(
        [&]
        {
            const Peers peers = peersThatAsked(30, R"({"getCounterValue":"c"})");
            const uint64_t before = sumOf(requester.ask(shortRequest), "sent");
            EXPECT_NE(peers.front()->ask(R"({"getCounterValue":"c"})"), "") << "the broker has looked again";
            broker.process().suspend();
            for (const auto& peer : peers)
                EXPECT_TRUE(peer->write(ZmtpPeer::request(R"({"getClientInfo":"null"})")));
            EXPECT_TRUE(requester.write(ZmtpPeer::request(shortRequest)));
            broker.process().signal(SIGCONT);
            const uint64_t sent = sumOf(requester.receiveText().value_or(""), "sent") - before;
            for (const auto& peer : peers)
                EXPECT_GT(peer->receiveText().value_or("").size(), 200000U);
            return sent > peers.size() * std::size_t{4} * 1024 &&
                   sent < peers.size() * std::size_t{16} * 1024;
        }));
}
