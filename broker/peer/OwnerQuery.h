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
/// The kernel knows who made the socket, as SO_PEERCRED does for other sockets: which user's trust the
/// connection has, not which program uses it. It is asked when the connection is accepted. As long as our end
/// is connected, nobody else can have a connected socket with the same pair of addresses.
class OwnerQuery
{
public:
    /// How the kernel is asked.
    enum class Road
    {
        SockDiag,        ///< NETLINK_SOCK_DIAG
        ConnectionTable, ///< /proc/net/tcp
        None,            ///< every owner is unknown
    };

    /// Where it looks; tests look elsewhere.
    struct Sources
    {
        std::string proc = "/proc";
        SockDiag sockDiag;
    };

    /// Takes the first road that tells the truth about a connection of this process's own. "No such
    /// connection" is all that a kernel says that lacks the module tcp_diag, also about those that exist.
    OwnerQuery() : OwnerQuery(Sources()) {}
    explicit OwnerQuery(Sources sources);

    Road road() const { return mRoad; }

    /// The kernel tells in which control group a socket was made.
    bool tellsControlGroups() const { return mTellsControlGroups; }

    /// For people: "sock_diag", "/proc/net/tcp", "none".
    static const char* name(Road road);

    /// Users from outside the broker's user namespace can be told apart. If not, they are unknown.
    bool seesAllUsers() const { return mUsers.isWhole(); }

    /// Never waits for the peer.
    /// @param peer the peer's address, as accept() or getpeername() tells it
    /// @param own ours, as getsockname() tells it
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
