#ifndef BROKER_SUPERVISOR_H
#define BROKER_SUPERVISOR_H

#include <optional>
#include <string>

#include "broker/Clock.h"

/// Tells the service manager how the broker is doing. Does nothing where there is none.
class Supervisor
{
public:
    Supervisor();

    /// Everything is bound and loaded.
    /// @param status a line for the operator
    void ready(const std::string& status);
    void stopping();

    /// When the watchdog wants to be fed next; nothing if there is none.
    std::optional<TimePoint> nextFeeding() const { return mNextFeeding; }

    /// Feeds it, if it is time. To be called from the loop that the watchdog is to watch.
    void feed(TimePoint now);

private:
    std::chrono::microseconds mInterval{0};
    std::optional<TimePoint> mNextFeeding;
};

#endif
