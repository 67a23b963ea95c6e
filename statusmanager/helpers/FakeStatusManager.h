#ifndef STATUSMANAGER_HELPERS_FAKESTATUSMANAGER_H
#define STATUSMANAGER_HELPERS_FAKESTATUSMANAGER_H

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/Calls.h"
#include "statusmanager/StatusManager.h"

namespace status
{

/// Stands in for the process's manager in unit tests: no broker, no ports. It keeps values and counters in
/// this process, calls listeners as a broker client does, and holds what was posted, for the test to look at.
///
/// Make it before the code under test first asks for a manager. While it lives, StatusManager::getInstance()
/// returns it, whatever its argument. Each test may make one of its own; one at a time.
///
/// Any thread may call any operation. Those marked [waits] see all that was posted before, by any thread.
/// Timers read 0, as those of StatusManager do. Nothing ever sets the clock.
///
/// This class is all in its header: programs that do not use it carry none of it.
class FakeStatusManager : public StatusManager
{
public:
    /// An event as it was posted.
    struct Event
    {
        std::string name;  ///< As it was given.
        std::string value; ///< As it was given.
        uint32_t delayMs;  ///< Not waited for: listeners are told at once.
    };

    /// Takes the place of the process's manager. Not while another thread is in getInstance().
    /// @throws std::logic_error when there is a manager already
    FakeStatusManager()
    {
        if (mInstance != nullptr)
            throw std::logic_error("make the FakeStatusManager before the first getInstance()");
        mInstance = this;
    }

    /// Leaves the place to the next one. Pointers that getInstance() has returned are not valid any more, so
    /// the code under test must be done with them. Subscriptions may be destroyed later.
    ~FakeStatusManager() override
    {
        mThread.stop();
        mInstance = nullptr;
    }

    // --------------------------------------------------------------------- what the rest of the device does

    /// [waits] Another process has posted this: it is stored, listeners are told, and posts() has nothing of
    /// it. Returns when the callbacks are queued; they may not have run yet.
    void change(std::string key, std::string value) { change(StatusMap{{std::move(key), std::move(value)}}); }
    /// The same for several values in one message.
    void change(StatusMap values)
    {
        if (!mThread.isThreadCurrent())
            return Orvane::callAndWait(OV_SITE, mThread, this,
                                       Orvane::overload<StatusMap>(&FakeStatusManager::change),
                                       std::move(values));
        StatusManager::postStatus(std::move(values));
    }

    /// [waits] Another process has posted this event. Returns when the callbacks are queued.
    void occur(std::string name, std::string value = {})
    {
        if (!mThread.isThreadCurrent())
            return Orvane::callAndWait(OV_SITE, mThread, this, &FakeStatusManager::occur, std::move(name),
                                       std::move(value));
        handleEventUpdate(std::move(name), std::move(value));
    }

    /// From now on sync() returns false, or true again. status::isHealthy() is false for good after a
    /// status::sync() that fails.
    void failSync(bool fails = true) { mSyncFails = fails; }

    // ------------------------------------------------------------------------------------ what was posted

    /// [waits] Each message of values that this process has posted, in order; resets have empty values.
    std::vector<StatusMap> posts() { return read(mPosts); }

    /// [waits] The last value that this process has posted under each key.
    StatusMap posted()
    {
        StatusMap latest;
        for (const StatusMap& post : posts())
        {
            for (const auto& [key, value] : post)
                latest[key] = value;
        }
        return latest;
    }

    /// [waits] The events that this process has posted, in order.
    std::vector<Event> events() { return read(mEvents); }

    /// [waits] The last time that this process has asked to set the clock to; nothing if it has not.
    std::optional<uint32_t> systemTime() { return read(mSystemTime); }

    /// [waits] Forgets what was posted. Values, counters and listeners stay.
    void forgetPosts()
    {
        if (!mThread.isThreadCurrent())
            return Orvane::callAndWait(OV_SITE, mThread, this, &FakeStatusManager::forgetPosts);
        mPosts.clear();
        mEvents.clear();
        mSystemTime.reset();
    }

    // ------------------------------------------------------------------------------- as StatusManager's own

    using StatusManager::postStatus;
    /// [queued] As the base's, and holds the post.
    void postStatus(StatusMap updates) override
    {
        if (mThread.isThreadCurrent())
            mPosts.push_back(updates);
        StatusManager::postStatus(std::move(updates)); // from another thread, queues a call of this one
    }

    using StatusManager::resetStatus;
    /// [queued] As the base's, and holds it as a post of empty values.
    void resetStatus(StatusKeys keys) override
    {
        if (mThread.isThreadCurrent())
        {
            StatusMap post;
            for (const std::string& key : keys)
                post[key] = std::string();
            mPosts.push_back(std::move(post));
        }
        StatusManager::resetStatus(std::move(keys));
    }

    /// [queued] As the base's, and holds the event.
    void postEvent(std::string name, std::string value, uint32_t delayMs) override
    {
        if (!mThread.isThreadCurrent())
            return Orvane::postCall(OV_SITE, mThread, this, &FakeStatusManager::postEvent, std::move(name),
                                    std::move(value), delayMs);
        mEvents.push_back(Event{name, value, delayMs});
        handleEventUpdate(std::move(name), std::move(value));
    }

    /// [waits] Holds the time; the clock stays as it is.
    void updateSystemTime(uint32_t seconds) override
    {
        if (!mThread.isThreadCurrent())
            return Orvane::callAndWait(OV_SITE, mThread, this, &FakeStatusManager::updateSystemTime, seconds);
        mSystemTime = seconds;
    }

    /// [waits] The counter's value, at first 0.
    uint32_t getCounterValue(const std::string& name) override
    {
        if (!mThread.isThreadCurrent())
            return Orvane::callAndWait(OV_SITE, mThread, this, &FakeStatusManager::getCounterValue, name);
        return mCounts[name];
    }

    /// [waits] Counts up by one and returns the value after, as the broker does.
    uint32_t incrementCounter(const std::string& name) override
    {
        if (!mThread.isThreadCurrent())
            return Orvane::callAndWait(OV_SITE, mThread, this, &FakeStatusManager::incrementCounter, name);
        return ++mCounts[name];
    }

    /// [queued] Sets the counter.
    void setCounterValue(std::string name, uint32_t value) override
    {
        if (!mThread.isThreadCurrent())
            return Orvane::postCall(OV_SITE, mThread, this, &FakeStatusManager::setCounterValue,
                                    std::move(name), value);
        mCounts[name] = value;
    }

    /// [waits] As the base's, unless failSync() says otherwise.
    bool sync(int timeoutMs) override { return StatusManager::sync(timeoutMs) && !mSyncFails; }

private:
    // A copy of a member, made on the manager's thread: behind all that was posted.
    template <class T>
    T read(const T& member)
    {
        T copy{};
        Orvane::callAndWait(OV_SITE, mThread, this, &FakeStatusManager::copyTo<T>, member, copy);
        return copy;
    }

    template <class T>
    void copyTo(const T& member, T& copy)
    {
        copy = member;
    }

    std::atomic<bool> mSyncFails{false};
    std::vector<StatusMap> mPosts; // these: the manager's thread
    std::vector<Event> mEvents;
    std::optional<uint32_t> mSystemTime;
    std::map<std::string, uint32_t> mCounts;
};

} // namespace status

#endif
