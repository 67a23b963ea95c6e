#ifndef TESTS_BRIDGE_CUTTINGPROXY_H
#define TESTS_BRIDGE_CUTTINGPROXY_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "daemon/Descriptor.h"

struct pollfd;

/// A bad network between clients and a server: it passes bytes on, late, not at all, or only a part of them.
/// It has a thread of its own; any thread may call its operations.
class CuttingProxy
{
public:
    /// @param target the server's port on loopback
    explicit CuttingProxy(int target);
    ~CuttingProxy();

    CuttingProxy(const CuttingProxy&) = delete;
    CuttingProxy& operator=(const CuttingProxy&) = delete;

    int port() const { return mPort; }

    /// Holds all bytes and new connections back, until pass().
    void stall();
    void pass();

    /// Passes bytes on this much later; 0: at once.
    void delay(std::chrono::milliseconds time);

    /// Ends the connection that sends the last of the next `bytes` bytes. Its later bytes are lost, so the
    /// cut may be in the middle of a packet.
    void cutAfter(std::size_t bytes);

    /// Ends all connections.
    void cutAll();

    /// How many connections it has ended.
    std::size_t cuts() const { return mCuts; }

private:
    struct Pair
    {
        Descriptor client;
        Descriptor server;
    };

    void run();
    void accept();
    std::vector<pollfd> interests() const;
    void forwardAll(const std::vector<pollfd>& items);
    bool forward(const Descriptor& from, const Descriptor& to);
    void wake() const;

    const int mTarget;
    int mPort = 0;
    Descriptor mListener;
    Descriptor mWake;
    std::list<Pair> mPairs; // of the thread
    std::atomic<bool> mIsStalled{false};
    std::atomic<bool> mIsCuttingAll{false};
    std::atomic<bool> mIsEnding{false};
    std::atomic<std::chrono::milliseconds> mDelay{std::chrono::milliseconds(0)};
    std::atomic<long> mBudget{-1}; // bytes until the next cut; -1: none
    std::atomic<std::size_t> mCuts{0};
    std::thread mThread;
};

#endif
