#ifndef BROKER_SOCKETS_H
#define BROKER_SOCKETS_H

#include <string>
#include <zmq.hpp>

#include "broker/Options.h"

namespace Sockets
{

/// A socket with what all of the broker's sockets have in common. Still to be bound.
zmq::socket_t make(zmq::context_t& context, zmq::socket_type type, const Limits& limits);

/// Takes over changed limits, for connections that are made from now on.
void setLimits(zmq::socket_t& socket, const Limits& limits);

/// Throws std::runtime_error with a text for the user if the port cannot be had.
void bind(zmq::socket_t& socket, const std::string& endpoint);

} // namespace Sockets

#endif
