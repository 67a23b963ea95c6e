// Content beyond the limits in a state file.

#include "tests/broker/StateFileDamage.h"

namespace
{

constexpr std::size_t mebi = std::size_t{1024} * 1024;

// The most memory that SQLite used while the file was loaded.
std::size_t memoryOfLoading(const std::string& path)
{
    sqlite3_memory_highwater(1);
    StateFile(path, StateSync::Off, {}).load(thisBoot);
    return static_cast<std::size_t>(sqlite3_memory_highwater(0));
}

std::string zeros(std::size_t bytes)
{
    return "zeroblob(" + std::to_string(bytes) + ")";
}

} // namespace

TEST_F(StateFileDamageTest, aRowBeyondTheLimitsIsNotLoadedAndStays)
{
    const Limits limits;
    const std::string tooLong(limits.valueBytes + 1, 'x');
    commit(stateOf({{"a", "1"}, {"b", tooLong}, {std::string(limits.keyBytes + 1, 'n'), "1"}}));
    const LogCapture log;
    EXPECT_EQ(load().values, (StatusMap{{"a", "1"}}));
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].level, 2);
    EXPECT_NE(log.lines()[0].text.find("beyond the limits are not loaded, 2"), std::string::npos);
    Limits larger;
    larger.valueBytes = tooLong.size();
    EXPECT_EQ(StateFile(
                  path, StateSync::Off, {}, [] { return SavedState(); }, larger)
                  .load(thisBoot)
                  .values,
              (StatusMap{{"a", "1"}, {"b", tooLong}}));
}

TEST_F(StateFileDamageTest, aRowLongerThanAnyLimitIsLostAndNeverInMemory)
{
    commit(stateOf({{"a", "1"}, {"z", "1"}}));
    execute(path, "INSERT INTO value VALUES (x'62', 0, " + zeros(65 * mebi) + ")");
    const LogCapture log;
    EXPECT_LT(memoryOfLoading(path), 8 * mebi);
    EXPECT_EQ(outcomeIn(log), "; 2 rows kept, 1 lost");
}

TEST_F(StateFileDamageTest, nothingLongIsReadIntoMemoryWhereverItIs)
{
    for (const std::string& row :
         {zeros(2 * mebi) + ", 0, x''", "CAST(" + zeros(16 * mebi) + " AS TEXT), 0, x''",
          "x'62', " + zeros(16 * mebi) + ", x''", "x'62', 0, CAST(" + zeros(16 * mebi) + " AS TEXT)"})
    {
        SCOPED_TRACE(row);
        const TemporaryFolder other;
        path = other / "state";
        commit(stateOf({{"a", "1"}, {"z", "1"}}));
        execute(path, "INSERT INTO value VALUES (" + row + ")");
        const LogCapture log;
        EXPECT_LT(memoryOfLoading(path), 8 * mebi);
        EXPECT_EQ(outcomeIn(log), "; 2 rows kept, 1 lost");
    }
}

TEST_F(StateFileDamageTest, ofAnyNumberOfRowsSomewhatMoreThanTheLimitsAreRead)
{
    SavedState state;
    for (int row = 0; row < 1000; ++row)
        state.values["key" + std::to_string(row)] = std::string(3000, 'x');
    for (int row = 0; row < 20000; ++row)
        state.timers["timer" + std::to_string(row)] = {};
    commit(state);
    Limits limits;
    limits.keys = limits.timers = limits.counters = 10;
    limits.storedBytes = 100000;
    const LogCapture log;
    const SavedState loaded = StateFile(
                                  path, StateSync::Off, {}, [] { return SavedState(); }, limits)
                                  .load(thisBoot);
    EXPECT_GT(loaded.values.size(), 33U);
    EXPECT_LT(loaded.values.size(), 500U);
    EXPECT_GT(loaded.timers.size(), 10U);
    EXPECT_LT(loaded.timers.size(), 10000U);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].level, 2);
    EXPECT_NE(log.lines()[0].text.find("beyond the limits are not loaded"), std::string::npos);
}
