// Messages on standard error.

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <fnmatch.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "tests/common/LoggingFixture.h"

OV_LOG_CONTROL_WORDS;

TEST(StandardError, oneLineHoldsTimeProcessThreadLevelPlaceAndText)
{
    const std::string line = stderrOf([] { OV_LOG(2, "text %d", 7); });
    const std::string ids = std::to_string(getpid()) + "/" + std::to_string(gettid());
    EXPECT_EQ(line.size() - 1, line.find('\n'));
    EXPECT_EQ(line.find(ids), std::string("2026-11-20T22:30:01.123456Z ").size());
    EXPECT_NE(line.find(ids + " 2 StandardErrorTest.cpp:"), std::string::npos);
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

// Redirects stderr to a socket that keeps writes apart, while it lives.
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

    // The bytes of the next write; empty if there is none.
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
    SeparatedWrites writes; // its end leaves descriptor 2 closed, as before
    close(STDERR_FILENO);
    OV_LOG(2, "into the void");
    EXPECT_EQ(writes.next(), "");
}

TEST(StandardError, theTimeIsThatOfTheWallClockInUtc)
{
    // time() reads a coarse clock, which may lag behind by a tick.
    const auto now = [] { return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()); };
    const time_t before = now();
    const std::string line = stderrOf([] { OV_LOG(2, "text"); });
    const time_t after = now();
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
    const wchar_t unknown[] = {0xe4, 0}; // not representable in the "C" locale
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
