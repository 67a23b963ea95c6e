#ifndef TESTS_SUPPORT_CROWD_H
#define TESTS_SUPPORT_CROWD_H

#include <cstdint>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "daemon/Descriptor.h"

/// Connects and closes until so many connections wait at the port that the kernel ignores the attempts of
/// others. Nobody may accept them meanwhile.
inline void fillQueueOf(uint16_t port)
{
    constexpr int longestQueue = 4096;
    for (int count = 0; count < 2 * longestQueue; ++count) // an attempt may end before it is in the queue
    {
        const Descriptor peer(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_TRUE(peer.isOpen());
        (void)connect(peer.number(), reinterpret_cast<sockaddr*>(&address), sizeof(address));
    }
}

#endif
