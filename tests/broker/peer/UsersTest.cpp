#include "broker/peer/Users.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/TemporaryFolder.h"

namespace
{

using Groups = std::vector<gid_t>;

class UsersTest : public testing::Test
{
protected:
    UsersTest()
    {
        passwd("root:x:0:0:root:/root:/bin/sh\n"
               "toor:x:0:0::/root:/bin/sh\n"
               "net:x:998:998::/:/bin/false\n"
               "ui:x:1000:100::/home/ui:/bin/sh\n");
        group("root:x:0:\nusers:x:100:\nnet:x:998:ui\nwheel:x:10:toor,ui\n");
    }

    // Each state of a file is a new file, as editors write it.
    void passwd(const std::string& content) { replace("passwd", content); }
    void group(const std::string& content) { replace("group", content); }
    void replace(const std::string& name, const std::string& content)
    {
        writeFile(folder / "new", content);
        std::filesystem::rename(folder / "new", folder / name);
    }

    Users users() const { return Users(folder / "passwd", folder / "group"); }

    TemporaryFolder folder;
};

} // namespace

TEST_F(UsersTest, usersHaveNames)
{
    EXPECT_EQ(users().name(998), "net");
    EXPECT_EQ(users().uid("net"), 998U);
    EXPECT_TRUE(users().isKnown(998));
    EXPECT_FALSE(users().isKnown(999));
    EXPECT_TRUE(users().isComplete());
}

TEST_F(UsersTest, ofSeveralNamesTheFirstCounts)
{
    EXPECT_EQ(users().name(0), "root");
    EXPECT_EQ(users().uid("toor"), 0U);
    EXPECT_EQ(users().groups(0), Groups{0}) << "not those of toor";
}

TEST_F(UsersTest, aUserWithoutANameIsItsNumber)
{
    EXPECT_EQ(users().name(4000), "4000");
    EXPECT_FALSE(users().uid("4000"));
    EXPECT_EQ(users().groups(4000), Groups{});
}

TEST_F(UsersTest, aUserIsInItsOwnGroupAndInThoseThatListIt)
{
    EXPECT_EQ(users().groups(1000), (Groups{10, 100, 998}));
    EXPECT_EQ(users().gid("wheel"), 10U);
    EXPECT_FALSE(users().gid("weel"));
}

TEST_F(UsersTest, brokenLinesAreSkipped)
{
    passwd("\n:x:5:5:::\nshort:x\nword:x:five:5:::\nbig:x:99999999999:5:::\nminus:x:-1:5:::\nnone:x:"
           "4294967295:5:::\n"
           "# root:x:6:6:::\n" +
           std::string("nul\0:x:7:7:::\n", 14) + "bell\a:x:8:8:::\nnet:x:998:998::/:/bin/false\n");
    const Users read = users();
    EXPECT_EQ(read.name(998), "net");
    for (const uid_t uid : {0U, 5U, 6U, 7U, 8U, 4294967295U})
        EXPECT_EQ(read.name(uid), std::to_string(uid));
    for (const char* name : {"short", "word", "big", "minus", "none"})
        EXPECT_FALSE(read.uid(name)) << name;
}

TEST_F(UsersTest, linesThatReferToANetworkAreNotRoot)
{
    passwd("+\n+nis::::::\n-no::::::\n+@all:x:::::\n");
    EXPECT_EQ(users().name(0), "0");
    for (const char* name : {"+", "+nis", "-no", "+@all"})
        EXPECT_FALSE(users().uid(name)) << name;
}

TEST_F(UsersTest, aNameCannotLookLikeTheNumberOfAnother)
{
    passwd("1000:x:5:5:::\n");
    EXPECT_FALSE(users().uid("1000"));
    EXPECT_EQ(users().name(5), "5");
}

TEST_F(UsersTest, brokenGroupsAreSkipped)
{
    group("+\nwheel\nwheel:x\nwheel:x:ten:ui\nnet:x:998:ui\n");
    EXPECT_EQ(users().groups(1000), (Groups{100, 998}));
}

TEST_F(UsersTest, withoutFilesNobodyHasAName)
{
    const Users none(folder / "missing", folder / "missing");
    EXPECT_EQ(none.name(0), "0");
    EXPECT_EQ(none.groups(0), Groups{});
    EXPECT_FALSE(none.isComplete());
}

TEST_F(UsersTest, aFileThatIsTooLongIsNotRead)
{
    passwd("root:x:0:0:::\n" + std::string(Users::mostBytes, '#'));
    EXPECT_EQ(users().name(0), "0");
}

TEST_F(UsersTest, onlySoManyEntriesAreTaken)
{
    std::string many;
    for (std::size_t i = 0; i != Users::mostEntries + 1; ++i)
        many += "u" + std::to_string(i) + ":x:" + std::to_string(i) + ":0:::\n";
    passwd(many);
    EXPECT_EQ(users().name(Users::mostEntries - 1), "u9999");
    EXPECT_EQ(users().name(Users::mostEntries), "10000");
    EXPECT_FALSE(users().isComplete());
}

TEST_F(UsersTest, whatWasChangedIsReadAnew)
{
    Users read = users();
    passwd("new:x:1000:100:::\n");
    EXPECT_TRUE(read.refresh());
    EXPECT_EQ(read.name(1000), "new");
    group("new:x:100:\n");
    EXPECT_TRUE(read.refresh());
    EXPECT_EQ(read.groups(1000), Groups{100});
}

TEST_F(UsersTest, whenAFileCannotBeReadAllStaysAsItWas)
{
    Users read = users();
    passwd("new:x:1000:100:::\n");
    std::filesystem::remove(folder / "group");
    EXPECT_FALSE(read.refresh());
    EXPECT_EQ(read.name(1000), "ui");
    EXPECT_EQ(read.groups(1000), (Groups{10, 100, 998}));
}

TEST_F(UsersTest, aFolderOrAPipeInPlaceOfAFileIsNotRead)
{
    EXPECT_EQ(Users(folder / "", folder / "").name(0), "0");
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(Users(folder / "pipe", folder / "group").name(0), "0");
}
