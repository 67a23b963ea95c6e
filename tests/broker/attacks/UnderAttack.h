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

/// A broker that others attack, with a poster and a requester that behave well.
class UnderAttack : public testing::Test
{
protected:
    explicit UnderAttack(const Frames& options = {}) : broker(options) {}

    uint64_t statistic(const std::string& name) { return brokerStatistic(requester, name); }

    /// Waits until the number is at least so large.
    bool reaches(const std::string& name, uint64_t number)
    {
        return eventually([&] { return statistic(name) >= number; });
    }

    /// Posts a new value and asks until the answer has it.
    void expectServing();

    /// How often the broker's log holds the text.
    std::ptrdiff_t linesWith(const std::string& text);

    BrokerProcess broker;
    RawPoster poster;
    RawRequester requester;

private:
    int mAlive = 0;
};

/// One that takes little.
class SmallLimits : public UnderAttack
{
protected:
    SmallLimits()
        : UnderAttack(
              {"--max-keys=3", "--max-message-bytes=2K", "--max-value-bytes=1K", "--max-connections=20"})
    {
    }
};

/// A client of the library that posts, syncs, asks and listens.
class Bystander
{
public:
    /// @param requester to ask the broker with; must outlive it
    explicit Bystander(RawRequester& requester);
    ~Bystander();

    Bystander(const Bystander&) = delete;
    Bystander& operator=(const Bystander&) = delete;

    /// Posts so many values, each of which must be confirmed, be read again, and reach the listener. It may
    /// stay unconfirmed where posters were closed for want of memory: nobody knows whose posts are lost.
    void expectServed(int times = 20);

private:
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

    /// Takes the present memory for that of an idle broker.
    explicit BrokerMemory(pid_t broker);

    /// That it never had so much more.
    void expectPeakWithin(std::size_t bytes) const;

    /// That it returns to so much more.
    void expectReturnTo(std::size_t bytes) const;

    std::size_t resident() const { return memoryOf(mBroker, "VmRSS"); }

private:
    std::size_t peak() const { return memoryOf(mBroker, "VmHWM"); }

    std::string mBroker; // its process's id
    std::size_t mIdle;
};

#endif
