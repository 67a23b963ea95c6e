// A broker client's queries when memory runs out.

#include <ostream>

#include "tests/memory/Belongings.h"
#include "tests/memory/ClientWorld.h"

using FailingMemory::failEach;
using FailingMemory::Failure;
using FailingMemory::runsOut;

namespace
{

struct Query
{
    const char* name;
    std::string (*call)(Proxy&);
    std::string neutral = "0"; // its result if the request could not be sent
};

void PrintTo(const Query& query, std::ostream* stream)
{
    *stream << query.name;
}

const Query queries[]{
    {"getClientInfo", [](Proxy& proxy) { return shown(proxy.getClientInfo()); }, "{}"},
    {"getClientInfoValue", [](Proxy& proxy) { return proxy.getClientInfoValue(name("key")); }, ""},
    {"getClientInfoValueOfAnOddKey", [](Proxy& proxy) { return proxy.getClientInfoValue(odd("key")); }, ""},
    {"getClientInfoValues",
     [](Proxy& proxy) { return shown(proxy.getClientInfoValues(names("key", 0, 20))); }, "{}"},
    {"getOddClientInfoValues",
     [](Proxy& proxy) {
         return shown(proxy.getClientInfoValues({odd("key"), std::string(2000, 'x')}));
     },
     "{}"},
    {"getTimerElapsed", [](Proxy& proxy) { return std::to_string(proxy.getTimerElapsed(name("timer"))); }},
    {"getTimerElapsedSeconds",
     [](Proxy& proxy) { return std::to_string(proxy.getTimerElapsedSeconds(name("timer"))); }},
    {"getTimerLastStarted",
     [](Proxy& proxy) { return std::to_string(proxy.getTimerLastStarted(odd("timer"))); }},
    {"getCounterValue", [](Proxy& proxy) { return std::to_string(proxy.getCounterValue(name("counter"))); }},
    {"incrementCounter",
     [](Proxy& proxy) { return std::to_string(proxy.incrementCounter(name("counter"))); }},
    {"sync", [](Proxy& proxy) { return std::to_string(proxy.sync(10000)); }},
};

class QueryMemory : public testing::TestWithParam<Query>
{
protected:
    // The query's result, or nothing if memory ran out.
    std::optional<std::string> ask(Caller caller)
    {
        std::string result;
        if (world.runsOutFor(caller, [&] { result = GetParam().call(*world.proxy); }))
            return std::nullopt;
        return result;
    }

    FailingMemory::QuietLog log;
    World world;
};

} // namespace

// A query that cannot be sent for lack of memory returns the neutral result.
TEST_P(QueryMemory, aQueryIsAnsweredOrReachesItsCallerAsAnExceptionAndTheNextIsAnswered)
{
    for (const bool answersOdd : {false, true})
        for (const Caller caller : {Caller::Other, Caller::ManagersThread})
        {
            world.answersOdd = answersOdd;
            const std::optional<std::string> expected = ask(caller);
            const std::string request = world.lastRequest();
            unsigned struck = failEach(
                [&](const Failure& failure)
                {
                    const unsigned agents = Belongings::trackedObjects();
                    const unsigned before = world.requests;
                    std::optional<std::string> answer;
                    const bool hasStruck = failure.during([&] { answer = ask(caller); });
                    EXPECT_EQ(Belongings::trackedObjects(), agents);
                    const bool isSent = world.requests != before;
                    const std::string due = isSent ? *expected : GetParam().neutral;
                    EXPECT_EQ(answer.value_or(due), due);
                    EXPECT_TRUE(answer || hasStruck);
                    EXPECT_EQ(ask(caller), expected);
                    EXPECT_EQ(world.lastRequest(), request);
                    return hasStruck;
                });
            EXPECT_GT(struck + (caller == Caller::ManagersThread ? 1 : 0), 0U);
        }
}

INSTANTIATE_TEST_SUITE_P(, QueryMemory, testing::ValuesIn(queries), nameOf<Query>);

TEST_F(ClientMemory, aCounterThatTheBrokerHasCountedIsReturned)
{
    World world;
    const unsigned struck = failEach(
        [&](const Failure& failure)
        {
            const unsigned before = world.requests;
            uint32_t value = 0;
            const bool hasStruck = failure.during(
                [&] { runsOut([&] { value = world.proxy->incrementCounter(name("counter")); }); });
            EXPECT_EQ(value, world.requests == before ? 0U : 12345U);
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}
