#ifndef STATUSCTL_TEXT_DURATION_H
#define STATUSCTL_TEXT_DURATION_H

#include <chrono>
#include <optional>
#include <string>

namespace Duration
{

/// "5", "1.5" and "5s" are seconds; "500ms", "2m", "1h". Nothing for what is none, or longer than 1000 hours.
std::optional<std::chrono::milliseconds> read(const std::string& text);

/// As a person would say it: "1.5 s", "500 ms".
std::string write(std::chrono::microseconds duration);

} // namespace Duration

#endif
