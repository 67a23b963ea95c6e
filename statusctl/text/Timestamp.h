#ifndef STATUSCTL_TEXT_TIMESTAMP_H
#define STATUSCTL_TEXT_TIMESTAMP_H

#include <chrono>
#include <optional>
#include <string>

/// Times as RFC 3339 writes them.
namespace Timestamp
{

using Time = std::chrono::time_point<std::chrono::system_clock, std::chrono::microseconds>;

Time now();

/// "2026-11-21T07:12:01.123456Z"
std::string utc(Time time);

/// The same in local time, with milliseconds: "2026-11-21T08:12:01.123+01:00"
std::string local(Time time);

/// Reads the output of utc().
std::optional<Time> read(const std::string& text);

} // namespace Timestamp

#endif
