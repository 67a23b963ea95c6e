// The empty answer makes a client repeat a question that died with an earlier broker. It must never shift the
// answers of a client whose questions are alive.

#include <csignal>
#include <gtest/gtest.h>

#include "tests/broker/Messages.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/ZmtpPeer.h"

namespace
{

using namespace std::string_literals;

const std::string pingAndEmptyAnswer = "\4\x0c\4PING\0\0empty\1\0\0\0"s;
const std::string question = ZmtpPeer::request(R"({"incrementCounter":"c"})");

std::string counterReply(int value)
{
    return "\1\0\0\1"s + std::to_string(value);
}

// How long a test watches that nothing comes.
constexpr std::chrono::milliseconds quiet{200};

class HealingTest : public testing::Test
{
protected:
    // Stays silent after its handshake until the broker is about to send the empty answer.
    void SetUp() override
    {
        ASSERT_TRUE(peer.shakeHands());
        ASSERT_EQ(peer.read(pingAndEmptyAnswer.size()), pingAndEmptyAnswer);
    }

    void answerPing() { ASSERT_TRUE(peer.write(ZmtpPeer::pong("empty"))); }
    void ask() { ASSERT_TRUE(peer.write(question)); }

    BrokerProcess broker;
    ZmtpPeer peer{ZmtpPeer::requestPort};
};

} // namespace

TEST_F(HealingTest, aClientThatAsksAgainIsAnswered)
{
    answerPing();
    ask();
    EXPECT_EQ(peer.read(5), counterReply(1));
    ask();
    EXPECT_EQ(peer.read(5), counterReply(2));
}

TEST_F(HealingTest, aQuestionThatWasSentBeforeTheEmptyAnswerCameIsNotAnsweredAsWell)
{
    ask();
    answerPing();
    EXPECT_EQ(peer.read(1, quiet), "");
    ask(); // repeats the question, as a client does after the empty answer
    EXPECT_EQ(peer.read(5), counterReply(1)) << "it counts once";
    EXPECT_EQ(peer.read(1, quiet), "");
}

TEST_F(HealingTest, aQuestionThatIsAskedAgainSoonBehindPongIsAnsweredOnce)
{
    ASSERT_TRUE(peer.write(ZmtpPeer::pong("empty") + question + question));
    EXPECT_EQ(peer.read(5), counterReply(1)) << "it counts once";
    EXPECT_EQ(peer.read(1, quiet), "");
}

TEST(SilentClientTest, aQuestionThatWaitsToBeReadGetsNoEmptyAnswerInFront)
{
    BrokerProcess broker;
    ZmtpPeer peer(ZmtpPeer::requestPort);
    ASSERT_TRUE(peer.shakeHands());
    ASSERT_TRUE(peer.write(ZmtpPeer::ping("opened")));
    ASSERT_EQ(peer.read(ZmtpPeer::pong("opened").size()), ZmtpPeer::pong("opened"));
    const auto silenceEnds = std::chrono::steady_clock::now() + std::chrono::milliseconds(1100);
    broker.process().suspend();
    ASSERT_TRUE(peer.write(question));
    std::this_thread::sleep_until(silenceEnds); // the broker must be too late with its answer
    broker.process().signal(SIGCONT);
    EXPECT_EQ(peer.read(5), counterReply(1));
    EXPECT_EQ(peer.read(1, quiet), "");
}
