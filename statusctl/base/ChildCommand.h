#ifndef STATUSCTL_BASE_CHILDCOMMAND_H
#define STATUSCTL_BASE_CHILDCOMMAND_H

#include <string>
#include <sys/types.h>
#include <vector>

/// Runs another program and waits for it. One at a time.
///
/// Passes SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGUSR1 and SIGUSR2 on to the child. SIGINT and SIGQUIT from the
/// terminal are not passed on: the terminal sends them to both processes.
class ChildCommand
{
public:
    /// Starts the program, searching PATH.
    /// @throws Failure if it cannot be started, with a shell's exit codes: 127 for no such program, else 126
    explicit ChildCommand(const std::vector<std::string>& words);

    ChildCommand(const ChildCommand&) = delete;
    ChildCommand& operator=(const ChildCommand&) = delete;

    /// Returns the child's exit code, or 128 plus the signal's number if a signal ended it.
    /// @throws Failure if the kernel reports nothing about the child: this process ignores SIGCHLD
    int wait() const;

private:
    pid_t mPid = -1;
};

#endif
