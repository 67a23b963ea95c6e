#include "statusctl/HelpFormatter.h"

#include <map>

namespace
{

// The program itself reads a command behind "--".
std::string commandBehind(const std::string& verb)
{
    static const std::map<std::string, std::string> commands{
        {"sandbox", " -- COMMAND..."},
        {"set", " [--while -- COMMAND...]"},
        {"watch", " [-- COMMAND...]"},
    };
    const auto command = commands.find(verb);
    return command == commands.end() ? "" : command->second;
}

} // namespace

std::string HelpFormatter::make_usage(const CLI::App* app, std::string name) const
{
    std::string usage = CLI::Formatter::make_usage(app, std::move(name));
    const CLI::App* parent = app->get_parent();
    const bool isVerb = parent != nullptr && parent->get_parent() == nullptr; // not "counter set"
    return isVerb ? usage.insert(usage.size() - 1, commandBehind(app->get_name())) : usage;
}

// CLI11 prints the values of a flag behind its name, which would break the lines of the help.
std::string HelpFormatter::make_option_name(const CLI::Option* option, bool isPositional) const
{
    const std::string name = CLI::Formatter::make_option_name(option, isPositional);
    return option->check_lname("json") ? "-j,--json[=short|pretty]" : name;
}

// The usage shows which positionals are required.
std::string HelpFormatter::make_option_opts(const CLI::Option* option) const
{
    if (!option->get_positional())
        return CLI::Formatter::make_option_opts(option);
    return option->get_expected_max() == CLI::detail::expected_max_vector_size ? " ..." : "";
}
