#ifndef STATUSCTL_VERBS_VERB_H
#define STATUSCTL_VERBS_VERB_H

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "statusctl/base/Failure.h"
#include "statusctl/base/Settings.h"

/// A command of the tool. Each verb's file defines its class, and the function that adds it to the command
/// line.
class IVerb
{
public:
    virtual ~IVerb() = default;

    /// @throws Failure
    virtual ExitCode run(const Settings& settings) = 0;
};

namespace Verbs
{

using Add = std::unique_ptr<IVerb> (*)(CLI::App& app);

std::unique_ptr<IVerb> addGet(CLI::App& app);
std::unique_ptr<IVerb> addSet(CLI::App& app);
std::unique_ptr<IVerb> addReset(CLI::App& app);
std::unique_ptr<IVerb> addForget(CLI::App& app);
std::unique_ptr<IVerb> addDump(CLI::App& app);
std::unique_ptr<IVerb> addLoad(CLI::App& app);
std::unique_ptr<IVerb> addWatch(CLI::App& app);
std::unique_ptr<IVerb> addWait(CLI::App& app);
std::unique_ptr<IVerb> addEvent(CLI::App& app);
std::unique_ptr<IVerb> addTimer(CLI::App& app);
std::unique_ptr<IVerb> addCounter(CLI::App& app);
std::unique_ptr<IVerb> addPing(CLI::App& app);
std::unique_ptr<IVerb> addStats(CLI::App& app);
std::unique_ptr<IVerb> addClients(CLI::App& app);
std::unique_ptr<IVerb> addMay(CLI::App& app);
std::unique_ptr<IVerb> addShow(CLI::App& app);
std::unique_ptr<IVerb> addRecord(CLI::App& app);
std::unique_ptr<IVerb> addReplay(CLI::App& app);
std::unique_ptr<IVerb> addTop(CLI::App& app);
std::unique_ptr<IVerb> addDoctor(CLI::App& app);
std::unique_ptr<IVerb> addSandbox(CLI::App& app);
std::unique_ptr<IVerb> addCompletion(CLI::App& app);
std::unique_ptr<IVerb> addHelp(CLI::App& app);

/// Adds a command with its help.
/// @param examples one a line
/// @param details  more than the summary says; lines of at most 100 characters
CLI::App& describe(CLI::App& app, const std::string& name, const std::string& summary,
                   const std::string& examples, const std::string& details = "");

/// @returns that the word is no command of `app`, and perhaps which command was meant
std::string unknown(const std::string& word, const CLI::App& app);

/// The argument must be a whole number.
/// @param most the largest number; the largest of 64 bits stands for no limit
CLI::Validator wholeNumber(uint64_t least, uint64_t most = UINT64_MAX);

/// The argument must be one of at least two words.
CLI::Validator oneOf(const std::vector<std::string>& words);

/// Adds an option that takes a duration.
CLI::Option* addDuration(CLI::App& command, const std::string& names,
                         std::optional<std::chrono::milliseconds>& value, const std::string& text);

} // namespace Verbs

#endif
