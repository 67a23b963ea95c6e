#include "statusctl/base/ChildCommand.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "statusctl/base/Failure.h"
#include "statusctl/base/SignalsBlocked.h"

namespace
{

constexpr int noProgram = 127;
constexpr int cannotRun = 126;
constexpr int bySignal = 128;

std::atomic<pid_t> running{0};

constexpr int passed[] = {SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGUSR2};

// A key of the terminal (Ctrl-C, Ctrl-\) signals the whole group: the kernel has already signalled the child.
bool isOfTerminal(int signal, const siginfo_t& info)
{
    return info.si_code == SI_KERNEL && (signal == SIGINT || signal == SIGQUIT);
}

void passOn(int signal, siginfo_t* info, void*)
{
    const int before = errno;
    const pid_t child = running;
    if (child > 0 && !isOfTerminal(signal, *info)) // kill(0) would signal the whole group
        kill(child, signal);
    errno = before;
}

void passSignalsOn()
{
    struct sigaction how
    {
    };
    how.sa_sigaction = passOn;
    how.sa_flags = SA_RESTART | SA_SIGINFO;
    for (const int signal : passed)
        sigaction(signal, &how, nullptr);
}

void takeSignals()
{
    for (const int signal : passed)
        std::signal(signal, SIG_DFL);
}

// The child begins with default signal handling and no signal blocked.
class Attributes
{
public:
    Attributes()
    {
        sigset_t none;
        sigemptyset(&none);
        sigset_t all;
        sigfillset(&all);
        posix_spawnattr_init(&mAttributes);
        posix_spawnattr_setsigmask(&mAttributes, &none);
        posix_spawnattr_setsigdefault(&mAttributes, &all);
        posix_spawnattr_setflags(&mAttributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~Attributes() { posix_spawnattr_destroy(&mAttributes); }

    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;

    const posix_spawnattr_t* get() const { return &mAttributes; }

private:
    posix_spawnattr_t mAttributes{};
};

[[noreturn]] void failToWait()
{
    throw Failure(ExitCode::Failed, std::string("cannot wait for the command: ") + strerror(errno));
}

// Waits until a child has ended, and leaves it as a zombie.
pid_t nextEnded()
{
    siginfo_t ended{};
    while (waitid(P_ALL, 0, &ended, WEXITED | WNOWAIT) != 0)
    {
        if (errno != EINTR)
            failToWait();
    }
    return ended.si_pid;
}

int reap(pid_t zombie)
{
    int status = 0;
    if (waitpid(zombie, &status, 0) != zombie)
        failToWait();
    return status;
}

} // namespace

ChildCommand::ChildCommand(const std::vector<std::string>& words)
{
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words)
        arguments.push_back(const_cast<char*>(word.c_str())); // posix_spawnp() does not write to them
    arguments.push_back(nullptr);
    const Attributes attributes;
    const SignalsBlocked blocked; // a signal that comes before the handlers are set is still passed on
    const int error =
        posix_spawnp(&mPid, arguments.front(), nullptr, attributes.get(), arguments.data(), environ);
    if (error != 0)
        throw Failure(static_cast<ExitCode>(error == ENOENT ? noProgram : cannotRun),
                      "cannot run \"" + words.front() + "\": " + strerror(error));
    running = mPid;
    passSignalsOn();
}

int ChildCommand::wait(const OtherEnded& otherEnded) const
{
    for (pid_t ended = nextEnded(); ended != mPid; ended = nextEnded())
        otherEnded(ended, reap(ended));
    running = 0; // once reaped, the kernel may reuse the process id
    const int status = reap(mPid);
    takeSignals(); // no child is left to pass them on to
    return WIFEXITED(status) ? WEXITSTATUS(status) : bySignal + WTERMSIG(status);
}
