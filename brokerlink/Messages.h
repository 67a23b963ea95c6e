#ifndef BROKERLINK_MESSAGES_H
#define BROKERLINK_MESSAGES_H

#include <optional>
#include <string>
#include <zmq.hpp>

namespace Messages
{

/// Returns all frames of the next message as one text; nothing after the socket's receive timeout.
std::optional<std::string> receive(zmq::socket_t& socket);

} // namespace Messages

#endif
