#ifndef STATUSCTL_DEVICE_NOTIFICATIONTAP_H
#define STATUSCTL_DEVICE_NOTIFICATIONTAP_H

#include <functional>
#include <string>
#include <thread>
#include <zmq.hpp>

#include "protocol/ClientDocuments.h"

/// Hears all notifications of the broker, whatever their names: the library tells only of names that are
/// known beforehand. A subscription of its own, so the broker sends this process everything twice.
class NotificationTap
{
public:
    /// @param receive called on the tap's thread with every notification that can be read, and once with one
    /// that says nothing (Unhandled), when the first message of any kind comes: from then on nothing is
    /// missed. Unparsable: it has failed, and hears no more
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
