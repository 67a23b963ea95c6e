#include "broker/wire/Connection.h"

#include <cerrno>
#include <cstddef>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "broker/wire/FrameWriter.h"

using namespace std::string_view_literals;

namespace
{

// Memory that is kept for the next output.
constexpr std::size_t keptBytes = 1024;

} // namespace

Connection::Connection(Descriptor socket, Handshake::Kind kind, TimePoint now)
    : Pollable(Pollable::Kind::Connection), mSocket(std::move(socket)), mKind(kind), mAcceptedAt(now),
      mHandshake(kind)
{
    send(Handshake::opening(kind));
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
    return taken(count);
}

TimePoint Connection::lastArrival(TimePoint now) const
{
    tcp_info info{};
    socklen_t size = sizeof(info);
    constexpr std::size_t needed = offsetof(tcp_info, tcpi_last_data_recv) + sizeof(info.tcpi_last_data_recv);
    if (getsockopt(descriptor(), IPPROTO_TCP, TCP_INFO, &info, &size) != 0 || size < needed)
        return now; // emulated
    return now - std::chrono::milliseconds(info.tcpi_last_data_recv);
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
    if (result == Result::Violation || result == Result::Endless)
        kill();
    return isDead() && result != Result::Endless ? Result::NeedsMore : result;
}

// True if it is one. A peer that takes no answers gets none.
bool Connection::answerPing(std::string_view command)
{
    constexpr std::string_view ping = "\4PING"sv;
    constexpr std::size_t timeToLive = 2;
    constexpr std::size_t longestContext = 16;
    constexpr std::size_t mostWaiting = 1024;
    if (command.substr(0, ping.size()) != ping)
        return false;
    if (command.size() >= ping.size() + timeToLive && outputBytes() < mostWaiting)
        sendCommand(std::string("\4PONG").append(command.substr(ping.size() + timeToLive, longestContext)));
    return true;
}

void Connection::send(std::string_view bytes)
{
    if (isDead())
        return;
    if (!hasOutput())
    {
        const std::size_t count = taken(::send(descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
        bytes.remove_prefix(count);
    }
    mOutput += bytes;
}

void Connection::sendCommand(std::string_view command)
{
    std::string bytes;
    FrameWriter::frame([&](std::string_view part) { bytes += part; }, command, FrameWriter::commandFlag);
    send(bytes);
}

bool Connection::flush()
{
    while (hasOutput() && !isDead())
    {
        const std::size_t count =
            taken(::send(descriptor(), mOutput.data() + mSent, mOutput.size() - mSent, MSG_NOSIGNAL));
        if (count == 0)
            return false;
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
    if (isDead())
        return 0;
    msghdr message{};
    message.msg_iov = const_cast<iovec*>(pieces); // which sendmsg() only reads
    message.msg_iovlen = count;
    return taken(sendmsg(descriptor(), &message, MSG_NOSIGNAL));
}

// What a call has transferred. One that failed for another reason than want of room or bytes is the end.
std::size_t Connection::taken(ssize_t result)
{
    if (result >= 0)
    {
        mMoved += static_cast<uint64_t>(result);
        return static_cast<std::size_t>(result);
    }
    if (errno != EAGAIN && errno != EINTR)
        kill();
    return 0;
}
