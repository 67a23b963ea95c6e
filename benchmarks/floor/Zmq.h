#ifndef BENCHMARKS_FLOOR_ZMQ_H
#define BENCHMARKS_FLOOR_ZMQ_H

#include <optional>
#include <stdexcept>
#include <string>
#include <zmq.h>

/// The few operations of libzmq that the floors need. Failures throw exceptions. Sockets and contexts live
/// until the process ends.
namespace Zmq
{

inline void check(bool good, const std::string& what)
{
    if (!good)
        throw std::runtime_error(what + ": " + zmq_strerror(zmq_errno()));
}

inline void* socket(void* context, int type)
{
    void* made = zmq_socket(context, type);
    check(made != nullptr, "zmq_socket");
    return made;
}

inline void setOption(void* socket, int option, int value)
{
    check(zmq_setsockopt(socket, option, &value, sizeof(value)) == 0, "zmq_setsockopt");
}

inline void subscribeToAll(void* socket)
{
    check(zmq_setsockopt(socket, ZMQ_SUBSCRIBE, "", 0) == 0, "zmq_setsockopt");
}

inline void send(void* socket, const std::string& text)
{
    check(zmq_send(socket, text.data(), text.size(), 0) >= 0, "zmq_send");
}

/// Returns nothing if there is no message, which happens only with ZMQ_DONTWAIT or a time-out.
inline std::optional<std::string> receive(void* socket, int flags)
{
    zmq_msg_t message;
    zmq_msg_init(&message);
    const int received = zmq_msg_recv(&message, socket, flags);
    check(received >= 0 || zmq_errno() == EAGAIN, "zmq_msg_recv");
    std::optional<std::string> text;
    if (received >= 0)
        text.emplace(static_cast<const char*>(zmq_msg_data(&message)), zmq_msg_size(&message));
    zmq_msg_close(&message);
    return text;
}

/// A sending socket looks for room in its queues only about once per millisecond, unless asked for its
/// events. Without this call it would drop messages for which there is room.
inline void takeNoteOfRoom(void* socket)
{
    int events = 0;
    std::size_t size = sizeof(events);
    check(zmq_getsockopt(socket, ZMQ_EVENTS, &events, &size) == 0, "ZMQ_EVENTS");
}

} // namespace Zmq

#endif
