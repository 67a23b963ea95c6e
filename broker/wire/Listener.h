#ifndef BROKER_WIRE_LISTENER_H
#define BROKER_WIRE_LISTENER_H

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>

#include "broker/base/Descriptor.h"

/// A port of 127.0.0.1 at which connections arrive.
class Listener
{
public:
    /// Takes the port; connections are refused until listen().
    /// @param sendBuffer bytes that the kernel may hold for a connection that does not read; 0: as usual
    /// @throws std::runtime_error when the port is taken
    Listener(uint16_t port, int sendBuffer);

    /// @throws std::runtime_error when another program does already
    void listen();

    int descriptor() const { return mSocket.number(); }

    const sockaddr_in& address() const { return mAddress; }

    /// The next connection, non-blocking and ready to be used; none (not open) if none waits.
    /// @param outOfDescriptors set if one waits that cannot be had
    Descriptor accept(sockaddr_in& peer, bool& outOfDescriptors);

    /// How many connections wait.
    std::size_t waiting() const;

private:
    sockaddr_in mAddress{};
    Descriptor mSocket;
};

#endif
