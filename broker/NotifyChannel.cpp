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

// The library sends one subscription of one byte. Longer ones, and more of them, are for other programs; but
// libzmq takes some 32 bytes of memory for each byte of a prefix.
constexpr std::size_t longestSubscription = 1024;
constexpr std::size_t subscriptionBytes =
    std::size_t{256} * 1024; // of one connection, cancelled ones included
constexpr std::size_t subscriptionOverhead = 16;

// So many subscriptions of each connection libzmq holds ready. It takes them up as long as there are any,
// whatever else is to be done: so there must be an end to those who send without a pause.
constexpr int queuedSubscriptions = 8;

// So many subscriptions are received at a time.
constexpr int batchSize = 1000;

// A subscriber that is behind is cut off long before libzmq's own mark, which drops silently.
int highWaterMark(std::size_t notifyBytes)
{
    // libzmq may take its queue for full at half the mark, because it learns only now and then what was
    // taken.
    constexpr uint64_t clearance = 4;
    const uint64_t messages = clearance * (notifyBytes / Subscribers::messageOverhead);
    return static_cast<int>(std::min<uint64_t>(messages + 1, std::numeric_limits<int>::max()));
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
    mSocket.set(zmq::sockopt::maxmsgsize, static_cast<int64_t>(longestSubscription));
    mSocket.set(zmq::sockopt::rcvhwm, queuedSubscriptions);
    mSocket.set(zmq::sockopt::xpub_verboser, 1); // all clients subscribe to the same: show each of them
    Sockets::bind(mSocket, endpoint);
}

void NotifyChannel::applyLimits()
{
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
        zmq::pollitem_t item{nullptr, mMonitor.descriptor(), ZMQ_POLLIN, 0};
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

bool NotifyChannel::takeSubscribed()
{
    return std::exchange(mSubscribed, false);
}

void NotifyChannel::receiveSubscriptions()
{
    zmq::message_t frame;
    bool more = false;
    for (int received = 0; received < batchSize; ++received)
    {
        if (!Frames::receiveFrame(mSocket, frame, more))
            return mTurn.nothingIsLeft();
        // A descriptor is used again soon. The end of its last connection is told before anything of this
        // one, and must be taken note of first, or it would be taken for the end of this one.
        updateConnections();
        const auto peer = mPeers.find(zmq_msg_get(frame.handle(), ZMQ_SRCFD));
        if (peer != mPeers.end())
            take(frame, peer->first, peer->second);
    }
}

void NotifyChannel::take(const zmq::message_t& frame, int descriptor, Peer& peer)
{
    // On the connection it may have been a command, which is somewhat longer.
    constexpr uint64_t commandBytes = 20;
    peer.unfinished.received(Connection::wireSize(frame.size()) + commandBytes);
    peer.subscribedBytes += frame.size() + subscriptionOverhead;
    if (peer.subscribedBytes > subscriptionBytes)
    {
        mRefusals.report(Refusal::MessageBytes, "A subscriber to too much was cut off, the limit is " +
                                                    std::to_string(subscriptionBytes) +
                                                    " bytes of subscriptions");
        return Connection::cut(descriptor);
    }
    constexpr char cancelMark = 0;
    constexpr char subscribeMark = 1;
    const char mark = frame.empty() ? '\x7f' : *frame.data<char>();
    const bool isToAll = frame.size() == 1;
    if (mark == cancelMark && isToAll)
        mSubscribers.cancelled(descriptor);
    if (mark != subscribeMark)
        return;
    mSubscribed = true;
    if (const std::optional<Connection::Sent> sent = Connection::bytesSent(descriptor))
        mSubscribers.subscribed(descriptor, *sent, Clock::now(), isToAll);
}

void NotifyChannel::updateConnections()
{
    while (const std::optional<ConnectionMonitor::Event> event = mMonitor.next())
    {
        if (event->kind == ConnectionMonitor::Event::Kind::Accepted)
            mPeers[event->descriptor] = Peer();
        if (event->kind != ConnectionMonitor::Event::Kind::Closed)
            continue;
        mPeers.erase(event->descriptor);
        mSubscribers.left(event->descriptor);
    }
}

bool NotifyChannel::cutOffEndless()
{
    receiveSubscriptions();
    return Unfinished::cutOffEndless(mPeers, mTurn, "subscription", longestSubscription, subscriptionBytes,
                                     mRefusals);
}
