// Files that are no state files, and damaged state files.

#include <fstream>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/broker/StateFileDamage.h"

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
    execute(path, "PRAGMA user_version = 4");
    expectMovedAside();
}

TEST_F(StateFileDamageTest, anEarlierLayoutIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    execute(path, "PRAGMA user_version = 1");
    const LogCapture log;
    EXPECT_TRUE(load().empty());
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_NE(log.lines()[0].text.find("unsupported version 1"), std::string::npos);
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
    commit(stateOf({{"a", "1"}, {"b", "2"}}));
    execute(path, "UPDATE value SET text = 5 WHERE name = x'61'");
    expectMovedAside(".bad", {{"b", "2"}});
}

TEST_F(StateFileDamageTest, aCounterThatIsNoneIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    write(path, Table::Counters, {"c", {}, {4294967296}});
    expectMovedAside(".bad", {{"a", "1"}});
}

TEST_F(StateFileDamageTest, aNegativeTimerIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    write(path, Table::Timers, {"t", {}, {std::numeric_limits<uint64_t>::max(), 0, 0}});
    expectMovedAside(".bad", {{"a", "1"}});
}

TEST_F(StateFileDamageTest, aTimerBeyondWhatClocksCanTellIsLost)
{
    constexpr uint64_t most = std::numeric_limits<int64_t>::max() / 1000;
    commit(stateOf({{"a", "1"}}));
    write(path, Table::Timers, {"accumulated", {}, {most + 1, 0, 0}});
    write(path, Table::Timers, {"span", {}, {0, most + 1, 0}});
    write(path, Table::Timers, {"last", {}, {0, 0, most + 1}});
    write(path, Table::Timers, {"good", {}, {most, 0, most}});
    const LogCapture log;
    const SavedState state = load();
    ASSERT_EQ(state.timers.size(), 1U);
    EXPECT_EQ(state.timers.at("good").accumulated, most);
    EXPECT_EQ(state.timers.at("good").lastStarted, most);
    EXPECT_EQ(outcomeIn(log), "; 2 rows kept, 3 lost");
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
        const SavedState state = load();
        for (const auto& [key, text] : state.values)
            EXPECT_EQ(text, longText) << key;
        EXPECT_TRUE(readFile(path + ".bad") == damaged);
        EXPECT_EQ(log.lines().size(), 1U);
    }
}

TEST_F(StateFileDamageTest, damageThatNoRowShowsIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    constexpr std::size_t unusedPages = 39; // the last byte of their number, in the header
    writeFile(path, readFile(path).replace(unusedPages, 1, 1, 7));
    expectMovedAside(".bad", {{"a", "1"}});
}

// ------------------------------------------------------------------------------------------- foreign content

TEST_F(StateFileDamageTest, aForeignTriggerNeverRuns)
{
    commit(stateOf({{"a", "1"}}));
    execute(path, "CREATE TRIGGER foreign_one AFTER INSERT ON moment BEGIN"
                  " UPDATE value SET text = x'00'; END");
    expectMovedAside();
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, "DROP TRIGGER foreign_one", nullptr, nullptr, nullptr), SQLITE_ERROR);
    sqlite3_close(database);
}

TEST_F(StateFileDamageTest, aForeignViewIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    execute(path, "ALTER TABLE value RENAME TO kept;"
                  "CREATE VIEW value AS SELECT name, checksum, text FROM kept");
    expectMovedAside();
}

TEST_F(StateFileDamageTest, aForeignIndexIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    execute(path, "CREATE INDEX foreign_one ON value (abs(text))");
    expectMovedAside();
}

TEST_F(StateFileDamageTest, aForeignTableIsMovedAside)
{
    commit(stateOf({{"a", "1"}}));
    execute(path, "CREATE TABLE foreign_one (name)");
    expectMovedAside();
}

// ------------------------------------------------------------------------------- damaged while it is used

namespace
{

// Exceeds SQLite's memory.
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
    EXPECT_TRUE(readFile(path + ".bad") == damaged) << "the log must not be folded into it";
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
