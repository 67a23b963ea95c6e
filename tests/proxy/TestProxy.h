#ifndef TESTS_PROXY_TESTPROXY_H
#define TESTS_PROXY_TESTPROXY_H

#include <functional>
#include <memory>
#include <thread>

#include "common/EventAgent.h"
#include "common/TrackedNew.h"
#include "statusmanager/StatusManagerProxy.h"
#include "tests/support/ScriptedBroker.h"
#include "tests/support/Wait.h"

/// The broker client with its inner operations made public for tests.
class TestProxy : public StatusManagerProxy
{
public:
    /// Queued calls must not run while only the base class is left.
    ~TestProxy() override { drain(); }

    using StatusManagerProxy::receiveOnSocket;
    using StatusManagerProxy::sendOnSocket;
    using StatusManagerProxy::sendPost;
    using StatusManagerProxy::sendRequest;
    using StatusManagerProxy::shutdown;

    using StatusManagerProxy::mNotifySocket;
    using StatusManagerProxy::mNotifyThread;
    using StatusManagerProxy::mPostSocket;
    using StatusManagerProxy::mRequestSocket;
    using StatusManagerProxy::mShutdown;
    using StatusManagerProxy::mThread;
    using StatusManagerProxy::mZmqContext;

    /// Runs `call` on the manager's thread and waits for it.
    void onManagerThread(const std::function<void()>& call)
    {
        auto* agent = OV_NEW Orvane::SyncEventAgent1<TestProxy, const std::function<void()>&>(
            this, &TestProxy::run, call);
        agent->send(&mThread);
    }

    /// Queues `call` on the manager's thread.
    void queueOnManagerThread(std::function<void()> call)
    {
        auto* agent = OV_NEW Orvane::AsyncEventAgent1<TestProxy, std::function<void()>>(
            this, &TestProxy::runCopy, std::move(call));
        agent->send(&mThread);
    }

    /// Returns when everything queued on the manager's thread before is done.
    void drain()
    {
        onManagerThread([] {});
    }

private:
    void run(const std::function<void()>& call) { call(); }
    void runCopy(std::function<void()> call) { call(); }
};

/// While it lives, the broker keeps publishing "Sync". The notify loop checks its stop flag once per message,
/// so only messages can end it.
class Pulse
{
public:
    explicit Pulse(ScriptedBroker& broker)
        : mThread(
              [this, &broker]
              {
                  while (!mStop.wait(std::chrono::milliseconds(5)))
                      broker.publish("Sync");
              })
    {
    }

    ~Pulse()
    {
        mStop.open();
        mThread.join();
    }

    Pulse(const Pulse&) = delete;
    Pulse& operator=(const Pulse&) = delete;

private:
    Gate mStop;
    std::thread mThread;
};

/// A connected client. Its broker lets it end when it is destroyed.
class Client
{
public:
    explicit Client(ScriptedBroker& broker) : mBroker(broker), mProxy(std::make_unique<TestProxy>()) {}
    ~Client() { destroy(); }

    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void destroy()
    {
        const Pulse pulse(mBroker);
        mProxy.reset();
    }

    TestProxy* operator->() const { return mProxy.get(); }
    TestProxy& operator*() const { return *mProxy; }

private:
    ScriptedBroker& mBroker;
    std::unique_ptr<TestProxy> mProxy;
};

#endif
