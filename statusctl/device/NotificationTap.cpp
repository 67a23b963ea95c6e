#include "statusctl/device/NotificationTap.h"

#include <cerrno>
#include <utility>

namespace
{

// False on a signal that somebody handles.
bool receiveFrame(zmq::socket_t& socket, zmq::message_t& frame)
{
    try
    {
        return socket.recv(frame).has_value();
    }
    catch (const zmq::error_t& error)
    {
        if (error.num() != EINTR)
            throw;
        return false;
    }
}

// All frames of the next message as one text.
std::string receiveMessage(zmq::socket_t& socket)
{
    std::string text;
    zmq::message_t frame;
    do
    {
        while (!receiveFrame(socket, frame))
        {
        }
        text.append(frame.data<char>(), frame.size());
    } while (frame.more());
    return text;
}

} // namespace

NotificationTap::NotificationTap(std::function<void(BrokerProtocol::Notification)> receive)
    : mReceive(std::move(receive)), mThread([this] { run(); })
{
}

NotificationTap::~NotificationTap()
{
    mContext.shutdown(); // ends the receive
    mThread.join();
}

void NotificationTap::run()
{
    bool isFirst = true;
    try
    {
        zmq::socket_t socket(mContext, zmq::socket_type::sub);
        socket.set(zmq::sockopt::linger, 0);
        socket.set(zmq::sockopt::subscribe, "");
        socket.connect("tcp://127.0.0.1:5557");
        for (;;)
        {
            using Kind = BrokerProtocol::Notification::Kind;
            BrokerProtocol::Notification notification =
                BrokerProtocol::readNotification(receiveMessage(socket));
            if (notification.kind == Kind::StatusUpdate || notification.kind == Kind::EventUpdate)
                mReceive(std::move(notification));
            if (std::exchange(isFirst, false))
                mReceive({Kind::Unhandled, {}});
        }
    }
    catch (const zmq::error_t& error)
    {
        if (error.num() != ETERM)
            mReceive({BrokerProtocol::Notification::Kind::Unparsable, {}});
    }
}
