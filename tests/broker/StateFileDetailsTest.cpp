// The history of values in the state file.

#include <malloc.h>

#include "broker/state/DeviceState.h"
#include "broker/state/PosterText.h"
#include "tests/broker/PosterOf.h"
#include "tests/broker/StateFileDamage.h"

namespace
{

using BrokerProtocol::Poster;

SavedState stateOfDoor()
{
    SavedState state = stateOf({{"door", "open"}});
    state.details["door"] = {2000, 1000, 3, 2,
                             PosterText::write({posterOf("a.service", 12), posterOf("b.service", 0)})};
    return state;
}

class StateFileDetails : public StateFileDamageTest
{
protected:
    // A file with a single detail of this text, and its right checksum.
    void makeFile(std::string_view text, const Row::Numbers& numbers = {1, 1, 1, 1})
    {
        path = folder / std::to_string(++files);
        commit(stateOf({{"door", "open"}}));
        write(path, Table::Details, {"door", text, numbers});
    }

    std::string outcome()
    {
        const LogCapture log;
        const SavedState state = load();
        EXPECT_EQ(state.values, (StatusMap{{"door", "open"}}));
        return state.details.empty() ? outcomeIn(log) : "there";
    }

    int files = 0;
};

} // namespace

TEST_F(StateFileDetails, areKept)
{
    commit(stateOfDoor());
    const SavedState::Detail detail = load().details.at("door");
    EXPECT_EQ(detail.posted, 2000U);
    EXPECT_EQ(detail.changed, 1000U);
    EXPECT_EQ(detail.posts, 3U);
    EXPECT_EQ(detail.changes, 2U);
    const auto clients = PosterText::read(detail.clients);
    ASSERT_TRUE(clients);
    EXPECT_EQ(clients->poster, posterOf("a.service", 12));
    EXPECT_EQ(clients->changer, posterOf("b.service", 0));
}

TEST_F(StateFileDetails, areKeptForNamesThatAreKept)
{
    SavedState state = stateOfDoor();
    state.values["lamp"] = "on";
    state.details["lamp"] = state.details["door"];
    commit(state, {"l*"});
    EXPECT_EQ(load().details.size(), 1U);
    commit(state);
    EXPECT_EQ(load(thisBoot, {"d*"}).details.size(), 1U);
}

TEST_F(StateFileDetails, withoutTheirValueAreDropped)
{
    SavedState state = stateOfDoor();
    state.details["lamp"] = state.details["door"];
    commit(state);
    const LogCapture log;
    const SavedState loaded = load();
    EXPECT_EQ(loaded.details.size(), 1U);
    EXPECT_EQ(loaded.details.count("door"), 1U);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(StateFileDetails, thatAreDamagedLeaveTheirValue)
{
    for (const char* column : {"posted", "changed", "posts", "changes", "checksum"})
    {
        path = folder / column;
        commit(stateOfDoor());
        execute(path, std::string("UPDATE detail SET ") + column + " = " + column + " + 1");
        EXPECT_EQ(outcome(), "; 1 rows kept, 1 lost") << column;
    }
    path = folder / "clients";
    commit(stateOfDoor());
    execute(path, "UPDATE detail SET clients = CAST(replace(clients, 'a.serv', 'x.serv') AS BLOB)");
    EXPECT_EQ(outcome(), "; 1 rows kept, 1 lost");
}

TEST_F(StateFileDetails, ofADamagedFileAreInTheNewOne)
{
    SavedState state = stateOfDoor();
    state.values["lamp"] = "on";
    commit(state);
    execute(path, "UPDATE value SET checksum = checksum + 1 WHERE name = CAST('lamp' AS BLOB)");
    const LogCapture log;
    load();
    EXPECT_EQ(load().details.size(), 1U);
    EXPECT_EQ(log.lines().size(), 1U);
}

// Each has the right checksum.
TEST_F(StateFileDetails, whoseClientsCannotBeReadAreLost)
{
    using namespace std::string_view_literals;
    for (const std::string_view text :
         {""sv, "7"sv, "7\0net\0\0\0"sv, "7\0net\0\0\0\0x"sv, "07\0net\0\0\0\0"sv, "-1\0net\0\0\0\0"sv,
          "4294967296\0net\0\0\0\0"sv, "7x\0net\0\0\0\0"sv, "7\0net\0\0000\0\0"sv, "7\0ne\nt\0\0\0\0"sv,
          "7\0net\0\0\0\0007\0net\0\0\0\0"sv, "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"sv})
    {
        makeFile(text);
        EXPECT_EQ(outcome(), "; 1 rows kept, 1 lost") << text.size() << ' ' << text;
    }
    makeFile("7\0net\0\0\0\0"sv);
    EXPECT_EQ(outcome(), "there");
}

TEST_F(StateFileDetails, withMorePostsThanCanBeCountedAreLost)
{
    using namespace std::string_view_literals;
    constexpr uint64_t tooMany = uint64_t{1} << 32U;
    makeFile("\0\0\0\0\0"sv, {1, 1, tooMany - 1, tooMany - 1});
    EXPECT_EQ(outcome(), "there");
    makeFile("\0\0\0\0\0"sv, {1, 1, tooMany, 1});
    EXPECT_EQ(outcome(), "; 1 rows kept, 1 lost");
    makeFile("\0\0\0\0\0"sv, {1, 1, 1, tooMany});
    EXPECT_EQ(outcome(), "; 1 rows kept, 1 lost");
}

TEST_F(StateFileDetails, withALongerTextThanTheBrokersAreLost)
{
    const auto textOf = [](std::size_t bytes)
    {
        const std::string frame = PosterText::write({posterOf("", 0), posterOf("", 0)});
        Poster poster = posterOf(std::string(bytes - frame.size(), 's'), 0);
        return PosterText::write({poster, poster});
    };
    const std::string longest = textOf(PosterText::mostBytes);
    ASSERT_EQ(longest.size(), PosterText::mostBytes);
    makeFile(longest);
    EXPECT_EQ(outcome(), "there");
    makeFile(longest + '\0');
    EXPECT_EQ(outcome(), "; 1 rows kept, 1 lost");
}

TEST(PosterText, leavesOutNamesThatDoNotFit)
{
    const Poster poster = posterOf(std::string(PosterText::mostBytes, 's'), 12);
    const auto read = PosterText::read(PosterText::write({poster, poster}));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->poster.pid, 12U);
    EXPECT_EQ(read->poster.uid, 7U);
    EXPECT_EQ(read->poster.service, "");
}

TEST(PosterText, ofAnyNamesCanBeReadAgain)
{
    using namespace std::string_literals;
    for (const std::string& name : {""s, "\n"s, "a\0b"s, "\x7f"s, "\xc3\xa9"s, "a b"s})
    {
        Poster poster = posterOf(name, 1);
        poster.uid.reset();
        const auto read = PosterText::read(PosterText::write({poster, {}}));
        ASSERT_TRUE(read) << name;
        EXPECT_FALSE(read->poster.uid);
        EXPECT_EQ(read->changer, Poster());
        Poster nameless = poster;
        nameless.service.clear();
        EXPECT_TRUE(PosterText::read(PosterText::write({poster, nameless}))) << name;
    }
}

// Another program has written a file in which all clients differ.
TEST_F(StateFileDetails, ofManyClientsTakeLittleMemory)
{
    constexpr std::size_t most = std::size_t{10} * 1024 * 1024;
    const Limits limits;
    SavedState saved;
    for (uint32_t key = 0; key < limits.keys; ++key)
    {
        const std::string name = std::to_string(key);
        saved.values[name] = "1";
        saved.details[name] = {1, 1, 1, 1,
                               PosterText::write({posterOf(name + std::string(400, 'x'), 2 * key + 1),
                                                  posterOf(name + std::string(400, 'y'), 2 * key + 2)})};
    }
    commit(saved);
    saved = {};
    Refusals refusals;
    DeviceState state(limits, refusals);
    malloc_trim(0);
    const std::size_t before = mallinfo2().uordblks;
    {
        const LogCapture log;
        state.restore(load());
    }
    EXPECT_LT(mallinfo2().uordblks - before, most);
    EXPECT_GT(state.posters().count(), 1000U);
}
