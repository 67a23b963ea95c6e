#include <gtest/gtest.h>

#include "broker/state/DeviceState.h"

namespace
{

using BrokerProtocol::Poster;
using BrokerProtocol::ValueDetails;

// All that the broker keeps for people about a value: its history, and both of its clients, should each be
// another's.
static_assert(sizeof(DeviceState::History) + 2 * Posters::entryBytes <= 64);

class ValueHistory : public testing::Test
{
protected:
    Posters::Id client(uint32_t pid)
    {
        Poster poster;
        poster.pid = pid;
        return state.posters().add(poster);
    }

    void post(std::string_view text, Posters::Id by) { state.post({{"door", text}}, by); }

    ValueDetails details() { return state.details(*state.find("door")); }

    Limits limits;
    Refusals refusals;
    DeviceState state{limits, refusals};
    const Posters::Id one = client(1);
    const Posters::Id other = client(2);
};

} // namespace

TEST_F(ValueHistory, countsPostsAndChanges)
{
    post("open", one);
    post("open", one);
    post("closed", one);
    state.reset({"door"}, one);
    EXPECT_EQ(details().posts, 4U);
    EXPECT_EQ(details().changes, 3U);
}

TEST_F(ValueHistory, tellsWhoPostedItLastAndWhoChangedItLast)
{
    post("open", one);
    post("open", other);
    EXPECT_EQ(details().poster.pid, 2U);
    EXPECT_EQ(details().changer.pid, 1U);
    state.reset({"door"}, other);
    EXPECT_EQ(details().changer.pid, 2U);
}

TEST_F(ValueHistory, tellsWhenItWasPostedAndChanged)
{
    const auto now = []
    {
        timespec time{};
        clock_gettime(CLOCK_REALTIME, &time);
        return static_cast<uint64_t>(time.tv_sec) * 1000000;
    };
    constexpr uint64_t aMinute = 60 * 1000000;
    const uint64_t begin = now();
    post("open", one);
    const uint64_t changed = details().changed;
    EXPECT_EQ(details().posted / aMinute, changed / aMinute);
    EXPECT_GE(changed + aMinute, begin);
    EXPECT_LE(changed, begin + aMinute);
}

TEST_F(ValueHistory, aPostOfTheSameTextIsNoChange)
{
    post("open", one);
    const DeviceState::History before = state.find("door")->history;
    post("open", one);
    const DeviceState::History after = state.find("door")->history;
    EXPECT_EQ(after.changed, before.changed);
    EXPECT_GT(after.posted, before.posted);
}

TEST_F(ValueHistory, aPostThatIsRefusedIsNotCounted)
{
    limits.valueBytes = 4;
    post("open", one);
    post("too long", other);
    EXPECT_EQ(details().posts, 1U);
    EXPECT_EQ(details().poster.pid, 1U);
}

TEST_F(ValueHistory, isUnknownForWhatWasLoaded)
{
    SavedState saved;
    saved.values["door"] = "open";
    state.restore(saved);
    EXPECT_EQ(details().posted, 0U);
    EXPECT_EQ(details().changed, 0U);
    EXPECT_EQ(details().posts, 0U);
}

// So that the clients of a device that runs for years take no memory.
TEST_F(ValueHistory, onlyTheLastClientsOfValuesAreRemembered)
{
    for (uint32_t pid = 3; pid < 100; ++pid)
    {
        const Posters::Id passing = client(pid);
        post(std::to_string(pid), passing);
        state.posters().release(passing); // its connection
    }
    EXPECT_EQ(state.posters().count(), 3U); // one, other, and the last
    EXPECT_EQ(details().poster.pid, 99U);
}
