#ifndef BROKER_SUPERVISOR_H
#define BROKER_SUPERVISOR_H

#include <optional>
#include <string>

#include "broker/base/Clock.h"

/// Tells the service manager how the broker is doing. Does nothing where there is none. Never waits for it.
class Supervisor
{
public:
    Supervisor();

    /// Everything is bound and loaded. Told again until there is room for it: a service manager that missed
    /// it would end the broker.
    /// @param status a line for the operator
    void ready(const std::string& status);
    void stopping();

    /// When it is to be told something next: that the broker is ready, if it could not be told yet; then its
    /// watchdog is to be fed, if there is one.
    std::optional<TimePoint> nextTelling() const { return mNextReadiness ? mNextReadiness : mNextFeeding; }

    /// Tells that, if it is time. To be called from the loop that the watchdog is to watch.
    void tellWhatIsDue(TimePoint now);

private:
    void tellReadiness();
    void feed(TimePoint now);

    std::string mReadiness;
    std::optional<TimePoint> mNextReadiness; ///< nothing when it has been told
    std::chrono::microseconds mInterval{0};
    std::optional<TimePoint> mNextFeeding;
};

#endif
