#include <atomic>
#include <filesystem>
#include <future>
#include <gtest/gtest.h>

#include "common/Calls.h"
#include "tests/proxy/Frames.h"
#include "tests/proxy/TestProxy.h"
#include "tests/proxy/ZmqInterposer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RecordingListener.h"

namespace
{

using Texts = std::vector<std::string>;

// The notify loop closes its socket, and the teardown closes the same socket again.
const Texts teardown{"zmq_close SUB", "zmq_close PUB", "zmq_close SUB", "zmq_close REQ", "zmq_ctx_destroy"};

std::ptrdiff_t entries(const char* folder)
{
    return std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator());
}

unsigned liveObjects()
{
    unsigned live = 0;
    for (const auto* site = Orvane::AllocationSite::first(); site != nullptr; site = site->next())
        live += site->live();
    return live;
}

// A call that lasts until it is released.
struct Passage
{
    void pass()
    {
        begun.open();
        end.wait();
    }

    Gate begun;
    Gate end;
};

class Shutdown : public ::testing::Test
{
protected:
    Shutdown()
    {
        EXPECT_TRUE(broker.waitForSubscriber());
        EXPECT_TRUE(log.waitFor(6, "Polling for messages on notify socket"));
        log.clear();
        ZmqInterposer::reset();
    }

    ~Shutdown() override { ZmqInterposer::reset(); }

    void shutdown()
    {
        const Pulse pulse(broker);
        client->shutdown();
    }

    // When this returns, shutdown() has set the notify thread's flag and waits for that thread.
    std::future<void> beginToShutDown()
    {
        auto done = std::async(std::launch::async, [this] { client->shutdown(); });
        EXPECT_TRUE(eventually([this] { return (*client).mNotifyThread.getPendingCount() == 1; }));
        EXPECT_EQ(done.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
        return done;
    }

    LogCapture log{"*=6:80000000"};
    ScriptedBroker broker;
    Client client{broker};
};

TEST_F(Shutdown, waitsUntilTheBrokerPublishes)
{
    std::future<void> done = beginToShutDown();
    EXPECT_EQ(ZmqInterposer::names(), Texts{});
    broker.publish("Sync");
    EXPECT_EQ(done.wait_for(testDeadline), std::future_status::ready);
}

TEST_F(Shutdown, oneNotificationOfAnyKindEndsTheLoop)
{
    std::future<void> done = beginToShutDown();
    broker.publish("no JSON");
    EXPECT_EQ(done.wait_for(testDeadline), std::future_status::ready);
    EXPECT_TRUE(log.has(0, "Failed to parse buf [no JSON]"));
    EXPECT_FALSE(log.has(6, "Polling for messages on notify socket"));
}

TEST_F(Shutdown, failedReceiveEndsTheLoopToo)
{
    std::future<void> done = beginToShutDown();
    broker.publish("");
    EXPECT_EQ(done.wait_for(testDeadline), std::future_status::ready);
    EXPECT_TRUE(log.has(2, "Failed to receive valid message from StatusBroker!"));
}

TEST_F(Shutdown, destructorWaitsUntilTheBrokerPublishes)
{
    auto proxy = std::make_unique<TestProxy>();
    ASSERT_TRUE(log.waitFor(6, "Polling for messages on notify socket"));
    auto done = std::async(std::launch::async, [&] { proxy.reset(); });
    EXPECT_EQ(done.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    const Pulse pulse(broker);
    EXPECT_EQ(done.wait_for(testDeadline), std::future_status::ready);
}

TEST_F(Shutdown, closesEverythingInItsOrder)
{
    shutdown();
    EXPECT_EQ(ZmqInterposer::names(), teardown);
}

TEST_F(Shutdown, happensOnTheNotifyThread)
{
    shutdown();
    std::thread::id manager;
    client->onManagerThread([&] { manager = std::this_thread::get_id(); });
    const std::vector<ZmqInterposer::Call> calls = ZmqInterposer::calls();
    for (const ZmqInterposer::Call& call : calls)
    {
        EXPECT_EQ(call.thread, calls.front().thread) << call.name;
        EXPECT_NE(call.thread, manager) << call.name;
    }
}

TEST_F(Shutdown, repeatedCloseOfTheNotifySocketIsRefusedAndAllElseSucceeds)
{
    shutdown();
    std::vector<int> results;
    for (const ZmqInterposer::Call& call : ZmqInterposer::calls())
        results.push_back(call.result);
    EXPECT_EQ(results, (std::vector<int>{0, 0, -1, 0, 0}));
}

// The notify thread has two calls queued: one that takes time, and the one that closes the sockets.
TEST_F(Shutdown, closesNothingBeforeItCanCloseEverything)
{
    Passage passage;
    Orvane::EventThread& notifyThread = client->mNotifyThread;
    Orvane::postCall(OV_SITE, notifyThread, &passage, &Passage::pass);
    auto done = std::async(std::launch::async, [this] { client->shutdown(); });
    EXPECT_TRUE(eventually([&] { return notifyThread.getPendingCount() == 2; }));
    broker.publish("Sync");
    EXPECT_TRUE(passage.begun.wait()); // so the loop has ended
    EXPECT_EQ(ZmqInterposer::names(), Texts{});
    passage.end.open();
    EXPECT_EQ(done.wait_for(testDeadline), std::future_status::ready);
    EXPECT_EQ(ZmqInterposer::names(), teardown);
}

TEST_F(Shutdown, loopThatIsEndedByItsFlagAloneClosesItsSocket)
{
    client->mShutdown = true;
    broker.publish("Sync");
    EXPECT_TRUE(eventually([&] { return ZmqInterposer::names() == Texts{"zmq_close SUB"}; }));
    client->shutdown();
    EXPECT_EQ(ZmqInterposer::names(), teardown);
}

TEST_F(Shutdown, secondShutdownReturnsAtOnceAndClosesNothing)
{
    shutdown();
    client->shutdown();
    EXPECT_EQ(ZmqInterposer::names(), teardown);
}

TEST_F(Shutdown, destructorAfterShutdownClosesNothing)
{
    shutdown();
    client.destroy();
    EXPECT_EQ(ZmqInterposer::names(), teardown);
}

TEST_F(Shutdown, destructorShutsDown)
{
    client.destroy();
    EXPECT_EQ(ZmqInterposer::names(), teardown);
}

TEST_F(Shutdown, concurrentShutdownsCloseOnce)
{
    const Pulse pulse(broker);
    auto first = std::async(std::launch::async, [this] { client->shutdown(); });
    auto second = std::async(std::launch::async, [this] { client->shutdown(); });
    EXPECT_EQ(first.wait_for(testDeadline), std::future_status::ready);
    // The first call drops the other's agent, which releases its sender.
    EXPECT_EQ(second.wait_for(testDeadline), std::future_status::ready);
    EXPECT_EQ(ZmqInterposer::names(), teardown);
}

TEST_F(Shutdown, brokerSeesTheClientsLastPost)
{
    client->updateSystemTime(7);
    client.destroy();
    EXPECT_TRUE(broker.waitForPost(R"({"updateSystemTime":7})"));
}

// Unlike TestProxy's, its destructor does not wait for queued calls first.
class PlainProxy : public StatusManagerProxy
{
public:
    using StatusManagerProxy::mNotifyThread;
    using StatusManagerProxy::mThread;
    using StatusManagerProxy::sendPost;
    using StatusManagerProxy::shutdown;
};

// A client that is destroyed while its manager's thread is blocked. The test publishes the notification that
// lets the destruction end.
class Destruction : public Shutdown
{
protected:
    Destruction()
    {
        EXPECT_TRUE(log.waitFor(6, "Polling for messages on notify socket"));
        EXPECT_TRUE(broker.waitForSubscriber(2)); // besides the fixture's own client
        Orvane::postCall(OV_SITE, proxy->mThread, this, &Destruction::hold);
        EXPECT_TRUE(held.wait());
        ZmqInterposer::reset();
    }

    ~Destruction() override
    {
        release.open();
        if (destroyed.valid())
        {
            const Pulse pulse(broker);
            destroyed.wait();
        }
    }

    // Returns when the destructor waits for the notify loop.
    void beginToDestroy()
    {
        Orvane::EventThread& notifyThread = proxy->mNotifyThread;
        destroyed = std::async(std::launch::async, [this] { proxy.reset(); });
        EXPECT_TRUE(eventually([&] { return notifyThread.getPendingCount() == 1; }));
    }

    static constexpr std::size_t many = 2000;

    void postMany()
    {
        for (std::size_t i = 0; i < many; ++i)
        {
            proxy->startTimer(std::to_string(i));
            posted.push_back({R"({"startTimer":")" + std::to_string(i) + R"("})"});
        }
    }

    bool isDestroyed() { return destroyed.wait_for(testDeadline) == std::future_status::ready; }

    // Runs on the manager's thread. Its receiver is not the client, so purging the client's calls does not
    // remove it.
    void hold()
    {
        held.open();
        release.wait();
        if (postWhenReleased)
            proxyItself->sendPost("last");
        if (passByWhenReleased)
            Orvane::callAndWait(OV_SITE, proxyItself->mNotifyThread, this, &Destruction::passBy);
        if (shutDownWhenReleased)
            proxyItself->shutdown();
    }

    void passBy() { hasPassedBy = true; }

    Gate held;
    Gate release;
    bool postWhenReleased = false;
    bool passByWhenReleased = false;
    bool shutDownWhenReleased = false;
    std::atomic<bool> hasPassedBy{false};
    std::unique_ptr<PlainProxy> proxy = std::make_unique<PlainProxy>();
    PlainProxy* const proxyItself = proxy.get();
    std::future<void> destroyed;
    std::vector<Frames> posted;
};

TEST_F(Destruction, sendsWhatWasPostedBeforeWhileNothingIsPublished)
{
    postMany();
    beginToDestroy();
    release.open();
    EXPECT_TRUE(broker.waitForPosts(many));
    EXPECT_EQ(broker.posts(), posted);
    broker.publish("Sync");
    EXPECT_TRUE(isDestroyed());
}

TEST_F(Destruction, sendsWhatIsStillQueuedWhenTheNotificationHasCome)
{
    Orvane::EventThread& manager = proxy->mThread;
    postMany();
    beginToDestroy();
    broker.publish("Sync");
    EXPECT_TRUE(eventually([&] { return manager.getPendingCount() == many + 1; })); // the destructor waits
    release.open();
    EXPECT_TRUE(isDestroyed());
    EXPECT_TRUE(broker.waitForPosts(many));
    EXPECT_EQ(broker.posts(), posted);
}

TEST_F(Destruction, handsTheNotificationThatEndsItToTheListeners)
{
    RecordingListener listener;
    Orvane::EventThread thread("listener", 0);
    proxy->registerListener(&listener, &thread);
    proxy->registerForStatus(&listener, "k");
    release.open();
    ASSERT_TRUE(listener.waitForUpdates(1)); // for the subscription
    beginToDestroy();
    broker.publish(R"({"statusUpdate":{"k":"last"}})");
    EXPECT_TRUE(isDestroyed());
    EXPECT_TRUE(listener.waitForUpdates(2));
    EXPECT_EQ(listener.updates().back(), (StatusMap{{"k", "last"}}));
}

// The manager's thread still has work when the notify loop has ended. The notify socket stays open as well:
// another part of the program could get its memory for a new socket, which the repeated close would close.
TEST_F(Destruction, closesNoSocketWhileTheManagersThreadUsesOneOfThem)
{
    postWhenReleased = true;
    Orvane::EventThread& manager = proxy->mThread;
    beginToDestroy();
    broker.publish("Sync");
    EXPECT_TRUE(eventually([&] { return manager.getPendingCount() == 1; })); // the destructor waits
    EXPECT_EQ(ZmqInterposer::names(), Texts{});
    release.open();
    EXPECT_TRUE(isDestroyed());
    EXPECT_TRUE(broker.waitForPost("last"));

    Texts expected = teardown;
    expected.insert(expected.begin(), "zmq_send PUB");
    EXPECT_EQ(ZmqInterposer::names(), expected);
    const std::vector<ZmqInterposer::Call> calls = ZmqInterposer::calls();
    for (std::size_t i = 0; i < calls.size(); ++i)
        EXPECT_EQ(calls[i].thread == calls[0].thread, i == 0) << calls[i].name;
}

// Like a derived client that shuts down on the manager's thread.
TEST_F(Destruction, waitsForAManagersThreadThatWaitsForTheNotifyThread)
{
    passByWhenReleased = true;
    beginToDestroy();
    release.open();
    EXPECT_EQ(destroyed.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    broker.publish("Sync");
    EXPECT_TRUE(isDestroyed());
    EXPECT_TRUE(hasPassedBy);
    EXPECT_EQ(ZmqInterposer::names(), teardown);
}

TEST_F(Destruction, closesOnceWhatTheManagersThreadShutsDownMeanwhile)
{
    shutDownWhenReleased = true;
    beginToDestroy();
    release.open();
    broker.publish("Sync");
    EXPECT_TRUE(isDestroyed());
    EXPECT_EQ(ZmqInterposer::names(), teardown);
}

TEST_F(Destruction, closesEverythingInItsOrder)
{
    beginToDestroy();
    release.open();
    broker.publish("Sync");
    EXPECT_TRUE(isDestroyed());
    EXPECT_EQ(ZmqInterposer::names(), teardown);
}

TEST_F(Shutdown, queuedCallsOfADestroyedClientAreReleased)
{
    const unsigned before = liveObjects();
    auto plain = std::make_unique<StatusManagerProxy>();
    for (int i = 0; i < 1000; ++i)
        plain->startTimer("t");
    plain->postEvent("e", "v", 3600000);
    {
        const Pulse pulse(broker);
        plain.reset();
    }
    EXPECT_LE(liveObjects(), before);
}

TEST_F(Shutdown, nothingIsLeftOfAClient)
{
    const auto makeAndDestroy = [this]
    {
        Client other(broker);
        other->postStatus("k", "v");
        other->getClientInfo();
    };
    makeAndDestroy(); // creates what exists once per process
    const std::ptrdiff_t threads = entries("/proc/self/task");
    const std::ptrdiff_t files = entries("/proc/self/fd");
    const unsigned objects = liveObjects();
    for (int i = 0; i < 5; ++i)
        makeAndDestroy();
    // The broker's side of a closed connection ends a moment later.
    EXPECT_TRUE(eventually([&] { return entries("/proc/self/fd") <= files; }));
    EXPECT_TRUE(eventually([&] { return entries("/proc/self/task") <= threads; }));
    EXPECT_LE(liveObjects(), objects);
}

} // namespace
