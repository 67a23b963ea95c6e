// Many that subscribe to a broker that was started just now, when each gets all values at first.

#include <csignal>
#include <memory>
#include <vector>

#include "tests/broker/attacks/UnderAttack.h"

namespace
{

class FirstValues : public UnderAttack
{
protected:
    FirstValues()
    {
        EXPECT_TRUE(mPoster.shakeHands());
        post("first", "old");
        constexpr int keys = 4000;
        for (int number = 0; number < keys; ++number)
            post("key" + std::to_string(number), "a value of some length");
        EXPECT_TRUE(reaches("stored.keys", keys + 1));
    }

    void post(const std::string& key, const std::string& value)
    {
        mPoster.write(ZmtpPeer::message(postOf(key, value)));
    }

    // The value of the first key that a subscriber gets first.
    static std::string firstValue(ZmtpPeer& subscriber)
    {
        while (const std::optional<std::string> text = subscriber.receiveText())
        {
            for (const char* value : {"old", "new"})
            {
                if (text->find(R"("first":")" + std::string(value)) != std::string::npos)
                    return value;
            }
        }
        return "";
    }

private:
    ZmtpPeer mPoster{ZmtpPeer::postPort};
};

} // namespace

// A post that arrives together with a hundred subscriptions is not handled behind the first values of them
// all. Whoever is served before the post gets the old value first.
TEST_F(FirstValues, manyWhoSubscribeAtOnceDoNotDelayAPost)
{
    constexpr std::size_t count = 100;
    std::vector<std::unique_ptr<ZmtpPeer>> subscribers;
    for (std::size_t number = 0; number < count; ++number)
    {
        subscribers.push_back(std::make_unique<ZmtpPeer>(ZmtpPeer::notifyPort));
        ASSERT_TRUE(subscribers.back()->shakeHands());
    }
    broker.process().suspend();
    for (const auto& subscriber : subscribers)
        subscriber->write(ZmtpPeer::subscribe(""));
    post("first", "new");
    broker.process().signal(SIGCONT);
    std::size_t before = 0;
    for (const auto& subscriber : subscribers)
    {
        const std::string value = firstValue(*subscriber);
        ASSERT_NE(value, "");
        before += value == "old" ? 1U : 0U;
    }
    EXPECT_LT(before, count / 2);
}
