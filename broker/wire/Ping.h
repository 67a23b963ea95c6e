#ifndef BROKER_WIRE_PING_H
#define BROKER_WIRE_PING_H

#include <optional>
#include <string>
#include <string_view>

/// The commands PING and PONG. A peer answers a PING at once, with the same context.
namespace Ping
{

/// @param context at most 16 bytes
inline std::string command(std::string_view context)
{
    using namespace std::string_view_literals;
    return std::string("\4PING\0\0"sv).append(context); // without a time to live
}

/// The context, if the command is a PONG.
inline std::optional<std::string_view> pongContext(std::string_view command)
{
    constexpr std::string_view pong = "\4PONG";
    if (command.substr(0, pong.size()) != pong)
        return std::nullopt;
    return command.substr(pong.size());
}

} // namespace Ping

#endif
