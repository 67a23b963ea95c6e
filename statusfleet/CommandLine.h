#ifndef STATUSFLEET_COMMANDLINE_H
#define STATUSFLEET_COMMANDLINE_H

#include <memory>
#include <string>
#include <vector>

#include "statusfleet/Verb.h"

/// Reads the command line: the options that all commands share, and the commands.
class CommandLine
{
public:
    CommandLine();

    /// Runs the command.
    /// @param arguments without the program's name
    /// @throws Failure
    ExitCode run(std::vector<std::string> arguments);

    const Settings& settings() const { return mSettings; }

private:
    struct Entry
    {
        CLI::App* command;
        std::unique_ptr<IVerb> verb;
    };

    void addShared();
    bool parse(std::vector<std::string> arguments);
    ServerOptions readOptions() const;

    CLI::App mApp;
    Settings mSettings;
    std::string mJson;
    std::string mConfigFile;
    std::vector<Entry> mEntries;
};

#endif
