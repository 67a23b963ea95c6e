// State files that can only be read.

#include <optional>
#include <thread>
#include <utility>

#include "tests/broker/StateFileStorage.h"

namespace
{

// A process that is reading the file, such as a shell of SQLite.
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

} // namespace

TEST_F(StateFileStorageTest, whatCanOnlyBeReadIsLoadedAndToldOnce)
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
    EXPECT_NE(log.lines()[0].text.find("it is read-only"), std::string::npos);
    EXPECT_TRUE(readFile(path) == before);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder / ""), {}), 1);
}

TEST_F(StateFileStorageTest, theLogBesideAFileThatCanOnlyBeReadIsLoadedToo)
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

TEST_F(StateFileStorageTest, aNameThatMeansSomethingInAUriIsLoadedFromStorageThatCanOnlyBeRead)
{
    path = folder / "a?mode=memory&b#%41 \xc3\xa4";
    commit(stateOf({{"a", "1"}}));
    const ReadOnlyStorage storage;
    const LogCapture log;
    EXPECT_EQ(load().values, (StatusMap{{"a", "1"}}));
}

TEST_F(StateFileStorageTest, whatCouldOnlyBeReadIsAddedToWhenItCanBeWritten)
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

TEST_F(StateFileStorageTest, allOfItIsWrittenIfTheFileIsGoneWhenItCanBeWritten)
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

TEST_F(StateFileStorageTest, damageThatCanOnlyBeReadIsMovedAsideWhenItCanBeWritten)
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

TEST_F(StateFileStorageTest, whatIsGoodOfADamagedFileIsLoadedAlsoIfItCanOnlyBeRead)
{
    commit(stateOf({{"a", "1"}, {"b", "2"}}));
    execute(path, "UPDATE value SET text = x'33' WHERE name = x'61'");
    const std::string before = readFile(path);
    const LogCapture log;
    {
        std::optional<ReadOnlyStorage> storage(std::in_place);
        StateFile file(path, StateSync::Normal, {}, [] { return stateOf({{"b", "2"}}); });
        EXPECT_EQ(file.load(thisBoot).values, (StatusMap{{"b", "2"}}));
        EXPECT_TRUE(readFile(path) == before);
        ASSERT_EQ(log.lines().size(), 2U);
        EXPECT_NE(log.lines()[1].text.find("is damaged (checksums of rows); 1 rows kept, 1 lost"),
                  std::string::npos);
        storage.reset();
        EXPECT_TRUE(isCommittedInTheEnd(file));
    }
    EXPECT_TRUE(readFile(path + ".bad") == before);
    EXPECT_EQ(load().values, (StatusMap{{"b", "2"}}));
}

TEST_F(StateFileStorageTest, somebodyWhoReadsItForAMomentIsWaitedFor)
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

TEST_F(StateFileStorageTest, whatSomebodyReadsAllTheTimeIsLoadedAndWrittenLater)
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
