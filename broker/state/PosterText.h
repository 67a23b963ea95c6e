#ifndef BROKER_STATE_POSTERTEXT_H
#define BROKER_STATE_POSTERTEXT_H

#include <optional>
#include <string>
#include <string_view>

#include "protocol/Poster.h"

/// The clients of a value, in the format of the state file.
namespace PosterText
{

/// The last client that posted the value, and the last one that changed it.
struct Clients
{
    BrokerProtocol::Poster poster;
    BrokerProtocol::Poster changer;
};

/// The longest text. If the names do not fit, they are left out.
constexpr std::size_t mostBytes = 1024;

/// The uid, user, service, pid and program of each client, each followed by a NUL; empty for an unknown
/// client. The second client is left out if it is the same.
std::string write(const Clients& clients);

/// Returns nothing if write() cannot have written the text.
std::optional<Clients> read(std::string_view text);

} // namespace PosterText

#endif
