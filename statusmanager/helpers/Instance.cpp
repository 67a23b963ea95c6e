#include "statusmanager/helpers/Instance.h"

#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>

#include "common/Calls.h"
#include "statusmanager/helpers/Deadline.h"

namespace status
{

namespace
{

/// One call of getInstance(), on a thread of its own.
class Attempt
{
public:
    Attempt() { Orvane::postCall(OV_SITE, mThread, this, &Attempt::run); }

    bool waitUntil(Deadline deadline)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_until(lock, deadline, [this] { return mOver; });
    }

    /// The result of getInstance(); throws what it threw. Only after waitUntil() has returned true.
    StatusManager* result() const
    {
        if (mFailure)
            std::rethrow_exception(mFailure);
        return mManager;
    }

private:
    void run()
    {
        try
        {
            mManager = StatusManager::getInstance(false);
        }
        catch (...)
        {
            mFailure = std::current_exception();
        }
        const std::lock_guard<std::mutex> lock(mMutex);
        mOver = true;
        mChanged.notify_all();
    }

    StatusManager* mManager = nullptr; // both written before mOver, read after it
    std::exception_ptr mFailure;
    std::mutex mMutex;
    std::condition_variable mChanged;
    bool mOver = false;
    Orvane::EventThread mThread{"connectWithin", 0}; // last: ends before other members are destroyed
};

/// The current attempt, which all callers share. Never destroyed: when the process ends, the attempt may
/// still wait for a broker.
struct Pending
{
    std::mutex mutex;
    std::shared_ptr<Attempt> attempt;
};

Pending& pending()
{
    static Pending& instance = *new Pending;
    return instance;
}

std::shared_ptr<Attempt> currentAttempt()
{
    const std::lock_guard<std::mutex> lock(pending().mutex);
    if (pending().attempt == nullptr)
        pending().attempt = std::make_shared<Attempt>();
    return pending().attempt;
}

void forget(const std::shared_ptr<Attempt>& attempt)
{
    const std::lock_guard<std::mutex> lock(pending().mutex);
    if (pending().attempt == attempt)
        pending().attempt = nullptr; // the caller holds a copy, so no thread ends under the lock
}

} // namespace

StatusManager& manager()
{
    return *StatusManager::getInstance(false);
}

StatusManager* connectWithin(std::chrono::milliseconds timeout)
{
    const Deadline deadline = deadlineIn(timeout);
    const std::shared_ptr<Attempt> attempt = currentAttempt();
    if (!attempt->waitUntil(deadline))
        return nullptr;
    forget(attempt);
    return attempt->result();
}

} // namespace status
