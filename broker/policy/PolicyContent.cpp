#include "broker/policy/PolicyContent.h"

#include <algorithm>

namespace
{

template <typename Id>
bool contains(const std::vector<Id>& ids, const Id& id)
{
    return std::find(ids.begin(), ids.end(), id) != ids.end();
}

std::string namesOf(Actions actions)
{
    if (actions == Actions::all())
        return "all";
    std::string text;
    for (std::size_t i = 0; i < actionCount; ++i)
    {
        if (actions.has(static_cast<Action>(i)))
            text.append(text.empty() ? "" : ", ").append(actionNames[i]);
    }
    return text;
}

} // namespace

bool Who::has(const Subject& subject) const
{
    if (isAnyone())
        return true;
    if (!subject.user)
        return false;
    const bool isGroupFine =
        !namesGroups || std::any_of(subject.groups.begin(), subject.groups.end(),
                                    [this](gid_t group) { return contains(groups, group); });
    return isGroupFine && (!namesUsers || contains(users, *subject.user)) &&
           (!namesServices || contains(services, subject.service));
}

bool PolicyRule::isForEveryName() const
{
    return names.empty() ||
           std::any_of(names.begin(), names.end(), [](const Glob& glob) { return glob.matchesEverything(); });
}

std::string PolicyRule::text() const
{
    return (isAllowed ? "allow " : "deny ") + namesOf(actions) + " of " + textOf(names);
}

std::string PolicyQuota::limits() const
{
    std::string result;
    const auto add = [&](const std::optional<std::size_t>& number, const char* unit)
    {
        if (number)
            result += (result.empty() ? "" : ", ") + std::to_string(*number) + unit;
    };
    add(keys, " keys");
    add(bytes, " bytes");
    add(connections, " connections");
    add(postsPerSecond, " posts per second");
    return result;
}

std::string textOf(const std::vector<Glob>& names)
{
    std::string text;
    for (const Glob& glob : names)
        text.append(text.empty() ? "" : ", ").append(glob.text());
    return names.empty() ? "every name" : text;
}
