#ifndef BROKER_PEER_SOCKETPAIR_H
#define BROKER_PEER_SOCKETPAIR_H

#include <cstdint>
#include <netinet/in.h>

/// The addresses of a connection's two ends, from the peer's point of view.
struct SocketPair
{
    sockaddr_in peer; ///< the address of the peer's socket
    sockaddr_in own;  ///< the address that it is connected to
};

/// Addresses as the kernel writes them, in network byte order: four bytes, or sixteen. A peer may have an
/// IPv6 socket that is connected to ::ffff:127.0.0.1.
namespace SocketAddress
{

/// The kernel's format of an address: sixteen bytes, of which an IPv4 address uses the first four.
using Words = uint32_t[4];

inline bool isSame(const Words& told, bool isLong, const in_addr& address)
{
    if (!isLong)
        return told[0] == address.s_addr;
    return told[0] == 0 && told[1] == 0 && told[2] == htonl(0xffff) && told[3] == address.s_addr;
}

} // namespace SocketAddress

#endif
