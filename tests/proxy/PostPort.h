#ifndef TESTS_PROXY_POSTPORT_H
#define TESTS_PROXY_POSTPORT_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <limits>
#include <mutex>
#include <string>
#include <thread>

/// The broker's side of the post channel, on a plain TCP socket with a small receive buffer. It takes posts
/// at its own pace, or none. One client at a time.
class PostPort
{
public:
    static constexpr int none = 0;
    static constexpr int all = std::numeric_limits<int>::max();

    /// Subscribes to everything that a client posts, and takes this many posts a second.
    /// @throws std::runtime_error when the port is taken.
    explicit PostPort(int postsPerSecond);
    ~PostPort();

    PostPort(const PostPort&) = delete;
    PostPort& operator=(const PostPort&) = delete;

    void setPace(int postsPerSecond) { mPace = postsPerSecond; }

    /// Posts taken so far, without the "Sync" that a client posts at its start.
    std::size_t taken() const;
    /// Whether this is the last post taken.
    bool isLast(const std::string& text) const;
    /// Waits for this post. Returns false at the deadline.
    bool waitFor(const std::string& text) const;

private:
    class Stream;

    void run();
    void serve(int connection);
    void note(const std::string& post);
    bool mayTake();

    int mListener;
    std::atomic<int> mPace;
    std::atomic<bool> mStop{false};
    double mDue = 0;                             // used by the port's thread
    std::chrono::steady_clock::time_point mThen; // used by the port's thread

    mutable std::mutex mMutex;
    mutable std::condition_variable mChanged;
    std::size_t mTaken = 0;
    std::string mLast;

    std::thread mThread;
};

#endif
