#include "statusctl/verbs/Names.h"

#include <algorithm>
#include <set>

#include "statusctl/device/Device.h"

void Names::addLiteral(CLI::App& command, const std::string& what, bool& isLiteral)
{
    command.add_flag("--literal", isLiteral, "Take each " + what + " as a name, even with glob characters");
}

void Names::addName(CLI::App& command, std::string& name, bool& isLiteral)
{
    command.add_option("NAME", name)->required();
    addLiteral(command, "NAME", isLiteral);
}

void Names::checkFilled(const List& names)
{
    if (std::any_of(names.begin(), names.end(), [](const std::string& name) { return name.empty(); }))
        throw CLI::ValidationError("a name must not be empty");
}

void Names::checkExact(const List& names, bool isLiteral)
{
    checkFilled(names);
    const auto glob = std::find_if(names.begin(), names.end(), Pattern::isGlob);
    if (!isLiteral && glob != names.end())
        throw CLI::ValidationError(
            "\"" + *glob + "\" is a glob, which this command does not expand; use --literal if it is a name");
}

Names::Resolved Names::resolve(const Settings& settings, const List& names, bool isLiteral)
{
    if (isLiteral || !Pattern(names).hasGlobs())
        return {names, {}, false};
    Device device(settings);
    const StatusMap values = device.ask([](StatusManager& manager) { return manager.getClientInfo(); });
    Resolved resolved{{}, {}, true};
    std::set<std::string> seen; // a key may match several globs
    const auto add = [&](const std::string& key)
    {
        if (seen.insert(key).second)
            resolved.keys.push_back(key);
    };
    for (const std::string& name : names)
    {
        const Pattern pattern({name});
        if (!pattern.hasGlobs())
        {
            add(name);
            continue;
        }
        bool isMatched = false;
        for (const auto& [key, value] : values)
        {
            if (!pattern.matches(key))
                continue;
            isMatched = true;
            add(key);
        }
        if (!isMatched)
            resolved.unmatched.push_back(name);
    }
    return resolved;
}

StatusKeys Names::keysOf(const StatusMap& values)
{
    StatusKeys keys;
    for (const auto& [key, value] : values)
        keys.push_back(key);
    return keys;
}
