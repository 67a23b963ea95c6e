#ifndef STATUSCTL_TEXT_REPORT_H
#define STATUSCTL_TEXT_REPORT_H

#include "statusctl/base/Failure.h"
#include "statusctl/base/Settings.h"

/// Reports a failure on standard error: as one line, or as one object.
void report(const Settings& settings, const Failure& failure);

/// Reports, and ends the process at once: its other threads may be busy for long.
[[noreturn]] void leaveWith(const Settings& settings, const Failure& failure);

#endif
