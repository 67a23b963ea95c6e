#ifndef TESTS_BROKER_ATTACKS_UNDERATTACK_H
#define TESTS_BROKER_ATTACKS_UNDERATTACK_H

#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "common/EventThread.h"
#include "tests/broker/Messages.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/ProcessMemory.h"
#include "tests/support/ProxyClient.h"
#include "tests/support/RawClient.h"
#include "tests/support/RecordingListener.h"
#include "tests/support/ZmtpPeer.h"

using Frames = std::vector<std::string>;

/// A broker under attack, with a well-behaved poster and requester.
class UnderAttack : public testing::Test
{
protected:
    explicit UnderAttack(const Frames& options = {}) : broker(options) {}

    uint64_t statistic(const std::string& name) { return brokerStatistic(requester, name); }

    /// Waits until the statistic reaches this number.
    bool reaches(const std::string& name, uint64_t number)
    {
        return eventually([&] { return statistic(name) >= number; });
    }

    /// Posts a new value, and asks until the answer contains it.
    void expectServing();

    /// How many lines of the broker's log contain the text.
    std::ptrdiff_t linesWith(const std::string& text);

    BrokerProcess broker;
    RawPoster poster;
    RawRequester requester;

private:
    int mAlive = 0;
};

/// A broker with small limits.
class SmallLimits : public UnderAttack
{
protected:
    SmallLimits()
        : UnderAttack(
              {"--max-keys=3", "--max-message-bytes=2K", "--max-value-bytes=1K", "--max-connections=20"})
    {
    }
};

/// A client of the library that posts, syncs, queries and listens.
class Bystander
{
public:
    /// @param requester for queries to the broker; must outlive this
    explicit Bystander(RawRequester& requester);
    ~Bystander();

    Bystander(const Bystander&) = delete;
    Bystander& operator=(const Bystander&) = delete;

    /// Posts this many values. Each must be read back, and reach the listener. It must be confirmed unless
    /// the broker has not read it within a second, or has closed posters for lack of memory: then the lost
    /// posts could be anyone's.
    void expectServed(int times = 20);

private:
    bool wasClosedForMemory();

    RawRequester& mRequester;
    int mNumber = 0;
    Orvane::EventThread mThread{"bystander", 0};
    RecordingListener mListener;
    ProxyClient mClient;
};

/// The memory of a broker's process, as the kernel counts it.
class BrokerMemory
{
public:
    static constexpr std::size_t mebi = std::size_t{1024} * 1024;

    /// Takes the present memory as the memory of an idle broker.
    explicit BrokerMemory(pid_t broker);

    /// Expects that the memory never exceeded the idle broker's by more than this.
    void expectPeakWithin(std::size_t bytes) const;

    /// Expects that the memory returns to the idle broker's plus this.
    void expectReturnTo(std::size_t bytes) const;

    std::size_t resident() const { return memoryOf(mBroker, "VmRSS"); }

private:
    std::size_t peak() const { return memoryOf(mBroker, "VmHWM"); }

    std::string mBroker; // the process's id
    std::size_t mIdle;
};

#endif
