#include "brokerlink/NotificationSocket.h"

#include "brokerlink/Messages.h"

NotificationSocket::NotificationSocket(zmq::context_t& context) : mSocket(context, zmq::socket_type::sub)
{
    mSocket.set(zmq::sockopt::linger, 0);
    mSocket.set(zmq::sockopt::subscribe, "");
}

void NotificationSocket::connect()
{
    mSocket.connect(BrokerProtocol::notifyEndpoint);
}

BrokerProtocol::Notification NotificationSocket::receive()
{
    return BrokerProtocol::readNotification(Messages::receive(mSocket).value_or(""));
}

std::optional<BrokerProtocol::Notification> NotificationSocket::receiveIfAny()
{
    if ((mSocket.get(zmq::sockopt::events) & ZMQ_POLLIN) == 0)
        return std::nullopt;
    return receive();
}
