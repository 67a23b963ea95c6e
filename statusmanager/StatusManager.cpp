#include "statusmanager/StatusManager.h"

#include <algorithm>
#include <new>
#include <sys/time.h>
#include <utility>

#include "common/Calls.h"
#include "common/Logging.h"
#include "common/Mutex.h"
#include "statusmanager/StatusManagerProxy.h"
#include "statusmanager/StatusManagerStub.h"
#include "statusmanager/SubscriptionIndex.h"

OV_LOG_CONTROL_WORDS;

using namespace Orvane;

using veskcommon::Stopwatch;

// Log lines print each function's signature as its definition spells it. They have always shown a string
// reference as "const string&".
using string = std::string;

namespace
{

// Adds keys to a listener's list, and removes them again unless keep() is called. So a subscription that runs
// out of memory half way leaves nothing behind.
class Subscription
{
public:
    Subscription(StatusKeys& list, SubscriptionIndex& index)
        : mList(list), mIndex(index), mBefore(list.size())
    {
    }

    ~Subscription()
    {
        while (!mKept && mList.size() > mBefore)
            mIndex.popBack(mList);
    }

    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

    // Returns false if the list already has the key.
    bool add(const std::string& key)
    {
        if (mIndex.in(mList).contains(key))
            return false;
        mList.push_back(key);
        return true;
    }

    // Returns the values of the added keys; keys without a value are left out.
    StatusMap valuesIn(const StatusMap& values) const
    {
        StatusMap found;
        for (std::size_t at = mBefore; at < mList.size(); ++at)
        {
            const auto value = values.find(mList[at]);
            if (value != values.end())
                found.insert(*value);
        }
        return found;
    }

    void keep() { mKept = true; }

private:
    StatusKeys& mList;
    SubscriptionIndex& mIndex;
    const std::size_t mBefore;
    bool mKept = false;
};

// Removes keys from a listener's list. `keys` may be that list itself, which must not be iterated while it
// changes.
void take(SubscriptionIndex& index, StatusKeys& list, const StatusKeys& keys)
{
    if (&keys == &list)
    {
        while (!list.empty())
            index.popBack(list);
        return;
    }
    for (const std::string& key : keys)
        index.erase(list, key);
}

// Stores the values and returns the replaced ones. Needs no memory of its own: the nodes of `values` move.
StatusMap exchangeValues(StatusMap& store, StatusMap values)
{
    StatusMap before;
    while (!values.empty())
    {
        auto inserted = store.insert(values.extract(values.begin()));
        if (inserted.inserted)
            continue;
        inserted.position->second.swap(inserted.node.mapped());
        before.insert(std::move(inserted.node));
    }
    return before;
}

// Restores the values before exchangeValues(), except those replaced again since. Needs no memory.
void giveBackValues(StatusMap& store, const StatusMap& values, StatusMap& before)
{
    for (const auto& [key, value] : values)
    {
        const auto stored = store.find(key);
        if (stored == store.end() || stored->second != value)
            continue;
        const auto old = before.find(key);
        if (old == before.end())
            store.erase(stored);
        else
            stored->second.swap(old->second);
    }
}

// Calls `tell` with the record of each listener that can be called. If memory runs out for one listener, the
// others are still called.
template <class Listeners, class Tell>
void tellEach(const Listeners& listeners, Tell tell)
{
    bool ranOut = false;
    for (const auto& [listener, info] : listeners)
    {
        if (info->dispatcher == nullptr)
            continue;
        try
        {
            tell(*info);
        }
        catch (const std::bad_alloc&)
        {
            ranOut = true;
        }
    }
    if (ranOut)
        throw std::bad_alloc();
}

} // namespace

StatusManager* StatusManager::mInstance = nullptr;

IStatusUpdateListener::~IStatusUpdateListener() = default;

// ----------------------------------------------------------------------------------------------- lifecycle

StatusManager* StatusManager::getInstance(bool useStub)
{
    OV_TRACE(7);
    static Mutex mutex(true);
    const AutoLock lock(mutex);
    if (mInstance == nullptr)
    {
        if (useStub)
            mInstance = OV_NEW StatusManagerStub();
        else
            mInstance = OV_NEW StatusManagerProxy();
    }
    return mInstance;
}

StatusManager::StatusManager()
    : mThread("StatusManager", 0), mSubscriptionIndex(std::make_unique<SubscriptionIndex>())
{
    OV_TRACE(6);
}

StatusManager::~StatusManager()
{
    {
        OV_TRACE(6);
        mThread.removeAgentsByReceiver(this);
    }
    // Stops the thread before any member is destroyed: an agent that is being delivered may use the members
    // until it ends.
    mThread.stop();
    // The records in mListeners are not freed. The process's one instance never frees them either, because it
    // is never destroyed.
}

// ------------------------------------------------------------------------------------------- status values

StatusMap StatusManager::getClientInfo()
{
    if (!mThread.isThreadCurrent())
        return callAndWait(OV_SITE, mThread, this, &StatusManager::getClientInfo);
    OV_TRACE(7);
    return mStatusValues;
}

std::string StatusManager::getClientInfoValue(const string& key)
{
    if (!mThread.isThreadCurrent())
        return callAndWait(OV_SITE, mThread, this, &StatusManager::getClientInfoValue, key);
    OV_TRACE(7);
    const auto stored = mStatusValues.find(key);
    return stored == mStatusValues.end() ? std::string() : stored->second;
}

StatusMap StatusManager::getClientInfoValues(const StatusKeys& keys)
{
    if (!mThread.isThreadCurrent())
        return callAndWait(OV_SITE, mThread, this, &StatusManager::getClientInfoValues, keys);
    OV_TRACE(7);
    StatusMap values;
    for (const std::string& key : keys)
    {
        const auto stored = mStatusValues.find(key);
        if (stored != mStatusValues.end())
            values.insert(*stored);
    }
    return values;
}

void StatusManager::postStatus(std::string key, std::string value)
{
    if (!mThread.isThreadCurrent())
        return postCall(OV_SITE, mThread, this,
                        overload<std::string, std::string>(&StatusManager::postStatus), std::move(key),
                        std::move(value));
    OV_TRACE(7);
    // A virtual call: an implementation that overrides the collection form also handles single keys.
    postStatus(StatusMap{{std::move(key), std::move(value)}});
}

void StatusManager::postStatus(StatusMap updates)
{
    if (!mThread.isThreadCurrent())
        return postCall(OV_SITE, mThread, this, overload<StatusMap>(&StatusManager::postStatus),
                        std::move(updates));
    OV_TRACE(7);
    StatusMap changes;
    for (const auto& [key, value] : updates)
    {
        const auto stored = mStatusValues.find(key);
        if (stored == mStatusValues.end() || stored->second != value)
            changes.emplace_hint(changes.end(), key, value);
    }
    storeAndNotify(changes);
}

void StatusManager::resetStatus(std::string key)
{
    if (!mThread.isThreadCurrent())
        return postCall(OV_SITE, mThread, this, overload<std::string>(&StatusManager::resetStatus),
                        std::move(key));
    OV_TRACE(7);
    // A virtual call, as in postStatus().
    resetStatus(StatusKeys{key});
}

void StatusManager::resetStatus(StatusKeys keys)
{
    if (!mThread.isThreadCurrent())
        return postCall(OV_SITE, mThread, this, overload<StatusKeys>(&StatusManager::resetStatus),
                        std::move(keys));
    OV_TRACE(7);
    StatusMap changes;
    for (const std::string& key : keys)
    {
        const auto stored = mStatusValues.find(key);
        if (stored == mStatusValues.end() || !stored->second.empty())
            changes.emplace(key, std::string());
    }
    storeAndNotify(changes);
}

// Stores before it calls listeners: a callback that runs in place sees the new values, and its own posts
// count as later ones. If memory runs out, the old values are restored. Otherwise a listener could miss a
// value for ever, because a repeated post of it would not be a change.
void StatusManager::storeAndNotify(const StatusMap& changes)
{
    StatusMap before = exchangeValues(mStatusValues, changes);
    try
    {
        handleStatusUpdate(changes);
    }
    catch (const std::bad_alloc&)
    {
        giveBackValues(mStatusValues, changes, before);
        throw;
    }
}

void StatusManager::handleStatusUpdate(StatusMap updates)
{
    if (!mThread.isThreadCurrent())
        return postCall(OV_SITE, mThread, this, &StatusManager::handleStatusUpdate, std::move(updates));
    OV_TRACE(7);
    tellEach(mListeners,
             [&](const ClientListenerInfo& info)
             {
                 const SubscriptionIndex::Lookup keys = mSubscriptionIndex->in(info.statusKeys);
                 StatusMap subscribed;
                 for (const auto& [key, value] : updates)
                 {
                     if (keys.contains(key))
                         subscribed.emplace_hint(subscribed.end(), key, value);
                 }
                 if (!subscribed.empty())
                     postCall(OV_SITE, *info.dispatcher, info.listener,
                              &IStatusUpdateListener::onStatusUpdate, std::move(subscribed));
             });
}

void StatusManager::clearInfo()
{
    if (!mThread.isThreadCurrent())
        return callAndWait(OV_SITE, mThread, this, &StatusManager::clearInfo);
    OV_TRACE(7);
    mStatusValues.clear();
    for (const auto& [listener, info] : mListeners)
        delete info;
    mListeners.clear();
    mSubscriptionIndex->clear();
}

// -------------------------------------------------------------------------------- listeners, subscriptions

ClientListenerInfo* StatusManager::findListener(IStatusUpdateListener* listener) const
{
    const auto found = mListeners.find(listener);
    return found == mListeners.end() ? nullptr : found->second;
}

void StatusManager::registerListener(IStatusUpdateListener* listener, EventDispatcher* dispatcher)
{
    if (!mThread.isThreadCurrent())
        return postCall(OV_SITE, mThread, this, &StatusManager::registerListener, listener, dispatcher);
    OV_TRACE(7);
    OV_LOG(7, "Adding listener %p", static_cast<void*>(listener));
    if (findListener(listener) != nullptr)
    {
        OV_LOG(6, "Listener already registered with StatusManager");
        return;
    }
    std::unique_ptr<ClientListenerInfo> info(new ClientListenerInfo{listener, dispatcher, {}, {}});
    mListeners.emplace(listener, info.get());
    static_cast<void>(info.release()); // now owned by the registry
}

void StatusManager::unregisterListener(IStatusUpdateListener* listener)
{
    OV_TRACE(7);
    if (mThread.isThreadCurrent())
    {
        // Refused although the removal would be possible here. This is intended.
        OV_LOG(1, "StatusManager should never be calling unregisterListener from its own thread");
        return;
    }
    EventDispatcher* dispatcher =
        callAndWait(OV_SITE, mThread, this, &StatusManager::unregisterListenerHelper, listener);
    // The record is gone, so nothing new is sent to the listener. Callbacks sent before are dropped here.
    if (dispatcher != nullptr)
        dispatcher->removeAgentsByReceiver(listener);
}

EventDispatcher* StatusManager::unregisterListenerHelper(IStatusUpdateListener* listener)
{
    if (!mThread.isThreadCurrent())
    {
        OV_LOG(1, "unregisterListenerHelper should only be called from StatusManager's thread");
        return nullptr;
    }
    OV_TRACE(7);
    OV_LOG(7, "Removing listener %p", static_cast<void*>(listener));
    ClientListenerInfo* info = findListener(listener);
    if (info == nullptr)
    {
        OV_LOG(6, "Listener not registered with StatusManager");
        return nullptr;
    }
    EventDispatcher* dispatcher = info->dispatcher;
    mListeners.erase(listener);
    mSubscriptionIndex->forget(info->statusKeys);
    mSubscriptionIndex->forget(info->eventKeys);
    delete info;
    return dispatcher;
}

void StatusManager::registerForStatus(IStatusUpdateListener* listener, std::string key)
{
    registerForStatus(listener, StatusKeys{key});
}

void StatusManager::registerForStatus(IStatusUpdateListener* listener, StatusKeys keys)
{
    if (!mThread.isThreadCurrent())
        return postCall(OV_SITE, mThread, this,
                        overload<IStatusUpdateListener*, StatusKeys>(&StatusManager::registerForStatus),
                        listener, std::move(keys));
    OV_TRACE(7);
    ClientListenerInfo* info = findListener(listener);
    if (info == nullptr)
    {
        OV_LOG(2, "Cannot register for status value, listener not registered with Status Manager");
        return;
    }
    Subscription subscription(info->statusKeys, *mSubscriptionIndex);
    for (const std::string& key : keys)
    {
        if (!subscription.add(key))
            OV_LOG(6, "Listener already registered for status");
    }

    // Queries the values even when no key was added, and sends the callback even when it is empty: every
    // accepted call causes exactly one callback.
    const StatusMap current = getClientInfo();
    if (info->dispatcher != nullptr)
        postCall(OV_SITE, *info->dispatcher, listener, &IStatusUpdateListener::onStatusUpdate,
                 subscription.valuesIn(current));
    subscription.keep();
}

void StatusManager::unregisterForStatus(IStatusUpdateListener* listener, const string& key)
{
    unregisterForStatus(listener, StatusKeys{key});
}

void StatusManager::unregisterForStatus(IStatusUpdateListener* listener, const StatusKeys& keys)
{
    if (!mThread.isThreadCurrent())
        return callAndWait(
            OV_SITE, mThread, this,
            overload<IStatusUpdateListener*, const StatusKeys&>(&StatusManager::unregisterForStatus),
            listener, keys);
    OV_TRACE(7);
    ClientListenerInfo* info = findListener(listener);
    if (info == nullptr)
    {
        OV_LOG(2, "Cannot unregister for status value, listener not registered with Status Manager");
        return;
    }
    take(*mSubscriptionIndex, info->statusKeys, keys);
}

void StatusManager::registerForEvent(IStatusUpdateListener* listener, std::string name)
{
    registerForEvent(listener, EventKeys{name});
}

void StatusManager::registerForEvent(IStatusUpdateListener* listener, EventKeys names)
{
    if (!mThread.isThreadCurrent())
        return postCall(OV_SITE, mThread, this,
                        overload<IStatusUpdateListener*, EventKeys>(&StatusManager::registerForEvent),
                        listener, std::move(names));
    OV_TRACE(7);
    ClientListenerInfo* info = findListener(listener);
    if (info == nullptr)
    {
        OV_LOG(2, "Cannot register for event, listener not registered with Status Manager");
        return;
    }
    Subscription subscription(info->eventKeys, *mSubscriptionIndex);
    for (const std::string& name : names)
    {
        if (!subscription.add(name))
            OV_LOG(6, "Listener already registered for event");
    }
    subscription.keep();
}

void StatusManager::unregisterForEvent(IStatusUpdateListener* listener, const string& name)
{
    OV_TRACE(7); // the only single-key form that traces; intended
    unregisterForEvent(listener, EventKeys{name});
}

void StatusManager::unregisterForEvent(IStatusUpdateListener* listener, const EventKeys& names)
{
    if (!mThread.isThreadCurrent())
        return callAndWait(
            OV_SITE, mThread, this,
            overload<IStatusUpdateListener*, const EventKeys&>(&StatusManager::unregisterForEvent), listener,
            names);
    OV_TRACE(7);
    ClientListenerInfo* info = findListener(listener);
    if (info == nullptr)
    {
        OV_LOG(2, "Cannot unregister for event, listener not registered with Status Manager");
        return;
    }
    take(*mSubscriptionIndex, info->eventKeys, names);
}

// -------------------------------------------------------------------------------------------------- events

void StatusManager::postEvent(std::string name, std::string value, uint32_t)
{
    OV_TRACE(7);
    handleEventUpdate(std::move(name), std::move(value));
}

void StatusManager::handleEventUpdate(std::string name, std::string value)
{
    if (!mThread.isThreadCurrent())
        return postCall(OV_SITE, mThread, this, &StatusManager::handleEventUpdate, std::move(name),
                        std::move(value));
    OV_TRACE(7);
    tellEach(mListeners,
             [&](const ClientListenerInfo& info)
             {
                 if (mSubscriptionIndex->in(info.eventKeys).contains(name))
                     postCall(OV_SITE, *info.dispatcher, info.listener, &IStatusUpdateListener::onEventUpdate,
                              name, value);
             });
}

// ---------------------------------------------------------------------------------------- timers, counters
//
// Every operation works on a copy from getTimer() or getCounter() and discards it, so the stores only
// remember the used names. This is required: a stored timer never runs, and a stored counter stays 0.

void StatusManager::getTimer(const string& name, Stopwatch& out)
{
    OV_TRACE(7);
    if (name.empty())
    {
        OV_LOG(2, "Timer name is empty");
        out = Stopwatch("");
        return;
    }
    const auto stored = std::find_if(mTimers.begin(), mTimers.end(),
                                     [&](Stopwatch& timer) { return timer.getName() == name; });
    if (stored != mTimers.end())
    {
        out = *stored;
        return;
    }
    mTimers.emplace_back(name);
    out = mTimers.back();
}

bool StatusManager::getCounter(const string& name, Counter& out)
{
    OV_TRACE(7);
    if (name.empty())
    {
        OV_LOG(2, "Counter name is empty");
        return false;
    }
    const auto stored = std::find_if(mCounters.begin(), mCounters.end(),
                                     [&](const Counter& counter) { return counter.first == name; });
    if (stored != mCounters.end())
    {
        out = *stored;
        return true;
    }
    mCounters.emplace_back(name, 0);
    out = mCounters.back();
    return true;
}

void StatusManager::startTimer(std::string name)
{
    if (!mThread.isThreadCurrent())
        return postCall(OV_SITE, mThread, this, &StatusManager::startTimer, std::move(name));
    OV_TRACE(7);
    Stopwatch timer("");
    getTimer(name, timer);
    timer.start();
}

void StatusManager::stopTimer(std::string name)
{
    if (!mThread.isThreadCurrent())
        return postCall(OV_SITE, mThread, this, &StatusManager::stopTimer, std::move(name));
    OV_TRACE(7);
    Stopwatch timer("");
    getTimer(name, timer);
    timer.stop();
}

void StatusManager::resetTimer(std::string name)
{
    if (!mThread.isThreadCurrent())
        return postCall(OV_SITE, mThread, this, &StatusManager::resetTimer, std::move(name));
    OV_TRACE(7);
    Stopwatch timer("");
    getTimer(name, timer);
    timer.reset();
}

void StatusManager::restartTimer(std::string name)
{
    if (!mThread.isThreadCurrent())
        return postCall(OV_SITE, mThread, this, &StatusManager::restartTimer, std::move(name));
    OV_TRACE(7);
    Stopwatch timer("");
    getTimer(name, timer);
    timer.restart();
}

uint64_t StatusManager::getTimerElapsed(const string& name)
{
    if (!mThread.isThreadCurrent())
        return callAndWait(OV_SITE, mThread, this, &StatusManager::getTimerElapsed, name);
    OV_TRACE(7);
    Stopwatch timer("");
    getTimer(name, timer);
    return timer.getElapsedTime();
}

uint64_t StatusManager::getTimerElapsedSeconds(const string& name)
{
    if (!mThread.isThreadCurrent())
        return callAndWait(OV_SITE, mThread, this, &StatusManager::getTimerElapsedSeconds, name);
    OV_TRACE(7);
    constexpr uint64_t microsecondsPerSecond = 1000000;
    return getTimerElapsed(name) / microsecondsPerSecond; // virtual: the broker client asks the broker
}

uint64_t StatusManager::getTimerLastStarted(const string& name)
{
    if (!mThread.isThreadCurrent())
        return callAndWait(OV_SITE, mThread, this, &StatusManager::getTimerLastStarted, name);
    OV_TRACE(7);
    Stopwatch timer("");
    getTimer(name, timer);
    return timer.getLastStartTime();
}

uint32_t StatusManager::getCounterValue(const string& name)
{
    if (!mThread.isThreadCurrent())
        return callAndWait(OV_SITE, mThread, this, &StatusManager::getCounterValue, name);
    OV_TRACE(7);
    Counter counter;
    return getCounter(name, counter) ? counter.second : 0;
}

uint32_t StatusManager::incrementCounter(const string& name)
{
    if (!mThread.isThreadCurrent())
        return callAndWait(OV_SITE, mThread, this, &StatusManager::incrementCounter, name);
    OV_TRACE(7);
    Counter counter;
    return getCounter(name, counter) ? counter.second++ : 0;
}

void StatusManager::setCounterValue(std::string name, uint32_t value)
{
    if (!mThread.isThreadCurrent())
        return postCall(OV_SITE, mThread, this, &StatusManager::setCounterValue, std::move(name), value);
    OV_TRACE(7);
    Counter counter;
    if (getCounter(name, counter))
        counter.second = value;
}

// ------------------------------------------------------------------------------------------ clock, barrier

void StatusManager::updateSystemTime(uint32_t seconds)
{
    if (!mThread.isThreadCurrent())
        return callAndWait(OV_SITE, mThread, this, &StatusManager::updateSystemTime, seconds);
    OV_TRACE(7);
    timeval time{};
    time.tv_sec = static_cast<decltype(time.tv_sec)>(seconds);
    static_cast<void>(settimeofday(&time, nullptr)); // fails silently without the privilege
}

bool StatusManager::sync(int timeoutMs)
{
    if (!mThread.isThreadCurrent())
        return callAndWait(OV_SITE, mThread, this, &StatusManager::sync, timeoutMs);
    OV_TRACE(7);
    return true; // all work queued before is done
}
