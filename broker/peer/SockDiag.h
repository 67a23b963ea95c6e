#ifndef BROKER_PEER_SOCKDIAG_H
#define BROKER_PEER_SOCKDIAG_H

#include <cstddef>
#include <cstdint>
#include <utility>

#include "broker/base/Descriptor.h"
#include "broker/peer/Owner.h"
#include "broker/peer/SocketPair.h"

/// Asks the kernel for one socket, through NETLINK_SOCK_DIAG: a microsecond, without privileges. It asks for
/// exactly this connection. A dump of all, filtered by port, would also find sockets of other addresses.
class SockDiag
{
public:
    /// Opens the socket; isOpen() tells whether this kernel and this sandbox allow it.
    SockDiag();

    /// Uses a socket of NETLINK_SOCK_DIAG, or none; for tests.
    explicit SockDiag(Descriptor socket) : mSocket(std::move(socket)) {}

    bool isOpen() const { return mSocket.isOpen(); }

    /// Never waits: the kernel answers within the call that asks.
    Owner ask(const SocketPair& pair);

    /// Reads the owner from one datagram of the kernel, for the question with this number.
    /// @param bytes any bytes, at any address
    /// @returns NotAsked if the datagram belongs to another question
    static Owner read(const char* bytes, std::size_t size, uint32_t number, const SocketPair& pair);

private:
    bool send(const SocketPair& pair);
    Owner receive(const SocketPair& pair);

    Descriptor mSocket;
    uint32_t mNumber = 0; ///< of the question asked last
};

#endif
