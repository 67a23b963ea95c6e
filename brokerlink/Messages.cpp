#include "brokerlink/Messages.h"

#include <cerrno>

namespace
{

// A signal whose handler returns does not end the receive.
bool receiveFrame(zmq::socket_t& socket, zmq::message_t& frame)
{
    for (;;)
    {
        try
        {
            return socket.recv(frame).has_value();
        }
        catch (const zmq::error_t& error)
        {
            if (error.num() != EINTR)
                throw;
        }
    }
}

} // namespace

std::optional<std::string> Messages::receive(zmq::socket_t& socket)
{
    std::string text;
    zmq::message_t frame;
    do
    {
        if (!receiveFrame(socket, frame))
            return std::nullopt;
        text.append(frame.data<char>(), frame.size());
    } while (frame.more());
    return text;
}
