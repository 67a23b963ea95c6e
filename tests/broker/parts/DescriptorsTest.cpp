#include "broker/Descriptors.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace
{

// The process's own descriptors: the standard streams, the loop, the ports, the state file and its log, the
// connection to the service manager, a folder being read, and a connection being refused.
constexpr std::size_t own = 20;

std::size_t raisedFor(std::size_t connections)
{
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit low = before;
    low.rlim_cur = 32;
    setrlimit(RLIMIT_NOFILE, &low);
    const std::size_t limit = Descriptors::raiseLimit(connections);
    setrlimit(RLIMIT_NOFILE, &before);
    return limit;
}

} // namespace

TEST(DescriptorsTest, aLowLimitGoesMostlyToTheConnections)
{
    EXPECT_EQ(Descriptors::connectionsPerPort(400), 100U);
    EXPECT_EQ(Descriptors::connectionsPerPort(200), 50U);
    EXPECT_EQ(Descriptors::connectionsPerPort(100), 25U);
    EXPECT_EQ(Descriptors::connectionsPerPort(64), 13U);
}

TEST(DescriptorsTest, theConnectionsLeaveWhatTheProcessNeedsOfItsOwn)
{
    for (std::size_t limit = own + 3; limit < 5000; ++limit)
        ASSERT_GE(limit, own + 3 * Descriptors::connectionsPerPort(limit)) << limit;
}

TEST(DescriptorsTest, ofAHighLimitNoMoreThanAHundredAreKeptBack)
{
    EXPECT_EQ(Descriptors::connectionsPerPort(3100), 1000U);
    EXPECT_EQ(Descriptors::connectionsPerPort(1000), 300U);
}

TEST(DescriptorsTest, thereIsAlwaysRoomForOneConnection)
{
    EXPECT_EQ(Descriptors::connectionsPerPort(0), 1U);
    EXPECT_EQ(Descriptors::connectionsPerPort(24), 1U);
    EXPECT_EQ(Descriptors::connectionsPerPort(26), 1U);
}

TEST(DescriptorsTest, theLimitIsRaisedToWhatTheConnectionsNeedAndNotFurther)
{
    for (const std::size_t connections : {10U, 25U, 60U, 99U, 100U, 101U, 200U})
    {
        const std::size_t limit = raisedFor(connections);
        EXPECT_EQ(Descriptors::connectionsPerPort(limit), connections);
        EXPECT_LT(Descriptors::connectionsPerPort(limit - 2), connections) << "but for rounding";
    }
}
