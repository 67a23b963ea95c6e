#ifndef STATUSCTL_BASE_FAILURE_H
#define STATUSCTL_BASE_FAILURE_H

#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

/// The meaning of the process's exit code. Documented in statusctl(1); scripts depend on the numbers.
enum class ExitCode
{
    Done = 0,
    Failed = 1, ///< failed or refused
    WrongUsage = 2,
    NotFound = 3,
    Unreachable = 4,
    BadReply = 5,
    TimedOut = 124,
};

/// Ends the command. The reason is printed as one line on standard error.
class Failure : public std::runtime_error
{
public:
    using Lists = std::map<std::string, std::vector<std::string>>;

    /// @param lists names, grouped by outcome; added to the error in JSON. The reason names them as well
    Failure(ExitCode code, const std::string& reason, Lists lists = {})
        : std::runtime_error(reason), mCode(code), mLists(std::move(lists))
    {
    }

    ExitCode code() const { return mCode; }
    const Lists& lists() const { return mLists; }

private:
    ExitCode mCode;
    Lists mLists;
};

#endif
