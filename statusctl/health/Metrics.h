#ifndef STATUSCTL_HEALTH_METRICS_H
#define STATUSCTL_HEALTH_METRICS_H

#include <cstddef>
#include <optional>
#include <string>

#include "protocol/ClientDocuments.h"
#include "statusmanager/StatusTypes.h"

/// The texts that monitoring systems read.
namespace Metrics
{

enum class Format
{
    OpenMetrics, ///< 1.0
    Prometheus,  ///< text format 0.0.4, which node_exporter's textfile collector reads
};

/// No text has more of the device's values: each makes the monitoring system keep a time series, and any
/// client can post new keys.
constexpr std::size_t mostValues = 1000;

/// The broker's statistics, without a line break behind the last line. Whatever the names are, the text is
/// valid: an underline stands for each byte that a metric's name cannot hold, and a number whose metric is
/// there already is left out.
///
/// Of the values, those that are decimal numbers are exported too. They share one metric and have their key
/// as a label: so the key stays as it is, two keys never become the same metric, and no client can post a key
/// that passes for a metric of something else. The first values are exported, in the order of their keys; the
/// metric statusbroker_values_left_out tells how many numbers are beyond the limit.
/// @param values nothing: only the statistics
std::string write(Format format, const BrokerProtocol::Statistics& statistics,
                  const std::optional<StatusMap>& values = std::nullopt);

} // namespace Metrics

#endif
