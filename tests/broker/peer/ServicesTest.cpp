#include "broker/peer/Services.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "broker/peer/OwnerQuery.h"
#include "tests/broker/peer/ServiceGroup.h"
#include "tests/support/TemporaryFolder.h"

namespace
{

using Knowledge = Services::Knowledge;

TimePoint theTime;
TimePoint now()
{
    return theTime;
}

uint64_t inodeOfPath(const std::string& path)
{
    struct stat status
    {
    };
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_ino;
}

class ServicesTest : public testing::Test
{
protected:
    uint64_t make(const std::string& path)
    {
        std::filesystem::create_directories(tree / path);
        return inodeOfPath(tree / path);
    }

    // Looks for unknown ids until no walk is allowed any more. Returns the number of walks.
    int exhaust()
    {
        int walks = 0;
        while (services.find(static_cast<uint64_t>(-++next)).knowledge == Knowledge::Unknown)
            ++walks;
        return walks;
    }

    std::string nameOf(const std::string& path)
    {
        const Services::Answer answer = services.find(make(path));
        EXPECT_EQ(answer.knowledge, answer.name.empty() ? Knowledge::NoService : Knowledge::Named) << path;
        return answer.name;
    }

    TemporaryFolder tree;
    Services services{tree / "", &now};
    int next = 1;
};

} // namespace

TEST_F(ServicesTest, aControlGroupIsThatOfItsService)
{
    EXPECT_EQ(nameOf("system.slice/net.service"), "net.service");
    EXPECT_EQ(nameOf("system.slice/system-getty.slice/getty@tty1.service"), "getty@tty1.service");
    EXPECT_EQ(nameOf("user.slice/user-1000.slice/session-1.scope"), "session-1.scope");
    EXPECT_EQ(nameOf("init.scope"), "init.scope");
}

TEST_F(ServicesTest, controlGroupsOfAServicesOwnAreTheServices)
{
    EXPECT_EQ(nameOf("system.slice/net.service/worker/1"), "net.service");
}

TEST_F(ServicesTest, aDelegatedControlGroupCannotCallItselfAnotherService)
{
    EXPECT_EQ(nameOf("user.slice/user-1000.slice/user@1000.service/app.slice/net.service"),
              "user@1000.service");
    EXPECT_EQ(nameOf("user.slice/user-1000.slice/session-1.scope/system.slice/net.service"),
              "session-1.scope");
}

TEST_F(ServicesTest, aContainerBesideTheSlicesIsNoService)
{
    EXPECT_EQ(nameOf("docker/1234/system.slice/net.service"), "");
    EXPECT_EQ(nameOf("system.slice/docker/net.service"), "");
}

TEST_F(ServicesTest, slicesAndTheRootAreNoServices)
{
    EXPECT_EQ(nameOf("system.slice"), "");
    EXPECT_EQ(nameOf("."), "");
}

TEST_F(ServicesTest, whatSystemdPutsBeforeNamesThatTheKernelCouldMeanIsNoPartOfThem)
{
    EXPECT_EQ(nameOf("system.slice/_cpu.service"), "cpu.service");
    EXPECT_EQ(nameOf("system.slice/__x.service"), "_x.service");
    EXPECT_EQ(Services::unitOf("_"), "");
    EXPECT_EQ(Services::unitOf("_.service"), "");
    EXPECT_EQ(Services::unitOf("a.service"), "a.service");
    EXPECT_EQ(Services::unitOf("a.service.d"), "");
    EXPECT_EQ(Services::unitOf(""), "");
}

TEST_F(ServicesTest, filesAndLinksAreNotFollowed)
{
    make("elsewhere/net.service");
    make("system.slice");
    std::filesystem::create_directory_symlink(tree / "elsewhere/net.service",
                                              tree / "system.slice/net.service");
    writeFile(tree / "system.slice/file.service", "");
    EXPECT_EQ(services.find(inodeOfPath(tree / "elsewhere/net.service")).knowledge, Knowledge::NoService);
    EXPECT_EQ(services.find(inodeOfPath(tree / "system.slice/file.service")).knowledge, Knowledge::Unknown);
}

TEST_F(ServicesTest, aControlGroupThatHasGoneIsUnknown)
{
    const uint64_t id = make("system.slice/net.service");
    std::filesystem::remove(tree / "system.slice/net.service");
    const Services::Answer answer = services.find(id);
    EXPECT_EQ(answer.knowledge, Knowledge::Unknown);
    EXPECT_EQ(answer.name, "");
}

TEST_F(ServicesTest, withoutATreeAllAreUnknown)
{
    EXPECT_EQ(Services("", &now).find(1).knowledge, Knowledge::Unknown);
    EXPECT_EQ(Services(tree / "missing", &now).find(1).knowledge, Knowledge::Unknown);
}

TEST_F(ServicesTest, aFloodOfUnknownIdsWalksNoMoreThanIsAllowed)
{
    for (int i = 0; i != 99; ++i)
        make("system.slice/s" + std::to_string(i) + ".service"); // with the slice and the root, 101 folders
    const uint64_t known = make("system.slice/s7.service");
    EXPECT_EQ(services.find(known).name, "s7.service");
    EXPECT_EQ(exhaust(), Services::burst / 101);
    EXPECT_EQ(services.find(known).name, "s7.service") << "needs no walk";
    theTime += std::chrono::seconds(1);
    const int again = exhaust();
    EXPECT_GE(again, Services::foldersPerSecond / 101);
    EXPECT_LE(again, Services::foldersPerSecond / 101 + 1);
}

TEST_F(ServicesTest, aNewServiceIsFoundAsSoonAsWalksAreAllowedAgain)
{
    exhaust();
    const uint64_t added = make("system.slice/new.service");
    EXPECT_EQ(services.find(added).knowledge, Knowledge::Later);
    theTime += std::chrono::seconds(1);
    EXPECT_EQ(services.find(added).name, "new.service");
}

TEST_F(ServicesTest, anIdThatWasLookedForInVainIsNotLookedForAgain)
{
    const uint64_t id = make("net.service");
    std::filesystem::remove(tree / "net.service");
    for (int i = 0; i != Services::burst + 10; ++i)
        ASSERT_EQ(services.find(id).knowledge, Knowledge::Unknown) << "never looked for again";
}

TEST_F(ServicesTest, aServiceThatMakesManyControlGroupsHidesNoOther)
{
    for (std::size_t i = 0; i != Services::mostFoldersOfAService + 10; ++i)
        make("a.service/" + std::to_string(i));
    EXPECT_EQ(nameOf("b.service/deep/deeper"), "b.service");
    EXPECT_EQ(nameOf("a.service"), "a.service");
    int unknown = 0;
    for (std::size_t i = 0; i != Services::mostFoldersOfAService + 10; ++i)
        unknown += services.find(inodeOfPath(tree / ("a.service/" + std::to_string(i)))).knowledge !=
                           Knowledge::Named
                       ? 1
                       : 0;
    EXPECT_EQ(unknown, 10 + 1) << "the service's own folder counts, too";
}

TEST_F(ServicesTest, aTreeThatIsTooDeepIsLeftOutBelow)
{
    std::string path = "a.service";
    for (int i = 0; i != 100; ++i)
        path += "/d";
    const uint64_t id = make(path);
    EXPECT_EQ(services.find(id).knowledge, Knowledge::Unknown);
    EXPECT_EQ(nameOf("a.service/d"), "a.service");
}

TEST_F(ServicesTest, theTreeIsWhereTheMachineHasMountedIt)
{
    std::filesystem::create_directory(tree / "self");
    const auto root = [this](const std::string& mounts)
    {
        writeFile(tree / "self/mountinfo", mounts);
        return Services::rootIn(tree / "");
    };
    EXPECT_EQ(root("23 1 0:5 / / rw - ext4 /dev/vda rw\n"
                   "32 31 0:29 / /sys/fs/cgroup/cpu rw,relatime - cgroup cgroup rw,cpu\n"
                   "41 31 0:38 / /sys/fs/cgroup/unified rw,relatime shared:9 - cgroup2 cgroup2 rw\n"),
              "/sys/fs/cgroup/unified");
    EXPECT_EQ(root("41 31 0:38 / /a\\040b\\134 rw - cgroup2 cgroup2 rw\n"), "/a b\\");
    EXPECT_EQ(root("41 31 0:38 /system.slice /part rw - cgroup2 cgroup2 rw\n"), "") << "only a part";
    EXPECT_EQ(root("41 31 - cgroup2 \n - cgroup2 \n\\ - cgroup2 "), "");
    EXPECT_EQ(root("41 31 0:38 / \\9\\04 rw - cgroup2 cgroup2 rw\n"), "\\9\\04");
    EXPECT_EQ(root(""), "");
    EXPECT_EQ(Services::rootIn(tree / "missing"), "");
}

// May be skipped: see ServiceGroup::lack(). On any machine, ServicesTest finds services in a folder that
// looks like the control groups.
TEST(RealServicesTest, aConnectionIsThatOfTheServiceThatMadeIt)
{
    const ServiceGroup group("named");
    if (const std::string lack = group.lack(); !lack.empty())
        GTEST_SKIP() << lack;
    OwnerQuery query;
    ASSERT_EQ(query.road(), OwnerQuery::Road::SockDiag);
    Accepting ends;
    const ConnectedProcess member(ends,
                                  [&group]
                                  {
                                      group.enter();
                                      return true;
                                  });
    ASSERT_TRUE(member.isConnected);
    const Owner owner = query.ask(ends.peerAddress, ends.address);
    ASSERT_TRUE(owner.cgroup());
    EXPECT_EQ(Services(ServiceGroup::root()).find(*owner.cgroup()).name, "named.service");
}
