#ifndef TESTS_BROKER_STATEFILEDAMAGE_H
#define TESTS_BROKER_STATEFILEDAMAGE_H

#include <algorithm>
#include <cstddef>
#include <string>

#include "broker/state/Rows.h"
#include "tests/broker/StateFileFixture.h"

/// Helpers for tests of damaged state files.

/// Writes a row as the broker does, whatever it contains.
inline void write(const std::string& path, Table table, const Row& row)
{
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
    const Layout& layout = Layout::of(table);
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(database, layout.writeStatement().c_str(), -1, &statement, nullptr),
              SQLITE_OK);
    int index = 0;
    const auto bindBytes = [&](std::string_view bytes)
    { sqlite3_bind_blob64(statement, ++index, bytes.data(), bytes.size(), SQLITE_STATIC); };
    const auto bindNumber = [&](uint64_t number)
    { sqlite3_bind_int64(statement, ++index, static_cast<sqlite3_int64>(number)); };
    bindBytes(row.name);
    if (layout.hasText())
        bindBytes(row.text);
    for (std::size_t number = 0; number < layout.numbers(); ++number)
        bindNumber(row.numbers[number]);
    bindNumber(layout.checksum(row));
    EXPECT_EQ(sqlite3_step(statement), SQLITE_DONE) << sqlite3_errmsg(database);
    sqlite3_finalize(statement);
    sqlite3_close(database);
}

inline const std::string longText(50, 'x');

/// A database of about twelve pages.
inline SavedState manyValues()
{
    SavedState state;
    for (int key = 0; key < 500; ++key)
        state.values["key" + std::to_string(key)] = longText;
    return state;
}

constexpr std::size_t pageSize = 4096;

class StateFileDamageTest : public StateFileFixture
{
protected:
    /// The number of lost rows, as the only logged line reports it.
    static std::string outcomeIn(const LogCapture& log)
    {
        if (log.lines().size() != 1)
            return std::to_string(log.lines().size()) + " lines";
        const std::string text = log.lines()[0].text;
        return text.substr(std::min(text.size(), text.find("; ")));
    }
};

#endif
