#ifndef TESTS_COMMON_EVENTDISPATCHERFIXTURE_H
#define TESTS_COMMON_EVENTDISPATCHERFIXTURE_H

#include <cstdint>
#include <gtest/gtest.h>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/Calls.h"
#include "common/EventThread.h"
#include "tests/support/Wait.h"

/// Records the calls delivered to it. It can block its dispatcher's thread at a gate.
class Receiver
{
public:
    void take(std::string text)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mTaken.push_back(std::move(text));
    }

    void hold(Gate* reached, Gate* end)
    {
        reached->open();
        end->wait();
    }

    void nothing() {}
    int answer() { return 42; }
    void fail() { throw std::runtime_error("broken call"); }
    void failStrangely() { throw 5; }
    int failToAnswer() { throw std::runtime_error("no answer"); }

    std::vector<std::string> taken()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mTaken;
    }

private:
    std::mutex mMutex;
    std::vector<std::string> mTaken;
};

using Take = Orvane::AsyncEventAgent1<Receiver, std::string>;
using Texts = std::vector<std::string>;

class EventDispatcherTest : public testing::Test
{
protected:
    ~EventDispatcherTest() override
    {
        gate.open();
        thread.stop();
    }

    void post(const std::string& text) { (OV_NEW Take(&receiver, &Receiver::take, text))->send(&thread); }

    void postDelayed(const std::string& text, uint32_t delayMs)
    {
        thread.postDelayed(OV_NEW Take(&receiver, &Receiver::take, text), delayMs);
    }

    /// Occupies the thread until the gate opens.
    void block()
    {
        Gate reached;
        (OV_NEW Orvane::AsyncEventAgent2<Receiver, Gate*, Gate*>(&blocker, &Receiver::hold, &reached, &gate))
            ->send(&thread);
        reached.wait();
    }

    /// Returns when everything queued before is delivered.
    void drain() { (OV_NEW Orvane::SyncEventAgent0<Receiver>(&blocker, &Receiver::nothing))->send(&thread); }

    Receiver receiver;
    Receiver blocker;
    Gate gate;
    Orvane::EventThread thread{"dispatcher", 0};
};

#endif
