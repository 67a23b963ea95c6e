#include "broker/peer/Identities.h"

#include <algorithm>
#include <optional>

namespace
{

// Looking for processes takes this of a round at most. Then it rests so many times as long as it has taken,
// as far as it was not interrupted itself.
constexpr std::chrono::milliseconds turn{1};
constexpr std::chrono::milliseconds longestTurn{5};
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
    findService(identity);
    return identity;
}

// Later, if that was asked too often lately.
void Identities::findService(Identity& identity)
{
    const std::optional<uint64_t> group = identity.owner.cgroup();
    if (!group)
        return;
    const Services::Answer answer = mServices.find(*group);
    identity.isServiceOpen = answer.knowledge == Services::Knowledge::Later;
    identity.service = Processes::printable(answer.name);
}

void Identities::seek(Identity& identity)
{
    if (identity.isServiceOpen)
        findService(identity);
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
    mNext = end + restFactor * std::min<Clock::duration>(end - now, longestTurn);
    return found;
}

void Identities::settle(Identity& identity, const Processes::Found& found)
{
    identity.search = Identity::Search::Over;
    identity.pid = found.pid;
    identity.program = found.program;
    identity.isShared = found.others;
}
