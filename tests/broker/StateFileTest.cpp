#include <array>
#include <atomic>
#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/broker/StateFileFixture.h"

namespace
{

std::atomic<int> syncs{0};

int counted(long call, int descriptor)
{
    ++syncs;
    return static_cast<int>(syscall(call, descriptor));
}

} // namespace

// The program's definition takes precedence over the C library's, also for calls from SQLite.
extern "C" __attribute__((visibility("default"))) int fsync(int descriptor)
{
    return counted(SYS_fsync, descriptor);
}

extern "C" __attribute__((visibility("default"))) int fdatasync(int descriptor)
{
    return counted(SYS_fdatasync, descriptor);
}

namespace
{

mode_t modeOf(const std::string& path)
{
    struct stat status
    {
    };
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & ACCESSPERMS;
}

SavedState withTimer(uint64_t spanStart)
{
    SavedState state;
    state.timers["t"] = {5, spanStart, 77};
    return state;
}
class StateFileTest : public StateFileFixture
{
};

} // namespace

TEST_F(StateFileTest, aNewFileHoldsNothing)
{
    EXPECT_TRUE(load().empty());
}

TEST_F(StateFileTest, valuesComeBackByteForByte)
{
    const StatusMap values{
        {"", "empty name"}, {"empty", ""}, {std::string("n\0l", 3), std::string("\0\xff\xc3\n\"'", 6)}};
    commit(stateOf(values));
    EXPECT_EQ(load().values, values);
}

TEST_F(StateFileTest, theNewestWins)
{
    commit(stateOf({{"a", "1"}, {"b", "1"}}));
    commit(stateOf({{"a", "2"}}));
    EXPECT_EQ(load().values, (StatusMap{{"a", "2"}, {"b", "1"}}));
}

TEST_F(StateFileTest, countersComeBack)
{
    SavedState state;
    state.counters = {{"c", 0xFFFFFFFFU}, {"d", 0}};
    commit(state);
    EXPECT_EQ(load().counters, state.counters);
}

TEST_F(StateFileTest, aRunningTimerGoesOnInTheSameBoot)
{
    SavedState state;
    state.timers["t"] = {5, 900000, 77};
    commit(state);
    const SavedState::Timer timer = load({"boot-1", 2000000}).timers.at("t");
    EXPECT_EQ(timer.accumulated, 5U);
    EXPECT_EQ(timer.spanStart, 900000U);
    EXPECT_EQ(timer.lastStarted, 77U);
}

TEST_F(StateFileTest, aRunningTimerIsStoppedAfterABootAtWhatItHadAtTheLastCommit)
{
    SavedState state;
    state.timers["t"] = {5, 900000, 77};
    commit(state);
    StateFile(path, StateSync::Normal, {}).commit({}, {"boot-1", 1500000}); // only time passes
    const SavedState::Timer timer = load({"boot-2", 10}).timers.at("t");
    EXPECT_EQ(timer.accumulated, 5U + 600000U);
    EXPECT_EQ(timer.spanStart, 0U);
    EXPECT_EQ(timer.lastStarted, 77U);
}

TEST_F(StateFileTest, aTimerThatStartsInTheFutureIsStopped)
{
    SavedState state;
    state.timers["t"] = {5, 900000, 77};
    commit(state);
    EXPECT_EQ(load({"boot-1", 800000}).timers.at("t").spanStart, 0U);
}

TEST_F(StateFileTest, aTimerThatABootHasStoppedStaysStopped)
{
    commit(withTimer(900000));
    {
        StateFile file(path, StateSync::Normal, {});
        file.load({"boot-2", 2000000});
        file.commit(stateOf({{"a", "1"}}), {"boot-2", 2000001}); // the file belongs to this boot from now on
    }
    const SavedState::Timer timer = load({"boot-2", 3000000}).timers.at("t");
    EXPECT_EQ(timer.accumulated, 5U + 100000U);
    EXPECT_EQ(timer.spanStart, 0U);
}

TEST_F(StateFileTest, aTimerThatABootHasStoppedStaysStoppedWhileItsNameIsNotKept)
{
    commit(withTimer(900000));
    {
        StateFile file(path, StateSync::Normal, {"a"});
        file.load({"boot-2", 2000000});
        file.commit(stateOf({{"a", "1"}}), {"boot-2", 2000001});
    }
    EXPECT_EQ(load({"boot-2", 3000000}).timers.at("t").spanStart, 0U);
}

TEST_F(StateFileTest, aTimerStartedAfterTheLastMomentIsStoppedWithoutATake)
{
    commit(withTimer(2000000)); // the moment is 1000000
    const SavedState::Timer timer = load({"boot-2", 10}).timers.at("t");
    EXPECT_EQ(timer.accumulated, 5U);
    EXPECT_EQ(timer.spanStart, 0U);
}

TEST_F(StateFileTest, noTimerGoesOnWhenTheBootIsNotKnown)
{
    const LogCapture log;
    {
        StateFile file(path, StateSync::Normal, {});
        file.load({"", 1000000});
        file.commit(withTimer(900000), {"", 1000000});
    }
    EXPECT_EQ(load({"", 2000000}).timers.at("t").spanStart, 0U);
}

TEST_F(StateFileTest, itIsToldThatTheBootIsNotKnown)
{
    const LogCapture log;
    load({"", 1000000});
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].level, 2);
    EXPECT_NE(log.lines()[0].text.find("id of this boot is unknown"), std::string::npos);
}

TEST_F(StateFileTest, onlyMatchingNamesAreKept)
{
    SavedState state;
    state.values = {{"net.a", "1"}, {"disk", "1"}, {"load", "1"}};
    state.timers["net.t"] = {};
    state.timers["t"] = {};
    state.counters = {{"net.c", 1}, {"c", 1}};
    commit(state, {"net.*", "di?k"});
    const SavedState kept = load();
    EXPECT_EQ(kept.values, (StatusMap{{"disk", "1"}, {"net.a", "1"}}));
    EXPECT_EQ(kept.timers.count("t"), 0U);
    EXPECT_EQ(kept.timers.count("net.t"), 1U);
    EXPECT_EQ(kept.counters, (std::map<std::string, uint32_t>{{"net.c", 1}}));
}

TEST_F(StateFileTest, whatMatchesNoLongerIsNotLoaded)
{
    commit(stateOf({{"a", "1"}, {"b", "1"}}));
    EXPECT_EQ(load(thisBoot, {"b"}).values, (StatusMap{{"b", "1"}}));
}

TEST_F(StateFileTest, whatIsNotKeptIsNoCommit)
{
    StateFile file(path, StateSync::Normal, {"b"});
    file.load(thisBoot);
    file.commit(stateOf({{"a", "1"}}), thisBoot);
    EXPECT_EQ(file.commits(), 0U);
}

TEST_F(StateFileTest, everyCommitIsCounted)
{
    StateFile file(path, StateSync::Normal, {});
    file.load(thisBoot);
    file.commit(stateOf({{"a", "1"}}), thisBoot);
    file.commit({}, thisBoot);
    EXPECT_EQ(file.commits(), 2U);
    EXPECT_EQ(file.errors(), 0U);
}

TEST_F(StateFileTest, isForItsOwnerOnly)
{
    StateFile file(path, StateSync::Normal, {});
    file.load(thisBoot);
    file.commit(stateOf({{"a", "1"}}), thisBoot);
    for (const std::string& name : {path, path + "-wal"})
        EXPECT_EQ(modeOf(name), 0600U) << name;
}

TEST_F(StateFileTest, aFileThatOthersCanReadIsClosedToThem)
{
    commit(stateOf({{"a", "1"}}));
    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    StateFile file(path, StateSync::Normal, {});
    file.load(thisBoot);
    file.commit(stateOf({{"a", "2"}}), thisBoot);
    for (const std::string& name : {path, path + "-wal"})
        EXPECT_EQ(modeOf(name), 0640U) << name;
}

TEST_F(StateFileTest, needsNoFileOfSharedMemory)
{
    StateFile file(path, StateSync::Normal, {});
    file.load(thisBoot);
    file.commit(stateOf({{"a", "1"}}), thisBoot);
    EXPECT_FALSE(std::filesystem::exists(path + "-shm"));
}

TEST_F(StateFileTest, itsLogDoesNotGrowWithoutBound)
{
    StateFile file(path, StateSync::Off, {});
    file.load(thisBoot);
    for (int count = 0; count < 1000; ++count) // about 50 MB
        file.commit(stateOf({{"a", std::string(50000, static_cast<char>('a' + count % 26))}}), thisBoot);
    EXPECT_EQ(file.commits(), 1000U);
    EXPECT_LT(std::filesystem::file_size(path + "-wal"), 1024U * 1024);
}

TEST_F(StateFileTest, itsLogIsShortAgainAfterALongChange)
{
    StateFile file(path, StateSync::Off, {});
    file.load(thisBoot);
    file.commit(stateOf({{"a", std::string(4000000, 'x')}}), thisBoot);
    for (int count = 0; count < 10; ++count)
        file.commit(stateOf({{"b", std::to_string(count)}}), thisBoot);
    EXPECT_LT(std::filesystem::file_size(path + "-wal"), 1024U * 1024);
}

TEST_F(StateFileTest, itsLogIsFoldedInWhenItIsClosed)
{
    commit(stateOf({{"a", "1"}}));
    EXPECT_NE(access((path + "-wal").c_str(), F_OK), 0);
}

TEST_F(StateFileTest, whatIsInTheLogOnlyComesBack)
{
    StateFile file(path, StateSync::Normal, {});
    file.load(thisBoot);
    file.commit(stateOf({{"a", "1"}}), thisBoot);
    copyAsKilled(path, path + ".copy");
    path += ".copy";
    EXPECT_EQ(load().values, (StatusMap{{"a", "1"}}));
}

namespace
{

// The waits for the storage: by commits, and by the last checkpoint of the log.
struct Waits
{
    int commits;
    int close;
};

Waits waitsOf(const std::string& path, StateSync sync, int commits)
{
    auto file = std::make_unique<StateFile>(path, sync, std::vector<std::string>());
    file->load(thisBoot);
    file->commit({}, thisBoot);
    syncs = 0;
    for (int count = 0; count < commits; ++count)
        file->commit(stateOf({{"a", std::to_string(count)}}), thisBoot);
    Waits waits{};
    waits.commits = syncs.exchange(0);
    file.reset();
    waits.close = syncs;
    return waits;
}

} // namespace

TEST_F(StateFileTest, offNeverWaitsForTheStorage)
{
    const Waits waits = waitsOf(path, StateSync::Off, 10);
    EXPECT_EQ(waits.commits, 0);
    EXPECT_EQ(waits.close, 0);
}

TEST_F(StateFileTest, normalWaitsForTheStorageWhenTheLogIsFoldedIn)
{
    const Waits waits = waitsOf(path, StateSync::Normal, 10);
    EXPECT_EQ(waits.commits, 0);
    EXPECT_GT(waits.close, 0);
}

TEST_F(StateFileTest, fullWaitsForTheStorageWithEveryCommit)
{
    const Waits waits = waitsOf(path, StateSync::Full, 10);
    EXPECT_GE(waits.commits, 10);
    EXPECT_GT(waits.close, 0);
}
// --------------------------------------------------------------------------------------------------- killed

class Killed : public testing::TestWithParam<StateSync>
{
};

TEST_P(Killed, takesNothingBackThatWasCommitted)
{
    const TemporaryFolder folder;
    for (int round = 0; round < 50; ++round)
    {
        const std::string path = folder / std::to_string(round);
        std::array<int, 2> pipe{};
        ASSERT_EQ(::pipe(pipe.data()), 0);
        const pid_t child = fork();
        if (child == 0)
        {
            StateFile file(path, GetParam(), {});
            file.load(thisBoot);
            for (uint32_t number = 1;; ++number)
            {
                SavedState state = stateOf({{"number", std::to_string(number)}});
                state.counters["number"] = number;
                file.commit(state, thisBoot);
                if (write(pipe[1], &number, sizeof(number)) < 0)
                    _exit(1);
            }
        }
        close(pipe[1]);
        uint32_t announced = 0;
        for (int count = 0; count < 5 + 3 * round; ++count)
            ASSERT_EQ(read(pipe[0], &announced, sizeof(announced)), static_cast<ssize_t>(sizeof(announced)));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        while (read(pipe[0], &announced, sizeof(announced)) == static_cast<ssize_t>(sizeof(announced)))
        {
        }
        close(pipe[0]);
        const SavedState state = StateFile(path, GetParam(), {}).load(thisBoot);
        ASSERT_EQ(state.counters.count("number"), 1U);
        EXPECT_GE(state.counters.at("number"), announced);
        EXPECT_EQ(state.values.at("number"), std::to_string(state.counters.at("number")));
    }
}

INSTANTIATE_TEST_SUITE_P(Syncs, Killed, testing::Values(StateSync::Off, StateSync::Normal, StateSync::Full));

TEST(BootMomentTest, isThatOfTheKernelAndGoesOn)
{
    const BootMoment first = BootMoment::now();
    const BootMoment second = BootMoment::now();
    EXPECT_EQ(first.bootId.size(), 36U);
    EXPECT_EQ(first.bootId, second.bootId);
    EXPECT_GT(first.microseconds, 0U);
    EXPECT_GE(second.microseconds, first.microseconds);
}

namespace
{

// Runs in a child process that cannot open anything any more.
bool knowsTheBootWithoutDescriptors()
{
    const std::string bootId = BootMoment::now().bootId;
    const rlimit none{0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
    return !bootId.empty() && BootMoment::now().bootId == bootId;
}

} // namespace

TEST(BootMomentTest, staysKnownWhenDescriptorsRunOut)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(knowsTheBootWithoutDescriptors() ? 0 : 1);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}
