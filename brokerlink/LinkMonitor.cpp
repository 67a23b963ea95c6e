#include "brokerlink/LinkMonitor.h"

#include <cstdint>
#include <cstring>

#include "brokerlink/Messages.h"

LinkMonitor::LinkMonitor(zmq::context_t& context, zmq::socket_t& socket, const std::string& name)
    : mSocket(context, zmq::socket_type::pair)
{
    const std::string endpoint = "inproc://" + name;
    mSocket.set(zmq::sockopt::linger, 0);
    if (zmq_socket_monitor(socket.handle(), endpoint.c_str(),
                           ZMQ_EVENT_HANDSHAKE_SUCCEEDED | ZMQ_EVENT_DISCONNECTED) != 0)
        throw zmq::error_t();
    mSocket.connect(endpoint);
}

// An event is a message of two frames: its number and value, and the address.
bool LinkMonitor::receive()
{
    const std::string event = Messages::receive(mSocket).value_or("");
    uint16_t number = 0;
    if (event.size() >= sizeof(number))
        std::memcpy(&number, event.data(), sizeof(number));
    return number == ZMQ_EVENT_HANDSHAKE_SUCCEEDED;
}

std::optional<bool> LinkMonitor::receiveIfAny()
{
    if ((mSocket.get(zmq::sockopt::events) & ZMQ_POLLIN) == 0)
        return std::nullopt;
    return receive();
}
