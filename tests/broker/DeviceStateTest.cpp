#include "broker/state/DeviceState.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <utility>

#include "tests/protocol/Written.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Wait.h"

namespace
{

using Map = std::map<std::string, std::string>;
using Changes = std::vector<std::pair<std::string, std::string>>; // in order

const Changes none;

class DeviceStateTest : public testing::Test
{
protected:
    Changes post(const Map& values) { return copied(state.post(membersIn(values))); }
    Changes reset(const std::vector<std::string_view>& keys) { return copied(state.reset(keys)); }
    Changes events(const Map& events) { return copied(state.events(membersIn(events))); }

    std::string valueOf(const std::string& key) { return std::string(state.valueOf(key)); }

    // All values, sorted by key.
    Map all()
    {
        Map values;
        std::optional<std::string> last;
        while (const DeviceState::Value* value = state.behind(last))
        {
            values.emplace(value->key, value->text);
            last = value->key;
        }
        return values;
    }

    // Sorted by their last change.
    Changes changedSince(uint64_t revision)
    {
        Changes changes;
        for (const DeviceState::Value* value = state.changedSince(revision); value != nullptr;
             value = value->newer)
            changes.emplace_back(value->key, value->text);
        return changes;
    }

    static Changes copied(const DeviceState::Members& members)
    {
        Changes changes;
        for (const BrokerProtocol::Member& member : members)
            changes.emplace_back(member.name, member.value);
        return changes;
    }

    Limits limits;
    Refusals refusals;
    DeviceState state{limits, refusals};
};

} // namespace

TEST_F(DeviceStateTest, aPostReturnsWhatChangedInKeyOrder)
{
    EXPECT_EQ(post({{"a", "1"}, {"b", "2"}}), (Changes{{"a", "1"}, {"b", "2"}}));
    EXPECT_EQ(post({{"a", "1"}, {"b", "3"}}), (Changes{{"b", "3"}}));
    EXPECT_EQ(reset({"b", "a"}), (Changes{{"a", ""}, {"b", ""}}));
}

TEST_F(DeviceStateTest, aPostThatChangesNothingReturnsNothing)
{
    post({{"a", "1"}});
    EXPECT_EQ(post({{"a", "1"}}), none);
    EXPECT_EQ(post({}), none);
    EXPECT_EQ(reset({}), none);
}

TEST_F(DeviceStateTest, anEmptyValueOfAnUnknownKeyIsAChange)
{
    EXPECT_EQ(post({{"a", ""}}), (Changes{{"a", ""}}));
    EXPECT_EQ(reset({"b", "b"}), (Changes{{"b", ""}}));
    EXPECT_EQ(reset({"a", "b"}), none);
    EXPECT_EQ(all(), (Map{{"a", ""}, {"b", ""}}));
}

TEST_F(DeviceStateTest, anEventIsReturnedEachTimeAndNotKept)
{
    EXPECT_EQ(events({{"e", "v"}}), (Changes{{"e", "v"}}));
    EXPECT_EQ(events({{"e", "v"}}), (Changes{{"e", "v"}}));
    EXPECT_EQ(events({}), none);
    EXPECT_EQ(all(), Map());
}

TEST_F(DeviceStateTest, queriesForValuesAnswerWhatIsKnown)
{
    post({{"a", "1"}, {"b", "2"}});
    EXPECT_EQ(valueOf("a"), "1");
    EXPECT_EQ(valueOf("unknown"), "");
    EXPECT_EQ(state.find("unknown"), nullptr);
    ASSERT_NE(state.find("b"), nullptr);
    EXPECT_EQ(state.find("b")->key, "b");
    EXPECT_EQ(state.find("b")->text, "2");
}

TEST_F(DeviceStateTest, theValueBehindAKeyIsFoundAlsoWhereTheKeyIsNone)
{
    post({{"a", "1"}, {"c", "3"}});
    EXPECT_EQ(state.behind(std::nullopt)->key, "a");
    EXPECT_EQ(state.behind("")->key, "a");
    EXPECT_EQ(state.behind("a")->key, "c");
    EXPECT_EQ(state.behind("b")->key, "c");
    EXPECT_EQ(state.behind("c"), nullptr);
}

TEST_F(DeviceStateTest, changesSinceARevisionHaveTheirPresentValuesInTheOrderOfTheLastChanges)
{
    post({{"a", "1"}, {"b", "1"}});
    const uint64_t revision = state.revision();
    EXPECT_EQ(changedSince(revision), none);
    post({{"a", "1"}, {"b", "2"}, {"c", "3"}});
    post({{"b", "4"}});
    EXPECT_EQ(changedSince(revision), (Changes{{"c", "3"}, {"b", "4"}}));
    EXPECT_EQ(changedSince(0), (Changes{{"a", "1"}, {"c", "3"}, {"b", "4"}}));
    post({{"a", "5"}});
    EXPECT_EQ(changedSince(0), (Changes{{"c", "3"}, {"b", "4"}, {"a", "5"}})) << "the oldest has moved";
    EXPECT_EQ(changedSince(state.revision()), none);
}

TEST_F(DeviceStateTest, aRevisionIsThatOfTheLastChange)
{
    post({{"a", "1"}, {"b", "1"}});
    EXPECT_EQ(state.find("b")->revision, state.revision());
    EXPECT_LT(state.find("a")->revision, state.find("b")->revision);
    const uint64_t revision = state.revision();
    post({{"a", "1"}});
    events({{"e", "1"}});
    EXPECT_EQ(state.revision(), revision) << "nothing has changed";
}

TEST_F(DeviceStateTest, countersAnswerTheValueAfterTheIncrementAndWrap)
{
    EXPECT_EQ(state.counter("c"), 0U);
    EXPECT_EQ(state.incrementCounter("c"), 1U);
    state.setCounter("c", 4294967295U);
    EXPECT_EQ(state.counter("c"), 4294967295U);
    EXPECT_EQ(state.incrementCounter("c"), 0U);
}

TEST_F(DeviceStateTest, anUnknownTimerAnswersZero)
{
    EXPECT_EQ(state.elapsed("t"), 0U);
    EXPECT_EQ(state.lastStarted("t"), 0U);
}

TEST_F(DeviceStateTest, aTimerRunsUntilItIsStoppedAndKeepsItsTime)
{
    state.startTimer("t");
    ASSERT_TRUE(eventually([&] { return state.elapsed("t") >= 1000; }));
    state.stopTimer("t");
    const uint64_t stopped = state.elapsed("t");
    EXPECT_EQ(state.elapsed("t"), stopped);
    state.resetTimer("t");
    EXPECT_EQ(state.elapsed("t"), 0U);
    EXPECT_NE(state.lastStarted("t"), 0U);
}

TEST_F(DeviceStateTest, startingARunningTimerKeepsTheTimeOfItsStart)
{
    state.startTimer("t");
    const uint64_t started = state.lastStarted("t");
    ASSERT_TRUE(eventually([&] { return state.elapsed("t") >= 1000; }));
    state.startTimer("t");
    EXPECT_EQ(state.lastStarted("t"), started);
    state.restartTimer("t");
    EXPECT_NE(state.lastStarted("t"), started);
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

    const LogCapture log;
};

} // namespace

TEST_F(DeviceLimits, aKeyTooManyIsRefusedAndTheRestApplied)
{
    EXPECT_EQ(post({{"a", "1"}, {"b", "1"}, {"c", "1"}}), (Changes{{"a", "1"}, {"b", "1"}}));
    EXPECT_EQ(refusals.count(Refusal::Keys), 1U);
    EXPECT_TRUE(log.has(2, "New name [c] refused, limit.keys is 2"));
    EXPECT_EQ(reset({"d"}), none);
    EXPECT_EQ(refusals.count(Refusal::Keys), 2U);
    EXPECT_EQ(post({{"a", "2"}, {"b", ""}}), (Changes{{"a", "2"}, {"b", ""}}));
    EXPECT_EQ(state.keys(), 2U);
}

TEST_F(DeviceLimits, aLongNameIsRefusedEverywhere)
{
    EXPECT_EQ(post({{"12345", "1"}, {"123456", "1"}}), (Changes{{"12345", "1"}}));
    EXPECT_EQ(reset({"123456"}), none);
    EXPECT_EQ(events({{"123456", "1"}}), none);
    state.startTimer("123456");
    EXPECT_EQ(state.timers(), 0U);
    state.setCounter("123456", 1);
    EXPECT_EQ(state.incrementCounter("123456"), std::nullopt);
    EXPECT_EQ(state.counters(), 0U);
    EXPECT_EQ(refusals.count(Refusal::KeyBytes), 6U);
    EXPECT_TRUE(log.has(2, "Name [123456...] of 6 bytes refused, the limit is 5"));
}

TEST_F(DeviceLimits, aLongValueIsRefusedAndTheOldOneStays)
{
    post({{"a", "1234567890"}});
    EXPECT_EQ(post({{"a", "12345678901"}}), none);
    EXPECT_EQ(events({{"e", "12345678901"}}), none);
    EXPECT_EQ(valueOf("a"), "1234567890");
    EXPECT_EQ(refusals.count(Refusal::ValueBytes), 2U);
    EXPECT_TRUE(log.has(2, "Value of [a] of 11 bytes refused, the limit is 10"));
}

TEST_F(DeviceLimits, allBytesTogetherAreLimited)
{
    post({{"a", "123456789"}}); // 10 bytes with its key
    EXPECT_EQ(post({{"b", "1234567890"}}), none);
    EXPECT_EQ(refusals.count(Refusal::StoredBytes), 1U);
    EXPECT_NE(post({{"b", "123456789"}}), none);
    EXPECT_EQ(state.storedBytes(), 20U);
    EXPECT_EQ(post({{"b", "1234567890"}}), none);
    EXPECT_NE(post({{"b", "987654321"}}), none) << "no longer than before";
    post({{"a", ""}});
    EXPECT_EQ(state.storedBytes(), 11U);
}

// The limit of all bytes together counts only present values.
TEST_F(DeviceStateTest, aValueThatWasLongTakesNoMemoryAnyMore)
{
    constexpr int keys = 1000;
    const std::size_t before = mallinfo2().uordblks;
    for (int key = 0; key < keys; ++key)
    {
        const std::string name = std::to_string(key);
        post({{name, std::string(limits.valueBytes, 'x')}});
        reset({name});
    }
    EXPECT_LT(mallinfo2().uordblks - before, keys * limits.valueBytes / 10);
}

TEST_F(DeviceLimits, timersAndCountersTooManyAreRefused)
{
    state.startTimer("t");
    state.startTimer("u");
    state.stopTimer("t");
    EXPECT_EQ(refusals.count(Refusal::Timers), 1U);
    EXPECT_EQ(state.timers(), 1U);
    EXPECT_EQ(state.incrementCounter("c"), 1U);
    EXPECT_EQ(state.incrementCounter("d"), std::nullopt);
    EXPECT_EQ(state.incrementCounter("c"), 2U);
    EXPECT_EQ(refusals.count(Refusal::Counters), 1U);
}

TEST_F(DeviceLimits, askingMakesNothing)
{
    for (const char* name : {"a", "b", "c"})
    {
        EXPECT_EQ(state.elapsed(name), 0U);
        EXPECT_EQ(state.lastStarted(name), 0U);
        EXPECT_EQ(state.counter(name), 0U);
        EXPECT_EQ(valueOf(name), "");
    }
    EXPECT_EQ(state.timers() + state.counters() + state.keys(), 0U);
}

// ---------------------------------------------------------------------------------------------- forgetting

namespace
{

using Names = std::vector<std::string_view>;

class DeviceForgets : public DeviceStateTest
{
protected:
    DeviceForgets() { post({{"a", "1"}, {"b", "2"}, {"empty", ""}}); }

    Changes forget(const Names& keys) { return copied(state.forgetValues(keys).resets); }
};

} // namespace

TEST_F(DeviceForgets, theKeysThatWereThereAreReturnedInTheirOrderEachOnce)
{
    EXPECT_EQ(state.forgetValues({"empty", "unknown", "b", "a", "b"}).names, (Names{"empty", "b", "a"}));
    EXPECT_EQ(state.forgetValues({"a", "empty"}).names, Names());
}

TEST_F(DeviceForgets, thoseThatHadATextAreResetInKeyOrder)
{
    EXPECT_EQ(forget({"empty", "b", "a"}), (Changes{{"a", ""}, {"b", ""}}));
}

TEST_F(DeviceForgets, aForgottenKeyIsInNoAnswerAndCountsNoMore)
{
    forget({"a", "empty"});
    EXPECT_EQ(state.find("a"), nullptr);
    EXPECT_EQ(valueOf("a"), "");
    EXPECT_EQ(all(), (Map{{"b", "2"}}));
    EXPECT_EQ(state.everything().values, (Map{{"b", "2"}}));
    EXPECT_EQ(state.keys(), 1U);
    EXPECT_EQ(state.storedBytes(), 2U);
    forget({"b"});
    EXPECT_EQ(state.behind(std::nullopt), nullptr);
}

TEST_F(DeviceForgets, subscribersThatAreBehindFindItsResetAmongTheChanges)
{
    const uint64_t revision = state.revision();
    forget({"a"});
    EXPECT_EQ(changedSince(revision), (Changes{{"a", ""}}));
    EXPECT_EQ(state.forgotten(), 1U);
}

TEST_F(DeviceForgets, aKeyThatIsEmptyAlreadyKeepsTheRevisionOfItsReset)
{
    post({{"a", ""}});
    const uint64_t revision = state.revision();
    EXPECT_EQ(forget({"a"}), none);
    EXPECT_EQ(state.revision(), revision);
    EXPECT_EQ(changedSince(revision - 1), (Changes{{"a", ""}}));
}

TEST_F(DeviceForgets, itIsDroppedWhenItsRevisionIsReached)
{
    forget({"a"});
    const uint64_t revision = state.revision();
    post({{"c", "3"}});
    forget({"b"});
    EXPECT_EQ(state.dropForgotten(revision - 1), 0U);
    EXPECT_EQ(state.dropForgotten(revision), 1U);
    EXPECT_EQ(state.forgotten(), 1U);
    EXPECT_EQ(changedSince(0), (Changes{{"empty", ""}, {"c", "3"}, {"b", ""}}));
    EXPECT_EQ(state.dropForgotten(state.revision()), 1U) << "the newest of all";
    EXPECT_EQ(changedSince(0), (Changes{{"empty", ""}, {"c", "3"}}));
    post({{"d", "4"}});
    EXPECT_EQ(changedSince(0), (Changes{{"empty", ""}, {"c", "3"}, {"d", "4"}}));
}

TEST_F(DeviceForgets, allCanBeDropped)
{
    forget({"a", "b", "empty"});
    EXPECT_EQ(state.dropForgotten(state.revision()), 3U);
    EXPECT_EQ(changedSince(0), none);
    EXPECT_EQ(post({{"a", "1"}}), (Changes{{"a", "1"}}));
    EXPECT_EQ(changedSince(0), (Changes{{"a", "1"}}));
}

TEST_F(DeviceForgets, aKeyThatIsPostedAnewIsThereAsIfItWereNew)
{
    forget({"a"});
    EXPECT_EQ(post({{"a", ""}}), (Changes{{"a", ""}})) << "an empty value of an unknown key is a change";
    EXPECT_EQ(all(), (Map{{"a", ""}, {"b", "2"}, {"empty", ""}}));
    EXPECT_EQ(state.storedBytes(), 1U + 2U + 5U);
    EXPECT_EQ(state.forgotten(), 0U);
    EXPECT_EQ(state.dropForgotten(state.revision()), 0U);
    forget({"a"});
    EXPECT_EQ(reset({"a"}), (Changes{{"a", ""}}));
    EXPECT_EQ(state.keys(), 3U);
}

TEST_F(DeviceForgets, forgottenKeysTakeRoomUntilTheyAreDropped)
{
    const LogCapture log;
    limits.keys = 3;
    forget({"a"});
    EXPECT_EQ(post({{"c", "3"}}), none);
    EXPECT_EQ(refusals.count(Refusal::Keys), 1U);
    EXPECT_TRUE(log.has(2, "New name [c] refused, limit.keys is 3, and 1 forgotten names take room until all "
                           "subscribers know that they are gone"));
    EXPECT_NE(post({{"a", "3"}}), none) << "its room is reserved already";
    forget({"a"});
    state.dropForgotten(state.revision());
    EXPECT_NE(post({{"c", "3"}}), none);
}

TEST_F(DeviceForgets, timersAndCountersAreErasedAlsoRunningOnes)
{
    state.startTimer("t");
    state.setCounter("c", 5);
    EXPECT_EQ(state.forgetTimers({"u", "t", "t"}), (Names{"t"}));
    EXPECT_EQ(state.forgetCounters({"d", "c", "c"}), (Names{"c"}));
    EXPECT_FALSE(state.hasRunningTimers());
    EXPECT_EQ(state.lastStarted("t"), 0U);
    EXPECT_EQ(state.timers() + state.counters(), 0U);
    EXPECT_EQ(state.incrementCounter("c"), 1U);
}

TEST_F(DeviceForgets, whatIsForgottenIsNotedAndWhatIsThereAgainIsNotedInItsPlace)
{
    state.restore({});
    post({{"a", "2"}});
    state.startTimer("t");
    state.startTimer("u");
    state.setCounter("c", 5);
    state.setCounter("d", 5);
    forget({"a", "b"});
    state.forgetTimers({"t", "u"});
    state.forgetCounters({"c", "d"});
    post({{"b", "3"}});
    state.startTimer("u");
    state.incrementCounter("d");
    const SavedState changes = state.takeChanges();
    EXPECT_EQ(changes.values, (Map{{"b", "3"}}));
    EXPECT_EQ(changes.gone.values, (SavedState::Gone::Names{"a"}));
    EXPECT_EQ(changes.timers.count("u"), 1U);
    EXPECT_EQ(changes.timers.size(), 1U);
    EXPECT_EQ(changes.gone.timers, (SavedState::Gone::Names{"t"}));
    EXPECT_EQ(changes.counters, (std::map<std::string, uint32_t>{{"d", 1}}));
    EXPECT_EQ(changes.gone.counters, (SavedState::Gone::Names{"c"}));
    forget({"b"});
    EXPECT_FALSE(state.takeChanges().empty()) << "a name that is gone is a change";
}

// ----------------------------------------------------------------------------------------- kept and restored

TEST_F(DeviceStateTest, changesAreNotedFromItsRestorationOn)
{
    post({{"before", "1"}});
    EXPECT_TRUE(state.takeChanges().empty());
    state.restore({});
    post({{"a", "1"}, {"b", "1"}});
    post({{"a", "2"}});
    state.startTimer("t");
    state.setCounter("c", 5);
    state.incrementCounter("c");
    const SavedState changes = state.takeChanges();
    EXPECT_EQ(changes.values, (Map{{"a", "2"}, {"b", "1"}}));
    EXPECT_NE(changes.timers.at("t").spanStart, 0U);
    EXPECT_EQ(changes.counters, (std::map<std::string, uint32_t>{{"c", 6}}));
    EXPECT_TRUE(state.takeChanges().empty());
    post({{"a", "2"}});
    EXPECT_TRUE(state.takeChanges().empty()) << "nothing has changed";
}

TEST_F(DeviceStateTest, goesOnWithWhatWasKept)
{
    SavedState saved;
    saved.values = {{"a", "1"}};
    saved.counters = {{"c", 7}};
    saved.timers["stopped"] = {5000000, 0, 42};
    state.restore(saved);
    EXPECT_EQ(valueOf("a"), "1");
    EXPECT_EQ(state.incrementCounter("c"), 8U);
    EXPECT_EQ(state.elapsed("stopped"), 5000000U);
    EXPECT_EQ(state.lastStarted("stopped"), 42U);
    EXPECT_FALSE(state.hasRunningTimers());
    EXPECT_EQ(state.storedBytes(), 2U);
    state.startTimer("stopped");
    EXPECT_TRUE(state.hasRunningTimers());
}

TEST_F(DeviceStateTest, tellsEverythingItHolds)
{
    post({{"a", "1"}, {"b", "2"}});
    state.startTimer("t");
    state.setCounter("c", 5);
    const SavedState all = state.everything();
    EXPECT_EQ(all.values, (Map{{"a", "1"}, {"b", "2"}}));
    EXPECT_EQ(all.timers.count("t"), 1U);
    EXPECT_EQ(all.counters.at("c"), 5U);
}
