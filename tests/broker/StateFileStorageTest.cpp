// State files that cannot be used, or that the disk has no room for.

#include <climits>
#include <csignal>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/broker/StateFileStorage.h"

TEST_F(StateFileStorageTest, aFolderInItsPlaceIsToldOnceAndServingGoesOn)
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

TEST_F(StateFileStorageTest, aFileInPlaceOfItsFolderIsToldOnce)
{
    writeFile(folder / "file", "");
    const LogCapture log;
    StateFile file(folder / "file/state", StateSync::Normal, {});
    EXPECT_TRUE(file.load(thisBoot).empty());
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(StateFileStorageTest, whatCouldNotBeWrittenIsWrittenWhenItCanBe)
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
    EXPECT_TRUE(log.has(2, "State file [" + later + "] can be written again"));
    path = later + ".copy";
    copyAsKilled(later, path);
    EXPECT_EQ(load().values, (StatusMap{{"a", "2"}, {"b", "1"}}));
}

TEST_F(StateFileStorageTest, whatFailsIsTriedAgainOnceASecondAtMost)
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

TEST_F(StateFileStorageTest, whatHasJustFailedIsTriedOnceMoreAtTheEnd)
{
    const LogCapture log;
    const std::string later = folder / "later/state";
    StateFile file(later, StateSync::Normal, {});
    file.load(thisBoot);
    file.commit(stateOf({{"a", "1"}}), thisBoot);
    std::filesystem::create_directory(folder / "later");
    file.commitLast(thisBoot);
    EXPECT_EQ(file.commits(), 1U);
    EXPECT_FALSE(file.isBehind());
}

TEST_F(StateFileStorageTest, aFileThatIsLockedAtTheStartIsNotMixedWithWhatIsBegunWithoutIt)
{
    const LogCapture log;
    auto first = std::make_unique<StateFile>(path, StateSync::Normal, std::vector<std::string>());
    first->load(thisBoot);
    first->commit(stateOf({{"old", "1"}}), thisBoot);
    {
        StateFile second(path, StateSync::Normal, {});
        EXPECT_TRUE(second.load(thisBoot).empty());
        EXPECT_FALSE(std::filesystem::exists(path + ".bad")) << "the file belongs to another broker";
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

TEST_F(StateFileStorageTest, whatCanNeitherBeReadNorMovedIsNotOverwritten)
{
    commit(stateOf({{"a", "1"}, {"good", "1"}}));
    execute(path, "UPDATE value SET text = 5 WHERE name = x'61'");
    const std::string before = readFile(path);
    // The name is so long that only the first name aside fits, and that name is taken.
    const std::string longName = folder / std::string(NAME_MAX - 4, 'n');
    std::filesystem::rename(path, longName);
    writeFile(longName + ".bad", "first");
    {
        const LogCapture log;
        StateFile file(longName, StateSync::Normal, {});
        EXPECT_EQ(file.load(thisBoot).values, (StatusMap{{"good", "1"}}));
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

// Limits the size of this process's files from now on, as a full disk would. Returns the limit before.
rlimit limitFiles(rlim_t bytes)
{
    signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit full{bytes, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full);
    return before;
}

// Runs it in a child process.
template <typename Use>
bool holdsInAnotherProcess(Use use)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(use() ? 0 : 1);
    int status = -1;
    waitpid(child, &status, 0);
    return status == 0;
}

// The files of this process cannot grow for a while.
bool survivesAFullDisk(const std::string& path)
{
    const LogCapture log;
    StateFile file(path, StateSync::Normal, {});
    file.load(thisBoot);
    file.commit(stateOf({{"before", "1"}}), thisBoot);
    const rlimit limit = limitFiles(100000);
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

void commitManySmallOnes(StateFile& file)
{
    for (int count = 0; count < 2000; ++count)
        file.commit(stateOf({{"a", std::to_string(count)}}), thisBoot);
}

bool fitsIn(const std::string& path, rlim_t bytes)
{
    limitFiles(bytes);
    StateFile file(path, StateSync::Normal, {});
    file.load(thisBoot);
    commitManySmallOnes(file);
    return file.commits() == 2000;
}

bool goesOnWhenItsLogCannotGrow(const std::string& path, rlim_t bytes)
{
    limitFiles(bytes);
    const LogCapture log;
    StateFile file(path, StateSync::Normal, {});
    file.load(thisBoot);
    commitManySmallOnes(file);
    if (file.errors() == 0)
        return false;
    const uint64_t commits = file.commits();
    return eventually(
        [&]
        {
            file.commit(stateOf({{"a", "last"}}), thisBoot);
            return file.commits() > commits;
        });
}

} // namespace

TEST_F(StateFileStorageTest, aSmallDiskIsEnough)
{
    EXPECT_TRUE(holdsInAnotherProcess([&] { return fitsIn(path, 500000); }));
    EXPECT_EQ(load().values, (StatusMap{{"a", "1999"}}));
}

TEST_F(StateFileStorageTest, aLogThatHasFilledTheDiskIsFoldedInAndWritingGoesOn)
{
    EXPECT_TRUE(holdsInAnotherProcess([&] { return goesOnWhenItsLogCannotGrow(path, 200000); }));
    EXPECT_EQ(load().values, (StatusMap{{"a", "last"}}));
}

TEST_F(StateFileStorageTest, aFullDiskIsToldOnceAndNothingIsForgotten)
{
    EXPECT_TRUE(holdsInAnotherProcess([&] { return survivesAFullDisk(path); }));
    const StatusMap values = load().values;
    EXPECT_EQ(values.size(), 52U);
    EXPECT_EQ(values.at("key49").size(), 10000U);
}
