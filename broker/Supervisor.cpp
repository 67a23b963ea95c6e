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

void Supervisor::reloading()
{
    const auto now = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch());
    sd_notify(0, ("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(now.count())).c_str());
}

void Supervisor::stopping()
{
    sd_notify(0, "STOPPING=1");
}

void Supervisor::status(const std::string& status)
{
    sd_notify(0, ("STATUS=" + status).c_str());
}

void Supervisor::feed(TimePoint now)
{
    if (!mNextFeeding || now < *mNextFeeding)
        return;
    sd_notify(0, "WATCHDOG=1");
    mNextFeeding = now + mInterval;
}
