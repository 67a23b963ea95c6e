// When the real broker answers the first "Sync" of a client: peers written by hand.

#include <csignal>
#include <gtest/gtest.h>

#include "tests/broker/Messages.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/ZmtpPeer.h"

TEST(StartTest, waitsForAPostConnectionThatArrivedBeforeWithACrowd)
{
    BrokerProcess broker;
    const RawPoster poster; // as many post connections as clients
    RawRequester requester;
    EXPECT_EQ(requester.ask(R"({"getCounterValue":"c"})"), "0");
    broker.process().suspend();
    for (int count = 0; count < 100; ++count)
        ZmtpPeer(ZmtpPeer::postPort).reset(); // gone, but in front
    ZmtpPeer post(ZmtpPeer::postPort);
    ASSERT_TRUE(post.write(ZmtpPeer::greeting() + ZmtpPeer::ready("PUB")));
    requester.send({"Sync"});
    const auto begin = std::chrono::steady_clock::now();
    broker.process().signal(SIGCONT);
    ASSERT_TRUE(requester.receive());
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(45))
        << "it does not answer the PING behind its subscription";
}
