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

/// Waits until the broker has taken in all that this process posted before; as StatusManager::sync(), and
/// isHealthy() remembers whether the broker can still be asked. Any thread.
///
/// False has two reasons. The broker has reported that posts may have been lost: post again, and call this
/// again. Or the time has run out: then isHealthy() is false, and every later query and sync of this process
/// fails at once.
///
/// @param timeout at least 1 ms, better seconds: the broker itself may take one second while posts are under
///                way. More than 24 days counts as 24 days. Zero or less is refused, with a log line of
///                level 2, since the broker could not have answered.
/// @returns true when the posts have arrived. It takes at most the time given and 100 ms, counted from when
///          its turn comes; a false may take twice as long, since the broker is then asked a second time.
OV_EXPORT bool sync(std::chrono::milliseconds timeout, StatusManager& manager = status::manager());

/// False for good once a sync() of this header has left the broker unanswering: nothing that this process
/// asks through that manager is answered any more. It should end, and its supervisor start it anew. Look at
/// it before telling a watchdog that all is well. Any thread; never waits.
///
/// It learns from sync() only, so call that now and then. A sync() of StatusManager itself does not count.
[[nodiscard]] OV_EXPORT bool isHealthy(StatusManager& manager = status::manager());

/// Waits until `key` has a value for which `predicate` returns true: the value that it has now, or one that
/// it changes to. Values that change faster than the predicate returns are all looked at, in their order.
///
/// Any thread but the manager's. In a callback, it holds up the other callbacks of that thread. While it
/// waits, it has an event thread of its own.
///
/// @param predicate called on this thread, with "" for a reset key; not called while the key is unknown. An
///                  exception that leaves it is thrown here.
/// @param timeout   how long to wait at most, whatever the broker does; the predicate's time comes on top
/// @returns the value; nothing when the time has run out
/// @throws std::system_error when no thread can be started
[[nodiscard]] OV_EXPORT std::optional<std::string>
waitFor(const std::string& key, const std::function<bool(const std::string& value)>& predicate,
        std::chrono::milliseconds timeout, StatusManager& manager = status::manager());

} // namespace status

#endif
