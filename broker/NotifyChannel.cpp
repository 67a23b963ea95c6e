#include "broker/NotifyChannel.h"

#include "broker/Frames.h"
#include "broker/Sockets.h"

NotifyChannel::NotifyChannel(zmq::context_t& context, const std::string& endpoint)
    : mSocket(Sockets::make(context, zmq::socket_type::xpub))
{
    mSocket.set(zmq::sockopt::xpub_verbose, 1); // all clients subscribe to the same: show each of them
    Sockets::bind(mSocket, endpoint);
}

void NotifyChannel::publish(const std::string& text)
{
    Frames::send(mSocket, text);
}

bool NotifyChannel::takeSubscriptions()
{
    constexpr char subscribeMark = 1;
    bool subscribed = false;
    zmq::message_t frame;
    bool more = false;
    while (Frames::receiveFrame(mSocket, frame, more))
    {
        if (!frame.empty() && *frame.data<char>() == subscribeMark)
            subscribed = true;
    }
    return subscribed;
}
