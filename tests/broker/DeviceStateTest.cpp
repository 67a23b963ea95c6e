#include "broker/DeviceState.h"

#include <gtest/gtest.h>

#include "tests/support/Wait.h"

namespace Key = BrokerProtocol::Key;

namespace
{

class DeviceStateTest : public testing::Test
{
protected:
    std::optional<std::string> post(const std::string& document)
    {
        return state.apply(*BrokerProtocol::readPost(document));
    }

    std::string ask(const char* key, const std::string& name)
    {
        return state.answer(*BrokerProtocol::readRequest(BrokerProtocol::writeText(key, name)))
            .value_or("refused");
    }

    uint64_t elapsed(const std::string& name) { return std::stoull(ask(Key::getTimerElapsed, name)); }

    Limits limits;
    Refusals refusals;
    DeviceState state{limits, refusals};
};

} // namespace

TEST_F(DeviceStateTest, aPostIsOneUpdateOfWhatChangedInKeyOrder)
{
    EXPECT_EQ(post(R"({"postStatus":{"b":"2","a":"1"}})"), R"({"statusUpdate":{"a":"1","b":"2"}})");
    EXPECT_EQ(post(R"({"postStatus":{"b":"3","a":"1"}})"), R"({"statusUpdate":{"b":"3"}})");
}

TEST_F(DeviceStateTest, aPostThatChangesNothingPublishesNothing)
{
    post(R"({"postStatus":{"a":"1"}})");
    EXPECT_EQ(post(R"({"postStatus":{"a":"1"}})"), std::nullopt);
    EXPECT_EQ(post(R"({"postStatus":{}})"), std::nullopt);
    EXPECT_EQ(post(R"({"resetStatus":[]})"), std::nullopt);
}

TEST_F(DeviceStateTest, anEmptyValueOfAnUnknownKeyIsAChange)
{
    EXPECT_EQ(post(R"({"postStatus":{"a":""}})"), R"({"statusUpdate":{"a":""}})");
    EXPECT_EQ(post(R"({"resetStatus":["b","b"]})"), R"({"statusUpdate":{"b":""}})");
    EXPECT_EQ(post(R"({"resetStatus":["a","b"]})"), std::nullopt);
    EXPECT_EQ(ask(Key::getClientInfo, "null"), R"({"a":"","b":""})");
}

TEST_F(DeviceStateTest, anEventIsPublishedAndNotKept)
{
    EXPECT_EQ(post(R"({"postEvent":{"e":"v"}})"), R"({"eventUpdate":{"e":"v"}})");
    EXPECT_EQ(post(R"({"postEvent":{"e":"v"}})"), R"({"eventUpdate":{"e":"v"}})");
    EXPECT_EQ(post(R"({"postEvent":{}})"), std::nullopt);
    EXPECT_EQ(ask(Key::getClientInfo, "null"), "{}");
}

TEST_F(DeviceStateTest, queriesForValuesAnswerWhatIsKnown)
{
    post(R"({"postStatus":{"a":"1","b":"2"}})");
    EXPECT_EQ(ask(Key::getClientInfoValue, "a"), R"({"statusValue":"1"})");
    EXPECT_EQ(ask(Key::getClientInfoValue, "unknown"), R"({"statusValue":""})");
    const auto several = BrokerProtocol::readRequest(R"({"getClientInfoValues":["b","unknown","b"]})");
    EXPECT_EQ(state.answer(*several), R"({"b":"2"})");
    EXPECT_EQ(ask(Key::getClientInfo, "null"), R"({"a":"1","b":"2"})");
}

TEST_F(DeviceStateTest, changesSinceARevisionHaveTheirPresentValues)
{
    post(R"({"postStatus":{"a":"1","b":"1"}})");
    const uint64_t revision = state.revision();
    EXPECT_TRUE(state.changedSince(revision).empty());
    post(R"({"postStatus":{"a":"1","b":"2","c":"3"}})");
    post(R"({"postStatus":{"b":"4"}})");
    EXPECT_EQ(state.changedSince(revision), (StatusMap{{"b", "4"}, {"c", "3"}}));
    EXPECT_EQ(state.changedSince(0).size(), 3U);
}

TEST_F(DeviceStateTest, countersAnswerTheValueAfterTheIncrementAndWrap)
{
    EXPECT_EQ(ask(Key::getCounterValue, "c"), "0");
    EXPECT_EQ(ask(Key::incrementCounter, "c"), "1");
    EXPECT_EQ(post(R"({"setCounterValue":{"c":4294967295}})"), std::nullopt);
    EXPECT_EQ(ask(Key::getCounterValue, "c"), "4294967295");
    EXPECT_EQ(ask(Key::incrementCounter, "c"), "0");
}

TEST_F(DeviceStateTest, anUnknownTimerAnswersZero)
{
    EXPECT_EQ(ask(Key::getTimerElapsed, "t"), "0");
    EXPECT_EQ(ask(Key::getTimerLastStarted, "t"), "0");
}

TEST_F(DeviceStateTest, aTimerRunsUntilItIsStoppedAndKeepsItsTime)
{
    EXPECT_EQ(post(R"({"startTimer":"t"})"), std::nullopt);
    ASSERT_TRUE(eventually([&] { return elapsed("t") >= 1000; }));
    post(R"({"stopTimer":"t"})");
    const uint64_t stopped = elapsed("t");
    EXPECT_EQ(elapsed("t"), stopped);
    post(R"({"resetTimer":"t"})");
    EXPECT_EQ(elapsed("t"), 0U);
    EXPECT_NE(ask(Key::getTimerLastStarted, "t"), "0");
}

TEST_F(DeviceStateTest, startingARunningTimerKeepsTheTimeOfItsStart)
{
    post(R"({"startTimer":"t"})");
    const std::string started = ask(Key::getTimerLastStarted, "t");
    ASSERT_TRUE(eventually([&] { return elapsed("t") >= 1000; }));
    post(R"({"startTimer":"t"})");
    EXPECT_EQ(ask(Key::getTimerLastStarted, "t"), started);
    post(R"({"restartTimer":"t"})");
    EXPECT_NE(ask(Key::getTimerLastStarted, "t"), started);
}
