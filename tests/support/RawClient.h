#ifndef TESTS_SUPPORT_RAWCLIENT_H
#define TESTS_SUPPORT_RAWCLIENT_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>
#include <zmq.hpp>

#include "tests/support/Wait.h"

/// Plain ZeroMQ peers of a broker, for exact bytes and for messages that the library never sends. All peers
/// of a process share one context with one I/O thread, as a client's sockets do. So their posts and requests
/// keep their order.

/// Sends requests to the request port. Connects on first use.
class RawRequester
{
public:
    explicit RawRequester(zmq::socket_type type = zmq::socket_type::req);

    void send(const std::vector<std::string>& frames);
    /// The frames of the reply; nothing at the deadline.
    std::optional<std::vector<std::string>> receive(std::chrono::milliseconds deadline = testDeadline);

    /// Sends a request in one frame and returns the reply's text; empty at the deadline. After the empty
    /// answer, which the broker gives to silent connections, it asks again as the library does.
    std::string ask(const std::string& request);

private:
    void connect();

    zmq::socket_t mSocket;
    bool mIsConnected = false;
};

/// A number of the broker's statistics. Fails the test if it is missing.
uint64_t brokerStatistic(RawRequester& requester, const std::string& name);

/// Posts on the post port. The constructor returns when the broker's subscription has arrived, so no post is
/// lost.
class RawPoster
{
public:
    RawPoster();
    void post(const std::vector<std::string>& frames);
    void post(const std::string& text) { post(std::vector<std::string>{text}); }

private:
    zmq::socket_t mSocket;
};

/// Listens on the notify port as soon as the constructor has returned.
class RawSubscriber
{
public:
    explicit RawSubscriber(RawPoster& poster);

    /// The next notification's frames, ignoring "Sync"; nothing at the deadline.
    std::optional<std::vector<std::string>> receive(std::chrono::milliseconds deadline = testDeadline);

    /// The next notification as one text; empty at the deadline.
    std::string receiveText(std::chrono::milliseconds deadline = testDeadline);

private:
    zmq::socket_t mSocket;
};

#endif
