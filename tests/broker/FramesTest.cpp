#include "broker/Frames.h"

#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <vector>

namespace
{

constexpr std::size_t longest = std::size_t{1024} * 1024;

class FramesTest : public testing::Test
{
protected:
    FramesTest()
    {
        left.bind("inproc://frames");
        right.connect("inproc://frames");
    }

    std::vector<std::size_t> framesOf(const std::string& text)
    {
        Frames::send(left, text);
        std::vector<std::size_t> sizes;
        Frames::Assembly assembly(longest);
        zmq::message_t frame;
        for (bool more = true; more;)
        {
            if (!Frames::receiveFrame(right, frame, more))
                break;
            sizes.push_back(frame.size());
            assembly.add(frame);
        }
        EXPECT_TRUE(assembly.text() == text);
        return sizes;
    }

    zmq::context_t context;
    zmq::socket_t left{context, zmq::socket_type::pair};
    zmq::socket_t right{context, zmq::socket_type::pair};
};

using Sizes = std::vector<std::size_t>;

} // namespace

TEST_F(FramesTest, holdAtMost512BytesAndTheLastIsNeverEmpty)
{
    EXPECT_EQ(framesOf(std::string(1, 'x')), (Sizes{1}));
    EXPECT_EQ(framesOf(std::string(511, 'x')), (Sizes{511}));
    EXPECT_EQ(framesOf(std::string(512, 'x')), (Sizes{512}));
    EXPECT_EQ(framesOf(std::string(513, 'x')), (Sizes{512, 1}));
    EXPECT_EQ(framesOf(std::string(1024, 'x')), (Sizes{512, 512}));
    EXPECT_EQ(framesOf(std::string(5000, 'x')).back(), 5000U % 512U);
}

TEST_F(FramesTest, receivingWithNothingThereReturnsAtOnce)
{
    zmq::message_t frame;
    bool more = false;
    EXPECT_FALSE(Frames::receiveFrame(right, frame, more));
}

TEST(AssemblyTest, takesUpToTheLimitOverAllFrames)
{
    Frames::Assembly assembly(longest);
    const std::string half(longest / 2, 'x');
    assembly.add(zmq::message_t(half));
    assembly.add(zmq::message_t(half));
    ASSERT_TRUE(assembly.text());
    EXPECT_EQ(assembly.text()->size(), longest);
}

TEST(AssemblyTest, refusesOneByteMoreAndAllThatFollows)
{
    Frames::Assembly assembly(longest);
    assembly.add(zmq::message_t(std::string(longest, 'x')));
    assembly.add(zmq::message_t(std::string(1, 'x')));
    EXPECT_FALSE(assembly.text());
    assembly.add(zmq::message_t(std::string(1, 'x')));
    EXPECT_FALSE(assembly.text());
}

// A signal that is handled interrupts calls as it does when a stopped process goes on.
TEST_F(FramesTest, aCallThatIsInterruptedIsMadeAgain)
{
    struct sigaction action
    {
    };
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    const itimerval often{{0, 20}, {0, 20}};
    setitimer(ITIMER_REAL, &often, nullptr);
    zmq::message_t frame;
    bool more = false;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (std::chrono::steady_clock::now() < end)
    {
        ASSERT_NO_THROW(Frames::send(left, "text"));
        ASSERT_NO_THROW(while (!Frames::receiveFrame(right, frame, more)){});
        ASSERT_NO_THROW(Frames::receiveFrame(right, frame, more));
    }
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
}
