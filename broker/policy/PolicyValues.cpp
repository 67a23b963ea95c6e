#include "broker/policy/PolicyValues.h"

#include <algorithm>
#include <limits>
#include <string_view>
#include <utility>

#include "daemon/OptionText.h"

using OptionText::quoted;

namespace
{

using Words = std::vector<PolicyWord>;

std::string joined(const std::vector<std::string>& words, const char* between)
{
    std::string result;
    for (const std::string& word : words)
        result += (result.empty() ? "" : between) + word;
    return result;
}

void addTo(std::string& text, const std::string& part)
{
    text += (text.empty() ? "" : ", ") + part;
}

std::string errorInService(const std::string& name)
{
    constexpr std::string_view letters =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789:-_.\\@";
    const bool isName = !name.empty() && name.find_first_not_of(letters) == std::string::npos;
    return isName ? std::string() : quoted(name) + " is not the name of a service";
}

bool endsWith(std::string_view text, std::string_view end)
{
    return text.size() > end.size() && text.substr(text.size() - end.size()) == end;
}

// Completes the name as systemd's tools do.
std::string unitName(const std::string& name)
{
    return endsWith(name, ".service") || endsWith(name, ".scope") ? name : name + ".service";
}

std::optional<std::chrono::milliseconds> readDuration(std::string_view text)
{
    constexpr std::pair<std::string_view, int64_t> units[] = {{"ms", 1}, {"s", 1000}, {"m", 60000}};
    constexpr int64_t longest = 3'600'000;
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    const auto number = OptionText::readNumber(text.substr(0, digits));
    for (const auto& [unit, factor] : units)
    {
        if (number && text.substr(digits) == unit && *number <= static_cast<uint64_t>(longest / factor))
            return std::chrono::milliseconds(static_cast<int64_t>(*number) * factor);
    }
    return std::nullopt;
}

} // namespace

void PolicyValues::warn(Line line, const std::string& text)
{
    mCollector.content().warnings.push_back(placeOf(line) + ": " + text);
}

// Reads a text, or a list of texts.
std::vector<PolicyWord> PolicyValues::words(const std::string& name, const toml::node& value)
{
    Words found;
    const auto add = [&](const toml::node& node)
    {
        const auto* text = node.as_string();
        if (text == nullptr)
            fail(lineOf(node), name + " must be a text or a list of texts");
        else if (PolicyWord word{text->get(), lineOf(node)}; isName(name, word))
            found.push_back(std::move(word));
    };
    if (const toml::array* list = value.as_array(); list == nullptr)
        add(value);
    else if (list->empty())
        fail(lineOf(value), name + " is an empty list");
    else
    {
        for (const toml::node& each : *list)
            add(each);
    }
    return found;
}

bool PolicyValues::isName(const std::string& name, const PolicyWord& word)
{
    if (word.text.empty())
        fail(word.line, name + ": the text is empty");
    else if (word.text.size() > PolicyLimits::lineBytes)
        fail(word.line, name + ": longer than " + std::to_string(PolicyLimits::lineBytes) + " bytes");
    else if (hasControl(word.text))
        fail(word.line, name + ": " + quoted(word.text) + " holds a control character");
    else if (mCollector.countName())
        return true;
    else if (mCollector.isFirstBeyondNames())
        fail(word.line, "more than " + std::to_string(PolicyLimits::names) + " names in all files");
    return false;
}

Actions PolicyValues::actions(const std::string& name, const toml::node& value)
{
    Actions result;
    for (const PolicyWord& word : words(name, value))
    {
        const auto* const place = std::find(actionNames.begin(), actionNames.end(), word.text);
        if (word.text == "all")
            result.add(Actions::all());
        else if (place != actionNames.end())
            result.add(static_cast<Action>(place - actionNames.begin()));
        else
            fail(word.line,
                 "unknown action " + quoted(word.text) +
                     " (known: post, reset, event, timer, counter, query, see, time, forget, all)");
    }
    return result;
}

std::vector<Glob> PolicyValues::globs(const toml::node& value)
{
    std::vector<Glob> result;
    for (const PolicyWord& word : words("keys", value))
    {
        if (const std::string error = Glob::errorIn(word.text); error.empty())
            result.emplace_back(word.text);
        else
            fail(word.line, "keys: " + quoted(word.text) + ": " + error);
    }
    return result;
}

void PolicyValues::addServices(const toml::node& value, Who& who)
{
    for (const PolicyWord& word : words("service", value))
    {
        if (std::string error = errorInService(word.text); error.empty())
            who.services.push_back(unitName(word.text));
        else
            fail(word.line, std::move(error));
    }
    who.namesServices = true;
    addTo(who.text, "service " + joined(who.services, " or "));
}

void PolicyValues::addUsers(const toml::node& value, Who& who)
{
    who.namesUsers = true;
    addIds("user", value, who, who.users, &PolicyCollector::user);
}

void PolicyValues::addGroups(const toml::node& value, Who& who)
{
    who.namesGroups = true;
    addIds("group", value, who, who.groups, &PolicyCollector::group);
}

// Adds names, or numbers where a device has no names.
template <typename Id>
void PolicyValues::addIds(const std::string& kind, const toml::node& value, Who& who, std::vector<Id>& ids,
                          std::optional<Id> (PolicyCollector::*lookUp)(const std::string&))
{
    std::vector<std::string> texts;
    const auto addNumber = [&](const toml::node& node)
    {
        constexpr int64_t most = std::numeric_limits<Id>::max() - 1; // the highest number means none
        const int64_t number = node.as_integer()->get();
        if (number < 0 || number > most)
            fail(lineOf(node), kind + ": " + std::to_string(number) + " is not the number of a " + kind);
        else
            ids.push_back(static_cast<Id>(number));
        texts.push_back(std::to_string(number));
    };
    const auto addNames = [&](const toml::node& node)
    {
        for (const PolicyWord& word : words(kind, node))
        {
            if (const auto id = (mCollector.*lookUp)(word.text))
                ids.push_back(*id);
            else
                warn(word.line, "unknown " + kind + " " + quoted(word.text) + ": no client matches it");
            texts.push_back(word.text);
        }
    };
    const auto add = [&](const toml::node& node) { node.is_integer() ? addNumber(node) : addNames(node); };
    const toml::array* list = value.as_array();
    if (list == nullptr || list->empty())
        add(value);
    else
    {
        for (const toml::node& each : *list)
            add(each);
    }
    addTo(who.text, kind + " " + joined(texts, " or "));
}

std::optional<std::size_t> PolicyValues::count(const std::string& name, const toml::node& value,
                                               std::size_t most)
{
    const auto* number = value.as_integer();
    if (number != nullptr && number->get() >= 1 && number->get() <= static_cast<int64_t>(most))
        return static_cast<std::size_t>(number->get());
    fail(lineOf(value), name + " must be a number in 1.." + std::to_string(most));
    return std::nullopt;
}

std::optional<std::size_t> PolicyValues::bytes(const toml::node& value)
{
    constexpr std::size_t most = std::size_t{1024} * OptionText::mebi;
    std::optional<uint64_t> size;
    if (const auto* text = value.as_string(); text != nullptr)
        size = OptionText::readSize(text->get());
    else if (const auto* number = value.as_integer(); number != nullptr && number->get() > 0)
        size = static_cast<uint64_t>(number->get());
    if (size && *size >= 1 && *size <= most)
        return static_cast<std::size_t>(*size);
    fail(lineOf(value), R"(bytes must be a size in 1..1024M, such as 65536 or "64K")");
    return std::nullopt;
}

std::string PolicyValues::becomes(const toml::node& value)
{
    const auto* text = value.as_string();
    if (text == nullptr)
        fail(lineOf(value), "becomes must be a text");
    else if (text->get().size() > PolicyLimits::lineBytes)
        fail(lineOf(value), "becomes: longer than " + std::to_string(PolicyLimits::lineBytes) + " bytes");
    else if (hasControl(text->get()))
        fail(lineOf(value), "becomes: " + quoted(text->get()) + " holds a control character");
    else
        return text->get();
    return {};
}

std::chrono::milliseconds PolicyValues::grace(const toml::node& value)
{
    const auto* text = value.as_string();
    if (const auto duration = text == nullptr ? std::nullopt : readDuration(text->get()))
        return *duration;
    fail(lineOf(value), R"(grace must be a duration of at most an hour, such as "500ms", "2s" or "1m")");
    return PolicyTie::usualGrace;
}
