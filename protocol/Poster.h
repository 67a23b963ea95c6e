#ifndef PROTOCOL_POSTER_H
#define PROTOCOL_POSTER_H

#include <cstdint>
#include <optional>
#include <string>
#include <tuple>

namespace BrokerProtocol
{

/// A client that posts, as far as the broker knows it.
struct Poster
{
    std::string user; ///< its name, or its number as text; empty: unknown
    std::optional<uint32_t> uid;
    std::string service; ///< empty: none, or unknown
    std::string program; ///< empty: unknown
    uint32_t pid = 0;    ///< 0: unknown
};

/// A poster without its process id. Many posters share these names.
inline auto namesOf(const Poster& poster)
{
    return std::tie(poster.user, poster.uid, poster.service, poster.program);
}

inline bool operator==(const Poster& one, const Poster& other)
{
    return one.pid == other.pid && namesOf(one) == namesOf(other);
}

} // namespace BrokerProtocol

#endif
