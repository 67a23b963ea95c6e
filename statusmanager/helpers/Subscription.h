#ifndef STATUSMANAGER_HELPERS_SUBSCRIPTION_H
#define STATUSMANAGER_HELPERS_SUBSCRIPTION_H

#include <functional>
#include <memory>
#include <string>

#include "common/EventThread.h"
#include "common/Export.h"
#include "statusmanager/StatusManager.h"
#include "statusmanager/helpers/Instance.h"

namespace status
{

class SubscriptionListener;

/// Keeps a callback subscribed, from on() or onEvent() until it is destroyed.
///
/// The destructor, cancel() and an assignment end the subscription. After that the callback is not running,
/// is never called again, and is destroyed with everything it captured. They wait for this callback if it is
/// running, but never for other callbacks of that thread, the manager or the broker. So do not end a
/// subscription while holding a lock that its callback takes.
///
/// A callback may end its own subscription. That call is the last one: it runs to its end, and the captured
/// objects are destroyed when it returns.
///
/// The subscription, its event thread and its manager may be destroyed in any order. After the thread has
/// stopped or the manager has been destroyed, the callback is no longer called. The subscription may still be
/// cancelled, but need not be.
///
/// Only one thread at a time may use the object. It can be moved, but not copied.
class OV_EXPORT Subscription
{
public:
    /// Holds no callback; another subscription may be assigned later.
    Subscription() noexcept;

    /// As cancel().
    ~Subscription();

    /// Takes over the callback of `other`, which then holds none.
    Subscription(Subscription&& other) noexcept;
    /// Calls cancel(), then does the same.
    Subscription& operator=(Subscription&& other) noexcept;

    /// Ends the subscription, as described above. Does nothing if there is no callback. Any thread.
    void cancel() noexcept;

    /// Whether it holds a callback. The callback is no longer called if its thread or its manager has ended.
    explicit operator bool() const noexcept { return mListener != nullptr; }

private:
    explicit Subscription(std::shared_ptr<SubscriptionListener> listener) noexcept;

    friend OV_EXPORT Subscription on(StatusKeys keys, Orvane::EventThread& thread,
                                     std::function<void(const StatusMap& values)> callback,
                                     StatusManager& manager);
    friend OV_EXPORT Subscription
    onEvent(EventKeys names, Orvane::EventThread& thread,
            std::function<void(const std::string& name, const std::string& value)> callback,
            StatusManager& manager);

    std::shared_ptr<SubscriptionListener> mListener;
};

/// Calls `callback` on `thread` with status values. The first call has the current values of the keys, which
/// may be none. Later calls have the changed values. A reset key has the empty value. The same value may come
/// twice.
///
/// Any thread; returns at once. The first callback may run before on() returns. A callback may call every
/// operation. An exception that leaves it is logged at level 0, and later calls follow as usual.
///
/// @param keys     full keys; patterns are not supported
/// @param thread   the caller keeps ownership. While the subscription lasts, EventThread::getPendingCount()
///                 counts one agent more, which belongs to the subscription.
/// @param callback must not be empty. The map is valid only during the call.
/// @param manager  the caller keeps ownership. It must keep its listeners as StatusManager does. The inert
///                 manager never calls back.
/// @returns the subscription, which ends when the object is destroyed
/// @throws std::bad_alloc; then the callback is never called
[[nodiscard]] OV_EXPORT Subscription on(StatusKeys keys, Orvane::EventThread& thread,
                                        std::function<void(const StatusMap& values)> callback,
                                        StatusManager& manager = status::manager());

/// Calls `callback` on `thread` with each event of these names. There is no first callback, and no callback
/// for earlier events. Everything else is as for on().
[[nodiscard]] OV_EXPORT Subscription
onEvent(EventKeys names, Orvane::EventThread& thread,
        std::function<void(const std::string& name, const std::string& value)> callback,
        StatusManager& manager = status::manager());

} // namespace status

#endif
