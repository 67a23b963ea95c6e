#include "broker/state/DeviceState.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include "tests/support/LogCapture.h"
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
    EXPECT_EQ(ask(Key::getCounterValue, "c"), "-1");
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

// -------------------------------------------------------------------------------------------------- limits

namespace
{

class DeviceLimits : public DeviceStateTest
{
protected:
    DeviceLimits()
    {
        limits.keys = 2;
        limits.keyBytes = 5;
        limits.valueBytes = 10;
        limits.storedBytes = 20;
        limits.timers = 1;
        limits.counters = 1;
    }

    std::string value(const std::string& key) { return state.answer(valueRequest(key)).value_or("refused"); }

    static BrokerProtocol::Command valueRequest(const std::string& key)
    {
        return *BrokerProtocol::readRequest(BrokerProtocol::writeText(Key::getClientInfoValue, key));
    }

    const LogCapture log;
};

} // namespace

TEST_F(DeviceLimits, aKeyTooManyIsRefusedAndTheRestApplied)
{
    EXPECT_EQ(post(R"({"postStatus":{"a":"1","b":"1","c":"1"}})"), R"({"statusUpdate":{"a":"1","b":"1"}})");
    EXPECT_EQ(refusals.count(Refusal::Keys), 1U);
    EXPECT_TRUE(log.has(2, "New name [c] refused, limit.keys is 2"));
    EXPECT_EQ(post(R"({"resetStatus":["d"]})"), std::nullopt);
    EXPECT_EQ(refusals.count(Refusal::Keys), 2U);
    EXPECT_EQ(post(R"({"postStatus":{"a":"2","b":""}})"), R"({"statusUpdate":{"a":"2","b":""}})");
    EXPECT_EQ(state.keys(), 2U);
}

TEST_F(DeviceLimits, aLongNameIsRefusedEverywhere)
{
    EXPECT_EQ(post(R"({"postStatus":{"12345":"1","123456":"1"}})"), R"({"statusUpdate":{"12345":"1"}})");
    EXPECT_EQ(post(R"({"resetStatus":["123456"]})"), std::nullopt);
    EXPECT_EQ(post(R"({"postEvent":{"123456":"1"}})"), std::nullopt);
    EXPECT_EQ(post(R"({"startTimer":"123456"})"), std::nullopt);
    EXPECT_EQ(post(R"({"setCounterValue":{"123456":1}})"), std::nullopt);
    EXPECT_EQ(ask(Key::incrementCounter, "123456"), "refused");
    EXPECT_EQ(refusals.count(Refusal::KeyBytes), 6U);
    EXPECT_TRUE(log.has(2, "Name [123456...] of 6 bytes refused, the limit is 5"));
}

TEST_F(DeviceLimits, aLongValueIsRefusedAndTheOldOneStays)
{
    post(R"({"postStatus":{"a":"1234567890"}})");
    EXPECT_EQ(post(R"({"postStatus":{"a":"12345678901"}})"), std::nullopt);
    EXPECT_EQ(post(R"({"postEvent":{"e":"12345678901"}})"), std::nullopt);
    EXPECT_EQ(value("a"), R"({"statusValue":"1234567890"})");
    EXPECT_EQ(refusals.count(Refusal::ValueBytes), 2U);
    EXPECT_TRUE(log.has(2, "Value of [a] of 11 bytes refused, the limit is 10"));
}

TEST_F(DeviceLimits, allBytesTogetherAreLimited)
{
    post(R"({"postStatus":{"a":"123456789"}})"); // 10 with its key
    EXPECT_EQ(post(R"({"postStatus":{"b":"1234567890"}})"), std::nullopt);
    EXPECT_EQ(refusals.count(Refusal::StoredBytes), 1U);
    EXPECT_NE(post(R"({"postStatus":{"b":"123456789"}})"), std::nullopt);
    EXPECT_EQ(state.storedBytes(), 20U);
    EXPECT_EQ(post(R"({"postStatus":{"b":"1234567890"}})"), std::nullopt);
    EXPECT_NE(post(R"({"postStatus":{"b":"987654321"}})"), std::nullopt) << "no longer than before";
    post(R"({"postStatus":{"a":""}})");
    EXPECT_EQ(state.storedBytes(), 11U);
}

// The limit of all bytes together counts only what is held now.
TEST_F(DeviceStateTest, aValueThatWasLongTakesNoMemoryAnyMore)
{
    constexpr int keys = 1000;
    const std::size_t before = mallinfo2().uordblks;
    for (int key = 0; key < keys; ++key)
    {
        const std::string name = std::to_string(key);
        post(BrokerProtocol::writeMap(Key::postStatus, {{name, std::string(limits.valueBytes, 'x')}}));
        post(BrokerProtocol::writeList(Key::resetStatus, {name}));
    }
    EXPECT_LT(mallinfo2().uordblks - before, keys * limits.valueBytes / 10);
}

TEST_F(DeviceLimits, timersAndCountersTooManyAreRefused)
{
    post(R"({"startTimer":"t"})");
    post(R"({"startTimer":"u"})");
    post(R"({"stopTimer":"t"})");
    EXPECT_EQ(refusals.count(Refusal::Timers), 1U);
    EXPECT_EQ(state.timers(), 1U);
    EXPECT_EQ(ask(Key::incrementCounter, "c"), "1");
    EXPECT_EQ(ask(Key::incrementCounter, "d"), "refused");
    EXPECT_EQ(ask(Key::incrementCounter, "c"), "2");
    EXPECT_EQ(refusals.count(Refusal::Counters), 1U);
}

TEST_F(DeviceLimits, askingMakesNothing)
{
    for (const char* key : {Key::getTimerElapsed, Key::getTimerLastStarted, Key::getCounterValue})
        for (const char* name : {"a", "b", "c"})
            EXPECT_EQ(ask(key, name), "0");
    EXPECT_EQ(state.timers() + state.counters() + state.keys(), 0U);
}

// ----------------------------------------------------------------------------------------- kept and restored

TEST_F(DeviceStateTest, changesAreNotedFromItsRestorationOn)
{
    post(R"({"postStatus":{"before":"1"}})");
    EXPECT_TRUE(state.takeChanges().empty());
    state.restore({});
    post(R"({"postStatus":{"a":"1","b":"1"}})");
    post(R"({"postStatus":{"a":"2"}})");
    post(R"({"startTimer":"t"})");
    post(R"({"setCounterValue":{"c":5}})");
    ask(Key::incrementCounter, "c");
    const SavedState changes = state.takeChanges();
    EXPECT_EQ(changes.values, (StatusMap{{"a", "2"}, {"b", "1"}}));
    EXPECT_NE(changes.timers.at("t").spanStart, 0U);
    EXPECT_EQ(changes.counters, (std::map<std::string, uint32_t>{{"c", 6}}));
    EXPECT_TRUE(state.takeChanges().empty());
    post(R"({"postStatus":{"a":"2"}})");
    EXPECT_TRUE(state.takeChanges().empty()) << "nothing has changed";
}

TEST_F(DeviceStateTest, goesOnWithWhatWasKept)
{
    SavedState saved;
    saved.values = {{"a", "1"}};
    saved.counters = {{"c", 7}};
    saved.timers["stopped"] = {5000000, 0, 42};
    state.restore(saved);
    EXPECT_EQ(ask(Key::getClientInfoValue, "a"), R"({"statusValue":"1"})");
    EXPECT_EQ(ask(Key::incrementCounter, "c"), "8");
    EXPECT_EQ(ask(Key::getTimerElapsed, "stopped"), "5000000");
    EXPECT_EQ(ask(Key::getTimerLastStarted, "stopped"), "42");
    EXPECT_FALSE(state.hasRunningTimers());
    EXPECT_EQ(state.storedBytes(), 2U);
    post(R"({"startTimer":"stopped"})");
    EXPECT_TRUE(state.hasRunningTimers());
}
