#include "statusctl/base/ChildCommand.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "statusctl/base/Failure.h"
#include "statusctl/base/SignalsBlocked.h"

namespace
{

constexpr int noProgram = 127;
constexpr int cannotRun = 126;
constexpr int bySignal = 128;

std::atomic<pid_t> running{0};

// Signals that end a process if it does not handle them, except SIGKILL and the signals of a crash.
template <class Function>
void forEachPassed(Function function)
{
    constexpr int passed[] = {SIGTERM,   SIGHUP,  SIGINT,  SIGQUIT, SIGUSR1, SIGUSR2, SIGALRM,
                              SIGVTALRM, SIGPROF, SIGPIPE, SIGXCPU, SIGXFSZ, SIGIO,   SIGPWR};
    for (const int signal : passed)
        function(signal);
    for (int signal = SIGRTMIN; signal <= SIGRTMAX; ++signal)
        function(signal);
}

// A key of the terminal (Ctrl-C, Ctrl-\) signals the whole group: the kernel has already signalled the child.
bool isOfTerminal(int signal, const siginfo_t& info)
{
    return info.si_code == SI_KERNEL && (signal == SIGINT || signal == SIGQUIT);
}

// SIGPIPE: this process has written, not the child.
bool isOwn(const siginfo_t& info)
{
    return info.si_code == SI_USER && info.si_pid == getpid();
}

void passOn(int signal, siginfo_t* info, void*)
{
    const int before = errno;
    const pid_t child = running;
    if (child > 0 && !isOfTerminal(signal, *info) && !isOwn(*info)) // kill(0) would signal the whole group
        kill(child, signal);
    errno = before;
}

bool isIgnored(int signal)
{
    struct sigaction how
    {
    };
    return sigaction(signal, nullptr, &how) == 0 && how.sa_handler == SIG_IGN;
}

// A signal that the caller ignores stays ignored, here and in the program. A shell without job control
// ignores SIGINT and SIGQUIT for commands before "&", and nohup ignores SIGHUP.
void handle(int signal, const struct sigaction& how)
{
    if (!isIgnored(signal))
        sigaction(signal, &how, nullptr);
}

void passSignalsOn()
{
    struct sigaction how
    {
    };
    how.sa_sigaction = passOn;
    how.sa_flags = SA_RESTART | SA_SIGINFO;
    forEachPassed([&](int signal) { handle(signal, how); });
}

void takeSignals()
{
    struct sigaction how
    {
    };
    how.sa_handler = SIG_DFL;
    forEachPassed([&](int signal) { handle(signal, how); });
}

void unblockSignals()
{
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

class Pipe
{
public:
    Pipe()
    {
        if (pipe2(mEnds.data(), O_CLOEXEC) != 0)
            throw Failure(ExitCode::Failed, std::string("cannot create a pipe: ") + strerror(errno));
    }
    ~Pipe()
    {
        close(mEnds[0]);
        closeWriting();
    }

    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int reading() const { return mEnds[0]; }
    int writing() const { return mEnds[1]; }
    void closeWriting() { close(std::exchange(mEnds[1], -1)); }

private:
    std::array<int, 2> mEnds{};
};

// Runs in the new process. Other threads of the old one may have held locks, so this allocates nothing.
[[noreturn]] void become(char* const* arguments, int failure)
{
    unblockSignals();
    execvp(arguments[0], arguments);
    const int error = errno;
    (void)!write(failure, &error, sizeof error); // without it, the exit code tells enough
    _exit(noProgram);
}

void dieWith(pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        _exit(bySignal + SIGKILL); // it died before
}

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

ChildCommand::ChildCommand(const std::vector<std::string>& words, AtOurDeath atOurDeath)
{
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words)
        arguments.push_back(const_cast<char*>(word.c_str())); // execvp() does not write to them
    arguments.push_back(nullptr);
    const SignalsBlocked blocked; // a signal that comes before the handlers are set is still passed on
    Pipe failure;
    const pid_t us = getpid();
    mPid = fork();
    if (mPid < 0)
        throw Failure(static_cast<ExitCode>(cannotRun),
                      std::string("cannot create a process: ") + strerror(errno));
    if (mPid == 0)
    {
        if (atOurDeath == AtOurDeath::Dies)
            dieWith(us);
        become(arguments.data(), failure.writing());
    }
    failure.closeWriting();
    checkStarted(words.front(), failure.reading());
    running = mPid;
    passSignalsOn();
}

// The kernel closes the pipe when the program starts.
void ChildCommand::checkStarted(const std::string& program, int failure) const
{
    int error = 0;
    if (read(failure, &error, sizeof error) <= 0)
        return;
    reap(mPid);
    throw Failure(static_cast<ExitCode>(error == ENOENT ? noProgram : cannotRun),
                  "cannot run \"" + program + "\": " + strerror(error));
}

ChildCommand::~ChildCommand()
{
    takeSignals();
}

int ChildCommand::wait(const OtherEnded& otherEnded) const
{
    for (pid_t ended = nextEnded(); ended != mPid; ended = nextEnded())
        otherEnded(ended, reap(ended));
    running = 0; // once reaped, the kernel may reuse the process id
    const int status = reap(mPid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : bySignal + WTERMSIG(status);
}
