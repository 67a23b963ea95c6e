#ifndef STATUSMANAGER_HELPERS_INSTANCE_H
#define STATUSMANAGER_HELPERS_INSTANCE_H

#include <chrono>

#include "common/Export.h"
#include "statusmanager/StatusManager.h"

/// Everyday tasks in one line, on top of StatusManager.
///
/// Most functions take the manager as their last argument, which stays the caller's. If none is given, it is
/// the process's own: then they first block, as manager() does, if there is none yet.
namespace status
{

/// The process's one manager, as StatusManager::getInstance() returns it. While there is none, makes the
/// broker client and blocks, without a time limit, until a broker has answered; connectWithin() does not. Any
/// thread.
/// @returns an object that lives until the process ends (a FakeStatusManager: as long as that lives)
/// @throws as StatusManager::getInstance() does
OV_EXPORT StatusManager& manager();

/// The process's one manager, if a broker answers in time, or has answered before.
///
/// The attempt is made on a thread of its own, which goes on when the time has run out: a later call waits
/// for the same attempt. Until a broker answers, StatusManager::getInstance() and manager() block on every
/// thread, so call nothing but this before it has returned a manager. The process may end meanwhile.
///
/// Any thread, several at once too; not the manager's.
/// @param timeout how long this waits at most; zero or less only begins an attempt, or asks how it has ended
/// @returns null when no broker has answered in time; otherwise an object as manager() returns it
/// @throws as StatusManager::getInstance() does, and std::system_error when no thread can be started. The
///         next call makes a new attempt.
[[nodiscard]] OV_EXPORT StatusManager* connectWithin(std::chrono::milliseconds timeout);

} // namespace status

#endif
