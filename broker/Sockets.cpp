#include "broker/Sockets.h"

#include <stdexcept>

zmq::socket_t Sockets::make(zmq::context_t& context, zmq::socket_type type, const Limits& limits)
{
    zmq::socket_t socket(context, type);
    setLinger(socket, std::chrono::milliseconds(0)); // unless the end is orderly
    // Who connects and does not speak the protocol within this time is disconnected.
    socket.set(zmq::sockopt::handshake_ivl, 5000);
    socket.set(zmq::sockopt::rcvhwm, queueLength);
    setLimits(socket, limits);
    return socket;
}

void Sockets::setLimits(zmq::socket_t& socket, const Limits& limits)
{
    // What is somewhat too long is received and refused, so that it can be told. A frame that is announced to
    // be much longer ends its connection, before memory is taken for it.
    constexpr int64_t somewhat = 2;
    socket.set(zmq::sockopt::maxmsgsize, somewhat * static_cast<int64_t>(limits.messageBytes));
}

void Sockets::setLinger(zmq::socket_t& socket, std::chrono::milliseconds time)
{
    socket.set(zmq::sockopt::linger, static_cast<int>(time.count()));
}

void Sockets::bind(zmq::socket_t& socket, const std::string& endpoint)
{
    try
    {
        socket.bind(endpoint);
    }
    catch (const zmq::error_t& error)
    {
        throw std::runtime_error("cannot bind " + endpoint + ": " + error.what());
    }
}
