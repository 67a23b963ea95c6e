#include "broker/wire/Listener.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <netinet/tcp.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>

namespace
{

// When a crowd of clients starts and the queue is full, connection attempts are lost. The clients try again
// only after a second.
constexpr int backlog = 4096;

void set(int socket, int level, int option, int value)
{
    setsockopt(socket, level, option, &value, sizeof(value));
}

[[noreturn]] void fail(uint16_t port, int error)
{
    throw std::runtime_error("cannot bind tcp://127.0.0.1:" + std::to_string(port) + ": " + strerror(error) +
                             (error == EADDRINUSE ? "; see \"statusctl doctor\"" : ""));
}

} // namespace

Listener::Listener(uint16_t port, int sendBuffer)
    : mSocket(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
{
    mAddress.sin_family = AF_INET;
    mAddress.sin_port = htons(port);
    mAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    set(mSocket.number(), SOL_SOCKET, SO_REUSEADDR, 1); // connections of an earlier broker may linger
    if (sendBuffer != 0)
        set(mSocket.number(), SOL_SOCKET, SO_SNDBUF, sendBuffer);
    if (!mSocket.isOpen() ||
        bind(mSocket.number(), reinterpret_cast<const sockaddr*>(&mAddress), sizeof(mAddress)) != 0)
        fail(port, errno);
}

void Listener::listen()
{
    if (::listen(mSocket.number(), backlog) != 0)
        fail(ntohs(mAddress.sin_port), errno);
}

Descriptor Listener::accept(sockaddr_in& peer, bool& outOfDescriptors)
{
    for (;;)
    {
        socklen_t size = sizeof(peer);
        Descriptor connection(accept4(mSocket.number(), reinterpret_cast<sockaddr*>(&peer), &size,
                                      SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (connection.isOpen())
            return connection;
        if (errno == EINTR || errno == ECONNABORTED)
            continue;
        outOfDescriptors = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
        return connection;
    }
}

std::size_t Listener::waiting() const
{
    const std::optional<Queue> queue = this->queue();
    return queue ? queue->waiting : backlog; // incomplete emulation: the most that may wait
}

bool Listener::isFull() const
{
    const std::optional<Queue> queue = this->queue();
    return queue && queue->most != 0 && queue->waiting >= queue->most; // 0: incomplete emulation
}

std::optional<Listener::Queue> Listener::queue() const
{
    tcp_info info{};
    socklen_t size = sizeof(info);
    constexpr std::size_t needed = offsetof(tcp_info, tcpi_sacked) + sizeof(info.tcpi_sacked);
    if (getsockopt(mSocket.number(), IPPROTO_TCP, TCP_INFO, &info, &size) != 0 || size < needed)
        return std::nullopt;
    return Queue{info.tcpi_unacked, info.tcpi_sacked}; // the kernel's places for them in a listening socket
}
