#include "statusctl/device/Ports.h"

#include <algorithm>
#include <cerrno>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

class Connection
{
public:
    explicit Connection(uint16_t port)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        mIsOpen = connect(mDescriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 ||
                  (errno == EINPROGRESS && !isRefused());
    }
    ~Connection() { close(mDescriptor); }

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool isOpen() const { return mIsOpen; }

    bool write(const std::string& bytes) const
    {
        return send(mDescriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }

    // Reads until `bytes` has `count` bytes in all.
    bool readUpTo(std::string& bytes, std::size_t count, steady_clock::time_point end)
    {
        while (bytes.size() < count)
        {
            const auto left = std::chrono::duration_cast<milliseconds>(end - steady_clock::now()).count();
            pollfd item{mDescriptor, POLLIN, 0};
            if (left <= 0 || poll(&item, 1, static_cast<int>(left)) <= 0)
                return false;
            std::array<char, 256> part{};
            const ssize_t size =
                recv(mDescriptor, part.data(), std::min(part.size(), count - bytes.size()), 0);
            if (size <= 0)
                return false;
            bytes.append(part.data(), static_cast<std::size_t>(size));
        }
        return true;
    }

private:
    // The kernel answers at once for a listening process, unless that process has stopped accepting and its
    // queue is full. A connection would then wait for minutes.
    bool isRefused() const
    {
        constexpr int patience = 100;
        pollfd item{mDescriptor, POLLOUT, 0};
        poll(&item, 1, patience);
        int error = 0;
        socklen_t size = sizeof(error);
        getsockopt(mDescriptor, SOL_SOCKET, SO_ERROR, &error, &size);
        return error != 0;
    }

    int mDescriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    bool mIsOpen = false;
};

// The greeting of ZMTP 3, with the NULL mechanism.
std::string greeting()
{
    std::string text("\xff\0\0\0\0\0\0\0\1\x7f\3\0NULL", 16);
    text.resize(64, '\0');
    return text;
}

// A command frame: flags, length, then READY with its properties.
std::string readyOf(const std::string& type)
{
    std::string body("\5READY\x0bSocket-Type\0\0\0", 21);
    body += static_cast<char>(type.size());
    body += type;
    return std::string(1, '\4') + static_cast<char>(body.size()) + body;
}

// Also true for the beginning of a greeting.
bool isGreeting(const std::string& bytes)
{
    return (bytes.empty() || bytes[0] == '\xff') && (bytes.size() < 10 || bytes[9] == '\x7f');
}

// The socket type in the properties of a READY; empty if there is none.
std::string typeIn(const std::string& bytes)
{
    static const std::string name("\x0bSocket-Type", 12);
    constexpr std::size_t lengthBytes = 4;
    const std::size_t at = bytes.find(name);
    if (at == std::string::npos || bytes.size() < at + name.size() + lengthBytes)
        return {};
    const auto size = static_cast<unsigned char>(bytes[at + name.size() + lengthBytes - 1]);
    return bytes.substr(at + name.size() + lengthBytes, size);
}

std::string peerTypeOf(uint16_t port)
{
    constexpr uint16_t requests = 5555;
    constexpr uint16_t posts = 5556;
    return port == requests ? "DEALER" : port == posts ? "PUB" : "SUB";
}

} // namespace

bool Ports::isOpen(uint16_t port)
{
    return Connection(port).isOpen();
}

std::optional<Ports::Port> Ports::firstClosed()
{
    const auto* const closed =
        std::find_if_not(all.begin(), all.end(), [](const Port& port) { return isOpen(port.number); });
    return closed == all.end() ? std::nullopt : std::optional(*closed);
}

std::optional<std::string> Ports::socketType(uint16_t port, milliseconds timeout)
{
    constexpr std::size_t greetingBytes = 64;
    const steady_clock::time_point end = steady_clock::now() + timeout;
    Connection connection(port);
    std::string received;
    if (!connection.isOpen() || !connection.write(greeting()))
        return std::nullopt;
    const bool isWhole = connection.readUpTo(received, greetingBytes, end);
    if (!isGreeting(received))
        return "";
    if (!isWhole || !connection.write(readyOf(peerTypeOf(port))) ||
        !connection.readUpTo(received, greetingBytes + 2, end) ||
        !connection.readUpTo(received, greetingBytes + 2 + static_cast<unsigned char>(received.back()), end))
        return std::nullopt;
    return typeIn(received);
}
