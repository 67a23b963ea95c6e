#ifndef TESTS_SUPPORT_RECORDINGLISTENER_H
#define TESTS_SUPPORT_RECORDINGLISTENER_H

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "statusmanager/StatusManager.h"

/// Records every callback in order, and the thread of the last one.
class RecordingListener : public IStatusUpdateListener
{
public:
    using Event = std::pair<std::string, std::string>;

    void onStatusUpdate(StatusMap updates) override;
    void onEventUpdate(std::string name, std::string value) override;

    std::vector<StatusMap> updates() const;
    std::vector<Event> events() const;
    std::thread::id lastThread() const;

    /// Waits for this many callbacks in all. Returns false at the deadline.
    bool waitForUpdates(std::size_t count) const;
    bool waitForEvents(std::size_t count) const;

    /// Waits until the values received so far contain this pair. Later values replace earlier ones.
    bool waitForValue(const std::string& key, const std::string& value) const;

private:
    template <class Condition>
    bool waitUntil(Condition condition) const;

    mutable std::mutex mMutex;
    mutable std::condition_variable mChanged;
    std::vector<StatusMap> mUpdates;
    std::vector<Event> mEvents;
    StatusMap mLatest;
    std::thread::id mLastThread;
};

#endif
