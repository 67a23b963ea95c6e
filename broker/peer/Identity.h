#ifndef BROKER_PEER_IDENTITY_H
#define BROKER_PEER_IDENTITY_H

#include <string>
#include <sys/types.h>

#include "broker/peer/Owner.h"

/// The peer at the other end of a connection, as far as it is known.
struct Identity
{
    // ---- Vouched for by the kernel. It never changes.
    Owner owner;
    std::string user;            ///< its name, or its number; empty: unknown
    std::string service;         ///< of systemd; empty: none, or unknown
    bool isServiceKnown = false; ///< whether it is known which service it is, or that there is none
    bool isServiceOpen = false;  ///< the service can be looked for only later

    // ---- For people, and to know whose posts to wait for; never for what the peer may do.
    pid_t pid = 0;         ///< 0: unknown
    std::string program;   ///< empty: unknown
    bool isShared = false; ///< other processes have the socket, too

    /// The search for its process.
    enum class Search
    {
        None,
        UnderWay,
        Over,
        CutShort, ///< the connection ended first
    };
    Search search = Search::None;

    /// For a log line: "net.service, user net, process 42 (netd)".
    std::string text() const;
};

#endif
