#ifndef STATUSCTL_COMMANDLINE_H
#define STATUSCTL_COMMANDLINE_H

#include <memory>
#include <string>
#include <vector>

#include "statusctl/base/Settings.h"
#include "statusctl/verbs/Verb.h"

/// Reads the command line: the options that all commands share, and the commands.
class CommandLine
{
public:
    CommandLine();

    /// @param arguments without the program's name
    /// @throws Failure if they are wrong; settings() then hold what was read so far
    /// @returns the command to run; null if help or the version was asked for, and printed
    IVerb* parse(std::vector<std::string> arguments);

    const Settings& settings() const { return mSettings; }

private:
    void addShared();
    void addVerbs();
    std::vector<std::string> withoutCommand(std::vector<std::string> arguments);

    struct Entry
    {
        CLI::App* command;
        std::unique_ptr<IVerb> verb;
    };

    CLI::App mApp;
    Settings mSettings;
    std::string mJson;
    bool mNoColor = false;
    std::vector<Entry> mEntries;
};

#endif
