#ifndef TESTS_STATUSMANAGER_TESTMANAGER_H
#define TESTS_STATUSMANAGER_TESTMANAGER_H

#include <functional>

#include "common/EventAgent.h"
#include "statusmanager/StatusManager.h"
#include "tests/support/Wait.h"

/// A local manager whose thread and state are accessible to tests.
class TestManager : public StatusManager
{
public:
    using StatusManager::clearInfo;
    using StatusManager::getCounter;
    using StatusManager::getTimer;
    using StatusManager::handleEventUpdate;
    using StatusManager::handleStatusUpdate;
    using StatusManager::mCounters;
    using StatusManager::mStatusValues;
    using StatusManager::mThread;
    using StatusManager::mTimers;
    using StatusManager::unregisterListenerHelper;

    /// Runs `work` on the manager's thread and waits for it.
    void onThread(const std::function<void()>& work)
    {
        using Agent = Orvane::SyncEventAgent1<TestManager, const std::function<void()>&>;
        (OV_NEW Agent(this, &TestManager::run, work))->send(&mThread);
    }

    /// Blocks the manager's thread until the gate opens. Returns when it is blocked.
    void block(Gate& gate)
    {
        Gate occupied;
        using Agent = Orvane::AsyncEventAgent2<TestManager, Gate*, Gate*>;
        (OV_NEW Agent(this, &TestManager::waitAt, &occupied, &gate))->send(&mThread);
        occupied.wait();
    }

private:
    void run(const std::function<void()>& work) { work(); }

    void waitAt(Gate* occupied, Gate* gate)
    {
        occupied->open();
        gate->wait();
    }
};

#endif
