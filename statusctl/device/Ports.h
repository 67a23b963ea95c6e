#ifndef STATUSCTL_DEVICE_PORTS_H
#define STATUSCTL_DEVICE_PORTS_H

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

/// The broker's three ports on the loopback interface.
namespace Ports
{

struct Port
{
    uint16_t number;
    const char* purpose;
    const char* types; ///< ZeroMQ socket types that a broker's greeting may name here
};

constexpr std::array<Port, 3> all{
    {{5555, "requests", "ROUTER REP"}, {5556, "posts", "SUB XSUB"}, {5557, "notifications", "XPUB PUB"}}};

/// Whether the port accepts connections.
bool isOpen(uint16_t port);

/// The first port that nothing listens on.
std::optional<Port> firstClosed();

/// Returns the ZeroMQ socket type that answers, such as "ROUTER". Returns an empty text if the answer is not
/// ZeroMQ, and nothing if no answer comes in time.
std::optional<std::string> socketType(uint16_t port, std::chrono::milliseconds timeout);

} // namespace Ports

#endif
