// State files that are no state files, or damaged ones.

#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/broker/StateFileFixture.h"

namespace
{

class StateFileDamageTest : public StateFileFixture
{
};

} // namespace

TEST_F(StateFileDamageTest, bytesAreMovedAside)
{
    writeFile(path, std::string(10000, 'x'));
    expectMovedAside();
}

TEST_F(StateFileDamageTest, aDatabaseOfAnotherProgramIsMovedAside)
{
    execute(path, "CREATE TABLE value (name, text); INSERT INTO value VALUES ('a', 'b')");
    expectMovedAside();
}

TEST_F(StateFileDamageTest, aLaterLayoutIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    execute(path, "PRAGMA user_version = 2");
    expectMovedAside();
}

TEST_F(StateFileDamageTest, aTableWithoutItsKeyIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    execute(path, "DROP TABLE counter; CREATE TABLE counter (name BLOB, number INTEGER)");
    expectMovedAside();
}

TEST_F(StateFileDamageTest, aLinkOnTheWayToItIsFollowed)
{
    std::filesystem::create_directory(folder / "real");
    std::filesystem::create_directory_symlink(folder / "real", folder / "link");
    path = folder / "link/state";
    commit(stateOf({{"a", "1"}}));
    path = folder / "real/state";
    EXPECT_EQ(load().values, (StatusMap{{"a", "1"}}));
}

TEST_F(StateFileDamageTest, aMissingTableIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    execute(path, "DROP TABLE counter");
    expectMovedAside();
}

TEST_F(StateFileDamageTest, aRowOfTheWrongTypeIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    execute(path, "UPDATE value SET text = 5");
    expectMovedAside();
}

TEST_F(StateFileDamageTest, aCounterThatIsNoneIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    execute(path, "INSERT INTO counter VALUES ('c', 4294967296)");
    expectMovedAside();
}

TEST_F(StateFileDamageTest, aNegativeTimerIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    execute(path, "INSERT INTO timer VALUES ('t', -1, 0, 0)");
    expectMovedAside();
}

TEST_F(StateFileDamageTest, aTruncatedFileIsMovedAside)
{
    SavedState state;
    for (int key = 0; key < 2000; ++key)
        state.values["key" + std::to_string(key)] = std::string(50, 'x');
    commit(state);
    const std::string whole = readFile(path);
    writeFile(path, whole.substr(0, whole.size() / 2));
    expectMovedAside();
}

TEST_F(StateFileDamageTest, whatWasMovedAsideIsNotOverwritten)
{
    writeFile(path + ".bad", "first");
    writeFile(path, std::string(1000, 'y'));
    expectMovedAside(".bad.1");
    EXPECT_EQ(readFile(path + ".bad"), "first");
}

TEST_F(StateFileDamageTest, theLogBesideItIsMovedAsideToo)
{
    writeFile(path, std::string(1000, 'y'));
    writeFile(path + "-wal", "changes");
    EXPECT_TRUE(load().empty());
    EXPECT_EQ(readFile(path + ".bad-wal"), "changes");
}

TEST_F(StateFileDamageTest, theLogOfAnUnreadableDatabaseIsMovedAsideAsItIs)
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

TEST_F(StateFileDamageTest, aLogThatWasMovedAsideIsNotOverwritten)
{
    writeFile(path + ".bad-wal", "first");
    writeFile(path, std::string(1000, 'y'));
    writeFile(path + "-wal", "second");
    expectMovedAside(".bad.1");
    EXPECT_EQ(readFile(path + ".bad-wal"), "first");
    EXPECT_EQ(readFile(path + ".bad.1-wal"), "second");
}

TEST_F(StateFileDamageTest, aLinkThatLeadsNowhereIsNotOverwritten)
{
    std::filesystem::create_symlink(folder / "nowhere", path + ".bad");
    writeFile(path, std::string(1000, 'y'));
    expectMovedAside(".bad.1");
    EXPECT_TRUE(std::filesystem::is_symlink(path + ".bad"));
}

TEST_F(StateFileDamageTest, aTableOfOtherColumnsIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    execute(path, "DROP TABLE value; CREATE TABLE value (key BLOB PRIMARY KEY, text BLOB)");
    expectMovedAside();
}

TEST_F(StateFileDamageTest, aDatabaseOfThisLayoutButOfAnotherProgramIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    execute(path, "PRAGMA application_id = 1");
    expectMovedAside();
}

TEST_F(StateFileDamageTest, anEmptyFileIsANewOne)
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

TEST_F(StateFileDamageTest, aFileThatEndsAnywhereTooEarlyIsMovedAside)
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

TEST_F(StateFileDamageTest, aFileWithADamagedPageIsMovedAside)
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

TEST_F(StateFileDamageTest, damageThatNoRowShowsIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    constexpr std::size_t unusedPages = 39; // the last byte of their number, in the header
    writeFile(path, readFile(path).replace(unusedPages, 1, 1, 7));
    expectMovedAside();
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

TEST_F(StateFileDamageTest, damageWhileItIsUsedIsMovedAsideAndEverythingWrittenToANewFile)
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

TEST_F(StateFileDamageTest, damageOverAndOverIsMovedAsideOnlyOnce)
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
