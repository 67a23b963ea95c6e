#ifndef BENCHMARKS_MICRO_FANOUT_H
#define BENCHMARKS_MICRO_FANOUT_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "common/EventDispatcher.h"
#include "statusmanager/StatusManager.h"

/// A manager and its listeners, all on the manager's thread: no broker, and no thread has to be woken.
class FanOut
{
public:
    /// Each listener subscribes to the first so many of the samples' names.
    FanOut(std::size_t listeners, std::size_t names);
    ~FanOut();

    FanOut(const FanOut&) = delete;
    FanOut& operator=(const FanOut&) = delete;

    /// Makes `work` on the manager's thread and waits for it.
    void onThread(const std::function<void()>& work);

    /// Tells the listeners, as when a notification has come. On the manager's thread only.
    void notify(const StatusMap& update) { mManager.handleStatusUpdate(update); }

    /// Callbacks so far.
    uint64_t callbacks() const;

private:
    class Manager : public StatusManager
    {
    public:
        using StatusManager::clearInfo;
        using StatusManager::handleStatusUpdate;
        using StatusManager::mThread;
    };

    // Delivers at once what other dispatchers would queue for their thread.
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
