#include "broker/peer/UserNamespace.h"

#include <filesystem>
#include <gtest/gtest.h>

#include "tests/support/TemporaryFolder.h"

namespace
{

class UserNamespaceTest : public testing::Test
{
protected:
    UserNamespaceTest()
    {
        std::filesystem::create_directories(proc / "self");
        std::filesystem::create_directories(proc / "sys/kernel");
    }

    TemporaryFolder proc;
};

} // namespace

TEST_F(UserNamespaceTest, onlyTheMapOfEverybodyIsWhole)
{
    EXPECT_TRUE(UserNamespace::isWholeMap("         0          0 4294967295\n"));
    EXPECT_FALSE(UserNamespace::isWholeMap("0 0 65536\n")) << "as PrivateUsers=identity has it";
    EXPECT_FALSE(UserNamespace::isWholeMap("0 0 1\n998 998 1\n")) << "as PrivateUsers=yes has it";
    EXPECT_FALSE(UserNamespace::isWholeMap("0 100000 4294967295\n"));
    EXPECT_FALSE(UserNamespace::isWholeMap("1 1 4294967295\n"));
    EXPECT_FALSE(UserNamespace::isWholeMap("0 0 99999999999999\n"));
    EXPECT_FALSE(UserNamespace::isWholeMap("0 0"));
    EXPECT_FALSE(UserNamespace::isWholeMap(""));
    EXPECT_FALSE(UserNamespace::isWholeMap(std::string("\0\xff 0", 4)));
}

TEST_F(UserNamespaceTest, theNumberOfUsersFromOutsideIsTheKernels)
{
    writeFile(proc / "self/uid_map", "0 0 1\n");
    writeFile(proc / "sys/kernel/overflowuid", "4242\n");
    const UserNamespace users(proc / "");
    EXPECT_TRUE(users.isOutside(4242));
    EXPECT_FALSE(users.isOutside(65534));
    EXPECT_FALSE(users.isOutside(0));
}

TEST_F(UserNamespaceTest, theNumberIsTheUsualOneIfTheKernelDoesNotTell)
{
    writeFile(proc / "self/uid_map", "0 0 1\n");
    EXPECT_TRUE(UserNamespace(proc / "").isOutside(65534));
    writeFile(proc / "sys/kernel/overflowuid", "many\n");
    EXPECT_TRUE(UserNamespace(proc / "").isOutside(65534));
}

TEST_F(UserNamespaceTest, withoutAMapTheKernelHasNoNamespaces)
{
    writeFile(proc / "self/stat", "1 (x)");
    EXPECT_TRUE(UserNamespace(proc / "").isWhole());
    EXPECT_FALSE(UserNamespace(proc / "").isOutside(65534));
}

TEST_F(UserNamespaceTest, whereThereIsNothingToLookAtNobodyMayBeAnybody)
{
    EXPECT_FALSE(UserNamespace(proc / "missing").isWhole());
    EXPECT_TRUE(UserNamespace(proc / "missing").isOutside(65534));
}
