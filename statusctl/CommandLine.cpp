#include "statusctl/CommandLine.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <unistd.h>

#include "statusctl/HelpFormatter.h"
#include "statusctl/Literals.h"
#include "statusctl/WrongUsage.h"

namespace
{

constexpr std::array<Verbs::Add, 23> verbs{
    Verbs::addGet,     Verbs::addShow,       Verbs::addSet,    Verbs::addReset,   Verbs::addForget,
    Verbs::addDump,    Verbs::addLoad,       Verbs::addWatch,  Verbs::addWait,    Verbs::addEvent,
    Verbs::addTimer,   Verbs::addCounter,    Verbs::addPing,   Verbs::addStats,   Verbs::addRecord,
    Verbs::addReplay,  Verbs::addTop,        Verbs::addDoctor, Verbs::addClients, Verbs::addMay,
    Verbs::addSandbox, Verbs::addCompletion, Verbs::addHelp,
};

bool isTerminalWithColors()
{
    const char* noColor = std::getenv("NO_COLOR");
    const char* terminal = std::getenv("TERM");
    return isatty(STDOUT_FILENO) != 0 && (noColor == nullptr || *noColor == '\0') && terminal != nullptr &&
           std::string(terminal) != "dumb";
}

void takeMarks(CLI::App& command)
{
    for (CLI::Option* option : command.get_options())
    {
        if (option->get_items_expected_max() > 0)
            option->transform(Literals::withoutMark);
    }
}

} // namespace

CommandLine::CommandLine() : mApp("Shows and changes the status of this device.", "statusctl")
{
    mApp.set_version_flag("--version", "statusctl " STATUSCTL_VERSION);
    mApp.formatter(std::make_shared<HelpFormatter>());
    mApp.require_subcommand(1);
    mApp.fallthrough(); // shared options may stand behind the command as well
    mApp.footer(
        "\"statusctl COMMAND --help\" shows details and examples. Exit codes: 0 done, 1 refused or failed,\n"
        "2 wrong usage, 3 not found, 4 broker unreachable, 5 bad reply, 124 timed out, 128+n signal n.");
    addShared();
    addVerbs();
}

void CommandLine::addShared()
{
    Verbs::addDuration(
        mApp, "-t,--timeout", mSettings.timeout,
        "Give up after this time (5, 500ms, 2m). \"watch\", \"wait\", \"record\" and \"event --wait\": "
        "the whole time, default none; other commands: the time of each request, default 5 s");
    mApp.add_flag("-j{short},--json{short}", mJson, "Print JSON; --json=pretty indents it, except streams")
        ->check(Verbs::oneOf({"short", "pretty"}));
    mApp.add_flag("-q,--quiet", mSettings.quiet, "Suppress everything except results");
    mApp.add_flag("--no-color", mNoColor, "No colours, as with NO_COLOR in the environment");
}

void CommandLine::addVerbs()
{
    for (const Verbs::Add add : verbs)
    {
        std::unique_ptr<IVerb> verb = add(mApp);
        CLI::App* command = mApp.get_subcommands({}).back();
        mEntries.push_back({command, std::move(verb)});
    }
    takeMarks(mApp);
    for (CLI::App* command : mApp.get_subcommands({}))
    {
        takeMarks(*command);
        for (CLI::App* action : command->get_subcommands({}))
            takeMarks(*action);
    }
}

// CLI11 would read the words behind "--" as keys.
std::vector<std::string> CommandLine::withoutCommand(std::vector<std::string> arguments)
{
    const auto isVerb = [this](const std::string& argument)
    {
        return std::any_of(mEntries.begin(), mEntries.end(),
                           [&](const Entry& entry) { return entry.command->get_name() == argument; });
    };
    const auto verb = std::find_if(arguments.begin(), arguments.end(), isVerb);
    const auto end = std::find(arguments.begin(), arguments.end(), "--");
    if (verb == arguments.end() || (*verb != "watch" && *verb != "sandbox") || end == arguments.end())
        return arguments;
    mSettings.command.assign(end + 1, arguments.end());
    arguments.erase(end, arguments.end());
    return arguments;
}

IVerb* CommandLine::parse(std::vector<std::string> arguments)
{
    mSettings.color = isTerminalWithColors();
    // An error in the arguments is reported as JSON if they ask for JSON.
    const auto wantsJson = [](const std::string& text)
    { return text == "-j" || text.compare(0, 6, "--json") == 0; };
    if (std::any_of(arguments.begin(), std::find(arguments.begin(), arguments.end(), "--"), wantsJson))
        mSettings.json = Settings::Json::Short;
    arguments = Literals::mark(withoutCommand(std::move(arguments)));
    std::reverse(arguments.begin(), arguments.end()); // CLI11 expects them in reverse order
    try
    {
        mApp.parse(arguments);
    }
    catch (const CLI::ParseError& error)
    {
        const auto chosen = mApp.get_subcommands();
        mSettings.verb = chosen.empty() ? "" : chosen.front()->get_name();
        if (error.get_exit_code() != 0)
            throw Failure(
                ExitCode::WrongUsage,
                WrongUsage::reasonOf(error, chosen.empty() ? mApp : *chosen.front(), mSettings.verb));
        mApp.exit(error); // prints the help or the version
        return nullptr;
    }
    mSettings.color = mSettings.color && !mNoColor;
    if (mJson == "pretty")
        mSettings.json = Settings::Json::Pretty;
    const auto entry =
        std::find_if(mEntries.begin(), mEntries.end(), [](const Entry& e) { return e.command->parsed(); });
    mSettings.verb = entry->command->get_name();
    return entry->verb.get();
}
