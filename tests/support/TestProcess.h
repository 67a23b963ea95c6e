#ifndef TESTS_SUPPORT_TESTPROCESS_H
#define TESTS_SUPPORT_TESTPROCESS_H

#include <chrono>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "tests/support/Wait.h"

/// A program run by a test, with pipes on its standard streams. Killed with its runner: at the latest by the
/// destructor, and by the kernel if the test dies.
class TestProcess
{
public:
    explicit TestProcess(const std::vector<std::string>& command);
    ~TestProcess();

    TestProcess(const TestProcess&) = delete;
    TestProcess& operator=(const TestProcess&) = delete;

    pid_t pid() const { return mPid; }
    void signal(int number);

    /// Suspends it, and returns when none of its threads runs any more. signal(SIGCONT) wakes it.
    void suspend();

    void write(const std::string& bytes);
    void writeLine(const std::string& line) { write(line + '\n'); }

    /// Ends its standard input: programs of the tests take that as the sign to leave.
    void closeInput();

    /// The exit code, 128+n for signal n; nothing if it still runs at the deadline.
    std::optional<int> waitForExit(std::chrono::milliseconds deadline = testDeadline);

    /// The next line of its standard output; nothing at its end or at the deadline.
    std::optional<std::string> readLine(std::chrono::milliseconds deadline = testDeadline);

    /// The rest of its standard output, up to its end; what there is at the deadline.
    std::string readRest();

    /// The text that it has written to standard error so far.
    std::string errors();
    bool waitForError(const std::string& text);

    /// Goes away as the reader of its standard output, or error.
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
