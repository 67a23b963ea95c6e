#include "broker/NotifyChannel.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "broker/Connection.h"
#include "broker/Frames.h"
#include "broker/Sockets.h"
#include "statusmanager/BrokerProtocol.h"

namespace
{

// A subscriber that is behind is cut off long before libzmq's own mark, which drops silently. That is for
// subscribers to a part of the notifications, of which nobody knows how far they are behind.
int highWaterMark(std::size_t notifyBytes)
{
    // libzmq may take its queue for full at half the mark, because it learns only now and then what was
    // taken.
    constexpr std::size_t clearance = 4;
    const std::size_t messages = clearance * (notifyBytes / Subscribers::messageOverhead);
    return static_cast<int>(std::min<std::size_t>(messages + 1, std::numeric_limits<int>::max()));
}

uint64_t wireSizeOf(const std::string& text)
{
    using BrokerProtocol::maxFrameBytes;
    const std::size_t fullFrames = (text.size() - 1) / maxFrameBytes;
    return fullFrames * Connection::wireSize(maxFrameBytes) +
           Connection::wireSize(text.size() - fullFrames * maxFrameBytes);
}

} // namespace

NotifyChannel::NotifyChannel(zmq::context_t& context, const std::string& endpoint, const Limits& limits,
                             Refusals& refusals)
    : mLimits(limits), mRefusals(refusals), mSocket(Sockets::make(context, zmq::socket_type::xpub, limits)),
      mMonitor(context, mSocket, "notify", limits, refusals), mSubscribers(limits)
{
    applyLimits();
    mSocket.set(zmq::sockopt::xpub_verboser, 1); // all clients subscribe to the same: show each of them
    Sockets::bind(mSocket, endpoint);
}

void NotifyChannel::applyLimits()
{
    Sockets::setLimits(mSocket, mLimits);
    mSocket.set(zmq::sockopt::sndhwm, highWaterMark(mLimits.notifyBytes));
}

void NotifyChannel::publish(const std::string& text, uint64_t revision)
{
    Frames::send(mSocket, text);
    ++mPublished;
    mSubscribers.published(wireSizeOf(text), revision);
    if (mSubscribers.lookIsDue())
        relieve();
}

// Returns when nobody is behind by more than the limit.
void NotifyChannel::relieve()
{
    for (;;)
    {
        receiveSubscriptions();
        updateConnections();
        const Subscribers::Verdict verdict = mSubscribers.look(Connection::bytesSent, Clock::now());
        for (const Subscribers::Hopeless& hopeless : verdict.hopeless)
            cutOff(hopeless);
        if (!verdict.wait)
            return;
        zmq::pollitem_t item{mMonitor.pollable().handle(), 0, ZMQ_POLLIN, 0};
        zmq_poll(&item, 1, 1);
    }
}

void NotifyChannel::cutOff(const Subscribers::Hopeless& hopeless)
{
    mRefusals.report(Refusal::NotifyBytes, "A subscriber that takes no notifications was cut off, " +
                                               std::to_string(hopeless.lostNotifications) +
                                               " were waiting, the limit is " +
                                               std::to_string(mLimits.notifyBytes) + " bytes");
    Connection::cut(hopeless.descriptor);
    mSubscribers.left(hopeless.descriptor);
    mKnownByCutOff.push_back(hopeless.knownRevision);
    ++mCutOff;
    mLost += hopeless.lostNotifications;
}

std::vector<uint64_t> NotifyChannel::takeCutOff()
{
    return std::exchange(mKnownByCutOff, {});
}

bool NotifyChannel::takeSubscriptions()
{
    receiveSubscriptions();
    return std::exchange(mSubscribed, false);
}

// Only who subscribes to everything, as the library does, is known to be sent everything.
void NotifyChannel::receiveSubscriptions()
{
    constexpr char subscribeMark = 1;
    zmq::message_t frame;
    bool more = false;
    while (Frames::receiveFrame(mSocket, frame, more))
    {
        // A descriptor is used again soon. The end of its last connection is told before anything of this
        // one, and must be taken note of first, or it would be taken for the end of this one.
        updateConnections();
        if (frame.empty())
            continue;
        const bool subscribes = *frame.data<char>() == subscribeMark;
        mSubscribed = mSubscribed || subscribes;
        if (frame.size() != 1)
            continue;
        const int descriptor = zmq_msg_get(frame.handle(), ZMQ_SRCFD);
        const std::optional<Connection::Sent> sent = Connection::bytesSent(descriptor);
        if (subscribes && sent)
            mSubscribers.subscribed(descriptor, *sent, Clock::now());
        else
            mSubscribers.left(descriptor);
    }
}

void NotifyChannel::updateConnections()
{
    while (const std::optional<ConnectionMonitor::Event> event = mMonitor.next())
    {
        if (event->kind == ConnectionMonitor::Event::Kind::Closed)
            mSubscribers.left(event->descriptor);
    }
}
