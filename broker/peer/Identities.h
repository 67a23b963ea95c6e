#ifndef BROKER_PEER_IDENTITIES_H
#define BROKER_PEER_IDENTITIES_H

#include <netinet/in.h>
#include <set>
#include <string>
#include <vector>

#include "broker/peer/Identity.h"
#include "broker/peer/OwnerQuery.h"
#include "broker/peer/ProcessSockets.h"
#include "broker/peer/Processes.h"
#include "broker/peer/Services.h"
#include "broker/peer/Users.h"
#include "daemon/Clock.h"

/// Finds out which client is at the other end of a connection. It finds user and service at once. It looks
/// for the process little by little, so that nothing waits for the search.
class Identities
{
public:
    /// @param proc "/proc"; tests pass another folder
    explicit Identities(const std::string& proc = "/proc") : Identities(proc, OwnerQuery::Sources()) {}

    /// @param owners where to look for owners; tests pass their own
    Identities(const std::string& proc, OwnerQuery::Sources owners)
        : mOwners(std::move(owners)), mServices(Services::rootIn(proc)), mProcesses(proc)
    {
    }

    /// Identifies the peer of a connection that has just been accepted.
    /// @param connection our end
    /// @param peer the peer's address
    /// @param own our address
    Identity identify(int connection, const sockaddr_in& peer, const sockaddr_in& own);

    /// Starts the search for the process, once, and for the service if that is still open.
    void seek(Identity& identity);

    /// The connection is closed.
    void forget(Identity& identity);

    /// Whether a search is under way.
    bool isSeeking() const { return mProcesses.hasWork(); }

    /// When to call seekOn().
    TimePoint due() const { return mProcesses.hasWork() ? mNext : TimePoint::max(); }

    /// Continues the search, for about a millisecond.
    /// @returns the findings; hand each of them to settle() for every identity
    std::vector<Processes::Found> seekOn(TimePoint now);

    /// Enters the result of a search for the process.
    static void settle(Identity& identity, const Processes::Found& found);

    /// See Processes::socketsOf().
    std::set<uint64_t> socketsOf(pid_t pid, const std::string& program) const
    {
        return mProcesses.socketsOf(pid, program).inodes;
    }

    /// Whether the process of `known` certainly does not have the connection of `sought`, whose process is
    /// still being looked for.
    /// @param acceptedAt when the broker accepted the connection of `sought`
    bool isNotOf(const Identity& known, const Identity& sought, TimePoint acceptedAt);

    /// Whether the kernel reports the user and the service in which a socket was made.
    bool tellsUsers() const { return mOwners.road() != OwnerQuery::Road::None; }
    bool tellsServices() const { return mOwners.tellsControlGroups() && mServices.isThere(); }

    /// Whether users from outside the broker's user namespace can be distinguished, too.
    bool tellsAllUsers() const { return mOwners.seesAllUsers(); }

    /// Looks for the service, if that was not possible at once.
    void completeService(Identity& identity)
    {
        if (identity.isServiceOpen)
            findService(identity);
    }

    /// The users, as the files list them now.
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
    ProcessSockets mSockets{mProcesses};
    TimePoint mNext{}; ///< when to continue
};

#endif
