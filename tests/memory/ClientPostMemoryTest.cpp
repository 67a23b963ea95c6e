// A broker client's posts when memory runs out.

#include <ostream>

#include "tests/memory/Belongings.h"
#include "tests/memory/ClientWorld.h"

using FailingMemory::failEach;
using FailingMemory::Failure;

namespace
{

struct Post
{
    const char* name;
    void (*call)(Proxy&);
};

void PrintTo(const Post& post, std::ostream* stream)
{
    *stream << post.name;
}

const Post posts[]{
    {"postStatus", [](Proxy& proxy) { proxy.postStatus(name("key"), name("value")); }},
    {"postStatusOfSeveral", [](Proxy& proxy) { proxy.postStatus(values(name("value"))); }},
    {"postStatusOfSeveralOdd", [](Proxy& proxy) { proxy.postStatus(values(odd("value"))); }},
    {"resetStatus", [](Proxy& proxy) { proxy.resetStatus(name("key")); }},
    {"resetStatusOfSeveral", [](Proxy& proxy) { proxy.resetStatus(names("key", 0, 20)); }},
    {"postEvent", [](Proxy& proxy) { proxy.postEvent(name("event"), name("value"), 0); }},
    {"postLongEvent", [](Proxy& proxy) { proxy.postEvent(name("event"), std::string(2000, 'x'), 0); }},
    {"postOddEvent", [](Proxy& proxy) { proxy.postEvent(name("event"), odd("value"), 0); }},
    {"postDelayedEvent", [](Proxy& proxy) { proxy.postEvent(name("event"), name("value"), 1); }},
    {"startTimer", [](Proxy& proxy) { proxy.startTimer(name("timer")); }},
    {"stopTimer", [](Proxy& proxy) { proxy.stopTimer(name("timer")); }},
    {"resetTimer", [](Proxy& proxy) { proxy.resetTimer(name("timer")); }},
    {"restartOddTimer", [](Proxy& proxy) { proxy.restartTimer(odd("timer")); }},
    {"setCounterValue", [](Proxy& proxy) { proxy.setCounterValue(name("counter"), 5); }},
    {"updateSystemTime", [](Proxy& proxy) { proxy.updateSystemTime(1800000000); }},
};

class PostMemory : public testing::TestWithParam<Post>
{
protected:
    FailingMemory::QuietLog log;
    World world;
};

} // namespace

TEST_P(PostMemory, aPostArrivesWholeOrNotAtAllAndSoDoTheNext)
{
    const auto post = [&] { GetParam().call(*world.proxy); };
    post();
    world.settle();
    const std::vector<std::string> whole = world.postsSince(0);
    ASSERT_EQ(whole.size(), 1U);
    for (const Caller caller : {Caller::Other, Caller::ManagersThread})
    {
        const unsigned struck = failEach(
            [&](const Failure& failure)
            {
                const std::size_t before = world.broker.posts().size();
                const unsigned agents = Belongings::trackedObjects();
                bool ranOut = false;
                const bool hasStruck = failure.during(
                    [&]
                    {
                        ranOut = world.runsOutFor(caller, post);
                        world.settle();
                    });
                EXPECT_EQ(Belongings::trackedObjects(), agents);
                const std::vector<std::string> arrived = world.postsSince(before);
                const bool hasArrived = arrived == whole;
                EXPECT_TRUE(hasArrived || arrived.empty()) << testing::PrintToString(arrived);
                EXPECT_TRUE(hasArrived || hasStruck);
                EXPECT_FALSE(hasArrived && ranOut);
                return hasStruck;
            });
        EXPECT_GT(struck, 0U);
    }
    const std::size_t before = world.broker.posts().size();
    post();
    world.settle();
    EXPECT_EQ(world.postsSince(before), whole);
}

INSTANTIATE_TEST_SUITE_P(, PostMemory, testing::ValuesIn(posts), nameOf<Post>);
