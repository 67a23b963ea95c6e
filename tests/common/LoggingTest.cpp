#include "common/Logging.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <deque>
#include <fnmatch.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <vector>

#include "tests/support/LogCapture.h"

OV_LOG_CONTROL_WORDS;

namespace
{

constexpr unsigned int messagesBit = 1U << 31;
constexpr unsigned int tracesBit = 1U << 30;

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

// Runs `work` with stderr going into a pipe, and returns what was written.
template <class Work>
std::string stderrOf(Work work)
{
    testing::internal::CaptureStderr();
    work();
    return testing::internal::GetCapturedStderr();
}

int occurrences(const std::string& output, const std::string& text)
{
    int count = 0;
    for (std::size_t at = output.find(text); at != std::string::npos; at = output.find(text, at + 1))
        ++count;
    return count;
}

class LoggingTest : public testing::Test
{
protected:
    void TearDown() override
    {
        ov_log_configure("*=5:ffffffff");
        ov_log_indent = 0;
        ov_log_indent_size = 2;
    }

    std::vector<std::string> levels()
    {
        log.clear();
        logAtEveryLevel();
        return log.texts();
    }

    LogCapture log;
};

using Texts = std::vector<std::string>;

} // namespace

// ------------------------------------------------------------------------------------------- control words

TEST_F(LoggingTest, withoutBitThirtyOneOnlyTheUnguardedLevelsAreLogged)
{
    ov_log_configure("LoggingTest=7:7fffffff");
    EXPECT_EQ(levels(), (Texts{"level 0", "level 1", "level 2"}));
    ov_log_configure("LoggingTest=7:80000000");
    EXPECT_EQ(levels().size(), 6U);
}

TEST_F(LoggingTest, theUnguardedLevelsIgnoreTheFilesLevel)
{
    ov_log_configure("LoggingTest=0:0");
    EXPECT_EQ(levels(), (Texts{"level 0", "level 1", "level 2"}));
}

TEST_F(LoggingTest, aGuardedLevelIsLoggedFromItsLevelOn)
{
    ov_log_configure("LoggingTest=6");
    EXPECT_EQ(levels().back(), "level 6");
    ov_log_configure("LoggingTest=7");
    EXPECT_EQ(levels().back(), "level 7");
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
    // A lambda, which may be called out of line, could not stand here.
    static_assert(std::is_same_v<decltype(OV_LOG_FILE), const char*>);
}

// -------------------------------------------------------------------------------------------------- traces

TEST_F(LoggingTest, aTraceScopeLogsBeginAndEndAtTheSamePlace)
{
    ov_log_configure("LoggingTest=7:40000000");
    traced(7);
    const std::vector<LogLine> lines = log.lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].text, "begin");
    EXPECT_EQ(lines[1].text, "end");
    EXPECT_EQ(lines[0].function, lines[1].function);
    EXPECT_EQ(lines[0].file, lines[1].file);
    EXPECT_EQ(lines[0].line, lines[1].line);
    EXPECT_EQ(lines[0].level, 7);
}

TEST_F(LoggingTest, withoutBitThirtyATraceScopeIsSilent)
{
    ov_log_configure("LoggingTest=7:bfffffff");
    traced(6);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(LoggingTest, aTraceScopeAboveTheLevelIsSilent)
{
    ov_log_configure("LoggingTest=6:ffffffff");
    traced(7);
    EXPECT_TRUE(log.lines().empty());
    traced(6);
    EXPECT_EQ(log.lines().size(), 2U);
}

TEST_F(LoggingTest, beginIsDeeperAndEndShallower)
{
    ov_log_configure("LoggingTest=7:40000000");
    ov_log_indent_size = 4;
    traced(7);
    EXPECT_EQ(log.lines()[0].indent, 4);
    EXPECT_EQ(log.lines()[1].indent, 0);
}

TEST_F(LoggingTest, nestedTraceScopesStepInAndOutAgain)
{
    ov_log_configure("LoggingTest=7:40000000");
    {
        OV_TRACE(7);
        traced(7);
    }
    std::vector<int> indents;
    for (const LogLine& line : log.lines())
        indents.push_back(line.indent);
    EXPECT_EQ(log.texts(), (Texts{"begin", "begin", "end", "end"}));
    EXPECT_EQ(indents, (std::vector<int>{2, 4, 2, 0}));
}

TEST_F(LoggingTest, aTraceScopeNeedsNoneOfTheOtherFlags)
{
    volatile unsigned int flags = tracesBit;
    volatile int level = 6;
    {
        const Tracer tracer(6, "int f()", "/f.cpp", 12, flags, level);
    }
    ASSERT_EQ(log.lines().size(), 2U);
    for (const LogLine& line : log.lines())
    {
        EXPECT_EQ(line.level, 6);
        EXPECT_EQ(line.function, "int f()");
        EXPECT_EQ(line.file, "/f.cpp");
        EXPECT_EQ(line.line, 12);
    }
}

TEST_F(LoggingTest, aLevelLoweredInsideATraceScopeSilencesItsEnd)
{
    ov_log_configure("LoggingTest=7:40000000");
    {
        OV_TRACE(7);
        ov_log_configure("LoggingTest=6");
    }
    EXPECT_EQ(log.texts(), Texts{"begin"});
}

TEST_F(LoggingTest, traceScopesOfConcurrentThreadsAllBeginAndEnd)
{
    ov_log_configure("LoggingTest=7:40000000");
    std::vector<std::thread> threads;
    for (int index = 0; index < 4; ++index)
        threads.emplace_back(
            []
            {
                for (int count = 0; count < 100; ++count)
                    traced(7);
            });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(log.count(7, "begin"), 400U);
    EXPECT_EQ(log.count(7, "end"), 400U);
}

TEST_F(LoggingTest, theControlWordsAreReadAgainAtTheEnd)
{
    ov_log_configure("LoggingTest=7:40000000");
    {
        OV_TRACE(7);
        ov_log_configure("LoggingTest=7:0");
    }
    EXPECT_EQ(log.texts(), Texts{"begin"});
    log.clear();
    {
        OV_TRACE(7);
        ov_log_configure("LoggingTest=7:40000000");
    }
    EXPECT_EQ(log.texts(), Texts{"end"});
}

TEST_F(LoggingTest, anIndentationOfZeroStaysZeroAtAnEnd)
{
    for (const int indent : {0, -5})
    {
        volatile unsigned int flags = 0;
        volatile int level = 7;
        {
            const Tracer tracer(7, "f", "/f.cpp", 1, flags, level);
            flags = tracesBit;
            ov_log_indent = indent;
        }
        EXPECT_EQ(ov_log_indent, 0);
    }
}

TEST_F(LoggingTest, aStepWiderThanTheIndentationTakesItBelowZero)
{
    volatile unsigned int flags = 0;
    volatile int level = 7;
    ov_log_indent_size = 4;
    {
        const Tracer tracer(7, "f", "/f.cpp", 1, flags, level);
        flags = tracesBit;
        ov_log_indent = 1;
    }
    EXPECT_EQ(ov_log_indent, -3);
}

TEST_F(LoggingTest, aTraceScopeEndsWhenAnExceptionLeavesIt)
{
    ov_log_configure("LoggingTest=7:40000000");
    try
    {
        OV_TRACE(7);
        throw 1;
    }
    catch (int)
    {
    }
    EXPECT_EQ(log.texts(), (Texts{"begin", "end"}));
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

// A process of its own, since the variable is read when the first file registers.
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

// Run again by the tests below, each with its own environment. Nothing else has changed the control words.
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

// -------------------------------------------------------------------------------------------------- stderr

TEST(StandardError, oneLineHoldsTimeProcessThreadLevelPlaceAndText)
{
    const std::string line = stderrOf([] { OV_LOG(2, "text %d", 7); });
    const std::string ids = std::to_string(getpid()) + "/" + std::to_string(gettid());
    EXPECT_EQ(line.size() - 1, line.find('\n'));
    EXPECT_EQ(line.find(ids), std::string("2026-11-20T22:30:01.123456Z ").size());
    EXPECT_NE(line.find(ids + " 2 LoggingTest.cpp:"), std::string::npos);
    EXPECT_NE(line.find(": text 7\n"), std::string::npos);
}

TEST(StandardError, bytesThatAreNotPrintableAreEscaped)
{
    const std::string line = stderrOf([] { OV_LOG(2, "[%s]", "a\nb\tc\x1b[31m\x7f\xc3\xa4"); });
    EXPECT_NE(line.find("[a\\x0ab\\x09c\\x1b[31m\\x7f\\xc3\\xa4]\n"), std::string::npos);
}

TEST(StandardError, aVeryLongMessageIsWhole)
{
    const std::string text(100000, 'x');
    const std::string line = stderrOf([&] { OV_LOG(2, "[%s]", text.c_str()); });
    EXPECT_NE(line.find("[" + text + "]\n"), std::string::npos);
}

TEST(StandardError, linesOfConcurrentThreadsDoNotMix)
{
    const std::string output = stderrOf(
        []
        {
            std::vector<std::thread> threads;
            for (int index = 0; index < 8; ++index)
                threads.emplace_back(
                    [index]
                    {
                        for (int count = 0; count < 200; ++count)
                            OV_LOG(2, "<%s>", std::string(50, static_cast<char>('a' + index)).c_str());
                    });
            for (std::thread& thread : threads)
                thread.join();
        });
    EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 8 * 200);
    int whole = 0;
    for (char letter = 'a'; letter < 'i'; ++letter)
        whole += occurrences(output, "<" + std::string(50, letter) + ">\n");
    EXPECT_EQ(whole, 8 * 200);
}

TEST(StandardError, linesOfConcurrentProcessesDoNotMix)
{
    constexpr int processes = 4;
    constexpr int linesEach = 200;
    const std::string output = stderrOf(
        []
        {
            std::vector<pid_t> children;
            for (int index = 0; index < processes; ++index)
            {
                const pid_t child = fork();
                ASSERT_NE(child, -1);
                if (child == 0)
                {
                    for (int count = 0; count < linesEach; ++count)
                        OV_LOG(2, "<%s>", std::string(50, static_cast<char>('a' + index)).c_str());
                    _exit(0);
                }
                children.push_back(child);
            }
            for (const pid_t child : children)
            {
                int status = -1;
                waitpid(child, &status, 0);
                EXPECT_EQ(status, 0);
            }
        });
    EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), processes * linesEach);
    for (int index = 0; index < processes; ++index)
        EXPECT_EQ(occurrences(output, "<" + std::string(50, static_cast<char>('a' + index)) + ">\n"),
                  linesEach);
}

namespace
{

// While it lives, stderr goes to a socket that keeps writes apart.
class SeparatedWrites
{
public:
    SeparatedWrites()
    {
        socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, mEnds.data());
        dup2(mEnds[1], STDERR_FILENO);
    }
    ~SeparatedWrites()
    {
        dup2(mBefore, STDERR_FILENO);
        for (const int descriptor : {mEnds[0], mEnds[1], mBefore})
            close(descriptor);
    }

    SeparatedWrites(const SeparatedWrites&) = delete;
    SeparatedWrites& operator=(const SeparatedWrites&) = delete;

    // The bytes of the next write; empty when there was none.
    std::string next()
    {
        std::string bytes(100000, '\0');
        const ssize_t length = recv(mEnds[0], bytes.data(), bytes.size(), 0);
        bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
        return bytes;
    }

private:
    int mBefore = dup(STDERR_FILENO);
    std::array<int, 2> mEnds{};
};

} // namespace

TEST(StandardError, aMessageIsOneWriteHoweverLong)
{
    for (const std::size_t length : {0U, 1U, 511U, 512U, 513U, 5000U, 50000U})
    {
        const std::string text(length, 'x');
        SeparatedWrites writes;
        OV_LOG(2, "%s", text.c_str());
        const std::string line = writes.next();
        EXPECT_EQ(writes.next(), "");
        const std::string ending = ": " + text + "\n";
        ASSERT_GE(line.size(), ending.size());
        EXPECT_EQ(line.substr(line.size() - ending.size()), ending);
    }
}

TEST(StandardError, nobodyWhoReadsItIsNoReasonToFail)
{
    SeparatedWrites writes; // takes the closed descriptor's place at its end
    close(STDERR_FILENO);
    OV_LOG(2, "into the void");
    EXPECT_EQ(writes.next(), "");
}

TEST(StandardError, theTimeIsThatOfTheWallClockInUtc)
{
    const time_t before = time(nullptr);
    const std::string line = stderrOf([] { OV_LOG(2, "text"); });
    const time_t after = time(nullptr);
    tm parsed{};
    const char* rest = strptime(line.c_str(), "%Y-%m-%dT%H:%M:%S", &parsed);
    ASSERT_NE(rest, nullptr);
    EXPECT_EQ(fnmatch(".[0-9][0-9][0-9][0-9][0-9][0-9]Z *", rest, 0), 0) << rest;
    EXPECT_GE(timegm(&parsed), before);
    EXPECT_LE(timegm(&parsed), after);
}

TEST(StandardError, theTextIsIndentedWithinReason)
{
    const auto lineAtIndent = [](int indent)
    {
        ov_log_indent = indent;
        const std::string line = stderrOf([] { ov_log_print(2, "f", "/f.cpp", 3, "text"); });
        ov_log_indent = 0;
        return line.substr(line.find(" 2 f.cpp:3 f: "));
    };
    EXPECT_EQ(lineAtIndent(0), " 2 f.cpp:3 f: text\n");
    EXPECT_EQ(lineAtIndent(4), " 2 f.cpp:3 f:     text\n");
    EXPECT_EQ(lineAtIndent(-3), " 2 f.cpp:3 f: text\n");
    EXPECT_LT(lineAtIndent(1000000).size(), 200U);
}

TEST(StandardError, aMessageThatCannotBeFormattedIsToldByItsFormat)
{
    const wchar_t unknown[] = {0xe4, 0}; // has no bytes in the "C" locale
    const std::string line = stderrOf([&] { OV_LOG(2, "a word: %ls", &unknown[0]); });
    EXPECT_NE(line.find(": a word: %ls\n"), std::string::npos);
}

TEST(StandardError, loggingLeavesErrnoAlone)
{
    stderrOf(
        []
        {
            errno = 42;
            OV_LOG(2, "text");
            EXPECT_EQ(errno, 42);
        });
}

TEST(Sink, mayBeSetAndTakenAway)
{
    const std::string output = stderrOf(
        []
        {
            {
                const LogCapture log;
                OV_LOG(2, "to the sink");
                EXPECT_TRUE(log.has(2, "to the sink"));
            }
            OV_LOG(2, "to stderr");
        });
    EXPECT_EQ(output.find("to the sink"), std::string::npos);
    EXPECT_NE(output.find("to stderr"), std::string::npos);
}

namespace
{

struct Noted
{
    std::atomic<int> messages{0};
    std::string text;
};

// A thread may still call a sink that was replaced: its context must live until the process ends.
Noted& newContext()
{
    static auto* contexts = new std::deque<Noted>;
    return contexts->emplace_back();
}

void note(const ov_log_record* record, void* context)
{
    auto* noted = static_cast<Noted*>(context);
    ++noted->messages;
    noted->text = record->text;
}

void count(const ov_log_record*, void* context)
{
    ++static_cast<Noted*>(context)->messages;
}

// Logs from inside the first message, and goes away at the second.
void logAgain(const ov_log_record*, void* context)
{
    if (++static_cast<Noted*>(context)->messages == 1)
        OV_LOG(2, "from the sink");
    else
        ov_log_set_sink(nullptr, nullptr);
}

class SinkTest : public testing::Test
{
protected:
    Noted& noted = newContext();

    void TearDown() override { ov_log_set_sink(nullptr, nullptr); }
};

} // namespace

TEST_F(SinkTest, getsItsContextAndTheTextAsItIs)
{
    ov_log_set_sink(note, &noted);
    OV_LOG(2, "[%s]", "a\nb\x1b");
    EXPECT_EQ(noted.messages, 1);
    EXPECT_EQ(noted.text, "[a\nb\x1b]");
}

TEST_F(SinkTest, mayLogAndReplaceItself)
{
    const std::string output = stderrOf(
        [&]
        {
            ov_log_set_sink(logAgain, &noted);
            OV_LOG(2, "to the sink");
            OV_LOG(2, "to stderr");
        });
    EXPECT_EQ(noted.messages, 2);
    EXPECT_EQ(occurrences(output, "\n"), 1);
    EXPECT_EQ(occurrences(output, "to stderr\n"), 1);
}

TEST_F(SinkTest, mayBeReplacedWhileOtherThreadsLogAndNoMessageIsLost)
{
    Noted& other = newContext();
    ov_log_set_sink(count, &noted);
    std::vector<std::thread> threads;
    for (int index = 0; index < 2; ++index)
        threads.emplace_back(
            []
            {
                for (int message = 0; message < 1000; ++message)
                    OV_LOG(2, "text");
            });
    for (int round = 0; round < 500; ++round)
        ov_log_set_sink(count, round % 2 == 0 ? &other : &noted);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(noted.messages + other.messages, 2000);
}
