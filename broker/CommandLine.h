#ifndef BROKER_COMMANDLINE_H
#define BROKER_COMMANDLINE_H

#include <string>
#include <vector>

#include "broker/ConfigFile.h"
#include "broker/Options.h"

/// The broker's command line, and the configuration file that it may name. Both have the same options. The
/// command line wins.
class CommandLine
{
public:
    /// The exit code for a wrong command line and for a wrong file: another start would fail in the same way.
    static constexpr int wrongUsage = 2;

    /// Thrown when the program must end: it has printed the help, or the mistake in the command line.
    struct Exit
    {
        int code;
    };

    CommandLine(int argc, char** argv);

    /// Whether to check the configuration only, without serving.
    bool isCheck() const { return mIsCheck; }

    /// Reads the file, if one is named, and puts the command line over it. If neither names a state file, the
    /// environment variable STATUSBROKER_STATE does. May be called again later, when the file has changed.
    /// Throws ConfigError.
    Options readOptions() const;

private:
    std::vector<std::string> mArguments; // without the program's name
    std::string mConfigFile;
    bool mIsCheck = false;
};

#endif
