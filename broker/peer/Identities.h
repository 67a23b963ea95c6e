#ifndef BROKER_PEER_IDENTITIES_H
#define BROKER_PEER_IDENTITIES_H

#include <netinet/in.h>
#include <set>
#include <string>
#include <vector>

#include "broker/base/Clock.h"
#include "broker/peer/Identity.h"
#include "broker/peer/OwnerQuery.h"
#include "broker/peer/Processes.h"
#include "broker/peer/Services.h"
#include "broker/peer/Users.h"

/// Finds out who is at the other end of connections. User and service at once; the process behind them little
/// by little, so that nobody waits for that.
class Identities
{
public:
    /// Where it looks.
    /// @param proc "/proc"; tests look elsewhere
    explicit Identities(const std::string& proc = "/proc") : Identities(proc, OwnerQuery::Sources()) {}

    /// @param owners where it looks for owners; tests look elsewhere
    Identities(const std::string& proc, OwnerQuery::Sources owners)
        : mOwners(std::move(owners)), mServices(Services::rootIn(proc)), mProcesses(proc)
    {
    }

    /// Of a connection that has just been accepted.
    /// @param connection our end
    /// @param peer the peer's address
    /// @param own  ours
    Identity identify(int connection, const sockaddr_in& peer, const sockaddr_in& own);

    /// Has its process looked for, once, and its service if that is still open.
    void seek(Identity& identity);

    /// The connection is closed.
    void forget(Identity& identity);

    /// Processes are being looked for.
    bool isSeeking() const { return mProcesses.hasWork(); }

    /// When seekOn() is to be called.
    TimePoint due() const { return mProcesses.hasWork() ? mNext : TimePoint::max(); }

    /// Looks for processes, for about a millisecond.
    /// @returns what has been found. It is to be handed to settle() for each identity that there is.
    std::vector<Processes::Found> seekOn(TimePoint now);

    /// Enters the results of a search for the process.
    static void settle(Identity& identity, const Processes::Found& found);

    /// See Processes.
    std::set<uint64_t> socketsOf(pid_t pid, const std::string& program) const
    {
        return mProcesses.socketsOf(pid, program);
    }

    /// The kernel tells which user made a socket, and in which service.
    bool tellsUsers() const { return mOwners.road() != OwnerQuery::Road::None; }
    bool tellsServices() const { return mOwners.tellsControlGroups() && mServices.isThere(); }

    /// Users from outside the broker's user namespace can be told apart, too.
    bool tellsAllUsers() const { return mOwners.seesAllUsers(); }

    /// Looks for its service again, if that could not be looked for at once.
    void completeService(Identity& identity)
    {
        if (identity.isServiceOpen)
            findService(identity);
    }

    /// As the files have them now.
    const Users& users()
    {
        mUsers.refresh();
        return mUsers;
    }

private:
    void findService(Identity& identity);

    OwnerQuery mOwners;
    Services mServices;
    Users mUsers;
    Processes mProcesses;
    TimePoint mNext{}; ///< when to go on
};

#endif
