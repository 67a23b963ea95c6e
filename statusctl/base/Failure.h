#ifndef STATUSCTL_BASE_FAILURE_H
#define STATUSCTL_BASE_FAILURE_H

#include <stdexcept>
#include <string>

/// The meaning of the process's exit code. Documented in statusctl(1); scripts depend on the numbers.
enum class ExitCode
{
    Done = 0,
    Failed = 1, ///< or refused
    WrongUsage = 2,
    NotFound = 3,
    Unreachable = 4,
    BadReply = 5,
    TimedOut = 124,
};

/// Ends the command: told as one line on standard error.
class Failure : public std::runtime_error
{
public:
    Failure(ExitCode code, const std::string& reason) : std::runtime_error(reason), mCode(code) {}

    ExitCode code() const { return mCode; }

private:
    ExitCode mCode;
};

#endif
