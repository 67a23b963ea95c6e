#include "statusfleet/CommandLine.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <unistd.h>

#include "daemon/ConfigText.h"
#include "statusctl/text/Duration.h"

namespace
{

constexpr std::array<Verbs::Add, 7> verbs{Verbs::addDevices, Verbs::addGet,     Verbs::addDump,
                                          Verbs::addWatch,   Verbs::addDesired, Verbs::addCommand,
                                          Verbs::addExport};

// CLI11 prints the values of a flag behind its name, which would break the lines of the help.
class HelpFormatter : public CLI::Formatter
{
public:
    std::string make_option_name(const CLI::Option* option, bool isPositional) const override
    {
        const std::string name = CLI::Formatter::make_option_name(option, isPositional);
        return option->check_lname("json") ? "-j,--json[=short|pretty]" : name;
    }
};

// The user's own file, or the machine's.
std::string usualConfigFile()
{
    if (const char* named = std::getenv("STATUSFLEET_CONFIG"))
        return named;
    const char* home = std::getenv("HOME");
    const std::string own = std::string(home == nullptr ? "" : home) + "/.config/statusfleet.conf";
    return access(own.c_str(), R_OK) == 0 ? own : "/etc/statusfleet.conf";
}

} // namespace

CommandLine::CommandLine()
    : mApp("Shows and steers the devices of a fleet, over their MQTT server.", "statusfleet")
{
    mSettings.program = "statusfleet";
    mApp.set_version_flag("--version", "statusfleet " STATUSFLEET_VERSION);
    mApp.formatter(std::make_shared<HelpFormatter>());
    mApp.require_subcommand(1);
    mApp.fallthrough(); // shared options may stand behind the command as well
    mApp.footer("\"statusfleet COMMAND --help\" shows details. Exit codes: 0 done, 1 refused or failed, 2 "
                "wrong usage,\n"
                "3 not found, 4 server unreachable, 124 timed out, 128+n signal n.");
    addShared();
    for (const Verbs::Add add : verbs)
    {
        std::unique_ptr<IVerb> verb = add(mApp);
        mEntries.push_back({mApp.get_subcommands({}).back(), std::move(verb)});
    }
}

void CommandLine::addShared()
{
    mApp.add_option("--config", mConfigFile,
                    "The file that names the server; by default STATUSFLEET_CONFIG of the environment, "
                    "~/.config/statusfleet.conf or /etc/statusfleet.conf")
        ->type_name("FILE");
    const auto takeTimeout = [this](const std::string& given)
    {
        mSettings.timeout = Duration::read(given);
        if (!mSettings.timeout)
            throw CLI::ValidationError("--timeout",
                                       "\"" + given + "\" is not a duration, such as 5, 500ms or 2m");
    };
    mApp.add_option_function<std::string>(
            "-t,--timeout", takeTimeout,
            "Give up after this time (5, 500ms, 2m); default 5 s, \"watch\": none")
        ->type_name("DUR");
    mApp.add_flag("-j{short},--json{short}", mJson, "Print JSON; --json=pretty indents it, except streams")
        ->check(CLI::IsMember({"short", "pretty"}).description(""));
    mApp.add_flag("-q,--quiet", mSettings.quiet, "Suppress everything except results");
}

// Returns false if help or the version was asked for, and printed.
bool CommandLine::parse(std::vector<std::string> arguments)
{
    const auto wantsJson = [](const std::string& text)
    { return text == "-j" || text.compare(0, 6, "--json") == 0; };
    if (std::any_of(arguments.begin(), arguments.end(), wantsJson)) // errors, too
        mSettings.json = Settings::Json::Short;
    std::reverse(arguments.begin(), arguments.end()); // CLI11 expects them in reverse order
    try
    {
        mApp.parse(arguments);
    }
    catch (const CLI::ParseError& error)
    {
        if (error.get_exit_code() == 0)
        {
            mApp.exit(error);
            return false;
        }
        std::string reason = error.what();
        std::replace(reason.begin(), reason.end(), '\n', ' ');
        throw Failure(ExitCode::WrongUsage, reason + " (see statusfleet --help)");
    }
    if (mJson == "pretty")
        mSettings.json = Settings::Json::Pretty;
    return true;
}

ServerOptions CommandLine::readOptions() const
{
    const std::string file = mConfigFile.empty() ? usualConfigFile() : mConfigFile;
    try
    {
        ServerOptions options;
        readSettings(serverSettings(), ConfigText::readFile(file), file, options);
        if (const std::string mistake = options.mistake(); !mistake.empty())
            throw ConfigError(file + ": " + mistake);
        return options;
    }
    catch (const ConfigError& error)
    {
        throw Failure(ExitCode::WrongUsage, error.what());
    }
}

ExitCode CommandLine::run(std::vector<std::string> arguments)
{
    if (!parse(std::move(arguments)))
        return ExitCode::Done;
    const auto entry = std::find_if(mEntries.begin(), mEntries.end(),
                                    [](const Entry& each) { return each.command->parsed(); });
    mSettings.verb = entry->command->get_name();
    const ServerOptions options = readOptions();
    const bool isEndless = mSettings.verb == "watch" && !mSettings.timeout;
    const TimePoint deadline = isEndless ? TimePoint::max() : Clock::now() + mSettings.requestTimeout();
    return entry->verb->run({mSettings, options, deadline});
}
