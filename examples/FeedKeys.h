#ifndef EXAMPLES_FEEDKEYS_H
#define EXAMPLES_FEEDKEYS_H

// The names that the feed and its watchers agree on.
namespace FeedKeys
{

/// When the values posted with it were read: microseconds since the Unix epoch, decimal.
constexpr const char* time = "feed.time";

constexpr const char* uptime = "uptime.s";
constexpr const char* load = "load";
constexpr const char* memory = "memory.free.kB";
constexpr const char* processes = "processes";
constexpr const char* received = "net.in.bytes";
constexpr const char* sent = "net.out.bytes";
constexpr const char* temperature = "temperature.C"; ///< only where there is a sensor

/// An event: the load crossed the threshold; the value is "above" or "below" and the load.
constexpr const char* loadEvent = "load.threshold";

constexpr const char* timer = "feed.running";  ///< a timer: how long the feed has been posting
constexpr const char* counter = "feed.rounds"; ///< a counter: how many rounds it has posted

} // namespace FeedKeys

#endif
