#ifndef STATUSCTL_HEALTH_DIAGNOSIS_H
#define STATUSCTL_HEALTH_DIAGNOSIS_H

#include <optional>
#include <string>
#include <vector>

#include "protocol/ClientDocuments.h"
#include "statusctl/device/Ports.h"
#include "statusctl/health/Listeners.h"
#include "statusctl/health/RoundTrips.h"

/// What is wrong with a device's status, and what to do about it. Pure: told the facts, it finds the faults.
namespace Diagnosis
{

struct Finding
{
    std::string check; ///< a word for scripts: "port", "version", "lost", ...
    std::string problem;
    std::string remedy;
};

using Findings = std::vector<Finding>;

/// What answers on a port of the broker's.
struct Answer
{
    Ports::Port port;
    std::vector<Listeners::Listener> listeners;
    std::string socketType; ///< as Ports::socketType()
};

/// Whether there is a broker, and nothing else, on the ports.
Findings ofPorts(const std::vector<Answer>& answers);

/// What the broker's numbers tell.
Findings ofStatistics(const BrokerProtocol::Statistics& numbers, const std::string& ownVersion);

Findings ofRoundTrips(const RoundTrips& trips);

} // namespace Diagnosis

#endif
