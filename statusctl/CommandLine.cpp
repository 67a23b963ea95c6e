#include "statusctl/CommandLine.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <unistd.h>

namespace
{

constexpr std::array<Verbs::Add, 23> verbs{
    Verbs::addGet,     Verbs::addSet,        Verbs::addReset,   Verbs::addForget, Verbs::addDump,
    Verbs::addLoad,    Verbs::addWatch,      Verbs::addWait,    Verbs::addEvent,  Verbs::addTimer,
    Verbs::addCounter, Verbs::addPing,       Verbs::addStats,   Verbs::addRecord, Verbs::addReplay,
    Verbs::addTop,     Verbs::addDoctor,     Verbs::addClients, Verbs::addMay,    Verbs::addShow,
    Verbs::addSandbox, Verbs::addCompletion, Verbs::addHelp,
};

bool isTerminalWithColors()
{
    const char* noColor = std::getenv("NO_COLOR");
    const char* terminal = std::getenv("TERM");
    return isatty(STDOUT_FILENO) != 0 && (noColor == nullptr || *noColor == '\0') && terminal != nullptr &&
           std::string(terminal) != "dumb";
}

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

// No argument can contain this letter. It marks arguments that CLI11 must not interpret.
constexpr char literalMark = '\0';

std::string withoutMark(std::string text)
{
    if (!text.empty() && text.front() == literalMark)
        text.erase(0, 1);
    return text;
}

// CLI11 ignores a "--" behind the first positional, and splits "[a,b]" into several arguments.
std::vector<std::string> withLiterals(std::vector<std::string> arguments)
{
    const auto end = std::find(arguments.begin(), arguments.end(), "--");
    const auto mark = [](std::string& argument) { argument.insert(argument.begin(), literalMark); };
    std::for_each(arguments.begin(), end,
                  [&](std::string& argument)
                  {
                      if (!argument.empty() && argument.front() == '[')
                          mark(argument);
                  });
    if (end == arguments.end())
        return arguments;
    std::for_each(end + 1, arguments.end(), mark);
    arguments.erase(end);
    return arguments;
}

void takeMarks(CLI::App& command)
{
    for (CLI::Option* option : command.get_options())
    {
        if (option->get_items_expected_max() > 0)
            option->transform(withoutMark);
    }
}

// CLI11 only reports that a subcommand is required.
std::string reasonOfMissingCommand(const CLI::App& top, const std::string& name)
{
    std::vector<std::string> words = top.remaining(true);
    std::transform(words.begin(), words.end(), words.begin(), withoutMark);
    const std::string hint = " (see statusctl " + (name.empty() ? "" : name + " ") + "--help)";
    if (words.empty())
        return "missing command" + hint;
    return (words.front()[0] == '-' ? "unknown option \"" : "unknown command \"") + words.front() + "\"" +
           hint;
}

std::string reasonOf(const CLI::ParseError& error, const CLI::App& app, const std::string& name)
{
    const bool isMissingCommand =
        dynamic_cast<const CLI::RequiredError*>(&error) != nullptr && app.get_require_subcommand_min() > 0;
    const CLI::App& top = app.get_parent() == nullptr ? app : *app.get_parent();
    std::string reason = isMissingCommand ? reasonOfMissingCommand(top, name) : error.what();
    const std::vector<std::string> extras = top.remaining(true);
    if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr && !extras.empty()) // what() has no name
        reason = "unexpected argument \"" + withoutMark(extras.front()) + "\"";
    std::replace(reason.begin(), reason.end(), '\n', ' ');
    return reason;
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
        "Give up after this time (5, 500ms, 2m). \"watch\", \"wait\" and \"record\": the whole time, "
        "default none; other commands: the time of each request, default 5 s");
    mApp.add_flag("-j{short},--json{short}", mJson, "Print JSON; --json=pretty indents it, except streams")
        ->check(CLI::IsMember({"short", "pretty"}).description(""));
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
    arguments = withLiterals(withoutCommand(std::move(arguments)));
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
            throw Failure(ExitCode::WrongUsage,
                          reasonOf(error, chosen.empty() ? mApp : *chosen.front(), mSettings.verb));
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
