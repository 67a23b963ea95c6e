#ifndef BROKER_SOCKETS_H
#define BROKER_SOCKETS_H

#include <chrono>
#include <cstddef>
#include <string>
#include <zmq.hpp>

#include "broker/Options.h"

namespace Sockets
{

/// A socket with what all of the broker's sockets have in common. Still to be bound.
zmq::socket_t make(zmq::context_t& context, zmq::socket_type type, const Limits& limits);

/// Takes over changed limits, for connections that are made from now on.
void setLimits(zmq::socket_t& socket, const Limits& limits);

/// How many messages of one connection libzmq holds ready until they are received; the others wait in the
/// kernel and in the sender. With fewer of them the two threads wait for each other more often: posting with
/// a barrier every 250 posts is a third slower with 8, and a tenth with 256. Not to be changed while there
/// are connections: libzmq counts what was received in steps of half of it, and may never go on after a
/// change.
constexpr int queueLength = 1000;

/// How many bytes of one connection they may be, when they are long. Who sends faster is cut off.
constexpr std::size_t queueBytes = std::size_t{32} * 1024 * 1024;

/// How long what was sent may take to go out when the socket is closed.
void setLinger(zmq::socket_t& socket, std::chrono::milliseconds time);

/// Throws std::runtime_error with a text for the user if the port cannot be had.
void bind(zmq::socket_t& socket, const std::string& endpoint);

} // namespace Sockets

#endif
