#ifndef STATUSCTL_TEXT_DURATION_H
#define STATUSCTL_TEXT_DURATION_H

#include <chrono>
#include <optional>
#include <string>

namespace Duration
{

/// Reads "5", "1.5" and "5s" (seconds), "500ms", "2m", "1h". Nothing if it is no duration or over 1000 hours.
std::optional<std::chrono::milliseconds> read(const std::string& text);

/// Writes a duration exactly, as read() takes it: "300ms", "5s", "2m", "1h".
std::string writeExactly(std::chrono::milliseconds duration);

/// Writes a duration for people: "1.5 s", "500 ms".
std::string write(std::chrono::microseconds duration);

/// Writes an age for a column, in the largest unit that has at least one: "59s", "1m", "23h", "400d".
/// Negative ages count as 0.
std::string age(std::chrono::seconds age);

} // namespace Duration

#endif
