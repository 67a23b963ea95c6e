#ifndef STATUSCTL_HEALTH_OPENMETRICS_H
#define STATUSCTL_HEALTH_OPENMETRICS_H

#include <string>

#include "protocol/ClientDocuments.h"

namespace OpenMetrics
{

/// The broker's statistics in the OpenMetrics text format, with its "# EOF" but without a line break behind
/// it. Whatever the names are, the text is valid: what a metric's name cannot hold becomes _, and a number
/// whose metric is there already is left out.
std::string write(const BrokerProtocol::Statistics& statistics);

} // namespace OpenMetrics

#endif
