// The files of a policy: which files are read, in which order, and which are refused.

#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/broker/policy/PolicyFixture.h"
#include "tests/support/TemporaryFolder.h"

namespace
{

class PolicyFilesTest : public testing::Test
{
protected:
    void SetUp() override { setRights("", S_IRWXU | S_IRGRP | S_IXGRP); }

    void write(const std::string& name, const std::string& text)
    {
        writeFile(folder / name, text);
        setRights(name, S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH);
    }

    void setRights(const std::string& name, mode_t mode)
    {
        ASSERT_EQ(chmod((folder / name).c_str(), mode), 0);
    }

    LoadedPolicy load(const std::string& name = "") const { return loadPolicy(folder / name, deviceNames()); }
    Lines errors(const std::string& name = "") const { return load(name).errors; }

    const TemporaryFolder folder;
};

const std::string allows = "[[rule]]\nallow = \"post\"\n";
const std::string denies = "[[rule]]\ndeny = \"post\"\n";

bool mayPost(const LoadedPolicy& loaded)
{
    return loaded.policy != nullptr && may(*loaded.policy, Subject(), Action::Post, "a");
}

} // namespace

TEST_F(PolicyFilesTest, aFileIsAPolicyWhateverItsName)
{
    write("rules", denies);
    EXPECT_EQ(errors("rules"), Lines{});
    EXPECT_FALSE(mayPost(load("rules")));
}

TEST_F(PolicyFilesTest, ofAFolderAreReadInTheOrderOfTheirNames)
{
    write("50-b.policy", denies);
    write("10-c.policy", allows);
    EXPECT_TRUE(mayPost(load()));
    write("05.policy", denies);
    EXPECT_FALSE(mayPost(load()));
    write("04.policy", "[[rule]]\n");
    EXPECT_EQ(errors(), Lines{(folder / "04.policy") + ":1: a rule needs allow or deny"});
}

TEST_F(PolicyFilesTest, withOtherNamesAreLeftOut)
{
    for (const char* name :
         {"a.policy.dpkg-new", "a.conf", ".hidden.policy", ".policy", "policy", "a.policy~"})
        write(name, "wrong");
    EXPECT_EQ(errors(), Lines{});
    EXPECT_TRUE(mayPost(load()));
}

TEST_F(PolicyFilesTest, ofAFolderWithASlashAreNamedWithOne)
{
    write("a.policy", "default = 1");
    EXPECT_EQ(loadPolicy((folder / "") + "/", deviceNames()).errors.size(), 1U);
    EXPECT_EQ(errors().at(0).find("//"), std::string::npos);
}

TEST_F(PolicyFilesTest, thatAreMissingAreToldSo)
{
    EXPECT_EQ(errors("none"), Lines{(folder / "none") + ": cannot be read: No such file or directory"});
}

TEST_F(PolicyFilesTest, mayBeReachedThroughLinks)
{
    write("a", denies);
    std::filesystem::create_symlink("a", folder / "b.policy");
    EXPECT_FALSE(mayPost(load()));
}

TEST_F(PolicyFilesTest, thatSayNothingAreWarnedOf)
{
    const std::string warning = ": the policy says nothing, so everybody may do everything";
    EXPECT_EQ(load().policy->warnings(), Lines{folder / "" + warning});
    write("empty", "");
    EXPECT_EQ(load("empty").policy->warnings(), Lines{folder / "empty" + warning});
    write("default", "default = \"allow\"\n");
    EXPECT_EQ(load("default").policy->warnings(), Lines{});
}

TEST_F(PolicyFilesTest, allMistakesAreTold)
{
    write("a.policy", "default = 1\n");
    std::filesystem::create_symlink("nowhere", folder / "b.policy");
    std::filesystem::create_directory(folder / "c.policy");
    EXPECT_EQ(errors(), (Lines{(folder / "b.policy") + ": cannot be read: No such file or directory",
                               (folder / "c.policy") + ": cannot be read: not a regular file",
                               (folder / "a.policy") + ":1: default must be \"allow\" or \"deny\""}));
}

TEST_F(PolicyFilesTest, thatArePipesAreNotWaitedFor)
{
    ASSERT_EQ(mkfifo((folder / "a").c_str(), S_IRUSR | S_IWUSR), 0);
    EXPECT_EQ(errors("a"), Lines{(folder / "a") + ": cannot be read: not a regular file"});
}

TEST_F(PolicyFilesTest, thatGroupOrOthersMayWriteAreRefused)
{
    write("a", "");
    for (const mode_t wrong : {mode_t{S_IWGRP}, mode_t{S_IWOTH}})
    {
        setRights("a", S_IRUSR | S_IWUSR | wrong);
        EXPECT_EQ(errors("a"),
                  Lines{(folder / "a") + ": users other than its owner can write to it (chmod go-w)"});
    }
    setRights("a", S_IRUSR | S_IRGRP | S_IROTH);
    EXPECT_EQ(errors("a"), Lines{});
}

TEST_F(PolicyFilesTest, inAFolderThatOthersMayWriteAreRefused)
{
    write("a.policy", "");
    setRights("", S_IRWXU | S_IRWXO | S_ISVTX);
    EXPECT_EQ(errors(), Lines{(folder / "") + ": users other than its owner can write to it (chmod go-w)"});
}

// May be skipped: the kernel lets only root give a file away. The build server tests as root, so it always
// runs there.
TEST_F(PolicyFilesTest, ofOtherUsersAreRefused)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give files away";
    constexpr uid_t other = 1234;
    const std::string error = ": belongs to user 1234, but must belong to root or to the broker's user";
    write("a.policy", "");
    ASSERT_EQ(chown((folder / "a.policy").c_str(), other, other), 0);
    EXPECT_EQ(errors(), Lines{(folder / "a.policy") + error});
    ASSERT_EQ(chown((folder / "").c_str(), other, other), 0);
    EXPECT_EQ(errors(), Lines{(folder / "") + error});
}

TEST_F(PolicyFilesTest, ofTheGreatestSizeAreRead)
{
    std::string text;
    while (text.size() < 256 * 1024)
        text += "#\n";
    write("a", text);
    EXPECT_EQ(errors("a"), Lines{});
    write("a", text + "#");
    EXPECT_EQ(errors("a"), Lines{(folder / "a") + ": longer than 262144 bytes"});
}

TEST_F(PolicyFilesTest, areSixtyFourAtMost)
{
    for (int i = 0; i < 64; ++i)
        write(std::to_string(i) + ".policy", "");
    EXPECT_EQ(errors(), Lines{});
    write("64.policy", "");
    EXPECT_EQ(errors(), Lines{(folder / "") + ": more than 64 policy files"});
}

TEST(PolicyFiles, thatCannotBeReadAreToldSo)
{
    EXPECT_EQ(loadPolicy("/proc/self/mem", deviceNames()).errors,
              Lines{"/proc/self/mem: cannot be read: Input/output error"});
}

TEST(PolicyFiles, anExceptionOfALookupIsAnError)
{
    const PolicyNames names{
        [](const std::string&) -> std::optional<uid_t> { throw std::logic_error("no names"); }, nullptr};
    const LoadedPolicy loaded = makePolicy({{"file", "[[rule]]\nuser = \"a\"\nallow = \"all\"\n"}}, names);
    EXPECT_EQ(loaded.policy, nullptr);
    EXPECT_EQ(loaded.errors, Lines{"file: cannot be read: no names"});
}
