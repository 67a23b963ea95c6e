#include "broker/Supervisor.h"

#include <systemd/sd-daemon.h>

Supervisor::Supervisor()
{
    uint64_t microseconds = 0;
    if (sd_watchdog_enabled(0, &microseconds) <= 0)
        return;
    mInterval = std::chrono::microseconds(microseconds / 3); // one that comes late does no harm
    mNextFeeding = Clock::now();
}

void Supervisor::ready(const std::string& status)
{
    sd_notify(0, ("READY=1\nSTATUS=" + status).c_str());
}

void Supervisor::stopping()
{
    sd_notify(0, "STOPPING=1");
}

void Supervisor::feed(TimePoint now)
{
    if (!mNextFeeding || now < *mNextFeeding)
        return;
    sd_notify(0, "WATCHDOG=1");
    mNextFeeding = now + mInterval;
}
