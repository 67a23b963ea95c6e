#include "broker/peer/ProcessSockets.h"

#include "tests/broker/peer/ProcessesFixture.h"
#include "tests/support/Wait.h"

namespace
{

class ProcessSocketsTest : public ProcessesFixture
{
protected:
    // Of a connection that was accepted just now.
    bool lacks(pid_t pid, const std::string& program, uint64_t inode)
    {
        return sockets.lacks(pid, program, inode, Clock::now() - std::chrono::milliseconds(1));
    }

    ProcessSockets sockets{processes};
};

} // namespace

TEST_F(ProcessSocketsTest, aProcessLacksWhatIsNotAmongItsDescriptors)
{
    addProcess("7", "first\n", {"/dev/null", "socket:[98]"});
    EXPECT_TRUE(lacks(7, "first", 99));
    EXPECT_FALSE(lacks(7, "first", 98));
    EXPECT_FALSE(lacks(7, "first", 0)) << "an unknown socket";
}

TEST_F(ProcessSocketsTest, nothingIsCertainOfAProcessThatIsNotSeen)
{
    EXPECT_FALSE(lacks(7, "first", 99));
}

TEST_F(ProcessSocketsTest, nothingIsCertainOfAProcessThatRunsAnotherProgramByNow)
{
    addProcess("7", "second\n", {"socket:[98]"});
    EXPECT_FALSE(lacks(7, "first", 99));
}

TEST_F(ProcessSocketsTest, nothingIsCertainOfAProcessWithVeryManyDescriptors)
{
    addProcess("7", "first\n", std::vector<std::string>(3000, "socket:[98]"));
    EXPECT_FALSE(lacks(7, "first", 99));
}

// The process may have made the socket after the look.
TEST_F(ProcessSocketsTest, aLookCountsForConnectionsThatWereAcceptedBeforeIt)
{
    const TimePoint before = Clock::now();
    addProcess("7", "first\n", {"socket:[98]"});
    ASSERT_TRUE(sockets.lacks(7, "first", 99, before));
    const TimePoint after = Clock::now();
    addProcess("7", "first\n", {"socket:[99]"});
    EXPECT_TRUE(sockets.lacks(7, "first", 99, before)) << "it has not looked again";
    EXPECT_TRUE(eventually([&] { return sockets.lacks(7, "first", 97, after); })) << "it has looked again";
    EXPECT_FALSE(sockets.lacks(7, "first", 99, after));
}

TEST_F(ProcessSocketsTest, betweenTwoLooksThereIsAPause)
{
    addProcess("7", "first\n", std::vector<std::string>(500, "socket:[98]"));
    addProcess("8", "second\n", {});
    int looks = 0;
    const auto begin = std::chrono::steady_clock::now();
    while (looks < 10)
        looks += lacks(looks % 2 == 0 ? 7 : 8, looks % 2 == 0 ? "first" : "second", 99) ? 1 : 0;
    const auto withPauses = std::chrono::steady_clock::now() - begin;
    const auto again = std::chrono::steady_clock::now();
    for (looks = 0; looks < 5; ++looks)
        EXPECT_EQ(processes.socketsOf(7, "first").inodes.size(), 1U);
    EXPECT_GT(withPauses, 4 * (std::chrono::steady_clock::now() - again));
}
