#ifndef STATUSMANAGER_HELPERS_INSTANCE_H
#define STATUSMANAGER_HELPERS_INSTANCE_H

#include <chrono>

#include "common/Export.h"
#include "statusmanager/StatusManager.h"

/// Everyday tasks in one line, on top of StatusManager.
///
/// The last argument of most functions is the manager; the caller keeps ownership. Without this argument they
/// use manager(), and so may block until a broker answers.
namespace status
{

/// Returns the process's one manager, as StatusManager::getInstance(false) does. If there is none, makes the
/// broker client and blocks without a time limit until a broker has answered; see connectWithin() for a
/// limit. Any thread.
/// @returns an object that lives until the process ends; a FakeStatusManager may end earlier
/// @throws as StatusManager::getInstance() does
OV_EXPORT StatusManager& manager();

/// Returns the process's one manager, if a broker answers in time or has answered before.
///
/// A separate thread tries to connect, and continues after the time has run out; a later call waits for the
/// same attempt. Until a broker answers, StatusManager::getInstance() and manager() block on every thread. So
/// call only connectWithin() until it has returned a manager. The process may end meanwhile.
///
/// Any thread but the manager's; several threads may call it at once.
/// @param timeout the longest wait. Zero or less does not wait: it only begins an attempt, or returns the
///                result of an attempt that has ended.
/// @returns null when no broker has answered in time; otherwise the same object as manager()
/// @throws as StatusManager::getInstance() does, and std::system_error when no thread can be started. The
///         next call makes a new attempt.
[[nodiscard]] OV_EXPORT StatusManager* connectWithin(std::chrono::milliseconds timeout);

} // namespace status

#endif
