#ifndef TESTS_SUPPORT_TESTPROCESS_H
#define TESTS_SUPPORT_TESTPROCESS_H

#include <chrono>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "tests/support/Wait.h"

/// A program that a test runs, with pipes on its standard streams. The destructor kills it at the latest. The
/// kernel kills it if the test dies.
class TestProcess
{
public:
    explicit TestProcess(const std::vector<std::string>& command);
    ~TestProcess();

    TestProcess(const TestProcess&) = delete;
    TestProcess& operator=(const TestProcess&) = delete;

    pid_t pid() const { return mPid; }
    void signal(int number);

    /// Suspends it. Returns when none of its threads runs. signal(SIGCONT) wakes it.
    void suspend();

    void write(const std::string& bytes);
    void writeLine(const std::string& line) { write(line + '\n'); }

    /// Closes its standard input. The tests' programs then end.
    void closeInput();

    /// The exit code, or 128+n for signal n; nothing if it still runs at the deadline.
    std::optional<int> waitForExit(std::chrono::milliseconds deadline = testDeadline);

    /// The next line of its standard output; nothing at the end or the deadline.
    std::optional<std::string> readLine(std::chrono::milliseconds deadline = testDeadline);

    /// The rest of its standard output, up to its end or the deadline.
    std::string readRest();

    /// Everything it has written to standard error so far.
    std::string errors();
    bool waitForError(const std::string& text);

    /// Closes the reading end of its standard output, or of its standard error.
    void closeOutput();
    void closeErrors();

private:
    bool fill(int descriptor, std::string& buffer, std::chrono::milliseconds deadline);

    pid_t mPid = -1;
    int mInput = -1;
    int mOutput = -1;
    int mError = -1;
    std::string mOutputText;
    std::string mErrorText;
    std::optional<int> mExitCode;
};

#endif
