#include "broker/peer/SockDiag.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <sys/socket.h>

namespace
{

// TCP_ESTABLISHED, which the included headers lack.
constexpr uint8_t established = 1;

// The headers of Debian 12 have it, older ones do not.
constexpr uint16_t cgroupAttribute = 21;

// An answer is 72 bytes and some attributes.
constexpr std::size_t mostBytes = 4096;

// Allows for unread answers to earlier questions, and for calls that a signal interrupts.
constexpr unsigned mostAttempts = 8;

constexpr std::size_t aligned(std::size_t size)
{
    return (size + NLMSG_ALIGNTO - 1) & ~std::size_t{NLMSG_ALIGNTO - 1};
}

struct Request
{
    nlmsghdr header;
    inet_diag_req_v2 body;
};
static_assert(sizeof(Request) == sizeof(nlmsghdr) + sizeof(inet_diag_req_v2), "as the kernel reads it");

Request requestFor(const SocketPair& pair, uint32_t number)
{
    Request request{};
    request.header.nlmsg_len = sizeof(request);
    request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.header.nlmsg_flags = NLM_F_REQUEST; // no NLM_F_DUMP: exactly this one
    request.header.nlmsg_seq = number;
    request.body.sdiag_family = AF_INET;
    request.body.sdiag_protocol = IPPROTO_TCP;
    request.body.idiag_states = 1U << established;
    request.body.id.idiag_sport = pair.peer.sin_port;
    request.body.id.idiag_dport = pair.own.sin_port;
    request.body.id.idiag_src[0] = pair.peer.sin_addr.s_addr;
    request.body.id.idiag_dst[0] = pair.own.sin_addr.s_addr;
    request.body.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    request.body.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    return request;
}

// A part of a datagram. It copies what it reads, since nothing in a datagram need be aligned.
class Bytes
{
public:
    Bytes(const char* begin, std::size_t size) : mBegin(begin), mSize(size) {}

    std::size_t size() const { return mSize; }

    template <class Value>
    bool copy(Value& value) const
    {
        if (mSize < sizeof(value))
            return false;
        memcpy(&value, mBegin, sizeof(value));
        return true;
    }

    Bytes first(std::size_t count) const { return {mBegin, count < mSize ? count : mSize}; }
    Bytes behind(std::size_t count) const
    {
        const std::size_t skipped = count < mSize ? count : mSize;
        return {mBegin + skipped, mSize - skipped};
    }

private:
    const char* mBegin;
    std::size_t mSize;
};

std::optional<uint64_t> cgroupIn(Bytes attributes)
{
    nlattr attribute{};
    while (attributes.copy(attribute) && attribute.nla_len >= sizeof(attribute) &&
           attribute.nla_len <= attributes.size())
    {
        uint64_t id = 0;
        if ((attribute.nla_type & NLA_TYPE_MASK) == cgroupAttribute &&
            attribute.nla_len == sizeof(attribute) + sizeof(id) &&
            attributes.behind(sizeof(attribute)).copy(id))
            return id;
        attributes = attributes.behind(aligned(attribute.nla_len));
    }
    return std::nullopt;
}

// The kernel may answer with a listening socket if it has no such connection. So all of the answer is
// compared before any of it is used.
bool isAbout(const inet_diag_msg& told, const SocketPair& pair)
{
    const bool isLong = told.idiag_family == AF_INET6;
    return (isLong || told.idiag_family == AF_INET) && told.id.idiag_sport == pair.peer.sin_port &&
           told.id.idiag_dport == pair.own.sin_port &&
           SocketAddress::isSame(told.id.idiag_src, isLong, pair.peer.sin_addr) &&
           SocketAddress::isSame(told.id.idiag_dst, isLong, pair.own.sin_addr);
}

Owner ownerIn(Bytes body, const SocketPair& pair)
{
    inet_diag_msg told{};
    if (!body.copy(told) || !isAbout(told, pair))
        return Owner::unknown(Owner::Knowledge::WrongAnswer);
    // Sockets that are ending or without a process are reported with user 0, which would look like root.
    if (told.idiag_state != established)
        return Owner::unknown(Owner::Knowledge::NotEstablished);
    if (told.idiag_inode == 0)
        return Owner::unknown(Owner::Knowledge::NoProcess);
    return Owner::known(told.idiag_uid, told.idiag_inode, cgroupIn(body.behind(aligned(sizeof(told)))));
}

Owner refusalIn(Bytes body)
{
    nlmsgerr refusal{};
    if (!body.copy(refusal))
        return Owner::unknown(Owner::Knowledge::WrongAnswer);
    return Owner::unknown(refusal.error == -ENOENT ? Owner::Knowledge::NoConnection
                                                   : Owner::Knowledge::NoAnswer);
}

} // namespace

SockDiag::SockDiag()
    : mSocket(socket(AF_NETLINK, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_SOCK_DIAG))
{
}

Owner SockDiag::ask(const SocketPair& pair)
{
    if (!mSocket.isOpen())
        return Owner::unknown(Owner::Knowledge::NoMeans);
    ++mNumber;
    return send(pair) ? receive(pair) : Owner::unknown(Owner::Knowledge::NoAnswer);
}

bool SockDiag::send(const SocketPair& pair)
{
    const Request request = requestFor(pair, mNumber);
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    ssize_t sent = -1;
    for (unsigned attempt = 0; attempt != mostAttempts && sent < 0; ++attempt)
    {
        sent = sendto(mSocket.number(), &request, sizeof(request), 0, reinterpret_cast<sockaddr*>(&kernel),
                      sizeof(kernel));
        if (sent < 0 && errno != EINTR)
            break;
    }
    return sent == sizeof(request);
}

Owner SockDiag::receive(const SocketPair& pair)
{
    for (unsigned attempt = 0; attempt != mostAttempts; ++attempt)
    {
        std::array<char, mostBytes> bytes;
        sockaddr_nl sender{};
        socklen_t senderSize = sizeof(sender);
        const ssize_t size = recvfrom(mSocket.number(), bytes.data(), bytes.size(), MSG_DONTWAIT,
                                      reinterpret_cast<sockaddr*>(&sender), &senderSize);
        if (size < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;
        if (size < 0 || senderSize != sizeof(sender) || sender.nl_pid != 0)
            continue; // interrupted, or not from the kernel
        const Owner owner = read(bytes.data(), static_cast<std::size_t>(size), mNumber, pair);
        if (owner.knowledge() != Owner::Knowledge::NotAsked)
            return owner;
    }
    return Owner::unknown(Owner::Knowledge::NoAnswer);
}

Owner SockDiag::read(const char* bytes, std::size_t size, uint32_t number, const SocketPair& pair)
{
    const Bytes datagram(bytes, size);
    nlmsghdr header{};
    if (!datagram.copy(header) || header.nlmsg_seq != number)
        return {};
    if (header.nlmsg_len > size)
        return Owner::unknown(Owner::Knowledge::WrongAnswer);
    const Bytes body = datagram.first(header.nlmsg_len).behind(sizeof(header));
    switch (header.nlmsg_type)
    {
    case SOCK_DIAG_BY_FAMILY:
        return ownerIn(body, pair);
    case NLMSG_ERROR:
        return refusalIn(body);
    default:
        return Owner::unknown(Owner::Knowledge::WrongAnswer);
    }
}
