#include "statusctl/base/ChildCommand.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "statusctl/base/Failure.h"

namespace
{

constexpr int noProgram = 127;
constexpr int cannotRun = 126;
constexpr int bySignal = 128;

std::atomic<pid_t> running{0};

void passOn(int signal)
{
    const int before = errno;
    kill(running, signal);
    errno = before;
}

void setAction(int signal, void (*action)(int))
{
    struct sigaction how
    {
    };
    how.sa_handler = action;
    how.sa_flags = SA_RESTART;
    sigaction(signal, &how, nullptr);
}

// What the program begins with: signals as they are for any program.
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
    const int error =
        posix_spawnp(&mPid, arguments.front(), nullptr, attributes.get(), arguments.data(), environ);
    if (error != 0)
        throw Failure(static_cast<ExitCode>(error == ENOENT ? noProgram : cannotRun),
                      "cannot run \"" + words.front() + "\": " + strerror(error));
    running = mPid;
    setAction(SIGTERM, passOn);
    setAction(SIGHUP, passOn);
    setAction(SIGINT, SIG_IGN);
    setAction(SIGQUIT, SIG_IGN);
}

int ChildCommand::wait()
{
    int status = 0;
    while (waitpid(mPid, &status, 0) < 0 && errno == EINTR)
    {
    }
    running = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : bySignal + WTERMSIG(status);
}
