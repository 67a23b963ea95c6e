// Damage that the checksums of the rows reveal.

#include "broker/state/RowChecksum.h"
#include "tests/broker/StateFileDamage.h"

TEST_F(StateFileDamageTest, aFlippedBitLosesItsRowAndKeepsTheOthers)
{
    commit(stateOf({{"a", longText}, {"b", "yyyyyyyyy"}, {"c", longText}}));
    std::string bytes = readFile(path);
    bytes.at(bytes.find("yyyyyyyyy") + 4) ^= 1;
    writeFile(path, bytes);
    const LogCapture log;
    EXPECT_EQ(load().values, (StatusMap{{"a", longText}, {"c", longText}}));
    EXPECT_EQ(outcomeIn(log), "; 2 rows kept, 1 lost");
    EXPECT_TRUE(readFile(path + ".bad") == bytes);
}

TEST_F(StateFileDamageTest, aRowCountsForItsNameOnly)
{
    commit(stateOf({{"a", "1"}, {"b", "2"}}));
    execute(path, "UPDATE value SET name = x'63' WHERE name = x'61'");
    const LogCapture log;
    EXPECT_EQ(load().values, (StatusMap{{"b", "2"}}));
}

TEST_F(StateFileDamageTest, eachNumberOfATimerIsChecked)
{
    SavedState state;
    for (const char* name : {"accumulated", "span_start", "last_started", "none"})
        state.timers[name] = {1, 2, 3};
    commit(state);
    for (const char* name : {"accumulated", "span_start", "last_started"})
    {
        const std::string column = name;
        execute(path, "UPDATE timer SET " + column + " = 7 WHERE name = CAST('" + column + "' AS BLOB)");
    }
    const LogCapture log;
    const SavedState loaded = load();
    EXPECT_EQ(loaded.timers.size(), 1U);
    EXPECT_EQ(loaded.timers.count("none"), 1U);
    EXPECT_EQ(outcomeIn(log), "; 1 rows kept, 3 lost");
}

TEST_F(StateFileDamageTest, aChangedCounterIsLost)
{
    SavedState state;
    state.counters = {{"c", 1}, {"d", 2}};
    commit(state);
    execute(path, "UPDATE counter SET number = 3 WHERE name = x'63'");
    const LogCapture log;
    EXPECT_EQ(load().counters, (std::map<std::string, uint32_t>{{"d", 2}}));
}

TEST_F(StateFileDamageTest, withoutItsMomentNoTimerGoesOn)
{
    SavedState state;
    state.timers["t"] = {5, 900000, 77};
    commit(state);
    execute(path, "UPDATE moment SET microseconds = 9000000");
    const LogCapture log;
    const SavedState::Timer timer = load().timers.at("t");
    EXPECT_EQ(timer.accumulated, 5U);
    EXPECT_EQ(timer.spanStart, 0U);
    EXPECT_EQ(outcomeIn(log), "; 1 rows kept, 1 lost");
}

TEST_F(StateFileDamageTest, theGoodRowsAreInTheNewFileWhenTheyAreLoaded)
{
    SavedState state = stateOf({{"a", "1"}, {"b", "2"}});
    state.timers["t"] = {5, 0, 77};
    state.counters["c"] = 9;
    commit(state);
    execute(path, "UPDATE value SET checksum = checksum + 1 WHERE name = x'61'");
    const LogCapture log;
    StateFile file(path, StateSync::Normal, {"b"});
    EXPECT_EQ(file.load(thisBoot).values, (StatusMap{{"b", "2"}}));
    copyAsKilled(path, path + ".copy");
    path += ".copy";
    const SavedState kept = load();
    EXPECT_EQ(kept.values, (StatusMap{{"b", "2"}}));
    EXPECT_EQ(kept.timers.at("t").lastStarted, 77U) << "kept although it was not loaded";
    EXPECT_EQ(kept.counters, state.counters);
}

TEST_F(StateFileDamageTest, rowsOnBothSidesOfADamagedPageAreKept)
{
    commit(manyValues());
    std::string bytes = readFile(path);
    const std::size_t middle = bytes.find("key300") / pageSize * pageSize;
    ASSERT_GT(middle, pageSize);
    writeFile(path, bytes.replace(middle, 200, 200, 'Z'));
    const LogCapture log;
    const SavedState state = load();
    EXPECT_EQ(state.values.count("key0"), 1U);
    EXPECT_EQ(state.values.count("key99"), 1U);
    EXPECT_EQ(state.values.count("key300"), 0U);
    EXPECT_GT(state.values.size(), 400U);
    const std::string kept = std::to_string(state.values.size());
    EXPECT_EQ(outcomeIn(log), "; " + kept + " rows kept, an unknown number lost");
}

TEST_F(StateFileDamageTest, noFlippedBitLoadsAWrongValue)
{
    SavedState whole = stateOf({{"empty", ""}, {"long", std::string(5000, 'l')}});
    for (int row = 0; row < 20; ++row)
    {
        const std::string name = "row" + std::to_string(row);
        whole.values[name] = "value of " + name;
        whole.timers[name] = {uint64_t{1000} << row, 0, 1700000000000000U + static_cast<uint64_t>(row)};
        whole.counters[name] = 3000000000U + static_cast<uint32_t>(row);
    }
    commit(whole);
    const std::string bytes = readFile(path);
    constexpr std::size_t step = 23; // testing every byte would take a minute
    for (std::size_t byte = 0; byte < bytes.size(); byte += step)
    {
        SCOPED_TRACE(byte);
        const TemporaryFolder other;
        std::string flipped = bytes;
        flipped[byte] = static_cast<char>(flipped[byte] ^ 1 << byte % 8);
        writeFile(other / "state", flipped);
        const LogCapture log;
        const SavedState state = StateFile(other / "state", StateSync::Off, {}).load(thisBoot);
        for (const auto& [key, text] : state.values)
            EXPECT_EQ(whole.values.at(key), text);
        for (const auto& [name, timer] : state.timers)
        {
            EXPECT_EQ(whole.timers.at(name).accumulated, timer.accumulated);
            EXPECT_EQ(timer.spanStart, 0U);
            EXPECT_EQ(whole.timers.at(name).lastStarted, timer.lastStarted);
        }
        for (const auto& [name, number] : state.counters)
            EXPECT_EQ(whole.counters.at(name), number);
        const bool isWhole = state.values.size() == whole.values.size() &&
                             state.timers.size() == whole.timers.size() &&
                             state.counters.size() == whole.counters.size();
        EXPECT_TRUE(isWhole || !log.lines().empty());
    }
}

TEST_F(StateFileDamageTest, aHeaderThatForbidsWritingIsDamage)
{
    commit(stateOf({{"a", "1"}}));
    constexpr std::size_t writeVersion = 18;
    writeFile(path, readFile(path).replace(writeVersion, 1, 1, 3));
    expectMovedAside(".bad", {{"a", "1"}});
}

TEST(RowChecksumTest, isAsInTheFilesThatAreThere)
{
    EXPECT_EQ(Layout::of(Table::Values).checksum({"door", "open", {}}), 2012865731691259935U);
    EXPECT_EQ(Layout::of(Table::Timers).checksum({"t", {}, {1, 2, 3}}), 11631459182018578988U);
}

TEST(RowChecksumTest, tellsWhichTableTheRowIsOf)
{
    EXPECT_NE(RowChecksum("value").value(), RowChecksum("timer").value());
}

TEST(RowChecksumTest, tellsWhereOneTextEndsAndTheNextBegins)
{
    const Layout& layout = Layout::of(Table::Values);
    EXPECT_NE(layout.checksum({"ab", "c", {}}), layout.checksum({"a", "bc", {}}));
}

TEST(RowChecksumTest, noticesTwoFlipsOfTheHighestBit)
{
    const std::string text(16, 'x');
    std::string flipped = text;
    flipped[7] = flipped[15] = static_cast<char>('x' ^ 0x80);
    RowChecksum one("");
    one.add(text);
    RowChecksum other("");
    other.add(flipped);
    EXPECT_NE(one.value(), other.value());
}
