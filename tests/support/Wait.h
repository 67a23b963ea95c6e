#ifndef TESTS_SUPPORT_WAIT_H
#define TESTS_SUPPORT_WAIT_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

/// Long enough for a loaded machine under a sanitizer. A test that waits this long has failed.
constexpr std::chrono::seconds testDeadline{30 * TEST_TIME_FACTOR};

/// Whether this is built for another processor, and runs emulated.
constexpr bool isEmulated = TEST_TIME_FACTOR > 1;

/// The time that an operation may take: longer if it is emulated.
constexpr std::chrono::milliseconds allowed(std::chrono::milliseconds time)
{
    return time * TEST_TIME_FACTOR;
}

/// Polls until `condition` holds. Returns false at the deadline. For conditions that nothing can be awaited
/// on.
template <class Condition>
bool eventually(Condition condition, std::chrono::milliseconds deadline = testDeadline)
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition())
    {
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::this_thread::yield();
    }
    return true;
}

/// A gate that a thread opens, and others wait for.
class Gate
{
public:
    void open()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mOpen = true;
        mChanged.notify_all();
    }

    /// Returns false at the deadline.
    bool wait(std::chrono::microseconds deadline = testDeadline)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, deadline, [this] { return mOpen; });
    }

    bool isOpen()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mOpen;
    }

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    bool mOpen = false;
};

#endif
