// State files that cannot be had, or not for writing.

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <ostream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include "tests/broker/StateFileFixture.h"

namespace
{

class StateFileStorageTest : public StateFileFixture
{
};

} // namespace

// ------------------------------------------------------------------------------- what can only be read

namespace
{

using OpenCall = int (*)(const char*, int, int);
OpenCall plainOpen = nullptr;

int openForReading(const char* path, int flags, int mode)
{
    if ((flags & O_ACCMODE) == O_RDONLY && (flags & O_CREAT) == 0)
        return plainOpen(path, flags, mode);
    errno = EROFS;
    return -1;
}

// While it lives, SQLite can open and make no file for writing.
class ReadOnlyStorage
{
public:
    ReadOnlyStorage()
    {
        plainOpen = reinterpret_cast<OpenCall>(mSystem->xGetSystemCall(mSystem, "open"));
        mSystem->xSetSystemCall(mSystem, "open", reinterpret_cast<sqlite3_syscall_ptr>(openForReading));
    }
    ~ReadOnlyStorage() { mSystem->xSetSystemCall(mSystem, "open", nullptr); }

    ReadOnlyStorage(const ReadOnlyStorage&) = delete;
    ReadOnlyStorage& operator=(const ReadOnlyStorage&) = delete;

private:
    sqlite3_vfs* mSystem = sqlite3_vfs_find(nullptr);
};

// Somebody who is in the middle of reading the file, as a shell of SQLite may be.
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

bool isCommittedInTheEnd(StateFile& file)
{
    return eventually(
        [&]
        {
            file.commit({}, thisBoot);
            return file.commits() == 1;
        });
}

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
    EXPECT_NE(log.lines()[0].text.find("it can only be read"), std::string::npos);
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
// ----------------------------------------------------------------------------- where nothing can be done

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
    EXPECT_TRUE(log.has(2, "State file [" + later + "] is written again"));
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
        EXPECT_FALSE(std::filesystem::exists(path + ".bad")) << "it is another one's";
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
    // There is no room in it for the end of another name than the first one, which is taken.
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

// From now on the files of this process cannot grow beyond so many bytes, as on a full disk. Returns what
// held before.
rlimit limitFiles(rlim_t bytes)
{
    signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit full{bytes, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full);
    return before;
}

// Runs it in a process of its own.
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

// The files of its process cannot grow for a while.
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

// ------------------------------------------------------------------- removed or replaced while it is used

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

    // As a broker that is started after a kill finds it.
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
                               "]: removed or replaced while it is in use; what changes is "
                               "lost when the broker ends"));
    EXPECT_TRUE(log.has(2, "State file [" + path + "] is written again"));
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
    EXPECT_TRUE(log.has(0, "State file [" + path + "] is not what the broker goes on with, moved to [" +
                               path + ".bad]"));
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
    EXPECT_TRUE(isNoticedInTheEnd(2)); // gone, and locked
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

// ------------------------------------------------------------------------------------- no regular files

namespace
{

struct Special
{
    const char* name;
    const char* suffix; // of the file beside which it is
    mode_t type;
};

void PrintTo(const Special& special, std::ostream* out)
{
    *out << special.name << special.suffix;
}

mode_t typeOf(const std::string& path)
{
    struct stat status
    {
    };
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & S_IFMT : 0;
}

bool make(const Special& special, const std::string& path)
{
    if (special.type == S_IFLNK)
        return symlink("/dev/null", path.c_str()) == 0;
    constexpr unsigned nullDevice = 1 << 8U | 3;
    constexpr unsigned noDevice = 0; // any user may make this one, though not in every file system
    const mode_t mode = special.type | S_IRUSR | S_IWUSR;
    return mknod(path.c_str(), mode, nullDevice) == 0 ||
           (errno == EPERM && mknod(path.c_str(), mode, noDevice) == 0);
}

// Only root may make devices everywhere. The links lead to a device, for any user.
bool mayNotMake(const Special& special)
{
    return special.type == S_IFCHR && errno == EPERM;
}

class NoRegularFile : public StateFileFixture, public testing::WithParamInterface<Special>
{
protected:
    // A broker that waits in open() would wait for ever.
    NoRegularFile() { alarm(20 * TEST_TIME_FACTOR); }
    ~NoRegularFile() override { alarm(0); }
};

} // namespace

TEST_P(NoRegularFile, isNeitherOpenedNorMoved)
{
    const std::string special = path + GetParam().suffix;
    if (special != path)
        commit(stateOf({{"old", "1"}}));
    const bool isMade = make(GetParam(), special);
    if (!isMade && mayNotMake(GetParam()))
        GTEST_SKIP() << "only root may make a device here";
    ASSERT_TRUE(isMade) << strerror(errno);
    const LogCapture log;
    StateFile file(path, StateSync::Normal, {});
    EXPECT_TRUE(file.load(thisBoot).empty());
    file.commit(stateOf({{"a", "1"}}), thisBoot);
    EXPECT_EQ(file.commits(), 0U);
    EXPECT_EQ(typeOf(special), GetParam().type);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].level, 0);
    EXPECT_NE(log.lines()[0].text.find("[" + special + "] is not a regular file"), std::string::npos);
}

TEST_P(NoRegularFile, isNoHindranceWhenItIsGone)
{
    const std::string special = path + GetParam().suffix;
    const bool isMade = make(GetParam(), special);
    if (!isMade && mayNotMake(GetParam()))
        GTEST_SKIP() << "only root may make a device here";
    ASSERT_TRUE(isMade) << strerror(errno);
    const LogCapture log;
    {
        StateFile file(path, StateSync::Normal, {});
        file.load(thisBoot);
        file.commit(stateOf({{"a", "1"}}), thisBoot);
        std::filesystem::remove(special);
        EXPECT_TRUE(isCommittedInTheEnd(file));
    }
    EXPECT_EQ(load().values, (StatusMap{{"a", "1"}}));
}

INSTANTIATE_TEST_SUITE_P(Kinds, NoRegularFile,
                         testing::Values(Special{"fifo", "", S_IFIFO}, Special{"fifo", "-wal", S_IFIFO},
                                         Special{"fifo", "-journal", S_IFIFO},
                                         Special{"fifo", "-shm", S_IFIFO}, Special{"socket", "", S_IFSOCK},
                                         Special{"device", "", S_IFCHR}, Special{"device", "-wal", S_IFCHR},
                                         Special{"link", "", S_IFLNK}, Special{"link", "-wal", S_IFLNK}));

TEST_F(StateFileStorageTest, aFifoIsNotWaitedForAlsoWhereNothingCanBeWritten)
{
    ASSERT_EQ(mkfifo(path.c_str(), S_IRUSR | S_IWUSR), 0);
    alarm(20 * TEST_TIME_FACTOR);
    const ReadOnlyStorage storage;
    const LogCapture log;
    EXPECT_TRUE(load().empty());
    alarm(0);
}
