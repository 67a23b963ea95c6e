#ifndef BROKERLINK_NOTIFICATIONSOCKET_H
#define BROKERLINK_NOTIFICATIONSOCKET_H

#include <optional>
#include <zmq.hpp>

#include "protocol/ClientDocuments.h"

/// A subscription to all notifications of the broker, whatever their names: the library reports only names
/// that are known beforehand. Used by one thread at a time.
///
/// The broker sends nothing at the beginning of a subscription, but a heartbeat at intervals. From the first
/// message of any kind on, nothing is missed.
class NotificationSocket
{
public:
    /// Throws zmq::error_t.
    explicit NotificationSocket(zmq::context_t& context);

    /// For LinkMonitor and polls.
    zmq::socket_t& socket() { return mSocket; }

    void connect();

    /// Waits for the next message of any kind. Throws zmq::error_t when the context is shut down.
    BrokerProtocol::Notification receive();

    /// Returns nothing if no message is there.
    std::optional<BrokerProtocol::Notification> receiveIfAny();

private:
    zmq::socket_t mSocket;
};

#endif
