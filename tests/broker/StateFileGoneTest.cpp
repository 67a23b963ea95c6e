// State files that are removed or replaced while the broker uses them.

#include <utility>

#include "tests/broker/StateFileFixture.h"

namespace
{

const SavedState everything = stateOf({{"a", "1"}, {"b", "1"}});

class GoneTest : public StateFileFixture
{
protected:
    GoneTest()
    {
        file.load(thisBoot);
        file.commit(everything, thisBoot);
    }

    void removeAll() { removeAllOf(path); }

    void replaceBy(const StatusMap& values)
    {
        const std::string living = std::exchange(path, folder / "other");
        commit(stateOf(values));
        removeAllOf(living);
        std::filesystem::rename(path, living);
        path = living;
    }

    static void removeAllOf(const std::string& name)
    {
        std::filesystem::remove(name);
        std::filesystem::remove(name + "-wal");
    }

    bool isNoticedInTheEnd(uint64_t errors = 1)
    {
        return eventually(
            [&]
            {
                file.commit({}, thisBoot);
                return file.errors() == errors;
            });
    }

    // The values that a broker started after a kill would find.
    StatusMap valuesAfterAKill()
    {
        const std::string killed = folder / "killed";
        copyAsKilled(path, killed);
        return StateFile(killed, sync, {}).load(thisBoot).values;
    }

    const LogCapture log;
    StateFile file{path, StateSync::Normal, {}, [] { return everything; }};
};

} // namespace

TEST_F(GoneTest, aRemovedFileIsWrittenAnewWithEverything)
{
    removeAll();
    EXPECT_TRUE(isNoticedInTheEnd());
    EXPECT_EQ(valuesAfterAKill(), everything.values);
    ASSERT_EQ(log.lines().size(), 2U);
    EXPECT_TRUE(log.has(0, "State file [" + path +
                               "]: removed or replaced while in use; changes will be "
                               "lost when the broker ends"));
    EXPECT_TRUE(log.has(2, "State file [" + path + "] can be written again"));
    EXPECT_FALSE(std::filesystem::exists(path + ".bad"));
}

TEST_F(GoneTest, aFileWithoutItsLogIsWrittenAnewWithEverything)
{
    std::filesystem::remove(path + "-wal");
    EXPECT_TRUE(isNoticedInTheEnd());
    EXPECT_EQ(valuesAfterAKill(), everything.values);
}

TEST_F(GoneTest, aLogWithoutItsFileIsMovedAsideAndEverythingWrittenAnew)
{
    std::filesystem::remove(path);
    const std::string before = readFile(path + "-wal");
    file.commitLast(thisBoot);
    EXPECT_EQ(valuesAfterAKill(), everything.values);
    EXPECT_TRUE(readFile(path + ".bad-wal") == before);
}

TEST_F(GoneTest, anotherLogInPlaceOfItsOwnIsMovedAsideAndEverythingWrittenAnew)
{
    const std::string another(1000, 'x');
    std::filesystem::remove(path + "-wal");
    writeFile(path + "-wal", another);
    file.commitLast(thisBoot);
    EXPECT_EQ(valuesAfterAKill(), everything.values);
    EXPECT_EQ(readFile(path + ".bad-wal"), another);
}

TEST_F(GoneTest, anotherFileInItsPlaceIsMovedAsideAndEverythingWrittenAnew)
{
    replaceBy({{"foreign", "1"}});
    const std::string before = readFile(path);
    EXPECT_TRUE(isNoticedInTheEnd());
    EXPECT_EQ(valuesAfterAKill(), everything.values);
    EXPECT_TRUE(readFile(path + ".bad") == before);
    EXPECT_TRUE(log.has(0, "State file [" + path +
                               "] does not hold the current state of the broker, moved to [" + path +
                               ".bad]"));
}

TEST_F(GoneTest, bytesInItsPlaceAreMovedAside)
{
    removeAll();
    writeFile(path, "bytes");
    EXPECT_TRUE(isNoticedInTheEnd());
    EXPECT_EQ(valuesAfterAKill(), everything.values);
    EXPECT_EQ(readFile(path + ".bad"), "bytes");
}

TEST_F(GoneTest, oneThatAnotherProgramUsesIsLeftToIt)
{
    removeAll();
    StateFile another(path, StateSync::Normal, {});
    another.load(thisBoot);
    another.commit(stateOf({{"foreign", "1"}}), thisBoot);
    EXPECT_TRUE(isNoticedInTheEnd(2)); // gone, then locked
    EXPECT_FALSE(std::filesystem::exists(path + ".bad"));
    EXPECT_EQ(valuesAfterAKill(), (StatusMap{{"foreign", "1"}}));
}

TEST_F(GoneTest, whatReplacesItOverAndOverIsMovedAsideOnce)
{
    replaceBy({{"foreign", "1"}});
    EXPECT_TRUE(isNoticedInTheEnd(1));
    replaceBy({{"foreign", "2"}});
    EXPECT_TRUE(isNoticedInTheEnd(2));
    EXPECT_FALSE(std::filesystem::exists(path + ".bad.1"));
    file.commitLast(thisBoot);
    EXPECT_EQ(valuesAfterAKill(), everything.values) << "at the end";
}

TEST_F(GoneTest, aFileThatIsRemovedOverAndOverIsWrittenEachTime)
{
    for (uint64_t times = 1; times <= 2; ++times)
    {
        removeAll();
        EXPECT_TRUE(isNoticedInTheEnd(times));
    }
    EXPECT_EQ(valuesAfterAKill(), everything.values);
}

TEST_F(GoneTest, theLastCommitLooks)
{
    file.commit({}, thisBoot);
    removeAll();
    file.commitLast(thisBoot);
    EXPECT_EQ(valuesAfterAKill(), everything.values);
}

TEST_F(GoneTest, theLastCommitReplacesItThoughThatWasDoneJustBefore)
{
    replaceBy({{"foreign", "1"}});
    EXPECT_TRUE(isNoticedInTheEnd());
    replaceBy({{"foreign", "2"}});
    file.commitLast(thisBoot);
    EXPECT_EQ(valuesAfterAKill(), everything.values);
}

TEST_F(GoneTest, isLookedForOnceASecondAtMost)
{
    const TimePoint begin = Clock::now();
    for (int count = 0; count < 1000; ++count)
    {
        removeAll();
        file.commit({}, thisBoot);
    }
    const auto seconds = std::chrono::ceil<std::chrono::seconds>(Clock::now() - begin).count();
    EXPECT_LE(file.errors(), static_cast<uint64_t>(seconds));
}
