#ifndef STATUSMANAGER_HELPERS_H
#define STATUSMANAGER_HELPERS_H

#include "statusmanager/helpers/Instance.h"
#include "statusmanager/helpers/Subscription.h"
#include "statusmanager/helpers/Values.h"
#include "statusmanager/helpers/Waiting.h"

/// @file
/// The namespace status: everyday tasks in one line, on top of the interface of StatusManager.h. All of it is
/// in the library libstatushelpers. helpers/FakeStatusManager.h, for unit tests, is included by itself.

#endif
