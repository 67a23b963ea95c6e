#ifndef BROKER_PEER_SOCKDIAG_H
#define BROKER_PEER_SOCKDIAG_H

#include <cstddef>
#include <cstdint>
#include <utility>

#include "broker/peer/Owner.h"
#include "broker/peer/SocketPair.h"
#include "daemon/Descriptor.h"

/// Asks the kernel for one socket, through NETLINK_SOCK_DIAG. That takes a microsecond and needs no
/// privileges. It asks for exactly this connection: a dump filtered by port would also return sockets of
/// other addresses.
class SockDiag
{
public:
    /// Opens the netlink socket. isOpen() returns whether this kernel and this sandbox allow it.
    SockDiag();

    /// Uses a given netlink socket, or none; for tests.
    explicit SockDiag(Descriptor socket) : mSocket(std::move(socket)) {}

    bool isOpen() const { return mSocket.isOpen(); }

    /// Never waits: the kernel answers within the call that asks.
    Owner ask(const SocketPair& pair);

    /// Reads the owner from one datagram of the kernel, for the question with this number.
    /// @param bytes any bytes, at any address
    /// @returns NotAsked if the datagram answers another question
    static Owner read(const char* bytes, std::size_t size, uint32_t number, const SocketPair& pair);

private:
    bool send(const SocketPair& pair);
    Owner receive(const SocketPair& pair);

    Descriptor mSocket;
    uint32_t mNumber = 0; ///< of the last question
};

#endif
