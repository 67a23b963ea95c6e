#include "statusctl/verbs/Verb.h"

#include "statusctl/text/Duration.h"

CLI::App& Verbs::describe(CLI::App& app, const std::string& name, const std::string& summary,
                          const std::string& examples, const std::string& details)
{
    CLI::App& command = *app.add_subcommand(name, summary);
    std::string footer = details + (details.empty() ? "" : "\n\n") + "Examples:\n";
    std::istringstream lines(examples);
    for (std::string line; std::getline(lines, line);)
        footer += "  " + line + "\n";
    command.footer(footer);
    return command;
}

CLI::Option* Verbs::addDuration(CLI::App& command, const std::string& names,
                                std::optional<std::chrono::milliseconds>& value, const std::string& text)
{
    const auto take = [&value, names](const std::string& given)
    {
        value = Duration::read(given);
        if (!value)
            throw CLI::ValidationError(names, "\"" + given + "\" is not a duration, such as 5, 500ms or 2m");
    };
    return command.add_option_function<std::string>(names, take, text)->type_name("DUR");
}
