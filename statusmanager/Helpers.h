#ifndef STATUSMANAGER_HELPERS_H
#define STATUSMANAGER_HELPERS_H

#include "statusmanager/helpers/Instance.h"
#include "statusmanager/helpers/Subscription.h"
#include "statusmanager/helpers/Values.h"
#include "statusmanager/helpers/Waiting.h"

/// @file
/// The namespace status: everyday tasks in one line, on top of StatusManager.h. The library libstatushelpers
/// contains the code. Include helpers/FakeStatusManager.h, for unit tests, separately.

#endif
