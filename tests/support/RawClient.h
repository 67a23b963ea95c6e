#ifndef TESTS_SUPPORT_RAWCLIENT_H
#define TESTS_SUPPORT_RAWCLIENT_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>
#include <zmq.hpp>

#include "tests/support/Wait.h"

/// Plain ZeroMQ peers of a broker, for exact bytes and for what the library would never send. All of a
/// process share one context with one I/O thread, as a client's sockets do, so their posts and requests have
/// an order.

/// Asks on the request port. Connects when it is used first.
class RawRequester
{
public:
    explicit RawRequester(zmq::socket_type type = zmq::socket_type::req);

    void send(const std::vector<std::string>& frames);
    /// The frames of the reply; nothing at the deadline.
    std::optional<std::vector<std::string>> receive(std::chrono::milliseconds deadline = testDeadline);

    /// One request in one frame and its reply's text; empty at the deadline. Where the answer is the empty
    /// one that the broker gives to those that say nothing for long, asks again, as the library does.
    std::string ask(const std::string& request);

private:
    void connect();

    zmq::socket_t mSocket;
    bool mIsConnected = false;
};

/// One of the numbers that the broker counts about itself. Fails the test if it is not there.
uint64_t brokerStatistic(RawRequester& requester, const std::string& name);

/// Posts on the post port. Its constructor returns when the broker's subscription has arrived, so nothing is
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

/// Listens on the notify port, from when the constructor returns.
class RawSubscriber
{
public:
    explicit RawSubscriber(RawPoster& poster);

    /// The next notification's frames, "Sync" left out; nothing at the deadline.
    std::optional<std::vector<std::string>> receive(std::chrono::milliseconds deadline = testDeadline);

    /// As one text; empty at the deadline.
    std::string receiveText(std::chrono::milliseconds deadline = testDeadline);

private:
    zmq::socket_t mSocket;
};

#endif
