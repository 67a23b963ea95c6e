#include "broker/peer/SameProcess.h"

namespace
{

// The process that alone has the connection; 0 if it is unknown, or others have it, too.
pid_t onlyProcessOf(const Identity& identity)
{
    return identity.isShared ? 0 : identity.pid;
}

bool areKnown(const Owner& one, const Owner& other)
{
    return one.isKnown() && other.isKnown();
}

bool isSearched(const Identity& identity)
{
    return identity.search == Identity::Search::Over;
}

} // namespace

bool mayBeSameProcess(const Identity& one, const Identity& other)
{
    if (one.pid != 0 && one.pid == other.pid)
        return true; // whoever else has its sockets
    if (onlyProcessOf(one) != 0 && onlyProcessOf(other) != 0)
        return false;
    return areKnown(one.owner, other.owner) && one.owner.uid() == other.owner.uid() &&
           one.owner.cgroup() == other.owner.cgroup();
}

bool mayBePosterOf(const Identity& client, const Identity& poster)
{
    return mayBeSameProcess(client, poster) ||
           (!client.owner.isKnown() && !areDifferentProcesses(client, poster));
}

// User and control group are those of the moment when the socket was made, and a process may change them. So
// they count only if the processes were looked for in vain.
bool areDifferentProcesses(const Identity& one, const Identity& other)
{
    if (onlyProcessOf(one) != 0 && onlyProcessOf(other) != 0)
        return onlyProcessOf(one) != onlyProcessOf(other);
    return isSearched(one) && isSearched(other) && areKnown(one.owner, other.owner) &&
           !mayBeSameProcess(one, other);
}

bool isOfProcess(const Identity& identity, pid_t pid, const std::string& program)
{
    return pid != 0 && identity.pid == pid && identity.program == program;
}

std::optional<ClientKey> clientKeyOf(const Identity& identity)
{
    if (!identity.owner.isKnown() && identity.pid == 0)
        return std::nullopt;
    return ClientKey(identity.owner.uid(), identity.owner.cgroup().value_or(0), identity.pid);
}
