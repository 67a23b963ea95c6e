#include "broker/peer/Processes.h"

#include <sys/prctl.h>

#include "tests/broker/peer/Ends.h"
#include "tests/broker/peer/ProcessesFixture.h"

namespace
{

using std::chrono::seconds;
using Found = Processes::Found;

class ProcessesTest : public ProcessesFixture
{
protected:
    Found find(uint64_t inode)
    {
        EXPECT_TRUE(processes.want(inode));
        const std::vector<Found> found = processes.work(seconds(30));
        EXPECT_EQ(found.size(), 1U);
        return found.empty() ? Found() : found[0];
    }
};

} // namespace

TEST_F(ProcessesTest, theProcessThatHasTheSocketIsFound)
{
    addProcess("7", "first\n", {"/dev/null", "socket:[98]", "pipe:[99]"});
    addProcess("8", "second\n", {"socket:[99]"});
    const Found found = find(99);
    EXPECT_EQ(found.inode, 99U);
    EXPECT_EQ(found.pid, 8);
    EXPECT_EQ(found.program, "second");
    EXPECT_FALSE(found.others);
}

TEST_F(ProcessesTest, ofSeveralTheLowestIsToldAndThatThereAreOthers)
{
    for (const char* pid : {"30", "4", "100", "5"})
        addProcess(pid, "p" + std::string(pid) + "\n", {"socket:[99]", "socket:[99]"});
    const Found found = find(99);
    EXPECT_EQ(found.pid, 4);
    EXPECT_EQ(found.program, "p4");
    EXPECT_TRUE(found.others);
}

TEST_F(ProcessesTest, aSocketTwiceInAProcessIsThatProcessAlone)
{
    addProcess("4", "p\n", {"socket:[99]", "socket:[99]"});
    EXPECT_FALSE(find(99).others);
}

TEST_F(ProcessesTest, aSocketOfNobodyIsNotFound)
{
    addProcess("4", "p\n",
               {"socket:[9]", "socket:[999]", "socket:[]", "socket:[99", "socket:[99x", "xsocket:[99]",
                "socket:[99]x", "socket:[ 99]", "socket:[99999999999999999999999]"});
    const Found found = find(99);
    EXPECT_EQ(found.inode, 99U);
    EXPECT_EQ(found.pid, 0);
    EXPECT_EQ(found.program, "");
}

TEST_F(ProcessesTest, onlyProcessesAreLookedAt)
{
    for (const char* other : {"self", "4x", "-4", "0", "99999999999", "x4"})
        addProcess(other, "other\n", {"socket:[99]"});
    EXPECT_EQ(find(99).pid, 0);
}

TEST_F(ProcessesTest, programsCannotWriteIntoALog)
{
    addProcess("4", "a\n2026 root: ok\x1b[2J\xff\x7f", {"socket:[99]"});
    EXPECT_EQ(find(99).program, "a?2026 root: ok?[2J??");
}

TEST_F(ProcessesTest, oneCallTakesNoLongerThanItMayAndTheNextGoesOn)
{
    for (int pid = 1; pid != 20; ++pid)
        addProcess(std::to_string(pid), "p\n", {"socket:[1]", "socket:[2]"});
    addProcess("50", "last\n", {"socket:[99]"});
    ASSERT_TRUE(processes.want(99));
    int calls = 1;
    std::vector<Found> found;
    while ((found = processes.work(seconds(0))).empty() && calls != 1000)
        ++calls;
    EXPECT_GT(calls, 20 * 3) << "a descriptor or a process each time";
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].pid, 50);
    EXPECT_FALSE(processes.hasWork());
}

TEST_F(ProcessesTest, aSocketThatIsWantedInTheMiddleIsLookedForEverywhere)
{
    addProcess("4", "p\n", {"socket:[98]", "socket:[99]"});
    processes.want(98);
    for (int i = 0; i != 3; ++i)
        ASSERT_TRUE(processes.work(seconds(0)).empty());
    processes.want(99);
    std::vector<Found> found = processes.work(seconds(30));
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].inode, 98U);
    EXPECT_TRUE(processes.hasWork());
    found = processes.work(seconds(30));
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].inode, 99U);
    EXPECT_EQ(found[0].pid, 4);
}

TEST_F(ProcessesTest, aSocketThatIsForgottenIsNotTold)
{
    addProcess("4", "p\n", {"socket:[98]", "socket:[99]"});
    processes.want(98);
    processes.want(99);
    ASSERT_TRUE(processes.work(seconds(0)).empty());
    processes.forget(98);
    const std::vector<Found> found = processes.work(seconds(30));
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].inode, 99U);
}

TEST_F(ProcessesTest, noMoreThanSoManyAreLookedFor)
{
    for (uint64_t inode = 1; inode <= Processes::mostWanted; ++inode)
        ASSERT_TRUE(processes.want(inode));
    EXPECT_FALSE(processes.want(Processes::mostWanted + 1));
    EXPECT_EQ(processes.work(seconds(30)).size(), Processes::mostWanted);
    EXPECT_TRUE(processes.want(1));
}

TEST_F(ProcessesTest, withoutProcessesNoneIsFound)
{
    Processes nowhere(proc / "missing");
    EXPECT_TRUE(nowhere.work(seconds(30)).empty()) << "nothing is wanted";
    nowhere.want(99);
    const std::vector<Found> found = nowhere.work(seconds(30));
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].pid, 0);
}

TEST(RealProcessesTest, theProcessOfARealConnectionIsFoundByNameAndNumber)
{
    Accepting ends;
    const ConnectedProcess other(ends, [] { return prctl(PR_SET_NAME, "real\nclient") == 0; });
    ASSERT_TRUE(other.isConnected);
    const std::string descriptors = "/proc/" + std::to_string(other.pid) + "/fd";
    Processes processes;
    std::size_t sockets = 0;
    for (const auto& descriptor : std::filesystem::directory_iterator(descriptors))
    {
        struct stat status
        {
        };
        if (stat(descriptor.path().c_str(), &status) == 0 && S_ISSOCK(status.st_mode))
            sockets += processes.want(status.st_ino) ? 1U : 0U;
    }
    ASSERT_NE(sockets, 0U);
    bool isFound = false;
    while (processes.hasWork())
        for (const Found& found : processes.work(std::chrono::milliseconds(2)))
            isFound = isFound || (found.pid == other.pid && found.program == "real?client" && !found.others);
    EXPECT_TRUE(isFound);
}

TEST_F(ProcessesTest, theSocketsOfAProcessAreToldAtOnce)
{
    addProcess("7", "first\n", {"/dev/null", "socket:[98]", "pipe:[97]", "socket:[99]"});
    addProcess("8", "second\n", {"socket:[96]"});
    EXPECT_EQ(processes.socketsOf(7, "first").inodes, (std::set<uint64_t>{98, 99}));
    EXPECT_FALSE(processes.hasWork());
}

TEST_F(ProcessesTest, aProcessThatRunsAnotherProgramIsAnotherOne)
{
    addProcess("7", "first\n", {"socket:[98]"});
    EXPECT_EQ(processes.socketsOf(7, "second").inodes, std::set<uint64_t>());
    EXPECT_EQ(processes.socketsOf(8, "first").inodes, std::set<uint64_t>());
}

TEST_F(ProcessesTest, ofAProcessWithVeryManySocketsOnlySomeAreTold)
{
    constexpr int many = 3000;
    std::vector<std::string> links;
    for (int inode = 1; inode <= many; ++inode)
        links.push_back("socket:[" + std::to_string(inode) + "]");
    addProcess("7", "first\n", links);
    const std::size_t told = processes.socketsOf(7, "first").inodes.size();
    EXPECT_GT(told, 0U);
    EXPECT_LT(told, static_cast<std::size_t>(many));
}
