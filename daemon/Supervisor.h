#ifndef DAEMON_SUPERVISOR_H
#define DAEMON_SUPERVISOR_H

#include <optional>
#include <string>

#include "daemon/Clock.h"

/// Reports the daemon's condition to the service manager, if there is one. Never waits for it.
class Supervisor
{
public:
    /// @param name of the daemon, for the log; must outlive this object
    explicit Supervisor(const char* name);

    /// Reports that everything is bound and loaded. Repeated until the service manager's socket has room:
    /// without the report it would end the daemon.
    /// @param status a line for the operator
    void ready(const std::string& status);
    void stopping();

    /// When to report next. First it reports that the daemon is ready, as long as that could not be sent.
    /// Then it feeds the watchdog, if there is one.
    std::optional<TimePoint> nextTelling() const { return mNextReadiness ? mNextReadiness : mNextFeeding; }

    /// Sends what is due. Call it from the loop that the watchdog supervises.
    void tellWhatIsDue(TimePoint now);

private:
    void tellReadiness();
    void feed(TimePoint now);

    const char* const mName;
    std::string mReadiness;
    std::optional<TimePoint> mNextReadiness; ///< nothing once it has been sent
    std::chrono::microseconds mInterval{0};
    std::optional<TimePoint> mNextFeeding;
};

#endif
