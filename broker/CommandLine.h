#ifndef BROKER_COMMANDLINE_H
#define BROKER_COMMANDLINE_H

#include <string>
#include <vector>

#include "broker/ConfigFile.h"
#include "broker/Options.h"

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

    /// Reads the file, if one is named, and puts the command line over it. Where neither names a state file,
    /// STATUSBROKER_STATE in the environment does. May be called again later, when the file has changed.
    /// Throws ConfigError.
    Options readOptions() const;

private:
    std::vector<std::string> mArguments; // without the program's name
    std::string mConfigFile;
    bool mIsCheck = false;
};

#endif
