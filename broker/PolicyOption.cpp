#include "broker/PolicyOption.h"

#include "broker/ConfigFile.h"
#include "broker/peer/Users.h"
#include "broker/policy/PolicyFiles.h"

namespace
{

std::string linesOf(const std::vector<std::string>& errors)
{
    std::string lines;
    for (const std::string& error : errors)
        lines += (lines.empty() ? "" : "\n") + error;
    return lines;
}

} // namespace

std::unique_ptr<const Policy> readPolicy(const std::string& path)
{
    if (path.empty())
        return std::make_unique<const Policy>();
    const Users users;
    bool namesSomebody = false;
    const auto user = [&](const std::string& name)
    {
        namesSomebody = true;
        return users.uid(name);
    };
    const auto group = [&](const std::string& name)
    {
        namesSomebody = true;
        return users.gid(name);
    };
    LoadedPolicy loaded = loadPolicy(path, {user, group});
    if (!loaded.policy)
        throw ConfigError(linesOf(loaded.errors));
    // A rule that denies something to a user would not apply if that user seemed unknown.
    if ((namesSomebody || loaded.policy->namesGroups()) && !users.isComplete())
        throw ConfigError(path +
                          ": names users or groups, but /etc/passwd and /etc/group cannot be read as a "
                          "whole");
    return std::move(loaded.policy);
}
