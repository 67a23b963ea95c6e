// The log beside a state file, after kills, power cuts and damage.

#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "broker/state/LogCheck.h"
#include "tests/broker/StateFileFixture.h"

namespace
{

constexpr std::size_t headerSize = 32;
constexpr std::size_t frameHeaderSize = 24;
constexpr std::size_t frameSize = frameHeaderSize + 4096;

const BootMoment nextBoot{"boot-2", 10};

class StateLogTest : public StateFileFixture
{
protected:
    StateLogTest() { sync = StateSync::Off; } // no test here depends on it

    // Leaves a file with "folded" = 1, and a log beside it in which "count" goes from 1 to `commits`.
    void leaveLog(int commits)
    {
        const std::string living = folder / "living";
        path = living;
        commit(stateOf({{"folded", "1"}}));
        StateFile file(living, StateSync::Off, {});
        file.load(thisBoot);
        for (int count = 1; count <= commits; ++count)
            file.commit(stateOf({{"count", std::to_string(count)}}), thisBoot);
        leave(file);
    }

    // Leaves copies as if the broker were killed now.
    void leave(const StateFile&)
    {
        const std::string killed = folder / "killed";
        copyAsKilled(path, killed);
        path = killed;
    }

    std::string log() { return readFile(path + "-wal"); }
    void setLog(const std::string& bytes) { writeFile(path + "-wal", bytes); }

    void flip(std::size_t byte)
    {
        std::string bytes = log();
        bytes.at(byte) = static_cast<char>(bytes.at(byte) ^ 4);
        setLog(bytes);
    }

    // Removes what the last round of a test has set up.
    void startAnew()
    {
        std::filesystem::remove_all(folder / "");
        std::filesystem::create_directory(folder / "");
    }

    std::size_t frames() { return (log().size() - headerSize) / frameSize; }

    // Expects a report, and an unchanged file and log. Returns the loaded values.
    StatusMap valuesOfDamaged()
    {
        const std::string fileBefore = readFile(path);
        const std::string logBefore = log();
        const LogCapture lines;
        const StatusMap values = load().values;
        EXPECT_EQ(lines.lines().size(), 1U);
        EXPECT_FALSE(lines.lines().empty() || lines.lines()[0].level != 0);
        EXPECT_TRUE(readFile(path + ".bad") == fileBefore);
        EXPECT_TRUE(readFile(path + ".bad-wal") == logBefore);
        EXPECT_EQ(load().values, values) << "a new file has them";
        return values;
    }

    // Expects no report. Returns the loaded values.
    StatusMap valuesOfGood(const BootMoment& now = thisBoot)
    {
        const LogCapture lines;
        const StatusMap values = load(now).values;
        EXPECT_TRUE(lines.lines().empty()) << lines.lines()[0].text;
        EXPECT_FALSE(std::filesystem::exists(path + ".bad"));
        return values;
    }
};

const StatusMap folded{{"folded", "1"}};

StatusMap foldedAnd(int count)
{
    StatusMap values = folded;
    values["count"] = std::to_string(count);
    return values;
}

} // namespace

TEST_F(StateLogTest, isLoadedAfterAKill)
{
    leaveLog(5);
    EXPECT_EQ(valuesOfGood(), foldedAnd(5));
}

// ---------------------------------------------------------------------------------------------------- damage

TEST_F(StateLogTest, garbageInItsPlaceIsKeptAndTheFileLoaded)
{
    leaveLog(5);
    setLog(std::string(log().size(), 'x'));
    EXPECT_EQ(valuesOfDamaged(), folded);
}

TEST_F(StateLogTest, zerosInItsPlaceAreKeptAndTheFileLoaded)
{
    leaveLog(5);
    setLog(std::string(log().size(), '\0'));
    EXPECT_EQ(valuesOfDamaged(), folded);
}

TEST_F(StateLogTest, garbageBehindItsHeaderIsKeptAndTheFileLoaded)
{
    leaveLog(5);
    std::string bytes = log();
    setLog(bytes.replace(headerSize, bytes.size() - headerSize, bytes.size() - headerSize, 'x'));
    EXPECT_EQ(valuesOfDamaged(), folded);
}

TEST_F(StateLogTest, garbageWhereNoTableHasEverBeenFoldedInIsKept)
{
    {
        StateFile file(path, StateSync::Off, {});
        file.load(thisBoot);
        file.commit(stateOf({{"a", "1"}}), thisBoot);
        leave(file);
    }
    setLog(std::string(log().size(), 'x'));
    EXPECT_TRUE(valuesOfDamaged().empty());
}

TEST_F(StateLogTest, aFlippedBitInItsHeaderIsDamage)
{
    leaveLog(5);
    flip(17);
    EXPECT_EQ(valuesOfDamaged(), folded);
}

TEST_F(StateLogTest, whatLiesBeforeADamagedPageIsKept)
{
    leaveLog(5);
    const std::size_t perCommit = frames() / 5;
    ASSERT_EQ(frames(), 5 * perCommit);
    flip(headerSize + 3 * perCommit * frameSize + 2000); // in the fourth commit
    EXPECT_EQ(valuesOfDamaged(), foldedAnd(3));
}

TEST_F(StateLogTest, aFlippedBitAnywhereIsDamageOrWithoutEffect)
{
    leaveLog(4);
    const std::string left = path;
    const std::string bytes = log();
    for (std::size_t byte = 0; byte < bytes.size(); byte += 97)
    {
        SCOPED_TRACE(byte);
        const TemporaryFolder other;
        path = other / "state";
        copyAsKilled(left, path);
        flip(byte);
        const LogCapture lines;
        const StatusMap values = load().values;
        EXPECT_TRUE(values == foldedAnd(4) || !lines.lines().empty());
    }
}

TEST_F(StateLogTest, aDamagedPageOfTheLastChangeIsDamage)
{
    leaveLog(5);
    flip(log().size() - 1);
    EXPECT_EQ(valuesOfDamaged(), foldedAnd(4));
}

TEST_F(StateLogTest, aLogWhoseFileIsGoneIsKept)
{
    leaveLog(5);
    const std::string before = log();
    std::filesystem::remove(path);
    const LogCapture lines;
    EXPECT_TRUE(load().empty());
    EXPECT_EQ(lines.lines().size(), 1U);
    EXPECT_TRUE(readFile(path + ".bad-wal") == before);
}

TEST_F(StateLogTest, aLogWhoseFileIsEmptyIsKept)
{
    leaveLog(5);
    writeFile(path, "");
    EXPECT_TRUE(valuesOfDamaged().empty());
}

// ------------------------------------------------------------------------------------ what is no damage

TEST_F(StateLogTest, isCutAnywhereByAPowerCutWithoutALine)
{
    leaveLog(4);
    const std::string left = path;
    const std::string whole = log();
    for (std::size_t size = 0; size < whole.size(); size += 509)
    {
        SCOPED_TRACE(size);
        const TemporaryFolder other;
        path = other / "state";
        copyAsKilled(left, path);
        setLog(whole.substr(0, size));
        valuesOfGood(nextBoot);
    }
}

TEST_F(StateLogTest, isCutAnywhereByAKillWithoutALine)
{
    leaveLog(4);
    const std::string left = path;
    const std::string whole = log();
    for (std::size_t size = 0; size < whole.size(); size += 509)
    {
        SCOPED_TRACE(size);
        const TemporaryFolder other;
        path = other / "state";
        copyAsKilled(left, path);
        setLog(whole.substr(0, size));
        valuesOfGood();
    }
}

TEST_F(StateLogTest, endsInZerosAfterAPowerCutWithoutALine)
{
    leaveLog(5);
    std::string bytes = log();
    const std::size_t end = headerSize + (frames() - 1) * frameSize + 512;
    setLog(bytes.replace(end, bytes.size() - end, bytes.size() - end, '\0') + std::string(100000, '\0'));
    EXPECT_EQ(valuesOfGood(nextBoot), foldedAnd(4));
}

TEST_F(StateLogTest, aLastChangeThatIsTornIsNoDamageAfterAPowerCut)
{
    leaveLog(5);
    flip(log().size() - 1);
    EXPECT_EQ(valuesOfGood(nextBoot), foldedAnd(4));
}

namespace
{

constexpr int wrapped = 70; // changes, of whose pages the first 100 are in the database

} // namespace

TEST_F(StateLogTest, pagesOfTheTimeBeforeItWasBegunAnewAreNoDamage)
{
    leaveLog(wrapped);
    ASSERT_GT(frames(), 90U);
    EXPECT_EQ(valuesOfGood(), foldedAnd(wrapped));
}

TEST_F(StateLogTest, whatIsCutOffALongLogIsNoDamage)
{
    const std::string living = folder / "living";
    path = living;
    StateFile file(living, StateSync::Off, {});
    file.load(thisBoot);
    SavedState many;
    for (int key = 0; key < 40; ++key)
        many.values["key" + std::to_string(key)] = std::string(50000, 'x');
    file.commit(many, thisBoot);
    const std::size_t before = log().size();
    file.commit(stateOf({{"short", "1"}}), thisBoot);
    leave(file);
    ASSERT_LT(log().size(), before);
    EXPECT_EQ(valuesOfGood().at("short"), "1");
}

TEST_F(StateLogTest, aKillOverPagesOfTheTimeBeforeIsNoDamage)
{
    leaveLog(wrapped);
    // The log contains the header of a page, but below it still the previous page.
    std::string bytes = log();
    const std::string salts = bytes.substr(16, 8);
    std::size_t frame = 0;
    while (bytes.compare(headerSize + frame * frameSize + 8, 8, salts) == 0)
        ++frame;
    ASSERT_GT(frame, 10U);
    ASSERT_LT(frame, frames());
    const std::size_t next = headerSize + frame * frameSize;
    setLog(bytes.replace(next, frameHeaderSize, bytes.substr(next - frameSize, frameHeaderSize)));
    EXPECT_EQ(valuesOfGood(), foldedAnd(wrapped));
}

namespace
{

// Exceeds SQLite's memory, so that the log gets pages before the transaction ends.
SavedState longValues(char character)
{
    SavedState state;
    for (int key = 0; key < 100; ++key)
        state.values["key" + std::to_string(key)] = std::string(50000, character);
    return state;
}

// Runs `use` in a child process, and kills it when the file has reached this size.
template <typename Use>
void killWhen(const std::string& path, std::size_t size, Use use)
{
    const pid_t child = fork();
    if (child == 0)
    {
        use();
        _exit(0);
    }
    eventually(
        [&]
        {
            std::error_code none;
            const auto now = std::filesystem::file_size(path, none);
            return (!none && now >= size) || waitpid(child, nullptr, WNOHANG) == child;
        });
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

} // namespace

TEST_F(StateLogTest, whatAnUnfinishedChangeLeftIsNoDamageForTheNextOnes)
{
    for (std::size_t size = 0; size < 4000000; size += 333333)
    {
        SCOPED_TRACE(size);
        startAnew();
        path = folder / "first";
        commit(stateOf({{"folded", "1"}}));
        killWhen(path + "-wal", size,
                 [&]
                 {
                     StateFile file(path, StateSync::Off, {});
                     file.load(thisBoot);
                     file.commit(longValues('a'), thisBoot);
                 });
        const LogCapture lines;
        StateFile file(path, StateSync::Off, {});
        file.load(thisBoot);
        file.commit(stateOf({{"after", "1"}}), thisBoot);
        EXPECT_TRUE(lines.lines().empty());
        leave(file);
        EXPECT_EQ(valuesOfGood().at("after"), "1");
    }
}

TEST_F(StateLogTest, whatTheFirstUnfinishedChangeLeftIsNoDamageForTheNextOnes)
{
    for (std::size_t size = 0; size < 4000000; size += 333333)
    {
        SCOPED_TRACE(size);
        startAnew();
        path = folder / "first";
        killWhen(path + "-wal", size,
                 [&]
                 {
                     StateFile file(path, StateSync::Off, {});
                     file.load(thisBoot);
                     file.commit(longValues('a'), thisBoot);
                 });
        const LogCapture lines;
        StateFile file(path, StateSync::Off, {});
        file.load(thisBoot);
        file.commit(stateOf({{"after", "1"}}), thisBoot);
        EXPECT_TRUE(lines.lines().empty());
        leave(file);
        EXPECT_EQ(valuesOfGood().at("after"), "1");
    }
}

namespace
{

// Runs in a child process: the first change fails for lack of room, the next one succeeds.
bool fillsTheDiskAndGoesOn(const std::string& path)
{
    signal(SIGXFSZ, SIG_IGN);
    const LogCapture lines;
    StateFile file(path, StateSync::Off, {});
    file.load(thisBoot);
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit full{200000, limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full);
    file.commit(longValues('a'), thisBoot);
    const bool hasFailed = file.errors() == 1;
    setrlimit(RLIMIT_FSIZE, &limit);
    const bool goesOn = eventually(
        [&]
        {
            file.commit({}, thisBoot);
            return file.commits() == 1;
        });
    file.commit(stateOf({{"after", "1"}}), thisBoot);
    copyAsKilled(path, path + ".copy");
    return hasFailed && goesOn;
}

} // namespace

TEST_F(StateLogTest, whatAChangeLeftThatFailedIsNoDamageForTheNextOnes)
{
    commit(stateOf({{"folded", "1"}}));
    const pid_t child = fork();
    if (child == 0)
        _exit(fillsTheDiskAndGoesOn(path) ? 0 : 1);
    int status = -1;
    waitpid(child, &status, 0);
    ASSERT_EQ(status, 0);
    path += ".copy";
    EXPECT_EQ(valuesOfGood().at("after"), "1");
}
