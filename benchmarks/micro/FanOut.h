#ifndef BENCHMARKS_MICRO_FANOUT_H
#define BENCHMARKS_MICRO_FANOUT_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "common/EventDispatcher.h"
#include "statusmanager/StatusManager.h"

/// A manager and its listeners, all on the manager's thread. There is no broker, and no thread must be woken.
class FanOut
{
public:
    /// Each listener subscribes to the first `names` sample names.
    FanOut(std::size_t listeners, std::size_t names);
    ~FanOut();

    FanOut(const FanOut&) = delete;
    FanOut& operator=(const FanOut&) = delete;

    /// Runs `work` on the manager's thread and waits for it.
    void onThread(const std::function<void()>& work);

    /// Calls the listeners, as after a notification. On the manager's thread only.
    void notify(const StatusMap& update) { mManager.handleStatusUpdate(update); }

    /// The number of callbacks so far.
    uint64_t callbacks() const;

private:
    class Manager : public StatusManager
    {
    public:
        using StatusManager::clearInfo;
        using StatusManager::handleStatusUpdate;
        using StatusManager::mThread;
    };

    // Delivers agents at once; other dispatchers would queue them.
    class CallingDispatcher : public Orvane::EventDispatcher
    {
    public:
        CallingDispatcher() : EventDispatcher("calling") {}
        void post(Orvane::EventAgent* agent) override;
    };

    struct Listener : IStatusUpdateListener
    {
        void onStatusUpdate(StatusMap) override { ++callbacks; }
        void onEventUpdate(std::string, std::string) override { ++callbacks; }

        uint64_t callbacks = 0;
    };

    void run(const std::function<void()>& work) { work(); }

    CallingDispatcher mDispatcher;
    std::vector<Listener> mListeners;
    Manager mManager;
};

#endif
