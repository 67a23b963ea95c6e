#ifndef TESTS_SUPPORT_LOOPBACK_H
#define TESTS_SUPPORT_LOOPBACK_H

#include <arpa/inet.h>
#include <cstdint>
#include <netinet/in.h>

/// The address of a port of this machine. With port 0 the system chooses one.
inline sockaddr_in loopback(uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

#endif
