#ifndef BROKER_WIRE_LISTENER_H
#define BROKER_WIRE_LISTENER_H

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>
#include <optional>

#include "daemon/Descriptor.h"

/// A port of 127.0.0.1 that accepts connections.
class Listener
{
public:
    /// Binds the port; connections are refused until listen().
    /// @param sendBuffer bytes that the kernel may hold for a connection that does not read; 0: the system's
    ///     default
    /// @throws std::runtime_error if the port is taken
    Listener(uint16_t port, int sendBuffer);

    /// @throws std::runtime_error if another program already listens
    void listen();

    int descriptor() const { return mSocket.number(); }

    const sockaddr_in& address() const { return mAddress; }

    /// The next waiting connection, non-blocking and ready to use; not open if there is none.
    /// @param outOfDescriptors set if a connection waits for which there is no descriptor
    Descriptor accept(sockaddr_in& peer, bool& outOfDescriptors);

    /// How many connections wait.
    std::size_t waiting() const;

    /// Whether as many wait as the kernel lets. It then ignores more attempts, which clients repeat after a
    /// second, and later.
    bool isFull() const;

private:
    struct Queue
    {
        std::size_t waiting;
        std::size_t most;
    };

    // Nothing where the system emulates this incompletely.
    std::optional<Queue> queue() const;

    sockaddr_in mAddress{};
    Descriptor mSocket;
};

#endif
