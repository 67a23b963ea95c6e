// The end of a broker under attack.

#include <atomic>
#include <deque>
#include <future>

#include "tests/broker/attacks/UnderAttack.h"

namespace
{

class Ending : public UnderAttack
{
protected:
    Ending() : UnderAttack({"--max-notify-bytes=64M", "--max-memory=128M"}) {}
};

} // namespace

TEST_F(Ending, comesWithinTwoSecondsBesideUnfinishedPostsAndUnreadNotifications)
{
    ZmtpPeer stalled(ZmtpPeer::notifyPort, 32 * 1024);
    ASSERT_TRUE(stalled.shakeHands() && stalled.write(ZmtpPeer::subscribe("")));
    for (int number = 0; number < 400; ++number)
        poster.post(postOf("k", std::to_string(number) + std::string(50000, 'x')));
    EXPECT_TRUE(reaches("posts", 400));
    ASSERT_EQ(statistic("subscribers.fallenBehind"), 0U);

    Gate begun;
    std::atomic<bool> hasEnded{false};
    const auto sync = [&]
    {
        RawRequester dealer(zmq::socket_type::dealer);
        std::deque<ZmtpPeer> posters;
        while (!hasEnded)
        {
            posters.emplace_back(ZmtpPeer::postPort);
            posters.back().shakeHands();
            posters.back().write(std::string("\1\3abc", 5)); // and nothing more of that message
            dealer.send({"", "Sync"});
            begun.open();
            dealer.receive(std::chrono::milliseconds(20));
        }
    };
    const std::future<void> syncing = std::async(std::launch::async,
                                                 [&]
                                                 {
                                                     try
                                                     {
                                                         sync();
                                                     }
                                                     catch (const std::runtime_error&)
                                                     {
                                                         // The broker has ended.
                                                     }
                                                 });
    EXPECT_TRUE(begun.wait());
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(broker.stop(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, allowed(std::chrono::seconds(2)));
    hasEnded = true;
    syncing.wait();
}
