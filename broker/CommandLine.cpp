#include "broker/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include "broker/OptionTable.h"
#include "daemon/LastWords.h"
#include "daemon/OptionText.h"

namespace
{

CLI::Validator validatorOf(const OptionEntry& entry)
{
    const auto check = [&entry](std::string& value) { return entry.check(value); };
    return {check, entry.range};
}

// Applies the command line to existing options.
class BrokerApp : public CLI::App
{
public:
    explicit BrokerApp(Options& options)
        : CLI::App("The broker of the status manager: holds the status values, timers and counters of this "
                   "device and passes changes on to all clients. Serves 127.0.0.1, ports 5555 to 5557.",
                   "statusbroker"),
          mOptions(options)
    {
        add_option("--config", configFile,
                   "Read options from this file, as \"name = value\". The command line overrides it. "
                   "SIGHUP reads it again, for the limits, the log level and the policy")
            ->check(OptionText::checkText)
            ->type_name("FILE");
        add_flag("--check-config", isCheck, "Check the command line and the file, and exit");
        for (const OptionEntry& entry : optionTable())
            entry.kind == OptionEntry::Kind::Flag ? addFlag(entry) : addOption(entry);
        set_version_flag("--version", "statusbroker " STATUSBROKER_VERSION);
    }

    void parseWords(const std::vector<std::string>& words)
    {
        parse(std::vector<std::string>(words.rbegin(), words.rend())); // CLI11 expects the reverse order
    }

    std::string configFile;
    bool isCheck = false;

private:
    void addFlag(const OptionEntry& entry)
    {
        const auto set = [this, &entry](int64_t count)
        { entry.set(mOptions, {count > 0 ? "true" : "false"}); };
        add_flag_function("--" + entry.name, set, entry.text)->check(validatorOf(entry));
    }

    // Not bound to a variable: CLI11 would parse a glob such as "[a,b]" as a list.
    void addOption(const OptionEntry& entry)
    {
        const auto set = [this, &entry](const CLI::results_t& values)
        {
            entry.set(mOptions, values);
            return true;
        };
        CLI::Option* option = add_option("--" + entry.name, set, entry.text);
        option->type_name(entry.unit)->check(validatorOf(entry))->default_str(entry.initial);
        if (entry.kind == OptionEntry::Kind::Repeatable)
            option->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    }

    Options& mOptions;
};

// Only the service knows its folders. A file on the command line would override the configuration.
std::string stateOfTheService()
{
    const char* file = getenv("STATUSBROKER_STATE");
    return file == nullptr ? "" : file;
}

} // namespace

CommandLine::CommandLine(int argc, char** argv) : mArguments(argv + std::min(argc, 1), argv + argc)
{
    Options scratch;
    BrokerApp app(scratch);
    try
    {
        app.parseWords(mArguments);
        const std::string contradiction = contradictionIn(scratch.limits);
        if (app.configFile.empty() && !contradiction.empty()) // otherwise the file may set a limit that fits
            throw CLI::ValidationError(contradiction);
    }
    catch (const CLI::ParseError& error)
    {
        std::ostringstream complaint;
        const bool isWrong = app.exit(error, std::cout, complaint) != 0;
        printLastWords((isWrong ? "statusbroker: " : "") + complaint.str());
        throw Exit{isWrong ? wrongUsage : 0};
    }
    mConfigFile = app.configFile;
    mIsCheck = app.isCheck;
}

Options CommandLine::readOptions() const
{
    Options options;
    if (!mConfigFile.empty())
        options = readConfigFile(mConfigFile);
    BrokerApp(options).parseWords(mArguments);
    if (options.stateFile.empty())
        options.stateFile = stateOfTheService();
    if (const std::string contradiction = contradictionIn(options.limits); !contradiction.empty())
        throw ConfigError(mConfigFile + ": " + contradiction);
    return options;
}
