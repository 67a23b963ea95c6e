#include "statusctl/verbs/Verb.h"

#include <algorithm>

#include "statusctl/text/Duration.h"
#include "statusctl/text/Spelling.h"

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

std::string Verbs::unknown(const std::string& word, const CLI::App& app)
{
    std::vector<std::string> known;
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; }))
        known.push_back(command->get_name());
    const std::string meant = Spelling::nearest(word, known);
    return "unknown command \"" + word + "\"" + (meant.empty() ? "" : ", did you mean \"" + meant + "\"?");
}

CLI::Validator Verbs::wholeNumber(uint64_t least, uint64_t most)
{
    const std::string first = std::to_string(least);
    const std::string wanted =
        most == UINT64_MAX ? first + " or more" : "a number from " + first + " to " + std::to_string(most);
    const auto check = [=](const std::string& text)
    {
        uint64_t number = 0;
        const bool isNumber = CLI::detail::lexical_cast(text, number);
        return isNumber && number >= least && number <= most ? "" : "must be " + wanted;
    };
    return {check, ""};
}

CLI::Validator Verbs::oneOf(const std::vector<std::string>& words)
{
    std::string wanted = words.front();
    for (std::size_t index = 1; index < words.size(); ++index)
        wanted += (index + 1 == words.size() ? " or " : ", ") + words[index];
    const auto check = [=](const std::string& text)
    {
        const bool isOne = std::find(words.begin(), words.end(), text) != words.end();
        return isOne ? "" : "must be " + wanted;
    };
    return {check, ""};
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
