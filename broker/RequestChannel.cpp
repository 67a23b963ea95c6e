#include "broker/RequestChannel.h"

#include <algorithm>
#include <utility>

#include "broker/Connection.h"
#include "broker/Frames.h"
#include "broker/Sockets.h"

namespace
{

// A client awaits one reply at a time. Who asks more and reads nothing must not fill the memory with replies:
// none is added to so many, or to so many bytes.
constexpr int unreadReplies = 8;
constexpr uint64_t unreadBytes = uint64_t{1024} * 1024;

} // namespace

RequestChannel::RequestChannel(zmq::context_t& context, const std::string& endpoint, const Limits& limits,
                               Refusals& refusals)
    : mLimits(limits), mRefusals(refusals), mSocket(Sockets::make(context, zmq::socket_type::router, limits)),
      mMonitor(context, mSocket, "request", limits, refusals)
{
    mSocket.set(zmq::sockopt::sndhwm, unreadReplies);
    Sockets::bind(mSocket, endpoint);
}

// A request is three or more frames: the routing id, which libzmq puts in front, an empty one, the text.
std::optional<RequestChannel::Request> RequestChannel::receive()
{
    zmq::message_t frame;
    bool more = false;
    if (!Frames::receiveFrame(mSocket, frame, more))
    {
        mTurn.nothingIsLeft();
        return std::nullopt;
    }
    Request request;
    request.connection = frame.to_string();

    uint64_t bytes = 0;
    const bool wellFormed = more && receiveFrame(frame, more, bytes) && frame.empty() && more;
    Frames::Assembly text(mLimits.messageBytes);
    while (more && receiveFrame(frame, more, bytes))
        text.add(frame);
    if (wellFormed)
        request.text = text.text();
    request.tooLong = !text.text();

    // What was told before the request came is noted first, or its connection may not be known yet, or be
    // taken for an earlier one on the same descriptor.
    noteConnections();
    const auto peer = mPeers.find(zmq_msg_get(frame.handle(), ZMQ_SRCFD));
    if (peer != mPeers.end())
    {
        noteSpeaker(peer->first, peer->second, request.connection);
        peer->second.unfinished.received(bytes);
        mTurn.received(peer->second.unfinished.ended(), Sockets::queueLength);
    }
    return request;
}

bool RequestChannel::receiveFrame(zmq::message_t& frame, bool& more, uint64_t& bytes)
{
    if (!Frames::receiveFrame(mSocket, frame, more))
        return false;
    bytes += Connection::wireSize(frame.size());
    return true;
}

void RequestChannel::reply(const std::string& connection, const std::string& text)
{
    const auto speaker = mSpeakers.find(connection);
    if (speaker != mSpeakers.end() && !hasRoomFor(text, speaker->second))
        return mRefusals.report(Refusal::UnreadReplies,
                                "A reply was dropped, its receiver has left more than " +
                                    std::to_string(unreadBytes) + " bytes of others unread");
    Frames::sendFrame(mSocket, zmq::buffer(connection), true);
    Frames::sendFrame(mSocket, zmq::const_buffer(), true);
    Frames::send(mSocket, text);
}

bool RequestChannel::hasRoomFor(const std::string& reply, int descriptor)
{
    const std::optional<Connection::Sent> sent = Connection::bytesSent(descriptor);
    if (!sent)
        return true; // it has just been closed: nobody gets it
    // What is sent beside replies, such as the answers to heartbeats, was not counted.
    Peer& peer = mPeers[descriptor];
    peer.replied = std::max(peer.replied, sent->handedOver);
    if (peer.replied - sent->handedOver > unreadBytes)
        return false;
    peer.replied += reply.size();
    return true;
}

// Requests of a connection that has been closed may still come when its descriptor is in use again.
void RequestChannel::noteSpeaker(int descriptor, Peer& peer, const std::string& connection)
{
    if (peer.connection == connection)
        return;
    forgetSpeaker(descriptor, peer);
    peer.connection = connection;
    mSpeakers[connection] = descriptor;
}

bool RequestChannel::forgetSpeaker(int descriptor, const Peer& peer)
{
    const auto speaker = mSpeakers.find(peer.connection);
    if (speaker == mSpeakers.end() || speaker->second != descriptor)
        return false;
    mSpeakers.erase(speaker);
    return true;
}

std::vector<std::string> RequestChannel::updateConnections()
{
    noteConnections();
    return std::exchange(mClosed, {});
}

void RequestChannel::noteConnections()
{
    while (const std::optional<ConnectionMonitor::Event> event = mMonitor.next())
    {
        if (event->kind == ConnectionMonitor::Event::Kind::Accepted)
            mPeers[event->descriptor] = Peer();
        if (event->kind != ConnectionMonitor::Event::Kind::Closed)
            continue;
        const auto peer = mPeers.find(event->descriptor);
        if (peer == mPeers.end())
            continue;
        if (forgetSpeaker(peer->first, peer->second))
            mClosed.push_back(peer->second.connection);
        mPeers.erase(peer);
    }
}

bool RequestChannel::cutOffEndless()
{
    return Unfinished::cutOffEndless(mPeers, mTurn, "request", mLimits.messageBytes, Sockets::queueBytes,
                                     mRefusals);
}
