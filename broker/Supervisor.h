#ifndef BROKER_SUPERVISOR_H
#define BROKER_SUPERVISOR_H

#include <optional>
#include <string>

#include "broker/base/Clock.h"

/// Reports the broker's condition to the service manager, if there is one. Never waits for it.
class Supervisor
{
public:
    Supervisor();

    /// Reports that everything is bound and loaded. Repeated until the service manager's socket has room:
    /// without the report it would end the broker.
    /// @param status a line for the operator
    void ready(const std::string& status);
    void stopping();

    /// When to report next. First it reports that the broker is ready, as long as that could not be sent.
    /// Then it feeds the watchdog, if there is one.
    std::optional<TimePoint> nextTelling() const { return mNextReadiness ? mNextReadiness : mNextFeeding; }

    /// Sends what is due. Call it from the loop that the watchdog supervises.
    void tellWhatIsDue(TimePoint now);

private:
    void tellReadiness();
    void feed(TimePoint now);

    std::string mReadiness;
    std::optional<TimePoint> mNextReadiness; ///< nothing once it has been sent
    std::chrono::microseconds mInterval{0};
    std::optional<TimePoint> mNextFeeding;
};

#endif
