#ifndef TESTS_HELPERS_SUBSCRIPTIONFIXTURE_H
#define TESTS_HELPERS_SUBSCRIPTIONFIXTURE_H

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "statusmanager/StatusManagerStub.h"
#include "statusmanager/helpers/Subscription.h"
#include "tests/helpers/WatchedManager.h"

/// A local manager and a thread for callbacks, both of which a test may destroy.
class SubscriptionFixture : public testing::Test
{
protected:
    std::function<void(const StatusMap&)> record()
    {
        return [this](const StatusMap& values) { told.push_back(values); };
    }

    /// Returns when all that was posted before has been delivered.
    void settle()
    {
        manager.sync(0);
        pass(thread);
    }

    /// Returns when all that is queued on the thread has been delivered.
    void pass(Orvane::EventThread& each)
    {
        using Agent = Orvane::SyncEventAgent0<SubscriptionFixture>;
        (OV_NEW Agent(this, &SubscriptionFixture::nothing))->send(&each);
    }

    void nothing() {}

    std::vector<StatusMap> told; // the thread, and the test when it has settled

    std::unique_ptr<Orvane::EventThread> threadOwner = std::make_unique<Orvane::EventThread>("subscriber", 0);
    std::unique_ptr<WatchedManager> managerOwner = std::make_unique<WatchedManager>();
    Orvane::EventThread& thread = *threadOwner;
    WatchedManager& manager = *managerOwner;
};

#endif
