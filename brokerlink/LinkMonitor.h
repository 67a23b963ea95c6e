#ifndef BROKERLINK_LINKMONITOR_H
#define BROKERLINK_LINKMONITOR_H

#include <optional>
#include <string>
#include <zmq.hpp>

/// Reports when the connection of a socket comes and goes.
class LinkMonitor
{
public:
    /// Call this before the socket connects. The socket must outlive this object. Throws zmq::error_t.
    /// @param name of this monitor within the context
    LinkMonitor(zmq::context_t& context, zmq::socket_t& socket, const std::string& name);

    /// For polls.
    zmq::socket_t& socket() { return mSocket; }

    /// Waits for the next event. Returns true when the connection is up, false when it or an attempt to
    /// connect is lost. Throws zmq::error_t when the context is shut down.
    bool receive();

    /// Returns nothing if there is no event.
    std::optional<bool> receiveIfAny();

private:
    zmq::socket_t mSocket;
};

#endif
