#ifndef STATUSCTL_VERBS_NAMES_H
#define STATUSCTL_VERBS_NAMES_H

#include <string>
#include <vector>

#include "statusctl/text/Pattern.h"
#include "statusctl/verbs/Verb.h"
#include "statusmanager/StatusTypes.h"

/// The names of keys, events, timers and counters, as commands get them.
namespace Names
{

using List = std::vector<std::string>;

/// Adds the flag --literal: each `what` is a name, whatever letters are in it.
void addLiteral(CLI::App& command, const std::string& what, bool& isLiteral);

/// Adds the argument NAME, and --literal.
void addName(CLI::App& command, std::string& name, bool& isLiteral);

/// For commands that expand globs. An empty name is a mistake, such as a variable that is not set.
/// @throws CLI::ValidationError for an empty name
void checkFilled(const List& names);

/// For commands that take every name as it stands: a glob would become a key of that name.
/// @throws CLI::ValidationError for an empty name, and for a glob unless it is meant literally
void checkExact(const List& names, bool isLiteral);

struct Resolved
{
    List keys;      ///< in the order of the names; those of a glob are sorted
    List unmatched; ///< globs without any key
    bool hasGlobs = false;
};

/// Replaces globs by the keys that match. Asks the broker only if there are globs.
Resolved resolve(const Settings& settings, const List& names, bool isLiteral);

/// "door", "lamp": for messages.
template <typename Texts>
std::string inQuotes(const Texts& names)
{
    std::string text;
    for (const std::string& name : names)
        text += (text.empty() ? "\"" : ", \"") + name + "\"";
    return text;
}

} // namespace Names

#endif
