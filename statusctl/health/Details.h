#ifndef STATUSCTL_HEALTH_DETAILS_H
#define STATUSCTL_HEALTH_DETAILS_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "protocol/Poster.h"
#include "statusctl/base/Settings.h"
#include "statusmanager/StatusTypes.h"

/// A value, and the broker's record of its posts. Times are microseconds since the Unix epoch. 0 means
/// unknown, as for a value from before the broker recorded posts.
struct Details
{
    std::string value;
    uint64_t posted = 0;
    uint64_t changed = 0;
    uint64_t posts = 0;
    uint64_t changes = 0;
    BrokerProtocol::Poster poster;
    BrokerProtocol::Poster changer;

    using ByKey = std::map<std::string, Details>;

    /// Returns the details of the keys that exist, asked for on a connection of its own.
    /// @throws Failure if no broker listens, if it does not answer in time, or does not know the request
    static ByKey of(const Settings& settings, const StatusKeys& keys);
};

#endif
