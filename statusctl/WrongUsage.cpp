#include "statusctl/WrongUsage.h"

#include <algorithm>
#include <vector>

#include "statusctl/Literals.h"
#include "statusctl/verbs/Verb.h"

namespace
{

std::string seeHelp(const std::string& name)
{
    return " (see statusctl " + (name.empty() ? "" : name + " ") + "--help)";
}

// CLI11 only reports that a subcommand is required.
std::string reasonOfMissingCommand(const CLI::App& app, const std::string& name)
{
    const CLI::App& top = app.get_parent() == nullptr ? app : *app.get_parent();
    const std::vector<std::string> words = top.remaining(true);
    if (words.empty())
        return "missing command" + seeHelp(name);
    const std::string word = Literals::withoutMark(words.front());
    if (word[0] == '-')
        return "unknown option \"" + word + "\"" + seeHelp(name);
    return Verbs::unknown(word, app) + seeHelp(name);
}

// CLI11 gives no names of unexpected arguments.
std::string reasonOfExtras(const std::string& what, const CLI::App& app)
{
    const CLI::App& top = app.get_parent() == nullptr ? app : *app.get_parent();
    const std::vector<std::string> extras = top.remaining(true);
    return extras.empty() ? what : "unexpected argument \"" + Literals::withoutMark(extras.front()) + "\"";
}

bool startsWith(const std::string& text, const std::string& begin)
{
    return text.compare(0, begin.size(), begin) == 0;
}

bool endsWith(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// "--stale: 1 required DUR missing"
std::string reasonOfMissingValue(const std::string& option, const std::string& type)
{
    if (type == "DUR")
        return option + " needs a duration, such as 5, 500ms or 2m";
    return option + " needs a value: " + option + " " + type;
}

// An error has no other trace of its option than its text, "OPTION: ..." or "OPTION is required".
std::string reasonOfOption(const std::string& what, const std::string& name)
{
    const std::string noFlag =
        "Could not convert: "; // only flags come here: the other values were checked before
    if (startsWith(what, noFlag))
        return what.substr(noFlag.size(), what.find(" = ") - noFlag.size()) + " takes no value";
    const std::string required = " is required";
    if (endsWith(what, required))
        return "missing " + what.substr(0, what.size() - required.size()) + seeHelp(name);
    const std::size_t colon = what.find(": ");
    const std::string option = what.substr(0, colon);
    if (colon == std::string::npos || option.find('"') != std::string::npos) // a text of this program
        return what;
    const std::string rest = what.substr(colon + 2);
    const std::string first = "1 required ";
    const std::string last = " missing";
    if (startsWith(rest, first) && endsWith(rest, last))
        return reasonOfMissingValue(option,
                                    rest.substr(first.size(), rest.size() - first.size() - last.size()));
    if (startsWith(rest, "At Most 1 "))
        return option + " may be given only once";
    return startsWith(rest, "must ") ? option + " " + rest : what;
}

} // namespace

std::string WrongUsage::reasonOf(const CLI::ParseError& error, const CLI::App& app, const std::string& name)
{
    std::string reason;
    if (error.what() == std::string("A subcommand is required"))
        reason = reasonOfMissingCommand(app, name);
    else if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr)
        reason = reasonOfExtras(error.what(), app);
    else
        reason = reasonOfOption(error.what(), name);
    std::replace(reason.begin(), reason.end(), '\n', ' ');
    return reason;
}
