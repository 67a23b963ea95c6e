#ifndef BROKER_NOTIFYCHANNEL_H
#define BROKER_NOTIFYCHANNEL_H

#include <string>
#include <zmq.hpp>

/// The socket on which changes are published.
class NotifyChannel
{
public:
    NotifyChannel(zmq::context_t& context, const std::string& endpoint);

    void publish(const std::string& text);

    /// Whether subscriptions have arrived since the last call. They get all that is published from then on.
    bool takeSubscriptions();

    zmq::socket_t& pollable() { return mSocket; }

private:
    zmq::socket_t mSocket;
};

#endif
