#ifndef PROTOCOL_CLIENT_H
#define PROTOCOL_CLIENT_H

#include <cstdint>

#include "protocol/Poster.h"

namespace BrokerProtocol
{

/// A client of the broker. Connections are counted as one client where the broker knows that they are from
/// one process.
struct Client : Poster
{
    bool isShared = false;
    uint64_t since = 0; ///< microseconds since the Unix epoch
    uint64_t connections = 0;
    uint64_t posts = 0;
    uint64_t requests = 0;
    uint64_t queued = 0; ///< bytes of notifications and answers that it has not yet taken
    uint64_t refusals = 0;
    uint64_t received = 0; ///< bytes that the broker received from it
    uint64_t sent = 0;     ///< bytes that the broker sent to it
};

} // namespace BrokerProtocol

#endif
