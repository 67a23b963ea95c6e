#ifndef BROKER_REQUESTCHANNEL_H
#define BROKER_REQUESTCHANNEL_H

#include <map>
#include <optional>
#include <string>
#include <vector>
#include <zmq.hpp>

#include "broker/ConnectionMonitor.h"

/// The socket on which requests arrive and are answered.
class RequestChannel
{
public:
    RequestChannel(zmq::context_t& context, const std::string& endpoint);

    struct Request
    {
        std::string connection;          ///< whom to answer
        std::optional<std::string> text; ///< nothing: it was too long, or its envelope was not a request's
    };

    /// The next request, if one is there.
    std::optional<Request> receive();

    /// A connection that has gone by now gets nothing, silently.
    void reply(const std::string& connection, const std::string& text);

    /// Takes note of connections made and closed, and returns those that have spoken and are closed now.
    std::vector<std::string> updateConnections();

    int peers() const { return mMonitor.peers(); }
    zmq::socket_t& pollable() { return mSocket; }
    zmq::socket_t& pollableConnections() { return mMonitor.pollable(); }

private:
    zmq::socket_t mSocket;
    ConnectionMonitor mMonitor;
    std::map<int, std::string> mConnections; // by descriptor: those that have spoken
};

#endif
