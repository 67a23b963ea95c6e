// Pipes, sockets, devices and links in place of a state file.

#include <cerrno>
#include <cstring>
#include <ostream>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/broker/StateFileStorage.h"

namespace
{

struct Special
{
    const char* name;
    const char* suffix; // appended to the state file's name
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
    constexpr unsigned noDevice = 0; // any user may make it, though not on every file system
    const mode_t mode = special.type | S_IRUSR | S_IWUSR;
    return mknod(path.c_str(), mode, nullDevice) == 0 ||
           (errno == EPERM && mknod(path.c_str(), mode, noDevice) == 0);
}

class NoRegularFile : public StateFileFixture, public testing::WithParamInterface<Special>
{
protected:
    // A broker that blocks in open() would block for ever.
    NoRegularFile() { alarm(20 * TEST_TIME_FACTOR); }
    ~NoRegularFile() override { alarm(0); }

    void SetUp() override
    {
        // May be skipped: only root may make a device on every file system. The build server tests as root,
        // so it always runs there. Elsewhere the case of a link still leads to a device.
        const std::string probe = path + "-probe";
        if (!make(GetParam(), probe) && GetParam().type == S_IFCHR && errno == EPERM)
            GTEST_SKIP() << "only root may make a device here";
        std::filesystem::remove(probe);
    }
};

} // namespace

TEST_P(NoRegularFile, isNeitherOpenedNorMoved)
{
    const std::string special = path + GetParam().suffix;
    if (special != path)
        commit(stateOf({{"old", "1"}}));
    ASSERT_TRUE(make(GetParam(), special)) << strerror(errno);
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
    ASSERT_TRUE(make(GetParam(), special)) << strerror(errno);
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
