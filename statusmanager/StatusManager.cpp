#include "statusmanager/StatusManager.h"

#include <algorithm>
#include <sys/time.h>
#include <utility>

#include "common/EventAgent.h"
#include "common/Logging.h"
#include "common/Mutex.h"
#include "statusmanager/StatusManagerProxy.h"
#include "statusmanager/StatusManagerStub.h"
#include "statusmanager/Subscriptions.h"

OV_LOG_CONTROL_WORDS;

using namespace Orvane;

using veskcommon::Stopwatch;

// Log lines print each function's signature as its definition spells it, and these have always shown a
// reference to a string as "const string&".
using string = std::string;

/// A registered listener and what it subscribed to.
struct ClientListenerInfo
{
    IStatusUpdateListener* listener;
    EventDispatcher* dispatcher; // null: registered, but never called
    Subscriptions statusKeys;
    Subscriptions eventKeys;
};

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

StatusManager::StatusManager() : mThread("StatusManager", 0)
{
    OV_TRACE(6);
}

StatusManager::~StatusManager()
{
    {
        OV_TRACE(6);
        mThread.removeAgentsByReceiver(this);
    }
    // Before the fields go, and not only with mThread as the last of them: an agent that is being delivered
    // now may use them to its end.
    mThread.stop();
    // The records in mListeners are left unfreed, as the one instance of a process, which is never destroyed,
    // leaves them too.
}

// ------------------------------------------------------------------------------------------- status values

StatusMap StatusManager::getClientInfo()
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent =
            OV_NEW SyncRetEventAgent0<StatusManager, StatusMap>(this, &StatusManager::getClientInfo);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    return mStatusValues;
}

std::string StatusManager::getClientInfoValue(const string& key)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW SyncRetEventAgent1<StatusManager, std::string, const std::string&>(
            this, &StatusManager::getClientInfoValue, key);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    const auto stored = mStatusValues.find(key);
    return stored == mStatusValues.end() ? std::string() : stored->second;
}

StatusMap StatusManager::getClientInfoValues(const StatusKeys& keys)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW SyncRetEventAgent1<StatusManager, StatusMap, const StatusKeys&>(
            this, &StatusManager::getClientInfoValues, keys);
        return agent->send(&mThread);
    }
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
    {
        auto* agent = OV_NEW AsyncEventAgent2<StatusManager, std::string, std::string>(
            this, &StatusManager::postStatus, std::move(key), std::move(value));
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    // Through the virtual table: an implementation that replaces the collection form gets single keys too.
    postStatus(StatusMap{{std::move(key), std::move(value)}});
}

void StatusManager::postStatus(StatusMap updates)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW AsyncEventAgent1<StatusManager, StatusMap>(this, &StatusManager::postStatus,
                                                                        std::move(updates));
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    StatusMap changes;
    for (const auto& [key, value] : updates)
    {
        const auto stored = mStatusValues.find(key);
        if (stored != mStatusValues.end() && stored->second == value)
            continue;
        mStatusValues[key] = value;
        changes[key] = value;
    }
    handleStatusUpdate(std::move(changes));
}

void StatusManager::resetStatus(std::string key)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW AsyncEventAgent1<StatusManager, std::string>(this, &StatusManager::resetStatus,
                                                                          std::move(key));
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    // Through the virtual table, as with postStatus().
    resetStatus(StatusKeys{key});
}

void StatusManager::resetStatus(StatusKeys keys)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW AsyncEventAgent1<StatusManager, StatusKeys>(this, &StatusManager::resetStatus,
                                                                         std::move(keys));
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    StatusMap changes;
    for (const std::string& key : keys)
    {
        const auto stored = mStatusValues.find(key);
        if (stored != mStatusValues.end() && stored->second.empty())
            continue;
        mStatusValues[key].clear();
        changes[key].clear();
    }
    handleStatusUpdate(std::move(changes));
}

void StatusManager::handleStatusUpdate(StatusMap updates)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW AsyncEventAgent1<StatusManager, StatusMap>(
            this, &StatusManager::handleStatusUpdate, std::move(updates));
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    for (const auto& [listener, info] : mListeners)
    {
        if (info->dispatcher == nullptr)
            continue;
        StatusMap subscribed;
        for (const auto& [key, value] : updates)
        {
            if (info->statusKeys.contain(key))
                subscribed.emplace_hint(subscribed.end(), key, value);
        }
        if (subscribed.empty())
            continue;
        auto* agent = OV_NEW AsyncEventAgent1<IStatusUpdateListener, StatusMap>(
            listener, &IStatusUpdateListener::onStatusUpdate, std::move(subscribed));
        agent->send(info->dispatcher);
    }
}

void StatusManager::clearInfo()
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW SyncEventAgent0<StatusManager>(this, &StatusManager::clearInfo);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    mStatusValues.clear();
    for (const auto& [listener, info] : mListeners)
        delete info;
    mListeners.clear();
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
    {
        auto* agent = OV_NEW AsyncEventAgent2<StatusManager, IStatusUpdateListener*, EventDispatcher*>(
            this, &StatusManager::registerListener, listener, dispatcher);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    OV_LOG(7, "Adding listener %p", static_cast<void*>(listener));
    if (findListener(listener) != nullptr)
    {
        OV_LOG(6, "Listener already registered with StatusManager");
        return;
    }
    mListeners[listener] = new ClientListenerInfo{listener, dispatcher, {}, {}};
}

void StatusManager::unregisterListener(IStatusUpdateListener* listener)
{
    OV_TRACE(7);
    if (mThread.isThreadCurrent())
    {
        // Refused although the removal could be made right here. Intended.
        OV_LOG(1, "StatusManager should never be calling unregisterListener from its own thread");
        return;
    }
    using Agent = SyncRetEventAgent1<StatusManager, EventDispatcher*, IStatusUpdateListener*>;
    const SmartPtr<Agent> agent(OV_NEW Agent(this, &StatusManager::unregisterListenerHelper, listener));
    EventDispatcher* dispatcher = agent->send(&mThread);
    // The record is gone, so nothing new is sent to the listener; what was sent before is dropped here.
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
    {
        auto* agent = OV_NEW AsyncEventAgent2<StatusManager, IStatusUpdateListener*, StatusKeys>(
            this, &StatusManager::registerForStatus, listener, std::move(keys));
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    ClientListenerInfo* info = findListener(listener);
    if (info == nullptr)
    {
        OV_LOG(2, "Cannot register for status value, listener not registered with Status Manager");
        return;
    }
    StatusKeys added;
    for (const std::string& key : keys)
    {
        if (info->statusKeys.add(key))
            added.push_back(key);
        else
            OV_LOG(6, "Listener already registered for status");
    }

    // Asked even when nothing was added, and the callback is sent even when it is empty: every accepted call
    // is answered by exactly one.
    const StatusMap current = getClientInfo();
    StatusMap initial;
    for (const std::string& key : added)
    {
        const auto value = current.find(key);
        if (value != current.end())
            initial.insert(*value);
    }
    if (info->dispatcher == nullptr)
        return;
    auto* agent = OV_NEW AsyncEventAgent1<IStatusUpdateListener, StatusMap>(
        listener, &IStatusUpdateListener::onStatusUpdate, std::move(initial));
    agent->send(info->dispatcher);
}

void StatusManager::unregisterForStatus(IStatusUpdateListener* listener, const string& key)
{
    unregisterForStatus(listener, StatusKeys{key});
}

void StatusManager::unregisterForStatus(IStatusUpdateListener* listener, const StatusKeys& keys)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW SyncEventAgent2<StatusManager, IStatusUpdateListener*, const StatusKeys&>(
            this, &StatusManager::unregisterForStatus, listener, keys);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    ClientListenerInfo* info = findListener(listener);
    if (info == nullptr)
    {
        OV_LOG(2, "Cannot unregister for status value, listener not registered with Status Manager");
        return;
    }
    for (const std::string& key : keys)
        info->statusKeys.remove(key);
}

void StatusManager::registerForEvent(IStatusUpdateListener* listener, std::string name)
{
    registerForEvent(listener, EventKeys{name});
}

void StatusManager::registerForEvent(IStatusUpdateListener* listener, EventKeys names)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW AsyncEventAgent2<StatusManager, IStatusUpdateListener*, StatusKeys>(
            this, &StatusManager::registerForEvent, listener, std::move(names));
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    ClientListenerInfo* info = findListener(listener);
    if (info == nullptr)
    {
        OV_LOG(2, "Cannot register for event, listener not registered with Status Manager");
        return;
    }
    for (const std::string& name : names)
    {
        if (!info->eventKeys.add(name))
            OV_LOG(6, "Listener already registered for event");
    }
}

void StatusManager::unregisterForEvent(IStatusUpdateListener* listener, const string& name)
{
    OV_TRACE(7); // the only single-key form that traces; kept so
    unregisterForEvent(listener, EventKeys{name});
}

void StatusManager::unregisterForEvent(IStatusUpdateListener* listener, const EventKeys& names)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW SyncEventAgent2<StatusManager, IStatusUpdateListener*, const StatusKeys&>(
            this, &StatusManager::unregisterForEvent, listener, names);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    ClientListenerInfo* info = findListener(listener);
    if (info == nullptr)
    {
        OV_LOG(2, "Cannot unregister for event, listener not registered with Status Manager");
        return;
    }
    for (const std::string& name : names)
        info->eventKeys.remove(name);
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
    {
        auto* agent = OV_NEW AsyncEventAgent2<StatusManager, std::string, std::string>(
            this, &StatusManager::handleEventUpdate, std::move(name), std::move(value));
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    for (const auto& [listener, info] : mListeners)
    {
        if (info->dispatcher == nullptr || !info->eventKeys.contain(name))
            continue;
        auto* agent = OV_NEW AsyncEventAgent2<IStatusUpdateListener, std::string, std::string>(
            listener, &IStatusUpdateListener::onEventUpdate, name, value);
        agent->send(info->dispatcher);
    }
}

// ---------------------------------------------------------------------------------------- timers, counters
//
// Every operation works on a copy that getTimer() or getCounter() made and drops it: the stores only remember
// which names were used. Required as it stands; a stored timer never runs, a stored counter stays 0.

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
    {
        auto* agent = OV_NEW AsyncEventAgent1<StatusManager, std::string>(this, &StatusManager::startTimer,
                                                                          std::move(name));
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    Stopwatch timer("");
    getTimer(name, timer);
    timer.start();
}

void StatusManager::stopTimer(std::string name)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW AsyncEventAgent1<StatusManager, std::string>(this, &StatusManager::stopTimer,
                                                                          std::move(name));
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    Stopwatch timer("");
    getTimer(name, timer);
    timer.stop();
}

void StatusManager::resetTimer(std::string name)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW AsyncEventAgent1<StatusManager, std::string>(this, &StatusManager::resetTimer,
                                                                          std::move(name));
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    Stopwatch timer("");
    getTimer(name, timer);
    timer.reset();
}

void StatusManager::restartTimer(std::string name)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW AsyncEventAgent1<StatusManager, std::string>(this, &StatusManager::restartTimer,
                                                                          std::move(name));
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    Stopwatch timer("");
    getTimer(name, timer);
    timer.restart();
}

uint64_t StatusManager::getTimerElapsed(const string& name)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW SyncRetEventAgent1<StatusManager, uint64_t, const std::string&>(
            this, &StatusManager::getTimerElapsed, name);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    Stopwatch timer("");
    getTimer(name, timer);
    return timer.getElapsedTime();
}

uint64_t StatusManager::getTimerElapsedSeconds(const string& name)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW SyncRetEventAgent1<StatusManager, uint64_t, const std::string&>(
            this, &StatusManager::getTimerElapsedSeconds, name);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    constexpr uint64_t microsecondsPerSecond = 1000000;
    return getTimerElapsed(name) / microsecondsPerSecond; // virtual: with a broker, the broker's answer
}

uint64_t StatusManager::getTimerLastStarted(const string& name)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW SyncRetEventAgent1<StatusManager, uint64_t, const std::string&>(
            this, &StatusManager::getTimerLastStarted, name);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    Stopwatch timer("");
    getTimer(name, timer);
    return timer.getLastStartTime();
}

uint32_t StatusManager::getCounterValue(const string& name)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW SyncRetEventAgent1<StatusManager, unsigned int, const std::string&>(
            this, &StatusManager::getCounterValue, name);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    Counter counter;
    return getCounter(name, counter) ? counter.second : 0;
}

uint32_t StatusManager::incrementCounter(const string& name)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW SyncRetEventAgent1<StatusManager, unsigned int, const std::string&>(
            this, &StatusManager::incrementCounter, name);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    Counter counter;
    return getCounter(name, counter) ? counter.second++ : 0;
}

void StatusManager::setCounterValue(std::string name, uint32_t value)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW AsyncEventAgent2<StatusManager, std::string, unsigned int>(
            this, &StatusManager::setCounterValue, std::move(name), value);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    Counter counter;
    if (getCounter(name, counter))
        counter.second = value;
}

// ------------------------------------------------------------------------------------------ clock, barrier

void StatusManager::updateSystemTime(uint32_t seconds)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent = OV_NEW SyncEventAgent1<StatusManager, unsigned int>(
            this, &StatusManager::updateSystemTime, seconds);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    timeval time{};
    time.tv_sec = static_cast<decltype(time.tv_sec)>(seconds);
    static_cast<void>(settimeofday(&time, nullptr)); // a process without the privilege stays silent
}

bool StatusManager::sync(int timeoutMs)
{
    if (!mThread.isThreadCurrent())
    {
        auto* agent =
            OV_NEW SyncRetEventAgent1<StatusManager, bool, int>(this, &StatusManager::sync, timeoutMs);
        return agent->send(&mThread);
    }
    OV_TRACE(7);
    return true; // all that was queued before has been done
}
