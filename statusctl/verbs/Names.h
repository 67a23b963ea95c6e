#ifndef STATUSCTL_VERBS_NAMES_H
#define STATUSCTL_VERBS_NAMES_H

#include <string>
#include <vector>

#include "statusctl/text/Pattern.h"
#include "statusctl/verbs/Verb.h"
#include "statusmanager/StatusTypes.h"

/// The names of keys, events, timers and counters on the command line.
namespace Names
{

using List = std::vector<std::string>;

/// Adds the flag --literal: each `what` is a name, whatever characters it contains.
void addLiteral(CLI::App& command, const std::string& what, bool& isLiteral);

/// Adds the argument NAME, and --literal.
void addName(CLI::App& command, std::string& name, bool& isLiteral);

/// For commands that expand globs. An empty name is a mistake, such as an unset variable.
/// @throws CLI::ValidationError for an empty name
void checkFilled(const List& names);

/// For commands that do not expand globs: a glob would become a key of that name.
/// @throws CLI::ValidationError for an empty name, and for a glob unless isLiteral
void checkExact(const List& names, bool isLiteral);

struct Resolved
{
    List keys;      ///< in the order of the names; the keys of a glob are sorted
    List unmatched; ///< globs that match no key
    bool hasGlobs = false;
};

/// Replaces globs by the keys that they match. Asks the broker only if there are globs.
Resolved resolve(const Settings& settings, const List& names, bool isLiteral);

StatusKeys keysOf(const StatusMap& values);

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
