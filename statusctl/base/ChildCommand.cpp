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

// A key of the terminal means both: the kernel has sent its signal to the other one, too.
bool isOfTerminal(int signal, const siginfo_t& info)
{
    return info.si_code == SI_KERNEL && (signal == SIGINT || signal == SIGQUIT);
}

void passOn(int signal, siginfo_t* info, void*)
{
    const int before = errno;
    const pid_t child = running;
    if (child > 0 && !isOfTerminal(signal, *info)) // 0 would be all processes of the group, this one too
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

// The program begins with signals as they are for any program.
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

} // namespace

ChildCommand::ChildCommand(const std::vector<std::string>& words)
{
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words)
        arguments.push_back(const_cast<char*>(word.c_str())); // which are not written to
    arguments.push_back(nullptr);
    const Attributes attributes;
    const SignalsBlocked blocked; // one that comes meanwhile is passed on
    const int error =
        posix_spawnp(&mPid, arguments.front(), nullptr, attributes.get(), arguments.data(), environ);
    if (error != 0)
        throw Failure(static_cast<ExitCode>(error == ENOENT ? noProgram : cannotRun),
                      "cannot run \"" + words.front() + "\": " + strerror(error));
    running = mPid;
    passSignalsOn();
}

int ChildCommand::wait() const
{
    siginfo_t ignored;
    while (waitid(P_PID, static_cast<id_t>(mPid), &ignored, WEXITED | WNOWAIT) < 0 && errno == EINTR)
    {
    }
    running = 0; // before its number can be another's
    int status = 0;
    waitpid(mPid, &status, 0);
    takeSignals(); // there is nobody any more to whom to pass them on
    return WIFEXITED(status) ? WEXITSTATUS(status) : bySignal + WTERMSIG(status);
}
