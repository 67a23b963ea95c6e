#include "statusmanager/helpers/Waiting.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <limits>
#include <memory>
#include <mutex>
#include <set>
#include <utility>

#include "common/EventThread.h"
#include "common/Logging.h"
#include "statusmanager/helpers/Deadline.h"
#include "statusmanager/helpers/EndNotice.h"
#include "statusmanager/helpers/ManagerAccess.h"
#include "statusmanager/helpers/Subscription.h"

OV_LOG_CONTROL_WORDS;

namespace status
{

namespace
{

/// The managers that no longer get answers. A manager is removed when it is destroyed, because another may be
/// made at the same address. This object is never destroyed, because the process's manager is never
/// destroyed.
class Unanswered
{
public:
    static Unanswered& instance()
    {
        static Unanswered& unanswered = *new Unanswered;
        return unanswered;
    }

    void add(StatusManager& manager)
    {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            if (!mManagers.insert(&manager).second)
                return;
        }
        std::shared_ptr<void> held(this, [this, &manager](void*) { remove(manager); });
        EndNotice::post(ManagerAccess::threadOf(manager), this, std::move(held));
    }

    bool has(const StatusManager& manager)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mManagers.count(&manager) != 0;
    }

private:
    void remove(const StatusManager& manager)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mManagers.erase(&manager);
    }

    std::mutex mMutex;
    std::set<const StatusManager*> mManagers;
};

/// A queue of a key's values, from the event thread that receives them to the thread that waits.
class Arrivals
{
public:
    void push(const std::string& value)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (!mClosed)
            mValues.push_back(value);
        mChanged.notify_one();
    }

    /// The next value. Returns nothing after the deadline, once all values that came in time have been taken.
    std::optional<std::string> pop(Deadline deadline)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        mClosed = mClosed || !mChanged.wait_until(lock, deadline, [this] { return !mValues.empty(); }) ||
                  std::chrono::steady_clock::now() >= deadline;
        if (mValues.empty())
            return std::nullopt;
        std::optional<std::string> value(std::move(mValues.front()));
        mValues.pop_front();
        return value;
    }

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::deque<std::string> mValues;
    bool mClosed = false; // the deadline has passed
};

} // namespace

bool sync(std::chrono::milliseconds timeout, StatusManager& manager)
{
    constexpr std::chrono::milliseconds longest(std::numeric_limits<int>::max());
    if (timeout.count() <= 0)
    {
        OV_LOG(2, "A sync needs time for the answer, %lld ms are too few",
               static_cast<long long>(timeout.count()));
        return false;
    }
    const int timeoutMs = static_cast<int>(std::min(timeout, longest).count());
    if (manager.sync(timeoutMs))
        return true;
    // If the broker answered that posts may have been lost, it can be asked again. After a time-out it
    // cannot: the request socket is in the middle of an exchange, and this call fails at once.
    if (!manager.sync(timeoutMs))
        Unanswered::instance().add(manager);
    return false;
}

bool isHealthy(StatusManager& manager)
{
    return !Unanswered::instance().has(manager);
}

std::optional<std::string> waitFor(const std::string& key,
                                   const std::function<bool(const std::string& value)>& predicate,
                                   std::chrono::milliseconds timeout, StatusManager& manager)
{
    const Deadline deadline = deadlineIn(timeout);
    Arrivals arrivals;
    Orvane::EventThread thread("waitFor", 0);
    const Subscription subscription = on(
        {key}, thread,
        [&](const StatusMap& values)
        {
            const auto found = values.find(key);
            if (found != values.end())
                arrivals.push(found->second);
        },
        manager);
    while (std::optional<std::string> value = arrivals.pop(deadline))
    {
        if (predicate(*value))
            return value;
    }
    return std::nullopt;
}

} // namespace status
