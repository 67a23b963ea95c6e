#ifndef BROKER_PEER_OWNERQUERY_H
#define BROKER_PEER_OWNERQUERY_H

#include <netinet/in.h>
#include <string>

#include "broker/peer/ConnectionTable.h"
#include "broker/peer/Owner.h"
#include "broker/peer/SockDiag.h"
#include "broker/peer/UserNamespace.h"

/// Asks the kernel who made the socket at the other end of a TCP connection of this machine.
///
/// As SO_PEERCRED does for other sockets, this finds the user whose trust the connection has, not the program
/// that uses it. The question is asked when the connection is accepted. As long as our end is connected, no
/// other process can have a connected socket with the same pair of addresses.
class OwnerQuery
{
public:
    /// How to ask the kernel.
    enum class Road
    {
        SockDiag,        ///< NETLINK_SOCK_DIAG
        ConnectionTable, ///< /proc/net/tcp
        None,            ///< every owner is unknown
    };

    /// Where to look; tests pass other places.
    struct Sources
    {
        std::string proc = "/proc";
        SockDiag sockDiag;
    };

    /// Takes the first road that gives a right answer about a connection of this process itself. A kernel
    /// without the module tcp_diag reports "no such connection" even for existing ones.
    OwnerQuery() : OwnerQuery(Sources()) {}
    explicit OwnerQuery(Sources sources);

    Road road() const { return mRoad; }

    /// Whether the kernel reports in which control group a socket was made.
    bool tellsControlGroups() const { return mTellsControlGroups; }

    /// For people: "sock_diag", "/proc/net/tcp", "none".
    static const char* name(Road road);

    /// Whether users from outside the broker's user namespace can be distinguished. If not, they are unknown.
    bool seesAllUsers() const { return mUsers.isWhole(); }

    /// Never waits for the peer.
    /// @param peer the peer's address, as accept() or getpeername() returns it
    /// @param own our address, as getsockname() returns it
    Owner ask(const sockaddr_in& peer, const sockaddr_in& own);

private:
    Owner askAlong(Road road, const SocketPair& pair);
    Road firstTrue();

    UserNamespace mUsers;
    ConnectionTable mTable;
    SockDiag mSockDiag;
    bool mTellsControlGroups = false;
    Road mRoad;
};

#endif
