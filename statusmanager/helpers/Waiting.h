#ifndef STATUSMANAGER_HELPERS_WAITING_H
#define STATUSMANAGER_HELPERS_WAITING_H

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "common/Export.h"
#include "statusmanager/StatusManager.h"
#include "statusmanager/helpers/Instance.h"

namespace status
{

/// Waits until the broker has taken all earlier posts of this process, like StatusManager::sync().
/// isHealthy() remembers if the broker does not answer. Any thread.
///
/// False has two reasons. If isHealthy() is still true, the broker has reported that posts may have been
/// lost: post again, and call sync() again. Otherwise the time has run out: every later query and sync of
/// this process fails at once.
///
/// @param timeout at least 1 ms, better seconds: the broker itself may take one second while posts are
///                arriving. More than 24 days counts as 24 days. Zero or less is refused with a log line of
///                level 2, because the broker could not answer in time.
/// @returns true when the posts have arrived. Returns at most 100 ms after the timeout, counted from when its
///          turn comes. A false may take twice as long, because the broker is asked a second time.
OV_EXPORT bool sync(std::chrono::milliseconds timeout, StatusManager& manager = status::manager());

/// Whether the broker still answers this manager. False for ever after a status::sync() that ran out of time:
/// no later query of this process through that manager is answered. The process should then end, and its
/// supervisor should restart it. Check this before you report to a watchdog. Any thread; never waits.
///
/// Only status::sync() changes it, so call that regularly. StatusManager::sync() does not count.
[[nodiscard]] OV_EXPORT bool isHealthy(StatusManager& manager = status::manager());

/// Waits until `key` has a value for which `predicate` returns true: its current value or a later one. The
/// predicate gets every value in order, even if values change faster than it returns.
///
/// Any thread but the manager's. In a callback, it delays the other callbacks of that thread. It starts an
/// event thread while it waits.
///
/// @param predicate called on the caller's thread, with "" for a reset key; not called while the key is
///                  unknown. An exception that leaves it is thrown here.
/// @param timeout   the longest wait, whatever the broker does; the predicate's own time is extra
/// @returns the value; nothing when the time has run out
/// @throws std::system_error when no thread can be started
[[nodiscard]] OV_EXPORT std::optional<std::string>
waitFor(const std::string& key, const std::function<bool(const std::string& value)>& predicate,
        std::chrono::milliseconds timeout, StatusManager& manager = status::manager());

} // namespace status

#endif
