#include "broker/PostChannel.h"

#include <algorithm>
#include <utility>

#include "broker/Connection.h"
#include "broker/Frames.h"
#include "broker/Sockets.h"

namespace
{

// What a PUB peer sends before its first message: the greeting (64 bytes) and its READY command (27). Should
// a peer send something else, it is waited for once and then written off.
constexpr uint64_t handshakeBytes = 64 + 27;

// A client's library writes at most this much to its connection at a time. A burst that is shorter is written
// before any later request of the same client; of a longer one a rest may still be inside the client when its
// request arrives, with nothing to be seen of it here.
constexpr uint64_t clientBatchBytes = 8192;

// What never comes out as a message are heartbeats and the like. When posts keep coming out, and more than
// this is missing, then it is posts that are taken in too slowly.
constexpr uint64_t mostWrittenOff = uint64_t{16} * 1024;

// At most so many messages can be in a client when its request leaves it: its socket's high-water mark of
// 1,000, and a batch of the smallest ones.
constexpr unsigned clientBacklog = 1500;

// Where this much had arrived and was not read yet, the client's kernel may have been told to hold back what
// it had, as much as its send buffer takes: the default of tcp_wmem.
constexpr uint64_t muchUnread = uint64_t{32} * 1024;
constexpr uint64_t sendBuffer = uint64_t{4} * 1024 * 1024;

} // namespace

PostChannel::PostChannel(zmq::context_t& context, const std::string& endpoint, const Limits& limits,
                         Refusals& refusals)
    : mLimits(limits), mRefusals(refusals), mSocket(Sockets::make(context, zmq::socket_type::sub, limits)),
      mMonitor(context, mSocket, "post", limits, refusals)
{
    mSocket.set(zmq::sockopt::subscribe, "");
    Sockets::bind(mSocket, endpoint);
}

std::optional<PostChannel::Post> PostChannel::receive()
{
    zmq::message_t frame;
    bool more = true;
    Frames::Assembly message(mLimits.messageBytes);
    while (more)
    {
        if (!Frames::receiveFrame(mSocket, frame, more))
        {
            mTurn.nothingIsLeft(); // only in front of a first frame: libzmq hands messages over whole
            return std::nullopt;
        }
        account(frame, more);
        message.add(frame);
    }
    return Post{message.text()};
}

void PostChannel::account(zmq::message_t& frame, bool more)
{
    const int descriptor = zmq_msg_get(frame.handle(), ZMQ_SRCFD);
    auto found = mConnections.find(descriptor);
    if (found == mConnections.end())
    {
        noteConnections(); // what was told of it before its first post
        found = mConnections.find(descriptor);
    }
    if (found == mConnections.end())
        return;
    constexpr std::chrono::milliseconds pause{5};
    Peer& connection = found->second;
    const uint64_t size = Connection::wireSize(frame.size());
    const TimePoint now = Clock::now();
    connection.burst = now - connection.lastArrival < pause ? connection.burst + size : size;
    connection.lastArrival = now;
    connection.accounted += size;
    connection.receivedSince = true;
    connection.unfinished.received(size);
    connection.writtenOff = false;
    if (!more)
        mTurn.received(connection.unfinished.ended(), Sockets::queueLength);
    if (!more && connection.accounted > connection.arrivedBefore)
        ++connection.messagesBehind;
}

bool PostChannel::updateConnections()
{
    noteConnections();
    return std::exchange(mHandshakeDone, false);
}

void PostChannel::noteConnections()
{
    while (const std::optional<ConnectionMonitor::Event> event = mMonitor.next())
    {
        switch (event->kind)
        {
        case ConnectionMonitor::Event::Kind::Accepted:
            mConnections[event->descriptor] = Peer();
            mConnections[event->descriptor].accounted = handshakeBytes;
            break;
        case ConnectionMonitor::Event::Kind::Closed:
            mConnections.erase(event->descriptor);
            break;
        case ConnectionMonitor::Event::Kind::HandshakeDone:
            mHandshakeDone = true;
            break;
        case ConnectionMonitor::Event::Kind::Other:
            break;
        }
    }
}

void PostChannel::beginBarrier()
{
    for (auto& [descriptor, connection] : mConnections)
    {
        connection.awaited = !connection.writtenOff;
        connection.arrivedBefore = Connection::bytesArrived(descriptor).value_or(0);
        connection.receivedSince = false;
        // What was written off and came after all has been counted twice.
        connection.accounted =
            std::min(connection.accounted, std::max(connection.arrivedBefore, handshakeBytes));
        connection.messagesBehind = 0;
        connection.heldBack = Connection::bytesUnread(descriptor) >= muchUnread ? sendBuffer : 0;
    }
}

bool PostChannel::reached(int descriptor, const Peer& connection, std::chrono::microseconds quiet)
{
    if (connection.accounted < connection.arrivedBefore)
        return false;
    if (connection.messagesBehind >= clientBacklog &&
        connection.accounted >= connection.arrivedBefore + connection.heldBack)
        return true;
    if (connection.accounted < Connection::bytesArrived(descriptor).value_or(0))
        return false;
    return connection.burst < clientBatchBytes || Clock::now() - connection.lastArrival >= quiet;
}

bool PostChannel::barrierReached(std::chrono::microseconds quiet)
{
    bool all = true;
    for (auto& [descriptor, connection] : mConnections)
    {
        connection.awaited = connection.awaited && !reached(descriptor, connection, quiet);
        all = all && !connection.awaited;
    }
    return all;
}

void PostChannel::abandonBarrier()
{
    for (auto& [descriptor, connection] : mConnections)
    {
        const bool isBacklog =
            connection.receivedSince && connection.accounted + mostWrittenOff < connection.arrivedBefore;
        if (!connection.awaited || isBacklog)
            continue;
        if (connection.accounted >= connection.arrivedBefore)
            continue; // only what has come since is missing, and may be posts
        connection.accounted = connection.arrivedBefore;
        connection.writtenOff = true;
    }
}

bool PostChannel::cutOffEndless()
{
    return Unfinished::cutOffEndless(mConnections, mTurn, "post", mLimits.messageBytes, Sockets::queueBytes,
                                     mRefusals);
}
