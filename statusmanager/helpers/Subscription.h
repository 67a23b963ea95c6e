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
/// When the destructor, cancel() or an assignment has returned, the callback is not running, is never called
/// again, and is destroyed with all that it captured. They wait for a callback that is running, but for
/// nothing else: neither for other callbacks of that thread, nor for the manager or the broker. So do not
/// destroy a subscription while holding a lock that its callback takes.
///
/// Inside its own callback, a subscription may be destroyed as well. The callback then runs to its end, and
/// what it captured is destroyed when it returns; that is the last call.
///
/// The subscription, its event thread and its manager may be destroyed in any order. Once the thread has
/// stopped or the manager has been destroyed, the callback is not called any more; the subscription may still
/// be cancelled, and need not be.
///
/// The object itself is not locked: one thread at a time may use it. It belongs to its owner alone; it can be
/// moved, not copied.
class OV_EXPORT Subscription
{
public:
    /// Keeps nothing; something may be assigned later.
    Subscription() noexcept;

    /// As cancel().
    ~Subscription();

    /// Takes over what the other one kept, which then keeps nothing.
    Subscription(Subscription&& other) noexcept;
    /// The same, after cancel().
    Subscription& operator=(Subscription&& other) noexcept;

    /// Ends the subscription, as described above; without effect if it keeps nothing. Any thread.
    void cancel() noexcept;

    /// Whether it keeps a callback. That may have become silent, where its thread or its manager has ended.
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

/// Calls `callback` with status values, on `thread`: first with the values that the keys have now, which may
/// be none, then with those that changed. A reset key has the empty value. The same value may be told twice.
///
/// Any thread; returns at once. The first callback may come before that. In a callback, every operation may
/// be called. An exception that leaves it is logged at level 0, and the next call is made.
///
/// @param keys     each stands for itself; there are no patterns
/// @param thread   stays the caller's. While the subscription lasts, one more agent waits there, which
///                 EventThread::getPendingCount() counts.
/// @param callback not empty. The map is valid during the call.
/// @param manager  stays the caller's; one that keeps the listeners as StatusManager does. The inert manager
///                 calls nobody.
/// @returns the subscription, which ends with that object
/// @throws std::bad_alloc; the callback is not called then
[[nodiscard]] OV_EXPORT Subscription on(StatusKeys keys, Orvane::EventThread& thread,
                                        std::function<void(const StatusMap& values)> callback,
                                        StatusManager& manager = status::manager());

/// Calls `callback` with each event of these names, on `thread`. There is no first callback, and events that
/// occurred before are not told. All else as for on().
[[nodiscard]] OV_EXPORT Subscription
onEvent(EventKeys names, Orvane::EventThread& thread,
        std::function<void(const std::string& name, const std::string& value)> callback,
        StatusManager& manager = status::manager());

} // namespace status

#endif
