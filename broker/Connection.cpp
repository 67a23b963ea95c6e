#include "broker/Connection.h"

#include <algorithm>
#include <cstddef>
#include <linux/sockios.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace
{

std::optional<tcp_info> infoOf(int descriptor)
{
    tcp_info info{};
    socklen_t size = sizeof(info);
    // Before 4.1 the kernel does not count bytes, and tells less. What is not told is unknown, and not none.
    constexpr std::size_t wanted = offsetof(tcp_info, tcpi_bytes_received) + sizeof(info.tcpi_bytes_received);
    if (getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &size) != 0 || size < wanted)
        return std::nullopt;
    return info;
}

uint64_t queued(int descriptor, unsigned long request)
{
    int bytes = 0;
    return ioctl(descriptor, request, &bytes) == 0 && bytes > 0 ? static_cast<uint64_t>(bytes) : 0;
}

} // namespace

std::optional<uint64_t> Connection::bytesArrived(int descriptor)
{
    const std::optional<tcp_info> info = infoOf(descriptor);
    return info ? std::optional<uint64_t>(info->tcpi_bytes_received) : std::nullopt;
}

uint64_t Connection::bytesUnread(int descriptor)
{
    return queued(descriptor, SIOCINQ);
}

std::optional<uint64_t> Connection::bytesRead(int descriptor)
{
    // Asked in this order, what arrives in between makes the result too small, never too large.
    const std::optional<uint64_t> arrived = bytesArrived(descriptor);
    const uint64_t unread = bytesUnread(descriptor);
    return arrived ? std::optional(*arrived - std::min(*arrived, unread)) : std::nullopt;
}

std::optional<Connection::Sent> Connection::bytesSent(int descriptor)
{
    // Asked in this order, what is acknowledged in between makes the sum too small, never too large.
    const std::optional<tcp_info> info = infoOf(descriptor);
    const uint64_t unacknowledged = queued(descriptor, SIOCOUTQ);
    if (!info)
        return std::nullopt;
    return Sent{info->tcpi_bytes_acked + unacknowledged, info->tcpi_bytes_acked,
                queued(descriptor, SIOCOUTQNSD)};
}

void Connection::cut(int descriptor)
{
    shutdown(descriptor, SHUT_RDWR);
}

uint64_t Connection::wireSize(std::size_t payload)
{
    constexpr std::size_t longestShortFrame = 255;
    constexpr uint64_t shortHeader = 2;
    constexpr uint64_t longHeader = 9;
    return payload + (payload <= longestShortFrame ? shortHeader : longHeader);
}
