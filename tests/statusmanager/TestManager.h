#ifndef TESTS_STATUSMANAGER_TESTMANAGER_H
#define TESTS_STATUSMANAGER_TESTMANAGER_H

#include <functional>

#include "common/EventAgent.h"
#include "statusmanager/StatusManager.h"
#include "tests/support/Wait.h"

/// A local manager whose thread and state a test can get at.
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

    /// Runs a piece of the test on the manager's thread and waits for it.
    void onThread(const std::function<void()>& work)
    {
        using Agent = Orvane::SyncEventAgent1<TestManager, const std::function<void()>&>;
        (OV_NEW Agent(this, &TestManager::run, work))->send(&mThread);
    }

    /// Occupies the manager's thread until the gate opens; returns when it is occupied.
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
