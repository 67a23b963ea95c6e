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
    const char* types; ///< ZeroMQ socket types that a broker has there, as its greeting names them
};

constexpr std::array<Port, 3> all{
    {{5555, "requests", "ROUTER REP"}, {5556, "posts", "SUB XSUB"}, {5557, "notifications", "XPUB PUB"}}};

/// Whether something accepts connections there.
bool isOpen(uint16_t port);

/// The first that nothing listens on.
std::optional<Port> firstClosed();

/// The ZeroMQ socket type that answers there ("ROUTER"); empty if the answer is not ZeroMQ's, nothing if
/// there is none in time.
std::optional<std::string> socketType(uint16_t port, std::chrono::milliseconds timeout);

} // namespace Ports

#endif
