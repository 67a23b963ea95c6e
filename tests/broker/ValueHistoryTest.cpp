#include <gtest/gtest.h>

#include "broker/state/DeviceState.h"
#include "broker/state/PosterText.h"
#include "tests/broker/PosterOf.h"

namespace
{

using BrokerProtocol::Poster;
using BrokerProtocol::ValueDetails;

// The broker's memory for a value's history and client, even if each value has another client.
static_assert(sizeof(DeviceState::History) + Posters::entryBytes < 64);

class ValueHistory : public testing::Test
{
protected:
    Posters::Id client(uint32_t pid)
    {
        Poster poster;
        poster.pid = pid;
        return state.posters().add(poster);
    }

    static PosterText::Clients clientsOf(const SavedState::Detail& detail)
    {
        return PosterText::read(detail.clients).value_or(PosterText::Clients());
    }

    static uint64_t wallNow()
    {
        timespec time{};
        clock_gettime(CLOCK_REALTIME, &time);
        return static_cast<uint64_t>(time.tv_sec) * 1000000;
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
    constexpr uint64_t aMinute = 60 * 1000000;
    const uint64_t begin = wallNow();
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
    DeviceState::History after = before;
    for (int posts = 0; after.posted == before.posted && posts < 1000000; ++posts) // within one microsecond
    {
        post("open", one);
        after = state.find("door")->history;
    }
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

TEST_F(ValueHistory, isRestored)
{
    const uint64_t anHour = uint64_t{3600} * 1000000;
    const uint64_t longAgo = wallNow() - 1000 * anHour; // before the device was started
    SavedState saved;
    saved.values["door"] = "open";
    saved.details["door"] = {longAgo + anHour, longAgo, 7, 5,
                             PosterText::write({posterOf("a", 8), posterOf("b", 9)})};
    state.restore(saved);
    EXPECT_EQ(details().posts, 7U);
    EXPECT_EQ(details().changes, 5U);
    EXPECT_EQ(details().poster, posterOf("a", 8));
    EXPECT_EQ(details().changer, posterOf("b", 9));
    EXPECT_NEAR(static_cast<double>(details().changed), static_cast<double>(longAgo), anHour / 60);
    EXPECT_NEAR(static_cast<double>(details().posted), static_cast<double>(longAgo + anHour), anHour / 60);
    post("shut", one);
    EXPECT_EQ(details().posts, 8U);
    EXPECT_EQ(details().changes, 6U);
}

// The clock was ahead when they were saved, or is behind now.
TEST_F(ValueHistory, timesInTheFutureAreUnknown)
{
    const uint64_t tomorrow = wallNow() + uint64_t{24} * 3600 * 1000000;
    SavedState saved;
    saved.values["door"] = "open";
    saved.details["door"] = {tomorrow, 0, 7, 5, PosterText::write({})};
    state.restore(saved);
    EXPECT_EQ(details().posted, 0U);
    EXPECT_EQ(details().changed, 0U);
    EXPECT_EQ(details().posts, 7U);
    EXPECT_EQ(state.everything().details.at("door").posted, 0U);
}

TEST_F(ValueHistory, equalClientsThatAreRestoredAreOne)
{
    SavedState saved;
    for (const char* key : {"a", "b", "c"})
    {
        saved.values[key] = "1";
        saved.details[key] = {1, 1, 1, 1, PosterText::write({posterOf("a", 8), posterOf("a", 8)})};
    }
    saved.details["c"].clients = PosterText::write({posterOf("a", 8), posterOf("a", 9)}); // another process
    state.restore(saved);
    EXPECT_EQ(state.posters().count(), 4U); // one, other, and two
}

TEST_F(ValueHistory, restoredClientsAreThereAsLongAsAValueHasThem)
{
    SavedState saved;
    saved.values["door"] = "open";
    saved.details["door"] = {1, 1, 1, 1, PosterText::write({posterOf("a", 8), posterOf("b", 9)})};
    saved.details["gone"] = {1, 1, 1, 1, PosterText::write({posterOf("c", 8), posterOf("c", 9)})};
    state.restore(saved);
    EXPECT_EQ(state.posters().count(), 4U);
    post("open", one);
    EXPECT_EQ(state.posters().count(), 3U);
    post("shut", one);
    EXPECT_EQ(state.posters().count(), 2U);
    EXPECT_EQ(details().changer.pid, 1U);
}

TEST_F(ValueHistory, isToBeKeptWithEachChange)
{
    state.restore({});
    post("open", one);
    post("shut", other);
    const SavedState changes = state.takeChanges();
    ASSERT_EQ(changes.details.count("door"), 1U);
    const SavedState::Detail& detail = changes.details.at("door");
    EXPECT_EQ(detail.posts, 2U);
    EXPECT_EQ(detail.changes, 2U);
    EXPECT_EQ(clientsOf(detail).poster.pid, 2U);
    EXPECT_EQ(detail.posted, detail.changed);
    EXPECT_NEAR(static_cast<double>(detail.posted), static_cast<double>(wallNow()), 6e7);
    EXPECT_TRUE(state.takeChanges().empty());
}

TEST_F(ValueHistory, ofAPostThatChangesNothingIsNotToBeKeptAtOnce)
{
    state.restore({});
    post("open", one);
    state.takeChanges();
    post("open", one);
    post("open", other); // of the same user and service
    EXPECT_TRUE(state.takeChanges().empty());
}

TEST_F(ValueHistory, ofAPostOfAnotherServiceIsToBeKeptAtOnce)
{
    const Posters::Id net = state.posters().add(posterOf("net", 1));
    const Posters::Id wifi = state.posters().add(posterOf("wifi", 1));
    state.restore({});
    post("open", net);
    state.takeChanges();
    post("open", wifi);
    const SavedState changes = state.takeChanges();
    EXPECT_TRUE(changes.values.empty());
    ASSERT_EQ(changes.details.size(), 1U);
    EXPECT_EQ(clientsOf(changes.details.at("door")).poster.service, "wifi");
    EXPECT_EQ(clientsOf(changes.details.at("door")).changer.service, "net");
}

TEST_F(ValueHistory, ofPostsThatChangedNothingIsToBeKeptAtTheEnd)
{
    SavedState saved;
    saved.values = {{"door", "open"}, {"lamp", "on"}};
    saved.details["door"] = {1, 1, 1, 1, PosterText::write({})};
    saved.details["lamp"] = {1, 1, 1, 1, PosterText::write({})};
    state.restore(saved);
    EXPECT_TRUE(state.laterDetails().empty());
    post("open", one);
    const SavedState later = state.laterDetails();
    ASSERT_EQ(later.details.size(), 1U);
    EXPECT_EQ(later.details.at("door").posts, 2U);
}

TEST_F(ValueHistory, isInEverything)
{
    post("open", one);
    state.post({{"lamp", "on"}});
    EXPECT_EQ(state.everything().details.size(), 2U);
    EXPECT_EQ(clientsOf(state.everything().details.at("door")).poster.pid, 1U);
}

// Otherwise the clients of a device that runs for years would fill the memory.
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
