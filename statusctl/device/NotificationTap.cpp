#include "statusctl/device/NotificationTap.h"

#include <cerrno>
#include <utility>

#include "statusctl/device/Messages.h"

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
                BrokerProtocol::readNotification(Messages::receive(socket).value_or(""));
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
