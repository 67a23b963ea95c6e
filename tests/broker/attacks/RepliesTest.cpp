// Clients that request much and read it slowly.

#include <deque>

#include "tests/broker/attacks/UnderAttack.h"

namespace
{

constexpr int smallBuffer = 32 * 1024;
constexpr int keys = 260;
constexpr std::size_t valueBytes = 64000;

// A device that holds 16 MiB.
class WholeState : public UnderAttack
{
protected:
    WholeState() : UnderAttack({"--max-stored-bytes=20M"})
    {
        for (int number = 0; number < keys; ++number)
            poster.post(postOf(key(number), valueOfKey(number)));
        EXPECT_TRUE(reaches("stored.keys", keys));
    }

    static std::string key(int number) { return "k" + std::to_string(1000 + number); }

    static std::string valueOfKey(int number)
    {
        std::string value = std::to_string(number) + ':';
        value.append(valueBytes - value.size(), static_cast<char>('a' + number % 26));
        return value;
    }

    // Sorted by key.
    static std::string all(const std::string& lastValue = valueOfKey(keys - 1))
    {
        std::string text;
        for (int number = 0; number < keys; ++number)
            text += (number == 0 ? "{\"" : ",\"") + key(number) + "\":\"" +
                    (number == keys - 1 ? lastValue : valueOfKey(number)) + '"';
        return text + '}';
    }

    const std::string request = R"({"getClientInfo":"null"})";
};

} // namespace

TEST_F(WholeState, reachesASlowReaderWithoutBeingHeldForIt)
{
    Bystander bystander(requester);
    const BrokerMemory memory(broker.process().pid());
    ZmtpPeer slow(ZmtpPeer::requestPort, smallBuffer);
    ASSERT_TRUE(slow.shakeHands() && slow.write(ZmtpPeer::request(request)));
    ASSERT_TRUE(reaches("requests.getClientInfo", 1));
    bystander.expectServed();
    EXPECT_LT(statistic("memory.connections"), BrokerMemory::mebi);
    memory.expectPeakWithin(4 * BrokerMemory::mebi);

    // Each value is the present value when the answer reaches it.
    poster.post(postOf(key(keys - 1), "changed meanwhile"));
    ASSERT_TRUE(
        eventually([this] { return valueOf(requester, key(keys - 1)) == reply("changed meanwhile"); }));
    EXPECT_TRUE(slow.receiveText() == all("changed meanwhile"));
    EXPECT_EQ(slow.ask(R"({"getClientInfoValue":")" + key(0) + "\"}"), reply(valueOfKey(0)));
}

TEST_F(WholeState, costsLittleForManyThatDoNotReadIt)
{
    const BrokerMemory memory(broker.process().pid());
    constexpr int count = 50;
    std::deque<ZmtpPeer> peers;
    for (int number = 0; number < count; ++number)
    {
        peers.emplace_back(ZmtpPeer::requestPort, smallBuffer);
        ASSERT_TRUE(peers.back().shakeHands() && peers.back().write(ZmtpPeer::request(request)));
    }
    ASSERT_TRUE(reaches("requests.getClientInfo", count));
    expectServing();
    memory.expectPeakWithin(16 * BrokerMemory::mebi);
    EXPECT_EQ(statistic("limit.memory"), 0U) << "no connection had to be closed";
    const std::optional<std::string> text = peers.back().receiveText();
    EXPECT_TRUE(text && text->find(all().substr(1)) != std::string::npos);
}
