#ifndef STATUSCTL_DEVICE_NOTIFICATIONTAP_H
#define STATUSCTL_DEVICE_NOTIFICATIONTAP_H

#include <functional>
#include <string>
#include <thread>
#include <zmq.hpp>

#include "protocol/ClientDocuments.h"

/// Receives all notifications of the broker, whatever their names: the library reports only names that are
/// known beforehand. It is a subscription of its own, so the broker sends this process everything twice.
class NotificationTap
{
public:
    /// @param receive called on the tap's thread with every readable notification. It gets one empty
    /// notification (Unhandled) after the first message of any kind: from then on nothing is missed. It gets
    /// Unparsable when the tap has failed and receives no more
    explicit NotificationTap(std::function<void(BrokerProtocol::Notification)> receive);
    ~NotificationTap();

    NotificationTap(const NotificationTap&) = delete;
    NotificationTap& operator=(const NotificationTap&) = delete;

private:
    void run();

    std::function<void(BrokerProtocol::Notification)> mReceive;
    zmq::context_t mContext;
    std::thread mThread;
};

#endif
