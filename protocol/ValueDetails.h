#ifndef PROTOCOL_VALUEDETAILS_H
#define PROTOCOL_VALUEDETAILS_H

#include <cstdint>
#include <string_view>

#include "protocol/Poster.h"

namespace BrokerProtocol
{

/// A status value and a summary of its history. Times are microseconds since the Unix epoch; 0: unknown.
struct ValueDetails
{
    std::string_view value;
    uint64_t posted = 0;  ///< when it was last posted or reset, also with the same text
    uint64_t changed = 0; ///< when its text last changed
    uint32_t posts = 0;   ///< how often it was posted or reset; stops at the highest number
    uint32_t changes = 0; ///< how often its text changed; stops at the highest number
    Poster poster;        ///< the client that last posted it
    Poster changer;       ///< the client that last changed it
};

} // namespace BrokerProtocol

#endif
