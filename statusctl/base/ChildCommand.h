#ifndef STATUSCTL_BASE_CHILDCOMMAND_H
#define STATUSCTL_BASE_CHILDCOMMAND_H

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

/// Runs another program and waits for it. One at a time.
///
/// Passes all signals on to the child that would end this process, except SIGKILL and the signals of a crash.
/// SIGINT and SIGQUIT from the terminal are not passed on: the terminal sends them to both processes.
/// Between the end of the child and the destructor they have no effect.
/// Signals that are ignored stay ignored, also in the child.
class ChildCommand
{
public:
    /// If this process dies without ending the child, as by SIGKILL. Processes that the child has started
    /// continue in both cases.
    enum class AtOurDeath
    {
        Continues,
        Dies,
    };

    /// Starts the program, searching PATH. If the child shall die with us, the calling thread must be the one
    /// that ends last: the kernel looks at the thread.
    /// @throws Failure if it cannot be started, with a shell's exit codes: 127 for no such program, else 126
    explicit ChildCommand(const std::vector<std::string>& words,
                          AtOurDeath atOurDeath = AtOurDeath::Continues);

    ~ChildCommand();

    ChildCommand(const ChildCommand&) = delete;
    ChildCommand& operator=(const ChildCommand&) = delete;

    /// Called with another child of this process that has ended, and its status as waitpid() reports it.
    using OtherEnded = std::function<void(pid_t child, int status)>;

    /// Meanwhile reaps all other children that end. A process may have some that it did not start: children
    /// of the program that it has replaced, and orphans (see Descendants).
    ///
    /// Returns the child's exit code, or 128 plus the signal's number if a signal ended it.
    /// @throws Failure if the kernel reports nothing about the child: this process ignores SIGCHLD
    int wait(const OtherEnded& otherEnded = [](pid_t, int) {}) const;

private:
    void checkStarted(const std::string& program, int failure) const;

    pid_t mPid = -1;
};

#endif
