#ifndef TESTS_SUPPORT_PROXYCLIENT_H
#define TESTS_SUPPORT_PROXYCLIENT_H

#include <memory>
#include <thread>

#include "statusmanager/StatusManagerProxy.h"
#include "tests/support/RawClient.h"
#include "tests/support/Wait.h"

/// A broker client of the test's own. To be destroyed, it needs a notification that ends its notify loop. So
/// it keeps the broker publishing until then.
class ProxyClient
{
public:
    ProxyClient() : mProxy(std::make_unique<StatusManagerProxy>()) {}

    ~ProxyClient()
    {
        Gate gone;
        std::thread pulse(
            [&gone]
            {
                RawPoster poster;
                while (!gone.wait(std::chrono::milliseconds(5)))
                    poster.post("Sync");
            });
        mProxy.reset();
        gone.open();
        pulse.join();
    }

    StatusManagerProxy& operator*() { return *mProxy; }
    StatusManagerProxy* operator->() { return mProxy.get(); }

private:
    std::unique_ptr<StatusManagerProxy> mProxy;
};

#endif
