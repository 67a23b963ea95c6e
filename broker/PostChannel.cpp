#include "broker/PostChannel.h"

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "broker/Frames.h"
#include "broker/Sockets.h"

namespace
{

// What a PUB peer sends before its first message: the greeting (64 bytes) and its READY command (27). Should
// a peer send something else, it is waited for once and then written off.
constexpr uint64_t handshakeBytes = 64 + 27;

// A frame's size on the connection, with its header.
uint64_t wireSize(std::size_t payload)
{
    constexpr std::size_t longestShortFrame = 255;
    constexpr uint64_t shortHeader = 2;
    constexpr uint64_t longHeader = 9;
    return payload + (payload <= longestShortFrame ? shortHeader : longHeader);
}

// Bytes that the kernel has received on a connection; nothing if the descriptor has just been closed.
std::optional<uint64_t> bytesReceived(int descriptor)
{
    tcp_info info{};
    socklen_t size = sizeof(info);
    if (getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &size) != 0)
        return std::nullopt;
    return info.tcpi_bytes_received;
}

} // namespace

PostChannel::PostChannel(zmq::context_t& context, const std::string& endpoint)
    : mSocket(Sockets::make(context, zmq::socket_type::sub)), mMonitor(context, mSocket, "post")
{
    mSocket.set(zmq::sockopt::subscribe, "");
    Sockets::bind(mSocket, endpoint);
}

std::optional<PostChannel::Post> PostChannel::receive()
{
    zmq::message_t frame;
    bool more = true;
    Frames::Assembly message;
    while (more)
    {
        if (!Frames::receiveFrame(mSocket, frame, more))
            return std::nullopt; // only in front of a first frame: libzmq hands messages over whole
        account(frame);
        message.add(frame);
    }
    return Post{message.text()};
}

void PostChannel::account(zmq::message_t& frame)
{
    const uint64_t size = wireSize(frame.size());
    noteArrival(size);
    const auto connection = mConnections.find(zmq_msg_get(frame.handle(), ZMQ_SRCFD));
    if (connection == mConnections.end())
        return;
    connection->second.accounted += size;
    connection->second.writtenOff = false;
}

void PostChannel::noteArrival(uint64_t bytes)
{
    constexpr std::chrono::milliseconds pause{5};
    const TimePoint now = Clock::now();
    mBurstBytes = now - mLastArrival < pause ? mBurstBytes + bytes : bytes;
    mLastArrival = now;
}

bool PostChannel::updateConnections()
{
    bool connected = false;
    while (const std::optional<ConnectionMonitor::Event> event = mMonitor.next())
    {
        switch (event->kind)
        {
        case ConnectionMonitor::Event::Kind::Accepted:
            mConnections[event->descriptor] = {handshakeBytes};
            break;
        case ConnectionMonitor::Event::Kind::Closed:
            mConnections.erase(event->descriptor);
            break;
        case ConnectionMonitor::Event::Kind::HandshakeDone:
            connected = true;
            break;
        case ConnectionMonitor::Event::Kind::Other:
            break;
        }
    }
    return connected;
}

bool PostChannel::allTakenIn()
{
    for (const auto& [descriptor, connection] : mConnections)
    {
        if (!connection.writtenOff && bytesReceived(descriptor).value_or(0) > connection.accounted)
            return false;
    }
    return true;
}

void PostChannel::writeOffMissing()
{
    for (auto& [descriptor, connection] : mConnections)
    {
        const uint64_t received = bytesReceived(descriptor).value_or(0);
        if (received <= connection.accounted)
            continue;
        connection.accounted = received;
        connection.writtenOff = true;
    }
}
