// Messages, and the control words that select them.

#include <array>
#include <cstdio>
#include <thread>
#include <type_traits>

#include "tests/common/LoggingFixture.h"

OV_LOG_CONTROL_WORDS;

namespace
{

int evaluated = 0;

int evaluate()
{
    return ++evaluated;
}

void logAtEveryLevel()
{
    OV_LOG(0, "level %d", 0);
    OV_LOG(1, "level %d", 1);
    OV_LOG(2, "level %d", 2);
    OV_LOG(5, "level %d", 5);
    OV_LOG(6, "level %d", 6);
    OV_LOG(7, "level %d", 7);
}

void traced(int level)
{
    OV_TRACE(level);
}

// The messages of logAtEveryLevel() that pass the present control words.
Texts levels(LogCapture& log)
{
    log.clear();
    logAtEveryLevel();
    return log.texts();
}

} // namespace

// ------------------------------------------------------------------------------------------- control words

TEST_F(LoggingTest, withoutBitThirtyOneOnlyTheUnguardedLevelsAreLogged)
{
    ov_log_configure("LoggingTest=7:7fffffff");
    EXPECT_EQ(levels(log), (Texts{"level 0", "level 1", "level 2"}));
    ov_log_configure("LoggingTest=7:80000000");
    EXPECT_EQ(levels(log).size(), 6U);
}

TEST_F(LoggingTest, theUnguardedLevelsIgnoreTheFilesLevel)
{
    ov_log_configure("LoggingTest=0:0");
    EXPECT_EQ(levels(log), (Texts{"level 0", "level 1", "level 2"}));
}

TEST_F(LoggingTest, aGuardedLevelIsLoggedFromItsLevelOn)
{
    ov_log_configure("LoggingTest=6");
    EXPECT_EQ(levels(log).back(), "level 6");
    ov_log_configure("LoggingTest=7");
    EXPECT_EQ(levels(log).back(), "level 7");
}

TEST_F(LoggingTest, argumentsOfASuppressedMessageAreNotEvaluated)
{
    evaluated = 0;
    OV_LOG(6, "%d", evaluate());
    EXPECT_EQ(evaluated, 0);
    OV_LOG(5, "%d", evaluate());
    EXPECT_EQ(evaluated, 1);
}

TEST_F(LoggingTest, aMessageNamesItsFunctionFileAndLine)
{
    log.clear();
    const int line = __LINE__ + 1;
    OV_LOG(0, "here %s", "and now");
    ASSERT_EQ(log.lines().size(), 1U);
    const LogLine logged = log.lines().front();
    EXPECT_EQ(logged.level, 0);
    EXPECT_NE(logged.function.find("aMessageNamesItsFunctionFileAndLine"), std::string::npos);
    EXPECT_EQ(logged.file, "/LoggingTest.cpp");
    EXPECT_EQ(logged.line, line);
    EXPECT_EQ(logged.text, "here and now");
}

TEST(FileTail, beginsAtTheLastSlash)
{
    EXPECT_EQ(ov_log_file_tail("/a/b/c.cpp"), 4U);
    EXPECT_EQ(ov_log_file_tail("c.cpp"), 0U);
    EXPECT_EQ(ov_log_file_tail(""), 0U);
    EXPECT_STREQ(OV_LOG_FILE, "/LoggingTest.cpp");
    // A constant expression: a lambda, which may be called out of line, would not compile here.
    static_assert(std::is_same_v<decltype(OV_LOG_FILE), const char*>);
}

// ------------------------------------------------------------------------------------------- configuration

namespace
{

struct File
{
    explicit File(const char* path) { register_logging(path, &flags, &level); }
    volatile unsigned int flags = 0xFFFFFFFFU;
    volatile int level = 5;
};

// Registered words must live until the process ends.
File& file(const char* path)
{
    return *new File(path);
}

} // namespace

TEST_F(LoggingTest, aPatternMatchesTheEndOfThePathWithOrWithoutExtension)
{
    for (const char* pattern : {"Some", "Some.cpp", "folder/Some", "fold*/So*", "/root/folder/Some.cpp", "*"})
    {
        File& some = file("/root/folder/Some.cpp");
        ASSERT_EQ(ov_log_configure((std::string(pattern) + "=7:c0000000").c_str()), 0);
        EXPECT_EQ(some.level, 7) << pattern;
        EXPECT_EQ(some.flags, messagesBit | tracesBit) << pattern;
        some.level = 5;
    }
}

TEST_F(LoggingTest, aPatternForAnotherFileDoesNotMatch)
{
    File& some = file("/root/folder/Other.cpp");
    for (const char* pattern : {"Othe", "ther", "other", "folder", "root/Other", "Other.h"})
    {
        ASSERT_EQ(ov_log_configure((std::string(pattern) + "=7").c_str()), 0);
        EXPECT_EQ(some.level, 5) << pattern;
    }
}

TEST_F(LoggingTest, theLastRuleThatMatchesWins)
{
    File& some = file("/root/Wins.cpp");
    EXPECT_EQ(ov_log_configure("Wins=7,*=2"), 0);
    EXPECT_EQ(some.level, 2);
    EXPECT_EQ(ov_log_configure("*=2,Wins=7"), 0);
    EXPECT_EQ(some.level, 7);
}

TEST_F(LoggingTest, flagsThatAreNotGivenStay)
{
    File& some = file("/root/Flags.cpp");
    EXPECT_EQ(ov_log_configure("Flags=7:0"), 0);
    EXPECT_EQ(ov_log_configure("Flags=6"), 0);
    EXPECT_EQ(some.level, 6);
    EXPECT_EQ(some.flags, 0U);
}

TEST_F(LoggingTest, aFileThatRegistersLaterGetsWhatOneRegisteredBeforeHas)
{
    File& earlier = file("/root/Twice.cpp");
    EXPECT_EQ(ov_log_configure("Twice=7:0"), 0);
    EXPECT_EQ(ov_log_configure("*=5:ffffffff"), 0);
    EXPECT_EQ(ov_log_configure("Twice=6"), 0);
    File& later = file("/root/Twice.cpp");
    EXPECT_EQ(later.level, earlier.level);
    EXPECT_EQ(later.flags, earlier.flags);
}

TEST_F(LoggingTest, flagsGivenOnceStayForFilesThatRegisterLater)
{
    EXPECT_EQ(ov_log_configure("Stays=7:0"), 0);
    EXPECT_EQ(ov_log_configure("Stays=6"), 0);
    File& later = file("/root/Stays.cpp");
    EXPECT_EQ(later.level, 6);
    EXPECT_EQ(later.flags, 0U);
}

TEST_F(LoggingTest, levelsMayBeSwitchedWhileOtherThreadsLog)
{
    std::vector<std::thread> threads;
    for (int index = 0; index < 2; ++index)
        threads.emplace_back(
            []
            {
                for (int count = 0; count < 500; ++count)
                {
                    OV_LOG(2, "always");
                    OV_LOG(7, "sometimes");
                }
            });
    for (int count = 0; count < 100; ++count)
        ov_log_configure(count % 2 == 0 ? "LoggingTest=7:80000000" : "LoggingTest=5:ffffffff");
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(log.count(2, "always"), 1000U);
}

TEST_F(LoggingTest, registeringAnswersZero)
{
    static volatile unsigned int flags = 0;
    static volatile int level = 0;
    EXPECT_EQ(register_logging("/root/Registered.cpp", &flags, &level), 0);
}

TEST_F(LoggingTest, rulesAreAppliedToFilesThatRegisterLater)
{
    EXPECT_EQ(ov_log_configure("Later=7:80000000"), 0);
    File& later = file("/root/Later.cpp");
    EXPECT_EQ(later.level, 7);
    EXPECT_EQ(later.flags, messagesBit);
}

TEST_F(LoggingTest, noRulesChangeNothing)
{
    File& some = file("/root/NoRules.cpp");
    for (const char* rules : {static_cast<const char*>(nullptr), "", ","})
        EXPECT_EQ(ov_log_configure(rules), 0);
    EXPECT_EQ(some.level, 5);
}

TEST_F(LoggingTest, malformedRulesChangeNothing)
{
    File& some = file("/root/Malformed.cpp");
    for (const char* rules :
         {"x", "=7", "Malformed=", "Malformed=8", "Malformed=-1", "Malformed= 7", "Malformed=7x",
          "Malformed=7:", "Malformed=7:xyz", "Malformed=7:fffffffff", "Malformed=7,broken"})
    {
        EXPECT_EQ(ov_log_configure(rules), -1) << rules;
        EXPECT_EQ(some.level, 5) << rules;
    }
    EXPECT_EQ(ov_log_configure(""), 0);
    EXPECT_EQ(ov_log_configure(",Malformed=7,"), 0);
    EXPECT_EQ(some.level, 7);
}

namespace
{

// In its own process: the variable is read when the first file registers.
std::string outputUnder(const std::string& environment)
{
    const std::string command = environment + " '" TEST_PROGRAM "' --gtest_filter=InChild.* 2>&1";
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    std::array<char, 4096> bytes{};
    while (fgets(bytes.data(), bytes.size(), pipe) != nullptr)
        output += bytes.data();
    pclose(pipe);
    return output;
}

std::string outputWithEnvironment(const std::string& value)
{
    return outputUnder("OV_LOG='" + value + "'");
}

} // namespace

// The tests below run this again, each with its own environment. Nothing else has changed the control words.
TEST(InChild, logAtEveryLevel)
{
    OV_LOG(0, "flags %x level %d", logFlags, logLevel);
    logAtEveryLevel();
    traced(6);
    traced(7);
}

TEST(Environment, withoutTheVariableLevelsUpToFiveAreLoggedAndNoTraces)
{
    const std::string output = outputUnder("env -u OV_LOG");
    EXPECT_NE(output.find("flags ffffffff level 5\n"), std::string::npos);
    for (const char* logged : {": level 0\n", ": level 1\n", ": level 2\n", ": level 5\n"})
        EXPECT_EQ(occurrences(output, logged), 1) << logged;
    EXPECT_EQ(occurrences(output, ": level "), 4);
    EXPECT_EQ(occurrences(output, ": begin\n") + occurrences(output, ": end\n"), 0);
}

TEST(Environment, setsTheLevelsAtStart)
{
    EXPECT_NE(outputWithEnvironment("LoggingTest=7").find("level 7"), std::string::npos);
    EXPECT_EQ(outputWithEnvironment("LoggingTest=2").find("level 5"), std::string::npos);
}

TEST(Environment, setsTheFlagsAtStart)
{
    const std::string output = outputWithEnvironment("LoggingTest=7:40000000");
    EXPECT_NE(output.find("level 2"), std::string::npos);
    EXPECT_EQ(output.find("level 5"), std::string::npos);
}

TEST(Environment, takesSeveralRules)
{
    const std::string output = outputWithEnvironment("*=2,LoggingTest=6");
    EXPECT_NE(output.find("level 6"), std::string::npos);
    EXPECT_EQ(output.find("level 7"), std::string::npos);
}

TEST(Environment, aMalformedValueIsLoggedAndIgnored)
{
    const std::string output = outputWithEnvironment("nonsense");
    EXPECT_NE(output.find("Ignoring malformed OV_LOG [nonsense]"), std::string::npos);
    EXPECT_NE(output.find("level 5"), std::string::npos);
    EXPECT_EQ(output.find("level 6"), std::string::npos);
}
