#ifndef EXAMPLES_FEEDKEYS_H
#define EXAMPLES_FEEDKEYS_H

// The names that the feed and its watchers agree on.
namespace FeedKeys
{

/// When the values posted with it were read: microseconds since the Unix epoch, decimal.
constexpr const char* time = "feed.time";

constexpr const char* uptime = "device.uptime.seconds";
constexpr const char* load = "device.load";
constexpr const char* memory = "device.memory.available.kB";
constexpr const char* processes = "device.processes";
constexpr const char* received = "device.network.received.bytes";
constexpr const char* sent = "device.network.sent.bytes";
constexpr const char* temperature = "device.temperature.celsius"; ///< only where there is a sensor

/// An event: the load crossed the threshold; the value is "above" or "below" and the load.
constexpr const char* loadEvent = "device.load.threshold";

constexpr const char* timer = "feed.running";  ///< a timer: how long the feed has been posting
constexpr const char* counter = "feed.rounds"; ///< a counter: how many rounds it has posted

} // namespace FeedKeys

#endif
