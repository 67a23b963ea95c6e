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

/// Asks the broker what the library has no operation for, on a connection of its own.
namespace Inquiry
{

/// @throws Failure if no broker listens, if none answers in time, or if this one cannot tell
BrokerProtocol::Statistics statistics(const Settings& settings);

/// The clients of the broker, the oldest first. Waits a moment while the broker looks for processes.
/// @throws Failure as statistics()
std::vector<BrokerProtocol::Client> clients(const Settings& settings);

/// A decision of the broker's policy about a client, and its reason.
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
/// @returns those that were there and are gone
/// @throws Failure as statistics(), and if this broker cannot forget
std::vector<std::string> forget(const Settings& settings, Kind kind, const std::vector<std::string>& names);

/// Timers and counters by name.
using Timers = std::map<std::string, BrokerProtocol::TimerReading>;
using Counters = std::map<std::string, uint32_t>;

/// All of the device's that may be asked for.
/// @throws Failure as statistics()
Timers timers(const Settings& settings);
Counters counters(const Settings& settings);

/// Gives timers what they have.
/// @returns the names of those that the broker did not take
/// @throws Failure as statistics()
std::vector<std::string> setTimers(const Settings& settings, const Timers& timers);

/// The broker's version in them: "1.0.0".
std::string versionIn(const BrokerProtocol::Statistics& statistics);

} // namespace Inquiry

#endif
