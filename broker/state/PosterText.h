#ifndef BROKER_STATE_POSTERTEXT_H
#define BROKER_STATE_POSTERTEXT_H

#include <optional>
#include <string>
#include <string_view>

#include "protocol/Poster.h"

/// The clients of a value as the state file holds them.
namespace PosterText
{

/// The one that posted the value last, and the one that changed it last.
struct Clients
{
    BrokerProtocol::Poster poster;
    BrokerProtocol::Poster changer;
};

/// None that is written is longer. If the names do not fit, they are left out.
constexpr std::size_t mostBytes = 1024;

/// For each client its uid, user, service, pid and program, a NUL behind each; empty if it is unknown. The
/// second client is left out if it is the same.
std::string write(const Clients& clients);

/// Nothing unless write() may have written it.
std::optional<Clients> read(std::string_view text);

} // namespace PosterText

#endif
