#ifndef BENCHMARKS_FLOOR_ZMQ_H
#define BENCHMARKS_FLOOR_ZMQ_H

#include <optional>
#include <stdexcept>
#include <string>
#include <zmq.h>

/// The few operations of libzmq that the floors need, with failures as exceptions. Sockets and contexts live
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

/// Nothing if there is none, which only happens with ZMQ_DONTWAIT or a time-out.
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

/// A sending socket takes note of the room that its receivers have made about once in a millisecond, unless
/// it is asked for its events. Without that it would drop messages for which there is room.
inline void takeNoteOfRoom(void* socket)
{
    int events = 0;
    std::size_t size = sizeof(events);
    check(zmq_getsockopt(socket, ZMQ_EVENTS, &events, &size) == 0, "ZMQ_EVENTS");
}

} // namespace Zmq

#endif
