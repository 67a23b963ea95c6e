#include "broker/peer/UserNamespace.h"

#include <fstream>
#include <optional>
#include <sstream>
#include <unistd.h>

namespace
{

constexpr uid_t usualOverflow = 65534;

std::optional<std::string> contentOf(const std::string& path)
{
    constexpr std::size_t most = 4096; // a map of more than 340 ranges leaves some users out anyway
    std::ifstream file(path, std::ios::binary);
    std::string content(most, '\0');
    if (!file.is_open())
        return std::nullopt;
    file.read(content.data(), static_cast<std::streamsize>(most));
    content.resize(static_cast<std::size_t>(file.gcount()));
    return content;
}

bool isWholeIn(const std::string& process)
{
    const auto map = contentOf(process + "/uid_map");
    // A kernel without user namespaces has no map. If /proc shows nothing at all, the worst is assumed.
    return map ? UserNamespace::isWholeMap(*map) : access((process + "/stat").c_str(), F_OK) == 0;
}

uid_t overflowIn(const std::string& path)
{
    std::istringstream text(contentOf(path).value_or(""));
    uid_t uid = usualOverflow;
    return text >> uid ? uid : usualOverflow;
}

} // namespace

UserNamespace::UserNamespace(const std::string& proc)
    : mIsWhole(isWholeIn(proc + "/self")), mOverflow(overflowIn(proc + "/sys/kernel/overflowuid"))
{
}

bool UserNamespace::isWholeMap(std::string_view map)
{
    constexpr uint32_t all = 4294967295; // all but (uid_t)-1, which is not a user
    std::istringstream text{std::string(map)};
    uint32_t inside = 1;
    uint32_t outside = 1;
    uint32_t count = 0;
    return text >> inside >> outside >> count && inside == 0 && outside == 0 && count == all;
}
