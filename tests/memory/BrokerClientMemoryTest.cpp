// A broker client's posts, queries and notifications when memory runs out.

#include <atomic>
#include <gtest/gtest.h>
#include <mutex>
#include <ostream>

#include "protocol/BrokerDocuments.h"
#include "tests/memory/Belongings.h"
#include "tests/memory/FailingMemory.h"
#include "tests/memory/LibzmqCalls.h"
#include "tests/protocol/Written.h"
#include "tests/proxy/Frames.h"
#include "tests/proxy/TestProxy.h"
#include "tests/support/RecordingListener.h"

using FailingMemory::Extent;
using FailingMemory::failEach;
using FailingMemory::Failure;
using FailingMemory::runsOut;
using FailingMemory::Spared;

namespace
{

using namespace std::string_literals;

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

// Too long for a string to hold without an allocation.
std::string name(const std::string& kind, unsigned number = 0)
{
    return kind + " of a length that takes memory, " + std::to_string(number);
}

// Only JsonCpp writes and reads this name.
std::string odd(const std::string& kind)
{
    return name("odd \"" + kind + "\"");
}

StatusKeys names(const std::string& kind, unsigned count)
{
    StatusKeys all;
    for (unsigned number = 0; number < count; ++number)
        all.push_back(name(kind, number));
    return all;
}

// More values than one frame holds.
StatusMap values(const std::string& value, unsigned count = 20)
{
    StatusMap all;
    for (const std::string& key : names("key", count))
        all[key] = value;
    return all;
}

std::string join(const Frames& frames)
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

// A client of a scripted broker, with a listener.
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
        proxy->registerForStatus(&listener, names("key", keys));
        proxy->registerForEvent(&listener, names("event", keys));
        settle();
    }

    ~World()
    {
        const Pulse pulse(broker);
        proxy->unregisterListener(&listener);
        mListenersThread.stop();
        proxy.reset();
    }

    // Makes the call on the given thread. Returns whether memory ran out for it.
    template <class Call>
    bool runsOutFor(Caller caller, Call call)
    {
        if (caller == Caller::Other)
            return runsOut(call);
        const Spared spared;
        bool ranOut = false;
        proxy->onThread([&] { ranOut = runsOut(call); });
        return ranOut;
    }

    // Returns when the manager is idle and all listeners have been called.
    void settle()
    {
        const Spared spared;
        eventually([this] { return proxy->mThread.getPendingCount() == 0; });
        proxy->onThread([] {});
        (OV_NEW Orvane::SyncEventAgent0<World>(this, &World::nothing))->send(&mListenersThread);
    }

    // Publishes a notification, and returns when it is handled.
    void notify(const std::string& text)
    {
        const Spared spared;
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

    // The messages after the first `count`. It posts a marker and waits for it, so that none is missing.
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

    // The broker's answers; the answer with a map has two forms.
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
        { return request.find('"' + ("get"s + what)) != request.npos; };
        if (request == "Sync")
            return Frames{"SyncAck"};
        if (asks("ClientInfoValue\""))
            return Frames{"{\"statusValue\":\"" + (answersOdd ? "\\\"" : ""s) + name("value") + "\"}"};
        if (!asks("ClientInfo"))
            return Frames{"12345"};
        std::string text;
        for (const std::string& key : names("key", 20))
            text += (text.empty() ? "{\"" : ",\"") + key + "\":\"" + (answersOdd ? "\\\"" : "") +
                    name("value") + '"';
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

// --------------------------------------------------------------------------------------------------- posts

struct Post
{
    const char* name;
    void (*call)(Proxy&);
};

void PrintTo(const Post& post, std::ostream* stream)
{
    *stream << post.name;
}

const Post posts[]{
    {"postStatus", [](Proxy& proxy) { proxy.postStatus(name("key"), name("value")); }},
    {"postStatusOfSeveral", [](Proxy& proxy) { proxy.postStatus(values(name("value"))); }},
    {"postStatusOfSeveralOdd", [](Proxy& proxy) { proxy.postStatus(values(odd("value"))); }},
    {"resetStatus", [](Proxy& proxy) { proxy.resetStatus(name("key")); }},
    {"resetStatusOfSeveral", [](Proxy& proxy) { proxy.resetStatus(names("key", 20)); }},
    {"postEvent", [](Proxy& proxy) { proxy.postEvent(name("event"), name("value"), 0); }},
    {"postLongEvent", [](Proxy& proxy) { proxy.postEvent(name("event"), std::string(2000, 'x'), 0); }},
    {"postOddEvent", [](Proxy& proxy) { proxy.postEvent(name("event"), odd("value"), 0); }},
    {"postDelayedEvent", [](Proxy& proxy) { proxy.postEvent(name("event"), name("value"), 1); }},
    {"startTimer", [](Proxy& proxy) { proxy.startTimer(name("timer")); }},
    {"stopTimer", [](Proxy& proxy) { proxy.stopTimer(name("timer")); }},
    {"resetTimer", [](Proxy& proxy) { proxy.resetTimer(name("timer")); }},
    {"restartOddTimer", [](Proxy& proxy) { proxy.restartTimer(odd("timer")); }},
    {"setCounterValue", [](Proxy& proxy) { proxy.setCounterValue(name("counter"), 5); }},
    {"updateSystemTime", [](Proxy& proxy) { proxy.updateSystemTime(1800000000); }},
};

class PostMemory : public testing::TestWithParam<Post>
{
protected:
    FailingMemory::QuietLog log;
    World world;
};

} // namespace

TEST_P(PostMemory, aPostArrivesWholeOrNotAtAllAndSoDoTheNext)
{
    const auto post = [&] { GetParam().call(*world.proxy); };
    post();
    world.settle();
    const std::vector<std::string> whole = world.postsSince(0);
    ASSERT_EQ(whole.size(), 1U);
    for (const Caller caller : {Caller::Other, Caller::ManagersThread})
    {
        const unsigned struck = failEach(
            [&](const Failure& failure)
            {
                const std::size_t before = world.broker.posts().size();
                const unsigned agents = Belongings::trackedObjects();
                bool ranOut = false;
                const bool hasStruck = failure.during(
                    [&]
                    {
                        ranOut = world.runsOutFor(caller, post);
                        world.settle();
                    });
                EXPECT_EQ(Belongings::trackedObjects(), agents);
                const std::vector<std::string> arrived = world.postsSince(before);
                const bool hasArrived = arrived == whole;
                EXPECT_TRUE(hasArrived || arrived.empty()) << testing::PrintToString(arrived);
                EXPECT_TRUE(hasArrived || hasStruck);
                EXPECT_FALSE(hasArrived && ranOut);
                return hasStruck;
            });
        EXPECT_GT(struck, 0U);
    }
    const std::size_t before = world.broker.posts().size();
    post();
    world.settle();
    EXPECT_EQ(world.postsSince(before), whole);
}

INSTANTIATE_TEST_SUITE_P(, PostMemory, testing::ValuesIn(posts), nameOf<Post>);

// ------------------------------------------------------------------------------------------------- queries

namespace
{

struct Query
{
    const char* name;
    std::string (*call)(Proxy&);
    std::string neutral = "0"; // its result if the request could not be sent
};

void PrintTo(const Query& query, std::ostream* stream)
{
    *stream << query.name;
}

std::string shown(const StatusMap& map)
{
    const Spared spared;
    return testing::PrintToString(map);
}

const Query queries[]{
    {"getClientInfo", [](Proxy& proxy) { return shown(proxy.getClientInfo()); }, "{}"},
    {"getClientInfoValue", [](Proxy& proxy) { return proxy.getClientInfoValue(name("key")); }, ""},
    {"getClientInfoValueOfAnOddKey", [](Proxy& proxy) { return proxy.getClientInfoValue(odd("key")); }, ""},
    {"getClientInfoValues", [](Proxy& proxy) { return shown(proxy.getClientInfoValues(names("key", 20))); },
     "{}"},
    {"getOddClientInfoValues",
     [](Proxy& proxy) {
         return shown(proxy.getClientInfoValues({odd("key"), std::string(2000, 'x')}));
     },
     "{}"},
    {"getTimerElapsed", [](Proxy& proxy) { return std::to_string(proxy.getTimerElapsed(name("timer"))); }},
    {"getTimerElapsedSeconds",
     [](Proxy& proxy) { return std::to_string(proxy.getTimerElapsedSeconds(name("timer"))); }},
    {"getTimerLastStarted",
     [](Proxy& proxy) { return std::to_string(proxy.getTimerLastStarted(odd("timer"))); }},
    {"getCounterValue", [](Proxy& proxy) { return std::to_string(proxy.getCounterValue(name("counter"))); }},
    {"incrementCounter",
     [](Proxy& proxy) { return std::to_string(proxy.incrementCounter(name("counter"))); }},
    {"sync", [](Proxy& proxy) { return std::to_string(proxy.sync(10000)); }},
};

class QueryMemory : public testing::TestWithParam<Query>
{
protected:
    // The query's result, or nothing if memory ran out.
    std::optional<std::string> ask(Caller caller)
    {
        std::string result;
        if (world.runsOutFor(caller, [&] { result = GetParam().call(*world.proxy); }))
            return std::nullopt;
        return result;
    }

    FailingMemory::QuietLog log;
    World world;
};

} // namespace

// A query that cannot be sent for lack of memory returns the neutral result.
TEST_P(QueryMemory, aQueryIsAnsweredOrReachesItsCallerAsAnExceptionAndTheNextIsAnswered)
{
    for (const bool answersOdd : {false, true})
        for (const Caller caller : {Caller::Other, Caller::ManagersThread})
        {
            world.answersOdd = answersOdd;
            const std::optional<std::string> expected = ask(caller);
            const std::string request = world.lastRequest();
            unsigned struck = failEach(
                [&](const Failure& failure)
                {
                    const unsigned agents = Belongings::trackedObjects();
                    const unsigned before = world.requests;
                    std::optional<std::string> answer;
                    const bool hasStruck = failure.during([&] { answer = ask(caller); });
                    EXPECT_EQ(Belongings::trackedObjects(), agents);
                    const bool isSent = world.requests != before;
                    const std::string due = isSent ? *expected : GetParam().neutral;
                    EXPECT_EQ(answer.value_or(due), due);
                    EXPECT_TRUE(answer || hasStruck);
                    EXPECT_EQ(ask(caller), expected);
                    EXPECT_EQ(world.lastRequest(), request);
                    return hasStruck;
                });
            EXPECT_GT(struck + (caller == Caller::ManagersThread ? 1 : 0), 0U);
        }
}

INSTANTIATE_TEST_SUITE_P(, QueryMemory, testing::ValuesIn(queries), nameOf<Query>);

namespace
{

class ClientMemory : public testing::Test
{
protected:
    FailingMemory::QuietLog log;
};

} // namespace

TEST_F(ClientMemory, aCounterThatTheBrokerHasCountedIsReturned)
{
    World world;
    const unsigned struck = failEach(
        [&](const Failure& failure)
        {
            const unsigned before = world.requests;
            uint32_t value = 0;
            const bool hasStruck = failure.during(
                [&] { runsOut([&] { value = world.proxy->incrementCounter(name("counter")); }); });
            EXPECT_EQ(value, world.requests == before ? 0U : 12345U);
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}

// ----------------------------------------------------------------------------------- subscribing, listening

TEST_F(ClientMemory, aSubscriptionIsMadeWhollyOrNotAtAll)
{
    World world(0);
    for (const unsigned keys : {3U, 10U})
    {
        const StatusKeys whole = names("key", keys);
        const auto subscribe = [&] { world.proxy->registerForStatus(&world.listener, whole); };
        const unsigned struck = failEach(
            [&](const Failure& failure)
            {
                const std::size_t before = world.listener.updates().size();
                const bool hasStruck = failure.during(
                    [&]
                    {
                        runsOut(subscribe);
                        world.settle();
                    });
                const bool isSubscribed = world.statusKeys() == whole;
                EXPECT_TRUE(isSubscribed || (hasStruck && world.statusKeys().empty()));
                EXPECT_EQ(world.listener.updates().size() - before, isSubscribed ? 1U : 0U);

                subscribe();
                world.settle();
                EXPECT_EQ(world.statusKeys(), whole);
                EXPECT_TRUE(world.listener.waitForValue(name("key"), name("value")));
                world.proxy->unregisterForStatus(&world.listener, whole);
                return hasStruck;
            });
        EXPECT_GT(struck, 0U);
    }
}

namespace
{

namespace Key = BrokerProtocol::Key;

std::string updateOf(const char* key, const StatusMap& values)
{
    std::string text;
    BrokerProtocol::appendUpdate(text, key, membersIn(values));
    return text;
}

struct Notification
{
    const char* name;
    std::string text;
};

void PrintTo(const Notification& notification, std::ostream* stream)
{
    *stream << notification.name;
}

const Notification notifications[]{
    {"value", updateOf(Key::statusUpdate, values(name("value"), 1))},
    {"valueOfManyFrames", updateOf(Key::statusUpdate, values(name("value")))},
    {"oddValue", updateOf(Key::statusUpdate, values(odd("value"), 3))},
    {"number", "{\"statusUpdate\":{\"" + name("key") + "\":5}}"},
    {"event", updateOf(Key::eventUpdate, {{name("event"), name("value")}})},
    {"events", updateOf(Key::eventUpdate, {{name("event"), name("value")}, {name("event", 1), "value"}})},
    {"oddEvent", updateOf(Key::eventUpdate, {{name("event"), odd("value")}})},
    {"sync", "Sync"},
    {"empty", ""},
    {"unhandled", "{\"" + name("other") + "\":\"" + name("value") + "\"}"},
    {"noJson", name("no JSON")},
};

class NotificationMemory : public testing::TestWithParam<Notification>
{
protected:
    // Publishes the notification while memory may run out, then another one, which must arrive.
    static bool tryOne(World& world, const Failure& failure, std::size_t callbacks)
    {
        const std::size_t before = world.callbacks();
        const unsigned agents = Belongings::trackedObjects();
        const bool hasStruck = failure.during([&] { world.notify(GetParam().text); });
        EXPECT_EQ(Belongings::trackedObjects(), agents);
        const std::size_t heard = world.callbacks() - before;
        EXPECT_LE(heard, callbacks);
        EXPECT_TRUE(heard == callbacks || hasStruck);

        const std::string value = "next" + std::to_string(before);
        world.notify(updateOf(Key::statusUpdate, values(value, 1)));
        EXPECT_EQ(world.listener.updates().back(), values(value, 1));
        return hasStruck;
    }

    static unsigned tryAll(unsigned keys)
    {
        World world(keys);
        const std::size_t before = world.callbacks();
        world.notify(GetParam().text);
        const std::size_t callbacks = world.callbacks() - before;
        return failEach([&](const Failure& failure) { return tryOne(world, failure, callbacks); });
    }
};

} // namespace

TEST_P(NotificationMemory, aNotificationMayBeLostButTheNextIsHeard)
{
    const FailingMemory::QuietLog log;
    for (const unsigned keys : {3U, 10U})
    {
        SCOPED_TRACE(std::to_string(keys) + " keys");
        EXPECT_TRUE(tryAll(keys) > 0 || GetParam().text == "Sync");
    }
}

TEST_P(NotificationMemory, theNextIsHeardAlsoWhereAllIsLogged)
{
    const FailingMemory::QuietLog log("*=7:ffffffff");
    tryAll(3);
}

INSTANTIATE_TEST_SUITE_P(, NotificationMemory, testing::ValuesIn(notifications), nameOf<Notification>);

// ------------------------------------------------------------------------------- construction, destruction

TEST_F(ClientMemory, aClientIsConstructedOrItsCallerGetsAnException)
{
    ScriptedBroker broker;
    const Belongings before;
    const unsigned struck = failEach(
        [&](const Failure& failure)
        {
            std::unique_ptr<StatusManagerProxy> proxy;
            bool ranOut = false;
            const auto construct = [&] { proxy = std::make_unique<StatusManagerProxy>(); };
            const bool hasStruck = failure.during([&] { ranOut = runsOut(construct); });
            EXPECT_TRUE(hasStruck || !ranOut);
            EXPECT_EQ(proxy == nullptr, ranOut);
            EXPECT_TRUE(ranOut || proxy->sync(-1));
            {
                const Pulse pulse(broker);
                proxy.reset();
            }
            EXPECT_TRUE(before.areAllThereIs()) << "something was left behind";
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}

TEST_F(ClientMemory, aClientIsDestroyedWhateverMemoryThereIs)
{
    ScriptedBroker broker;
    const Pulse pulse(broker);
    const Belongings before;
    const unsigned struck = failEach(
        [&](const Failure& failure)
        {
            auto proxy = std::make_unique<StatusManagerProxy>();
            proxy->sync(-1);
            const bool hasStruck = failure.during([&] { proxy.reset(); });
            EXPECT_TRUE(before.areAllThereIs()) << "something was left behind";
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}

TEST_F(ClientMemory, aClientThatWasShutDownIsDestroyedWhateverMemoryThereIs)
{
    ScriptedBroker broker;
    const Pulse pulse(broker);
    const unsigned struck = failEach(
        [&](const Failure& failure)
        {
            auto proxy = std::make_unique<Proxy>();
            proxy->shutdown();
            const unsigned before = LibzmqCalls::closes();
            const bool hasStruck = failure.during([&] { proxy.reset(); });
            EXPECT_EQ(LibzmqCalls::closes(), before) << "closed what was closed already";
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}

TEST_F(ClientMemory, aShutDownIsCompleteOrReachesItsCallerAsAnException)
{
    ScriptedBroker broker;
    const Pulse pulse(broker);
    const Belongings before;
    const unsigned struck = failEach(
        [&](const Failure& failure)
        {
            auto proxy = std::make_unique<Proxy>();
            bool ranOut = false;
            const bool hasStruck = failure.during([&] { ranOut = runsOut([&] { proxy->shutdown(); }); });
            EXPECT_EQ(ranOut, hasStruck);
            proxy->shutdown();
            proxy.reset();
            EXPECT_TRUE(before.areAllThereIs()) << "something was left behind";
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}
