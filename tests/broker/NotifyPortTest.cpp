#include "broker/NotifyPort.h"

#include <gtest/gtest.h>

#include "tests/support/Wait.h"
#include "tests/support/ZmtpPeer.h"

namespace
{

class NotifyPortTest : public testing::Test
{
protected:
    NotifyPortTest() { port.listen(); }

    // Serves the subscriber when it has said something.
    void serve()
    {
        EXPECT_TRUE(eventually([this] { return port.peers().front()->arrivals() != 0; }));
        port.serve(*port.peers().front(), EPOLLIN, Clock::now());
        port.flush(Clock::now());
    }

    Limits limits;
    Refusals refusals;
    MemoryBudget budget{limits.memory};
    Poller poller;
    Identities identities;
    Guard guard{identities, refusals, std::make_unique<const Policy>()};
    const PortEnvironment environment{poller, identities, budget, limits, refusals, guard};
    DeviceState state{limits, refusals};
    NotifyPort port{environment, state};
};

} // namespace

// Before the first notification of all, it is not in the middle of that one. Whatever it says then, a
// subscriber that does not want it, or may not see it, must not get it.
TEST_F(NotifyPortTest, theFirstNotificationIsNotForASubscriberThatWantsOthers)
{
    ZmtpPeer subscriber(ZmtpPeer::notifyPort);
    port.accept(1, Clock::now());
    ASSERT_EQ(port.peers().size(), 1U);
    ASSERT_TRUE(subscriber.shakeHands());
    ASSERT_TRUE(subscriber.write(ZmtpPeer::subscribe("wanted")));
    serve();
    ASSERT_EQ(port.peers().front()->state, NotifyConnection::State::Following);
    port.publish("secret", 1, 0);
    ASSERT_TRUE(subscriber.write(ZmtpPeer::subscribe("more")));
    serve();
    port.publish("wanted", 2, 0);
    port.flush(Clock::now());
    EXPECT_EQ(subscriber.receiveText(), "wanted");
}
