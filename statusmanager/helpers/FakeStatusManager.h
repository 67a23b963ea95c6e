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

/// Replaces the process's manager in unit tests; needs no broker and no ports. It keeps values and counters
/// in this process and calls listeners as a broker client does. It records every post, so that the test can
/// check it.
///
/// Make it before the code under test first asks for a manager. While it lives, StatusManager::getInstance()
/// returns it, whatever the argument. Each test can make a new FakeStatusManager; only one may live at a
/// time.
///
/// Any thread may call any operation. Operations marked [waits] see all earlier posts of all threads. Timers
/// read 0, as in StatusManager. No operation sets the clock.
///
/// The class is defined entirely in this header, so programs that do not use it contain none of its code.
class FakeStatusManager : public StatusManager
{
public:
    /// A posted event.
    struct Event
    {
        std::string name;  ///< The posted name.
        std::string value; ///< The posted value.
        uint32_t delayMs;  ///< The posted delay. It is ignored: listeners are called at once.
    };

    /// Becomes the process's manager. No other thread may be in getInstance() at this time.
    /// @throws std::logic_error when the process already has a manager
    FakeStatusManager()
    {
        if (mInstance != nullptr)
            throw std::logic_error("make the FakeStatusManager before the first getInstance()");
        mInstance = this;
    }

    /// Afterwards the process has no manager, and another FakeStatusManager can be made. Pointers from
    /// getInstance() become invalid, so the code under test must no longer use them. Subscriptions may be
    /// destroyed later.
    ~FakeStatusManager() override
    {
        mThread.stop();
        mInstance = nullptr;
    }

    // ---------------------------------------------------------------------- simulates the rest of the device

    /// [waits] Simulates a post of another process: stores the value and queues the listeners' callbacks.
    /// posts() does not contain it. Callbacks may not have run yet when this returns.
    void change(std::string key, std::string value) { change(StatusMap{{std::move(key), std::move(value)}}); }
    /// The same for several values in one post.
    void change(StatusMap values)
    {
        if (!mThread.isThreadCurrent())
            return Orvane::callAndWait(OV_SITE, mThread, this,
                                       Orvane::overload<StatusMap>(&FakeStatusManager::change),
                                       std::move(values));
        StatusManager::postStatus(std::move(values));
    }

    /// [waits] Simulates an event of another process. Returns when the callbacks are queued.
    void occur(std::string name, std::string value = {})
    {
        if (!mThread.isThreadCurrent())
            return Orvane::callAndWait(OV_SITE, mThread, this, &FakeStatusManager::occur, std::move(name),
                                       std::move(value));
        handleEventUpdate(std::move(name), std::move(value));
    }

    /// Makes sync() return false from now on, or true again. After a failed status::sync(),
    /// status::isHealthy() stays false. Returns at once.
    void failSync(bool fails = true) { mSyncFails = fails; }

    // ---------------------------------------------------------------------------------------- recorded posts

    /// [waits] Returns the posts of values by this process, in order. A reset is a post of empty values.
    std::vector<StatusMap> posts() { return read(mPosts); }

    /// [waits] Returns the last value that this process posted for each key.
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

    /// [waits] Returns the events that this process posted, in order.
    std::vector<Event> events() { return read(mEvents); }

    /// [waits] Returns the last argument of updateSystemTime(); nothing if it was never called.
    std::optional<uint32_t> systemTime() { return read(mSystemTime); }

    /// [waits] Clears the recorded posts, events and system time. Values, counters and listeners stay.
    void forgetPosts()
    {
        if (!mThread.isThreadCurrent())
            return Orvane::callAndWait(OV_SITE, mThread, this, &FakeStatusManager::forgetPosts);
        mPosts.clear();
        mEvents.clear();
        mSystemTime.reset();
    }

    // --------------------------------------------------------------------------- operations of StatusManager

    using StatusManager::postStatus;
    /// [queued] As in StatusManager, and records the post.
    void postStatus(StatusMap updates) override
    {
        if (mThread.isThreadCurrent())
            mPosts.push_back(updates);
        StatusManager::postStatus(std::move(updates)); // another thread queues a call of this override
    }

    using StatusManager::resetStatus;
    /// [queued] As in StatusManager, and records a post of empty values.
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

    /// [queued] As in StatusManager, and records the event.
    void postEvent(std::string name, std::string value, uint32_t delayMs) override
    {
        if (!mThread.isThreadCurrent())
            return Orvane::postCall(OV_SITE, mThread, this, &FakeStatusManager::postEvent, std::move(name),
                                    std::move(value), delayMs);
        mEvents.push_back(Event{name, value, delayMs});
        handleEventUpdate(std::move(name), std::move(value));
    }

    /// [waits] Records the time and does not set the clock.
    void updateSystemTime(uint32_t seconds) override
    {
        if (!mThread.isThreadCurrent())
            return Orvane::callAndWait(OV_SITE, mThread, this, &FakeStatusManager::updateSystemTime, seconds);
        mSystemTime = seconds;
    }

    /// [waits] Returns the counter's value, initially 0.
    uint32_t getCounterValue(const std::string& name) override
    {
        if (!mThread.isThreadCurrent())
            return Orvane::callAndWait(OV_SITE, mThread, this, &FakeStatusManager::getCounterValue, name);
        return mCounts[name];
    }

    /// [waits] Adds one to the counter and returns the new value, as the broker does.
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

    /// [waits] As in StatusManager; returns false after failSync(true).
    bool sync(int timeoutMs) override { return StatusManager::sync(timeoutMs) && !mSyncFails; }

private:
    // Copies a member on the manager's thread, so after all earlier posts.
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
    std::vector<StatusMap> mPosts; // this and the members below: manager's thread only
    std::vector<Event> mEvents;
    std::optional<uint32_t> mSystemTime;
    std::map<std::string, uint32_t> mCounts;
};

} // namespace status

#endif
