// Logging that never waits for the reader of stderr. A process cannot leave this mode, so each test logs in a
// child process.

#include "common/Logging.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/TemporaryFolder.h"
#include "tests/support/Wait.h"

OV_LOG_CONTROL_WORDS;

namespace
{

constexpr int rounds = 2;

// More than fits into any stderr of these tests.
int linesPerRound(std::size_t lineBytes)
{
    return static_cast<int>(std::size_t{400} * 1000 / lineBytes) + 50;
}

struct Ends
{
    int reader;
    int writer;
};

Ends makePipe()
{
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe(ends.data()), 0);
    return {ends[0], ends[1]};
}

Ends makeSocket()
{
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    return {ends[0], ends[1]};
}

// A process that logs lines in rounds, and starts each round on command.
class Process
{
public:
    Process(int standardError, std::size_t lineBytes) : mPid(fork())
    {
        if (mPid != 0)
            return;
        dup2(standardError, STDERR_FILENO);
        ov_log_never_wait();
        const std::string filler(lineBytes, 'x');
        for (int round = 0; round < rounds; ++round)
        {
            for (int line = 0; line < linesPerRound(lineBytes); ++line)
                OV_LOG(0, "%s whole", filler.c_str());
            endRound();
        }
        OV_LOG(0, "last");
        _exit(EXIT_SUCCESS);
    }

    // Returns false if the process waits for a reader.
    bool finishesRound() const
    {
        char byte = 0;
        return eventually([&] { return read(mDone.reader, &byte, 1) == 1; });
    }

    void goOn() const { EXPECT_EQ(write(mGo.writer, "", 1), 1); }

    void join() const
    {
        int status = -1;
        EXPECT_EQ(waitpid(mPid, &status, 0), mPid);
        EXPECT_EQ(status, 0);
    }

    void kill() const { ::kill(mPid, SIGKILL); }

private:
    void endRound() const
    {
        char byte = 0;
        if (write(mDone.writer, &byte, 1) != 1 || read(mGo.reader, &byte, 1) != 1)
            _exit(EXIT_FAILURE);
    }

    static Ends nonBlocking(Ends ends)
    {
        fcntl(ends.reader, F_SETFL, O_NONBLOCK);
        return ends;
    }

    const Ends mDone = nonBlocking(makePipe());
    const Ends mGo = makePipe();
    const pid_t mPid;
};

std::string drained(int reader)
{
    fcntl(reader, F_SETFL, O_NONBLOCK);
    std::string text;
    std::array<char, 65536> bytes{};
    for (ssize_t count = 0; (count = read(reader, bytes.data(), bytes.size())) > 0;)
        text.append(bytes.data(), static_cast<std::size_t>(count));
    return text;
}

int occurrences(const std::string& text, const std::string& what)
{
    int count = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++count;
    return count;
}

// The sum of the dropped lines that the text reports.
int dropped(const std::string& text)
{
    static const std::string words = " log lines were dropped, nobody read them";
    int sum = 0;
    for (std::size_t at = text.find(words); at != std::string::npos; at = text.find(words, at + 1))
        sum += std::stoi(text.substr(text.rfind(' ', at - 1)));
    return sum;
}

// Whether each report stands on its own line, without a fragment of another line before it.
bool tellsOnLinesOfTheirOwn(const std::string& text)
{
    constexpr std::size_t longest = 250;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
    {
        if (line.find("log lines were dropped") != std::string::npos && line.size() > longest)
            return false;
    }
    return true;
}

// Everything that the process writes to a stderr that is read only between the rounds.
std::string written(const Ends& ends, std::size_t lineBytes)
{
    const Process process(ends.writer, lineBytes);
    std::string text;
    for (int round = 0; round < rounds; ++round)
    {
        if (!process.finishesRound())
        {
            process.kill();
            ADD_FAILURE() << "the process blocks";
            return text;
        }
        EXPECT_EQ(fcntl(ends.writer, F_GETFL) & O_NONBLOCK, 0) << "other processes write to stderr, too";
        text += drained(ends.reader);
        process.goOn();
    }
    process.join();
    return text + drained(ends.reader);
}

void expectEachLineWholeOrCounted(const Ends& ends, std::size_t lineBytes)
{
    const std::string text = written(ends, lineBytes);
    const int whole = occurrences(text, "x whole\n");
    EXPECT_GT(whole, 0);
    EXPECT_GT(dropped(text), 0);
    EXPECT_EQ(whole + dropped(text), rounds * linesPerRound(lineBytes));
    EXPECT_EQ(occurrences(text, "log lines were dropped"), rounds);
    EXPECT_EQ(occurrences(text, "last\n"), 1);
    EXPECT_TRUE(tellsOnLinesOfTheirOwn(text));
}

} // namespace

TEST(ImpatientLogging, dropsWhatAPipeDoesNotTakeAndTellsHowMany)
{
    expectEachLineWholeOrCounted(makePipe(), 100);
}

TEST(ImpatientLogging, countsLinesOfWhichAPipeTookOnlyAPart)
{
    constexpr std::size_t moreThanAtOnce = 6000;
    expectEachLineWholeOrCounted(makePipe(), moreThanAtOnce);
}

TEST(ImpatientLogging, dropsWhatASocketDoesNotTakeAndTellsHowMany)
{
    expectEachLineWholeOrCounted(makeSocket(), 100);
}

TEST(ImpatientLogging, countsLinesOfWhichASocketTookOnlyAPart)
{
    constexpr std::size_t odd = 70000;
    expectEachLineWholeOrCounted(makeSocket(), odd);
}

TEST(ImpatientLogging, dropsNothingOnItsWayToAFile)
{
    const TemporaryFolder folder;
    const std::string name = folder / "log";
    const int file = open(name.c_str(), O_WRONLY | O_CREAT, S_IRUSR | S_IWUSR);
    written({open(name.c_str(), O_RDONLY), file}, 100);
    const std::string text = readFile(name);
    EXPECT_EQ(occurrences(text, "x whole\n"), rounds * linesPerRound(100));
    EXPECT_EQ(occurrences(text, "dropped"), 0);
}
