#ifndef TESTS_MEMORY_CLIENTWORLD_H
#define TESTS_MEMORY_CLIENTWORLD_H

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tests/memory/FailingMemory.h"
#include "tests/memory/LibzmqCalls.h"
#include "tests/memory/LongNames.h"
#include "tests/proxy/Frames.h"
#include "tests/proxy/TestProxy.h"
#include "tests/support/RecordingListener.h"

/// A client with a scripted broker, for tests in which memory runs out.

class Proxy : public StatusManagerProxy
{
public:
    using StatusManagerProxy::mListeners;
    using StatusManagerProxy::mThread;
    using StatusManagerProxy::shutdown;

    void onThread(const std::function<void()>& work)
    {
        using Agent = Orvane::SyncEventAgent1<Proxy, const std::function<void()>&>;
        (OV_NEW Agent(this, &Proxy::run, work))->send(&mThread);
    }

private:
    void run(const std::function<void()>& work) { work(); }
};

/// Only JsonCpp writes and reads this name.
inline std::string odd(const std::string& kind)
{
    return name("odd \"" + kind + "\"");
}

/// More values than one frame holds.
inline StatusMap values(const std::string& value, unsigned count = 20)
{
    StatusMap all;
    for (const std::string& key : names("key", 0, count))
        all[key] = value;
    return all;
}

inline std::string join(const Frames& frames)
{
    std::string text;
    for (const std::string& frame : frames)
        text += frame;
    return text;
}

enum class Caller
{
    Other,
    ManagersThread
};

/// A client of a scripted broker, with a listener.
class World
{
public:
    explicit World(unsigned keys = 3)
    {
        broker.answerWith([this](const std::string& request) { return answer(request); });
        const unsigned receives = LibzmqCalls::notifyReceives();
        proxy = std::make_unique<Proxy>();
        EXPECT_TRUE(broker.waitForSubscriber());
        EXPECT_TRUE(eventually([&] { return LibzmqCalls::notifyReceives() != receives; }));
        proxy->registerListener(&listener, &mListenersThread);
        proxy->registerForStatus(&listener, names("key", 0, keys));
        proxy->registerForEvent(&listener, names("event", 0, keys));
        settle();
    }

    ~World()
    {
        const Pulse pulse(broker);
        proxy->unregisterListener(&listener);
        mListenersThread.stop();
        proxy.reset();
    }

    /// Makes the call on the given thread. Returns whether memory ran out for it.
    template <class Call>
    bool runsOutFor(Caller caller, Call call)
    {
        if (caller == Caller::Other)
            return FailingMemory::runsOut(call);
        const FailingMemory::Spared spared;
        bool ranOut = false;
        proxy->onThread([&] { ranOut = FailingMemory::runsOut(call); });
        return ranOut;
    }

    /// Returns when the manager is idle and all listeners have been called.
    void settle()
    {
        const FailingMemory::Spared spared;
        eventually([this] { return proxy->mThread.getPendingCount() == 0; });
        proxy->onThread([] {});
        (OV_NEW Orvane::SyncEventAgent0<World>(this, &World::nothing))->send(&mListenersThread);
    }

    /// Publishes a notification, and returns when it is handled.
    void notify(const std::string& text)
    {
        const FailingMemory::Spared spared;
        const Frames frames = text.empty() ? Frames{""} : cut(text);
        const unsigned before = LibzmqCalls::notifyReceives();
        broker.publish(frames);
        eventually([&] { return LibzmqCalls::notifyReceives() - before >= frames.size(); });
        settle();
    }

    StatusKeys statusKeys()
    {
        StatusKeys keys;
        proxy->onThread([&] { keys = proxy->mListeners.at(&listener)->statusKeys; });
        return keys;
    }

    std::size_t callbacks() const { return listener.updates().size() + listener.events().size(); }

    /// The messages after the first `count`. It posts a marker and waits for it, so that none is missing.
    std::vector<std::string> postsSince(std::size_t count)
    {
        const std::string marker = "marker" + std::to_string(++mMarkers);
        proxy->startTimer(marker);
        EXPECT_TRUE(broker.waitForPost("{\"startTimer\":\"" + marker + "\"}"));
        settle();
        std::vector<std::string> texts;
        const std::vector<Frames> posts = broker.posts();
        for (auto post = posts.begin() + static_cast<std::ptrdiff_t>(count); post + 1 != posts.end(); ++post)
            texts.push_back(join(*post));
        return texts;
    }

    ScriptedBroker broker;
    std::unique_ptr<Proxy> proxy;
    RecordingListener listener;

    /// The broker's answers; the answer with a map has two forms.
    std::atomic<bool> answersOdd{false};

    std::atomic<unsigned> requests{0}; // received so far

    std::string lastRequest() const
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mLastRequest;
    }

private:
    void nothing() {}

    std::optional<Frames> answer(const std::string& request)
    {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mLastRequest = request;
        }
        ++requests;
        const auto asks = [&](const char* what)
        { return request.find(std::string("\"get") + what) != request.npos; };
        if (request == "Sync")
            return Frames{"SyncAck"};
        const std::string value = (answersOdd ? "\\\"" : "") + name("value");
        if (asks("ClientInfoValue\""))
            return Frames{"{\"statusValue\":\"" + value + "\"}"};
        if (!asks("ClientInfo"))
            return Frames{"12345"};
        std::string text;
        for (const std::string& key : names("key", 0, 20))
            text += (text.empty() ? "{\"" : ",\"") + key + "\":\"" + value + '"';
        return cut(text + '}');
    }

    Orvane::EventThread mListenersThread{"listener", 0};
    unsigned mMarkers = 0;
    mutable std::mutex mMutex;
    std::string mLastRequest;
};

template <class Operation>
std::string nameOf(const testing::TestParamInfo<Operation>& info)
{
    return info.param.name;
}

class ClientMemory : public testing::Test
{
protected:
    FailingMemory::QuietLog log;
};

#endif
