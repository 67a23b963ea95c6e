// stats for monitoring systems, with a real broker.

#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/statusctl/Tool.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/TemporaryFolder.h"

namespace
{

namespace fs = std::filesystem;

class StatsTest : public testing::Test
{
protected:
    // In alphabetical order.
    Words filesIn(const std::string& name) const
    {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(mFolder / name))
            names.insert(entry.path().filename());
        return {names.begin(), names.end()};
    }

    mode_t modeOf(const std::string& file) const
    {
        struct stat status
        {
        };
        EXPECT_EQ(stat(file.c_str(), &status), 0) << file;
        return status.st_mode & 07777U;
    }

    // Runs the tool in a shell, with this text in front of the command.
    static Outcome inShell(const std::string& before, const Words& words)
    {
        std::string line = before;
        for (const std::string& word : commandOf(words))
            line += " '" + word + "'";
        TestProcess process({"/bin/sh", "-c", line});
        Outcome outcome;
        outcome.output = process.readRest();
        outcome.code = process.waitForExit().value_or(-1);
        outcome.errors = process.errors();
        return outcome;
    }

    static Words writing(const std::string& file) { return {"stats", "--prometheus", "--output", file}; }

    BrokerProcess mBroker;
    TemporaryFolder mFolder;
};

bool has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

} // namespace

TEST_F(StatsTest, prometheusHasATypeAndAHelpTextForEachNumberOfTheBroker)
{
    const std::string text = statusctl({"stats", "--prometheus"}).output;
    EXPECT_TRUE(has(text, "# TYPE statusbroker_posts_total counter\nstatusbroker_posts_total ")) << text;
    EXPECT_FALSE(has(text, "untyped")) << text;
    EXPECT_FALSE(has(text, "# EOF")) << text;
    EXPECT_TRUE(has(statusctl({"stats", "--openmetrics"}).output, "\n# EOF\n"));
    EXPECT_EQ(statusctl({"stats", "--prometheus", "--openmetrics"}).code, 2);
}

TEST_F(StatsTest, everyMetricIsInTheManual)
{
    const std::string page = readFile(MONITORING_PAGE);
    std::istringstream lines(statusctl({"stats", "--prometheus", "--values", "*"}).output);
    std::size_t metrics = 0;
    for (std::string line; std::getline(lines, line);)
    {
        const std::string start = "# TYPE ";
        if (line.find(start) != 0)
            continue;
        ++metrics;
        const std::string name = line.substr(start.size(), line.rfind(' ') - start.size());
        EXPECT_TRUE(has(page, '`' + name + '`') || has(page, '`' + name + '{')) << name;
    }
    EXPECT_GT(metrics, 30U);
}

TEST_F(StatsTest, valuesOfTheDeviceAreExportedInBothFormats)
{
    statusctl({"set", "net.speed", "100", "net.state", "up", "disk.free", "7", "door", "1"});
    for (const char* format : {"--prometheus", "--openmetrics"})
    {
        const std::string text =
            statusctl({"stats", format, "--values", "net.*", "--values", "disk.free"}).output;
        EXPECT_TRUE(has(text, "statusbroker_value{key=\"disk.free\"} 7\n"
                              "statusbroker_value{key=\"net.speed\"} 100\n"))
            << text;
        EXPECT_FALSE(has(text, "net.state")) << text;
        EXPECT_FALSE(has(text, "door")) << text;
    }
    EXPECT_EQ(statusctl({"stats", "--values", "*"}),
              failure(2, "statusctl: stats: --values needs --prometheus or --openmetrics"));
}

TEST_F(StatsTest, aFileIsWrittenInsteadOfStandardOutput)
{
    EXPECT_EQ(statusctl(writing(mFolder / "status.prom")), success(""));
    EXPECT_TRUE(has(readFile(mFolder / "status.prom"), "\nstatusbroker_uptime_seconds "));
    EXPECT_EQ(statusctl({"stats", "--json", "--output", mFolder / "status.json"}), success(""));
    EXPECT_EQ(readFile(mFolder / "status.json")[0], '{');
    EXPECT_EQ(filesIn("."), (Words{"status.json", "status.prom"}));
    EXPECT_TRUE(has(statusctl({"stats", "--output", "-"}).output, "stored.keys"));
}

TEST_F(StatsTest, anEmptyFileNameIsWrongUsage)
{
    const Outcome outcome = statusctl(writing(""));
    EXPECT_EQ(outcome.code, 2) << outcome;
    EXPECT_EQ(outcome.output, "");
    EXPECT_TRUE(has(outcome.errors, "a file name must not be empty")) << outcome;
}

// A reader with the old file open keeps reading the old text.
TEST_F(StatsTest, aFileTakesThePlaceOfTheOldOneWhole)
{
    writeFile(mFolder / "status.prom", "old");
    const int old = open((mFolder / "status.prom").c_str(), O_RDONLY);
    EXPECT_EQ(statusctl(writing(mFolder / "status.prom")), success(""));
    char text[16] = {};
    EXPECT_EQ(read(old, text, sizeof(text)), 3);
    close(old);
    EXPECT_STREQ(text, "old");
    EXPECT_TRUE(has(readFile(mFolder / "status.prom"), "statusbroker_"));
}

TEST_F(StatsTest, aFileHasTheModeThatARedirectionGives)
{
    EXPECT_EQ(inShell("umask 027; exec", writing(mFolder / "new")), success(""));
    EXPECT_EQ(modeOf(mFolder / "new"), 0640U);
    writeFile(mFolder / "old", "old");
    chmod((mFolder / "old").c_str(), 0604);
    EXPECT_EQ(statusctl(writing(mFolder / "old")), success(""));
    EXPECT_EQ(modeOf(mFolder / "old"), 0604U);
}

TEST_F(StatsTest, aLinkStaysOneAndItsFileIsReplaced)
{
    fs::create_directory(mFolder / "real");
    writeFile(mFolder / "real/file", "old");
    fs::create_symlink("real/file", mFolder / "link");
    EXPECT_EQ(statusctl(writing(mFolder / "link")), success(""));
    EXPECT_TRUE(fs::is_symlink(mFolder / "link"));
    EXPECT_TRUE(has(readFile(mFolder / "real/file"), "statusbroker_"));
    EXPECT_EQ(filesIn("real"), Words{"file"});
}

TEST_F(StatsTest, aLinkToNoFileStaysOneAndItsFileIsCreated)
{
    fs::create_directory(mFolder / "real");
    fs::create_symlink("real/file", mFolder / "link");
    EXPECT_EQ(statusctl(writing(mFolder / "link")), success(""));
    EXPECT_TRUE(fs::is_symlink(mFolder / "link"));
    EXPECT_TRUE(has(readFile(mFolder / "real/file"), "statusbroker_"));
    EXPECT_EQ(filesIn("real"), Words{"file"});
}

TEST_F(StatsTest, aLinkToItselfIsAFailure)
{
    fs::create_symlink("link", mFolder / "link");
    EXPECT_EQ(statusctl(writing(mFolder / "link")),
              failure(1, "statusctl: stats: cannot write " + mFolder / "link" +
                             ": Too many levels of symbolic links"));
    EXPECT_TRUE(fs::is_symlink(mFolder / "link"));
}

TEST_F(StatsTest, aLongFileNameIsNoFailure)
{
    const std::string name(255, 'n');
    EXPECT_EQ(statusctl(writing(mFolder / name)), success(""));
    EXPECT_EQ(filesIn("."), Words{name});
}

// Other programs write to the same file, before and after.
TEST_F(StatsTest, standardOutputIsWrittenToWhereItIsAFile)
{
    fs::create_symlink("/dev/stdout", mFolder / "link");
    for (const std::string& name : Words{"/dev/stdout", "/dev/fd/1", "/proc/self/fd/1", mFolder / "link"})
    {
        const std::string all = mFolder / "all";
        EXPECT_EQ(inShell("exec > '" + all + "'; trap 'echo footer' EXIT; echo header;", writing(name)),
                  success(""));
        const std::string text = readFile(all);
        EXPECT_EQ(text.find("header\n# HELP statusbroker_"), 0U) << name;
        EXPECT_EQ(text.substr(text.rfind('\n', text.size() - 2)), "\nfooter\n") << name;
    }
}

// Root must not lose a device to a file. Tested with a pipe: a failure must not cost a device.
TEST_F(StatsTest, aNameThatIsNoFileIsWrittenTo)
{
    ASSERT_EQ(mkfifo((mFolder / "pipe").c_str(), 0600), 0);
    TestProcess reader({"/bin/cat", mFolder / "pipe"});
    EXPECT_EQ(statusctl(writing(mFolder / "pipe")), success(""));
    EXPECT_TRUE(has(reader.readRest(), "statusbroker_"));
    EXPECT_EQ(filesIn("."), Words{"pipe"});
    EXPECT_TRUE(fs::is_fifo(mFolder / "pipe"));
}

TEST_F(StatsTest, aFailureLeavesTheOldFileAndNothingElse)
{
    writeFile(mFolder / "status.prom", "old");
    const Outcome outcome = inShell("ulimit -f 1; exec", writing(mFolder / "status.prom"));
    EXPECT_EQ(outcome,
              failure(1, "statusctl: stats: cannot write " + mFolder / "status.prom" + ": File too large"));
    EXPECT_EQ(readFile(mFolder / "status.prom"), "old");
    EXPECT_EQ(filesIn("."), Words{"status.prom"});
    EXPECT_EQ(statusctl(writing("/none/such")),
              failure(1, "statusctl: stats: cannot write /none/such: No such file or directory"));
}

TEST_F(StatsTest, aBrokerThatIsNotThereLeavesTheFileAsItWas)
{
    writeFile(mFolder / "status.prom", "old");
    mBroker.stop();
    EXPECT_EQ(statusctl(writing(mFolder / "status.prom")).code, 4);
    EXPECT_EQ(readFile(mFolder / "status.prom"), "old");
}
