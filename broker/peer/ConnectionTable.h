#ifndef BROKER_PEER_CONNECTIONTABLE_H
#define BROKER_PEER_CONNECTIONTABLE_H

#include <string>
#include <string_view>

#include "broker/peer/Owner.h"
#include "broker/peer/SocketPair.h"

/// The kernel's tables of TCP connections as text: /proc/net/tcp, and tcp6 for peers with an IPv6 socket.
/// Used where a kernel or sandbox lacks NETLINK_SOCK_DIAG. A look takes a millisecond or more, even for few
/// connections, and finds no control group.
class ConnectionTable
{
public:
    /// @param folder "/proc/net"
    explicit ConnectionTable(const std::string& folder);

    /// Reads the tables anew.
    Owner ask(const SocketPair& pair) const;

    /// Reads the owner from one line of a table.
    /// @param line any text
    /// @returns NotAsked if the line is about another socket, or cannot be understood
    static Owner read(std::string_view line, const SocketPair& pair);

private:
    std::string mTables[2];
};

#endif
