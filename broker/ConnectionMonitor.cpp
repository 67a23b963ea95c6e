#include "broker/ConnectionMonitor.h"

#include <cstdint>
#include <cstring>

#include "broker/Connection.h"
#include "broker/Frames.h"
#include "common/Logging.h"

OV_LOG_CONTROL_WORDS;

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
    count(event);
    switch (event)
    {
    case ZMQ_EVENT_ACCEPTED:
        accept(value);
        return Event{Event::Kind::Accepted, value};
    case ZMQ_EVENT_HANDSHAKE_SUCCEEDED:
        return Event{Event::Kind::HandshakeDone, -1};
    case ZMQ_EVENT_DISCONNECTED:
        mOpen.erase(value);
        return Event{Event::Kind::Closed, value};
    default:
        return Event{Event::Kind::Other, -1};
    }
}

void ConnectionMonitor::accept(int descriptor)
{
    mOpen[descriptor] = ++mAccepted;
    mSilent.emplace_back(descriptor, mAccepted);
    dropSpoken();
    warnNearLimit();
    if (mOpen.size() <= mLimits.connections)
        return;
    mRefusals.report(Refusal::Connections, "A connection to the " + mName +
                                               " port was cut off, the limit is " +
                                               std::to_string(mLimits.connections));
    Connection::cut(mSilent.empty() ? descriptor : mSilent.front().first);
    if (!mSilent.empty())
        mSilent.pop_front();
}

// Once, until there is clearly room again.
void ConnectionMonitor::warnNearLimit()
{
    constexpr std::size_t near = 90; // percent
    constexpr std::size_t room = 80;
    const std::size_t used = mOpen.size() * 100 / mLimits.connections;
    if (used >= near && !mIsNearLimit)
        OV_LOG(2, "%zu of %zu connections to the %s port are in use", mOpen.size(), mLimits.connections,
               mName.c_str());
    mIsNearLimit = used >= near || (mIsNearLimit && used >= room);
}

// Drops those in front that are closed or have spoken: a peer begins with a greeting of 64 bytes.
void ConnectionMonitor::dropSpoken()
{
    static constexpr uint64_t greeting = 64;
    const auto isDone = [this](const std::pair<int, uint64_t>& connection)
    {
        const auto open = mOpen.find(connection.first);
        return open == mOpen.end() || open->second != connection.second ||
               Connection::bytesArrived(connection.first).value_or(greeting) >= greeting;
    };
    while (!mSilent.empty() && isDone(mSilent.front()))
        mSilent.pop_front();
}

// A connection whose handshake fails is reported as failed and then as disconnected, so the two cancel out.
void ConnectionMonitor::count(int event)
{
    switch (event)
    {
    case ZMQ_EVENT_HANDSHAKE_SUCCEEDED:
    case ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL:
    case ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL:
    case ZMQ_EVENT_HANDSHAKE_FAILED_AUTH:
        ++mPeers;
        break;
    case ZMQ_EVENT_DISCONNECTED:
        --mPeers;
        break;
    default:
        break;
    }
}
