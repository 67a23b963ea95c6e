#include "broker/peer/Identities.h"

#include <optional>

namespace
{

// Looking for processes takes this of a round at most, and this of the processor's time: after a pass through
// all processes, so many times as long is rested.
constexpr std::chrono::milliseconds turn{1};
constexpr int restFactor = 20;

} // namespace

Identity Identities::identify(const sockaddr_in& peer, const sockaddr_in& own)
{
    Identity identity;
    identity.owner = mOwners.ask(peer, own);
    if (const std::optional<uid_t> uid = identity.owner.uid())
    {
        mUsers.refresh();
        identity.user = mUsers.name(*uid);
    }
    if (const std::optional<uint64_t> group = identity.owner.cgroup())
        identity.service = mServices.find(*group).name;
    return identity;
}

void Identities::seek(Identity& identity)
{
    if (identity.search != Identity::Search::None)
        return;
    const bool isSought = identity.owner.inode() != 0 && mProcesses.want(identity.owner.inode());
    identity.search = isSought ? Identity::Search::UnderWay : Identity::Search::Over;
}

void Identities::forget(Identity& identity)
{
    if (identity.search == Identity::Search::UnderWay)
        mProcesses.forget(identity.owner.inode());
    identity.search = Identity::Search::Over;
}

std::vector<Processes::Found> Identities::seekOn(TimePoint now)
{
    std::vector<Processes::Found> found = mProcesses.work(turn);
    const TimePoint end = Clock::now();
    mWorked += end - now;
    mNext = end;
    if (found.empty())
        return found;
    mNext += restFactor * mWorked;
    mWorked = Clock::duration(0);
    return found;
}

void Identities::settle(Identity& identity, const Processes::Found& found)
{
    identity.search = Identity::Search::Over;
    identity.pid = found.pid;
    identity.program = found.program;
    identity.isShared = found.others;
}
