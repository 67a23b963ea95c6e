#include "broker/StateFile.h"

#include <csignal>
#include <fstream>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Wait.h"

namespace
{

const BootMoment thisBoot{"boot-1", 1000000};

SavedState stateOf(const StatusMap& values)
{
    SavedState state;
    state.values = values;
    return state;
}

void execute(const std::string& path, const std::string& sql)
{
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
        << sqlite3_errmsg(database);
    sqlite3_close(database);
}

class StateFileTest : public testing::Test
{
protected:
    void commit(const SavedState& state, const std::vector<std::string>& keys = {})
    {
        StateFile file(path, StateSync::Normal, keys);
        file.load(thisBoot);
        file.commit(state, thisBoot);
    }

    SavedState load(const BootMoment& now = thisBoot, const std::vector<std::string>& keys = {})
    {
        return StateFile(path, StateSync::Normal, keys).load(now);
    }

    // The file must be moved aside as it is, said so, and replaced by an empty one.
    void expectMovedAside(const std::string& aside = ".bad")
    {
        const std::string before = readFile(path);
        const LogCapture log;
        EXPECT_TRUE(load().empty());
        EXPECT_EQ(readFile(path + aside), before);
        ASSERT_EQ(log.lines().size(), 1U);
        EXPECT_EQ(log.lines()[0].level, 0);
        EXPECT_NE(log.lines()[0].text.find("[" + path + "] cannot be read"), std::string::npos);
        commit(stateOf({{"new", "1"}}));
        EXPECT_EQ(load().values, (StatusMap{{"new", "1"}}));
    }

    TemporaryFolder folder;
    std::string path = folder / "state";
};

} // namespace

TEST_F(StateFileTest, aNewFileHoldsNothing)
{
    EXPECT_TRUE(load().empty());
}

TEST_F(StateFileTest, valuesComeBackByteForByte)
{
    const StatusMap values{
        {"", "empty name"}, {"empty", ""}, {std::string("n\0l", 3), std::string("\0\xff\xc3\n\"'", 6)}};
    commit(stateOf(values));
    EXPECT_EQ(load().values, values);
}

TEST_F(StateFileTest, theNewestWins)
{
    commit(stateOf({{"a", "1"}, {"b", "1"}}));
    commit(stateOf({{"a", "2"}}));
    EXPECT_EQ(load().values, (StatusMap{{"a", "2"}, {"b", "1"}}));
}

TEST_F(StateFileTest, countersComeBack)
{
    SavedState state;
    state.counters = {{"c", 0xFFFFFFFFU}, {"d", 0}};
    commit(state);
    EXPECT_EQ(load().counters, state.counters);
}

TEST_F(StateFileTest, aRunningTimerGoesOnInTheSameBoot)
{
    SavedState state;
    state.timers["t"] = {5, 900000, 77};
    commit(state);
    const SavedState::Timer timer = load({"boot-1", 2000000}).timers.at("t");
    EXPECT_EQ(timer.accumulated, 5U);
    EXPECT_EQ(timer.spanStart, 900000U);
    EXPECT_EQ(timer.lastStarted, 77U);
}

TEST_F(StateFileTest, aRunningTimerIsStoppedAfterABootAtWhatItHadAtTheLastCommit)
{
    SavedState state;
    state.timers["t"] = {5, 900000, 77};
    commit(state);
    StateFile(path, StateSync::Normal, {}).commit({}, {"boot-1", 1500000}); // only time goes on
    const SavedState::Timer timer = load({"boot-2", 10}).timers.at("t");
    EXPECT_EQ(timer.accumulated, 5U + 600000U);
    EXPECT_EQ(timer.spanStart, 0U);
    EXPECT_EQ(timer.lastStarted, 77U);
}

TEST_F(StateFileTest, aTimerThatStartsInTheFutureIsStopped)
{
    SavedState state;
    state.timers["t"] = {5, 900000, 77};
    commit(state);
    EXPECT_EQ(load({"boot-1", 800000}).timers.at("t").spanStart, 0U);
}

TEST_F(StateFileTest, onlyMatchingNamesAreKept)
{
    SavedState state;
    state.values = {{"net.a", "1"}, {"disk", "1"}, {"load", "1"}};
    state.timers["net.t"] = {};
    state.timers["t"] = {};
    state.counters = {{"net.c", 1}, {"c", 1}};
    commit(state, {"net.*", "di?k"});
    const SavedState kept = load();
    EXPECT_EQ(kept.values, (StatusMap{{"disk", "1"}, {"net.a", "1"}}));
    EXPECT_EQ(kept.timers.count("t"), 0U);
    EXPECT_EQ(kept.timers.count("net.t"), 1U);
    EXPECT_EQ(kept.counters, (std::map<std::string, uint32_t>{{"net.c", 1}}));
}

TEST_F(StateFileTest, whatMatchesNoLongerIsNotLoaded)
{
    commit(stateOf({{"a", "1"}, {"b", "1"}}));
    EXPECT_EQ(load(thisBoot, {"b"}).values, (StatusMap{{"b", "1"}}));
}

TEST_F(StateFileTest, isForItsOwnerOnly)
{
    StateFile file(path, StateSync::Normal, {});
    file.load(thisBoot);
    file.commit(stateOf({{"a", "1"}}), thisBoot);
    for (const std::string& name : {path, path + "-wal"})
    {
        struct stat status
        {
        };
        ASSERT_EQ(stat(name.c_str(), &status), 0) << name;
        EXPECT_EQ(status.st_mode & 0777U, 0600U) << name;
    }
}

TEST_F(StateFileTest, itsLogIsFoldedInWhenItIsClosed)
{
    commit(stateOf({{"a", "1"}}));
    EXPECT_NE(access((path + "-wal").c_str(), F_OK), 0);
}

// ------------------------------------------------------------------------------------------ what is no such
// file

TEST_F(StateFileTest, bytesAreMovedAside)
{
    writeFile(path, std::string(10000, 'x'));
    expectMovedAside();
}

TEST_F(StateFileTest, aDatabaseOfAnotherProgramIsMovedAside)
{
    execute(path, "CREATE TABLE value (name, text); INSERT INTO value VALUES ('a', 'b')");
    expectMovedAside();
}

TEST_F(StateFileTest, aLaterLayoutIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    execute(path, "PRAGMA user_version = 2");
    expectMovedAside();
}

TEST_F(StateFileTest, aMissingTableIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    execute(path, "DROP TABLE counter");
    expectMovedAside();
}

TEST_F(StateFileTest, aRowOfTheWrongTypeIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    execute(path, "UPDATE value SET text = 5");
    expectMovedAside();
}

TEST_F(StateFileTest, aCounterThatIsNoneIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    execute(path, "INSERT INTO counter VALUES ('c', 4294967296)");
    expectMovedAside();
}

TEST_F(StateFileTest, aNegativeTimerIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    execute(path, "INSERT INTO timer VALUES ('t', -1, 0, 0)");
    expectMovedAside();
}

TEST_F(StateFileTest, aTruncatedFileIsMovedAside)
{
    SavedState state;
    for (int key = 0; key < 2000; ++key)
        state.values["key" + std::to_string(key)] = std::string(50, 'x');
    commit(state);
    const std::string whole = readFile(path);
    writeFile(path, whole.substr(0, whole.size() / 2));
    expectMovedAside();
}

TEST_F(StateFileTest, whatWasMovedAsideIsNotOverwritten)
{
    writeFile(path + ".bad", "first");
    writeFile(path, std::string(1000, 'y'));
    expectMovedAside(".bad.1");
    EXPECT_EQ(readFile(path + ".bad"), "first");
}

TEST_F(StateFileTest, theLogBesideItIsMovedAsideToo)
{
    writeFile(path, std::string(1000, 'y'));
    writeFile(path + "-wal", "changes");
    EXPECT_TRUE(load().empty());
    EXPECT_EQ(readFile(path + ".bad-wal"), "changes");
}

// ---------------------------------------------------------------------------------------- where nothing can
// be done

TEST_F(StateFileTest, aFolderInItsPlaceIsToldOnceAndServingGoesOn)
{
    std::filesystem::create_directory(path);
    const LogCapture log;
    StateFile file(path, StateSync::Normal, {});
    EXPECT_TRUE(file.load(thisBoot).empty());
    for (int count = 0; count < 100; ++count)
        file.commit(stateOf({{"a", std::to_string(count)}}), thisBoot);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].level, 0);
    EXPECT_EQ(file.commits(), 0U);
    EXPECT_GE(file.errors(), 1U);
}

TEST_F(StateFileTest, aFileInPlaceOfItsFolderIsToldOnce)
{
    writeFile(folder / "file", "");
    const LogCapture log;
    StateFile file(folder / "file/state", StateSync::Normal, {});
    EXPECT_TRUE(file.load(thisBoot).empty());
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(StateFileTest, whatCouldNotBeWrittenIsWrittenWhenItCanBe)
{
    const LogCapture log;
    const std::string later = folder / "later/state";
    StateFile file(later, StateSync::Normal, {});
    file.load(thisBoot);
    file.commit(stateOf({{"a", "1"}, {"b", "1"}}), thisBoot);
    file.commit(stateOf({{"a", "2"}}), thisBoot);
    std::filesystem::create_directory(folder / "later");
    EXPECT_TRUE(eventually(
        [&]
        {
            file.commit({}, thisBoot);
            return file.commits() == 1;
        }));
    EXPECT_TRUE(log.has(2, "State file [" + later + "] is written again"));
    path = later + ".copy";
    std::filesystem::copy_file(later, path);
    std::filesystem::copy_file(later + "-wal", path + "-wal");
    EXPECT_EQ(load().values, (StatusMap{{"a", "2"}, {"b", "1"}}));
}

namespace
{

// Runs in a process of its own, whose files cannot grow for a while.
bool survivesAFullDisk(const std::string& path)
{
    signal(SIGXFSZ, SIG_IGN);
    const LogCapture log;
    StateFile file(path, StateSync::Normal, {});
    file.load(thisBoot);
    file.commit(stateOf({{"before", "1"}}), thisBoot);
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit full{100000, limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full);
    for (int key = 0; key < 50; ++key)
        file.commit(stateOf({{"key" + std::to_string(key), std::string(10000, 'x')}}), thisBoot);
    if (log.lines().size() != 1 || log.lines()[0].level != 0)
        return false;
    setrlimit(RLIMIT_FSIZE, &limit);
    const uint64_t commits = file.commits();
    return eventually(
        [&]
        {
            file.commit(stateOf({{"after", "1"}}), thisBoot);
            return file.commits() > commits && log.lines().size() == 2;
        });
}

} // namespace

TEST_F(StateFileTest, aFullDiskIsToldOnceAndNothingIsForgotten)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(survivesAFullDisk(path) ? 0 : 1);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    const StatusMap values = load().values;
    EXPECT_EQ(values.size(), 52U);
    EXPECT_EQ(values.at("key49").size(), 10000U);
}

// --------------------------------------------------------------------------------------------------- killed

class Killed : public testing::TestWithParam<StateSync>
{
};

TEST_P(Killed, takesNothingBackThatWasCommitted)
{
    const TemporaryFolder folder;
    for (int round = 0; round < 30; ++round)
    {
        const std::string path = folder / std::to_string(round);
        std::array<int, 2> pipe{};
        ASSERT_EQ(::pipe(pipe.data()), 0);
        const pid_t child = fork();
        if (child == 0)
        {
            StateFile file(path, GetParam(), {});
            file.load(thisBoot);
            for (uint32_t number = 1;; ++number)
            {
                SavedState state = stateOf({{"number", std::to_string(number)}});
                state.counters["number"] = number;
                file.commit(state, thisBoot);
                if (write(pipe[1], &number, sizeof(number)) < 0)
                    _exit(1);
            }
        }
        close(pipe[1]);
        uint32_t announced = 0;
        for (int count = 0; count < 5 + 3 * round; ++count)
            ASSERT_EQ(read(pipe[0], &announced, sizeof(announced)), static_cast<ssize_t>(sizeof(announced)));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        while (read(pipe[0], &announced, sizeof(announced)) == static_cast<ssize_t>(sizeof(announced)))
        {
        }
        close(pipe[0]);
        const SavedState state = StateFile(path, GetParam(), {}).load(thisBoot);
        ASSERT_EQ(state.counters.count("number"), 1U);
        EXPECT_GE(state.counters.at("number"), announced);
        EXPECT_EQ(state.values.at("number"), std::to_string(state.counters.at("number")));
    }
}

INSTANTIATE_TEST_SUITE_P(Syncs, Killed, testing::Values(StateSync::Off, StateSync::Normal, StateSync::Full));

TEST(BootMomentTest, isThatOfTheKernelAndGoesOn)
{
    const BootMoment first = BootMoment::now();
    const BootMoment second = BootMoment::now();
    EXPECT_EQ(first.bootId.size(), 36U);
    EXPECT_EQ(first.bootId, second.bootId);
    EXPECT_GT(first.microseconds, 0U);
    EXPECT_GE(second.microseconds, first.microseconds);
}
