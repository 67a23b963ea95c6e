#ifndef EXAMPLES_FEEDKEYS_H
#define EXAMPLES_FEEDKEYS_H

// The names that device-feed and its watchers share.
namespace FeedKeys
{

/// When the values in the same post were read: microseconds since the Unix epoch, decimal.
constexpr const char* time = "feed.time";

constexpr const char* uptime = "uptime.s";
constexpr const char* load = "load";
constexpr const char* memory = "memory.free.kB";
constexpr const char* processes = "processes";
constexpr const char* received = "net.in.bytes";
constexpr const char* sent = "net.out.bytes";
constexpr const char* temperature = "temperature.C"; ///< only if the machine has a sensor

/// An event: the load crossed the threshold. The value is "above" or "below", then the load.
constexpr const char* loadEvent = "load.threshold";

constexpr const char* timer = "feed.running";  ///< a timer: how long the feed has been posting
constexpr const char* counter = "feed.rounds"; ///< a counter: how many rounds it has posted

} // namespace FeedKeys

#endif
