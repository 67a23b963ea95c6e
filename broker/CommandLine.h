#ifndef BROKER_COMMANDLINE_H
#define BROKER_COMMANDLINE_H

#include <stdexcept>
#include <string>
#include <vector>

#include "broker/Options.h"

/// What is wrong with a configuration file, in one line: "FILE:LINE: reason", or "FILE: reason" if it is not
/// about one line.
class ConfigError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// The broker's command line, and the configuration file that it may name. Both know the same options; what
/// is given on the command line wins.
class CommandLine
{
public:
    /// The exit code for a wrong command line and a wrong file alike: another start would end in the same
    /// way.
    static constexpr int wrongUsage = 2;

    /// Thrown when there is nothing more to do: help was shown, or what is wrong with the command line.
    struct Exit
    {
        int code;
    };

    CommandLine(int argc, char** argv);

    /// Only to be checked, not to be served.
    bool isCheck() const { return mIsCheck; }

    /// Reads the file, if one is named, and puts the command line over it. May be called again later, when
    /// the file has changed. Throws ConfigError.
    Options readOptions() const;

private:
    std::vector<std::string> mArguments; // without the program's name
    std::string mConfigFile;
    bool mIsCheck = false;
};

/// Reads a configuration: lines of "name = value", with the names of the long options. Empty lines are
/// ignored, and what follows a # at the beginning of a line or after a blank. Limits that contradict each
/// other are not refused, since the command line may change one of them. Throws ConfigError.
/// @param fileName to be named in errors
Options parseConfig(const std::string& text, const std::string& fileName);

#endif
