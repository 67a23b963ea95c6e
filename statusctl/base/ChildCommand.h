#ifndef STATUSCTL_BASE_CHILDCOMMAND_H
#define STATUSCTL_BASE_CHILDCOMMAND_H

#include <string>
#include <sys/types.h>
#include <vector>

/// Another program, which runs while this one waits for it. One at a time.
///
/// Signals to this program go to the other one: SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGUSR1 and SIGUSR2 are
/// passed on. SIGINT and SIGQUIT are not where they come from the terminal, which sends them to both.
class ChildCommand
{
public:
    /// Starts it, found as the shell finds programs.
    /// @throws Failure if it cannot be started; with the exit codes of shells, 127 if there is no such
    ///         program, else 126
    explicit ChildCommand(const std::vector<std::string>& words);

    ChildCommand(const ChildCommand&) = delete;
    ChildCommand& operator=(const ChildCommand&) = delete;

    /// Returns its exit code; 128 and the signal's number if a signal has ended it.
    int wait() const;

private:
    pid_t mPid = -1;
};

#endif
