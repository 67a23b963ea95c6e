#ifndef BROKER_SOCKETS_H
#define BROKER_SOCKETS_H

#include <chrono>
#include <cstdint>
#include <string>
#include <zmq.hpp>

#include "broker/Options.h"

namespace Sockets
{

/// A socket with what all of the broker's sockets have in common. Still to be bound.
zmq::socket_t make(zmq::context_t& context, zmq::socket_type type, const Limits& limits);

/// Takes over changed limits, for connections that are made from now on.
void setLimits(zmq::socket_t& socket, const Limits& limits);

/// How many messages libzmq holds ready of one connection until they are received; the more of them wait in
/// the kernel and in the sender. Few enough that they cannot take much memory, even if all are long.
uint64_t queueLength(const Limits& limits);

/// How long what was sent may take to go out when the socket is closed.
void setLinger(zmq::socket_t& socket, std::chrono::milliseconds time);

/// Throws std::runtime_error with a text for the user if the port cannot be had.
void bind(zmq::socket_t& socket, const std::string& endpoint);

} // namespace Sockets

#endif
