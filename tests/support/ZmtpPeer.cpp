#include "tests/support/ZmtpPeer.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/Loopback.h"

namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::size_t greetingBytes = 64;

int millisecondsUntil(Clock::time_point end)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(0, left.count()));
}

std::string commandOf(const std::string& name, const std::string& body)
{
    return WireFrames::frame(static_cast<char>(name.size()) + name + body, WireFrames::command);
}

bool isPing(const WireFrames::Frame& frame)
{
    return (frame.flags & WireFrames::command) != 0 && frame.body.rfind("\4PING", 0) == 0;
}

} // namespace

std::string ZmtpPeer::greeting(char minorVersion)
{
    std::string bytes("\xff\0\0\0\0\0\0\0\0\x7f\3", 11);
    bytes += minorVersion;
    bytes += "NULL";
    bytes.resize(greetingBytes, '\0');
    return bytes;
}

std::string ZmtpPeer::ready(const std::string& socketType)
{
    return commandOf("READY", std::string("\x0bSocket-Type\0\0\0", 15) +
                                  static_cast<char>(socketType.size()) + socketType);
}

std::string ZmtpPeer::ping(const std::string& context)
{
    return commandOf("PING", std::string(2, '\0') + context);
}

std::string ZmtpPeer::pong(const std::string& context)
{
    return commandOf("PONG", context);
}

std::string ZmtpPeer::subscribe(const std::string& prefix)
{
    return commandOf("SUBSCRIBE", prefix);
}

std::string ZmtpPeer::subscribe30(const std::string& prefix)
{
    return WireFrames::frame('\1' + prefix);
}

std::string ZmtpPeer::cancel(const std::string& prefix)
{
    return commandOf("CANCEL", prefix);
}

std::string ZmtpPeer::request(const std::string& text)
{
    return WireFrames::message({"", text});
}

std::string ZmtpPeer::openingOf(uint16_t port)
{
    return greeting() + ready(port == requestPort ? "ROUTER" : port == postPort ? "SUB" : "XPUB");
}

ZmtpPeer::ZmtpPeer(uint16_t port, int receiveBuffer)
    : mPort(port), mSocket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    if (receiveBuffer != 0)
        setsockopt(mSocket, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
    const sockaddr_in address = loopback(port);
    if (connect(mSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
        throw std::runtime_error("cannot connect to port " + std::to_string(port));
}

ZmtpPeer::~ZmtpPeer()
{
    close(mSocket);
}

std::string ZmtpPeer::fittingType() const
{
    return mPort == requestPort ? "REQ" : mPort == postPort ? "PUB" : "SUB";
}

bool ZmtpPeer::shakeHandsAs(const std::string& socketType, char minorVersion)
{
    const std::string expected = openingOf(mPort);
    return write(greeting(minorVersion) + ready(socketType)) && read(expected.size()) == expected;
}

// A plain send() may notice the broker's end only after 108 seconds: while the broker's window is closed,
// nothing can be sent that would be refused.
bool ZmtpPeer::write(std::string_view bytes)
{
    while (!bytes.empty())
    {
        pollfd item{mSocket, POLLOUT | POLLRDHUP, 0};
        poll(&item, 1, -1);
        if ((item.revents & (POLLRDHUP | POLLERR | POLLHUP)) != 0)
            return false;
        bytes.remove_prefix(writeSome(bytes));
    }
    return true;
}

std::size_t ZmtpPeer::writeSome(std::string_view bytes)
{
    const ssize_t count = send(mSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return static_cast<std::size_t>(std::max<ssize_t>(count, 0));
}

// Reads what has arrived. Returns false at the deadline or the end.
bool ZmtpPeer::fill(Clock::time_point end)
{
    pollfd item{mSocket, POLLIN, 0};
    if (mIsEnded || poll(&item, 1, millisecondsUntil(end)) <= 0)
        return false;
    std::array<char, 65536> bytes;
    const ssize_t count = recv(mSocket, bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (count > 0)
        mReceived.append(bytes.data(), static_cast<std::size_t>(count));
    mIsEnded = count == 0 || (count == -1 && errno != EAGAIN);
    return !mIsEnded;
}

std::string ZmtpPeer::read(std::size_t count, std::chrono::milliseconds deadline)
{
    const auto end = Clock::now() + deadline;
    while (mReceived.size() < count && fill(end))
    {
    }
    std::string bytes = mReceived.substr(0, count);
    mReceived.erase(0, bytes.size());
    return bytes;
}

std::optional<WireFrames::Frame> ZmtpPeer::readFrame(std::chrono::milliseconds deadline)
{
    const auto end = Clock::now() + deadline;
    for (;;)
    {
        if (std::optional<WireFrames::Frame> frame = WireFrames::takeFrame(mReceived))
            return frame;
        if (!fill(end))
            return std::nullopt;
    }
}

std::optional<std::vector<std::string>> ZmtpPeer::receive(std::chrono::milliseconds deadline)
{
    const auto end = Clock::now() + deadline;
    std::vector<std::string> frames;
    for (;;)
    {
        const auto left = std::chrono::milliseconds(millisecondsUntil(end));
        std::optional<WireFrames::Frame> frame = readFrame(left);
        if (!frame)
            return std::nullopt;
        if (isPing(*frame))
            write(pong(frame->body.substr(std::min<std::size_t>(7, frame->body.size()))));
        if ((frame->flags & WireFrames::command) != 0)
            continue;
        frames.push_back(std::move(frame->body));
        if ((frame->flags & WireFrames::more) == 0)
            return frames;
    }
}

std::optional<std::string> ZmtpPeer::receiveText(std::chrono::milliseconds deadline)
{
    const std::optional<std::vector<std::string>> frames = receive(deadline);
    if (!frames)
        return std::nullopt;
    std::string text;
    for (const std::string& frame : *frames)
        text += frame;
    return text;
}

// A connection that has said nothing for a second, which happens to a busy test, gets an empty answer. Like
// any client, this one asks again then.
std::string ZmtpPeer::ask(const std::string& text)
{
    const auto askOnce = [&] { return write(request(text)) ? receiveText().value_or("") : ""; };
    const std::string answer = askOnce();
    return answer.empty() && !mIsEnded ? askOnce() : answer;
}

bool ZmtpPeer::isClosed(std::chrono::milliseconds deadline)
{
    const auto end = Clock::now() + deadline;
    while (fill(end))
    {
    }
    return mIsEnded;
}

void ZmtpPeer::shutDown()
{
    shutdown(mSocket, SHUT_RDWR);
}

void ZmtpPeer::reset()
{
    const linger hard{1, 0};
    setsockopt(mSocket, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
    close(mSocket);
    mSocket = -1;
    mIsEnded = true;
}

// --------------------------------------------------------------------------------------------------- server

ZmtpServer::ZmtpServer(int receiveBuffer) : mSocket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    if (receiveBuffer != 0)
        setsockopt(mSocket, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(mSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(mSocket, SOMAXCONN) != 0)
        throw std::runtime_error("cannot listen");
}

ZmtpServer::~ZmtpServer()
{
    close(mSocket);
}

std::string ZmtpServer::endpoint() const
{
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    getsockname(mSocket, reinterpret_cast<sockaddr*>(&address), &size);
    return "tcp://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
}

std::unique_ptr<ZmtpPeer> ZmtpServer::accept(std::chrono::milliseconds deadline)
{
    pollfd item{mSocket, POLLIN, 0};
    if (poll(&item, 1, static_cast<int>(deadline.count())) <= 0)
        return nullptr;
    return ZmtpPeer::accepted(accept4(mSocket, nullptr, nullptr, SOCK_CLOEXEC));
}
