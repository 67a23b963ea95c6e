#include "tests/support/RecordingListener.h"

#include "tests/support/Wait.h"

template <class Condition>
bool RecordingListener::waitUntil(Condition condition) const
{
    std::unique_lock<std::mutex> lock(mMutex);
    return mChanged.wait_for(lock, testDeadline, condition);
}

void RecordingListener::onStatusUpdate(StatusMap updates)
{
    const std::lock_guard<std::mutex> lock(mMutex);
    for (const auto& [key, value] : updates)
        mLatest[key] = value;
    mUpdates.push_back(std::move(updates));
    mLastThread = std::this_thread::get_id();
    mChanged.notify_all();
}

void RecordingListener::onEventUpdate(std::string name, std::string value)
{
    const std::lock_guard<std::mutex> lock(mMutex);
    mEvents.emplace_back(std::move(name), std::move(value));
    mLastThread = std::this_thread::get_id();
    mChanged.notify_all();
}

std::vector<StatusMap> RecordingListener::updates() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mUpdates;
}

std::vector<RecordingListener::Event> RecordingListener::events() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mEvents;
}

std::thread::id RecordingListener::lastThread() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mLastThread;
}

bool RecordingListener::waitForUpdates(std::size_t count) const
{
    return waitUntil([&] { return mUpdates.size() >= count; });
}

bool RecordingListener::waitForEvents(std::size_t count) const
{
    return waitUntil([&] { return mEvents.size() >= count; });
}

bool RecordingListener::waitForValue(const std::string& key, const std::string& value) const
{
    return waitUntil(
        [&]
        {
            const auto found = mLatest.find(key);
            return found != mLatest.end() && found->second == value;
        });
}
