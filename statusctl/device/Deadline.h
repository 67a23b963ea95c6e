#ifndef STATUSCTL_DEVICE_DEADLINE_H
#define STATUSCTL_DEVICE_DEADLINE_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

/// Calls a function on its own thread unless it is destroyed in time. The library waits without limit for a
/// broker that does not answer, and nothing can cancel the call. So the function ends the process.
class Deadline
{
public:
    Deadline(std::chrono::milliseconds timeout, std::function<void()> expired);
    ~Deadline();

    Deadline(const Deadline&) = delete;
    Deadline& operator=(const Deadline&) = delete;

private:
    void wait(std::chrono::steady_clock::time_point end);

    std::function<void()> mExpired;
    std::mutex mMutex;
    std::condition_variable mChanged;
    bool mOver = false;
    std::thread mThread;
};

#endif
