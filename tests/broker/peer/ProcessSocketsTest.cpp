#include "broker/peer/ProcessSockets.h"

#include "tests/broker/peer/ProcessesFixture.h"
#include "tests/support/Wait.h"

namespace
{

class ProcessSocketsTest : public ProcessesFixture
{
protected:
    static constexpr uint64_t own = 98;

    // Of a connection that was accepted before the test.
    bool lacks(pid_t pid, const std::string& program, uint64_t inode)
    {
        return sockets.lacks(inode, begin, pid, program, own);
    }

    const TimePoint begin = Clock::now();

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

// A process whose first thread has ended shows none of its descriptors.
TEST_F(ProcessSocketsTest, nothingIsCertainOfAProcessThatShowsNotEvenItsOwnSocket)
{
    addProcess("7", "first\n", {});
    EXPECT_FALSE(lacks(7, "first", 99));
}

// The process may have made the socket after the look.
TEST_F(ProcessSocketsTest, aLookCountsForConnectionsThatWereAcceptedBeforeIt)
{
    addProcess("7", "first\n", {"socket:[98]"});
    ASSERT_TRUE(lacks(7, "first", 99));
    const TimePoint after = Clock::now();
    addProcess("7", "first\n", {"socket:[99]"});
    EXPECT_TRUE(lacks(7, "first", 99)) << "it has not looked again";
    EXPECT_TRUE(eventually([&] { return sockets.lacks(97, after, 7, "first", own); }))
        << "it has looked again";
    EXPECT_FALSE(sockets.lacks(99, after, 7, "first", own));
}

// The pauses are 20 times as long as the looks, and 10 times as long as the shortest one at least.
TEST_F(ProcessSocketsTest, betweenTwoLooksThereIsAPause)
{
    addProcess("7", "first\n", std::vector<std::string>(20, "socket:[98]"));
    Clock::duration shortest = Clock::duration::max();
    for (int count = 0; count < 50; ++count)
    {
        const TimePoint before = Clock::now();
        ASSERT_TRUE(processes.socketsOf(7, "first").areAll);
        shortest = std::min(shortest, Clock::now() - before);
    }
    int looks = 0;
    const TimePoint start = Clock::now();
    while (Clock::now() - start < std::chrono::milliseconds(100))
        looks += sockets.lacks(99, Clock::now(), 7, "first", own) ? 1 : 0; // each needs a look of its own
    EXPECT_LE(looks * 10 * shortest, Clock::now() - start);
}
