#include "broker/peer/Identities.h"

#include <netinet/tcp.h>
#include <optional>

#include "broker/peer/Rest.h"

namespace
{

// How long one step of the search for processes takes at most.
constexpr std::chrono::milliseconds turn{1};

// The peer may have reset the connection before it was accepted. Then its data can still be read, but its
// pair of addresses is free. The kernel may have answered about another client, which has made a connection
// with the same port since. While our end is connected, no other client can.
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

// If the service cannot be looked for now, it stays open for later.
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

bool Identities::isNotOf(const Identity& known, const Identity& sought, TimePoint acceptedAt)
{
    return sought.search != Identity::Search::Over && known.search == Identity::Search::Over &&
           known.pid != 0 && !known.isShared &&
           mSockets.lacks(sought.owner.inode(), acceptedAt, known.pid, known.program, known.owner.inode());
}

std::vector<Processes::Found> Identities::seekOn(TimePoint now)
{
    std::vector<Processes::Found> found = mProcesses.work(turn);
    mNext = endOfRest(now, Clock::now());
    return found;
}

void Identities::settle(Identity& identity, const Processes::Found& found)
{
    identity.search = Identity::Search::Over;
    identity.pid = found.pid;
    identity.program = found.program;
    identity.isShared = found.others;
}
