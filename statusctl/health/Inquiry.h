#ifndef STATUSCTL_HEALTH_INQUIRY_H
#define STATUSCTL_HEALTH_INQUIRY_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "protocol/Client.h"
#include "protocol/ClientDocuments.h"
#include "protocol/TimerReading.h"
#include "statusctl/base/Settings.h"

/// Requests that the library has no operation for, on a connection of their own.
namespace Inquiry
{

/// @throws Failure if no broker listens, if it does not answer in time, or does not know the request
BrokerProtocol::Statistics statistics(const Settings& settings);

/// The clients of the broker, the oldest first. Waits up to 2 s while the broker looks for processes: a busy
/// machine may take that long.
/// @throws Failure as statistics()
std::vector<BrokerProtocol::Client> clients(const Settings& settings);

/// A decision of the broker's policy for a client, with the reason.
struct Decision
{
    bool isAllowed;
    std::string reason;
};

/// @param client a user, a service, or USER:SERVICE
/// @throws Failure as statistics(), and if the broker does not know the client or the action
Decision decision(const Settings& settings, const std::string& client, const std::string& action,
                  const std::string& name);

/// Names that the broker can forget.
enum class Kind
{
    Values,
    Timers,
    Counters,
};

/// Removes names for good.
/// @returns the names that existed and are gone now
/// @throws Failure as statistics(), and if this broker cannot forget
std::vector<std::string> forget(const Settings& settings, Kind kind, const std::vector<std::string>& names);

/// Timers and counters by name.
using Timers = std::map<std::string, BrokerProtocol::TimerReading>;
using Counters = std::map<std::string, uint32_t>;

/// All timers and counters that this client may see.
/// @throws Failure as statistics()
Timers timers(const Settings& settings);
Counters counters(const Settings& settings);

/// Sets timers to these readings.
/// @returns the names that the broker refused
/// @throws Failure as statistics()
std::vector<std::string> setTimers(const Settings& settings, const Timers& timers);

/// The broker's version: "1.0.0".
std::string versionIn(const BrokerProtocol::Statistics& statistics);

} // namespace Inquiry

#endif
