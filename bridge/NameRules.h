#ifndef BRIDGE_NAMERULES_H
#define BRIDGE_NAMERULES_H

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "daemon/Glob.h"

/// Which names are sent to the server: those that an include glob matches and no exclude glob. Without
/// include globs, every name that is not excluded.
struct NameRules
{
    std::vector<Glob> include;
    std::vector<Glob> exclude;

    bool allows(const std::string& name) const
    {
        return (include.empty() || matchesAny(include, name)) && !matchesAny(exclude, name);
    }

    static bool matchesAny(const std::vector<Glob>& globs, const std::string& name)
    {
        return std::any_of(globs.begin(), globs.end(), [&](const Glob& glob) { return glob.matches(name); });
    }
};

/// How often a key may be sent.
struct IntervalRule
{
    Glob keys;
    std::chrono::milliseconds interval;
};

/// The interval of the first rule that matches; 0: each change is sent.
inline std::chrono::milliseconds intervalOf(const std::vector<IntervalRule>& rules, const std::string& key)
{
    const auto rule = std::find_if(rules.begin(), rules.end(),
                                   [&](const IntervalRule& each) { return each.keys.matches(key); });
    return rule == rules.end() ? std::chrono::milliseconds(0) : rule->interval;
}

#endif
