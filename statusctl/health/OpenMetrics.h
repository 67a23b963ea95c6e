#ifndef STATUSCTL_HEALTH_OPENMETRICS_H
#define STATUSCTL_HEALTH_OPENMETRICS_H

#include <string>

#include "protocol/ClientDocuments.h"

namespace OpenMetrics
{

/// The broker's statistics in the OpenMetrics text format, with its "# EOF" but without a line break behind
/// it.
std::string write(const BrokerProtocol::Statistics& statistics);

} // namespace OpenMetrics

#endif
