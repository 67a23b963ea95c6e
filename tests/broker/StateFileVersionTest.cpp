// State files of the previous version, which had no details.

#include "broker/state/PosterText.h"
#include "tests/broker/StateFileDamage.h"
#include "tests/broker/StateFileStorage.h"

namespace
{

// The tables as the broker created them then.
constexpr const char* formerTables =
    "CREATE TABLE value (name BLOB PRIMARY KEY, checksum INTEGER NOT NULL, text BLOB NOT NULL) WITHOUT ROWID;"
    "CREATE TABLE timer (name BLOB PRIMARY KEY, accumulated INTEGER NOT NULL, span_start INTEGER NOT NULL, "
    "last_started INTEGER NOT NULL, checksum INTEGER NOT NULL) WITHOUT ROWID;"
    "CREATE TABLE counter (name BLOB PRIMARY KEY, number INTEGER NOT NULL, checksum INTEGER NOT NULL) "
    "WITHOUT ROWID;"
    "CREATE TABLE moment (name BLOB PRIMARY KEY, microseconds INTEGER NOT NULL, checksum INTEGER NOT NULL, "
    "boot_id BLOB NOT NULL) WITHOUT ROWID;"
    "PRAGMA application_id = 1937006964; PRAGMA user_version = 2;";

class StateFileVersion : public StateFileFixture
{
protected:
    void SetUp() override
    {
        execute(path, std::string("PRAGMA journal_mode = WAL; BEGIN;") + formerTables + "COMMIT");
        write(path, Table::Values, {"door", "open", {}});
        write(path, Table::Counters, {"starts", {}, {5}});
        write(path, Table::Timers, {"boot", {}, {1, 0, 3}});
        write(path, Table::Moments, {"last", "boot-1", {4}});
    }

    uint64_t number(const std::string& sql)
    {
        sqlite3* database = nullptr;
        sqlite3_stmt* statement = nullptr;
        EXPECT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
        EXPECT_EQ(sqlite3_prepare_v2(database, sql.c_str(), -1, &statement, nullptr), SQLITE_OK);
        EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
        const auto number = static_cast<uint64_t>(sqlite3_column_int64(statement, 0));
        sqlite3_finalize(statement);
        sqlite3_close(database);
        return number;
    }

    static void expectWhole(const SavedState& state)
    {
        EXPECT_EQ(state.values, (StatusMap{{"door", "open"}}));
        EXPECT_EQ(state.counters, (std::map<std::string, uint32_t>{{"starts", 5}}));
        ASSERT_EQ(state.timers.count("boot"), 1U);
        EXPECT_EQ(state.timers.at("boot").lastStarted, 3U);
        EXPECT_TRUE(state.details.empty());
    }
};

} // namespace

TEST_F(StateFileVersion, theFormerOneIsTakenOver)
{
    const LogCapture log;
    expectWhole(load());
    EXPECT_EQ(number("PRAGMA user_version"), 3U);
    EXPECT_EQ(number("SELECT count(*) FROM sqlite_master WHERE name = 'detail'"), 1U);
    expectWhole(load());
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(std::filesystem::exists(path + ".bad"));
}

TEST_F(StateFileVersion, theFormerOneTakesDetails)
{
    SavedState state = stateOf({{"door", "shut"}});
    state.details["door"] = {1, 1, 1, 1, PosterText::write({})};
    commit(state);
    const SavedState loaded = load();
    EXPECT_EQ(loaded.values.at("door"), "shut");
    EXPECT_EQ(loaded.details.size(), 1U);
    EXPECT_EQ(loaded.counters.size(), 1U);
}

TEST_F(StateFileVersion, theFormerOneIsReadWhereItCannotBeWritten)
{
    const std::string before = readFile(path);
    const ReadOnlyStorage storage;
    const LogCapture log;
    expectWhole(load());
    EXPECT_EQ(log.lines().size(), 1U); // reports that it cannot be written
    EXPECT_TRUE(readFile(path) == before);
}

TEST_F(StateFileVersion, theFormerOneHasExactlyItsTables)
{
    execute(path,
            "CREATE TABLE detail (name BLOB PRIMARY KEY, posted INTEGER NOT NULL, changed INTEGER NOT "
            "NULL, posts INTEGER NOT NULL, changes INTEGER NOT NULL, checksum INTEGER NOT NULL, clients "
            "BLOB NOT NULL) WITHOUT ROWID");
    expectMovedAside();
}

TEST_F(StateFileVersion, thePresentOneHasExactlyItsTables)
{
    execute(path, "PRAGMA user_version = 3");
    expectMovedAside();
}

TEST_F(StateFileVersion, aDamagedFormerOneIsMovedAsideAsItIs)
{
    write(path, Table::Values, {"lamp", "on", {}});
    execute(path, "UPDATE value SET checksum = checksum + 1 WHERE name = CAST('lamp' AS BLOB)");
    const std::string before = readFile(path);
    const LogCapture log;
    expectWhole(load());
    EXPECT_TRUE(readFile(path + ".bad") == before);
    EXPECT_EQ(number("PRAGMA user_version"), 3U);
    expectWhole(load());
}
