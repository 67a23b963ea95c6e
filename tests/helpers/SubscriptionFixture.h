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

/// A local manager and a thread for callbacks. A test may destroy both.
class SubscriptionFixture : public testing::Test
{
protected:
    std::function<void(const StatusMap&)> record()
    {
        return [this](const StatusMap& values) { told.push_back(values); };
    }

    /// Returns when everything posted before is delivered.
    void settle()
    {
        manager.sync(0);
        pass(thread);
    }

    /// Returns when everything queued on the thread is delivered.
    void pass(Orvane::EventThread& each)
    {
        using Agent = Orvane::SyncEventAgent0<SubscriptionFixture>;
        (OV_NEW Agent(this, &SubscriptionFixture::nothing))->send(&each);
    }

    void nothing() {}

    std::vector<StatusMap> told; // written by the thread; read by the test after settle()

    std::unique_ptr<Orvane::EventThread> threadOwner = std::make_unique<Orvane::EventThread>("subscriber", 0);
    std::unique_ptr<WatchedManager> managerOwner = std::make_unique<WatchedManager>();
    Orvane::EventThread& thread = *threadOwner;
    WatchedManager& manager = *managerOwner;
};

#endif
