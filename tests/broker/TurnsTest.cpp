// In which order the real broker handles messages that arrive together.

#include <csignal>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

#include "tests/support/BrokerProcess.h"
#include "tests/support/ZmtpPeer.h"

namespace
{

std::string requestOfManyValues()
{
    std::string keys;
    for (int key = 0; key < 500; ++key)
        keys += (key == 0 ? "\"k" : ",\"k") + std::to_string(key) + '"';
    return WireFrames::message({"", R"({"getClientInfoValues":[)" + keys + "]}"});
}

} // namespace

TEST(TurnsTest, aShortRequestIsAnsweredBeforeLongOnesThatCameBefore)
{
    BrokerProcess broker;
    const std::string shortRequest = R"({"getBrokerStatistics":"null"})";
    ZmtpPeer requester(ZmtpPeer::requestPort);
    ASSERT_TRUE(requester.shakeHands());
    ASSERT_NE(requester.ask(shortRequest), "");
    std::vector<std::unique_ptr<ZmtpPeer>> peers;
    for (int count = 0; count < 20; ++count)
    {
        peers.push_back(std::make_unique<ZmtpPeer>(ZmtpPeer::requestPort));
        ASSERT_TRUE(peers.back()->shakeHands());
        ASSERT_NE(peers.back()->ask(R"({"getCounterValue":"c"})"), "") << "its handshake is over";
    }
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
