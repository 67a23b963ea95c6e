#ifndef TESTS_STATUSCTL_TOOL_H
#define TESTS_STATUSCTL_TOOL_H

#include <ostream>
#include <string>
#include <vector>

#include "tests/support/TestProcess.h"

using Words = std::vector<std::string>;

/// The outcome of a command that has ended.
struct Outcome
{
    int code = -1; ///< 128+n for signal n; -1 at the deadline
    std::string output;
    std::string errors;
};

inline bool operator==(const Outcome& one, const Outcome& other)
{
    return one.code == other.code && one.output == other.output && one.errors == other.errors;
}

inline std::ostream& operator<<(std::ostream& stream, const Outcome& outcome)
{
    return stream << "exit code " << outcome.code << ", output <" << outcome.output << ">, errors <"
                  << outcome.errors << ">";
}

/// The tool's program and these words. It prints no colours, and the environment does not influence it.
Words commandOf(const Words& words);

/// The same, with interrupts ignored, as a script's shell starts commands before "&".
Words inBackground(const Words& words);

/// Runs the tool to its end.
Outcome statusctl(const Words& words, const std::string& input = "");

/// The outcome of a failure, with its message on standard error.
Outcome failure(int code, const std::string& text);

/// The outcome of a success, with this output.
Outcome success(const std::string& output);

/// The line without its first word, the time of day, which no test can know.
std::string withoutTime(const std::string& line);

/// Reads a line of "watch", without its time; "(nothing)" at the end or the deadline.
std::string nextLine(TestProcess& process);

#endif
