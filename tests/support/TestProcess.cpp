#include "tests/support/TestProcess.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace
{

struct Pipe
{
    Pipe()
    {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) != 0)
            throw std::runtime_error("pipe2 failed");
        read = ends[0];
        write = ends[1];
    }
    int read;
    int write;
};

} // namespace

TestProcess::TestProcess(const std::vector<std::string>& command)
{
    std::vector<char*> arguments;
    for (const std::string& argument : command)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);

    const Pipe input;
    const Pipe output;
    const Pipe error;
    mPid = fork();
    if (mPid == -1)
        throw std::runtime_error("fork failed");
    if (mPid == 0)
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(input.read, STDIN_FILENO);
        dup2(output.write, STDOUT_FILENO);
        dup2(error.write, STDERR_FILENO);
        execv(arguments[0], arguments.data());
        _exit(127);
    }
    close(input.read);
    close(output.write);
    close(error.write);
    mInput = input.write;
    mOutput = output.read;
    mError = error.read;
}

TestProcess::~TestProcess()
{
    closeInput();
    if (!waitForExit(std::chrono::milliseconds(0)))
    {
        signal(SIGKILL);
        waitForExit();
    }
    closeOutput();
    closeErrors();
}

void TestProcess::signal(int number)
{
    kill(mPid, number);
}

void TestProcess::suspend()
{
    signal(SIGSTOP);
    int status = 0;
    while (waitpid(mPid, &status, WUNTRACED) == -1 && errno == EINTR)
    {
    }
    if (!WIFSTOPPED(status))
        throw std::runtime_error("the process ended instead of being suspended");
}

void TestProcess::write(const std::string& bytes)
{
    if (::write(mInput, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        throw std::runtime_error("the process takes no input");
}

void TestProcess::closeInput()
{
    if (mInput != -1)
        close(mInput);
    mInput = -1;
}

std::optional<int> TestProcess::waitForExit(std::chrono::milliseconds deadline)
{
    eventually(
        [this]
        {
            int status = 0;
            if (!mExitCode && waitpid(mPid, &status, WNOHANG) == mPid)
                mExitCode = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
            return mExitCode.has_value();
        },
        deadline);
    return mExitCode;
}

// Returns false at the end of the stream or at the deadline.
bool TestProcess::fill(int descriptor, std::string& buffer, std::chrono::milliseconds deadline)
{
    pollfd item{descriptor, POLLIN, 0};
    if (descriptor == -1 || poll(&item, 1, static_cast<int>(deadline.count())) <= 0)
        return false;
    std::array<char, 4096> bytes{};
    const ssize_t count = read(descriptor, bytes.data(), bytes.size());
    if (count <= 0)
        return false;
    buffer.append(bytes.data(), static_cast<std::size_t>(count));
    return true;
}

std::optional<std::string> TestProcess::readLine(std::chrono::milliseconds deadline)
{
    while (mOutputText.find('\n') == std::string::npos)
    {
        if (!fill(mOutput, mOutputText, deadline))
            return std::nullopt;
    }
    const std::size_t end = mOutputText.find('\n');
    std::string line = mOutputText.substr(0, end);
    mOutputText.erase(0, end + 1);
    return line;
}

std::string TestProcess::readRest()
{
    while (fill(mOutput, mOutputText, testDeadline))
    {
    }
    return std::exchange(mOutputText, {});
}

std::string TestProcess::errors()
{
    while (fill(mError, mErrorText, std::chrono::milliseconds(0)))
    {
    }
    return mErrorText;
}

bool TestProcess::waitForError(const std::string& text)
{
    return eventually([&] { return errors().find(text) != std::string::npos; });
}

void TestProcess::closeOutput()
{
    if (mOutput != -1)
        close(mOutput);
    mOutput = -1;
}

void TestProcess::closeErrors()
{
    if (mError != -1)
        close(mError);
    mError = -1;
}
