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

/// Hears of changes. Both operations are called on the dispatcher given to StatusManager::registerListener(),
/// never on the manager's thread or a poster's (unless that dispatcher is the manager's). Their arguments are
/// the callee's own copies.
///
/// Inside a callback, every operation of the manager may be called. Only unregisterListener() is refused on
/// the manager's own thread. The dispatcher catches an exception that leaves a callback, logs it at level 0
/// and goes on with the next call.
///
/// The order of the operations is part of the binary interface.
class OV_EXPORT IStatusUpdateListener
{
public:
    /// Status values changed, or this is the first callback after a subscription. Holds only keys that this
    /// listener subscribed to; a reset key has the empty value. May be empty for a first callback.
    virtual void onStatusUpdate(StatusMap updates) = 0;

    /// An event occurred whose name this listener subscribed to.
    virtual void onEventUpdate(std::string name, std::string value) = 0;

    virtual ~IStatusUpdateListener();
};

/// A registered listener and its subscriptions. Only the manager's thread reads and changes it. For classes
/// that derive from the manager it is read-only: a long list has an index beside the record, which does not
/// notice when somebody else changes the list. They may give its lists to unregisterForStatus() and
/// unregisterForEvent().
struct ClientListenerInfo
{
    IStatusUpdateListener* listener;     ///< Also its key in the registry.
    Orvane::EventDispatcher* dispatcher; ///< Every callback runs there; null: registered, but never called.
    StatusKeys statusKeys;               ///< In the order of subscription, no key twice.
    EventKeys eventKeys;                 ///< In the order of subscription, no name twice.
};

class SubscriptionIndex;

/// The device's status values, events, timers and counters, as one process sees them.
///
/// Get the process's one object with getInstance(). Every operation may be called from any thread. All of
/// them do their work on the manager's own thread; from other threads those marked [queued] return at once
/// and those marked [waits] when the work is done. Called on the manager's thread, all run at once. Calls of
/// one thread keep their order. No operation reports an error other than by a log line and a neutral result
/// (nothing, false, 0, the empty string or map); only want of memory throws (std::bad_alloc).
///
/// The descriptions give this class's own, local behaviour; StatusManagerProxy, which getInstance(false)
/// returns, keeps all but the listeners in the broker.
///
/// The destructor of a derived class must stop the manager's thread before its own members die: its first
/// line is `mThread.stop()`. Until then, that thread may be in an operation of the derived class.
///
/// Virtual operations are in binary-interface order. New ones go to the end.
class OV_EXPORT StatusManager : public Orvane::Tracked
{
public:
    /// The process's one manager, made by the first call and never destroyed. Any thread.
    /// @param useStub first call: true makes the inert manager; false the broker client, and then the call
    ///                blocks until the broker has answered. Ignored later.
    /// @throws whatever the construction throws (no memory, no thread); the next call tries again.
    static StatusManager* getInstance(bool useStub);

    /// A manager of one's own, with local stores, for tests and derived implementations. Starts its thread.
    StatusManager();

    /// [waits] Sets the system clock to whole seconds since the Unix epoch. Failure stays silent.
    virtual void updateSystemTime(uint32_t seconds);

    /// [waits] All status values, reset ones (empty) included.
    virtual StatusMap getClientInfo();

    /// [waits] The value of one key; empty when it is reset or unknown.
    virtual std::string getClientInfoValue(const std::string& key);

    /// [waits] The values of those keys that are known.
    virtual StatusMap getClientInfoValues(const StatusKeys& keys);

    /// [queued] Starts a timer; without effect while it runs.
    ///
    /// For all timer operations: a timer comes into being when it is first named. The local timers never run:
    /// each operation acts on a copy of the stored timer, which is then discarded. That is intended; real
    /// timers are the broker's. An empty name is logged and nothing is stored.
    virtual void startTimer(std::string name);
    /// [queued] Stops a timer and keeps what it has measured; without effect while it is stopped.
    virtual void stopTimer(std::string name);
    /// [queued] Clears what earlier runs have added up. A run that is under way still counts from its start.
    virtual void resetTimer(std::string name);
    /// [queued] Clears a timer and starts it from now, whether it was running or not.
    virtual void restartTimer(std::string name);

    /// [waits] Microseconds that the timer has run; locally always 0.
    virtual uint64_t getTimerElapsed(const std::string& name);

    /// [waits] The same in whole seconds, truncated.
    virtual uint64_t getTimerElapsedSeconds(const std::string& name);

    /// [waits] When the timer was last started, in microseconds (the broker's: since the Unix epoch); 0 when
    /// it never was.
    virtual uint64_t getTimerLastStarted(const std::string& name);

    /// [waits] A counter's value. Counters come into being, at 0, when first named. As with the timers, the
    /// local ones never change: they read 0 for ever. An empty name is logged and yields 0.
    virtual uint32_t getCounterValue(const std::string& name);

    /// [waits] Counts up by one. Locally returns the value before (always 0), from the broker the value
    /// after.
    virtual uint32_t incrementCounter(const std::string& name);

    /// [queued] Sets a counter; without effect on the local ones beyond naming them.
    virtual void setCounterValue(std::string name, uint32_t value);

    /// [queued] Adds a listener and the dispatcher on which it is to be called; a null dispatcher mutes it.
    /// Both stay the caller's and must live until unregisterListener() has returned. A second registration is
    /// logged and changes nothing. A null listener is a key like any other, but must never be called: give it
    /// a null dispatcher. A dispatcher must queue: if the post() of one of your own calls the listener in
    /// place, the local store takes the value only afterwards, and so overwrites a newer one that the
    /// listener has posted meanwhile.
    virtual void registerListener(IStatusUpdateListener* listener, Orvane::EventDispatcher* dispatcher);

    /// [waits] Removes a listener with its subscriptions and drops its callbacks that still wait on its
    /// dispatcher. A callback that its dispatcher is running at this moment is not waited for: destroy the
    /// listener only after that dispatcher is past it (stopped, or from the dispatcher's own thread). Must
    /// not be called on the manager's thread: there it is logged and refused.
    virtual void unregisterListener(IStatusUpdateListener* listener);

    /// [queued] Subscribes a registered listener to status keys. It then gets one onStatusUpdate() with the
    /// current values of the keys that it did not have before, even if there are none.
    virtual void registerForStatus(IStatusUpdateListener* listener, std::string key);
    /// The same for several keys; one callback for all of them.
    virtual void registerForStatus(IStatusUpdateListener* listener, StatusKeys keys);

    /// [waits] Takes status subscriptions back. Callbacks that are under way still arrive.
    virtual void unregisterForStatus(IStatusUpdateListener* listener, const std::string& key);
    /// The same for several keys.
    virtual void unregisterForStatus(IStatusUpdateListener* listener, const StatusKeys& keys);

    /// [queued] Publishes status values. Listeners hear of those that changed; posting the empty string is
    /// the same as a reset.
    virtual void postStatus(std::string key, std::string value);
    /// The same for several values, of which a listener hears in one callback.
    virtual void postStatus(StatusMap updates);

    /// [queued] Sets status values to the empty string; an unknown key comes into being that way.
    virtual void resetStatus(std::string key);
    /// The same for several keys, of which a listener hears in one callback.
    virtual void resetStatus(StatusKeys keys);

    /// [queued] Subscribes a registered listener to events. Events have no current value: no first callback.
    virtual void registerForEvent(IStatusUpdateListener* listener, std::string name);
    /// The same for several events.
    virtual void registerForEvent(IStatusUpdateListener* listener, EventKeys names);

    /// [waits] Takes event subscriptions back.
    virtual void unregisterForEvent(IStatusUpdateListener* listener, const std::string& name);
    /// The same for several events.
    virtual void unregisterForEvent(IStatusUpdateListener* listener, const EventKeys& names);

    /// [queued] Publishes an event to the listeners subscribed at that moment; it is stored nowhere.
    /// @param delay milliseconds to wait first; used by the broker client only, ignored here.
    virtual void postEvent(std::string name, std::string value, uint32_t delay);

    /// [waits] Returns true when all that was queued before has been done. The broker client asks the broker
    /// and waits `timeoutMs` milliseconds and 100 at most (-1: no limit); false when that ran out.
    virtual bool sync(int timeoutMs);

    /// Drops what is queued for this object. Listeners that are still registered are forgotten, their records
    /// are not freed. Not on the manager's thread, and not while another thread is in a call.
    virtual ~StatusManager();

    StatusManager(const StatusManager&) = delete;
    StatusManager& operator=(const StatusManager&) = delete;

protected:
    // For the implementations, not for clients.

    /// Calls every listener that subscribed to one of the keys; stores nothing. Marshals itself.
    void handleStatusUpdate(StatusMap updates);

    /// Calls every listener that subscribed to the event. Marshals itself.
    void handleEventUpdate(std::string name, std::string value);

    /// Empties the status values and the registry of listeners. Marshals itself, and waits.
    void clearInfo();

    /// Looks a timer up, making it if need be, and copies it out. Manager's thread only.
    void getTimer(const std::string& name, veskcommon::Stopwatch& out);
    /// The same for a counter; false, with `out` untouched, for an empty name.
    bool getCounter(const std::string& name, Counter& out);

    /// Removes a listener and returns the dispatcher it had. Refused off the manager's thread.
    Orvane::EventDispatcher* unregisterListenerHelper(IStatusUpdateListener* listener);

    /// The manager's thread. Only it touches the state below, which therefore needs no lock.
    Orvane::EventThread mThread;
    StatusMap mStatusValues;                                          ///< The local store.
    std::deque<Counter> mCounters;                                    ///< In the order of their first use.
    std::deque<veskcommon::Stopwatch> mTimers;                        ///< In the order of their first use.
    std::map<IStatusUpdateListener*, ClientListenerInfo*> mListeners; ///< Owns the records.

    static StatusManager* mInstance; ///< The object that getInstance() returns.

private:
    ClientListenerInfo* findListener(IStatusUpdateListener* listener) const;
    void storeAndNotify(const StatusMap& changes);

    std::unique_ptr<SubscriptionIndex> mSubscriptionIndex; ///< Of the long lists among the records'.
};

#endif
