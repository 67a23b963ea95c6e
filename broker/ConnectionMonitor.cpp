#include "broker/ConnectionMonitor.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <utility>

#include "broker/Connection.h"
#include "broker/Frames.h"
#include "common/Logging.h"

OV_LOG_CONTROL_WORDS;

namespace
{

// What a peer begins with, and the least that it sends before its handshake is complete.
constexpr uint64_t greetingBytes = 64;
constexpr uint64_t handshakeBytes = greetingBytes + 27;

} // namespace

ConnectionMonitor::ConnectionMonitor(zmq::context_t& context, zmq::socket_t& socket, const std::string& name,
                                     const Limits& limits, Refusals& refusals)
    : mName(name), mLimits(limits), mRefusals(refusals), mMonitored(socket),
      mEvents(context, zmq::socket_type::pair)
{
    const std::string endpoint = "inproc://monitor-" + name;
    constexpr int events = ZMQ_EVENT_ACCEPTED | ZMQ_EVENT_DISCONNECTED | ZMQ_EVENT_HANDSHAKE_SUCCEEDED |
                           ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL | ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL |
                           ZMQ_EVENT_HANDSHAKE_FAILED_AUTH;
    if (zmq_socket_monitor(socket.handle(), endpoint.c_str(), events) != 0)
        throw zmq::error_t();
    mEvents.set(zmq::sockopt::rcvhwm, 0); // an event that is dropped would spoil the counts for good
    mEvents.connect(endpoint);
    mDescriptor = mEvents.get(zmq::sockopt::fd);
}

ConnectionMonitor::~ConnectionMonitor()
{
    zmq_socket_monitor(mMonitored.handle(), nullptr, 0);
}

std::optional<ConnectionMonitor::Event> ConnectionMonitor::next()
{
    // Two frames: a 16-bit event and its 32-bit value in host order and unaligned, then the endpoint.
    zmq::message_t frame;
    zmq::message_t endpoint;
    bool more = false;
    if (!Frames::receiveFrame(mEvents, frame, more) || !Frames::receiveFrame(mEvents, endpoint, more))
        return std::nullopt;
    uint16_t event = 0;
    int32_t value = 0;
    std::memcpy(&event, frame.data(), sizeof(event));
    std::memcpy(&value, frame.data<char>() + sizeof(event), sizeof(value));
    const bool failed = std::exchange(mHandshakeFailed, false);
    switch (event)
    {
    case ZMQ_EVENT_ACCEPTED:
        accept(value);
        return Event{Event::Kind::Accepted, value};
    case ZMQ_EVENT_HANDSHAKE_SUCCEEDED:
        handshakeDone();
        return Event{Event::Kind::HandshakeDone, -1};
    case ZMQ_EVENT_DISCONNECTED:
        close(value, failed);
        return Event{Event::Kind::Closed, value};
    default:
        mHandshakeFailed = true;
        return Event{Event::Kind::Other, -1};
    }
}

void ConnectionMonitor::accept(int descriptor)
{
    mOpen[descriptor] = ++mAccepted;
    mSilent.emplace(mAccepted, descriptor);
    mShaking.emplace(mAccepted, descriptor);
    dropSpoken();
    warnNearLimit();
    if (mOpen.size() <= mLimits.connections)
        return;
    mRefusals.report(Refusal::Connections, "A connection to the " + mName +
                                               " port was cut off, the limit is " +
                                               std::to_string(mLimits.connections));
    Connection::cut(mSilent.empty() ? descriptor : mSilent.begin()->second);
    if (!mSilent.empty())
        mSilent.erase(mSilent.begin());
}

// Once, until there is clearly room again; and not more often than other lines of what outsiders cause.
void ConnectionMonitor::warnNearLimit()
{
    constexpr std::size_t near = 90; // percent
    constexpr std::size_t room = 80;
    const std::size_t used = mOpen.size() * 100 / mLimits.connections;
    mIsNearLimit = mIsNearLimit && used >= room;
    const TimePoint now = Clock::now();
    if (used < near || mIsNearLimit || now < mNextWarning)
        return;
    OV_LOG(2, "%zu of %zu connections to the %s port are in use", mOpen.size(), mLimits.connections,
           mName.c_str());
    mIsNearLimit = true;
    mNextWarning = now + Refusals::window;
}

// Drops those in front that have spoken.
void ConnectionMonitor::dropSpoken()
{
    while (!mSilent.empty() &&
           Connection::bytesArrived(mSilent.begin()->second).value_or(greetingBytes) >= greetingBytes)
        mSilent.erase(mSilent.begin());
}

void ConnectionMonitor::handshakeDone()
{
    auto done = newestThatHasShakenHands();
    if (done == mShaking.end() && !mShaking.empty())
        done = std::prev(done); // it has been closed in the meantime
    if (done != mShaking.end())
        mShaking.erase(done);
}

// The newest, since a client shakes hands at once. What else is open without having done so may stay like
// that.
ConnectionMonitor::ByAge::iterator ConnectionMonitor::newestThatHasShakenHands()
{
    const auto hasShakenHands = [](const ByAge::value_type& connection)
    {
        const std::optional<Connection::Sent> sent = Connection::bytesSent(connection.second);
        // Peers of an older protocol, whose handshakes are not told, are not sent the whole greeting.
        return sent && sent->handedOver >= greetingBytes &&
               Connection::bytesRead(connection.second).value_or(0) >= handshakeBytes;
    };
    const auto found = std::find_if(mShaking.rbegin(), mShaking.rend(), hasShakenHands);
    return found == mShaking.rend() ? mShaking.end() : std::prev(found.base());
}

void ConnectionMonitor::close(int descriptor, bool failed)
{
    const auto closed = mOpen.find(descriptor);
    if (closed == mOpen.end())
        return;
    mSilent.erase(closed->second);
    const bool wasPeer = mShaking.erase(closed->second) == 0;
    mOpen.erase(closed);
    if (!wasPeer || !failed)
        return;
    // So it was another that had completed its handshake.
    const auto peer = newestThatHasShakenHands();
    if (peer != mShaking.end())
        mShaking.erase(peer);
}
