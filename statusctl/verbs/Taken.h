#ifndef STATUSCTL_VERBS_TAKEN_H
#define STATUSCTL_VERBS_TAKEN_H

#include <optional>

#include "statusctl/verbs/Names.h"

/// The broker does not answer posts. To learn whether it took a post, compare its values before and after.
namespace Taken
{

/// The names that the broker refused: their value is as before, although the post has another value. A value
/// that another client has changed meanwhile counts as taken.
template <typename Map>
Names::List refused(const Map& posted, const Map& before, const Map& after)
{
    using Value = std::optional<typename Map::mapped_type>;
    const auto valueIn = [](const Map& values, const std::string& name)
    {
        const auto found = values.find(name);
        return found == values.end() ? Value() : Value(found->second);
    };
    Names::List names;
    for (const auto& [name, value] : posted)
    {
        const Value now = valueIn(after, name);
        if (now != value && now == valueIn(before, name))
            names.push_back(name);
    }
    return names;
}

} // namespace Taken

#endif
