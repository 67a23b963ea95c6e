#include "broker/peer/Identities.h"

#include <algorithm>
#include <netinet/tcp.h>
#include <optional>

namespace
{

// Looking for processes takes this of a round at most. Then it rests so many times as long as it has taken,
// as far as it was not interrupted itself.
constexpr std::chrono::milliseconds turn{1};
constexpr std::chrono::milliseconds longestTurn{5};
constexpr int restFactor = 20;

// The peer may have reset the connection before it was accepted. Then what it had sent is still to be read,
// but its pair of addresses is free: the kernel may have told of somebody else, who has made a connection
// with the same port since. As long as our end is connected, nobody can.
bool isEstablished(int connection)
{
    tcp_info info{};
    socklen_t size = sizeof(info);
    return getsockopt(connection, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
           info.tcpi_state == TCP_ESTABLISHED;
}

} // namespace

Identity Identities::identify(int connection, const sockaddr_in& peer, const sockaddr_in& own)
{
    Identity identity;
    identity.owner = mOwners.ask(peer, own);
    if (!isEstablished(connection))
        identity.owner = Owner::unknown(Owner::Knowledge::NotEstablished);
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
    identity.isServiceKnown =
        answer.knowledge == Services::Knowledge::Named || answer.knowledge == Services::Knowledge::NoService;
    identity.isServiceOpen = answer.knowledge == Services::Knowledge::Later;
    identity.service = Processes::printable(answer.name);
}

void Identities::seek(Identity& identity)
{
    completeService(identity);
    if (identity.search != Identity::Search::None)
        return;
    const bool isSought = identity.owner.inode() != 0 && mProcesses.want(identity.owner.inode());
    identity.search = isSought ? Identity::Search::UnderWay : Identity::Search::Over;
}

void Identities::forget(Identity& identity)
{
    const bool isUnderWay = identity.search == Identity::Search::UnderWay;
    if (isUnderWay)
        mProcesses.forget(identity.owner.inode());
    identity.search = isUnderWay ? Identity::Search::CutShort : Identity::Search::Over;
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
