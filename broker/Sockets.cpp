#include "broker/Sockets.h"

#include <stdexcept>

#include "broker/Frames.h"

zmq::socket_t Sockets::make(zmq::context_t& context, zmq::socket_type type)
{
    zmq::socket_t socket(context, type);
    socket.set(zmq::sockopt::linger,
               1000); // what was answered or published just before the end still goes out
    socket.set(zmq::sockopt::maxmsgsize, static_cast<int64_t>(Frames::maxMessageBytes));
    return socket;
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
