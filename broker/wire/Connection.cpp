#include "broker/wire/Connection.h"

#include <cerrno>
#include <cstddef>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <utility>

#include "broker/wire/FrameWriter.h"

using namespace std::string_view_literals;

namespace
{

// Memory that stays allocated for the next output.
constexpr std::size_t keptBytes = 1024;

// Returns false where the system emulates TCP_INFO incompletely.
bool getInfo(int socket, tcp_info& info)
{
    socklen_t size = sizeof(info);
    constexpr std::size_t needed = offsetof(tcp_info, tcpi_last_data_recv) + sizeof(info.tcpi_last_data_recv);
    return getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 && size >= needed;
}

} // namespace

bool Connection::hasEnded(const Descriptor& socket)
{
    char first = 0;
    const ssize_t count = recv(socket.number(), &first, sizeof(first), MSG_PEEK);
    return count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR);
}

Connection::Connection(Descriptor socket, Handshake::Kind kind, TimePoint now)
    : Pollable(Pollable::Kind::Connection), mSocket(std::move(socket)), mKind(kind), mAcceptedAt(now),
      mHandshake(kind)
{
}

void Connection::greet()
{
    // Otherwise each message would wait for the acknowledgement of the previous one, which the client delays.
    const int isOn = 1;
    setsockopt(descriptor(), IPPROTO_TCP, TCP_NODELAY, &isOn, sizeof(isOn));
    send(Handshake::opening(mKind));
}

void Connection::shutDownOutput()
{
    shutdown(descriptor(), SHUT_WR);
}

std::size_t Connection::receive(char* buffer, std::size_t size)
{
    if (isDead())
        return 0;
    const ssize_t count = recv(descriptor(), buffer, size, 0);
    if (count == 0)
        kill();
    mMayHaveRoom = true;
    return taken(count, mReceivedBytes);
}

TimePoint Connection::lastArrival(TimePoint now) const
{
    tcp_info info{};
    if (!getInfo(descriptor(), info))
        return now;
    return now - std::chrono::milliseconds(info.tcpi_last_data_recv);
}

bool Connection::hasPeerEnded() const
{
    tcp_info info{};
    return getInfo(descriptor(), info) && info.tcpi_state == TCP_CLOSE_WAIT;
}

std::size_t Connection::arrivals() const
{
    int bytes = 0;
    return ioctl(descriptor(), SIOCINQ, &bytes) == 0 && bytes > 0 ? static_cast<std::size_t>(bytes) : 0;
}

std::size_t Connection::unacknowledgedBytes() const
{
    int bytes = 0;
    return ioctl(descriptor(), SIOCOUTQ, &bytes) == 0 && bytes > 0 ? static_cast<std::size_t>(bytes) : 0;
}

FrameReader::Result Connection::next(std::string_view& bytes, std::size_t mostBytes, FrameReader::Item& item,
                                     bool& opened)
{
    using Result = FrameReader::Result;
    if (mState == State::Greeting)
    {
        const Handshake::Result result = mHandshake.takeGreeting(bytes);
        if (result == Handshake::Result::Refused)
            kill();
        else if (result == Handshake::Result::Greeted)
            mState = State::Ready;
    }
    if (mState == State::Greeting || isDead())
        return Result::NeedsMore;
    Result result = mReader.next(bytes, mostBytes, item);
    if (mState == State::Ready && result != Result::NeedsMore)
    {
        if (result != Result::Command || !mHandshake.acceptsReady(item.body))
        {
            kill();
            return Result::NeedsMore;
        }
        mState = State::Open;
        opened = true;
        result = mReader.next(bytes, mostBytes, item);
    }
    while (result == Result::Command && answerPing(item.body))
        result = mReader.next(bytes, mostBytes, item);
    if (result != Result::Command && std::exchange(mHasAnswered, false))
        flush();
    if (result == Result::Violation || result == Result::Endless)
        kill();
    return isDead() && result != Result::Endless ? Result::NeedsMore : result;
}

// Returns whether the command is a PING. A peer that reads no answers gets none. The answers to many PINGs
// leave together; if the kernel has no room, it is asked again only after the next read.
bool Connection::answerPing(std::string_view command)
{
    constexpr std::string_view ping = "\4PING"sv;
    constexpr std::size_t timeToLive = 2;
    constexpr std::size_t longestContext = 16;
    constexpr std::size_t mostWaiting = 1024;
    if (command.substr(0, ping.size()) != ping)
        return false;
    if (outputBytes() >= mostWaiting && mMayHaveRoom)
        mMayHaveRoom = flush();
    if (command.size() >= ping.size() + timeToLive && outputBytes() < mostWaiting && !isDead() && !mIsDeaf)
    {
        appendCommand(std::string("\4PONG").append(command.substr(ping.size() + timeToLive, longestContext)));
        mHasAnswered = true;
    }
    return true;
}

void Connection::send(std::string_view bytes)
{
    if (isDead() || mIsDeaf)
        return;
    if (!hasOutput())
    {
        const std::size_t count = sent(::send(descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
        bytes.remove_prefix(count);
    }
    if (!mIsDeaf)
        mOutput += bytes;
}

void Connection::sendCommand(std::string_view command)
{
    std::string bytes;
    FrameWriter::frame([&](std::string_view part) { bytes += part; }, command, FrameWriter::commandFlag);
    send(bytes);
}

void Connection::appendCommand(std::string_view command)
{
    FrameWriter::frame([&](std::string_view part) { mOutput += part; }, command, FrameWriter::commandFlag);
}

bool Connection::flush()
{
    while (hasOutput() && !isDead())
    {
        const std::size_t count =
            sent(::send(descriptor(), mOutput.data() + mSent, mOutput.size() - mSent, MSG_NOSIGNAL));
        if (count == 0)
            return mIsDeaf;
        mSent += count;
    }
    mOutput.clear();
    mSent = 0;
    if (mOutput.capacity() > keptBytes)
        std::string().swap(mOutput);
    return !isDead();
}

std::size_t Connection::sendPieces(const iovec* pieces, std::size_t count)
{
    if (isDead() || mIsDeaf)
        return 0;
    msghdr message{};
    message.msg_iov = const_cast<iovec*>(pieces); // sendmsg() only reads them
    message.msg_iovlen = count;
    return sent(sendmsg(descriptor(), &message, MSG_NOSIGNAL));
}

// A post connection whose peer has ended stays open after a failed send, as its earlier posts are still
// unread. Other connections end.
std::size_t Connection::sent(ssize_t result)
{
    if (result >= 0 || errno == EAGAIN || errno == EINTR || mKind != Handshake::Kind::Post)
        return taken(result, mSentBytes);
    mIsDeaf = true;
    mOutput.clear();
    mSent = 0;
    return 0;
}

// Returns the bytes that a call has transferred. Ends the connection if the call failed for a reason other
// than want of room or bytes.
std::size_t Connection::taken(ssize_t result, uint64_t& counter)
{
    if (result >= 0)
    {
        counter += static_cast<uint64_t>(result);
        return static_cast<std::size_t>(result);
    }
    if (errno != EAGAIN && errno != EINTR)
        kill();
    return 0;
}
