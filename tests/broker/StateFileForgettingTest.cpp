// Names that are forgotten, in the state file.

#include <optional>
#include <utility>

#include "tests/broker/StateFileStorage.h"

namespace
{

SavedState without(const SavedState::Gone::Names& keys)
{
    SavedState state;
    state.gone.values = keys;
    return state;
}

class StateFileForgets : public StateFileStorageTest
{
protected:
    StateFileForgets() { commit(stateOf({{"a", "1"}, {"b", "1"}})); }

    // Makes all changes while nothing can be written. Afterwards writing works again.
    void commitLate(const std::vector<SavedState>& changes)
    {
        const LogCapture log;
        std::optional<ReadOnlyStorage> storage(std::in_place);
        StateFile file(path, StateSync::Normal, {});
        file.load(thisBoot);
        for (const SavedState& change : changes)
            file.commit(change, thisBoot);
        EXPECT_TRUE(file.isBehind());
        storage.reset();
        EXPECT_TRUE(isCommittedInTheEnd(file));
    }
};

} // namespace

TEST_F(StateFileForgets, namesOfAllKindsAreGone)
{
    SavedState state;
    state.timers["t"] = {5, 0, 77};
    state.timers["u"] = {6, 0, 78};
    state.counters = {{"c", 1}, {"d", 2}};
    commit(state);
    SavedState gone;
    gone.gone = {{"a"}, {"t"}, {"c"}};
    commit(gone);
    const SavedState loaded = load();
    EXPECT_EQ(loaded.values, (StatusMap{{"b", "1"}}));
    EXPECT_EQ(loaded.timers.size(), 1U);
    EXPECT_EQ(loaded.timers.count("u"), 1U);
    EXPECT_EQ(loaded.counters, (std::map<std::string, uint32_t>{{"d", 2}}));
}

TEST_F(StateFileForgets, aNameOfAnyBytesIsGone)
{
    const std::string strange("n\0'\xff", 4);
    commit(stateOf({{"", "1"}, {strange, "1"}}));
    commit(without({"", strange}));
    EXPECT_EQ(load().values, (StatusMap{{"a", "1"}, {"b", "1"}}));
}

TEST_F(StateFileForgets, aNameThatIsNotThereMayBeForgotten)
{
    commit(without({"unknown"}));
    EXPECT_EQ(load().values, (StatusMap{{"a", "1"}, {"b", "1"}}));
}

TEST_F(StateFileForgets, aBrokerThatIsKilledBehindTheCommitDoesNotBringThemBack)
{
    const std::string killed = folder / "killed";
    {
        StateFile file(path, StateSync::Normal, {});
        file.load(thisBoot);
        file.commit(without({"a"}), thisBoot);
        copyAsKilled(path, killed);
    }
    path = killed;
    EXPECT_EQ(load().values, (StatusMap{{"b", "1"}}));
}

TEST_F(StateFileForgets, ofForgettingAndPostingTheLaterCounts)
{
    StateFile file(path, StateSync::Normal, {});
    file.load(thisBoot);
    file.commit(without({"a", "b"}), thisBoot);
    file.commit(stateOf({{"a", "2"}}), thisBoot);
    file.commit(stateOf({{"b", "2"}}), thisBoot);
    file.commit(without({"b"}), thisBoot);
    const std::string killed = folder / "killed";
    copyAsKilled(path, killed);
    EXPECT_EQ(StateFile(killed, sync, {}).load(thisBoot).values, (StatusMap{{"a", "2"}}));
}

TEST_F(StateFileForgets, whileNothingCanBeWrittenTheLaterCountsToo)
{
    SavedState begun = stateOf({{"a", "2"}, {"b", "2"}});
    begun.timers["t"] = begun.timers["u"] = {5, 0, 77};
    begun.counters = {{"c", 1}, {"d", 1}};
    SavedState gone;
    gone.gone = {{"a", "b"}, {"t", "u"}, {"c", "d"}};
    SavedState back = stateOf({{"a", "3"}});
    back.timers["t"] = {7, 0, 77};
    back.counters = {{"c", 3}};
    commitLate({begun, gone, back});
    const SavedState loaded = load();
    EXPECT_EQ(loaded.values, (StatusMap{{"a", "3"}}));
    EXPECT_EQ(loaded.timers.size(), 1U);
    EXPECT_EQ(loaded.timers.at("t").accumulated, 7U);
    EXPECT_EQ(loaded.counters, (std::map<std::string, uint32_t>{{"c", 3}}));
}

TEST_F(StateFileForgets, aNameIsGoneAlsoWhereOtherNamesAreKeptNow)
{
    commit(without({"a"}), {"b"});
    EXPECT_EQ(load().values, (StatusMap{{"b", "1"}}));
}

TEST_F(StateFileForgets, itIsNotSavedFromADamagedFile)
{
    commit(stateOf({{"damaged", "1"}}));
    execute(path, "UPDATE value SET text = x'33' WHERE name = x'64616D61676564'");
    commitLate({without({"a"})});
    EXPECT_EQ(load().values, (StatusMap{{"b", "1"}}));
}

TEST_F(StateFileForgets, namesThatWaitToBeWrittenAreBounded)
{
    const LogCapture log;
    const ReadOnlyStorage storage;
    Limits limits;
    limits.keys = 2;
    limits.timers = limits.counters = 1;
    StateFile file(
        path, StateSync::Normal, {}, [] { return SavedState(); }, limits);
    file.load(thisBoot);
    EXPECT_TRUE(file.mayForget());
    file.commit(without({"a", "x", "y"}), thisBoot);
    EXPECT_TRUE(file.mayForget());
    file.commit(without({"z"}), thisBoot);
    EXPECT_FALSE(file.mayForget());
    file.commit(stateOf({{"z", "1"}}), thisBoot);
    EXPECT_TRUE(file.mayForget()) << "a name that exists again is not waited for";
}
