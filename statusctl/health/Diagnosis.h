#ifndef STATUSCTL_HEALTH_DIAGNOSIS_H
#define STATUSCTL_HEALTH_DIAGNOSIS_H

#include <optional>
#include <string>
#include <vector>

#include "protocol/Client.h"
#include "protocol/ClientDocuments.h"
#include "statusctl/device/Ports.h"
#include "statusctl/health/Listeners.h"
#include "statusctl/health/RoundTrips.h"

/// Finds problems with a device's status, and their remedies. Pure: it gets the facts as arguments.
namespace Diagnosis
{

struct Finding
{
    std::string check; ///< a word for scripts: "port", "version", "lost", ...
    std::string problem;
    std::string remedy;
};

using Findings = std::vector<Finding>;

/// The answer of a port of the broker, and the processes that listen there.
struct Answer
{
    Ports::Port port;
    std::vector<Listeners::Listener> listeners;
    std::optional<std::string> socketType; ///< as Ports::socketType()
};

/// Whether a broker, and nothing else, is on the ports.
Findings ofPorts(const std::vector<Answer>& answers);

/// The findings from the broker's numbers.
Findings ofStatistics(const BrokerProtocol::Statistics& numbers, const std::string& ownVersion);

/// Names the clients that were refused something, for any reason, and the command that explains a decision of
/// the policy about the first of them. Empty if no connected client was refused anything.
Findings ofRefused(const std::vector<BrokerProtocol::Client>& clients);

Findings ofRoundTrips(const RoundTrips& trips);

} // namespace Diagnosis

#endif
