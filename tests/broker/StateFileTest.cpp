#include "broker/state/StateFile.h"

#include <array>
#include <atomic>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Wait.h"

namespace
{

std::atomic<int> syncs{0};

int counted(long call, int descriptor)
{
    ++syncs;
    return static_cast<int>(syscall(call, descriptor));
}

} // namespace

// A definition in the program is found before the C library's, from SQLite, too.
extern "C" __attribute__((visibility("default"))) int fsync(int descriptor)
{
    return counted(SYS_fsync, descriptor);
}

extern "C" __attribute__((visibility("default"))) int fdatasync(int descriptor)
{
    return counted(SYS_fdatasync, descriptor);
}

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

// The database and the log beside it, as a process that is killed leaves them.
void copyAsKilled(const std::string& from, const std::string& to)
{
    std::filesystem::copy_file(from, to);
    std::filesystem::copy_file(from + "-wal", to + "-wal");
}

mode_t modeOf(const std::string& path)
{
    struct stat status
    {
    };
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & ACCESSPERMS;
}

SavedState withTimer(uint64_t spanStart)
{
    SavedState state;
    state.timers["t"] = {5, spanStart, 77};
    return state;
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

TEST_F(StateFileTest, aTimerThatABootHasStoppedStaysStopped)
{
    commit(withTimer(900000));
    {
        StateFile file(path, StateSync::Normal, {});
        file.load({"boot-2", 2000000});
        file.commit(stateOf({{"a", "1"}}), {"boot-2", 2000001}); // from now on the file is of this boot
    }
    const SavedState::Timer timer = load({"boot-2", 3000000}).timers.at("t");
    EXPECT_EQ(timer.accumulated, 5U + 100000U);
    EXPECT_EQ(timer.spanStart, 0U);
}

TEST_F(StateFileTest, aTimerThatABootHasStoppedStaysStoppedWhileItsNameIsNotKept)
{
    commit(withTimer(900000));
    {
        StateFile file(path, StateSync::Normal, {"a"});
        file.load({"boot-2", 2000000});
        file.commit(stateOf({{"a", "1"}}), {"boot-2", 2000001});
    }
    EXPECT_EQ(load({"boot-2", 3000000}).timers.at("t").spanStart, 0U);
}

TEST_F(StateFileTest, aTimerStartedAfterTheLastMomentIsStoppedWithoutATake)
{
    commit(withTimer(2000000)); // the moment is 1000000
    const SavedState::Timer timer = load({"boot-2", 10}).timers.at("t");
    EXPECT_EQ(timer.accumulated, 5U);
    EXPECT_EQ(timer.spanStart, 0U);
}

TEST_F(StateFileTest, noTimerGoesOnWhenTheBootIsNotKnown)
{
    const LogCapture log;
    {
        StateFile file(path, StateSync::Normal, {});
        file.load({"", 1000000});
        file.commit(withTimer(900000), {"", 1000000});
    }
    EXPECT_EQ(load({"", 2000000}).timers.at("t").spanStart, 0U);
}

TEST_F(StateFileTest, itIsToldThatTheBootIsNotKnown)
{
    const LogCapture log;
    load({"", 1000000});
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].level, 2);
    EXPECT_NE(log.lines()[0].text.find("id of this boot is unknown"), std::string::npos);
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

TEST_F(StateFileTest, whatIsNotKeptIsNoCommit)
{
    StateFile file(path, StateSync::Normal, {"b"});
    file.load(thisBoot);
    file.commit(stateOf({{"a", "1"}}), thisBoot);
    EXPECT_EQ(file.commits(), 0U);
}

TEST_F(StateFileTest, everyCommitIsCounted)
{
    StateFile file(path, StateSync::Normal, {});
    file.load(thisBoot);
    file.commit(stateOf({{"a", "1"}}), thisBoot);
    file.commit({}, thisBoot);
    EXPECT_EQ(file.commits(), 2U);
    EXPECT_EQ(file.errors(), 0U);
}

TEST_F(StateFileTest, isForItsOwnerOnly)
{
    StateFile file(path, StateSync::Normal, {});
    file.load(thisBoot);
    file.commit(stateOf({{"a", "1"}}), thisBoot);
    for (const std::string& name : {path, path + "-wal"})
        EXPECT_EQ(modeOf(name), 0600U) << name;
}

TEST_F(StateFileTest, aFileThatOthersCanReadIsClosedToThem)
{
    commit(stateOf({{"a", "1"}}));
    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    StateFile file(path, StateSync::Normal, {});
    file.load(thisBoot);
    file.commit(stateOf({{"a", "2"}}), thisBoot);
    for (const std::string& name : {path, path + "-wal"})
        EXPECT_EQ(modeOf(name), 0640U) << name;
}

TEST_F(StateFileTest, needsNoFileOfSharedMemory)
{
    StateFile file(path, StateSync::Normal, {});
    file.load(thisBoot);
    file.commit(stateOf({{"a", "1"}}), thisBoot);
    EXPECT_FALSE(std::filesystem::exists(path + "-shm"));
}

TEST_F(StateFileTest, itsLogDoesNotGrowWithoutBound)
{
    StateFile file(path, StateSync::Off, {});
    file.load(thisBoot);
    for (int count = 0; count < 1000; ++count) // some 50 MB
        file.commit(stateOf({{"a", std::string(50000, static_cast<char>('a' + count % 26))}}), thisBoot);
    EXPECT_EQ(file.commits(), 1000U);
    EXPECT_LT(std::filesystem::file_size(path + "-wal"), 8U * 1024 * 1024);
}

TEST_F(StateFileTest, itsLogIsFoldedInWhenItIsClosed)
{
    commit(stateOf({{"a", "1"}}));
    EXPECT_NE(access((path + "-wal").c_str(), F_OK), 0);
}

TEST_F(StateFileTest, whatIsInTheLogOnlyComesBack)
{
    StateFile file(path, StateSync::Normal, {});
    file.load(thisBoot);
    file.commit(stateOf({{"a", "1"}}), thisBoot);
    copyAsKilled(path, path + ".copy");
    path += ".copy";
    EXPECT_EQ(load().values, (StatusMap{{"a", "1"}}));
}

namespace
{

// How often the storage is waited for: by commits, and by the last fold of the log.
struct Waits
{
    int commits;
    int close;
};

Waits waitsOf(const std::string& path, StateSync sync, int commits)
{
    auto file = std::make_unique<StateFile>(path, sync, std::vector<std::string>());
    file->load(thisBoot);
    file->commit({}, thisBoot);
    syncs = 0;
    for (int count = 0; count < commits; ++count)
        file->commit(stateOf({{"a", std::to_string(count)}}), thisBoot);
    Waits waits{};
    waits.commits = syncs.exchange(0);
    file.reset();
    waits.close = syncs;
    return waits;
}

} // namespace

TEST_F(StateFileTest, offNeverWaitsForTheStorage)
{
    const Waits waits = waitsOf(path, StateSync::Off, 10);
    EXPECT_EQ(waits.commits, 0);
    EXPECT_EQ(waits.close, 0);
}

TEST_F(StateFileTest, normalWaitsForTheStorageWhenTheLogIsFoldedIn)
{
    const Waits waits = waitsOf(path, StateSync::Normal, 10);
    EXPECT_EQ(waits.commits, 0);
    EXPECT_GT(waits.close, 0);
}

TEST_F(StateFileTest, fullWaitsForTheStorageWithEveryCommit)
{
    const Waits waits = waitsOf(path, StateSync::Full, 10);
    EXPECT_GE(waits.commits, 10);
    EXPECT_GT(waits.close, 0);
}

// ----------------------------------------------------------------------------------- what is no such file

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

TEST_F(StateFileTest, aTableWithoutItsKeyIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    execute(path, "DROP TABLE counter; CREATE TABLE counter (name BLOB, number INTEGER)");
    expectMovedAside();
}

TEST_F(StateFileTest, aLinkOnTheWayToItIsFollowed)
{
    std::filesystem::create_directory(folder / "real");
    std::filesystem::create_directory_symlink(folder / "real", folder / "link");
    path = folder / "link/state";
    commit(stateOf({{"a", "1"}}));
    path = folder / "real/state";
    EXPECT_EQ(load().values, (StatusMap{{"a", "1"}}));
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

TEST_F(StateFileTest, theLogOfAnUnreadableDatabaseIsMovedAsideAsItIs)
{
    commit(stateOf({{"a", "1"}}));
    const std::string damaged = folder / "damaged";
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, "UPDATE value SET text = 5", nullptr, nullptr, nullptr), SQLITE_OK);
    copyAsKilled(path, damaged);
    sqlite3_close(database);
    path = damaged;
    const std::string log = readFile(path + "-wal");
    ASSERT_FALSE(log.empty());
    expectMovedAside();
    EXPECT_TRUE(readFile(path + ".bad-wal") == log);
}

TEST_F(StateFileTest, aLogThatWasMovedAsideIsNotOverwritten)
{
    writeFile(path + ".bad-wal", "first");
    writeFile(path, std::string(1000, 'y'));
    writeFile(path + "-wal", "second");
    expectMovedAside(".bad.1");
    EXPECT_EQ(readFile(path + ".bad-wal"), "first");
    EXPECT_EQ(readFile(path + ".bad.1-wal"), "second");
}

TEST_F(StateFileTest, aLinkThatLeadsNowhereIsNotOverwritten)
{
    std::filesystem::create_symlink(folder / "nowhere", path + ".bad");
    writeFile(path, std::string(1000, 'y'));
    expectMovedAside(".bad.1");
    EXPECT_TRUE(std::filesystem::is_symlink(path + ".bad"));
}

TEST_F(StateFileTest, aTableOfOtherColumnsIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    execute(path, "DROP TABLE value; CREATE TABLE value (key BLOB PRIMARY KEY, text BLOB)");
    expectMovedAside();
}

TEST_F(StateFileTest, aDatabaseOfThisLayoutButOfAnotherProgramIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    execute(path, "PRAGMA application_id = 1");
    expectMovedAside();
}

TEST_F(StateFileTest, anEmptyFileIsANewOne)
{
    writeFile(path, "");
    const LogCapture log;
    commit(stateOf({{"a", "1"}}));
    EXPECT_EQ(load().values, (StatusMap{{"a", "1"}}));
    EXPECT_TRUE(log.lines().empty());
}

namespace
{

// A database of a dozen pages.
SavedState manyValues()
{
    SavedState state;
    for (int key = 0; key < 500; ++key)
        state.values["key" + std::to_string(key)] = std::string(50, 'x');
    return state;
}

constexpr std::size_t pageSize = 4096;

} // namespace

TEST_F(StateFileTest, aFileThatEndsAnywhereTooEarlyIsMovedAside)
{
    commit(manyValues());
    const std::string whole = readFile(path);
    for (const std::size_t size : {std::size_t{15}, std::size_t{16}, std::size_t{60}, std::size_t{72},
                                   std::size_t{100}, std::size_t{101}, std::size_t{511}, std::size_t{512},
                                   pageSize - 1, pageSize, pageSize + 1, whole.size() - pageSize})
    {
        SCOPED_TRACE(size);
        const TemporaryFolder other;
        path = other / "state";
        writeFile(path, whole.substr(0, size));
        const LogCapture log;
        EXPECT_TRUE(load().empty());
        EXPECT_TRUE(readFile(path + ".bad") == whole.substr(0, size));
        EXPECT_EQ(log.lines().size(), 1U);
    }
}

TEST_F(StateFileTest, aFileWithADamagedPageIsMovedAside)
{
    commit(manyValues());
    const std::string whole = readFile(path);
    ASSERT_GT(whole.size(), 10 * pageSize);
    for (std::size_t page = 0; page < whole.size(); page += pageSize)
    {
        SCOPED_TRACE(page);
        const TemporaryFolder other;
        path = other / "state";
        const std::string damaged = std::string(whole).replace(page, 200, 200, 'Z');
        writeFile(path, damaged);
        const LogCapture log;
        EXPECT_TRUE(load().empty());
        EXPECT_TRUE(readFile(path + ".bad") == damaged);
        EXPECT_EQ(log.lines().size(), 1U);
    }
}

TEST_F(StateFileTest, damageThatNoRowShowsIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    constexpr std::size_t unusedPages = 39; // the last byte of their number, in the header
    writeFile(path, readFile(path).replace(unusedPages, 1, 1, 7));
    expectMovedAside();
}

// ------------------------------------------------------------------------------- what can only be read

namespace
{

using OpenCall = int (*)(const char*, int, int);
OpenCall plainOpen = nullptr;

int openForReading(const char* path, int flags, int mode)
{
    if ((flags & O_ACCMODE) == O_RDONLY && (flags & O_CREAT) == 0)
        return plainOpen(path, flags, mode);
    errno = EROFS;
    return -1;
}

// While it lives, SQLite can open and make no file for writing.
class ReadOnlyStorage
{
public:
    ReadOnlyStorage()
    {
        plainOpen = reinterpret_cast<OpenCall>(mSystem->xGetSystemCall(mSystem, "open"));
        mSystem->xSetSystemCall(mSystem, "open", reinterpret_cast<sqlite3_syscall_ptr>(openForReading));
    }
    ~ReadOnlyStorage() { mSystem->xSetSystemCall(mSystem, "open", nullptr); }

    ReadOnlyStorage(const ReadOnlyStorage&) = delete;
    ReadOnlyStorage& operator=(const ReadOnlyStorage&) = delete;

private:
    sqlite3_vfs* mSystem = sqlite3_vfs_find(nullptr);
};

// Somebody who is in the middle of reading the file, as a shell of SQLite may be.
class Reader
{
public:
    explicit Reader(const std::string& path)
    {
        EXPECT_EQ(sqlite3_open(path.c_str(), &mDatabase), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(mDatabase, "BEGIN; SELECT * FROM value", nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(mDatabase);
    }
    ~Reader() { sqlite3_close(mDatabase); }

    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

private:
    sqlite3* mDatabase = nullptr;
};

bool isCommittedInTheEnd(StateFile& file)
{
    return eventually(
        [&]
        {
            file.commit({}, thisBoot);
            return file.commits() == 1;
        });
}

} // namespace

TEST_F(StateFileTest, whatCanOnlyBeReadIsLoadedAndToldOnce)
{
    commit(stateOf({{"a", "1"}}));
    const std::string before = readFile(path);
    const ReadOnlyStorage storage;
    const LogCapture log;
    StateFile file(path, StateSync::Normal, {});
    EXPECT_EQ(file.load(thisBoot).values, (StatusMap{{"a", "1"}}));
    file.commit(stateOf({{"a", "2"}}), thisBoot);
    EXPECT_EQ(file.commits(), 0U);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].level, 0);
    EXPECT_NE(log.lines()[0].text.find("it can only be read"), std::string::npos);
    EXPECT_TRUE(readFile(path) == before);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder / ""), {}), 1);
}

TEST_F(StateFileTest, theLogBesideAFileThatCanOnlyBeReadIsLoadedToo)
{
    commit(stateOf({{"a", "1"}, {"b", "1"}}));
    const std::string killed = folder / "killed";
    {
        StateFile file(path, StateSync::Normal, {});
        file.load(thisBoot);
        file.commit(stateOf({{"a", "2"}}), thisBoot);
        copyAsKilled(path, killed);
    }
    path = killed;
    const std::string log = readFile(path + "-wal");
    {
        const ReadOnlyStorage storage;
        const LogCapture lines;
        EXPECT_EQ(load().values, (StatusMap{{"a", "2"}, {"b", "1"}}));
    }
    EXPECT_TRUE(readFile(path + "-wal") == log);
    EXPECT_FALSE(std::filesystem::exists(path + "-shm"));
}

TEST_F(StateFileTest, aNameThatMeansSomethingInAUriIsLoadedFromStorageThatCanOnlyBeRead)
{
    path = folder / "a?mode=memory&b#%41 \xc3\xa4";
    commit(stateOf({{"a", "1"}}));
    const ReadOnlyStorage storage;
    const LogCapture log;
    EXPECT_EQ(load().values, (StatusMap{{"a", "1"}}));
}

TEST_F(StateFileTest, whatCouldOnlyBeReadIsAddedToWhenItCanBeWritten)
{
    commit(stateOf({{"a", "1"}, {"b", "1"}}));
    const LogCapture log;
    {
        std::optional<ReadOnlyStorage> storage(std::in_place);
        StateFile file(path, StateSync::Normal, {});
        file.load(thisBoot);
        file.commit(stateOf({{"a", "2"}}), thisBoot);
        storage.reset();
        EXPECT_TRUE(isCommittedInTheEnd(file));
    }
    EXPECT_FALSE(std::filesystem::exists(path + ".bad"));
    EXPECT_EQ(load().values, (StatusMap{{"a", "2"}, {"b", "1"}}));
}

TEST_F(StateFileTest, allOfItIsWrittenIfTheFileIsGoneWhenItCanBeWritten)
{
    commit(stateOf({{"a", "1"}, {"b", "1"}}));
    const LogCapture log;
    {
        std::optional<ReadOnlyStorage> storage(std::in_place);
        const SavedState everything = stateOf({{"a", "1"}, {"b", "1"}});
        StateFile file(path, StateSync::Normal, {}, [&] { return everything; });
        file.load(thisBoot);
        std::filesystem::remove(path);
        storage.reset();
        EXPECT_TRUE(isCommittedInTheEnd(file));
    }
    EXPECT_EQ(load().values, (StatusMap{{"a", "1"}, {"b", "1"}}));
}

TEST_F(StateFileTest, damageThatCanOnlyBeReadIsMovedAsideWhenItCanBeWritten)
{
    commit(stateOf({{"a", "1"}}));
    execute(path, "UPDATE value SET text = 5");
    const std::string before = readFile(path);
    const LogCapture log;
    std::optional<ReadOnlyStorage> storage(std::in_place);
    StateFile file(path, StateSync::Normal, {});
    EXPECT_TRUE(file.load(thisBoot).empty());
    storage.reset();
    EXPECT_TRUE(isCommittedInTheEnd(file));
    EXPECT_TRUE(readFile(path + ".bad") == before);
}

TEST_F(StateFileTest, somebodyWhoReadsItForAMomentIsWaitedFor)
{
    commit(stateOf({{"a", "1"}}));
    const LogCapture log;
    StateFile file(path, StateSync::Normal, {});
    auto reader = std::make_unique<Reader>(path);
    Gate never;
    std::thread leaving(
        [&]
        {
            never.wait(std::chrono::milliseconds(200));
            reader.reset();
        });
    EXPECT_EQ(file.load(thisBoot).values, (StatusMap{{"a", "1"}}));
    file.commit(stateOf({{"a", "2"}}), thisBoot);
    EXPECT_EQ(file.commits(), 1U);
    EXPECT_TRUE(log.lines().empty());
    leaving.join();
}

TEST_F(StateFileTest, whatSomebodyReadsAllTheTimeIsLoadedAndWrittenLater)
{
    commit(stateOf({{"a", "1"}, {"b", "1"}}));
    const LogCapture log;
    {
        auto reader = std::make_unique<Reader>(path);
        StateFile file(path, StateSync::Normal, {});
        EXPECT_EQ(file.load(thisBoot).values, (StatusMap{{"a", "1"}, {"b", "1"}}));
        file.commit(stateOf({{"a", "2"}}), thisBoot);
        EXPECT_EQ(file.commits(), 0U);
        reader.reset();
        EXPECT_TRUE(isCommittedInTheEnd(file));
    }
    EXPECT_FALSE(std::filesystem::exists(path + ".bad"));
    EXPECT_EQ(load().values, (StatusMap{{"a", "2"}, {"b", "1"}}));
}

// ------------------------------------------------------------------------------- damaged while it is used

namespace
{

// More than SQLite keeps in memory.
SavedState longValues(char character)
{
    SavedState state;
    for (int key = 0; key < 100; ++key)
        state.values["key" + std::to_string(key)] = std::string(50000, character);
    return state;
}

void damage(const std::string& path)
{
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file << std::string(readFile(path).size(), 'Z');
}

} // namespace

TEST_F(StateFileTest, damageWhileItIsUsedIsMovedAsideAndEverythingWrittenToANewFile)
{
    commit(longValues('a'));
    SavedState everything = longValues('a');
    const LogCapture log;
    std::string damaged;
    {
        StateFile file(path, StateSync::Normal, {}, [&] { return everything; });
        file.load(thisBoot);
        everything.values["key0"] = "changed";
        file.commit(stateOf({{"key0", "changed"}}), thisBoot);
        damage(path);
        damaged = readFile(path);
        everything.values["key50"] = "changed";
        file.commit(stateOf({{"key50", "changed"}}), thisBoot);
        EXPECT_EQ(file.commits(), 2U);
        EXPECT_EQ(file.errors(), 1U);
    }
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].level, 0);
    EXPECT_TRUE(readFile(path + ".bad") == damaged) << "what is in the log is not folded into it";
    EXPECT_TRUE(load().values == everything.values);
}

TEST_F(StateFileTest, damageOverAndOverIsMovedAsideOnlyOnce)
{
    commit(longValues('a'));
    const SavedState everything = longValues('a');
    const LogCapture log;
    {
        StateFile file(path, StateSync::Normal, {}, [&] { return everything; });
        file.load(thisBoot);
        damage(path);
        file.commit(longValues('b'), thisBoot);
        ASSERT_TRUE(std::filesystem::exists(path + ".bad"));
        for (int count = 0; count < 10 && file.errors() < 2; ++count)
        {
            damage(path);
            file.commit(longValues('c'), thisBoot);
        }
        EXPECT_EQ(file.errors(), 2U);
    }
    EXPECT_FALSE(std::filesystem::exists(path + ".bad.1"));
}

// ----------------------------------------------------------------------------- where nothing can be done

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
    copyAsKilled(later, path);
    EXPECT_EQ(load().values, (StatusMap{{"a", "2"}, {"b", "1"}}));
}

TEST_F(StateFileTest, whatFailsIsTriedAgainOnceASecondAtMost)
{
    const LogCapture log;
    const TimePoint begin = Clock::now();
    StateFile file(folder / "nowhere/state", StateSync::Normal, {});
    file.load(thisBoot);
    for (int count = 0; count < 1000; ++count)
        file.commit(stateOf({{"a", std::to_string(count)}}), thisBoot);
    const auto seconds = std::chrono::ceil<std::chrono::seconds>(Clock::now() - begin).count();
    EXPECT_LE(file.errors(), static_cast<uint64_t>(seconds));
}

TEST_F(StateFileTest, aFileThatIsLockedAtTheStartIsNotMixedWithWhatIsBegunWithoutIt)
{
    const LogCapture log;
    auto first = std::make_unique<StateFile>(path, StateSync::Normal, std::vector<std::string>());
    first->load(thisBoot);
    first->commit(stateOf({{"old", "1"}}), thisBoot);
    {
        StateFile second(path, StateSync::Normal, {});
        EXPECT_TRUE(second.load(thisBoot).empty());
        EXPECT_FALSE(std::filesystem::exists(path + ".bad")) << "it is another one's";
        first.reset();
        EXPECT_TRUE(eventually(
            [&]
            {
                second.commit(stateOf({{"new", "1"}}), thisBoot);
                return second.commits() == 1;
            }));
    }
    EXPECT_EQ(load().values, (StatusMap{{"new", "1"}}));
    path += ".bad";
    EXPECT_EQ(load().values, (StatusMap{{"old", "1"}}));
}

TEST_F(StateFileTest, whatCanNeitherBeReadNorMovedIsNotOverwritten)
{
    commit(stateOf({{"a", "1"}}));
    execute(path, "UPDATE value SET text = 5");
    const std::string before = readFile(path);
    // There is no room in it for the end of another name than the first one, which is taken.
    const std::string longName = folder / std::string(NAME_MAX - 4, 'n');
    std::filesystem::rename(path, longName);
    writeFile(longName + ".bad", "first");
    {
        const LogCapture log;
        StateFile file(longName, StateSync::Normal, {});
        EXPECT_TRUE(file.load(thisBoot).empty());
        EXPECT_TRUE(eventually(
            [&]
            {
                file.commit(stateOf({{"new", "1"}}), thisBoot);
                return file.errors() >= 2;
            }));
        EXPECT_EQ(file.commits(), 0U);
        ASSERT_EQ(log.lines().size(), 1U);
        EXPECT_EQ(log.lines()[0].level, 0);
    }
    EXPECT_TRUE(readFile(longName) == before);
    EXPECT_EQ(readFile(longName + ".bad"), "first");
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
    for (int round = 0; round < 50; ++round)
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

namespace
{

// Runs in a process of its own, which can open nothing any more.
bool knowsTheBootWithoutDescriptors()
{
    const std::string bootId = BootMoment::now().bootId;
    const rlimit none{0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
    return !bootId.empty() && BootMoment::now().bootId == bootId;
}

} // namespace

TEST(BootMomentTest, staysKnownWhenDescriptorsRunOut)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(knowsTheBootWithoutDescriptors() ? 0 : 1);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}
