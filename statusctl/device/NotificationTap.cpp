#include "statusctl/device/NotificationTap.h"

#include <cerrno>
#include <utility>

#include "brokerlink/NotificationSocket.h"

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
        NotificationSocket socket(mContext);
        socket.connect();
        for (;;)
        {
            using Kind = BrokerProtocol::Notification::Kind;
            BrokerProtocol::Notification notification = socket.receive();
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
