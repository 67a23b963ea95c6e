#ifndef STATUSCTL_HEALTH_METRICS_H
#define STATUSCTL_HEALTH_METRICS_H

#include <cstddef>
#include <optional>
#include <string>

#include "protocol/ClientDocuments.h"
#include "statusmanager/StatusTypes.h"

/// Texts for monitoring systems.
namespace Metrics
{

enum class Format
{
    OpenMetrics, ///< 1.0
    Prometheus,  ///< text format 0.0.4, which node_exporter's textfile collector reads
};

/// At most this many of the device's values are exported. Each makes the monitoring system keep a time
/// series, and any client can post new keys.
constexpr std::size_t mostValues = 1000;

/// Writes the broker's statistics, without a line break after the last line. The text is valid whatever the
/// names are: an underscore replaces each byte that a metric's name cannot contain, and a number whose metric
/// already exists is left out.
///
/// Values that are decimal numbers are exported as well. They share one metric, with their key as a label. So
/// the key stays unchanged, two keys never become the same metric, and no client can post a key that imitates
/// another metric. The first mostValues numbers are exported, in the order of their keys. The metric
/// statusbroker_values_left_out counts the numbers beyond the limit.
/// @param values nothing: export only the statistics
std::string write(Format format, const BrokerProtocol::Statistics& statistics,
                  const std::optional<StatusMap>& values = std::nullopt);

} // namespace Metrics

#endif
