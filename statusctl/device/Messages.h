#ifndef STATUSCTL_DEVICE_MESSAGES_H
#define STATUSCTL_DEVICE_MESSAGES_H

#include <optional>
#include <string>
#include <zmq.hpp>

namespace Messages
{

/// All frames of the next message as one text; nothing when the socket's time for receiving is over.
std::optional<std::string> receive(zmq::socket_t& socket);

} // namespace Messages

#endif
