#ifndef TESTS_STATUSMANAGER_LISTENERFIXTURE_H
#define TESTS_STATUSMANAGER_LISTENERFIXTURE_H

#include <gtest/gtest.h>

#include "tests/statusmanager/TestManager.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RecordingListener.h"

/// A manager with two listeners, each on its own thread. Messages up to level 7 are captured, trace scopes
/// are not.
class ListenerFixture : public testing::Test
{
protected:
    void TearDown() override
    {
        manager.clearInfo();
        thread.stop();
        otherThread.stop();
    }

    void registerBoth()
    {
        manager.registerListener(&listener, &thread);
        manager.registerListener(&other, &otherThread);
    }

    /// Returns when everything posted and queued before is delivered.
    void settle()
    {
        manager.sync(0);
        for (Orvane::EventThread* each : {&thread, &otherThread})
        {
            using Agent = Orvane::SyncEventAgent0<ListenerFixture>;
            (OV_NEW Agent(this, &ListenerFixture::nothing))->send(each);
        }
    }

    void nothing() {}

    LogCapture log{"*=7:80000000"};
    Orvane::EventThread thread{"listener", 0};
    Orvane::EventThread otherThread{"other", 0};
    RecordingListener listener;
    RecordingListener other;
    TestManager manager;
};

#endif
