#include "broker/RequestChannel.h"

#include "broker/Frames.h"
#include "broker/Sockets.h"

RequestChannel::RequestChannel(zmq::context_t& context, const std::string& endpoint)
    : mSocket(Sockets::make(context, zmq::socket_type::router)), mMonitor(context, mSocket, "request")
{
    Sockets::bind(mSocket, endpoint);
}

// A request is three or more frames: the routing id, which libzmq puts in front, an empty one, the text.
std::optional<RequestChannel::Request> RequestChannel::receive()
{
    zmq::message_t frame;
    bool more = false;
    if (!Frames::receiveFrame(mSocket, frame, more))
        return std::nullopt;
    Request request;
    request.connection = frame.to_string();

    const bool wellFormed = more && Frames::receiveFrame(mSocket, frame, more) && frame.empty() && more;
    Frames::Assembly text;
    while (more && Frames::receiveFrame(mSocket, frame, more))
        text.add(frame);
    if (wellFormed)
        request.text = text.text();

    const int descriptor = zmq_msg_get(frame.handle(), ZMQ_SRCFD);
    if (descriptor >= 0)
        mConnections[descriptor] = request.connection;
    return request;
}

void RequestChannel::reply(const std::string& connection, const std::string& text)
{
    mSocket.send(zmq::buffer(connection), zmq::send_flags::sndmore);
    mSocket.send(zmq::message_t(), zmq::send_flags::sndmore);
    Frames::send(mSocket, text);
}

std::vector<std::string> RequestChannel::updateConnections()
{
    std::vector<std::string> closed;
    while (const std::optional<ConnectionMonitor::Event> event = mMonitor.next())
    {
        if (event->kind != ConnectionMonitor::Event::Kind::Closed)
            continue;
        const auto connection = mConnections.find(event->descriptor);
        if (connection == mConnections.end())
            continue;
        closed.push_back(connection->second);
        mConnections.erase(connection);
    }
    return closed;
}
