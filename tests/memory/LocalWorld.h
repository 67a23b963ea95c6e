#ifndef TESTS_MEMORY_LOCALWORLD_H
#define TESTS_MEMORY_LOCALWORLD_H

#include <ctime>
#include <deque>
#include <gtest/gtest.h>
#include <optional>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "tests/memory/FailingMemory.h"
#include "tests/memory/LongNames.h"
#include "tests/statusmanager/TestManager.h"
#include "tests/support/FakeClock.h"
#include "tests/support/RecordingListener.h"

/// A local manager with its listeners, for tests in which memory runs out.

inline StatusMap values(unsigned first, unsigned end, const std::string& value)
{
    StatusMap all;
    for (const std::string& key : names("key", first, end))
        all[key] = name(value, 0);
    return all;
}

class Manager : public TestManager
{
public:
    using StatusManager::mListeners;
};

/// A listener's record. Its address differs between worlds.
using Record = std::tuple<const void*, StatusKeys, EventKeys>;

/// Everything that a manager stores.
struct State
{
    StatusMap values;
    std::deque<Counter> counters;
    std::vector<std::string> timers;
    std::vector<Record> listeners;
    time_t clock = 0; // the last setting

    friend bool operator==(const State& a, const State& b)
    {
        return a.values == b.values && a.counters == b.counters && a.timers == b.timers &&
               a.listeners == b.listeners && a.clock == b.clock;
    }

    friend std::ostream& operator<<(std::ostream& stream, const State& state)
    {
        return stream << testing::PrintToString(state.values) << testing::PrintToString(state.counters)
                      << testing::PrintToString(state.timers) << testing::PrintToString(state.listeners)
                      << state.clock;
    }
};

/// A manager with all kinds of content. Two listeners have subscribed to `keys` keys and events, a third to
/// none, a fourth is not registered.
class World
{
public:
    explicit World(unsigned keyCount, const char* listenersThread = "listeners")
        : keys(keyCount), thread(listenersThread, 0)
    {
        FakeClock::reset();
        for (RecordingListener* each : {&first, &second, &third})
            manager.registerListener(each, &thread);
        manager.postStatus(values(0, keys, "old"));
        for (RecordingListener* each : {&first, &second})
        {
            manager.registerForStatus(each, names("key", 0, keys));
            manager.registerForEvent(each, names("event", 0, keys));
        }
        manager.startTimer(name("timer", 0));
        manager.setCounterValue(name("counter", 0), 1);
        settle();
    }

    ~World()
    {
        const FailingMemory::Spared spared;
        manager.clearInfo(); // frees the listeners' records
        thread.stop();
    }

    /// Keeps the listeners' thread busy until settle().
    void occupyListeners()
    {
        mGate.emplace();
        Gate occupied;
        using Agent = Orvane::AsyncEventAgent1<World, Gate*>;
        (OV_NEW Agent(this, &World::waitAtGate, &occupied))->send(&thread);
        occupied.wait();
    }

    /// Returns when the manager is idle and all listeners have been called.
    void settle()
    {
        const FailingMemory::Spared spared;
        if (mGate)
            mGate->open();
        manager.onThread([] {});
        (OV_NEW Orvane::SyncEventAgent0<World>(this, &World::nothing))->send(&thread);
    }

    State state()
    {
        State now;
        manager.onThread(
            [&]
            {
                now.values = manager.mStatusValues;
                now.counters = manager.mCounters;
                for (veskcommon::Stopwatch timer : manager.mTimers)
                    now.timers.push_back(timer.getName());
                for (const auto& [listener, info] : manager.mListeners)
                    now.listeners.emplace_back(inThis(listener), info->statusKeys, info->eventKeys);
                if (const auto setting = FakeClock::lastSetting())
                    now.clock = setting->time.tv_sec;
            });
        return now;
    }

    /// The value that a listener last received for the key.
    static std::string knownTo(const RecordingListener& listener, const std::string& key)
    {
        std::string value;
        for (const StatusMap& update : listener.updates())
        {
            const auto found = update.find(key);
            value = found == update.end() ? value : found->second;
        }
        return value;
    }

    /// Expects that all listeners have received the stored values of their subscriptions.
    void expectAllTold()
    {
        const State now = state();
        for (RecordingListener* listener : {&first, &second, &third, &fourth})
            for (const auto& [address, statusKeys, eventKeys] : now.listeners)
                for (const std::string& key : address == inThis(listener) ? statusKeys : StatusKeys())
                    EXPECT_EQ(knownTo(*listener, key), now.values.count(key) == 0 ? "" : now.values.at(key));
    }

    const unsigned keys;
    RecordingListener first; // declared in the order of their addresses
    RecordingListener second;
    RecordingListener third;
    RecordingListener fourth;
    Orvane::EventThread thread;
    Manager manager;

private:
    void nothing() {}

    void waitAtGate(Gate* occupied)
    {
        occupied->open();
        mGate->wait();
    }

    std::optional<Gate> mGate;

    const void* inThis(const IStatusUpdateListener* listener) const
    {
        return reinterpret_cast<const void*>(reinterpret_cast<const char*>(listener) -
                                             reinterpret_cast<const char*>(this));
    }
};

#endif
