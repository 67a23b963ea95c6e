#ifndef STATUSMANAGER_STATUSMANAGER_H
#define STATUSMANAGER_STATUSMANAGER_H

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>

#include "common/EventThread.h"
#include "common/Export.h"
#include "common/Stopwatch.h"
#include "common/TrackedNew.h"
#include "statusmanager/StatusTypes.h"

/// Receives changes of values and events. Both operations run only on the dispatcher given to
/// StatusManager::registerListener(), whichever thread posts. The callee owns the arguments, which are
/// copies.
///
/// A callback may call every operation of the manager; only unregisterListener() is refused on the manager's
/// own thread. The dispatcher catches an exception that leaves a callback, logs it at level 0 and continues
/// with the next call.
///
/// The order of the operations is part of the binary interface.
class OV_EXPORT IStatusUpdateListener
{
public:
    /// Called when status values changed, and once after a subscription. `updates` holds only keys that this
    /// listener subscribed to; a reset key has the empty value. In the first callback after a subscription
    /// the map may be empty.
    virtual void onStatusUpdate(StatusMap updates) = 0;

    /// Called when an event occurred whose name this listener subscribed to.
    virtual void onEventUpdate(std::string name, std::string value) = 0;

    virtual ~IStatusUpdateListener();
};

/// A registered listener and its subscriptions. Only the manager's thread reads and changes it. Classes that
/// derive from the manager must not change it: a long list has a separate index, which would not notice the
/// change. They may pass its lists to unregisterForStatus() and unregisterForEvent().
struct ClientListenerInfo
{
    IStatusUpdateListener* listener;     ///< Also its key in the registry.
    Orvane::EventDispatcher* dispatcher; ///< Runs every callback; null: registered, but never called.
    StatusKeys statusKeys;               ///< In the order of subscription, no key twice.
    EventKeys eventKeys;                 ///< In the order of subscription, no name twice.
};

class SubscriptionIndex;

/// The device's status values, events, timers and counters, as one process sees them.
///
/// Get the process's one object with getInstance(). Any thread may call every operation. The work is done on
/// the manager's own thread. From other threads, operations marked [queued] return at once; operations marked
/// [waits] return when the work is done. On the manager's thread, every operation runs at once. Calls of one
/// thread keep their order. A failed operation writes a log line and returns a neutral result (nothing,
/// false, 0, the empty string or map). Only a lack of memory throws (std::bad_alloc).
///
/// The comments describe the local behaviour of this class. StatusManagerProxy, which getInstance(false)
/// returns, keeps everything except the listeners in the broker.
///
/// The destructor of a derived class must stop the manager's thread before its own members die: its first
/// line is `mThread.stop()`. Until then, that thread may be in an operation of the derived class.
///
/// Virtual operations are in binary-interface order. New ones go to the end.
class OV_EXPORT StatusManager : public Orvane::Tracked
{
public:
    /// Returns the process's one manager. The first call makes it; it is never destroyed. Any thread.
    /// @param useStub read by the first call only. true makes the inert manager. false makes the broker
    ///                client and blocks until the broker has answered.
    /// @throws what the constructor throws (no memory, no thread); the next call tries again.
    static StatusManager* getInstance(bool useStub);

    /// Makes a separate manager with local stores, for tests and derived implementations. Starts its thread.
    StatusManager();

    /// [waits] Sets the system clock to `seconds` since the Unix epoch. A failure is not reported.
    virtual void updateSystemTime(uint32_t seconds);

    /// [waits] Returns all status values, including reset ones (empty).
    virtual StatusMap getClientInfo();

    /// [waits] Returns the value of one key; empty when the key is reset or unknown.
    virtual std::string getClientInfoValue(const std::string& key);

    /// [waits] Returns the values of the given keys; unknown keys are left out.
    virtual StatusMap getClientInfoValues(const StatusKeys& keys);

    /// [queued] Starts a timer. Does nothing while the timer runs.
    ///
    /// For all timer operations: the first use of a name makes the timer. The local timers never run: each
    /// operation acts on a copy of the stored timer and then discards the copy. This is intended; the real
    /// timers are in the broker. An empty name is logged and nothing is stored.
    virtual void startTimer(std::string name);
    /// [queued] Stops a timer and keeps the measured time. Does nothing while the timer is stopped.
    virtual void stopTimer(std::string name);
    /// [queued] Clears the time of earlier runs. A run that is in progress still counts from its start.
    virtual void resetTimer(std::string name);
    /// [queued] Clears a timer and starts it from now, whether it was running or not.
    virtual void restartTimer(std::string name);

    /// [waits] Returns how long the timer has run, in microseconds; locally always 0.
    virtual uint64_t getTimerElapsed(const std::string& name);

    /// [waits] Returns the same time in whole seconds, rounded down.
    virtual uint64_t getTimerElapsedSeconds(const std::string& name);

    /// [waits] Returns when the timer was last started, in microseconds (from the broker: since the Unix
    /// epoch); 0 if it was never started.
    virtual uint64_t getTimerLastStarted(const std::string& name);

    /// [waits] Returns a counter's value. The first use of a name makes the counter, with value 0. Like the
    /// timers, local counters never change: they always read 0. An empty name is logged and yields 0.
    virtual uint32_t getCounterValue(const std::string& name);

    /// [waits] Adds one to a counter. Locally returns the old value (always 0); the broker client returns the
    /// new value.
    virtual uint32_t incrementCounter(const std::string& name);

    /// [queued] Sets a counter. Local counters keep the value 0.
    virtual void setCounterValue(std::string name, uint32_t value);

    /// [queued] Adds a listener and the dispatcher that runs its callbacks. With a null dispatcher the
    /// listener is never called. The caller keeps ownership of both; they must live until
    /// unregisterListener() has returned. A second registration is logged and changes nothing. A null
    /// listener is accepted like any other; give it a null dispatcher, because it must never be called. The
    /// dispatcher's post() must queue. If it called the listener in place, the local store would take the
    /// value only afterwards, and overwrite a newer value that the listener posted meanwhile.
    virtual void registerListener(IStatusUpdateListener* listener, Orvane::EventDispatcher* dispatcher);

    /// [waits] Removes a listener with its subscriptions, and drops its callbacks that still wait on its
    /// dispatcher. It does not wait for a callback that is running at this moment. So destroy the listener on
    /// the dispatcher's own thread, or after the dispatcher has stopped. A call on the manager's thread is
    /// logged and refused.
    virtual void unregisterListener(IStatusUpdateListener* listener);

    /// [queued] Subscribes a registered listener to a status key. The listener then gets one onStatusUpdate()
    /// with the current values of newly subscribed keys, even if there are none.
    virtual void registerForStatus(IStatusUpdateListener* listener, std::string key);
    /// The same for several keys; one callback for all of them.
    virtual void registerForStatus(IStatusUpdateListener* listener, StatusKeys keys);

    /// [waits] Ends a status subscription. Callbacks that are already queued still arrive.
    virtual void unregisterForStatus(IStatusUpdateListener* listener, const std::string& key);
    /// The same for several keys.
    virtual void unregisterForStatus(IStatusUpdateListener* listener, const StatusKeys& keys);

    /// [queued] Publishes a status value. Listeners are called only if the value changed. The empty string is
    /// the same as a reset.
    virtual void postStatus(std::string key, std::string value);
    /// The same for several values. A listener gets all changed values in one callback.
    virtual void postStatus(StatusMap updates);

    /// [queued] Sets a status value to the empty string. This also makes an unknown key known.
    virtual void resetStatus(std::string key);
    /// The same for several keys. A listener gets all of them in one callback.
    virtual void resetStatus(StatusKeys keys);

    /// [queued] Subscribes a registered listener to an event. There is no first callback, because events have
    /// no current value.
    virtual void registerForEvent(IStatusUpdateListener* listener, std::string name);
    /// The same for several events.
    virtual void registerForEvent(IStatusUpdateListener* listener, EventKeys names);

    /// [waits] Ends an event subscription.
    virtual void unregisterForEvent(IStatusUpdateListener* listener, const std::string& name);
    /// The same for several events.
    virtual void unregisterForEvent(IStatusUpdateListener* listener, const EventKeys& names);

    /// [queued] Publishes an event to the listeners that are subscribed at that moment. Events are not
    /// stored.
    /// @param delay milliseconds to wait first. Only the broker client uses it; this class ignores it.
    virtual void postEvent(std::string name, std::string value, uint32_t delay);

    /// [waits] Returns true when all work queued before is done. The broker client asks the broker, and
    /// returns false if no answer comes within `timeoutMs` milliseconds (-1: no limit) and 100 more; see
    /// StatusManagerProxy::sync(). This class ignores `timeoutMs`.
    virtual bool sync(int timeoutMs);

    /// Drops the calls that are queued for this object. The records of listeners that are still registered
    /// are not freed. Must not run on the manager's thread, nor while another thread is in a call.
    virtual ~StatusManager();

    StatusManager(const StatusManager&) = delete;
    StatusManager& operator=(const StatusManager&) = delete;

protected:
    // For the implementations, not for clients.

    /// Calls every listener that subscribed to one of the keys; stores nothing. Any thread; [queued].
    void handleStatusUpdate(StatusMap updates);

    /// Calls every listener that subscribed to the event. Any thread; [queued].
    void handleEventUpdate(std::string name, std::string value);

    /// Removes all status values and listeners. Any thread; [waits].
    void clearInfo();

    /// Copies a timer to `out`, and makes the timer if there is none. Manager's thread only.
    void getTimer(const std::string& name, veskcommon::Stopwatch& out);
    /// The same for a counter. Returns false and leaves `out` unchanged if the name is empty.
    bool getCounter(const std::string& name, Counter& out);

    /// Removes a listener and returns its dispatcher. Manager's thread only; refused on others.
    Orvane::EventDispatcher* unregisterListenerHelper(IStatusUpdateListener* listener);

    /// The manager's thread. Only this thread uses the state below, so the state needs no lock.
    Orvane::EventThread mThread;
    StatusMap mStatusValues;                                          ///< The local store.
    std::deque<Counter> mCounters;                                    ///< In the order of their first use.
    std::deque<veskcommon::Stopwatch> mTimers;                        ///< In the order of their first use.
    std::map<IStatusUpdateListener*, ClientListenerInfo*> mListeners; ///< Owns the records.

    static StatusManager* mInstance; ///< The object that getInstance() returns.

private:
    ClientListenerInfo* findListener(IStatusUpdateListener* listener) const;
    void storeAndNotify(const StatusMap& changes);

    std::unique_ptr<SubscriptionIndex> mSubscriptionIndex; ///< Indexes the long lists of mListeners.
};

#endif
