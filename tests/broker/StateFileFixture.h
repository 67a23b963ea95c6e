#ifndef TESTS_BROKER_STATEFILEFIXTURE_H
#define TESTS_BROKER_STATEFILEFIXTURE_H

#include <filesystem>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <string>
#include <vector>

#include "broker/state/StateFile.h"
#include "statusmanager/StatusTypes.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Wait.h"

/// Helpers for tests of the state file.

inline const BootMoment thisBoot{"boot-1", 1000000};

inline SavedState stateOf(const StatusMap& values)
{
    SavedState state;
    state.values = values;
    return state;
}

/// Changes the file as another program would.
inline void execute(const std::string& path, const std::string& sql)
{
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
        << sqlite3_errmsg(database);
    sqlite3_close(database);
}

/// Copies the database and its log, as a killed process leaves them.
inline void copyAsKilled(const std::string& from, const std::string& to)
{
    std::filesystem::copy_file(from, to);
    std::filesystem::copy_file(from + "-wal", to + "-wal");
}

class StateFileFixture : public testing::Test
{
protected:
    void commit(const SavedState& state, const std::vector<std::string>& keys = {})
    {
        StateFile file(path, sync, keys);
        file.load(thisBoot);
        file.commit(state, thisBoot);
    }

    SavedState load(const BootMoment& now = thisBoot, const std::vector<std::string>& keys = {})
    {
        return StateFile(path, sync, keys).load(now);
    }

    /// Expects the file to be moved aside unchanged, reported, and replaced by a file with its good rows.
    void expectMovedAside(const std::string& aside = ".bad", const StatusMap& good = {})
    {
        const std::string before = readFile(path);
        const LogCapture log;
        EXPECT_EQ(load().values, good);
        EXPECT_TRUE(readFile(path + aside) == before);
        ASSERT_EQ(log.lines().size(), 1U);
        EXPECT_EQ(log.lines()[0].level, 0);
        const std::string text = log.lines()[0].text;
        EXPECT_NE(text.find("[" + path + "] " + (good.empty() ? "" : "is damaged")), std::string::npos)
            << text;
        EXPECT_NE(text.find("moved to [" + path + aside + "]"), std::string::npos) << text;
        commit(stateOf({{"new", "1"}}));
        StatusMap now = good;
        now["new"] = "1";
        EXPECT_EQ(load().values, now);
    }

    TemporaryFolder folder;
    std::string path = folder / "state";
    StateSync sync = StateSync::Normal;
};

#endif
