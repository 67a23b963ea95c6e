#ifndef STATUSCTL_TEXT_DURATION_H
#define STATUSCTL_TEXT_DURATION_H

#include <chrono>
#include <optional>
#include <string>

namespace Duration
{

/// "5", "1.5" and "5s" are seconds; "500ms", "2m", "1h". Nothing for what is none, or longer than 1000 hours.
std::optional<std::chrono::milliseconds> read(const std::string& text);

/// Exactly, as read() takes it: "300ms", "5s", "2m", "1h".
std::string writeExactly(std::chrono::milliseconds duration);

/// As a person would say it: "1.5 s", "500 ms".
std::string write(std::chrono::microseconds duration);

/// For columns of ages, in the largest unit of which it is one whole: "59s", "1m", "23h", "400d". None is
/// below 0.
std::string age(std::chrono::seconds age);

} // namespace Duration

#endif
