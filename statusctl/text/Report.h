#ifndef STATUSCTL_TEXT_REPORT_H
#define STATUSCTL_TEXT_REPORT_H

#include "statusctl/base/Failure.h"
#include "statusctl/base/Settings.h"

/// Reports a failure on standard error, as one line or as one JSON object.
void report(const Settings& settings, const Failure& failure);

/// Reports, then ends the process at once: other threads may be busy for long.
[[noreturn]] void leaveWith(const Settings& settings, const Failure& failure);

#endif
